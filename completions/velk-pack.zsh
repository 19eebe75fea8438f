#compdef velk-pack
# Completion of velk-pack for zsh.
_velk_pack() {
    local -A options
    options=(
        [attach]="--output" [build]="--output --plain" [help]="" [info]="" [new]="--language --output"
        [sign]="--key --output" [split]="--output" [verify]="--keyring"
    )
    local command=${words[2]}
    if ((CURRENT == 2)); then
        compadd -- -v --version ${(k)options}
        return
    fi
    case ${words[CURRENT-1]} in
        --language) compadd -- c shell; return ;;
        --key)
            compadd -- $(gpg --batch --with-colons --list-secret-keys 2>/dev/null | sed -n 's/^fpr:*\([0-9A-F]*\):.*/\1/p')
            return
            ;;
        --output|--keyring) _files; return ;;
    esac
    if [[ ${words[CURRENT]} == -* ]]; then
        compadd -- -h --help --json ${=options[$command]}
        return
    fi
    case $command in
        build) _files -/ ;;
        attach) _files ;;
        info|sign|split|verify) _files -g '*.vlp' ;;
    esac
}

_velk_pack "$@"
