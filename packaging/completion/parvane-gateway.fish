# Completion of parvane-gateway for fish.

complete -c parvane-gateway -f
complete -c parvane-gateway -n __fish_use_subcommand -a status -d 'Say how the gateway that serves is doing'
complete -c parvane-gateway -n __fish_use_subcommand -a token -d 'Say or change who is let in'
complete -c parvane-gateway -n __fish_use_subcommand -a pair -d 'Let phones pair over Bluetooth for a while'
complete -c parvane-gateway -n __fish_use_subcommand -a check-config -d 'Say what is wrong with a configuration'
complete -c parvane-gateway -l config -r -F -d 'The configuration'
complete -c parvane-gateway -s h -l help -d 'Print help and exit'
complete -c parvane-gateway -n __fish_use_subcommand -l version -d 'Print the version and exit'
complete -c parvane-gateway -n '__fish_seen_subcommand_from token' -a 'add list remove'
complete -c parvane-gateway -n '__fish_seen_subcommand_from add' -l scope -x -a 'phone view control console' -d 'What it is for'
complete -c parvane-gateway -n '__fish_seen_subcommand_from add pair' -l for -x -d 'For how long'
complete -c parvane-gateway -n '__fish_seen_subcommand_from add' -l no-qr -d 'No QR code'
complete -c parvane-gateway -n '__fish_seen_subcommand_from pair' -l yes -d 'Ask nobody'
complete -c parvane-gateway -n '__fish_seen_subcommand_from status add list' -l json -d 'One object on one line'
complete -c parvane-gateway -n '__fish_seen_subcommand_from check-config' -F
