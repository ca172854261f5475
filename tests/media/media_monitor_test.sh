#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Runs the example media monitor with umockdev's devices and checks its output.
#
#   media_monitor_test.sh MEDIA_MONITOR
#
# Prints "ok NAME" or "not ok NAME" for each case; fails if any of them failed. Exits with 77
# (skipped) if umockdev-run is not installed.
set -u

if [ $# -ne 1 ]; then
    echo "usage: $0 MEDIA_MONITOR" >&2
    exit 2
fi

media_monitor=$1

if ! command -v umockdev-run >/dev/null; then
    echo "SKIP: umockdev-run is not installed"
    exit 77
fi

# shellcheck source=tests/support/suite/cases.sh
source "$(dirname "$0")/../support/suite/cases.sh"

# Prints a USB disk with one partition, and a RAM disk.
describe_devices() {
    cat <<'DEVICES'
P: /devices/pci0000:00/usb1/block/sdx
N: sdx
E: DEVNAME=/dev/sdx
E: DEVTYPE=disk
E: SUBSYSTEM=block
E: ID_PATH=pci-usb-1
E: ID_PART_TABLE_TYPE=dos

P: /devices/pci0000:00/usb1/block/sdx/sdx1
N: sdx1
E: DEVNAME=/dev/sdx1
E: DEVTYPE=partition
E: SUBSYSTEM=block
E: PARTN=1
E: ID_PATH=pci-usb-1
E: ID_FS_TYPE=vfat
E: ID_FS_LABEL=FILM
E: ID_PART_ENTRY_SIZE=15523840
E: ID_PART_ENTRY_OFFSET=8192

P: /devices/virtual/block/ram0
N: ram0
E: DEVNAME=/dev/ram0
E: DEVTYPE=disk
E: SUBSYSTEM=block
DEVICES
}

has_lines() {
    [ "$(wc -l <"$work/out")" -ge "$1" ]
}

devices_are_printed_until_a_signal() {
    local signal monitor
    describe_devices >"$work/devices"
    for signal in INT TERM; do
        : >"$work/out"
        # The shell starts background commands with SIGINT ignored: env restores the default.
        # shellcheck disable=SC2016 # for the inner shell
        umockdev-run -d "$work/devices" -- \
            env --default-signal="$signal" sh -c 'echo $$ >"$1"; exec "$2" --quiet 0' sh \
            "$work/pid" "$media_monitor" >"$work/out" 2>"$work/err" &
        monitor=$!
        expect wait_until has_lines 3
        kill -"$signal" "$(cat "$work/pid")"
        wait "$monitor"
        status=$?
        expect [ "$status" -eq 0 ]
        expect has_text "$work/out" "2 events of 1 disks
   1 add     /dev/sdx        dos disk, 0 bytes (pci-usb-1)
   2 add     /dev/sdx1       partition 1, vfat \"FILM\", 7.9 GB (pci-usb-1)"
        expect [ ! -s "$work/err" ]
    done
}

help_is_printed() {
    run "$media_monitor" --help
    expect [ "$status" -eq 0 ]
    expect grep -q -- --quiet "$work/out"
}

bad_arguments_are_refused() {
    run "$media_monitor" --no-such-option
    expect_error 2 no-such-option media_monitor
    run "$media_monitor" --quiet soon
    expect_error 2 'not a number of milliseconds: soon' media_monitor
    run "$media_monitor" --quiet -1
    expect_error 2 milliseconds media_monitor
    run "$media_monitor" /dev/sda
    expect_error 2 /dev/sda media_monitor
}

run_cases help_is_printed bad_arguments_are_refused devices_are_printed_until_a_signal
