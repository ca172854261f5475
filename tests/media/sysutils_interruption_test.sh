#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Tests that the maintenance program is never cut in two: signals, its own death, a reader that has
# gone; and that it reports its progress and can be cancelled before it changes anything. With the
# real tools on loop disks.
#
#   sysutils_interruption_test.sh ORUIO_SYSUTILS
#
# Prints "ok NAME" or "not ok NAME" for each case; fails if any of them failed.
# shellcheck disable=SC2119 # the arguments of can_use_disks are optional
set -u

# shellcheck source=tests/support/system/loopdisks.sh
source "$(dirname "$0")/../support/system/loopdisks.sh"

# start_program ARGUMENT...: starts the program in a process group of its own, as $program. Its lines
# of progress go to a pipe, which is large enough for them.
start_program() {
    [ -z "${reports:-}" ] || exec {reports}<&-
    rm -f "$clips/reports"
    mkfifo "$clips/reports"
    exec {reports}<>"$clips/reports"
    : >"$clips/progress"
    set -m
    ORUIO_PROGRESS_FD=8 "$sysutils" "$@" >"$work/out" 2>"$work/err" 8>&"$reports" &
    program=$!
    set +m
}

# Appends what has been reported to $clips/progress.
take_reports() {
    local line
    # Lines are written whole. A read with a time limit could lose the beginning of one.
    while read -t 0 -u "$reports"; do
        read -r -u "$reports" line
        echo "$line" >>"$clips/progress"
    done
}

has_reported() {
    take_reports
    grep -qx "$1" "$clips/progress"
}

await_report() {
    expect wait_until has_reported "$1"
}

# Sets $status to that of the program.
await_program() {
    wait "$program" 2>/dev/null
    status=$?
    take_reports
}

expect_status() {
    await_program
    expect [ "$status" -eq "$1" ]
}

is_unlocked() {
    flock -n "$disk" true
}

# A file system with so many errors that the report is larger than a pipe.
new_damaged_ext4() {
    local i image=$work/damaged.img
    if [ ! -e "$image" ]; then
        mkdir "$clips/root"
        for i in {1..1100}; do
            : >"$clips/root/a-file-without-an-inode-$i"
        done
        truncate -s 31M "$image"
        mkfs.ext4 -q -N 1200 -d "$clips/root" "$image"
        {
            for i in {20..1050}; do
                echo "clri <$i>"
            done
            echo 'set_super_value state 2'
        } | debugfs -w -f - "$image" >/dev/null 2>&1
    fi
    new_partitioned_disk 32M
    dd if="$image" of="$partition" bs=1M conv=nocreat,sparse,fsync status=none
}

# --- a reader that has gone -------------------------------------------------------------------

repair_does_not_need_a_reader() {
    can_use_disks || return
    new_damaged_ext4
    "$sysutils" fsck -t ext4 "$partition" 2>"$work/err" | true
    expect [ "${PIPESTATUS[0]}" -eq 0 ]
    expect is_clean ext4 "$partition" -f
    release_disks
}

format_does_not_need_a_reader() {
    can_use_disks || return
    new_disk 64M
    "$sysutils" format "$disk" 2>&1 | true
    expect [ "${PIPESTATUS[0]}" -eq 0 ]
    expect_layout 128 6 vfat
    "$sysutils" format "$disk" >&- 2>&- <&-
    expect [ $? -eq 0 ]
    expect_layout 128 6 vfat
    release_disks
}

report_is_complete() {
    can_use_disks || return
    new_damaged_ext4
    succeeds fsck -t ext4 "$partition" '-f -y'
    expect [ "$(wc -c <"$work/out")" -gt 65536 ]
    expect grep -q 'Pass 1' "$work/out"
    expect grep -q 'Pass 5' "$work/out"
    expect grep -q 'FILE SYSTEM WAS MODIFIED' "$work/out"
    release_disks
}

# --- memory -----------------------------------------------------------------------------------

# The stand-in writes 300 MB and then records the memory of both processes of the program.
memory_is_bounded() {
    can_use_disks || return
    if grep -q __asan_init "$sysutils"; then
        skipped="a sanitizer needs more memory"
        release_disks
        return
    fi
    new_partitioned_disk 64M
    stand_in mkfs.ext4 <<SCRIPT
head -c 300000000 /dev/zero | tr '\\0' 'o'
cat "/proc/\$PPID/status" "/proc/\$(cut -d ' ' -f 4 "/proc/\$PPID/stat")/status" >$clips/memory
exec /usr/sbin/mke2fs -q -t ext4 "\$@"
SCRIPT
    "$sysutils" mkfs -t ext4 "$partition" 2>"$work/err" | wc -c >"$work/out"
    expect [ "${PIPESTATUS[0]}" -eq 0 ]
    expect [ "$(cat "$work/out")" -ge 300000000 ]
    expect [ "$(grep -c VmHWM "$clips/memory")" -eq 2 ]
    expect [ "$(awk '/VmHWM/ { sum += $2 } END { print sum }' "$clips/memory")" -le 16384 ]
    # And without a reader.
    "$sysutils" mkfs -t ext4 "$partition" 2>"$work/err" | true
    expect [ "${PIPESTATUS[0]}" -eq 0 ]
    expect [ "$(awk '/VmHWM/ { sum += $2 } END { print sum }' "$clips/memory")" -le 16384 ]
    expect has_tag "$partition" TYPE ext4
    umount /usr/sbin
    release_disks
}

# --- signals ----------------------------------------------------------------------------------

begun_tool_survives_signals() {
    local signal
    can_use_disks || return
    new_disk 64M
    stopping_tool mkfs.vfat /sbin/mkfs.fat
    for signal in INT TERM HUP; do
        start_program format "$disk"
        await_tool
        kill -s "$signal" -- "-$program"
        continue_tool
        expect_status 0
        expect_layout 128 6 vfat
    done
    umount /usr/sbin
    release_disks
}

begun_repair_survives_an_interrupt() {
    can_use_disks || return
    new_damaged_ext4
    stopping_tool fsck.ext4 /sbin/e2fsck
    start_program fsck -t ext4 "$partition" -y
    await_tool
    kill -s INT -- "-$program"
    continue_tool
    expect_status 0
    umount /usr/sbin
    expect is_clean ext4 "$partition" -f
    release_disks
}

# The card is never left erased and without a partition.
killed_program_completes_the_format() {
    local when
    can_use_disks || return
    new_ext4 64M
    for when in committed 'phase wiping' 'phase partitioning' 'phase making the file system'; do
        mkfs.ext4 -qF "$disk"
        start_program format "$disk"
        await_report "$when"
        kill -KILL "$program" 2>/dev/null # it may have ended
        await_program
        expect wait_until is_unlocked
        expect_layout 128 6 vfat
    done
    release_disks
}

next_command_waits_for_the_rest() {
    can_use_disks || return
    new_disk 64M
    stopping_tool mkfs.vfat /sbin/mkfs.fat
    start_program format "$disk"
    await_tool
    kill -KILL "$program"
    await_program
    refused 24 "another program is working on the disk of $disk" mkfs -t ext4 "$disk"
    continue_tool
    expect wait_until is_unlocked
    umount /usr/sbin
    expect_layout 128 6 vfat
    succeeds format "$disk"
    release_disks
}

# Both processes are killed. The tool ends by itself, has the lock, and does not need a reader.
tool_survives_both_processes() {
    can_use_disks || return
    new_damaged_ext4
    stopping_tool fsck.ext4 /sbin/e2fsck
    start_program fsck -t ext4 "$partition" -y
    await_tool
    kill -KILL "$program" "$(worker_of "$program")"
    await_program
    expect [ "$(is_unlocked && echo unlocked)" = '' ]
    continue_tool
    expect wait_until is_unlocked
    umount /usr/sbin
    expect is_clean ext4 "$partition" -f
    release_disks
}

# The first process passes on what the tool writes, and dies by the same signal after it.
killed_worker_is_reported() {
    can_use_disks || return
    new_partitioned_disk 64M
    stopping_tool mkfs.ext4 /usr/sbin/mke2fs -t ext4
    start_program mkfs -t ext4 "$partition"
    await_tool
    kill -KILL "$(worker_of "$program")"
    continue_tool
    expect_status 137
    expect has_tag "$partition" TYPE ext4
    umount /usr/sbin
    release_disks
}

# --- cancelling -------------------------------------------------------------------------------

waiting_program_is_cancelled() {
    local signal arguments before
    can_use_disks || return
    new_ext4 64M
    before=$(contents)
    for signal in TERM INT HUP; do
        for arguments in "fsck -t ext4 $partition" "mkfs -t vfat $partition" "format $disk"; do
            take_lock
            # shellcheck disable=SC2086 # several words
            start_program $arguments
            expect wait_until is_waiting_for_lock "$program"
            kill -s "$signal" "$program"
            await_program
            release_lock
            expect_error 31 'cancelled before anything was changed' oruio_sysutils
            expect has_text "$clips/progress" 'phase waiting for the disk'
        done
    done
    expect [ "$(contents)" = "$before" ]
    release_disks
}

# Whose caller has gone without the work having begun.
killed_waiting_program_changes_nothing() {
    local before
    can_use_disks || return
    new_ext4 64M
    before=$(contents)
    take_lock
    start_program format "$disk"
    expect wait_until is_waiting_for_lock "$program"
    kill -KILL "$program"
    await_program
    release_lock
    expect wait_until grep -q cancelled "$work/err"
    expect wait_until is_unlocked
    expect [ "$(contents)" = "$before" ]
    release_disks
}

check_without_repair_is_cancelled() {
    can_use_disks || return
    new_ext4
    stopping_tool fsck.ext4 /sbin/e2fsck
    start_program fsck -t ext4 "$partition" '-f -n'
    await_tool
    kill -s TERM "$program"
    await_program
    expect_error 31 'cancelled before anything was changed' oruio_sysutils
    expect has_text "$clips/progress" $'phase waiting for the disk\nphase checking'
    expect is_unlocked
    umount /usr/sbin
    release_disks
}

mount_is_cancelled() {
    can_use_disks || return
    stopping_tool mount.nfs true
    start_program mount.nfs server:/export "$clips"
    await_tool
    kill -s TERM "$program"
    await_program
    expect_error 31 'cancelled before anything was changed' oruio_sysutils
    expect has_text "$clips/progress" 'phase mounting'
    umount /usr/sbin
    release_disks
}

# --- progress ---------------------------------------------------------------------------------

format_reports_its_phases() {
    can_use_disks || return
    new_disk 64M
    start_program format -k "$disk"
    expect_status 0
    expect has_text "$clips/progress" 'phase waiting for the disk
phase freeing the disk
committed
phase wiping
phase partitioning
phase making the file system'
    start_program mkfs -t vfat "${disk}p1"
    expect_status 0
    expect has_text "$clips/progress" 'phase waiting for the disk
committed
phase making the file system'
    release_disks
}

# e2fsck reports how much of a pass is done; other tools report nothing.
check_reports_its_progress() {
    can_use_disks || return
    new_filled_ext4
    change_ext4 'clri <2>' # the root directory: more than the first step repairs
    change_ext4 'set_super_value state 2'
    start_program fsck -t ext4 "$partition"
    expect_status 0
    expect [ "$(head -n 3 "$clips/progress")" = 'phase waiting for the disk
committed
phase checking' ]
    expect has_reported 'phase repairing'
    expect has_reported 'phase repairing, pass 1'
    expect has_reported 'phase repairing, pass 5'
    expect has_reported 'progress 1000'
    expect [ "$(grep -c committed "$clips/progress")" -eq 1 ]
    expect [ "$(grep -vcE '^(phase [a-z]+.*|progress ([0-9]{1,3}|1000)|committed)$' \
        "$clips/progress")" -eq 0 ]
    mkfs.exfat "$partition" >/dev/null
    start_program fsck "$partition"
    expect_status 0
    expect has_text "$clips/progress" 'phase waiting for the disk
committed
phase checking'
    release_disks
}

progress_needs_no_reader() {
    local fd
    can_use_disks || return
    new_disk 64M
    { ORUIO_PROGRESS_FD=8 "$sysutils" format "$disk" 8>&1 >"$work/out" 2>"$work/err" || echo bad; } |
        true
    expect [ "${PIPESTATUS[0]}" -eq 0 ]
    expect_layout 128 6 vfat
    # Neither a pipe nor open: a number from elsewhere is not written to.
    : >"$clips/file"
    for fd in 8 9 0 1 2 -1 x '' 99999999999999999999; do
        run env "ORUIO_PROGRESS_FD=$fd" "$sysutils" format "$disk" 8>>"$clips/file"
        expect [ "$status" -eq 0 ]
    done
    expect [ ! -s "$clips/file" ]
    release_disks
}

tools_get_nothing_of_the_caller() {
    can_use_disks || return
    new_partitioned_disk 64M
    stand_in mkfs.ext4 <<SCRIPT
tr '\\0' '\\n' <"/proc/\$\$/environ" | sort >$clips/environment
readlink "/proc/\$\$"/fd/* >$clips/descriptors
ps -o sid= -p \$\$ | tr -d ' ' >$clips/session
echo \$\$ >$clips/process
exec /usr/sbin/mke2fs -q -t ext4 "\$@"
SCRIPT
    exec 7<"$clips"
    run env ORUIO_DISKSEQ= SECRET=x 'BASH_FUNC_id%%=() { echo 1000; }' \
        "$sysutils" mkfs -t ext4 "$partition"
    exec 7<&-
    expect [ "$status" -eq 0 ]
    # PWD is the shell's own.
    expect [ "$(grep -v ^PWD= "$clips/environment")" = 'LC_ALL=C
PATH=/usr/sbin:/usr/bin:/sbin:/bin' ]
    expect has_text "$clips/session" "$(cat "$clips/process")"
    expect grep -qx /dev/null "$clips/descriptors"
    expect grep -qx "$disk" "$clips/descriptors"
    expect grep -qx "$partition" "$clips/descriptors"
    # The last two are the shell's own.
    expect [ "$(grep -cvE "^(/dev/null|pipe:.*|$disk|$partition|/usr/sbin/.*|$clips/.*)$" \
        "$clips/descriptors")" -eq 0 ]
    umount /usr/sbin
    release_disks
}

run_cases repair_does_not_need_a_reader format_does_not_need_a_reader report_is_complete \
    memory_is_bounded begun_tool_survives_signals begun_repair_survives_an_interrupt \
    killed_program_completes_the_format next_command_waits_for_the_rest \
    tool_survives_both_processes killed_worker_is_reported waiting_program_is_cancelled \
    killed_waiting_program_changes_nothing check_without_repair_is_cancelled mount_is_cancelled \
    format_reports_its_phases check_reports_its_progress progress_needs_no_reader \
    tools_get_nothing_of_the_caller
