#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# forge-signal.sh "PEER..." PATH MEMBER [ARGUMENT...]: sends a signal straight to each connection named. Arguments are
# those of dbus-send.
peers=$1
shift
for peer in $peers; do
    dbus-send --system --type=signal --dest="$peer" "$@" || exit 1
done
