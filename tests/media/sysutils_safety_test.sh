#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Tests that the maintenance program works on the disk that is meant and on no other, nor on one that
# is in use, with the real tools on loop disks.
#
#   sysutils_safety_test.sh ORUIO_SYSUTILS
#
# Prints "ok NAME" or "not ok NAME" for each case; fails if any of them failed.
# shellcheck disable=SC2119 # the arguments of can_use_disks are optional
set -u

# shellcheck source=tests/support/system/loopdisks.sh
source "$(dirname "$0")/../support/system/loopdisks.sh"

# --- exchanged media --------------------------------------------------------------------------

sequence_of() {
    cat "/sys/block/${1#/dev/}/diskseq"
}

has_sequences() {
    can_use_disks python3 || return
    [ -e /sys/block/loop0/diskseq ] || skipped="the kernel has no sequence numbers of disks"
    [ -z "$skipped" ]
}

only_the_meant_medium_is_changed() {
    local other
    has_sequences || return
    new_ext4 64M
    other=$(($(sequence_of "$disk") + 1))
    export ORUIO_DISKSEQ=$other
    refused 20 "$partition has been exchanged" fsck -t ext4 "$partition"
    refused 20 "$partition has been exchanged" mkfs -t ext4 "$partition"
    refused 20 "$disk has been exchanged" format "$disk"
    refused 20 "$disk has been exchanged" format -k "$disk"
    ORUIO_DISKSEQ=$(sequence_of "$disk")
    succeeds fsck -t ext4 "$partition"
    succeeds mkfs -t ext4 "$partition"
    succeeds format "$disk"
    unset ORUIO_DISKSEQ
    release_disks
}

# The sequence number in sysfs is read first, that of the open disk later.
disk_exchanged_before_it_is_opened_is_refused() {
    local file
    has_sequences || return
    new_ext4
    file=/sys/block/${disk#/dev/}/diskseq
    echo $(($(sequence_of "$disk") - 1)) >"$clips/diskseq"
    expect mount --bind "$clips/diskseq" "$file"
    mounts+=("$file")
    refused 20 "$partition has been exchanged" mkfs -t ext4 "$partition"
    refused 20 "$disk has been exchanged" format "$disk"
    release_disks
}

# exchange_command IMAGE: prints a command that gives the read-only loop disk $disk another medium
# while it is open.
exchange_command() {
    # LOOP_CHANGE_FD
    echo "python3 -c 'import fcntl, os; fcntl.ioctl(open(\"$disk\"), 0x4c06, os.open(\"$1\", 0))'"
}

new_exchangeable_disk() {
    truncate -s 32M "$clips/other.img"
    mkfs.ext4 -q -L OTHER "$clips/other.img"
    truncate -s 32M "$clips/disk0.img"
    mkfs.ext4 -q -L FIRST "$clips/disk0.img"
    new_disk 32M --read-only
}

disk_exchanged_during_the_wait_is_refused() {
    has_sequences || return
    new_exchangeable_disk
    take_lock
    "$sysutils" fsck -t ext4 "$disk" -n >"$work/out" 2>"$work/err" &
    expect wait_until is_waiting_for_lock $!
    expect eval "$(exchange_command "$clips/other.img")"
    release_lock
    wait $!
    status=$?
    expect has_tag "$disk" LABEL OTHER
    expect_error 20 "$disk has been exchanged" oruio_sysutils
    expect [ ! -s "$work/out" ]
    release_disks
}

disk_exchanged_during_a_check_is_reported() {
    has_sequences || return
    new_exchangeable_disk
    stand_in fsck.ext4 <<<"$(exchange_command "$clips/other.img")"
    run "$sysutils" fsck -t ext4 "$disk" -n
    expect_error 20 "$disk has been exchanged" oruio_sysutils
    umount /usr/sbin
    release_disks
}

# --- claims -----------------------------------------------------------------------------------

# Starts a process that holds the device exclusively, as the kernel does for a mounted file system.
start_holder() {
    python3 -c '
import os, sys, time
os.open(sys.argv[1], os.O_RDONLY | os.O_EXCL)
open(sys.argv[2], "w").close()
time.sleep(1000)' "$1" "$clips/held" &
    expect wait_until [ -e "$clips/held" ]
}

# The checker of FAT does not look for a claim itself.
claimed_device_is_refused() {
    local type
    can_use_disks python3 || return
    new_partitioned_disk 64M
    for type in vfat exfat ext4; do
        "mkfs.$type" "$partition" >"$work/made" 2>&1
        start_holder "$partition"
        refused 23 "$partition is in use" fsck -t $type "$partition"
        refused 23 "$partition is in use" fsck -t $type "$partition" -n
        refused 23 "$partition is in use" mkfs -t $type "$partition"
        kill -KILL $!
        wait $! 2>/dev/null
        rm "$clips/held"
    done
    start_holder "$disk"
    refused 23 "$partition is in use" fsck -t ext4 "$partition"
    release_disks
}

# The file system is in no mount table any more, and still in use.
lazily_unmounted_device_is_refused() {
    can_use_disks || return
    new_ext4 64M
    mount_on "$partition" "$clips/mount"
    touch "$clips/mount/file"
    start_user "$clips/mount/file"
    expect umount --lazy "$clips/mount"
    refused 23 "$partition is in use" fsck -t ext4 "$partition"
    refused 23 "$partition is in use" fsck -t vfat "$partition"
    refused 23 "$partition is in use" mkfs -t vfat "$partition"
    refused 23 "$disk is in use by process $user" format "$disk"
    succeeds format -k "$disk" 2>/dev/null
    expect_ended_by "$user" 15
    expect_layout 128 6 vfat
    release_disks
}

# Processes are not trusted by their names.
user_named_like_a_trusted_program_is_seen() {
    can_use_disks || return
    new_disk 32M
    cp "$(command -v sleep)" "$clips/flock"
    "$clips/flock" 1000 <"$disk" &
    expect wait_until grep -qsx flock "/proc/$!/comm"
    refused 23 "$disk is in use by process $! \(flock\)" format "$disk"
    succeeds format -k "$disk" 2>/dev/null
    expect_ended_by $! 15
    release_disks
}

process_that_maps_a_file_is_ended() {
    can_use_disks python3 || return
    new_ext4 64M
    mount_on "$partition" "$clips/mount"
    head -c 4096 /dev/zero >"$clips/mount/file"
    python3 -c '
import mmap, sys, time
with open(sys.argv[1], "r+b") as file:
    mapped = mmap.mmap(file.fileno(), 4096)
import os
for fd in range(3, 20):
    try:
        os.close(fd)
    except OSError:
        pass
open(sys.argv[2], "w").close()
time.sleep(1000)' "$clips/mount/file" "$clips/mapped" &
    expect wait_until [ -e "$clips/mapped" ]
    succeeds format -k "$disk" 2>/dev/null
    expect_ended_by $! 15
    release_disks
}

# --- mounts -----------------------------------------------------------------------------------

mount_point_is_taken_in_exact_bytes() {
    local name
    can_use_disks || return
    # shellcheck disable=SC1003 # the name ends in a backslash
    for name in $'card\n' ' card ' 'card\' 'card\012'; do
        new_ext4 64M
        mount_on "$partition" "$clips/$name"
        mkdir -p "$clips/card"
        expect mount -t tmpfs innocent "$clips/card"
        mounts+=("$clips/card")
        touch "$clips/card/file"
        start_user "$clips/card/file"
        refused 23 "$disk is mounted on $clips/" format "$disk"
        succeeds format -k "$disk"
        expect_alive "$user"
        expect is_mounted "$clips/card"
        expect [ "$(is_mounted "$clips/$name" && echo mounted)" = '' ]
        expect_layout 128 6 vfat
        release_disks
    done
}

mount_that_covers_the_disk_stays() {
    can_use_disks || return
    new_ext4 64M
    mount_on "$partition" "$clips/mount"
    expect mount -t tmpfs above "$clips/mount"
    mounts+=("$clips/mount")
    refused 27 "$disk cannot be unmounted" format -k "$disk"
    expect [ "$(stat -f -c %T "$clips/mount")" = tmpfs ]
    release_disks
}

# Any user can mount a tmpfs in a user namespace and give it any name.
tmpfs_named_like_the_disk_is_ignored() {
    can_use_disks || return
    unshare -Urm true 2>/dev/null || skipped="cannot create a user namespace"
    [ -z "$skipped" ] || return
    new_ext4 64M
    # shellcheck disable=SC2016 # expanded by that shell
    unshare -Urm sh -c 'mount -t tmpfs "$1" /tmp && mount -t tmpfs "$2" /mnt && exec sleep 1000' \
        sh "$disk" "$partition" &
    expect wait_until grep -qsx sleep "/proc/$!/comm"
    expect grep -q " $partition " "/proc/$!/mountinfo"
    succeeds fsck -t ext4 "$partition"
    succeeds mkfs -t ext4 "$partition"
    succeeds format "$disk"
    expect_alive $!
    succeeds format -k "$disk"
    expect_alive $!
    release_disks
}

# The number of such a file system belongs to no device.
btrfs_is_known_by_its_source() {
    can_use_disks mkfs.btrfs || return
    grep -qw btrfs /proc/filesystems || skipped="the kernel has no btrfs"
    [ -z "$skipped" ] || return
    new_partitioned_disk 256M
    mkfs.btrfs -q "$partition"
    mount_on "$partition" "$clips/mount"
    touch "$clips/mount/file"
    start_user "$clips/mount/file"
    refused 23 "$partition is mounted on $clips/mount" mkfs -t ext4 "$partition"
    succeeds format -k "$disk" 2>/dev/null
    expect_ended_by "$user" 15
    release_disks
}

# --- the disks of the running system ----------------------------------------------------------

directories_of_the_system_are_refused() {
    local directory
    can_use_disks || return
    new_ext4
    for directory in /var /home; do
        mount_on "$partition" "$directory"
        refused 22 "$disk is on a disk of the running system" format "$disk"
        refused 22 "$disk is on a disk of the running system" format -k "$disk"
        umount "$directory"
    done
    mkdir "$clips/home"
    mount_on "$partition" "$clips/home"
    refused 23 "$disk is mounted on $clips/home" format "$disk"
    release_disks
}

# in_overlay_root COMMAND...: runs the command with a root that is an overlay. Its lower layer is
# the file system on $partition, which has no path any more, as after the root was changed in an
# initramfs.
in_overlay_root() {
    # shellcheck disable=SC2016 # expanded by that shell
    local script='
        set -e
        cd "$1"
        shift
        mount -t tmpfs upper upper
        mkdir upper/files upper/work
        mount -t overlay -o "lowerdir=$PWD/lower,upperdir=$PWD/upper/files,workdir=$PWD/upper/work" \
            overlay root
        for directory in usr bin sbin lib lib64 etc proc sys dev; do
            [ ! -L "/$directory" ] || { ln -s "$(readlink "/$directory")" "root/$directory"; continue; }
            [ -d "/$directory" ] || continue
            mkdir "root/$directory"
            mount --rbind "/$directory" "root/$directory"
        done
        mkdir -p root/old "root${SYSUTILS%/*}"
        mount --bind "${SYSUTILS%/*}" "root${SYSUTILS%/*}"
        cd root
        pivot_root . old
        umount -l old
        cd /
        exec "$@"'
    mkdir -p "$clips/upper" "$clips/root"
    SYSUTILS=$sysutils unshare -m sh -c "$script" sh "$clips" "$@"
}

# The overlay may have any disk below it that is claimed and not removable.
disk_below_an_invisible_layer_is_refused() {
    local command
    can_use_disks pivot_root || return
    new_ext4
    mount_on "$partition" "$clips/lower"
    for command in format 'format -k'; do
        # shellcheck disable=SC2086 # several words
        run in_overlay_root "$sysutils" $command "$disk"
        expect_error 22 "$disk may be on a disk of the running system" oruio_sysutils
    done
    run in_overlay_root "$sysutils" mkfs -t ext4 "$partition"
    expect_error 22 "$partition may be on a disk of the running system" oruio_sysutils
    # With a list the disks of the system are known.
    mkdir -p "$clips/etc/oruio"
    : >"$clips/etc/oruio/system-disks"
    expect mount -t overlay -o "ro,lowerdir=$clips/etc:/etc" overlay /etc
    mounts+=(/etc)
    run in_overlay_root "$sysutils" mkfs -t ext4 "$partition"
    expect_error 23 "$partition is (mounted|in use)" oruio_sysutils
    release_disks
}

listed_disks_are_refused() {
    local listed=() unlisted
    can_use_disks || return
    new_disk 64M
    unlisted=$disk
    new_disk 32M
    listed+=("$disk")
    new_ext4
    listed+=("$disk")
    ln -s "${listed[0]}" "$clips/link with blanks"
    mkdir -p "$clips/etc/oruio"
    printf '%s\n' '# the disks of the system' '' "  $clips/link with blanks" "$partition" /dev/none \
        >"$clips/etc/oruio/system-disks"
    expect mount -t overlay -o "ro,lowerdir=$clips/etc:/etc" overlay /etc
    mounts+=(/etc)
    for disk in "${listed[@]}"; do
        refused 22 "$disk is on a disk of the running system" format "$disk"
    done
    refused 22 "$partition is on a disk of the running system" fsck -t ext4 "$partition"
    succeeds format "$unlisted"
    release_disks
}

unreadable_list_is_refused() {
    can_use_disks || return
    new_disk 32M
    mkdir -p "$clips/etc/oruio"
    ln -s system-disks "$clips/etc/oruio/system-disks" # ELOOP
    expect mount -t overlay -o "ro,lowerdir=$clips/etc:/etc" overlay /etc
    mounts+=(/etc)
    refused 22 '/etc/oruio/system-disks cannot be read' format "$disk"
    release_disks
}

run_cases only_the_meant_medium_is_changed disk_exchanged_before_it_is_opened_is_refused \
    disk_exchanged_during_the_wait_is_refused disk_exchanged_during_a_check_is_reported \
    claimed_device_is_refused lazily_unmounted_device_is_refused \
    user_named_like_a_trusted_program_is_seen process_that_maps_a_file_is_ended \
    mount_point_is_taken_in_exact_bytes mount_that_covers_the_disk_stays \
    tmpfs_named_like_the_disk_is_ignored btrfs_is_known_by_its_source \
    directories_of_the_system_are_refused disk_below_an_invisible_layer_is_refused \
    listed_disks_are_refused unreadable_list_is_refused
