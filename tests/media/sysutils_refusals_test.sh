#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Tests which command lines and devices the maintenance program refuses, with the real tools on
# loop disks.
#
#   sysutils_refusals_test.sh ORUIO_SYSUTILS
#
# Prints "ok NAME" or "not ok NAME" for each case; fails if any of them failed.
# shellcheck disable=SC2119 # the arguments of new_ext4 are optional
set -u

# shellcheck source=tests/support/system/loopdisks.sh
source "$(dirname "$0")/../support/system/loopdisks.sh"

# --- the command line -------------------------------------------------------------------------

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

other_users_than_root_are_refused() {
    local command
    if [ "$(id -u)" -ne 0 ]; then
        command=("$sysutils")
    elif [ "$(unshare -U id -u 2>/dev/null)" != 0 ] && unshare -U true 2>/dev/null; then
        command=(unshare -U "$sysutils")
    else
        skipped="cannot create a user namespace"
        return
    fi
    for arguments in 'fsck /dev/null' 'mkfs -t ext4 /dev/null' 'format /dev/null' \
        'mount.nfs server:/export /'; do
        # shellcheck disable=SC2086 # several words
        run "${command[@]}" $arguments
        expect_error 10 'only root may do that' oruio_sysutils
    done
}

# --- devices ----------------------------------------------------------------------------------

other_files_than_block_devices_are_refused() {
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

# A device that is removed while the program runs: its files in sysfs are missing.
removed_device_is_refused() {
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
    refused 20 "$disk has gone" format "$disk" # its block size is missing
    refused 20 "$disk has gone" mkfs -t ext4 "$disk"
    echo 65536 >"$clips/place/size"
    refused 20 "$disk has gone" format "$disk" # its read-only flag is missing
    release_disks
}

wrong_kind_of_device_is_refused() {
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
    # shellcheck disable=SC2016 # expanded by that shell
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
        skipped="cannot enable swap space"
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

# A bind mount over "holders" in sysfs stands in for device-mapper and md, which not every kernel
# has.
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

short_use_of_a_disk_is_waited_for() {
    local option
    can_use_disks || return
    new_disk 32M
    for option in '' -k; do
        start_user "$disk"
        take_lock
        "$sysutils" format ${option:+"$option"} "$disk" >"$work/out" 2>"$work/err" &
        expect wait_until is_waiting_for_lock $!
        release_lock
        # Long enough for the program to see the user, and shorter than it waits.
        sleep 0.3
        kill -KILL "$user"
        wait $! 2>/dev/null
        expect [ $? -eq 0 ]
        expect_ended_by "$user" 9
        expect [ "$(grep -c SIG "$work/out")" -eq 0 ]
    done
    release_disks
}

# --- the disks of the running system ----------------------------------------------------------

# Uses fsck -n: harmless if it is not refused.
root_disk_is_refused() {
    local root
    can_use_disks || return
    root=/dev/$(basename "$(readlink -e "/sys/dev/block/$(mountpoint -d /)")")
    if [ ! -b "$root" ]; then
        skipped="the root file system is not on a disk"
        return
    fi
    run "$sysutils" fsck -t ext4 "$root" -n
    expect_error 22 "$root is on a disk of the running system" oruio_sysutils
}

# Expects that $disk is refused with both of its partitions; one of them is mounted on /boot.
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
    image=$(flock /dev/loop-control losetup --find --show "$clips/system/image")
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

run_cases commands_are_checked arguments_are_counted options_are_checked types_are_checked \
    nfs_targets_are_checked other_users_than_root_are_refused \
    other_files_than_block_devices_are_refused removed_device_is_refused \
    wrong_kind_of_device_is_refused impossible_sizes_are_refused \
    write_protected_devices_are_refused mounted_devices_are_refused \
    devices_mounted_elsewhere_are_refused swap_space_is_refused \
    parts_of_other_devices_are_refused used_disks_are_not_formatted \
    short_use_of_a_disk_is_waited_for root_disk_is_refused disk_of_the_system_is_refused \
    disk_below_an_overlay_is_refused disk_with_an_image_of_the_system_is_refused \
    disk_below_a_mapped_device_is_refused
