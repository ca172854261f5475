#!/bin/bash
# Runs the maintenance program with the real tools on disks of its own and checks what becomes of
# them.
#
#   sysutils_helper_test.sh ORUIO_SYSUTILS
#
# Prints "ok NAME" or "not ok NAME" for each case; fails if any of them did. The disks are loop
# devices, which only root can have: for anybody else most cases are skipped.
set -u

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
source "$(dirname "$0")/../support/suite/cases.sh"

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

# --- the cases: the command line --------------------------------------------------------------

commands_are_checked() {
    refused 3 'no command'
    refused 4 'unknown command $' ''
    refused 4 'unknown command umount$' umount /dev/null
    refused 4 'unknown command -k$' -k
    refused 4 'unknown command Fsck$' Fsck /dev/null
}

arguments_are_counted() {
    local few='too few arguments$' many='too many arguments$'
    refused 3 "fsck has $few" fsck
    refused 3 "fsck has $few" fsck -t
    refused 3 "fsck has $few" fsck -t ext4
    refused 3 "fsck has $many" fsck /dev/null -f -v
    refused 3 "fsck has $many" fsck -t ext4 /dev/null -f -v
    refused 3 "mkfs has $few" mkfs
    refused 3 "mkfs has $few" mkfs -t ext4
    refused 3 "mkfs has $many" mkfs -t ext4 /dev/null -q -v
    refused 3 'mkfs has no type$' mkfs /dev/null
    refused 3 'mkfs has no type$' mkfs -t /dev/null
    refused 3 'mkfs has no type$' mkfs -t /dev/null '-q -v'
    refused 3 'mkfs has no type$' mkfs -t '' /dev/null
    refused 3 "format has $few" format
    refused 3 "format has $few" format -k
    refused 3 "format has $many" format /dev/null -k
    refused 3 "mount.nfs has $few" mount.nfs
    refused 3 "mount.nfs has $few" mount.nfs -r server:/export
    refused 3 "mount.nfs has $many" mount.nfs server:/export / soft hard
}

options_are_checked() {
    refused 2 'bad option -f$' fsck -f
    refused 2 'bad option -x$' fsck -t ext4 -x
    refused 2 'bad option --help$' mkfs -t ext4 --help
    refused 2 'bad option -K$' format -K
    refused 2 'bad option -k$' format -k -k
    refused 2 'bad option --$' mount.nfs -- /
    refused 2 'bad option -w$' mount.nfs -w server:/export
    refused 2 'bad option -x$' mount.nfs server:/export -x
    refused 2 'bad option -o soft$' mount.nfs server:/export / '-o soft'
    refused 2 '/dev/zero is not an option of fsck$' fsck -t ext4 /dev/null '/dev/zero -f'
    refused 2 '100 is not an option of mkfs$' mkfs -t vfat /dev/null ' 100'
}

types_are_checked() {
    refused 5 'unknown file-system type ufsd$' fsck -t ufsd /dev/null
    refused 5 'unknown file-system type ntfs$' mkfs -t ntfs /dev/null
    refused 5 'unknown file-system type ext$' mkfs -t ext /dev/null
    refused 5 'unknown file-system type -f$' fsck -t -f /dev/null
}

nfs_targets_are_checked() {
    local target
    for target in server server: server:export /export :/export 'a b:/export' a/b:/export ''; do
        refused 29 "$target is not HOST:/PATH" mount.nfs "$target" /
    done
    refused 30 "$clips/missing is not a directory" mount.nfs server:/export "$clips/missing"
    refused 30 '/dev/null is not a directory' mount.nfs -r '[fe80::1]:/export' /dev/null soft
}

others_than_root_are_refused() {
    local command
    if [ "$(id -u)" -ne 0 ]; then
        command=("$sysutils")
    elif [ "$(unshare -U id -u 2>/dev/null)" != 0 ] && unshare -U true 2>/dev/null; then
        command=(unshare -U "$sysutils")
    else
        skipped="root cannot be somebody else here"
        return
    fi
    for arguments in 'fsck /dev/null' 'mkfs -t ext4 /dev/null' 'format /dev/null' \
        'mount.nfs server:/export /'; do
        # shellcheck disable=SC2086 # they are several
        run "${command[@]}" $arguments
        expect_error 10 'only root may do that' oruio_sysutils
    done
}

# --- the cases: which devices -----------------------------------------------------------------

what_is_no_block_device_is_refused() {
    local device
    can_use_disks || return
    touch "$clips/file"
    ln -s missing "$clips/dangling"
    mknod "$clips/absent" b 240 4242
    for device in "$clips" "$clips/file" "$clips/missing" "$clips/dangling" /dev/null loop0 ''; do
        refused 20 "$device is not a block device" fsck -t ext4 "$device"
        refused 20 "$device is not a block device" mkfs -t ext4 "$device" ''
        refused 20 "$device is not a block device" format -k "$device"
    done
    refused 20 "$clips/absent is of no device" format "$clips/absent"
}

# Gone since it was found: what sysfs had of it is missing.
device_that_has_gone_is_refused() {
    local place
    can_use_disks || return
    new_disk 4G
    place=/sys/block/${disk#/dev/}
    mkdir "$clips/place"
    expect mount --bind "$clips/place" "$place"
    mounts+=("$place")
    refused 20 "$disk has gone" format -k "$disk"
    refused 20 "$disk has gone" fsck -t ext4 "$disk"
    echo 8388608 >"$clips/place/size"
    refused 20 "$disk has gone" format "$disk" # for want of its block size
    refused 20 "$disk has gone" mkfs -t ext4 "$disk"
    echo 65536 >"$clips/place/size"
    refused 20 "$disk has gone" format "$disk" # nobody has protected it
    release_disks
}

disks_and_partitions_are_told_apart() {
    can_use_disks || return
    new_ext4
    refused 21 "$partition is a partition" format "$partition"
    refused 21 "$partition is a partition" format -k "$partition"
    refused 21 "$disk is a disk with partitions" fsck -t ext4 "$disk"
    refused 21 "$disk is a disk with partitions" mkfs -t ext4 "$disk"
    partx -d "$disk"
    refused 21 "$disk has a partition table" fsck "$disk"
    refused 21 "$disk has a partition table" mkfs -t vfat "$disk"
    release_disks
}

impossible_sizes_are_refused() {
    can_use_disks || return
    new_disk 0
    refused 25 "$disk has no medium" format "$disk"
    refused 25 "$disk has no medium" fsck -t vfat "$disk"
    new_disk 15M
    refused 25 "$disk has less than 16 MiB" format "$disk"
    new_disk 2049G
    refused 25 "$disk has more than 2 TiB" format "$disk"
    release_disks
}

write_protected_devices_are_refused() {
    can_use_disks || return
    new_disk 32M --read-only
    refused 26 "$disk is write-protected" format -k "$disk"
    refused 26 "$disk is write-protected" mkfs -t ext4 "$disk"
    release_disks
}

mounted_devices_are_refused() {
    can_use_disks || return
    new_ext4
    mount_on "$partition" "$clips/a mount"
    ln -s "$partition" "$clips/a link"
    mknod "$clips/alias" b $(("0x$(stat -c %t "$partition")")) $(("0x$(stat -c %T "$partition")"))
    for device in "$partition" "$clips/a link" "$clips/alias"; do
        refused 23 "$device is mounted on $clips/a.*mount" fsck -t ext4 "$device"
        refused 23 "$device is mounted on $clips/a.*mount" mkfs -t ext4 "$device"
    done
    refused 23 "$disk is mounted on $clips/a.*mount" format "$disk"
    expect is_mounted "$clips/a mount"
    release_disks
}

devices_mounted_elsewhere_are_refused() {
    can_use_disks || return
    new_ext4
    mkdir "$clips/mount"
    # shellcheck disable=SC2016 # that shell expands it
    unshare -m sh -c 'mount "$1" "$2" && exec sleep 1000' sh "$partition" "$clips/mount" &
    expect wait_until grep -qs "$clips/mount" "/proc/$!/mountinfo"
    expect wait_until grep -qsx sleep "/proc/$!/comm"
    refused 23 "$partition is mounted on $clips/mount" mkfs -t ext4 "$partition"
    refused 27 "$disk is mounted on $clips/mount" format -k "$disk"
    expect_alive $!
    release_disks
}

swap_space_is_refused() {
    can_use_disks mkswap swapon || return
    new_partitioned_disk 32M
    mkswap -q "$partition"
    if ! swapon "$partition" 2>/dev/null; then
        skipped="there is no swapping here"
        release_disks
        return
    fi
    refused 23 "$partition is swap space" mkfs -t ext4 "$partition"
    refused 23 "$disk is swap space" format "$disk"
    refused 23 "$disk is swap space" format -k "$disk"
    expect grep -q "^$partition " /proc/swaps
    expect swapoff "$partition"
    release_disks
}

# Neither device-mapper nor md are everywhere: a mount has the kernel tell of them.
parts_of_other_devices_are_refused() {
    can_use_disks || return
    new_partitioned_disk 32M
    mkdir -p "$clips/holders/dm-7"
    expect mount --bind "$clips/holders" "/sys/block/${disk#/dev/}/${partition#/dev/}/holders"
    mounts+=("/sys/block/${disk#/dev/}/${partition#/dev/}/holders")
    refused 23 "$partition is part of dm-7" fsck -t ext4 "$partition"
    refused 23 "$disk is part of dm-7" format -k "$disk"
    release_disks
}

used_disks_are_not_formatted() {
    can_use_disks || return
    new_partitioned_disk 32M
    start_user "$partition"
    refused 23 "$disk is in use by process $user \(sleep\)" format "$disk"
    expect_alive "$user"
    release_disks
}

passing_look_at_a_disk_is_waited_for() {
    local option
    can_use_disks || return
    new_disk 32M
    for option in '' -k; do
        start_user "$disk"
        mkdir -p "$clips/tools"
        cat >"$clips/tools/fuser" <<SCRIPT
#!/bin/sh
/usr/bin/fuser "\$@"
kill -KILL $user
SCRIPT
        chmod +x "$clips/tools/fuser"
        stack_tools "$clips/tools"
        succeeds format ${option:+"$option"} "$disk" 2>/dev/null
        expect_ended_by "$user" 9
        expect [ "$(grep -c SIG "$work/out")" -eq 0 ]
        umount /usr/sbin
    done
    release_disks
}

# --- the cases: the running system's disks ----------------------------------------------------

# Only with a command that would do nothing bad if it were not refused.
root_disk_is_refused() {
    local root
    can_use_disks || return
    root=/dev/$(basename "$(readlink -e "/sys/dev/block/$(mountpoint -d /)")")
    if [ ! -b "$root" ]; then
        skipped="the root file system is on no disk"
        return
    fi
    run "$sysutils" fsck -t ext4 "$root" -n
    expect_error 22 "$root is on a disk of the running system" oruio_sysutils
}

# $disk, with another partition of which something is mounted on /boot, is refused.
expect_system_disk() {
    refused 22 "$disk is on a disk of the running system" format "$disk"
    refused 22 "$disk is on a disk of the running system" format -k "$disk"
    refused 22 "${disk}p1 is on a disk of the running system" mkfs -t ext4 "${disk}p1"
    refused 22 "${disk}p2 is on a disk of the running system" mkfs -t ext4 "${disk}p2"
    refused 22 "${disk}p2 is on a disk of the running system" fsck -t ext4 "${disk}p2"
    expect is_mounted /boot
}

new_system_disk() {
    new_disk 64M
    printf 'start=1MiB, size=32MiB\nsize=8MiB\n' |
        sfdisk --quiet --label dos --no-reread --no-tell-kernel "$disk"
    partx -u "$disk"
    expect wait_until [ -b "${disk}p2" ]
    mkfs.ext4 -q "${disk}p1"
}

disk_of_the_system_is_refused() {
    can_use_disks || return
    new_system_disk
    mount_on "${disk}p1" /boot
    expect_system_disk
    release_disks
}

disk_below_an_overlay_is_refused() {
    can_use_disks || return
    new_system_disk
    mount_on "${disk}p1" "$clips/system"
    mkdir "$clips/empty"
    expect mount -t overlay -o "ro,lowerdir=$clips/empty:$clips/system" overlay /boot
    mounts+=(/boot)
    expect_system_disk
    release_disks
}

disk_with_an_image_of_the_system_is_refused() {
    local image
    can_use_disks || return
    new_system_disk
    mount_on "${disk}p1" "$clips/system"
    truncate -s 8M "$clips/system/image"
    mkfs.ext4 -q "$clips/system/image"
    image=$(losetup --find --show "$clips/system/image")
    mount_on "$image" /boot
    expect_system_disk
    umount /boot
    losetup -d "$image"
    release_disks
}

disk_below_a_mapped_device_is_refused() {
    local upper
    can_use_disks || return
    new_ext4
    upper=$disk
    mount_on "$partition" /boot
    new_system_disk
    mkdir -p "$clips/slaves/lower"
    cat "/sys/block/${disk#/dev/}/${disk#/dev/}p1/dev" >"$clips/slaves/lower/dev"
    expect mount --bind "$clips/slaves" "/sys/block/${upper#/dev/}/slaves"
    mounts+=("/sys/block/${upper#/dev/}/slaves")
    expect_system_disk
    release_disks
}

# --- the cases: fsck --------------------------------------------------------------------------

sound_file_systems_pass() {
    can_use_disks || return
    new_filled_ext4
    succeeds fsck -t ext4 "$partition"
    succeeds fsck -t ext4 "$partition" ''
    succeeds fsck -t ext4 "$partition" '-f  -v'
    expect grep -q 'inodes used' "$work/out"
    succeeds fsck "$partition"
    succeeds fsck -t "$partition"
    succeeds fsck -t "$partition" -f
    succeeds fsck -t '' "$partition"
    expect grep -q 'clean' "$work/out"
    mkfs.exfat "$partition" >/dev/null
    succeeds fsck -t exfat "$partition"
    succeeds fsck -t "$partition"
    mkfs.vfat "$partition" >/dev/null
    succeeds fsck -t vfat "$partition"
    succeeds fsck -t fat "$partition"
    succeeds fsck -t "$partition"
    release_disks
}

harmless_damage_of_ext4_is_repaired() {
    can_use_disks || return
    new_filled_ext4
    change_ext4 'clri /directory'
    change_ext4 'set_super_value state 2'
    refused 40 "$partition still has errors" fsck -t ext4 "$partition" '-f -n'
    succeeds fsck -t ext4 "$partition"
    expect grep -q 'inode .*CLEARED' "$work/out"
    expect [ "$(grep -c 'Pass 1' "$work/out")" -eq 0 ] # one step was enough
    expect is_clean ext4 "$partition" -f
    expect has_text <(debugfs -R 'cat /file' "$partition" 2>/dev/null) precious
    release_disks
}

damaged_ext4_is_repaired() {
    local inode
    can_use_disks || return
    new_filled_ext4
    inode=$(debugfs -R 'stat /file' "$partition" 2>/dev/null | sed -n 's/^Inode: \([0-9]*\).*/\1/p')
    change_ext4 'clri <2>' # the root directory
    change_ext4 'set_super_value state 2'
    succeeds fsck -t ext4 "$partition"
    expect grep -q 'RUN fsck MANUALLY' "$work/out"
    expect grep -q 'Pass 1' "$work/out"
    expect is_clean ext4 "$partition" -f
    expect has_text <(debugfs -R "cat /lost+found/#$inode" "$partition" 2>/dev/null) precious
    release_disks
}

damaged_vfat_is_repaired() {
    can_use_disks || return
    new_partitioned_disk 64M
    mkfs.vfat -F 16 "$partition" >/dev/null
    # Two clusters that belong to no file, in the first of two tables.
    printf '\003\000\377\377' |
        dd of="$partition" bs=1 seek=$((4 * 512 + 4)) conv=notrunc,nocreat,fsync status=none
    refused 40 "$partition still has errors" fsck -t vfat "$partition" -n
    succeeds fsck -t vfat "$partition"
    expect grep -q 'FATs differ' "$work/out"
    expect is_clean vfat "$partition"
    zero "$partition" 0 512
    refused 40 "$partition still has errors" fsck -t vfat "$partition"
    release_disks
}

damaged_exfat_is_repaired() {
    can_use_disks || return
    new_partitioned_disk 64M
    mkfs.exfat "$partition" >/dev/null
    zero "$partition" $((11 * 512)) 512 # the checksum; there is a second one
    expect [ "$(is_clean exfat "$partition" && echo clean)" = '' ]
    succeeds fsck -t exfat "$partition"
    expect is_clean exfat "$partition"
    release_disks
}

what_cannot_be_checked_is_reported() {
    can_use_disks mkswap || return
    new_partitioned_disk 32M
    refused 28 "$partition has no file system" fsck "$partition"
    refused 28 "$partition has no file system" fsck -t "$partition"
    refused 41 "$partition cannot be checked: fsck.ext4 ended with status 8" \
        fsck -t ext4 "$partition"
    refused 41 "$partition cannot be checked: fsck.exfat ended with status" \
        fsck -t exfat "$partition"
    refused 41 "$partition cannot be checked: fsck.ext4 ended with status 16" \
        fsck -t ext4 "$partition" '-f --bad'
    mkfs.vfat "$partition" >/dev/null
    refused 41 "$partition cannot be checked: fsck.vfat ended with status" \
        fsck -t vfat "$partition" '--bad'
    wipefs -q -a "$partition"
    mkswap -q "$partition"
    refused 5 'unknown file-system type swap' fsck "$partition"
    release_disks
}

# --- the cases: mkfs --------------------------------------------------------------------------

file_systems_are_made() {
    local type
    can_use_disks || return
    new_partitioned_disk 64M
    for type in ext2 ext3 ext4 vfat exfat; do
        succeeds mkfs -t $type "$partition"
        expect has_tag "$partition" TYPE $type
        expect is_clean $type "$partition"
    done
    succeeds mkfs -t fat "$partition"
    expect has_tag "$partition" TYPE vfat
    release_disks
}

file_systems_are_made_on_disks_without_partitions() {
    local type
    can_use_disks || return
    new_disk 64M
    for type in ext4 exfat vfat; do
        succeeds mkfs -t $type "$disk"
        expect has_tag "$disk" TYPE $type
        succeeds fsck "$disk"
    done
    succeeds mkfs -t ext4 "$disk"
    release_disks
}

options_are_split_into_words() {
    can_use_disks || return
    new_partitioned_disk 64M
    succeeds mkfs -t ext4 "$partition" $'-L  MEDIA\t-m 0\n-O ^has_journal '
    expect has_tag "$partition" LABEL MEDIA
    expect [ "$(dumpe2fs -h "$partition" 2>/dev/null | grep -c 'Reserved block count: *0$')" -eq 1 ]
    succeeds mkfs -t vfat "$partition" '-F 32 -n CARD'
    expect has_tag "$partition" VERSION FAT32
    expect has_tag "$partition" LABEL CARD
    release_disks
}

options_are_not_evaluated() {
    local label
    can_use_disks || return
    new_partitioned_disk 64M
    cd "$clips" || return
    # shellcheck disable=SC2016 # nothing in them is to be expanded
    for label in '*' '$HOME' '$(echo)' '`id`' ';id' '"x"' "'" '\0101'; do
        succeeds mkfs -t ext4 "$partition" "-L $label"
        expect [ "$(dumpe2fs -h "$partition" 2>/dev/null | sed -n 's/.*volume name: *//p')" = \
            "$label" ]
    done
    cd / || return
    release_disks
}

options_cannot_name_another_device() {
    local other type
    local -A label=([ext4]=-L [vfat]=-n [exfat]=-L)
    can_use_disks || return
    new_disk 32M
    other=$disk
    mkfs.ext4 -q "$other"
    new_partitioned_disk 32M
    for type in ext4 vfat exfat; do
        export POSIXLY_CORRECT=1 # the tools would take it for a reason to read options first
        refused 42 "no file system on $partition: mkfs.$type ended with status" \
            mkfs -t $type "$partition" "-v $other"
        refused 42 "no file system on $partition: mkfs.$type ended with status" \
            mkfs -t $type "$partition" "-- $other"
        refused 42 "no file system on $partition: mkfs.$type ended with status" \
            mkfs -t $type "$partition" "-v $other ${label[$type]}" # what follows is the label
        unset POSIXLY_CORRECT
    done
    mkfs.ext4 -q "$partition"
    refused 41 "$partition cannot be checked" fsck -t ext4 "$partition" "-f $other"
    release_disks
}

# --- the cases: format ------------------------------------------------------------------------

# expect_formatted SIZE START CODE TYPE VERSION
expect_formatted() {
    new_disk "$1"
    succeeds format "$disk"
    expect_layout "$2" "$3" "$4"
    expect has_tag "${disk}p1" VERSION "$5"
    succeeds fsck -t "$4" "${disk}p1"
    release_disks
}

cards_are_formatted_as_their_size_asks() {
    can_use_disks || return
    expect_formatted 16M 128 4 vfat FAT16
    expect_formatted 32M 128 6 vfat FAT16
    expect_formatted 2048M 128 6 vfat FAT16
    expect_formatted 2049M 8192 c vfat FAT32
    expect_formatted 32768M 8192 c vfat FAT32
    expect_formatted 32769M 32768 7 exfat 1.0
}

bytes_per_cluster() {
    od -An -tu1 -j13 -N1 "$1" | tr -d ' '
}

clusters_are_of_the_standard_size() {
    can_use_disks || return
    new_disk 8G
    succeeds format "$disk"
    expect_layout 8192 c vfat
    expect [ "$(bytes_per_cluster "${disk}p1")" -eq 64 ]
    release_disks
    new_disk 8G --sector-size 4096
    succeeds format "$disk"
    expect_layout 1024 c vfat 4096
    expect [ "$(bytes_per_cluster "${disk}p1")" -eq 8 ]
    release_disks
}

old_contents_are_gone() {
    can_use_disks || return
    new_disk 64M
    printf 'start=1MiB, size=16MiB\nsize=16MiB\nsize=16MiB\n' |
        sfdisk --quiet --label gpt --no-reread --no-tell-kernel "$disk"
    partx -u "$disk"
    expect wait_until [ -b "${disk}p3" ]
    mkfs.ext4 -q "${disk}p1"
    mkfs.exfat "${disk}p2" >/dev/null
    succeeds format "$disk"
    expect_layout 128 6 vfat
    expect [ "$(wipefs --noheadings --output TYPE "$disk" | tr -s ' \n' ' ')" = 'dos ' ]
    expect [ "$(wipefs --noheadings --output TYPE "${disk}p1" | sort -u)" = vfat ]
    expect [ ! -e "${disk}p2" ]
    release_disks
    new_disk 64M
    mkfs.ext4 -q "$disk"
    succeeds format "$disk"
    expect_layout 128 6 vfat
    succeeds format "$disk"
    expect_layout 128 6 vfat
    release_disks
}

environment_changes_nothing() {
    can_use_disks || return
    new_disk 64M
    mkdir "$clips/bin"
    printf '#!/bin/sh\nexit 1\n' >"$clips/bin/stat"
    chmod +x "$clips/bin/stat"
    cp "$clips/bin/stat" "$clips/bin/mkfs.vfat"
    run env PATH="$clips/bin:$PATH" IFS=/ LOCK_BLOCK_DEVICE=1 POSIXLY_CORRECT=1 CDPATH=/ \
        LC_ALL=tr_TR.UTF-8 "$sysutils" format "$disk"
    expect [ "$status" -eq 0 ]
    expect_layout 128 6 vfat
    release_disks
}

# In the first seconds of the system there are digits that would be octal ones.
first_second_is_like_others() {
    can_use_disks || return
    new_disk 32M
    echo '0.08 0.00' >"$clips/uptime"
    expect mount --bind "$clips/uptime" /proc/uptime
    mounts+=(/proc/uptime)
    succeeds format "$disk"
    release_disks
}

link_with_blanks_is_a_name() {
    can_use_disks || return
    new_disk 64M
    ln -s "$disk" "$clips/a  card *"
    succeeds format -k "$clips/a  card *"
    expect_layout 128 6 vfat
    release_disks
}

# expect_tool_failure TOOL STATUS PATTERN: that is how format ends if the tool fails.
expect_tool_failure() {
    local tools=$clips/failing-$1
    mkdir "$tools"
    printf '#!/bin/sh\necho "cause 1"\necho "cause 2" >&2\nexit 7\n' >"$tools/$1"
    chmod +x "$tools/$1"
    stack_tools "$tools"
    run "$sysutils" format "$disk"
    expect_error "$2" "$3" oruio_sysutils
    expect grep -qx 'cause 1' "$work/out"
    expect grep -qx 'cause 2' "$work/out"
    umount /usr/sbin
}

failing_tools_are_reported() {
    can_use_disks || return
    new_disk 64M
    expect_tool_failure wipefs 43 "the old contents of $disk cannot be removed"
    expect_tool_failure sfdisk 43 "$disk cannot be partitioned"
    expect_tool_failure partx 44 "the kernel does not take the partition of $disk"
    expect_tool_failure mkfs.vfat 42 "no file system on ${disk}p1: mkfs.vfat ended with status 7"
    succeeds format "$disk"
    release_disks
}

missing_tools_are_reported() {
    local tool
    can_use_disks || return
    new_ext4
    mkdir "$clips/tools"
    for tool in fsck.vfat mkfs.exfat mount.nfs sfdisk; do
        mknod "$clips/tools/$tool" c 0 0 # to an overlay, that is a removed file
    done
    stack_tools "$clips/tools"
    refused 11 'fsck.vfat is not installed' fsck -t vfat "$partition"
    refused 11 'mkfs.exfat is not installed' mkfs -t exfat "$partition"
    refused 11 'mkfs.exfat is not installed' format "$disk"
    refused 11 'mount.nfs is not installed' mount.nfs server:/export "$clips"
    succeeds fsck -t ext4 "$partition"
    umount /usr/sbin
    release_disks
}

# --- the cases: format -k ---------------------------------------------------------------------

users_are_ended() {
    local bystander file_user node_user stubborn_user
    can_use_disks || return
    new_ext4 64M
    mount_on "$partition" "$clips/mount"
    mount_on "$partition" "$clips/another mount"
    touch "$clips/mount/file" "$clips/mount/stubborn" "$clips/bystander"
    start_user "$clips/mount/file"
    file_user=$user
    start_user "$partition"
    node_user=$user
    start_user "$clips/mount/stubborn" env --ignore-signal=TERM
    stubborn_user=$user
    start_user "$clips/bystander"
    bystander=$user
    (cd "$clips/another mount" && exec sleep 1000) &
    expect wait_until [ "/proc/$!/cwd" -ef "$clips/another mount" ]
    succeeds format -k "$disk" 2>/dev/null # the shell tells of one that is killed
    expect_ended_by $! 15
    expect_ended_by "$file_user" 15
    expect_ended_by "$node_user" 15
    expect_ended_by "$stubborn_user" 9
    expect grep -qx "SIGKILL to process $stubborn_user (sleep)" "$work/out"
    expect [ "$(grep -c SIGKILL "$work/out")" -eq 1 ]
    expect_alive "$bystander"
    expect [ "$(is_mounted "$clips/mount" && echo mounted)" = '' ]
    expect [ "$(is_mounted "$clips/another mount" && echo mounted)" = '' ]
    expect_layout 128 6 vfat
    release_disks
}

whoever_waits_for_the_program_is_spared() {
    local other
    can_use_disks || return
    new_ext4
    mount_on "$partition" "$clips/mount"
    touch "$clips/mount/file"
    start_user "$clips/mount/file"
    other=$user
    cd "$clips/mount" || return
    refused 27 "$disk is in use by process $$, which must not be ended" format -k "$disk"
    cd / || return
    expect_alive "$other" # it would have been in vain
    expect is_mounted "$clips/mount"
    release_disks
}

mount_that_cannot_be_undone_is_reported() {
    can_use_disks || return
    new_ext4
    mount_on "$partition" "$clips/mount"
    mkdir "$clips/mount/below"
    expect mount -t tmpfs none "$clips/mount/below"
    mounts+=("$clips/mount/below")
    refused 27 "$disk cannot be unmounted" format -k "$disk"
    expect is_mounted "$clips/mount"
    release_disks
}

# --- the cases: two at a time -----------------------------------------------------------------

# Starts a run that makes an ext4 file system on $partition and stays in the middle of it until
# something is written to $clips/go. It is $first.
start_long_run() {
    mkdir "$clips/tools"
    mkfifo "$clips/begun" "$clips/go"
    cat >"$clips/tools/mkfs.ext4" <<SCRIPT
#!/bin/sh
echo >$clips/begun
read -r _ <$clips/go
exec /usr/sbin/mke2fs -t ext4 "\$@"
SCRIPT
    chmod +x "$clips/tools/mkfs.ext4"
    stack_tools "$clips/tools"
    "$sysutils" mkfs -t ext4 "$partition" >"$work/first.out" 2>"$work/first.err" &
    first=$!
    expect read -r -t 15 _ <>"$clips/begun"
}

# Ends the wait of a stand-in, once that waits.
let_go() {
    # shellcheck disable=SC2016 # that shell expands it
    expect timeout 15 sh -c 'echo >"$1"' sh "$clips/go"
}

end_long_run() {
    let_go
    wait "$first"
    expect [ $? -eq 0 ]
    umount /usr/sbin
}

second_run_is_refused() {
    can_use_disks || return
    new_partitioned_disk 64M
    start_long_run
    refused 24 "another program is working on the disk of $disk" format -k "$disk"
    end_long_run
    expect has_tag "$partition" TYPE ext4
    release_disks
}

second_run_waits_for_a_while() {
    local second
    can_use_disks || return
    new_partitioned_disk 64M
    start_long_run
    "$sysutils" format -k "$disk" >"$work/out" 2>"$work/err" &
    second=$!
    expect wait_until is_waiting_for_lock "$second"
    end_long_run
    wait "$second"
    expect [ $? -eq 0 ]
    expect [ "$(grep -c SIG "$work/out")" -eq 0 ]
    expect_layout 128 6 vfat
    release_disks
}

waiting_run_is_no_user() {
    local second
    can_use_disks || return
    new_partitioned_disk 64M
    mkdir "$clips/tools"
    mkfifo "$clips/begun" "$clips/go"
    # At the time of the first look for users, the second run waits.
    cat >"$clips/tools/flock" <<SCRIPT
#!/bin/sh
/usr/bin/flock "\$@" || exit
mkdir $clips/first 2>/dev/null || exit 0
echo >$clips/begun
read -r _ <$clips/go
SCRIPT
    chmod +x "$clips/tools/flock"
    stack_tools "$clips/tools"
    "$sysutils" format -k "$disk" >"$work/first.out" 2>"$work/first.err" &
    first=$!
    expect read -r -t 15 _ <>"$clips/begun"
    "$sysutils" format "$disk" >"$work/out" 2>"$work/err" &
    second=$!
    expect wait_until is_waiting_for_lock "$second"
    let_go
    wait "$first"
    expect [ $? -eq 0 ]
    wait "$second"
    expect [ $? -eq 0 ]
    expect [ "$(cat "$work/first.out" "$work/out" | grep -c SIG)" -eq 0 ]
    umount /usr/sbin
    release_disks
}

# --- the cases: mount.nfs ---------------------------------------------------------------------

nfs_is_mounted() {
    can_use_disks || return
    mkdir "$clips/tools" "$clips/a directory"
    cat >"$clips/tools/mount.nfs" <<SCRIPT
#!/bin/sh
printf '%s\n' "\$@" >$clips/arguments
echo 'what is wrong' >&2
exit "\$(cat $clips/status)"
SCRIPT
    chmod +x "$clips/tools/mount.nfs"
    stack_tools "$clips/tools"
    echo 0 >"$clips/status"
    succeeds mount.nfs server:/export "$clips/a directory"
    expect has_text "$clips/arguments" "server:/export
$clips/a directory"
    succeeds mount.nfs -r '[fe80::1]:/my export' "$clips/a directory" 'soft,vers=3'
    expect has_text "$clips/arguments" "[fe80::1]:/my export
$clips/a directory
-r
-o
soft,vers=3"
    succeeds mount.nfs server:/ "$clips" ''
    expect has_text "$clips/arguments" "server:/
$clips"
    echo 32 >"$clips/status"
    refused 45 'server:/export cannot be mounted: mount.nfs ended with status 32' \
        mount.nfs server:/export "$clips"
    expect grep -qx 'what is wrong' "$work/out"
    umount /usr/sbin
    release_disks
}

run_cases commands_are_checked arguments_are_counted options_are_checked types_are_checked \
    nfs_targets_are_checked others_than_root_are_refused what_is_no_block_device_is_refused \
    device_that_has_gone_is_refused disks_and_partitions_are_told_apart \
    impossible_sizes_are_refused \
    write_protected_devices_are_refused mounted_devices_are_refused \
    devices_mounted_elsewhere_are_refused swap_space_is_refused \
    parts_of_other_devices_are_refused used_disks_are_not_formatted \
    passing_look_at_a_disk_is_waited_for root_disk_is_refused \
    disk_of_the_system_is_refused disk_below_an_overlay_is_refused \
    disk_with_an_image_of_the_system_is_refused disk_below_a_mapped_device_is_refused \
    sound_file_systems_pass harmless_damage_of_ext4_is_repaired damaged_ext4_is_repaired \
    damaged_vfat_is_repaired damaged_exfat_is_repaired what_cannot_be_checked_is_reported \
    file_systems_are_made file_systems_are_made_on_disks_without_partitions \
    options_are_split_into_words options_are_not_evaluated options_cannot_name_another_device \
    cards_are_formatted_as_their_size_asks clusters_are_of_the_standard_size \
    old_contents_are_gone environment_changes_nothing first_second_is_like_others \
    link_with_blanks_is_a_name \
    failing_tools_are_reported missing_tools_are_reported users_are_ended \
    whoever_waits_for_the_program_is_spared mount_that_cannot_be_undone_is_reported \
    second_run_is_refused second_run_waits_for_a_while waiting_run_is_no_user nfs_is_mounted
