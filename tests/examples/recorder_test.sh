#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Runs the example recorder as a user does, and checks its output, its exit status and the clips.
#
#   recorder_test.sh RECORDER...     the program, after the command that starts it, if any
#
# Prints "ok NAME" or "not ok NAME" for each case; fails if any of them did.
set -u

if [ $# -eq 0 ]; then
    echo "usage: $0 RECORDER..." >&2
    exit 2
fi

# An absolute path: one case runs the program in another directory.
recorder=("${@:1:$#-1}" "$(realpath "${!#}")")
man_page=$(dirname "$0")/../../debian/oruio-recorder.1
# shellcheck source=tests/support/suite/cases.sh
source "$(dirname "$0")/../support/suite/cases.sh"

# Runs the recorder with the arguments from $2 on, in a private mount namespace with a tmpfs at
# $clips. $1 are the mount options. Stores the names of the files in $work/left.
# Returns 1 when the system does not permit mounting.
run_on_tmpfs() {
    local options=$1 namespace=-m
    shift
    [ "$(id -u)" -eq 0 ] || namespace=-rm
    unshare $namespace --propagation slave mount -t tmpfs none "$clips" 2>/dev/null || return 1
    # shellcheck disable=SC2016  # the inner shell expands these
    run unshare $namespace --propagation slave sh -c '
        mount -t tmpfs -o "$1" none "$2" || exit 99
        directory=$2 left=$3
        shift 3
        "$@"
        status=$?
        ls -A "$directory" >"$left"
        exit $status
    ' sh "$options" "$clips" "$work/left" "${recorder[@]}" --to "$clips" "$@"
}

# --- the cases --------------------------------------------------------------------------------

help_is_printed() {
    run "${recorder[@]}" --help
    expect [ "$status" -eq 0 ]
    expect [ ! -s "$work/err" ]
    for option in --to --locations --check --report-syncs --keep --name --rate --seconds --size; do
        expect grep -q -- "$option" "$work/out"
    done
}

man_page_explains_every_option() {
    local option options tags
    run "${recorder[@]}" --help
    mapfile -t options < <(sed -nE 's/^ +(-[a-z], )?(--[a-z-]+).*/\2/p' "$work/out")
    expect [ "${#options[@]}" -ge 10 ]
    # The tags in the margin: the lines after each .TP.
    tags=$(sed 's/\\-/-/g' "$man_page" | awk 'is_tag { print } { is_tag = $0 == ".TP" }')
    for option in "${options[@]}"; do
        expect grep -qwe "$option" <<<"$tags"
    done
}

ordinary_run_leaves_a_verified_clip() {
    run "${recorder[@]}" --to "$clips" --size 3M
    expect_success
    expect contains_only "$clips" clip-0001.oru
    expect has_size "$clips/clip-0001.oru" 3145728
    expect has_row clip "$clips/clip-0001\.oru"
    expect has_row size '3145728 bytes .*'
    expect has_row frames 3
    expect has_row write 'p50 [0-9.]+ ms, p99 [0-9.]+ ms, max [0-9.]+ ms'
}

size_need_not_be_whole_frames() {
    run "${recorder[@]}" --to "$clips" --size 1500001
    expect_success
    expect has_size "$clips/clip-0001.oru" 1500001
    expect has_row frames 2
}

clips_are_numbered() {
    run "${recorder[@]}" --to "$clips" --size 1K
    expect_success
    touch "$clips/clip-0007.oru.part"
    run "${recorder[@]}" --to "$clips" --size 1K
    expect_success
    expect contains_only "$clips" clip-0001.oru clip-0007.oru.part clip-0008.oru
}

temporary_directory_is_removed() {
    run "${recorder[@]}" --size 1M
    expect_success
    expect is_empty "$TMPDIR"
}

temporary_directory_is_kept_on_request() {
    run "${recorder[@]}" --size 1M --keep --name kept.oru
    expect_success
    expect has_size "$TMPDIR"/recorder-*/kept.oru 1048576
}

time_and_rate_are_used() {
    run "${recorder[@]}" --to "$clips" --seconds 1 --rate 80
    expect_success
    # 25 frames of 400000 bytes. Busy storage may drop some, and delay the end.
    local frames seconds
    frames=$(awk '$1 == "frames" { print $2 + 0 }' "$work/out")
    seconds=$(awk '$1 == "duration" { print $2 }' "$work/out")
    expect [ "$frames" -ge 20 ]
    expect [ "$frames" -le 25 ]
    expect has_size "$clips/clip-0001.oru" $((frames * 400000))
    expect awk "BEGIN { exit !($seconds >= 0.95 && $seconds < 3) }"
}

syncs_are_reported() {
    local bytes checksum last=0
    run "${recorder[@]}" --to "$clips" --seconds 1.5 --rate 20 --report-syncs
    expect_success
    expect [ "$(grep -c '^synced ' "$work/out")" -eq 2 ] # after a second, and at the end
    while read -r _ bytes checksum; do
        expect [ "$bytes" -gt 0 ]
        expect [ "$(head -c "$bytes" "$clips/clip-0001.oru" | xxhsum -H3 2>/dev/null)" = "XXH3 (stdin) = $checksum" ]
        last=$bytes
    done < <(grep '^synced ' "$work/out")
    expect has_size "$clips/clip-0001.oru" "$last"
}

signal_leaves_a_verified_clip() {
    local signal recording
    for signal in INT TERM; do
        "${recorder[@]}" --to "$clips" --name $signal.oru --seconds 60 --rate 20 \
            >"$work/out" 2>"$work/err" &
        recording=$!
        expect wait_for_bytes "$clips/$signal.oru.part" 300000
        kill -$signal $recording
        wait $recording
        status=$?
        expect_success
        expect grep -q '^Stopped early' "$work/out"
        expect test "$(stat -c %s "$clips/$signal.oru")" -ge 300000
    done
    expect contains_only "$clips" INT.oru TERM.oru
}

changed_clip_is_not_verified() {
    local recording
    "${recorder[@]}" --to "$clips" --name c --seconds 1.5 --rate 20 >"$work/out" 2>"$work/err" &
    recording=$!
    expect wait_for_bytes "$clips/c.part" 200000
    printf 'not what was written' | dd of="$clips/c.part" seek=50000 bs=1 conv=notrunc 2>/dev/null
    wait $recording
    status=$?
    expect_error 1 "$clips/c reads differently"
    expect has_row verified no
}

full_disk_is_reported() {
    if ! run_on_tmpfs size=4m --size 16M; then
        skipped="needs permission to mount a small file system"
        return
    fi
    expect_error 1 "cannot write $clips/clip-0001\.oru\.part: No space left on device"
    expect [ ! -s "$work/left" ]
}

read_only_destination_is_reported() {
    if run_on_tmpfs ro --size 1M; then
        expect_error 1 "cannot create $clips/clip-0001\.oru\.part: Read-only file system"
    elif [ "$(id -u)" -ne 0 ]; then
        chmod a-w "$clips"
        run "${recorder[@]}" --to "$clips" --size 1M
        expect_error 1 "cannot create $clips/clip-0001\.oru\.part: Permission denied"
    else
        skipped="needs permission to mount a read-only file system"
    fi
}

missing_directory_is_reported() {
    run "${recorder[@]}" --to "$clips/missing" --size 1M
    expect_error 1 "cannot use $clips/missing: No such file or directory"
    expect is_empty "$clips"
}

file_as_directory_is_reported() {
    touch "$clips/file"
    run "${recorder[@]}" --to "$clips/file" --size 1M
    expect_error 1 "cannot use $clips/file: Not a directory"
}

directories_named_like_schemes_need_a_path() {
    local name
    for name in ipc smb: location:; do
        mkdir "$clips/$name"
        run env -C "$clips" "${recorder[@]}" --to "./$name" --size 1K
        expect_success
        expect contains_only "$clips/$name" clip-0001.oru
    done
}

existing_clip_is_refused() {
    echo precious >"$clips/clip.oru"
    run "${recorder[@]}" --to "$clips" --name clip.oru --size 1M
    expect_error 1 "cannot record $clips/clip\.oru: File exists"
    expect contains_only "$clips" clip.oru
    expect has_text "$clips/clip.oru" precious
}

clip_of_another_recorder_is_refused() {
    echo precious >"$clips/clip.oru.part"
    run "${recorder[@]}" --to "$clips" --name clip.oru --size 1M
    expect_error 1 "cannot record $clips/clip\.oru: File exists"
    expect contains_only "$clips" clip.oru.part
    expect has_text "$clips/clip.oru.part" precious
}

file_created_during_recording_is_kept() {
    local recording
    "${recorder[@]}" --to "$clips" --name c --seconds 1 --rate 20 >"$work/out" 2>"$work/err" &
    recording=$!
    expect wait_for_bytes "$clips/c.part" 1
    echo precious >"$clips/c"
    wait $recording
    status=$?
    expect_error 1 "cannot finish $clips/c: File exists"
    expect contains_only "$clips" c
    expect has_text "$clips/c" precious
}

bad_arguments_are_refused() {
    local arguments
    for arguments in --nonsense stray '--size 5X' '--size 0' '--size -1' '--size' \
        '--size 9999999999G' '--seconds soon' '--seconds 0' '--rate fast' '--rate 0' '--rate nan' \
        '--name a/b' '--name ..'; do
        # shellcheck disable=SC2086  # several words each
        run "${recorder[@]}" --to "$clips" $arguments
        expect_error 2 '\(--help explains\)$'
        expect [ ! -s "$work/out" ]
        expect is_empty "$clips"
    done
    run "${recorder[@]}" --to ''
    expect_error 2 "--to must be a directory, ipc, smb://\.\.\. or location:\.\.\., not ''"
}

run_cases help_is_printed man_page_explains_every_option ordinary_run_leaves_a_verified_clip \
    size_need_not_be_whole_frames \
    clips_are_numbered temporary_directory_is_removed temporary_directory_is_kept_on_request \
    time_and_rate_are_used syncs_are_reported signal_leaves_a_verified_clip \
    changed_clip_is_not_verified \
    full_disk_is_reported read_only_destination_is_reported missing_directory_is_reported \
    file_as_directory_is_reported directories_named_like_schemes_need_a_path \
    existing_clip_is_refused clip_of_another_recorder_is_refused \
    file_created_during_recording_is_kept bad_arguments_are_refused
