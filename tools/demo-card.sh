#!/bin/bash
# The part of the demo with a memory card. It wants mounts and a network of its own.
#   usage: unshare --mount --net demo-card.sh DIRECTORY_OF_THE_PROGRAMS DIRECTORY [RECORDER_ARGUMENT...]
# DIRECTORY is for the card's image and what else there is.
set -euo pipefail

tools=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")
# shellcheck source=tools/card-slot.sh
source "$tools/card-slot.sh"
programs=$1
directory=$2
shift 2
slot=platform-slot-1

monitor=''
clean_up() {
    [[ -z $monitor ]] || kill "$monitor" 2>/dev/null || true
    close_slots
}
trap clean_up EXIT

next_line() {
    read -r -t 30 -u "$events" line || {
        echo "the monitor has not told of the card"
        exit 1
    }
    echo "monitor: $line"
}

# show_batch: what the monitor tells of one batch of events.
show_batch() {
    local line count
    next_line
    for ((count = ${line%% *}; count > 0; --count)); do
        next_line
    done
}

open_slots "$tools/sysutils/oruio_sysutils" || {
    echo "no udevd: $(cat /run/udev/log)"
    exit 1
}
make_card "$directory/card.img" 4G
cat >"$directory/locations.ini" <<LOCATIONS
[card]
device = $slot
directory = $directory/card
LOCATIONS

exec {events}< <(exec "$programs/media_monitor")
monitor=$!
"$programs/recorder" --to location:card --locations "$directory/locations.ini" --check \
    --size 64M "$@" &
recorder=$!
insert_card "$directory/card.img" "$slot"
show_batch
wait "$recorder"
eject_card "$card"
show_batch
