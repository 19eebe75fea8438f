#compdef velkctl
# Completion of velkctl for zsh.
_velkctl_applications() {
    local -a names
    names=(/usr/local/packages/[A-Za-z]*(N-/:t))
    compadd -a names
}

_velkctl() {
    local -A options arguments
    options=(
        [backup]="" [clean]="" [firmware-compatibility]="" [help]="" [import]="" [install]="--noreload --skip-if-ex-config"
        [json-validate]="" [list]="--friendly-name --version --legacy-apps --format --bundled-apps" [package-conf]=""
        [re-import]="" [remove]="" [restore]="" [setup]="--noreload" [start]="" [stop]=""
        [teardown]="--noreload --persist-user" [uninstall]="--noreload" [validate-manifest]="" [verify-signature]=""
        [verify-user-group]=""
    )
    arguments=(
        [backup]="app" [import]="package location" [install]="package location" [json-validate]="file file"
        [list]="app" [remove]="app" [restore]="app" [setup]="app" [start]="app" [stop]="app" [teardown]="app"
        [uninstall]="app" [validate-manifest]="app" [verify-signature]="package" [verify-user-group]="app user group"
    )
    local word command="" count=0
    for word in ${words[2,CURRENT-1]}; do
        case $word in
            -*|idd-size) ;;
            *) if [[ -z $command ]]; then command=$word; else ((count += 1)); fi ;;
        esac
    done
    if [[ -z $command ]]; then
        compadd -- --syslog -v --version ${(k)options}
        return
    fi
    if [[ ${words[CURRENT-1]} == --format ]]; then
        compadd -- idd-size
        return
    fi
    if [[ ${words[CURRENT]} == -* ]]; then
        compadd -- -h --help ${=options[$command]}
        return
    fi
    local -a kinds
    kinds=(${=arguments[$command]})
    case ${kinds[count+1]} in
        app) _velkctl_applications ;;
        package) _files -g '*.vlp' ;;
        file) _files ;;
        location) compadd -- internal sd_card1 ;;
        user) _users ;;
        group) _groups ;;
    esac
}

_velkctl "$@"
