# SPDX-License-Identifier: GPL-2.0
#
# Completion of kelmctl's command line for bash; kelmctl itself knows what may come next.

_kelmctl()
{
    mapfile -t COMPREPLY < <("${COMP_WORDS[0]}" __complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}

complete -o default -F _kelmctl kelmctl
