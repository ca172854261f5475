# shellcheck shell=bash
# Loop disks for the scripts that test the maintenance program; they source this file.
#
# In a mount namespace of its own, nobody else sees the mounts, and none of them outlives the test.
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

# --- what the cases are made of ---------------------------------------------------------------

disks=()
mounts=()

# Gives back all that a case has attached and mounted.
release_disks() {
    local i
    # Without it, the shell would tell of each that is killed.
    {
        jobs -rp | xargs -r kill -KILL
        wait
    } 2>/dev/null
    for ((i = ${#mounts[@]} - 1; i >= 0; i--)); do
        umount "${mounts[i]}" 2>/dev/null # the program may have done it
    done
    for ((i = ${#disks[@]} - 1; i >= 0; i--)); do
        partx -d "${disks[i]}" 2>/dev/null # there may be no partitions
        losetup -d "${disks[i]}"
    done
    disks=()
    mounts=()
}
trap 'release_disks; rm -rf "$work"' EXIT

# Whether this case can be done with disks, and with these tools.
can_use_disks() {
    local tool
    for tool in debugfs flock fuser losetup mkfs.exfat mkfs.vfat partx sfdisk wipefs "$@"; do
        command -v "$tool" >/dev/null || skipped="$tool is not installed"
    done
    if [ "$(id -u)" -ne 0 ]; then
        skipped="only root can attach a disk"
    elif ! $alone; then
        skipped="there is no mount namespace for it"
    elif [ -z "$skipped" ] && ! can_attach_disks; then
        skipped="no disk can be attached"
    fi
    [ -z "$skipped" ]
}

can_attach_disks() {
    if [ -z "${can_attach:-}" ]; then
        can_attach=true
        truncate -s 1M "$clips/probe.img"
        # Root in a user namespace can do one, but not the other.
        if disk=$(losetup --find --show "$clips/probe.img" 2>/dev/null); then
            losetup -d "$disk"
            mknod "$clips/probe" b 7 0 2>/dev/null || can_attach=false
        else
            can_attach=false
        fi
    fi
    $can_attach
}

# Attaches a new disk of this size as $disk, with these further options of losetup.
new_disk() {
    local image=$clips/disk${#disks[@]}.img
    truncate -s "$1" "$image"
    shift
    disk=$(losetup --find --show "$@" "$image" 2>"$work/losetup.err")
    expect [ -b "$disk" ]
    disks+=("$disk")
}

# Likewise, with one partition, $partition.
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

# Mounts the device $1 on the new directory $2, if not on an existing one.
mount_on() {
    mkdir -p "$2"
    expect mount "$1" "$2"
    mounts+=("$2")
}

# Stacks the directory $1 on top of /usr/sbin, read-only.
stack_tools() {
    expect mount -t overlay -o "ro,lowerdir=$1:/usr/sbin" overlay /usr/sbin
    mounts+=(/usr/sbin)
}

# A process that keeps the existing file $1 open, $user. Further arguments run it.
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

# The process $1 has been ended by the signal number $2.
expect_ended_by() {
    expect wait_until has_ended "$1"
    has_ended "$1" || kill -KILL "$1"
    wait "$1" 2>/dev/null
    expect [ $? -eq $((128 + $2)) ]
}

expect_alive() {
    expect kill -0 "$1"
}

# The beginnings of all disks, to compare them.
contents() {
    local each
    for each in "${disks[@]}"; do
        head -c 4M "$each" | cksum
    done
}

# refused STATUS PATTERN ARGUMENT...: that is how the program ends with these arguments, and no disk
# has changed.
refused() {
    local before status_expected=$1 pattern=$2
    shift 2
    before=$(contents)
    run "$sysutils" "$@"
    expect_error "$status_expected" "$pattern" oruio_sysutils
    expect [ "$(contents)" = "$before" ]
}

# succeeds ARGUMENT...: and says nothing on standard error.
succeeds() {
    run "$sysutils" "$@"
    expect [ "$status" -eq 0 ]
    expect [ ! -s "$work/err" ]
}

has_tag() {
    [ "$(blkid -p -o value -s "$2" "$1")" = "$3" ]
}

is_mounted() {
    mountpoint -q "$1"
}

# is_clean TYPE DEVICE [OPTION]
is_clean() {
    "fsck.$1" -n "$2" "${@:3}" >/dev/null 2>&1
}

# expect_layout START CODE TYPE [SECTOR]: the disk has one partition of this code from this sector
# to the end, with a sound file system of this type.
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

# An ext4 file system with a file and a directory that is worth a repair.
new_filled_ext4() {
    new_partitioned_disk 32M
    mkdir -p "$clips/root/directory"
    echo precious >"$clips/root/file"
    mkfs.ext4 -q -d "$clips/root" "$partition"
}

change_ext4() {
    debugfs -w -R "$1" "$partition" 2>/dev/null
}

# zero DEVICE OFFSET COUNT: bytes of it.
zero() {
    dd if=/dev/zero of="$1" bs=1 seek="$2" count="$3" conv=notrunc,nocreat,fsync status=none
}

# Whether the run of the program that is the process $1 waits for its turn. In a container the
# kernel's table of locks does not show those of a program that has ended.
is_waiting_for_lock() {
    pgrep --parent "$1" --exact --runstates S flock >/dev/null
}
