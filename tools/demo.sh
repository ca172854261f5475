#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Demonstrates the example programs. Records four clips: to a local directory, through shared memory
# to a file server, to a share of an SMB server, and to a memory card.
#   usage: demo.sh PROGRAMS [RECORDER_ARGUMENT...]
#
# PROGRAMS is the directory of the example programs. The arguments apply to all recordings. With
# --to, --keep or --help, runs only the recorder.
set -euo pipefail

tools=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")
# shellcheck source=tools/card-slot.sh
source "$tools/card-slot.sh"
programs=$1
shift

for argument; do
    case $argument in
    -h | --help | --keep | --to | --to=*) exec "$programs/recorder" "$@" ;;
    esac
done

shared_memory=/dev/shm/_blk_fsipc
served=$(mktemp -d "${TMPDIR:-/tmp}/demo-XXXXXX")
server=''

clean_up() {
    [[ -z $server ]] || stop_server >/dev/null || true
    rm -rf "$served"
}
trap clean_up EXIT

# start_server COMMAND...: starts a server and reads its first line into $line. The rest of its
# output can be read from the descriptor $output.
start_server() {
    # In a session of its own, so that Ctrl-C reaches only the recorder.
    exec {output}< <(exec setsid "$@" 2>&1)
    server=$!
    read -r -u "$output" line || true
}

stop_server() {
    local status=0
    kill -TERM "$server" 2>/dev/null || true
    wait "$server" || status=$?
    server=''
    cat <&"$output"
    return "$status"
}

skip_part() {
    server=''
    echo "skipped: $1"
}

# Prints why a server did not start.
show_failure() {
    echo "$line"
    cat <&"$output"
    exit 1
}

into_a_directory() {
    echo "Into a local directory:"
    "$programs/recorder" "$@"
}

through_shared_memory() {
    echo
    echo "Through shared memory, into a directory that another process serves:"
    mkdir "$served/files"
    start_server "$programs/file_server" "$served/files"
    case $line in
    *"another file server is running")
        skip_part "another file server is running, and a system can have only one"
        return
        ;;
    "serving "*) echo "$line" ;;
    *) show_failure ;;
    esac
    "$programs/recorder" --to ipc --size 64M "$@"
    stop_server
    (cd "$served/files" && stat -c 'in the served directory: %n, %s bytes' -- *)
    if [[ -e $shared_memory ]]; then
        echo "not removed: $shared_memory"
        exit 1
    fi
    echo "the shared memory in ${shared_memory%/*} is removed"
}

onto_a_network_share() {
    local status=0
    echo
    echo "Over SMB, onto a share of a server that this demo starts on the loopback interface:"
    ORUIO_SMB_PASSWORD=$(od -A n -N 16 -t x8 /dev/urandom | tr -d ' ')
    export ORUIO_SMB_PASSWORD
    start_server "$tools/smb-server.sh" "$served/smb"
    if [[ ! $line =~ ^[0-9] ]]; then
        wait "$server" || status=$?
        [[ $status -eq 77 ]] || show_failure
        skip_part "${line#*: }"
        return
    fi
    "$programs/recorder" --to "smb://tester@127.0.0.1:${line% *}/recordings" --size 64M "$@"
    stop_server
    (cd "$served/smb/recordings" && stat -c "in the server's directory: %n, %s bytes" -- *)
}

onto_a_card() {
    local missing
    echo
    echo "Onto a memory card, simulated by a loop disk, which is inserted and removed at the end:"
    missing=$(missing_for_slots)
    if [[ -n $missing ]]; then
        skip_part "$missing"
        return
    fi
    unshare --mount --net "$tools/demo-card.sh" "$programs" "$served" "$@"
}

into_a_directory "$@"
through_shared_memory "$@"
onto_a_network_share "$@"
onto_a_card "$@"
