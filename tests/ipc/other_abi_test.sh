#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Runs the example file server and the example recorder of two builds, a native one and one for
# another ABI (32- or 64-bit). The layout of the shared memory differs between the two: each must
# refuse the other, and the running server must not be disturbed.
#
#   other_abi_test.sh DIRECTORY OTHER_DIRECTORY LAUNCHER...
#
# The native programs are in DIRECTORY. LAUNCHER starts the others, which are in OTHER_DIRECTORY.
#
# Prints "ok NAME" or "not ok NAME" for each case. Exits with 1 when a case has failed, and with 77
# when the native programs are not built.
set -u

# shellcheck source=tests/support/system/alone.sh
source "$(dirname "$0")/../support/system/alone.sh"
if ! $is_alone; then
    echo "SKIP: needs root to mount a private /dev/shm"
    exit 77
fi

if [ $# -lt 3 ]; then
    echo "usage: $0 DIRECTORY OTHER_DIRECTORY LAUNCHER..." >&2
    exit 2
fi

directory=$1
other_directory=$2
launcher=("${@:3}")
shared_memory=/dev/shm/_blk_fsipc

if [ ! -x "$directory/file_server" ] || [ ! -x "$directory/recorder" ]; then
    echo "SKIP: the example programs are not in $directory"
    exit 77
fi

# shellcheck source=tests/support/suite/cases.sh
source "$(dirname "$0")/../support/suite/cases.sh"

# --- functions for the cases ------------------------------------------------------------------

# An ABI is "native" or "other".

# Sets $command to the command that starts the program $2 of the ABI $1.
choose() {
    case $1 in
    native) command=("$directory/$2") ;;
    other) command=("${launcher[@]}" "$other_directory/$2") ;;
    esac
}

# Starts a server of the ABI $1 and waits until it serves. Leaves its process number in $server.
start_server() {
    choose "$1" file_server
    : >"$work/server.out"
    "${command[@]}" "$clips" >"$work/server.out" 2>"$work/server.err" &
    server=$!
    expect wait_until grep -qx "serving $clips" "$work/server.out"
}

record() {
    choose "$1" recorder
    run "${command[@]}" --to ipc --size 1M --name "$2"
}

# Expects that the server still serves a recorder of its own ABI $1, and ends cleanly.
expect_undisturbed() {
    record "$1" afterwards
    expect_success
    expect has_size "$clips/afterwards" 1048576
    expect kill -TERM "$server"
    wait "$server"
    expect [ $? -eq 0 ]
    expect [ ! -s "$work/server.err" ]
    expect [ ! -e "$shared_memory" ]
}

# A server of the ABI $1 refuses a recorder of the ABI $2.
expect_refused_client() {
    start_server "$1"
    record "$2" refused
    expect_error 1 "cannot connect to the file server \(it is a program of another ABI, 32- or 64-bit\)"
    expect is_empty "$clips"
    expect_undisturbed "$1"
}

# With a server of the ABI $1 running, a server of the ABI $2 does not start.
expect_refused_server() {
    start_server "$1"
    choose "$2" file_server
    run "${command[@]}" "$clips"
    expect_error 1 "another file server is running" file_server
    expect_undisturbed "$1"
}

# --- the cases --------------------------------------------------------------------------------

client_of_the_other_abi_is_refused() {
    expect_refused_client native other
}

native_client_is_refused() {
    expect_refused_client other native
}

server_of_the_other_abi_does_not_start() {
    expect_refused_server native other
}

native_server_does_not_start() {
    expect_refused_server other native
}

run_cases client_of_the_other_abi_is_refused native_client_is_refused \
    server_of_the_other_abi_does_not_start native_server_does_not_start
