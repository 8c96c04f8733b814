# Completion of parvane-host for bash.

_parvane_host()
{
    local current=${COMP_WORDS[COMP_CWORD]} word subcommand= words=
    case ${COMP_WORDS[COMP_CWORD - 1]} in
    --socket | --token-file | --capture | --output)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
        ;;
    --timestamps)
        mapfile -t COMPREPLY < <(compgen -W 'iso unix' -- "$current")
        return
        ;;
    --format)
        mapfile -t COMPREPLY < <(compgen -W 'csv jsonl tcx recording' -- "$current")
        return
        ;;
    --link | --fingerprint | --timeout | --every | --count | --for | --quiet-for)
        return
        ;;
    esac
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case $word in
        list | measure | watch | today | stop | raw | export)
            subcommand=$word
            break
            ;;
        esac
    done
    case $subcommand in
    '') words='list measure watch today stop raw export --version' ;;
    measure) words='hr wear steps activity --every --count --raw' ;;
    watch) words='activity steps hr wear all --for --raw' ;;
    stop) words='activity hr wear steps' ;;
    raw) words='--quiet-for' ;;
    export)
        words='--format --output'
        if [[ $current != -* ]]; then
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$current")
            return
        fi
        ;;
    esac
    words+=' --socket --link --token-file --fingerprint --capture --force --timeout --wait --timestamps --json --no-state --help'
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}
complete -F _parvane_host parvane-host
