# Completion of velk-pack for bash; nothing but bash itself is needed.
_velk_pack() {
    local -A options=(
        [attach]="--output" [build]="--output --plain" [help]="" [info]="" [new]="--language --output"
        [sign]="--key --output" [split]="--output" [verify]="--keyring"
    )
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]} command=${COMP_WORDS[1]}
    COMPREPLY=()
    if [ "$COMP_CWORD" -eq 1 ]; then
        mapfile -t COMPREPLY < <(compgen -W "-v --version ${!options[*]}" -- "$current")
        return
    fi
    case $previous in
        --language)
            mapfile -t COMPREPLY < <(compgen -W "c shell" -- "$current")
            return
            ;;
        --key)
            mapfile -t COMPREPLY < <(compgen -W "$(gpg --batch --with-colons --list-secret-keys 2>/dev/null |
                sed -n 's/^fpr:*\([0-9A-F]*\):.*/\1/p')" -- "$current")
            return
            ;;
        --output | --keyring)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$current")
            return
            ;;
    esac
    case $current in
        -*)
            mapfile -t COMPREPLY < <(compgen -W "-h --help --json ${options[$command]-}" -- "$current")
            return
            ;;
    esac
    case $command in
        build)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -d -- "$current")
            ;;
        attach)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$current")
            ;;
        info | sign | split | verify)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -X '!*.vlp' -- "$current"; compgen -d -- "$current")
            ;;
    esac
}

complete -F _velk_pack velk-pack
