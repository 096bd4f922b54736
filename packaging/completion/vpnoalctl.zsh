#compdef vpnoalctl
# SPDX-License-Identifier: Apache-2.0
# zsh completion for vpnoalctl. The program itself knows what fits; ":files PATTERN" asks for file names too.
_vpnoalctl()
{
    local line
    for line in ${(f)"$($words[1] __complete "${(@)words[2,CURRENT]}" 2>/dev/null)"}; do
        case $line in
        ":files "*) _files -g "${line#:files }" ;;
        *) compadd -- $line ;;
        esac
    done
}
_vpnoalctl "$@"
