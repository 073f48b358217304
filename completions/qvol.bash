# bash completion for qvol(1)                                             -*- shell-script -*-

# The options of commands that store what sources contain.
_qvol_source_rules() {
    echo --attr --contents --dereference --exclude --exclude-from --read-only-from-mode --skip-special \
        --times --timezone
}

# The options of a command beyond those of every command.
_qvol_options() {
    case $1 in
    attr) echo -a -h -r --recursive -R -s ;;
    build)
        echo --android-sparse --bmap --cluster --compact --fat --force -f --from --hidden-sectors --label \
            --log --media --no-mirror --oem --page --pool --sector --short-names --size --sparse --volume-id \
            --zstd
        _qvol_source_rules
        ;;
    check) echo --dry-run --free-lost --no-undo --rebuild-boot --repair --undo ;;
    disk)
        echo --align --android-sparse --bmap --force -f --gpt --mbr --part --sector --size --sparse --zstd
        _qvol_source_rules
        ;;
    dump | mv) echo --force -f ;;
    get) echo --attrs --force -f ;;
    fastpath) echo --dir ;;
    flash) echo --bmap --discard --force -f --no-verify --zero ;;
    info) echo --pages-from ;;
    ls) echo --long -l --recursive -R ;;
    manifest) echo --pieces ;;
    map) echo --force -f --pages-from --svg ;;
    mkdir) echo --parents -p ;;
    put)
        echo --attrs --force -f --from
        _qvol_source_rules
        ;;
    rm) echo --recursive -r ;;
    salvage) echo --deleted ;;
    touch) echo --no-create -c --time ;;
    esac
}

# The values of an option of the command; fails for an option without a value. "files" and "directories"
# are those of the host, "any" is a value that cannot be completed.
_qvol_values() {
    case $1 in
    --align) echo 4K 64K 1M 4M ;;
    --cluster) echo 512 1K 2K 4K 8K 16K 32K ;;
    --attr | --exclude | --time | --timezone) echo any ;;
    --contents) echo directories ;;
    --times) echo keep clamp none ;;
    --dir | --hidden-sectors | --label | --oem | --part | --volume-id) echo any ;;
    --encoding) echo UTF-8 ISO-8859-1 ISO-8859-15 CP437 CP850 CP1252 EUC-JP SHIFT-JIS GB18030 ;;
    --fat) echo auto 12 16 32 ;;
    --exclude-from | --from) echo files ;;
    --media) echo 0xF0 0xF8 ;;
    --page) echo 0 2K 4K 8K 16K ;;
    --pages-from) echo disk volume ;;
    --pieces) echo 0 4K 64K 1M ;;
    --sector) [[ $2 == disk ]] && echo 512 4096 || echo 512 1K 2K 4K ;;
    --size) echo auto ;;
    --sparse) echo auto always ;;
    --android-sparse | --bmap | --svg | --undo | --zstd) echo files ;;
    *) return 1 ;;
    esac
}

# The kind of the N-th argument of the command; the first is the image. Paths in the volume are "any".
_qvol_argument() {
    case $1:$2 in
    *:1) echo files ;;
    dump:2) echo cluster fat file ;;
    dump:* | flash:2 | get:3 | put:* | salvage:2 | undo:* | verify:2) echo files ;;
    *) echo any ;;
    esac
}

# Offers those of the words, or of the kind, that begin with the typed text.
_qvol_offer() {
    local typed=$1
    shift
    case $1 in
    any) COMPREPLY=() ;;
    files) mapfile -t COMPREPLY < <(compgen -f -- "$typed") ;;
    directories) mapfile -t COMPREPLY < <(compgen -d -- "$typed") ;;
    *)
        compopt +o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -W "$*" -- "$typed")
        ;;
    esac
}

# Sets the command and the number of arguments between it and the cursor.
_qvol_look_back() {
    local i
    command="" arguments=0
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
        = | @) ((i++)) ;; # bash takes them for words: --fat=16, disk.img@1M
        -*)
            if _qvol_values "${COMP_WORDS[i]}" "$command" >/dev/null && [[ ${COMP_WORDS[i + 1]} != "=" ]]; then
                ((i++))
            fi
            ;;
        +*) [[ $command == attr ]] || ((arguments++)) ;;
        *)
            if [[ -z $command ]]; then
                command=${COMP_WORDS[i]}
            else
                ((arguments++))
            fi
            ;;
        esac
    done
}

_qvol() {
    local typed=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
    local command arguments values
    if [[ $typed == "@" || $before == "@" ]]; then # disk.img@1
        COMPREPLY=()
        return
    elif [[ $typed == "=" ]]; then # --fat=
        typed=""
    elif [[ $before == "=" ]]; then # --fat=1
        before=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    _qvol_look_back

    if [[ -z $command && $typed == -* ]]; then
        _qvol_offer "$typed" --help -h --version
    elif [[ -z $command ]]; then
        _qvol_offer "$typed" attr build cat check compact disk dump fastpath flash get id info label ln \
            log ls manifest map mirror mkdir mv owner pool put rm salvage stat touch tree undo verify
    elif values=$(_qvol_values "$before" "$command"); then
        _qvol_offer "$typed" $values
    elif [[ $typed == -* ]]; then
        _qvol_offer "$typed" --backup-boot --encoding --help -h --json --quiet -q --verbose -v \
            $(_qvol_options "$command")
    else
        _qvol_offer "$typed" $(_qvol_argument "$command" $((arguments + 1)))
    fi
}

complete -o filenames -F _qvol qvol
