#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Tests the command format of the maintenance program, and concurrent runs, with the real tools on
# loop disks.
#
#   sysutils_format_test.sh ORUIO_SYSUTILS
#
# Prints "ok NAME" or "not ok NAME" for each case; fails if any of them failed.
# shellcheck disable=SC2119 # the arguments of can_use_disks are optional
set -u

# shellcheck source=tests/support/system/loopdisks.sh
source "$(dirname "$0")/../support/system/loopdisks.sh"

# --- format -----------------------------------------------------------------------------------

# expect_formatted SIZE START CODE TYPE VERSION: formats a new disk of this size and expects this
# layout and version of the file system.
expect_formatted() {
    new_disk "$1"
    succeeds format "$disk"
    expect_layout "$2" "$3" "$4"
    expect has_tag "${disk}p1" VERSION "$5"
    succeeds fsck -t "$4" "${disk}p1"
    release_disks
}

layout_depends_on_size() {
    can_use_disks || return
    expect_formatted 16M 128 4 vfat FAT16
    expect_formatted 32M 128 6 vfat FAT16
    expect_formatted 2048M 128 6 vfat FAT16
    expect_formatted 2049M 8192 c vfat FAT32
    expect_formatted 32768M 8192 c vfat FAT32
    expect_formatted 32769M 32768 7 exfat 1.0
}

# The field sectors per cluster of a FAT boot sector.
sectors_per_cluster() {
    od -An -tu1 -j13 -N1 "$1" | tr -d ' '
}

clusters_are_of_the_standard_size() {
    can_use_disks || return
    new_disk 8G
    succeeds format "$disk"
    expect_layout 8192 c vfat
    expect [ "$(sectors_per_cluster "${disk}p1")" -eq 64 ]
    release_disks
    new_disk 8G --sector-size 4096
    succeeds format "$disk"
    expect_layout 1024 c vfat 4096
    expect [ "$(sectors_per_cluster "${disk}p1")" -eq 8 ]
    release_disks
}

old_contents_are_removed() {
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

environment_is_ignored() {
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

# The shell takes the hundredths "08" in /proc/uptime for an invalid octal number.
uptime_with_leading_zero_is_decimal() {
    can_use_disks || return
    new_disk 32M
    echo '0.08 0.00' >"$clips/uptime"
    expect mount --bind "$clips/uptime" /proc/uptime
    mounts+=(/proc/uptime)
    succeeds format "$disk"
    release_disks
}

link_with_blanks_is_formatted() {
    can_use_disks || return
    new_disk 64M
    ln -s "$disk" "$clips/a  card *"
    succeeds format -k "$clips/a  card *"
    expect_layout 128 6 vfat
    release_disks
}

failing_tool_is_reported() {
    can_use_disks || return
    new_disk 64M
    stand_in mkfs.vfat <<'SCRIPT'
echo "cause 1"
echo "cause 2" >&2
exit 7
SCRIPT
    run "$sysutils" format "$disk"
    expect_error 42 "no file system on ${disk}p1: mkfs.vfat ended with status 7" oruio_sysutils
    expect grep -qx 'cause 1' "$work/out"
    expect grep -qx 'cause 2' "$work/out"
    umount /usr/sbin
    succeeds format "$disk"
    release_disks
}

# The image of the disk is on a full file system: what is written to the disk is lost.
disk_that_cannot_be_written_is_reported() {
    can_use_disks || return
    mkdir "$clips/full"
    expect mount -t tmpfs -o size=128K full "$clips/full"
    truncate -s 64M "$clips/full/disk0.img"
    head -c 1M /dev/zero >"$clips/full/filler" 2>/dev/null
    disk=$(flock /dev/loop-control losetup --find --show "$clips/full/disk0.img")
    disks+=("$disk")
    run "$sysutils" format "$disk"
    expect_error 43 "$disk cannot be partitioned" oruio_sysutils
    release_disks
    umount "$clips/full"
}

# A loop device on a partition is no process that has it open, and no holder in sysfs.
partition_that_cannot_be_removed_is_reported() {
    local upper
    can_use_disks || return
    new_partitioned_disk 64M
    upper=$(flock /dev/loop-control losetup --find --show "$partition")
    refused 43 "cannot remove the old partitions of $disk" format "$disk"
    expect [ -b "$partition" ]
    losetup -d "$upper"
    succeeds format "$disk"
    release_disks
}

# The program does not see the old partition, which overlaps the new one.
partition_that_the_kernel_refuses_is_reported() {
    local place
    can_use_disks || return
    new_partitioned_disk 64M
    place=/sys/block/${disk#/dev/}
    mkdir -p "$clips/place/queue" "$clips/place/holders"
    for file in dev diskseq ro size queue/logical_block_size; do
        cat "$place/$file" >"$clips/place/$file"
    done
    expect mount --bind "$clips/place" "$place"
    mounts+=("$place")
    run "$sysutils" format "$disk"
    expect_error 44 "the kernel does not take the partition of $disk" oruio_sysutils
    release_disks
}

missing_tools_are_reported() {
    local tool
    can_use_disks || return
    new_ext4
    mkdir "$clips/tools"
    for tool in fsck.vfat mkfs.exfat mount.nfs sfdisk; do
        mknod "$clips/tools/$tool" c 0 0 # a removed file of the overlay (whiteout)
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

# --- format -k --------------------------------------------------------------------------------

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
    succeeds format -k "$disk" 2>/dev/null # the shell reports the killed process
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

ancestors_of_the_program_are_not_ended() {
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
    expect_alive "$other" # no process is ended if one must not be
    expect is_mounted "$clips/mount"
    release_disks
}

failed_unmount_is_reported() {
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

# --- concurrent runs --------------------------------------------------------------------------

# Starts a run of mkfs on $partition, as $first. It stops in mkfs.ext4 until continue_tool.
start_long_run() {
    stopping_tool mkfs.ext4 /usr/sbin/mke2fs -t ext4
    "$sysutils" mkfs -t ext4 "$partition" >"$work/first.out" 2>"$work/first.err" &
    first=$!
    await_tool
}

end_long_run() {
    continue_tool
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

second_run_waits_for_the_lock() {
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

# Both runs have the disk open and wait for the lock, which the test has. The one that gets it
# searches for processes that use the disk.
waiting_run_is_not_ended() {
    local second
    can_use_disks || return
    new_partitioned_disk 64M
    take_lock
    "$sysutils" format -k "$disk" >"$work/first.out" 2>"$work/first.err" &
    first=$!
    "$sysutils" format -k "$disk" >"$work/out" 2>"$work/err" &
    second=$!
    expect wait_until is_waiting_for_lock "$first"
    expect wait_until is_waiting_for_lock "$second"
    release_lock
    wait "$first"
    expect [ $? -eq 0 ]
    wait "$second"
    expect [ $? -eq 0 ]
    expect [ "$(cat "$work/first.out" "$work/out" | grep -c SIG)" -eq 0 ]
    release_disks
}

run_cases layout_depends_on_size clusters_are_of_the_standard_size old_contents_are_removed \
    environment_is_ignored uptime_with_leading_zero_is_decimal link_with_blanks_is_formatted \
    failing_tool_is_reported disk_that_cannot_be_written_is_reported \
    partition_that_cannot_be_removed_is_reported partition_that_the_kernel_refuses_is_reported \
    missing_tools_are_reported users_are_ended \
    ancestors_of_the_program_are_not_ended failed_unmount_is_reported second_run_is_refused \
    second_run_waits_for_the_lock waiting_run_is_not_ended
