#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Tests the commands fsck and mkfs of the maintenance program with the real tools on loop disks,
# and mount.nfs with a stand-in for the tool.
#
#   sysutils_filesystems_test.sh ORUIO_SYSUTILS
#
# Prints "ok NAME" or "not ok NAME" for each case; fails if any of them failed.
set -u

# shellcheck source=tests/support/system/loopdisks.sh
source "$(dirname "$0")/../support/system/loopdisks.sh"

# --- fsck -------------------------------------------------------------------------------------

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
    expect [ "$(grep -c 'Pass 1' "$work/out")" -eq 0 ] # -p was enough, -y did not run
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
    # Two clusters that belong to no file, only in the first of the two tables.
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
    zero "$partition" $((11 * 512)) 512 # the checksum of the boot region; a backup region exists
    expect [ "$(is_clean exfat "$partition" && echo clean)" = '' ]
    succeeds fsck -t exfat "$partition"
    expect is_clean exfat "$partition"
    release_disks
}

failed_check_is_reported() {
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

# --- mkfs -------------------------------------------------------------------------------------

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
    # shellcheck disable=SC2016 # must not be expanded
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
        export POSIXLY_CORRECT=1 # makes the tools stop at the first argument that is not an option
        refused 42 "no file system on $partition: mkfs.$type ended with status" \
            mkfs -t $type "$partition" "-v $other"
        refused 42 "no file system on $partition: mkfs.$type ended with status" \
            mkfs -t $type "$partition" "-- $other"
        refused 42 "no file system on $partition: mkfs.$type ended with status" \
            mkfs -t $type "$partition" "-v $other ${label[$type]}" # the device becomes the label
        unset POSIXLY_CORRECT
    done
    mkfs.ext4 -q "$partition"
    refused 41 "$partition cannot be checked" fsck -t ext4 "$partition" "-f $other"
    release_disks
}

# --- mount.nfs --------------------------------------------------------------------------------

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

run_cases sound_file_systems_pass harmless_damage_of_ext4_is_repaired damaged_ext4_is_repaired \
    damaged_vfat_is_repaired damaged_exfat_is_repaired failed_check_is_reported \
    file_systems_are_made file_systems_are_made_on_disks_without_partitions \
    options_are_split_into_words options_are_not_evaluated options_cannot_name_another_device \
    nfs_is_mounted
