# Completion of velk-pack for fish.
function __velk_pack_using --description 'Whether this command is being completed'
    set -l words (commandline -opc)
    for word in $words[2..]
        if not string match -q -- '-*' $word
            test $word = $argv[1]
            return
        end
    end
    test -z "$argv[1]"
end

complete -c velk-pack -f
complete -c velk-pack -n '__velk_pack_using ""' -s v -l version
complete -c velk-pack -n 'not __velk_pack_using ""' -s h -l help
complete -c velk-pack -n 'not __velk_pack_using ""' -l json
complete -c velk-pack -n '__velk_pack_using ""' -a attach
complete -c velk-pack -n '__velk_pack_using ""' -a build
complete -c velk-pack -n '__velk_pack_using ""' -a help
complete -c velk-pack -n '__velk_pack_using ""' -a info
complete -c velk-pack -n '__velk_pack_using ""' -a new
complete -c velk-pack -n '__velk_pack_using ""' -a sign
complete -c velk-pack -n '__velk_pack_using ""' -a split
complete -c velk-pack -n '__velk_pack_using ""' -a verify
complete -c velk-pack -n '__velk_pack_using attach' -l output -r -F
complete -c velk-pack -n '__velk_pack_using build' -l output -r -F
complete -c velk-pack -n '__velk_pack_using build' -l plain
complete -c velk-pack -n '__velk_pack_using new' -l language -x -a 'c shell'
complete -c velk-pack -n '__velk_pack_using new' -l output -r -F
complete -c velk-pack -n '__velk_pack_using sign' -l key -x
complete -c velk-pack -n '__velk_pack_using sign' -l output -r -F
complete -c velk-pack -n '__velk_pack_using split' -l output -r -F
complete -c velk-pack -n '__velk_pack_using verify' -l keyring -r -F
complete -c velk-pack -n '__velk_pack_using build' -a '(__fish_complete_directories)'
complete -c velk-pack -n '__velk_pack_using attach' -F
complete -c velk-pack -n '__velk_pack_using info' -a '(__fish_complete_suffix .vlp)'
complete -c velk-pack -n '__velk_pack_using sign' -a '(__fish_complete_suffix .vlp)'
complete -c velk-pack -n '__velk_pack_using split' -a '(__fish_complete_suffix .vlp)'
complete -c velk-pack -n '__velk_pack_using verify' -a '(__fish_complete_suffix .vlp)'
