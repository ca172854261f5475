#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Runs the example file server with the example recorder as its client, and checks their output,
# exit statuses and files.
#
#   file_server_test.sh FILE_SERVER RECORDER
#
# Prints "ok NAME" or "not ok NAME" for each case. Exits with 1 when a case has failed, and with 77
# when the file service of this system is in use.
set -u

# shellcheck source=tests/support/system/alone.sh
source "$(dirname "$0")/../support/system/alone.sh"

if [ $# -ne 2 ]; then
    echo "usage: $0 FILE_SERVER RECORDER" >&2
    exit 2
fi

file_server=$1
recorder=$2
shared_memory=/dev/shm/_blk_fsipc

if [ -e "$shared_memory" ]; then
    echo "SKIP: needs root to mount a private /dev/shm, because $shared_memory exists"
    exit 77
fi

# shellcheck source=tests/support/suite/cases.sh
source "$(dirname "$0")/../support/suite/cases.sh"

# --- functions for the cases ------------------------------------------------------------------

# Starts a server of $clips and waits until it serves. Leaves its process number in $server.
start_server() {
    : >"$work/server.out"
    "$file_server" "$clips" >"$work/server.out" 2>"$work/server.err" &
    server=$!
    expect wait_until grep -qx "serving $clips" "$work/server.out"
}

# Sends the server the signal $1. Expects that it prints "stopped", exits with 0 and removes its
# shared memory.
expect_clean_end() {
    expect kill -"$1" "$server"
    wait "$server"
    expect [ $? -eq 0 ]
    expect [ "$(tail -n 1 "$work/server.out")" = stopped ]
    expect [ ! -s "$work/server.err" ]
    expect [ ! -e "$shared_memory" ]
}

kill_server() {
    expect kill -KILL "$server"
    wait "$server" 2>/dev/null
}

# Starts to record $clips/$1 and waits until it has 3 MB. Leaves the process number in $recording.
start_recording() {
    "$recorder" --to ipc --name "$1" --seconds 20 --rate 200 >"$work/out" 2>"$work/err" &
    recording=$!
    expect wait_for_bytes "$clips/$1.part" 3000000
}

has_ended() {
    ! kill -0 "$1" 2>/dev/null
}

# Waits for the end of the recording. Leaves its exit status in $status.
await_recording() {
    expect wait_until has_ended "$recording"
    has_ended "$recording" || kill -KILL "$recording"
    wait "$recording"
    status=$?
}

# Whether two clips with frames of 1 MiB are equal, except for the time in bytes 16 to 23 of each
# frame's header.
has_same_frames() {
    local differing
    differing=$(cmp -l "$1" "$2" |
        awk '{ at = ($1 - 1) % 1048576 } at < 16 || at > 23 { ++n } END { print n + 0 }'
        [ "${PIPESTATUS[0]}" -le 1 ]) || return
    [ "$differing" -eq 0 ] && has_size "$1" "$(stat -c %s "$2")"
}

expect_recording_works() {
    run "$recorder" --to ipc --name "$1" --size 2M
    expect_success
    expect has_size "$clips/$1" 2097152
}

# --- the cases --------------------------------------------------------------------------------

help_is_printed() {
    run "$file_server" --help
    expect [ "$status" -eq 0 ]
    expect [ ! -s "$work/err" ]
    expect grep -q 'DIRECTORY' "$work/out"
}

bad_arguments_are_refused() {
    local arguments
    for arguments in '' --nonsense "$clips $clips" "--port 1 $clips"; do
        # shellcheck disable=SC2086  # several words each
        run "$file_server" $arguments
        expect_error 2 '\(--help explains\)$' file_server
        expect [ ! -s "$work/out" ]
    done
    run "$file_server" ''
    expect_error 2 'expected one directory' file_server
}

missing_directory_is_reported() {
    run "$file_server" "$clips/missing"
    expect_error 1 "cannot use $clips/missing: No such file or directory" file_server
    touch "$clips/file"
    run "$file_server" "$clips/file"
    expect_error 1 "cannot use $clips/file: Not a directory" file_server
    expect [ ! -e "$shared_memory" ]
}

clip_is_recorded_into_the_served_directory() {
    run "$recorder" --to "$clips" --name local --size 5M
    expect_success
    start_server
    run "$recorder" --to ipc --size 5M
    expect_success
    expect has_row clip 'ipc/clip-0001\.oru'
    expect_clean_end INT
    expect has_size "$clips/clip-0001.oru" 5242880
    expect has_same_frames "$clips/clip-0001.oru" "$clips/local"
    expect contains_only "$clips" clip-0001.oru local
}

recorder_without_server_fails() {
    local start=$SECONDS
    run "$recorder" --to ipc --size 1M
    expect_error 1 'cannot connect to the file server \(none is running\): Transport endpoint is not connected'
    expect [ $((SECONDS - start)) -le 5 ]
    expect [ ! -e "$shared_memory" ]
}

second_server_is_refused() {
    start_server
    run "$file_server" "$clips"
    expect_error 1 'another file server is running' file_server
    expect [ ! -s "$work/out" ]
    expect_recording_works clip
    expect_clean_end INT
}

second_recorder_is_refused() {
    start_server
    start_recording first
    "$recorder" --to ipc --name second --size 1M >/dev/null 2>"$work/second"
    expect [ $? -eq 1 ]
    expect grep -q 'cannot connect to the file server (another program is connected)' "$work/second"
    expect kill -INT "$recording"
    await_recording
    expect_success
    expect_clean_end INT
    expect contains_only "$clips" first
}

idle_server_ends_cleanly() {
    local signal
    for signal in INT TERM; do
        start_server
        expect_clean_end $signal
    done
}

ended_server_fails_the_recorder() {
    start_server
    start_recording clip
    expect_clean_end INT
    await_recording
    expect_error 1 'cannot (write|sync) ipc/clip\.part: (Transport endpoint|Operation canceled)'
    expect contains_only "$clips" clip.part
}

killed_server_fails_the_recorder() {
    start_server
    start_recording clip
    kill_server
    await_recording
    expect_error 1 'cannot (write|sync) ipc/clip\.part: Transport endpoint is not connected'
}

hanging_server_fails_the_recorder() {
    local start
    start_server
    start_recording first
    expect kill -STOP "$server"
    start=$SECONDS
    await_recording
    expect [ $((SECONDS - start)) -le 12 ]
    expect_error 1 'cannot (write|sync) ipc/first\.part: Transport endpoint is not connected'
    expect kill -CONT "$server"
    expect_recording_works second
    expect_clean_end INT
}

server_replaces_a_killed_one() {
    start_server
    start_recording first
    kill_server
    await_recording
    expect [ -e "$shared_memory" ]
    start_server
    expect_recording_works second
    expect_clean_end INT
}

recorder_works_after_a_killed_one() {
    start_server
    start_recording first
    expect kill -KILL "$recording"
    wait "$recording" 2>/dev/null
    expect_recording_works second
    expect_clean_end INT
    expect contains_only "$clips" first.part second
}

interrupted_recorder_leaves_a_verified_clip() {
    local signal
    start_server
    for signal in INT TERM; do
        start_recording $signal
        expect kill -$signal "$recording"
        await_recording
        expect_success
        expect grep -q '^Stopped early' "$work/out"
    done
    expect_recording_works next
    expect_clean_end INT
    expect contains_only "$clips" INT TERM next
}

run_cases help_is_printed bad_arguments_are_refused missing_directory_is_reported \
    clip_is_recorded_into_the_served_directory recorder_without_server_fails \
    second_server_is_refused second_recorder_is_refused idle_server_ends_cleanly \
    ended_server_fails_the_recorder killed_server_fails_the_recorder \
    hanging_server_fails_the_recorder server_replaces_a_killed_one \
    recorder_works_after_a_killed_one interrupted_recorder_leaves_a_verified_clip
