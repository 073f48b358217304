# bash completion for quorvel(8)                                          -*- shell-script -*-

_quorvel() {
    local typed=${COMP_WORDS[COMP_CWORD]} values=""
    case ${COMP_WORDS[COMP_CWORD - 1]} in
    -F) values="16 32" ;;
    -p) values="0 2048 4096 8192" ;;
    -S) values="512 1024 2048 4096" ;;
    -s) values="1 2 4 8 16 32 64" ;;
    -l)
        COMPREPLY=()
        return
        ;;
    *)
        if [[ $typed == -* ]]; then
            values="-F -l -p -S -s -v"
        else
            mapfile -t COMPREPLY < <(compgen -f -- "$typed")
            return
        fi
        ;;
    esac
    compopt +o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -W "$values" -- "$typed")
}

complete -o filenames -F _quorvel quorvel
