#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Runs the example programs "locations" and "recorder" with loop disks as cards and a real SMB
# server, and checks their output.
#
#   locations_test.sh LOCATIONS RECORDER ORUIO_SYSUTILS
#
# Prints "ok NAME" or "not ok NAME" for each case; fails if any of them failed. Exits with 77
# (skipped) if loop disks cannot be attached.
set -u

if [ $# -ne 3 ]; then
    echo "usage: $0 LOCATIONS RECORDER ORUIO_SYSUTILS" >&2
    exit 2
fi

locations=$1
recorder=$2
sysutils=$3
here=$(dirname "$0")
# shellcheck source=tools/card-slot.sh
source "$here/../../tools/card-slot.sh"
if [ -z "${in_own_namespaces:-}" ]; then
    missing=$(missing_for_slots)
    if [ -n "$missing" ]; then
        echo "SKIP: cannot simulate card slots: $missing"
        exit 77
    fi
    in_own_namespaces=yes exec unshare --mount --net "$0" "$@"
fi
export ORUIO_SMB_PASSWORD=secret
# shellcheck source=tests/support/suite/cases.sh
source "$here/../support/suite/cases.sh"
trap 'close_slots; rm -rf "$work"' EXIT

ip link set lo up
open_slots "$sysutils" || {
    echo "no udevd: $(cat /run/udev/log)"
    exit 1
}

# --- functions --------------------------------------------------------------------------------

has_ended() {
    ! kill -0 "$1" 2>/dev/null
}

has_line() {
    grep -qxE -- "$1" "$work/out"
}

# Whether something is mounted on the directory.
is_mounted() {
    mountpoint -q "$1"
}

is_unmounted() {
    ! mountpoint -q "$1"
}

# Writes places.ini with the slots "card" and "stick".
write_slots() {
    cat >"$work/places.ini" <<PLACES
[card]
device = slot-card
directory = $clips/card

[stick]
device = slot-stick
directory = $clips/stick
PLACES
}

# Adds the share "archive" of the server at port $1 to places.ini.
add_share() {
    cat >>"$work/places.ini" <<PLACES

[archive]
share = smb://tester@127.0.0.1:$1/recordings
directory = $clips/archive
PLACES
}

start_server() {
    : >"$work/server.out"
    "$here/../../tools/smb-server.sh" "$clips/server" >"$work/server.out" 2>&1 &
    server=$!
    expect wait_until grep -q '^[0-9]' "$work/server.out"
    read -r port smbd <"$work/server.out"
}

stop_server() {
    kill -TERM "$server"
    wait "$server"
}

# Starts the program "locations" as $program.
start_locations() {
    "$locations" "$work/places.ini" >"$work/out" 2>"$work/err" &
    program=$!
}

# Ends $program with the signal $1; stores its exit status in $status. The shell starts background
# commands with SIGINT ignored, but the program installs its own handler.
end_with() {
    kill -"$1" "$program"
    expect wait_until has_ended "$program"
    has_ended "$program" || kill -KILL "$program"
    wait "$program"
    status=$?
}

# Whether the card, which must not be mounted, has a file $1 of $2 bytes.
holds() {
    local size
    mkdir -p "$work/look"
    mount -o ro "/dev/${card}p1" "$work/look" || return
    size=$(stat -c %s "$work/look/$1")
    umount "$work/look"
    [ "$size" = "$2" ]
}

# The states that the program printed for the location $1, on one line.
states_of() {
    sed -n "s/^$1: \(None\|Presence\|Read\|Write\)\$/\1/p" "$work/out" | paste -sd ' '
}

# Whether these were its states. A medium that arrives in one batch is mounted before "Presence" is
# reported.
went_through() {
    [[ "Presence $(states_of "$1")" =~ ^(Presence )?$2$ ]]
}

expect_orderly_end() {
    expect [ "$status" -eq 0 ]
    expect [ ! -s "$work/err" ]
}

# --- locations --------------------------------------------------------------------------------

help_is_printed() {
    run "$locations" --help
    expect [ "$status" -eq 0 ]
    expect grep -q FILE "$work/out"
}

bad_arguments_are_refused() {
    run "$locations"
    expect_error 2 'must be one file' locations
    run "$locations" a b
    expect_error 2 'must be one file' locations
    run "$locations" --no-such-option a
    expect_error 2 no-such-option locations
}

# Each line of input: contents of the file, expected error message.
bad_files_are_refused() {
    run "$locations" "$clips/none.ini"
    expect_error 1 "no file of locations $clips/none.ini" locations
    while IFS='|' read -r contents message; do
        # shellcheck disable=SC2059 # expands \n
        printf "$contents" >"$clips/places.ini"
        run "$locations" "$clips/places.ini"
        expect_error 1 "$message" locations
    done <<'FILES'
[card]\ndevice=a\n|\[card\]: directory must be an absolute path
[card]\ndevice=a\ndirectory=card\n|directory must be an absolute path
[card]\ndirectory=/card\n|one of device, share and export
[nas]\ndirectory=/nas\nshare=nas/share\n|share must be smb://
[nas]\ndirectory=/nas\nshare=smb://a@nas/share/directory\n|a whole share
[nas]\ndirectory=/nas\nshare=smb://a:b@nas/share\n|must not have a password
[card\n|not such a file
FILES
}

card_is_mounted_recorded_on_and_unmounted() {
    local signal
    write_slots
    make_card "$clips/card.img" 64M
    for signal in INT TERM; do
        start_locations
        insert_card "$clips/card.img" slot-card
        expect wait_until has_line "card: recorded 1048576 bytes in $clips/card/locations-clip.oru"
        expect is_mounted "$clips/card"
        expect has_size "$clips/card/locations-clip.oru" 1048576
        end_with "$signal"
        expect_orderly_end
        expect went_through card "Presence Write Presence"
        expect went_through stick ""
        expect is_unmounted "$clips/card"
        expect holds locations-clip.oru 1048576
        eject_card "$card"
    done
}

two_slots_and_a_share_are_mounted() {
    local inserted
    write_slots
    start_server
    add_share "$port"
    make_card "$clips/card.img" 64M
    make_card "$clips/stick.img" 64M
    insert_card "$clips/card.img" slot-card # present when the program starts
    start_locations
    expect wait_until has_line "card: recorded .*"
    expect wait_until has_line "archive: recorded .*"
    insert_card "$clips/stick.img" slot-stick
    expect wait_until has_line "stick: recorded .*"
    expect has_size "$clips/server/recordings/locations-clip.oru" 1048576
    end_with INT
    expect_orderly_end
    expect went_through card "Presence Write Presence"
    expect went_through stick "Presence Write Presence"
    expect went_through archive "Write None"
    expect is_unmounted "$clips/card"
    expect is_unmounted "$clips/stick"
    for inserted in "${!slot_cards[@]}"; do
        eject_card "$inserted"
    done
    stop_server
}

removed_card_is_unmounted() {
    local pulled
    write_slots
    make_card "$clips/card.img" 64M
    start_locations
    insert_card "$clips/card.img" slot-card
    pulled=$card
    expect wait_until has_line "card: recorded .*"
    # A mounted disk cannot be detached, so the uevents of the removal are sent first.
    echo remove >"/sys/block/$card/${card}p1/uevent"
    echo remove >"/sys/block/$card/uevent"
    expect wait_until is_unmounted "$clips/card"
    expect wait_until went_through card "Presence Write None"
    eject_card "$pulled"
    # The next one works.
    make_card "$clips/next.img" 64M
    insert_card "$clips/next.img" slot-card
    expect wait_until went_through card "Presence Write None( Presence)? Write"
    end_with INT
    expect_orderly_end
    expect holds locations-clip.oru 1048576
    eject_card "$card"
}

failed_mount_is_reported() {
    write_slots
    make_card "$clips/card.img" 64M
    # Erases the file system.
    truncate -s 1M "$clips/card.img"
    truncate -s 64M "$clips/card.img"
    start_locations
    insert_card "$clips/card.img" slot-card
    expect wait_until has_line "card: there is no file system on it"
    end_with INT
    expect [ "$status" -eq 0 ]
    expect went_through card "Presence"
    eject_card "$card"
}

share_that_comes_later_is_mounted() {
    write_slots
    start_server
    add_share "$port"
    kill -STOP -- "-$smbd"
    start_locations
    expect wait_until has_line 'archive: Connection timed out'
    kill -CONT -- "-$smbd"
    expect wait_until went_through archive "Write"
    end_with TERM
    expect_orderly_end
    stop_server
}

share_whose_server_is_killed_is_mounted_again() {
    write_slots
    start_server
    add_share "$port"
    start_locations
    expect wait_until has_line "archive: recorded .*"
    kill -KILL -- "-$smbd"
    wait "$server"
    expect wait_until has_line 'archive: Connection refused'
    expect has_line "archive: the connection is lost"
    rm "$clips/server/recordings/locations-clip.oru"
    ORUIO_SMB_PORT=$port start_server
    expect wait_until went_through archive "Write None Write"
    expect wait_until has_size "$clips/server/recordings/locations-clip.oru" 1048576
    end_with TERM
    expect_orderly_end
    stop_server
}

# --- the recorder -----------------------------------------------------------------------------

recorder_awaits_records_and_checks() {
    write_slots
    make_card "$clips/card.img" 64M
    "$recorder" --to location:card --locations "$work/places.ini" --check --size 8M --name a.oru \
        >"$work/out" 2>"$work/err" &
    program=$!
    expect wait_until has_text "$work/err" "recorder: waiting for a medium"
    insert_card "$clips/card.img" slot-card
    wait "$program"
    status=$?
    expect [ "$status" -eq 0 ]
    expect has_row mounted "card, on $clips/card"
    expect has_row verified yes
    expect has_row unmounted card
    expect has_row checked "the file system is sound"
    expect is_unmounted "$clips/card"
    expect holds a.oru 8388608

    # The card is already inserted. The recorder ignores the share in the file: without a password
    # the share could not be used.
    add_share 1
    run env -u ORUIO_SMB_PASSWORD "$recorder" --to location:card \
        --locations "$work/places.ini" --size 1M --name b.oru
    expect_success
    expect holds b.oru 1048576
    eject_card "$card"
}

recorder_stops_early_and_unmounts() {
    write_slots
    make_card "$clips/card.img" 1G
    insert_card "$clips/card.img" slot-card
    udevadm settle --timeout=30
    "$recorder" --to location:card --locations "$work/places.ini" --rate 80 --seconds 60 \
        --name a.oru >"$work/out" 2>"$work/err" &
    program=$!
    expect wait_for_bytes "$clips/card/a.oru.part" 2000000
    end_with INT
    expect_orderly_end
    expect has_row verified yes
    expect has_row unmounted card
    expect is_unmounted "$clips/card"
    eject_card "$card"
}

recorder_that_fails_unmounts() {
    write_slots
    make_card "$clips/card.img" 16M
    insert_card "$clips/card.img" slot-card
    udevadm settle --timeout=30
    run "$recorder" --to location:card --locations "$work/places.ini" --size 64M
    expect_error 1 "No space left on device"
    expect is_unmounted "$clips/card"
    eject_card "$card"
}

recorder_repairs_damaged_card() {
    write_slots
    make_card "$clips/card.img" 64M
    insert_card "$clips/card.img" slot-card
    udevadm settle --timeout=30
    # Marks blocks in use as free.
    expect debugfs -w -R "freeb 1000 200" "/dev/${card}p1" >/dev/null 2>&1
    run "$recorder" --to location:card --locations "$work/places.ini" --size 1M --check
    expect_success
    expect has_row checked "the file system is sound"
    expect e2fsck -fn "/dev/${card}p1" >/dev/null 2>&1
    eject_card "$card"
}

recorder_reports_a_failed_check() {
    write_slots
    make_card "$clips/card.img" 64M
    insert_card "$clips/card.img" slot-card
    udevadm settle --timeout=30
    mv /usr/local/bin/oruio_sysutils /usr/local/bin/the_real_one
    printf '#!/bin/sh\nexit 41\n' >/usr/local/bin/oruio_sysutils
    chmod +x /usr/local/bin/oruio_sysutils
    run "$recorder" --to location:card --locations "$work/places.ini" --size 1M --check
    mv /usr/local/bin/the_real_one /usr/local/bin/oruio_sysutils
    expect [ "$status" -eq 1 ]
    expect has_row verified yes
    expect grep -qxF "recorder: the check of the medium has failed (41)" "$work/err"
    eject_card "$card"
}

recorder_records_on_a_share() {
    start_server
    : >"$work/places.ini"
    add_share "$port"
    run "$recorder" --to location:archive --locations "$work/places.ini" --check --size 4M \
        --name a.oru
    expect_success
    expect has_row mounted "archive, on $clips/archive"
    expect has_row unmounted archive
    expect has_size "$clips/server/recordings/a.oru" 4194304
    stop_server
    run "$recorder" --to location:archive --locations "$work/places.ini" --size 4M
    expect_error 1 "cannot mount the medium of archive: Connection refused"
}

recorder_without_a_medium_ends() {
    write_slots
    "$recorder" --to location:card --locations "$work/places.ini" >"$work/out" 2>"$work/err" &
    program=$!
    expect wait_until has_text "$work/err" "recorder: waiting for a medium"
    end_with TERM
    expect [ "$status" -eq 1 ]
    expect grep -qx "recorder: there is no medium in card" "$work/err"

    run "$recorder" --to location:cord --locations "$work/places.ini"
    expect_error 1 "there is no location 'cord' in $work/places.ini"
    run "$recorder" --to location:card --locations "$clips/none"
    expect_error 1 "there is no file of locations $clips/none"
}

run_cases help_is_printed bad_arguments_are_refused bad_files_are_refused \
    card_is_mounted_recorded_on_and_unmounted two_slots_and_a_share_are_mounted \
    removed_card_is_unmounted failed_mount_is_reported share_that_comes_later_is_mounted \
    share_whose_server_is_killed_is_mounted_again \
    recorder_awaits_records_and_checks recorder_stops_early_and_unmounts \
    recorder_that_fails_unmounts recorder_repairs_damaged_card recorder_reports_a_failed_check \
    recorder_records_on_a_share recorder_without_a_medium_ends
