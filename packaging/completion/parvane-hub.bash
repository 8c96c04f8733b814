# Completion of parvane-hub for bash.

_parvane_hub()
{
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local word command= words=
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case $word in
        status | check-config) command=${command:-$word} ;;
        esac
    done
    case $previous in
    --config | check-config)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
        ;;
    esac
    case $command in
    '') words='status check-config --version' ;;
    status) words='--json' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words --config --help" -- "$current")
}
complete -F _parvane_hub parvane-hub
