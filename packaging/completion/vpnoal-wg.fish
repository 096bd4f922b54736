# SPDX-License-Identifier: Apache-2.0
# fish completion for vpnoal-wg: its commands, then the names in /etc/wireguard.
complete -c vpnoal-wg -n __fish_use_subcommand -f -a up -d 'Bring a tunnel up'
complete -c vpnoal-wg -n __fish_use_subcommand -f -a down -d 'Take a tunnel down'
complete -c vpnoal-wg -n __fish_use_subcommand -f -a run -d 'Hold a tunnel in the foreground'
complete -c vpnoal-wg -n '__fish_seen_subcommand_from up down run' \
    -a "(find /etc/wireguard/ -name '*.conf' 2>/dev/null | sed 's|.*/||; s|\.conf\$||')"
complete -c vpnoal-wg -l plugin -r -d "The plug-in's file"
complete -c vpnoal-wg -s v -l verbose -d 'Show the log'
