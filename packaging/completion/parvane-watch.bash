# Completion of parvane-watch for bash.

_parvane_watch()
{
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local word subcommand= words=
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case $word in
        status | set | steps | activity | gesture | link | memory | battery | quit | record | check-config)
            subcommand=$word
            break
            ;;
        esac
    done
    case $previous in
    --socket | record | --force | check-config)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        [[ $previous != record || $current != -* ]] && return
        ;;
    esac
    case $subcommand in
    '') words='status set steps activity gesture link memory battery quit record check-config --version' ;;
    set)
        case $previous in
        set) words='hr steps activity gesture' ;;
        hr) words='off-wrist' ;;
        activity) words='walking running still other' ;;
        esac
        ;;
    activity) words='walking running still other' ;;
    link) words='up down' ;;
    memory | battery) words='low' ;;
    record) words='--force' ;;
    esac
    words+=' --socket --json --help'
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}
complete -F _parvane_watch parvane-watch
