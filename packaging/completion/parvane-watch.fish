# Completion of parvane-watch for fish.

complete -c parvane-watch -f
complete -c parvane-watch -n __fish_use_subcommand -a status -d 'Say what the service is doing'
complete -c parvane-watch -n __fish_use_subcommand -a config -d 'Say which settings are in force, and where each is from'
complete -c parvane-watch -n __fish_use_subcommand -a log -d 'Say or change which lines the service logs'
complete -c parvane-watch -n __fish_use_subcommand -a monitor -d 'Show what the service is doing as it happens'
complete -c parvane-watch -n __fish_use_subcommand -a set -d 'Set what the manual source reports'
complete -c parvane-watch -n __fish_use_subcommand -a steps -d 'Short for set steps'
complete -c parvane-watch -n __fish_use_subcommand -a activity -d 'Short for set activity'
complete -c parvane-watch -n __fish_use_subcommand -a gesture -d 'Short for set gesture'
complete -c parvane-watch -n __fish_use_subcommand -a link -d 'Take the accessory link down, or bring it up'
complete -c parvane-watch -n __fish_use_subcommand -a memory -d 'Tell the service that memory is low'
complete -c parvane-watch -n __fish_use_subcommand -a battery -d 'Tell the service that the battery is low'
complete -c parvane-watch -n __fish_use_subcommand -a quit -d 'End the service in order'
complete -c parvane-watch -n __fish_use_subcommand -a record -d 'Write every reading of the sensors to a file'
complete -c parvane-watch -n __fish_use_subcommand -a capture -d 'Write what crosses the accessory link to a file'
complete -c parvane-watch -n __fish_use_subcommand -a play -d 'Play a scenario'
complete -c parvane-watch -n __fish_use_subcommand -a check-config -d 'Say what is wrong with a configuration file'

complete -c parvane-watch -l socket -r -F -d 'The control socket'
complete -c parvane-watch -l json -d 'Print one JSON object'
complete -c parvane-watch -s h -l help -d 'Print help and exit'
complete -c parvane-watch -n __fish_use_subcommand -l version -d 'Print the version and exit'

complete -c parvane-watch -n '__fish_seen_subcommand_from set' -a 'hr steps activity gesture off-wrist walking running still other'
complete -c parvane-watch -n '__fish_seen_subcommand_from activity' -a 'walking running still other'
complete -c parvane-watch -n '__fish_seen_subcommand_from link' -a 'up down'
complete -c parvane-watch -n '__fish_seen_subcommand_from memory battery' -a low
complete -c parvane-watch -n '__fish_seen_subcommand_from monitor' -l plain -d 'Print a line for each event'
complete -c parvane-watch -n '__fish_seen_subcommand_from monitor capture' -l for -x -d 'End after so many seconds'
complete -c parvane-watch -n '__fish_seen_subcommand_from capture' -l until-quiet -x -d 'End when nothing has crossed the link for so many seconds'
complete -c parvane-watch -n '__fish_seen_subcommand_from record capture' -l force -d 'Overwrite a file that exists'
complete -c parvane-watch -n '__fish_seen_subcommand_from record' -l on -x -a 'hr steps activity gesture hr,steps,activity' -d 'Items that are on meanwhile'
complete -c parvane-watch -n '__fish_seen_subcommand_from record capture play check-config' -F
complete -c parvane-watch -n '__fish_seen_subcommand_from log' -a 'auto verbose debug info warning error fatal'
complete -c parvane-watch -n '__fish_seen_subcommand_from log' -l tags -x -a 'Parvane platform' -d 'Only lines with one of these tags'
complete -c parvane-watch -n '__fish_seen_subcommand_from play' -l seed -x -d 'Of the noise'
complete -c parvane-watch -n '__fish_seen_subcommand_from play' -l speed -x -d 'How many times faster'
