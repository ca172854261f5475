#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# The part of the demo with a memory card. Needs private mount and network namespaces.
#   usage: unshare --mount --net demo-card.sh PROGRAMS DIRECTORY [RECORDER_ARGUMENT...]
# PROGRAMS is the directory of the example programs. DIRECTORY gets the card's image, its mount
# point and the file of locations.
set -euo pipefail

tools=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")
# shellcheck source=tools/card-slot.sh
source "$tools/card-slot.sh"
# shellcheck source=tools/demo-medium.sh
source "$tools/demo-medium.sh"
programs=$1
directory=$2
shift 2
slot=platform-slot-1
locations=$directory/locations.ini

trap 'stop_monitor; close_slots' EXIT

open_slots "$programs/../sysutils/oruio_sysutils" || {
    echo "udevd does not start: $(cat /run/udev/log)"
    exit 1
}
make_card "$directory/card.img" 4G
describe_location "$locations" card "$slot" "$directory/card"

start_monitor
record_onto "$locations" card --size 64M "$@"
insert_card "$directory/card.img" "$slot"
show_batches add "/dev/$card"
wait "$recorder"
eject_card "$card"
show_batches remove "/dev/$card"
