# Completes command lines of tessel in bash. Written by scripts/completions from what --help says; changes here get lost.

# Whether the word after this option is its value.
_tessel_takes_value() {
    case $1 in
        --a-kind | --allow | --b-kind | --b-password-file | --from | --jobs | --level | --new-password-file | --open-password-file | --parent | --password-file | --size | --svg | --to) return 0 ;;
    esac
    return 1
}

_tessel_kind_of_value() {
    case $1 in
        --a-kind | --b-kind | --from | --to) kind='words raw vmdk' ;;
        --allow) kind='folder' ;;
        --b-password-file | --new-password-file | --open-password-file | --password-file | --svg) kind='file' ;;
        --jobs | --size | --split) kind='text' ;;
        --level) kind='words 0 1 2 3 4 5 6 7 8 9' ;;
        --parent) kind='disk' ;;
    esac
}

_tessel_describe() {
    case $1 in
        info)
            options='-h --help --json --password-file --allow'
            arguments=(disk)
            ;;
        convert)
            options='-h --help --from --to --size --compressed --level --split --on-demand --parent --force --password-file --encrypt --open-password-file --allow --jobs --sync --json --quiet'
            arguments=(file file)
            ;;
        create)
            options='-h --help --compressed --level --split --on-demand --parent --force --password-file --encrypt --open-password-file --allow --sync --json'
            arguments=(disk text)
            ;;
        read)
            options='-h --help --quiet --password-file --allow'
            arguments=(disk text text)
            ;;
        write)
            options='-h --help --level --json --quiet --password-file --allow'
            arguments=(disk text)
            ;;
        space)
            options='-h --help --json --quiet --password-file --allow'
            arguments=(disk)
            ;;
        map)
            options='-h --help --json --blocks --svg --force --quiet --password-file --allow'
            arguments=(disk)
            ;;
        compare)
            options='-h --help --a-kind --b-kind --json --first --quiet --password-file --allow --b-password-file'
            arguments=(file file)
            ;;
        measure)
            options='-h --help --from --to --size --compressed --level --split --on-demand --parent --encrypt --json --password-file --allow --jobs --quiet'
            arguments=(file file)
            ;;
        check)
            options='-h --help --quick --json --quiet --password-file --allow'
            arguments=(disk)
            ;;
        rebase)
            options='-h --help --unsafe --json --password-file --allow'
            arguments=(disk disk)
            ;;
        flatten)
            options='-h --help --level --json --quiet --password-file --allow'
            arguments=(disk)
            ;;
        compact)
            options='-h --help --json --quiet --password-file --allow'
            arguments=(disk)
            ;;
        rename)
            options='-h --help --json --allow'
            arguments=(disk disk)
            ;;
        passwd)
            options='-h --help --json --password-file --allow --new-password-file'
            arguments=(disk)
            ;;
    esac
}

# Nothing found means that the shell completes file names by itself, as the kinds without an entry want.
_tessel_complete_kind() {
    case $1 in
        disk)
            # Disks with the usual name, and folders; or else all files.
            local plain=${current//[\\\'\"]/}
            mapfile -t COMPREPLY < <(compgen -f -X '!*.[vV][mM][dD][kK]' -- "$plain")
            ((${#COMPREPLY[@]} == 0)) || compopt -o filenames -o plusdirs
            ;;
        folder) compopt -o dirnames +o default +o bashdefault ;;
        words*) COMPREPLY=($(compgen -W "${1#words}" -- "$current")) ;;
        text) compopt +o default +o bashdefault ;;
    esac
}

_tessel() {
    local current=${COMP_WORDS[COMP_CWORD]} options= kind= i
    local -a arguments=()
    COMPREPLY=()
    if ((COMP_CWORD == 1)); then
        compopt +o default +o bashdefault
        local verbs='info convert create read write space map compare measure check rebase flatten compact rename passwd' first='-h --help --version'
        [[ $current != -* ]] || verbs=$first
        COMPREPLY=($(compgen -W "$verbs" -- "$current"))
        return
    fi
    _tessel_describe "${COMP_WORDS[1]}"

    # "=" is a word of its own here.
    local before=${COMP_WORDS[COMP_CWORD - 1]}
    if [[ $current == = && $before == --* ]]; then
        _tessel_kind_of_value "$before"
        current=
    elif [[ $before == = ]]; then
        _tessel_kind_of_value "${COMP_WORDS[COMP_CWORD - 2]}"
    elif _tessel_takes_value "$before"; then
        _tessel_kind_of_value "$before"
    fi
    if [[ -n $kind ]]; then
        _tessel_complete_kind "$kind"
        return
    fi

    local count=0 ended=
    for ((i = 2; i < COMP_CWORD; ++i)); do
        case $ended${COMP_WORDS[i]} in
            --) ended=yes: ;;
            -?*)
                if [[ ${COMP_WORDS[i + 1]} == = ]]; then
                    ((i += 2))
                elif _tessel_takes_value "${COMP_WORDS[i]}"; then
                    ((++i))
                fi
                ;;
            *) ((++count)) ;;
        esac
    done
    if [[ -z $ended && ( $current == -* || count -ge ${#arguments[@]} ) ]]; then
        compopt +o default +o bashdefault
        COMPREPLY=($(compgen -W "$options" -- "$current"))
    else
        _tessel_complete_kind "${arguments[count]-text}"
    fi
}

complete -o bashdefault -o default -F _tessel tessel
