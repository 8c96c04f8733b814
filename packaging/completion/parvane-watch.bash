# Completion of parvane-watch for bash.

_parvane_watch()
{
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local word subcommand= words=
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case $word in
        status | monitor | config | log | set | steps | activity | gesture | link | memory | battery | quit | \
            record | capture | play | replay | check-config)
            subcommand=$word
            break
            ;;
        esac
    done
    case $previous in
    --seed | --speed | --for | --until-quiet)
        return
        ;;
    --tags)
        mapfile -t COMPREPLY < <(compgen -W 'Parvane platform' -- "$current")
        return
        ;;
    --on)
        mapfile -t COMPREPLY < <(compgen -W 'hr steps activity gesture hr,steps,activity' -- "$current")
        return
        ;;
    --socket | record | capture | --force | play | check-config)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        [[ $previous != record && $previous != capture && $previous != play || $current != -* ]] && return
        ;;
    esac
    case $subcommand in
    '')
        words='status monitor config log set steps activity gesture link memory battery quit record'
        words+=' capture play replay check-config --version'
        ;;
    log) words='auto verbose debug info warning error fatal --tags' ;;
    play) words='--seed --speed' ;;
    replay)
        case $previous in
        replay) words='status list pause resume seek speed open' ;;
        open) words=$(parvane-watch replay list 2>/dev/null) ;;
        esac
        ;;
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
    record) words='--force --on' ;;
    capture) words='--for --until-quiet --force' ;;
    monitor) words='--plain --for' ;;
    esac
    words+=' --socket --json --help'
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}
complete -F _parvane_watch parvane-watch
