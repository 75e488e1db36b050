# bash completion for kpim(1)

_kpim() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command=${COMP_WORDS[1]} words=
    if [ "$COMP_CWORD" -eq 1 ]; then
        mapfile -t COMPREPLY < <(compgen -W "pack list verify unpack check latest --help --version" -- "$current")
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
        --time-limit | --exclude | --threads)
            return
            ;;
        -o | --output)
            mapfile -t COMPREPLY < <(compgen -f -- "$current")
            return
            ;;
    esac
    case $command in
        pack) words="--help --output --exclude --threads --sort --no-sort --verify --quiet --strict --json" ;;
        list | check) words="--help --json" ;;
        verify | unpack) words="--help" ;;
        latest) words="--help --kind --time-limit --json" ;;
    esac
    if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
    elif [ "$command" = pack ]; then
        mapfile -t COMPREPLY < <(compgen -d -- "$current")
    elif [[ $command == @(list|verify|unpack) ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
    fi
}
complete -o filenames -F _kpim kpim
