# Completion of parvane-host for fish.

complete -c parvane-host -f
complete -c parvane-host -n __fish_use_subcommand -a list -d 'List the sensors and the address of the watch'
complete -c parvane-host -n __fish_use_subcommand -a measure -d 'Ask for one reading, or for one again and again'
complete -c parvane-host -n __fish_use_subcommand -a watch -d 'Print readings as they come'
complete -c parvane-host -n __fish_use_subcommand -a today -d 'Print how many steps were walked today'
complete -c parvane-host -n __fish_use_subcommand -a stop -d "End the pushing of a sensor's readings"
complete -c parvane-host -n __fish_use_subcommand -a raw -d 'Send packets as they are, and print every reply'
complete -c parvane-host -n __fish_use_subcommand -a export -d 'Print what captures hold'

complete -c parvane-host -l socket -r -F -d 'Socket of the accessory link'
complete -c parvane-host -l link -x -a 'wss:// ws:// unix:' -d 'The watch: its gateway, or a socket'
complete -c parvane-host -l token-file -r -F -d 'What opens the gateway'
complete -c parvane-host -l fingerprint -x -d 'SHA-256 of the certificate'
complete -c parvane-host -l capture -r -F -d 'Write every packet to a file for Wireshark'
complete -c parvane-host -l force -d 'Overwrite a file that exists'
complete -c parvane-host -l timeout -x -d 'How long to wait for the watch, in seconds'
complete -c parvane-host -l wait -d 'Wait for a service that is just starting'
complete -c parvane-host -l timestamps -x -a 'iso unix' -d 'Begin each reading with its time'
complete -c parvane-host -l json -d 'Print one JSON object a line'
complete -c parvane-host -l no-state -d 'Keep and read no steps'
complete -c parvane-host -s h -l help -d 'Print help and exit'
complete -c parvane-host -n __fish_use_subcommand -l version -d 'Print the version and exit'

complete -c parvane-host -n '__fish_seen_subcommand_from measure' -a 'hr wear steps activity'
complete -c parvane-host -n '__fish_seen_subcommand_from measure' -l every -x -d 'Measure again, so many seconds after the one before'
complete -c parvane-host -n '__fish_seen_subcommand_from measure' -l count -x -d 'End after so many'
complete -c parvane-host -n '__fish_seen_subcommand_from watch' -a 'activity steps hr wear all'
complete -c parvane-host -n '__fish_seen_subcommand_from watch' -l for -x -d 'End after so many seconds'
complete -c parvane-host -n '__fish_seen_subcommand_from stop' -a 'activity hr wear steps'
complete -c parvane-host -n '__fish_seen_subcommand_from measure watch' -l raw -d 'Print steps as the total on the wire'
complete -c parvane-host -n '__fish_seen_subcommand_from raw' -l quiet-for -x -d 'How many milliseconds are quiet'
complete -c parvane-host -n '__fish_seen_subcommand_from export' -F
complete -c parvane-host -n '__fish_seen_subcommand_from export' -l format -x -a 'csv jsonl tcx recording' -d 'The form'
complete -c parvane-host -n '__fish_seen_subcommand_from export' -l output -r -F -d 'Write to a file'
