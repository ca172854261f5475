# shellcheck shell=bash
# shellcheck disable=SC2034,SC2154 # programs and recorder are for whoever sources this
# What the demos show of a medium that comes and goes, for whoever sources this and sets programs.

monitor=''

# start_monitor: the media monitor; what it tells can be read from the descriptor $events.
start_monitor() {
    exec {events}< <(exec "$programs/media_monitor")
    monitor=$!
}

stop_monitor() {
    [[ -z $monitor ]] || kill "$monitor" 2>/dev/null || true
    monitor=''
}

# next_line: leaves it in $line.
next_line() {
    read -r -t 60 -u "$events" line || {
        echo "the monitor does not tell of the medium"
        exit 1
    }
    echo "monitor: $line"
}

# show_batches ACTION DISK: what the monitor tells until it has told that of the disk.
show_batches() {
    local line count told=false
    until $told; do
        next_line
        for ((count = ${line%% *}; count > 0; --count)); do
            next_line
            [[ ! $line =~ ^[0-9]+\ $1\ +$2\  ]] || told=true
        done
    done
}

# describe_location FILE NAME ID_PATH DIRECTORY: adds it to the file.
describe_location() {
    printf '[%s]\ndevice = %s\ndirectory = %s\n\n' "$2" "$3" "$4" >>"$1"
}

# record_onto FILE NAME RECORDER_ARGUMENT...: the recorder that waits for the medium of a location, as
# $recorder.
record_onto() {
    "$programs/recorder" --to "location:$2" --locations "$1" --check "${@:3}" &
    recorder=$!
}
