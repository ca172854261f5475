# shellcheck shell=bash
# shellcheck disable=SC2034 # is_alone is for whoever sources this
# Leaves a test alone with the file service, which has one name on a system. Who sources this runs
# anew, with the same arguments, in a mount namespace with a /dev/shm of its own. Where that is not
# permitted, it goes on as it is, with is_alone=false. What others unmount goes there too: a copy of
# the mount would keep their disk busy.

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
