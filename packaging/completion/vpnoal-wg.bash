# SPDX-License-Identifier: Apache-2.0
# bash completion for vpnoal-wg: its commands, then the names in /etc/wireguard and files NAME.conf.
_vpnoal_wg()
{
    local current=${COMP_WORDS[COMP_CWORD]} word command='' candidates
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        [[ $word =~ ^(up|down|run)$ ]] && command=$word
    done
    if [[ $current == -* ]]; then
        candidates=$("${COMP_WORDS[0]}" --help 2>/dev/null | grep -oE -- '--[a-z][a-z-]*' | sort -u)
        mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$current")
    elif [[ -z $command ]]; then
        mapfile -t COMPREPLY < <(compgen -W 'up down run' -- "$current")
    else
        candidates=$(find /etc/wireguard/ -name '*.conf' -printf '%f\n' 2>/dev/null | sed 's/\.conf$//' | sort)
        mapfile -t COMPREPLY < <(
            compgen -W "$candidates" -- "$current"
            compgen -f -X '!*.conf' -- "$current"
            compgen -d -- "$current"
        )
    fi
}
complete -o filenames -F _vpnoal_wg vpnoal-wg
