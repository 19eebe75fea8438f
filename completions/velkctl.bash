# Completion of velkctl for bash; nothing but bash itself is needed.
_velkctl() {
    local -A options=(
        [backup]="" [clean]="" [firmware-compatibility]="" [help]="" [import]="" [install]="--noreload --skip-if-ex-config"
        [json-validate]="" [list]="--friendly-name --version --legacy-apps --format --bundled-apps" [package-conf]=""
        [re-import]="" [remove]="" [restore]="" [setup]="--noreload" [start]="" [stop]=""
        [teardown]="--noreload --persist-user" [uninstall]="--noreload" [validate-manifest]="" [verify-signature]=""
        [verify-user-group]=""
    )
    local -A arguments=(
        [backup]="app" [import]="package location" [install]="package location" [json-validate]="file file"
        [list]="app" [remove]="app" [restore]="app" [setup]="app" [start]="app" [stop]="app" [teardown]="app"
        [uninstall]="app" [validate-manifest]="app" [verify-signature]="package" [verify-user-group]="app user group"
    )
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]} command="" count=0 word kinds
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case $word in
            -*) ;;
            idd-size) [ "$previous" = idd-size ] && return ;;
            *) if [ -z "$command" ]; then command=$word; else ((count++)); fi ;;
        esac
    done
    COMPREPLY=()
    if [ -z "$command" ]; then
        mapfile -t COMPREPLY < <(compgen -W "--syslog -v --version ${!options[*]}" -- "$current")
        return
    fi
    if [ "$previous" = --format ]; then
        mapfile -t COMPREPLY < <(compgen -W idd-size -- "$current")
        return
    fi
    case $current in
        -*)
            mapfile -t COMPREPLY < <(compgen -W "-h --help ${options[$command]-}" -- "$current")
            return
            ;;
    esac
    read -ra kinds <<<"${arguments[$command]-}"
    case ${kinds[count]-} in
        app) mapfile -t COMPREPLY < <(compgen -W "$(_velkctl_applications)" -- "$current") ;;
        package)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -X '!*.vlp' -- "$current"; compgen -d -- "$current")
            ;;
        file)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$current")
            ;;
        location) mapfile -t COMPREPLY < <(compgen -W "internal sd_card1" -- "$current") ;;
        user) mapfile -t COMPREPLY < <(compgen -u -- "$current") ;;
        group) mapfile -t COMPREPLY < <(compgen -g -- "$current") ;;
    esac
}

# The names in the store; what begins with an underscore is the store's own.
_velkctl_applications() {
    local path
    for path in /usr/local/packages/[A-Za-z]*/; do
        [ -d "$path" ] && basename "$path"
    done
}

complete -F _velkctl velkctl
