# Completion of velkctl for fish.
function __velkctl_applications --description 'The names in the store'
    for path in /usr/local/packages/*/
        string match -rq '^[A-Za-z]' (basename $path); and basename $path
    end
end

function __velkctl_using --description 'Whether this command is being completed'
    set -l words (commandline -opc)
    for word in $words[2..]
        if not string match -q -- '-*' $word
            test $word = $argv[1]
            return
        end
    end
    test -z "$argv[1]"
end

complete -c velkctl -f
complete -c velkctl -n '__velkctl_using ""' -l syslog
complete -c velkctl -n '__velkctl_using ""' -s v -l version
complete -c velkctl -n 'not __velkctl_using ""' -s h -l help
complete -c velkctl -n '__velkctl_using ""' -a backup
complete -c velkctl -n '__velkctl_using ""' -a clean
complete -c velkctl -n '__velkctl_using ""' -a firmware-compatibility
complete -c velkctl -n '__velkctl_using ""' -a help
complete -c velkctl -n '__velkctl_using ""' -a import
complete -c velkctl -n '__velkctl_using ""' -a install
complete -c velkctl -n '__velkctl_using ""' -a json-validate
complete -c velkctl -n '__velkctl_using ""' -a list
complete -c velkctl -n '__velkctl_using ""' -a package-conf
complete -c velkctl -n '__velkctl_using ""' -a re-import
complete -c velkctl -n '__velkctl_using ""' -a remove
complete -c velkctl -n '__velkctl_using ""' -a restore
complete -c velkctl -n '__velkctl_using ""' -a setup
complete -c velkctl -n '__velkctl_using ""' -a start
complete -c velkctl -n '__velkctl_using ""' -a stop
complete -c velkctl -n '__velkctl_using ""' -a teardown
complete -c velkctl -n '__velkctl_using ""' -a uninstall
complete -c velkctl -n '__velkctl_using ""' -a validate-manifest
complete -c velkctl -n '__velkctl_using ""' -a verify-signature
complete -c velkctl -n '__velkctl_using ""' -a verify-user-group
complete -c velkctl -n '__velkctl_using install' -l noreload
complete -c velkctl -n '__velkctl_using install' -l skip-if-ex-config
complete -c velkctl -n '__velkctl_using list' -l friendly-name
complete -c velkctl -n '__velkctl_using list' -l version
complete -c velkctl -n '__velkctl_using list' -l legacy-apps
complete -c velkctl -n '__velkctl_using list' -l format -x -a idd-size
complete -c velkctl -n '__velkctl_using list' -l bundled-apps
complete -c velkctl -n '__velkctl_using setup' -l noreload
complete -c velkctl -n '__velkctl_using teardown' -l noreload
complete -c velkctl -n '__velkctl_using teardown' -l persist-user
complete -c velkctl -n '__velkctl_using uninstall' -l noreload
complete -c velkctl -n '__velkctl_using backup' -a '(__velkctl_applications)'
complete -c velkctl -n '__velkctl_using list' -a '(__velkctl_applications)'
complete -c velkctl -n '__velkctl_using remove' -a '(__velkctl_applications)'
complete -c velkctl -n '__velkctl_using restore' -a '(__velkctl_applications)'
complete -c velkctl -n '__velkctl_using setup' -a '(__velkctl_applications)'
complete -c velkctl -n '__velkctl_using start' -a '(__velkctl_applications)'
complete -c velkctl -n '__velkctl_using stop' -a '(__velkctl_applications)'
complete -c velkctl -n '__velkctl_using teardown' -a '(__velkctl_applications)'
complete -c velkctl -n '__velkctl_using uninstall' -a '(__velkctl_applications)'
complete -c velkctl -n '__velkctl_using validate-manifest' -a '(__velkctl_applications)'
complete -c velkctl -n '__velkctl_using verify-user-group' -a '(__velkctl_applications)'
complete -c velkctl -n '__velkctl_using import' -a '(__fish_complete_suffix .vlp)'
complete -c velkctl -n '__velkctl_using install' -a '(__fish_complete_suffix .vlp)'
complete -c velkctl -n '__velkctl_using verify-signature' -a '(__fish_complete_suffix .vlp)'
complete -c velkctl -n '__velkctl_using import' -a 'internal sd_card1'
complete -c velkctl -n '__velkctl_using install' -a 'internal sd_card1'
complete -c velkctl -n '__velkctl_using json-validate' -F
