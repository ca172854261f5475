#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Compares the maintenance program with the shell program that it replaced: the processes that a
# check and a format start, and their time.
#   usage: sysutils_bench.sh ORUIO_SYSUTILS
#
# Prints the results as a Markdown table. Like the other benchmarks, it fails only if a command
# fails; a missed target is reported.
set -euo pipefail

rounds=15
former_commit=e9365a7 # the last one with the shell program

skip() {
    echo "skipped: maintenance program: $1" >&2
    exit
}

# In a process namespace of its own the numbers of processes follow each other.
if [[ ${1-} != --isolated ]]; then
    program=$(realpath "$1")
    [[ $EUID -eq 0 ]] || skip "needs root for loop disks"
    unshare --mount --pid --fork --mount-proc true 2>/dev/null ||
        skip "needs private mount and process namespaces"
    exec unshare --mount --pid --fork --mount-proc "$0" --isolated "$program"
fi
program=$2

work=$(mktemp -d)
disk=''
clean_up() {
    [[ -z $disk ]] || { partx --delete "$disk" 2>/dev/null && losetup --detach "$disk"; } || true
    rm -rf "$work"
}
trap clean_up EXIT

former=$work/former/oruio_sysutils # it recognises its own runs by the name
mkdir "$work/former"
git -C "$(dirname "$0")" show "$former_commit:sysutils/oruio_sysutils" >"$former" 2>/dev/null ||
    skip "the tree has no history with the former program"
chmod +x "$former"
for tool in fuser flock partx sfdisk wipefs mkfs.vfat mkfs.ext4 losetup; do
    command -v "$tool" >/dev/null || skip "$tool is not installed"
done

truncate -s 64M "$work/disk.img"
disk=$(losetup --find --show "$work/disk.img") || skip "cannot attach loop disks"

# measure COMMAND...: sets $elapsed, in microseconds, and $processes.
measure() {
    local first last begin
    first=$(sh -c 'echo $$')
    begin=${EPOCHREALTIME/./}
    "$@" >/dev/null
    elapsed=$((${EPOCHREALTIME/./} - begin))
    last=$(sh -c 'echo $$')
    processes=$((last - first - 1))
}

median() {
    sort -n | sed -n "$((rounds / 2 + 1))p"
}

# compare NAME ARGUMENT...
compare() {
    local name=$1 i which
    shift
    for ((i = 0; i < rounds; i++)); do
        for which in program former; do
            measure "${!which}" "$@"
            echo "$elapsed" >>"$work/$name-$which-time"
            echo "$processes" >>"$work/$name-$which-processes"
        done
    done
    row "$name: processes" "$name-%s-processes" 0.5
    row "$name: microseconds" "$name-%s-time" 1
}

# row WHAT FILES LIMIT
row() {
    local measured reference
    # shellcheck disable=SC2059 # the names of the files are formats
    measured=$(median <"$work/$(printf "$2" program)")
    # shellcheck disable=SC2059
    reference=$(median <"$work/$(printf "$2" former)")
    awk -v what="$1" -v measured="$measured" -v reference="$reference" -v limit="$3" 'BEGIN {
        ratio = measured / reference
        printf "| %-24s | %10d | %10d | %8.3f | at most %-4s | %-7s |\n", what, measured, reference,
            ratio, limit, ratio <= limit ? "met" : "MISSED"
    }'
}

printf '| %-24s | %10s | %10s | %8s | %-12s | %-7s |\n' 'maintenance program' measured former \
    result target verdict
echo '|---|---:|---:|---:|---|---|'
measure /bin/true
[[ $processes -eq 1 ]] || skip "the processes cannot be counted"
mkfs.ext4 -q "$disk"
compare 'check of ext4' fsck -t ext4 "$disk"
compare format format "$disk"
