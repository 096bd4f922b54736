# SPDX-License-Identifier: Apache-2.0
# bash completion for vpnoalctl. The program itself knows what fits; ":files PATTERN" asks for file names too.
_vpnoalctl()
{
    local current=${COMP_WORDS[COMP_CWORD]} line
    COMPREPLY=()
    while IFS= read -r line; do
        case $line in
        ":files "*)
            local pattern=${line#:files }
            mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(
                compgen -f -X "!$pattern" -- "$current"
                [ "$pattern" = '*' ] || compgen -d -- "$current"
            )
            ;;
        *) COMPREPLY+=("$line") ;;
        esac
    done < <("${COMP_WORDS[0]}" __complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}
complete -o filenames -F _vpnoalctl vpnoalctl
