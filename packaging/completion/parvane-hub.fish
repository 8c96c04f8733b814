# Completion of parvane-hub for fish.

complete -c parvane-hub -f
complete -c parvane-hub -n __fish_use_subcommand -a status -d 'Say how the hub that serves is doing'
complete -c parvane-hub -n __fish_use_subcommand -a check-config -d 'Say what is wrong with a configuration'
complete -c parvane-hub -l config -r -F -d 'The configuration'
complete -c parvane-hub -s h -l help -d 'Print help and exit'
complete -c parvane-hub -n __fish_use_subcommand -l version -d 'Print the version and exit'
complete -c parvane-hub -n '__fish_seen_subcommand_from status' -l json -d 'One object on one line'
complete -c parvane-hub -n '__fish_seen_subcommand_from check-config' -F
