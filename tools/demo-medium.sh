# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# shellcheck disable=SC2034,SC2154 # the caller sets programs and uses recorder
# Functions of the demos with a removable medium. The caller sets programs, the directory of the
# example programs.

monitor=''

# start_monitor: starts the media monitor; its output can be read from the descriptor $events.
start_monitor() {
    exec {events}< <(exec "$programs/media_monitor")
    monitor=$!
}

stop_monitor() {
    [[ -z $monitor ]] || kill "$monitor" 2>/dev/null || true
    monitor=''
}

# next_line: reads a line of the monitor into $line and prints it.
next_line() {
    read -r -t 60 -u "$events" line || {
        echo "the monitor does not report the medium"
        exit 1
    }
    echo "monitor: $line"
}

# show_batches ACTION DISK: prints the batches up to the one with this action for the disk.
show_batches() {
    local line count is_reported=false
    until $is_reported; do
        next_line
        for ((count = ${line%% *}; count > 0; --count)); do
            next_line
            [[ ! $line =~ ^[0-9]+\ $1\ +$2\  ]] || is_reported=true
        done
    done
}

# describe_location FILE NAME ID_PATH DIRECTORY: appends the location to the file.
describe_location() {
    printf '[%s]\ndevice = %s\ndirectory = %s\n\n' "$2" "$3" "$4" >>"$1"
}

# record_onto FILE NAME RECORDER_ARGUMENT...: starts a recorder that waits for the medium of the
# location. Sets $recorder to its process.
record_onto() {
    "$programs/recorder" --to "location:$2" --locations "$1" --check "${@:3}" &
    recorder=$!
}
