# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# shellcheck disable=SC2034 # is_alone is read by the script that sources this file
# Isolates a test from other file services: the shared memory of the service has a fixed name, so
# there can be one per system. The script that sources this file is restarted with the same
# arguments in a mount namespace with a private /dev/shm. Without permission for that, it continues
# with is_alone=false. The namespace receives unmounts from outside (slave): a copy of another
# process's mount would keep its disk busy.

is_alone=true
if [ "${1:-}" = --alone ]; then
    shift
else
    namespace=-m
    [ "$(id -u)" -eq 0 ] || namespace=-rm
    alone=(unshare "$namespace" --propagation slave sh -c 'mount -t tmpfs none /dev/shm && "$@"' sh)
    if "${alone[@]}" true 2>/dev/null; then
        exec "${alone[@]}" "$0" --alone "$@"
    fi
    is_alone=false
fi
