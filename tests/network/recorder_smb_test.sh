#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Runs the example recorder with a real SMB server, as a user does, and checks its output, its exit
# status and the clips.
#
#   recorder_smb_test.sh RECORDER
#
# Prints "ok NAME" or "not ok NAME" for each case; fails if any of them did. Exits with 77 where
# the server cannot run.
set -u

if [ $# -ne 1 ]; then
    echo "usage: $0 RECORDER" >&2
    exit 2
fi

recorder=$1
smb_server=$(dirname "$0")/../../tools/smb-server.sh
# With special characters of shells, URLs and smb.conf.
# shellcheck disable=SC2016 # nothing in it is to be expanded
password='g%41 "h;e$1m@ü'
export ORUIO_SMB_PASSWORD=$password
# shellcheck source=tests/support/suite/cases.sh
source "$(dirname "$0")/../support/suite/cases.sh"

# --- helpers ----------------------------------------------------------------------------------

# Starts a server and waits until it serves. Its files are below $clips, its process is $server, its
# process group is $smbd. The arguments are further lines of its configuration.
start_server() {
    : >"$work/server.out"
    "$smb_server" "$clips" "$@" >"$work/server.out" 2>"$work/server.err" &
    server=$!
    expect wait_until has_begun_or_ended
    read -r port smbd <"$work/server.out"
    host=smb://tester@127.0.0.1:$port
    share=$host/recordings
}

has_begun_or_ended() {
    [ -s "$work/server.out" ] || has_ended "$server"
}

has_ended() {
    ! kill -0 "$1" 2>/dev/null
}

stop_server() {
    kill -TERM "$server" 2>/dev/null
    wait "$server"
}

# Whether no process of the server is left, apart from zombies.
is_gone() {
    ! pgrep --pgroup "$smbd" --runstates D,R,S,T >/dev/null
}

# Starts to record the clip $1, as the process $recording, and waits for its first bytes.
start_recording() {
    "$recorder" --to "$share" --name "$1" --seconds 30 --rate 200 >"$work/out" 2>"$work/err" &
    recording=$!
    expect wait_for_bytes "$clips/recordings/$1.part" 3000000
}

# Waits for the end of the recording, and stores its exit status in $status.
end_recording() {
    expect wait_until has_ended "$recording"
    has_ended "$recording" || kill -KILL "$recording"
    wait "$recording"
    status=$?
}

expect_recording_works() {
    run "$recorder" --to "$share" --name "$1" --size 1M
    expect_success
    expect has_size "$clips/recordings/$1" 1048576
}

# Whether none of these files contains the password or a part of it.
is_kept_secret_in() {
    ! grep -qF -e "$password" -e 'h;e' "$@"
}

# Runs the recorder in a new terminal, and types $1 at the password prompt. $work/out then has the
# output of the terminal, followed by the exit status of the recorder and the terminal settings.
run_in_terminal() {
    local keyboard terminal
    rm -f "$work/screen" "$work/keyboard"
    mkfifo "$work/keyboard"
    # shellcheck disable=SC2016 # the terminal's shell expands these
    env -u ORUIO_SMB_PASSWORD recorder="$recorder" share="$share" script -q -f -c '
        trap : INT
        "$recorder" --to "$share" --size 1M
        echo "status $?"
        stty
    ' "$work/screen" <"$work/keyboard" >"$work/out" 2>"$work/err" &
    terminal=$!
    exec {keyboard}>"$work/keyboard"
    expect wait_until grep -qs 'Password of tester on 127.0.0.1:' "$work/screen"
    (printf '%b' "$1" >&"$keyboard") # a subshell: SIGPIPE may kill it
    expect wait_until has_ended "$terminal"
    exec {keyboard}>&-
    tr -d '\r' <"$work/screen" >"$work/out"
}

# The terminal echoes input again.
expect_echo() {
    expect grep -q '^speed' "$work/out"
    expect [ "$(grep -cw -e -echo "$work/out")" -eq 0 ]
}

# --- the cases --------------------------------------------------------------------------------

clip_is_recorded_onto_the_share() {
    start_server
    run "$recorder" --to "$share" --size 5M
    expect_success
    expect has_row clip "$share/clip-0001\.oru"
    expect contains_only "$clips/recordings" clip-0001.oru
    expect has_size "$clips/recordings/clip-0001.oru" 5242880
    run "$recorder" --to "$share/" --size 1500001
    expect_success
    expect has_row clip "$share/clip-0002\.oru"
    expect has_size "$clips/recordings/clip-0002.oru" 1500001
    stop_server
}

changed_clip_is_not_verified() {
    local part
    start_server
    start_recording clip
    part=$clips/recordings/clip.part
    printf 'not what was written' | dd of="$part" seek=50000 bs=1 conv=notrunc 2>/dev/null
    expect kill -INT "$recording"
    end_recording
    expect_error 1 "$share/clip reads differently"
    expect has_row verified no
    stop_server
}

missing_directories_are_made() {
    start_server
    run "$recorder" --to "$share/day%201/Gr%C3%B6ße//take#1/" --size 1M
    expect_success
    expect has_size "$clips/recordings/day 1/Größe/take#1/clip-0001.oru" 1048576
    run "$recorder" --to "$share/day%201/Gr%C3%B6ße/take%231" --size 1M
    expect_success
    expect contains_only "$clips/recordings/day 1/Größe/take#1" clip-0001.oru clip-0002.oru
    stop_server
}

every_part_of_the_url_is_decoded() {
    start_server
    run "$recorder" --to "SMB://RECORD%49NGS;t%65ster@127%2E0.0.1:$port/record%69ngs" --size 1K
    expect_success
    expect contains_only "$clips/recordings" clip-0001.oru
    stop_server
}

ipv6_address_is_accepted() {
    if ! grep -q ' lo$' /proc/net/if_inet6 2>/dev/null; then
        skipped="the loopback interface has no IPv6 address"
        return
    fi
    start_server 'interfaces = ::1'
    run "$recorder" --to "smb://tester@[::1]:$port/recordings" --size 1K
    expect_success
    expect contains_only "$clips/recordings" clip-0001.oru
    stop_server
}

url_without_user_is_anonymous() {
    mkdir -m 0777 "$clips/open" # for the anonymous user, who is not the owner
    start_server '[open]' "path = $clips/open" 'guest ok = yes' 'read only = no'
    run setsid -w env -u ORUIO_SMB_PASSWORD "$recorder" --to "smb://127.0.0.1:$port/open" --size 1K
    expect_success
    expect has_size "$clips/open/clip-0001.oru" 1024
    run "$recorder" --to "smb://127.0.0.1:$port/recordings" --size 1K
    expect_error 1 "cannot connect to smb://127.0.0.1:$port/recordings: the user has no access \(.*ACCESS_DENIED"
    stop_server
}

password_is_prompted_for() {
    start_server
    run_in_terminal "x\177$password\n"
    expect has_row verified yes
    expect grep -qx 'status 0' "$work/out"
    expect_echo
    expect is_kept_secret_in "$work/out"
    expect has_size "$clips/recordings/clip-0001.oru" 1048576
    stop_server
}

password_prompt_can_be_interrupted() {
    start_server
    run_in_terminal 'h;e\003'
    expect grep -qx 'recorder: interrupted' "$work/out"
    expect grep -qx 'status 1' "$work/out"
    expect_echo
    expect is_kept_secret_in "$work/out"
    run_in_terminal '\004'
    expect grep -qx "recorder: the password of tester on 127.0.0.1:$port is empty" "$work/out"
    expect_echo
    expect is_empty "$clips/recordings"
    stop_server
}

missing_password_is_reported() {
    start_server
    run setsid -w env -u ORUIO_SMB_PASSWORD "$recorder" --to "$share" --size 1M
    expect_error 1 "no terminal to ask .* tester on 127.0.0.1:$port .*ORUIO_SMB_PASSWORD is not set"
    run env ORUIO_SMB_PASSWORD= "$recorder" --to "$share" --size 1M
    expect_error 1 "the password of tester on 127.0.0.1:$port is empty"
    expect is_empty "$clips/recordings"
    stop_server
}

wrong_password_is_reported() {
    start_server
    run env ORUIO_SMB_PASSWORD='another;one' "$recorder" --to "$share" --size 1M
    expect_error 1 "cannot connect to $share: .*refuses the user or the password \(.*LOGON_FAILURE\)"
    expect [ "$(cat "$work/out" "$work/err" | grep -c 'another;one')" -eq 0 ]
    expect is_empty "$clips/recordings"
    stop_server
}

password_in_the_url_is_refused() {
    local url
    for url in smb://u:h%3Be@h/s smb://u:h@x/h%3Be@h/s smb://u:1/h%3Be@h/s smb:u:h%3Be@h/s \
        "SMB://D;u:h%3Be@[::1]:1/s" smb://u:h%3Be@h; do
        run "$recorder" --to "${url//%3B/;}"
        expect_error 2 'must not have a password.* ORUIO_SMB_PASSWORD .*\(--help explains\)$'
        expect [ ! -s "$work/out" ]
        expect is_kept_secret_in "$work/err"
    done
    run "$recorder" 'smb://u:h;e@h/s'
    expect_error 2 'unexpected argument'
    expect is_kept_secret_in "$work/err"
}

bad_urls_are_refused() {
    local url
    for url in smb: smb:/h/s smb://h smb://h/ smb:///s smb://@h/s smb://h:0/s smb://h:65536/s \
        smb://h:/s smb://h:x/s 'smb://[::1/s' smb://::1/s 'smb://a;b;c@h/s' smb://a@b@h/s; do
        run "$recorder" --to "$url"
        expect_error 2 'must be smb://\[\[DOMAIN;]USER@]HOST\[:PORT]/SHARE'
    done
    for url in smb://h/% smb://h/s/%2 smb://h/s/%zz; do
        run "$recorder" --to "$url"
        expect_error 2 'written %25'
    done
    for url in smb://h/%ff smb://h/s/a%00; do
        run "$recorder" --to "$url"
        expect_error 2 'not a text in UTF-8'
    done
}

password_is_not_shown_anywhere() {
    start_server
    export ORULOG_LEVEL=12
    start_recording clip
    unset ORULOG_LEVEL
    ps axww -o args >"$work/ps"
    expect grep -q "recorder --to $share" "$work/ps"
    expect kill -INT "$recording"
    end_recording
    expect [ "$status" -eq 0 ]
    expect grep -q 'SMB Connect' "$work/err"
    expect is_kept_secret_in "$work/ps" "$work/out" "$work/err" "$work/server.err" "$clips/log"
    stop_server
}

missing_share_is_reported() {
    start_server
    run "$recorder" --to "$host/missing" --size 1M
    expect_error 1 "cannot connect to $host/missing: the server has no such share \(.*BAD_NETWORK_NAME"
    stop_server
}

unreachable_server_is_reported() {
    start_server
    stop_server
    run "$recorder" --to "$share" --size 1M
    expect_error 1 "cannot connect to $share: nothing listens there \(Connection refused\)"
    run "$recorder" --to smb://tester@no-such-host.invalid/s --size 1M
    expect_error 1 "cannot connect to smb://tester@no-such-host\.invalid/s: .*cannot be resolved"
}

protected_session_is_refused() {
    start_server 'server signing = mandatory'
    run "$recorder" --to "$share" --size 1M
    expect_error 1 "cannot connect to $share: .*signed or encrypted"
    stop_server
}

unusable_directory_is_reported() {
    start_server '[readable]' "path = $clips"
    touch "$clips/recordings/file"
    run "$recorder" --to "$share/file" --size 1M
    expect_error 1 "cannot use $share/file: Not a directory"
    run "$recorder" --to "$share/file/below" --size 1M
    expect_error 1 "cannot use $share/file/below: Not a directory"
    run "$recorder" --to "$share/new/is%20it?" --size 1M
    expect_error 1 "cannot use $share/new/is%20it\? \(perhaps .* forbids the name\): Input/output"
    run "$recorder" --to "$host/readable/recordings" --size 1M
    expect_error 1 "cannot create $host/readable/recordings/clip-0001.oru.part: Permission denied"
    run "$recorder" --to "$host/readable/new" --size 1M
    expect_error 1 "cannot use $host/readable/new: Permission denied"
    expect contains_only "$clips/recordings" file new
    stop_server
}

existing_clip_is_refused() {
    start_server
    echo precious >"$clips/recordings/clip"
    run "$recorder" --to "$share" --name clip --size 1M
    expect_error 1 "cannot record $share/clip: File exists"
    start_recording other
    echo precious >"$clips/recordings/other"
    expect kill -INT "$recording"
    end_recording
    expect_error 1 "cannot finish $share/other: File exists"
    expect contains_only "$clips/recordings" clip other
    expect has_text "$clips/recordings/clip" precious
    expect has_text "$clips/recordings/other" precious
    stop_server
}

interrupted_recorder_leaves_a_verified_clip() {
    local signal
    start_server
    for signal in INT TERM; do
        start_recording $signal
        expect kill -$signal "$recording"
        end_recording
        expect_success
        expect grep -q '^Stopped early' "$work/out"
    done
    expect contains_only "$clips/recordings" INT TERM
    stop_server
}

killed_server_fails_the_recorder() {
    start_server
    start_recording clip
    expect kill -KILL -- "-$smbd"
    end_recording
    expect_error 1 "cannot (write|sync) $share/clip\.part: Connection reset by peer"
    expect contains_only "$clips/recordings" clip.part
    wait "$server" 2>/dev/null
}

hanging_server_fails_the_recorder() {
    local connecting start
    start_server
    start_recording first
    expect kill -STOP -- "-$smbd"
    start=$SECONDS
    "$recorder" --to "$share" --name second >"$work/second.out" 2>"$work/second.err" &
    connecting=$!
    end_recording
    expect_error 1 "cannot (write|sync) $share/first\.part: Connection timed out"
    wait "$connecting"
    expect [ $? -eq 1 ]
    expect grep -q "cannot connect to $share: .* (Connection timed out)" "$work/second.err"
    expect [ $((SECONDS - start)) -le 13 ]
    expect kill -CONT -- "-$smbd"
    expect_recording_works third
    stop_server
}

server_ends_with_its_parent() {
    start_server
    expect_recording_works clip
    stop_server
    expect wait_until is_gone
    start_server
    kill -KILL "$server"
    wait "$server" 2>/dev/null
    expect wait_until is_gone
}

clips=$work
start_server
stop_server
if [ $? -eq 77 ]; then
    echo "SKIP: $(cat "$work/server.err")"
    exit 77
fi

run_cases clip_is_recorded_onto_the_share changed_clip_is_not_verified \
    missing_directories_are_made every_part_of_the_url_is_decoded ipv6_address_is_accepted \
    url_without_user_is_anonymous password_is_prompted_for password_prompt_can_be_interrupted \
    missing_password_is_reported wrong_password_is_reported password_in_the_url_is_refused \
    bad_urls_are_refused password_is_not_shown_anywhere missing_share_is_reported \
    unreachable_server_is_reported protected_session_is_refused unusable_directory_is_reported \
    existing_clip_is_refused interrupted_recorder_leaves_a_verified_clip \
    killed_server_fails_the_recorder hanging_server_fails_the_recorder \
    server_ends_with_its_parent
