#!/bin/bash
# Runs the example file server and the example recorder of two builds, one of this machine's word size
# and one of another, which lay the shared memory out differently: they refuse each other and leave
# each other alone.
#
#   word_size_test.sh DIRECTORY OTHER_DIRECTORY LAUNCHER...
#
# The programs are in DIRECTORY and, started by the launcher, in OTHER_DIRECTORY.
#
# Prints "ok NAME" or "not ok NAME" for each case; fails if any of them did. Ends with 77 where the
# programs of this machine are not built.
set -u

# shellcheck source=tests/support/system/alone.sh
source "$(dirname "$0")/../support/system/alone.sh"
if ! $is_alone; then
    echo "SKIP: mounting another /dev/shm is not permitted"
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

# --- what the cases are made of ---------------------------------------------------------------

# The word sizes are "this" and "other".

# Sets $command to what starts the program $2 of the word size $1.
choose() {
    case $1 in
    this) command=("$directory/$2") ;;
    other) command=("${launcher[@]}" "$other_directory/$2") ;;
    esac
}

# Starts a server of the word size $1, as $server, and waits until it serves.
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

# The server still serves those of its own word size, and ends in good order.
expect_untouched() {
    record "$1" afterwards
    expect_success
    expect has_size "$clips/afterwards" 1048576
    expect kill -TERM "$server"
    wait "$server"
    expect [ $? -eq 0 ]
    expect [ ! -s "$work/server.err" ]
    expect [ ! -e "$shared_memory" ]
}

expect_refused_client() {
    start_server "$1"
    record "$2" refused
    expect_error 1 "cannot connect to the file server"
    expect is_empty "$clips"
    expect_untouched "$1"
}

expect_refused_server() {
    start_server "$1"
    choose "$2" file_server
    run "${command[@]}" "$clips"
    expect_error 1 "another file server is running" file_server
    expect_untouched "$1"
}

# --- the cases --------------------------------------------------------------------------------

client_of_another_word_size_is_refused() {
    expect_refused_client this other
}

client_of_this_word_size_is_refused() {
    expect_refused_client other this
}

server_of_another_word_size_does_not_begin() {
    expect_refused_server this other
}

server_of_this_word_size_does_not_begin() {
    expect_refused_server other this
}

run_cases client_of_another_word_size_is_refused client_of_this_word_size_is_refused \
    server_of_another_word_size_does_not_begin server_of_this_word_size_does_not_begin
