# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Loop disks for the scripts that test the maintenance program; they source this file.
#
# Restarts the script in a private mount namespace: its mounts are invisible to other processes and
# end with the test. Most cases need root for loop devices and are skipped without it.
alone=false
if [ "${1:-}" = --alone ]; then
    alone=true
    shift
elif unshare -m true 2>/dev/null; then
    exec unshare -m "$0" --alone "$@"
fi

if [ $# -ne 1 ]; then
    echo "usage: $0 ORUIO_SYSUTILS" >&2
    exit 2
fi

sysutils=$(realpath "$1")
PATH=/usr/sbin:/usr/bin:/sbin:/bin
# shellcheck source=tests/support/suite/cases.sh
source "$(dirname "${BASH_SOURCE[0]}")/../suite/cases.sh"

disks=()
mounts=()

# Detaches and unmounts everything that a case has attached and mounted.
release_disks() {
    local i
    # Standard error is discarded: the shell reports each killed process there.
    {
        jobs -rp | xargs -r kill -KILL
        wait
    } 2>/dev/null
    for ((i = ${#mounts[@]} - 1; i >= 0; i--)); do
        umount "${mounts[i]}" 2>/dev/null # the program may have unmounted it
    done
    for ((i = ${#disks[@]} - 1; i >= 0; i--)); do
        partx -d "${disks[i]}" 2>/dev/null # there may be no partitions
        losetup -d "${disks[i]}"
    done
    disks=()
    mounts=()
}
trap 'release_disks; rm -rf "$work"' EXIT

# Whether loop disks can be used and these tools are installed; sets $skipped otherwise.
can_use_disks() {
    local tool
    for tool in debugfs flock losetup mkfs.exfat mkfs.vfat partx sfdisk wipefs "$@"; do
        command -v "$tool" >/dev/null || skipped="$tool is not installed"
    done
    if [ "$(id -u)" -ne 0 ]; then
        skipped="needs root to attach loop disks"
    elif ! $alone; then
        skipped="needs a private mount namespace"
    elif [ -z "$skipped" ] && ! can_attach_disks; then
        skipped="cannot attach loop disks"
    fi
    [ -z "$skipped" ]
}

can_attach_disks() {
    if [ -z "${can_attach:-}" ]; then
        can_attach=true
        truncate -s 1M "$clips/probe.img"
        # Root of a user namespace may attach a loop device, but not create a device node.
        if disk=$(flock /dev/loop-control losetup --find --show "$clips/probe.img" 2>/dev/null); then
            losetup -d "$disk"
            mknod "$clips/probe" b 7 0 2>/dev/null || can_attach=false
        else
            can_attach=false
        fi
    fi
    $can_attach
}

# new_disk SIZE [OPTION...]: attaches a new disk as $disk. The options go to losetup.
new_disk() {
    local image=$clips/disk${#disks[@]}.img
    truncate -s "$1" "$image"
    shift
    disk=$(flock /dev/loop-control losetup --find --show "$@" "$image" 2>"$work/losetup.err")
    expect [ -b "$disk" ]
    disks+=("$disk")
}

# new_partitioned_disk SIZE: attaches a new disk with one partition, $partition.
new_partitioned_disk() {
    new_disk "$1"
    echo 'start=1MiB, type=83' | sfdisk --quiet --no-reread --no-tell-kernel "$disk"
    partx -u "$disk"
    partition=${disk}p1
    expect wait_until [ -b "$partition" ]
}

new_ext4() {
    new_partitioned_disk "${1:-32M}"
    mkfs.ext4 -q "$partition"
}

# mount_on DEVICE DIRECTORY: mounts the device; creates the directory if it does not exist.
mount_on() {
    mkdir -p "$2"
    expect mount "$1" "$2"
    mounts+=("$2")
}

# Mounts an overlay on /usr/sbin, read-only: files in the directory $1 hide those of /usr/sbin.
stack_tools() {
    expect mount -t overlay -o "ro,lowerdir=$1:/usr/sbin" overlay /usr/sbin
    mounts+=(/usr/sbin)
}

# start_user FILE [COMMAND...]: starts a process that keeps the existing file open, as $user. The
# optional command, such as env, executes it.
start_user() {
    local file
    exec {file}<"$1"
    shift
    "$@" sleep 1000 <&"$file" &
    user=$!
    exec {file}>&-
    expect wait_until grep -qsx sleep "/proc/$user/comm"
}

has_ended() {
    ! kill -0 "$1" 2>/dev/null
}

# expect_ended_by PID SIGNAL: expects that the process has been killed by this signal number.
expect_ended_by() {
    expect wait_until has_ended "$1"
    has_ended "$1" || kill -KILL "$1"
    wait "$1" 2>/dev/null
    expect [ $? -eq $((128 + $2)) ]
}

expect_alive() {
    expect kill -0 "$1"
}

# Checksums of the first 4 MiB of all disks.
contents() {
    local each
    for each in "${disks[@]}"; do
        head -c 4M "$each" | cksum
    done
}

# refused STATUS PATTERN ARGUMENT...: expects that the program with these arguments fails with this
# status and error message, and changes no disk.
refused() {
    local before status_expected=$1 pattern=$2
    shift 2
    before=$(contents)
    run "$sysutils" "$@"
    expect_error "$status_expected" "$pattern" oruio_sysutils
    expect [ "$(contents)" = "$before" ]
}

# succeeds ARGUMENT...: expects success and an empty standard error.
succeeds() {
    run "$sysutils" "$@"
    expect [ "$status" -eq 0 ]
    expect [ ! -s "$work/err" ]
}

# has_tag DEVICE TAG VALUE, as blkid reads it.
has_tag() {
    [ "$(blkid -p -o value -s "$2" "$1")" = "$3" ]
}

is_mounted() {
    mountpoint -q "$1"
}

# is_clean TYPE DEVICE [OPTION]: a check without repair finds no error.
is_clean() {
    "fsck.$1" -n "$2" "${@:3}" >/dev/null 2>&1
}

# expect_layout START CODE TYPE [SECTOR_SIZE]: expects that the disk has one partition of this code
# from this sector to the end, with a sound file system of this type.
expect_layout() {
    local layout sectors
    layout=$(sfdisk -J "$disk" | tr -d '[:space:]')
    sectors=$(($(blockdev --getsize64 "$disk") / ${4:-512} - $1))
    expect [ "${layout#*\"partitions\":}" = \
        "[{\"node\":\"${disk}p1\",\"start\":$1,\"size\":$sectors,\"type\":\"$2\"}]}}" ]
    expect has_tag "$disk" PTTYPE dos
    expect has_tag "$disk" TYPE ''
    expect has_tag "${disk}p1" TYPE "$3"
    expect is_clean "$3" "${disk}p1"
}

# Makes an ext4 file system with a file and a directory on a new $partition.
new_filled_ext4() {
    new_partitioned_disk 32M
    mkdir -p "$clips/root/directory"
    echo precious >"$clips/root/file"
    mkfs.ext4 -q -d "$clips/root" "$partition"
}

# Runs a command of debugfs on $partition.
change_ext4() {
    debugfs -w -R "$1" "$partition" 2>/dev/null
}

# zero DEVICE OFFSET COUNT: overwrites this many bytes with zeros.
zero() {
    dd if=/dev/zero of="$1" bs=1 seek="$2" count="$3" conv=notrunc,nocreat,fsync status=none
}

# The process that does the work of the program that runs as process $1.
worker_of() {
    pgrep --parent "$1"
}

# Whether the program that runs as process $1 waits for its lock: it has opened the disk, and while
# another one has the lock it does nothing else.
is_waiting_for_lock() {
    [ -n "$(find "/proc/$(worker_of "$1")/fd" -lname "$disk" 2>/dev/null)" ]
}

# take_lock, release_lock: the lock of $disk, taken by the test.
take_lock() {
    exec {lock}<"$disk"
    expect flock -n "$lock"
}
release_lock() {
    exec {lock}<&-
}

# stand_in TOOL: a script for /bin/sh, which is read from standard input, replaces the tool until
# /usr/sbin is unmounted.
stand_in() {
    mkdir -p "$clips/tools"
    {
        echo '#!/bin/sh'
        cat
    } >"$clips/tools/$1"
    chmod +x "$clips/tools/$1"
    is_mounted /usr/sbin || stack_tools "$clips/tools"
}

# stopping_tool TOOL COMMAND...: the tool writes a line to $clips/begun, waits for one from
# $clips/go, and then becomes the command.
stopping_tool() {
    local tool=$1
    shift
    [ -e "$clips/go" ] || mkfifo "$clips/begun" "$clips/go"
    stand_in "$tool" <<SCRIPT
echo >$clips/begun
read -r _ <$clips/go
exec $* "\$@"
SCRIPT
}

# Waits until a stopping tool has begun.
await_tool() {
    expect read -r -t 15 _ <>"$clips/begun"
}

# Lets a stopping tool continue; waits until it does.
continue_tool() {
    # shellcheck disable=SC2016 # expanded by that shell
    expect timeout 15 sh -c 'echo >"$1"' sh "$clips/go"
}
