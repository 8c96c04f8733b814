# Completion of parvane-gateway for bash.

_parvane_gateway()
{
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local word command= words=
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case $word in
        status | token | pair | check-config) command=${command:-$word} ;;
        add | list | remove) [ "$command" != token ] || command=$word ;;
        esac
    done
    case $previous in
    --for)
        return
        ;;
    --scope)
        mapfile -t COMPREPLY < <(compgen -W 'phone view control console' -- "$current")
        return
        ;;
    --config | check-config)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
        ;;
    esac
    case $command in
    '') words='status token pair check-config --version' ;;
    status | list) words='--json' ;;
    token) words='add list remove' ;;
    add) words='--scope --for --no-qr --json' ;;
    pair) words='--for --yes' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words --config --help" -- "$current")
}
complete -F _parvane_gateway parvane-gateway
