#!/bin/bash
# Shows the example programs at work: a clip goes to a local directory, and another one through
# shared memory to a file server.
#   usage: demo.sh DIRECTORY_OF_THE_PROGRAMS [RECORDER_ARGUMENT...]
#
# The arguments are for both recordings. Those that say where the clip goes, or ask for help, leave
# just the one that they are about.
set -euo pipefail

programs=$1
shift

for argument; do
    case $argument in
    -h | --help | --keep | --to | --to=*) exec "$programs/recorder" "$@" ;;
    esac
done

shared_memory=/dev/shm/_blk_fsipc
served=''
server=''

clean_up() {
    [[ -z $server ]] || kill "$server" 2>/dev/null || true
    [[ -z $served ]] || rm -rf "$served"
}
trap clean_up EXIT

# Starts the file server; its output can be read from the descriptor $output.
start_server() {
    served=$(mktemp -d "${TMPDIR:-/tmp}/demo-XXXXXX")
    # In a session of its own: Ctrl-C is for the recorder.
    exec {output}< <(exec setsid "$programs/file_server" "$served" 2>&1)
    server=$!
}

stop_server() {
    local status=0
    kill -INT "$server"
    wait "$server" || status=$?
    server=''
    cat <&"$output"
    return "$status"
}

echo "Into a local directory:"
"$programs/recorder" "$@"

echo
echo "Through shared memory, into a directory that another process serves:"
start_server
read -r -u "$output" line || true
case $line in
*"another file server is running")
    echo "left out: there is one file server on a system, and another one is running"
    exit 0
    ;;
"serving "*) echo "$line" ;;
*)
    echo "$line"
    cat <&"$output"
    exit 1
    ;;
esac
"$programs/recorder" --to ipc --size 64M "$@"
stop_server
(cd "$served" && stat -c 'in the served directory: %n, %s bytes' -- *)
if [[ -e $shared_memory ]]; then
    echo "left behind: $shared_memory"
    exit 1
fi
echo "nothing is left in ${shared_memory%/*}"
