# bash completion for kpim(1)

# Offers files for the words in $1 and directories for those in $2, by their number.
_kpim_operand() {
    local i count=0 takes_value="-o --output --exclude --threads --kind --locale --ca-file --time-limit"
    for ((i = 2; i < COMP_CWORD; ++i)); do
        if [[ " $takes_value " == *" ${COMP_WORDS[i]} "* ]]; then
            # "--kind=pep" comes as three words.
            [ "${COMP_WORDS[i + 1]-}" = = ] && ((++i))
            ((++i))
        elif [[ ${COMP_WORDS[i]} != -?* ]]; then
            ((++count))
        fi
    done
    if [[ " $1 " == *" $count "* ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
    elif [[ " $2 " == *" $count "* ]]; then
        mapfile -t COMPREPLY < <(compgen -d -- "$current")
    fi
}

_kpim() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command=${COMP_WORDS[1]} words="--help"
    local commands="pack list verify diff unpack check latest help"
    if [ "$COMP_CWORD" -eq 1 ]; then
        mapfile -t COMPREPLY < <(compgen -W "$commands --help --version" -- "$current")
        return
    fi
    # "--kind=pep" comes as three words.
    if [ "$current" = = ]; then
        current=
    elif [ "$previous" = = ]; then
        previous=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    case $previous in
        --kind)
            mapfile -t COMPREPLY < <(compgen -W "pep pl" -- "$current")
            return
            ;;
        --time-limit | --locale | --exclude | --threads)
            return
            ;;
        -o | --output | --ca-file)
            mapfile -t COMPREPLY < <(compgen -f -- "$current")
            return
            ;;
    esac
    if [[ $current == -* ]]; then
        case $command in
            pack)
                words+=" --output --exclude --threads --sort --no-sort --verify --quiet --strict"
                words+=" --json"
                ;;
            list | verify | diff | unpack | check) words+=" --json" ;;
            latest) words+=" --kind --locale --ca-file --time-limit --json" ;;
        esac
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
        return
    fi
    case $command in
        pack) _kpim_operand "" "0" ;;
        list) _kpim_operand "0" "" ;;
        diff) _kpim_operand "0 1" "" ;;
        verify | unpack) _kpim_operand "0" "1" ;;
        help) mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$current") ;;
    esac
}
complete -o filenames -F _kpim kpim
