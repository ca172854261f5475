# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Shared by the tests of the example programs, which source it. Each case gets an empty directory
# $clips, and $work for other files.

work=$(mktemp -d "${TMPDIR:-/tmp}/examples-test-XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
export TMPDIR=$work/tmp

# Runs a command. Stores its output in $work/out and $work/err, its exit status in $status.
run() {
    "$@" >"$work/out" 2>"$work/err"
    status=$?
}

# Checks a condition of the current case: the command must succeed.
expect() {
    "$@" || problems+="  failed: $*"$'\n'
}

# has_row LABEL PATTERN: whether the summary has a row LABEL whose value matches the extended
# expression PATTERN.
has_row() {
    grep -Eq "^$1 +($2)\$" "$work/out"
}

# Whether standard error is one line of the program $1 that matches the extended expression $2.
has_one_error_line() {
    [ "$(wc -l <"$work/err")" -eq 1 ] && grep -Eq "^$1: .*$2" "$work/err"
}

is_empty() {
    [ -z "$(ls -A "$1")" ]
}

contains_only() {
    local directory=$1
    shift
    [ "$(ls -A "$directory")" = "$(printf '%s\n' "$@")" ]
}

has_size() {
    [ "$(stat -c %s "$1")" -eq "$2" ]
}

has_text() {
    [ "$(cat "$1")" = "$2" ]
}

# Expects that the recorder recorded a clip and verified it.
expect_success() {
    expect [ "$status" -eq 0 ]
    expect [ ! -s "$work/err" ]
    expect has_row verified yes
}

# Expects that the program $3, by default the recorder, exited with $1 and printed one line on
# standard error, which matches $2.
expect_error() {
    expect [ "$status" -eq "$1" ]
    expect has_one_error_line "${3:-recorder}" "$2"
}

# wait_until COMMAND...: repeats the command until it succeeds, for at most 15 seconds. A client
# waits 10 seconds for its server.
wait_until() {
    local deadline=$((SECONDS + 15))
    until "$@"; do
        [ "$SECONDS" -lt "$deadline" ] || return 1
        sleep 0.02
    done
}

has_bytes() {
    [ "$(stat -c %s "$1" 2>/dev/null || echo 0)" -ge "$2" ]
}

# Waits until the file $1 has $2 bytes.
wait_for_bytes() {
    wait_until has_bytes "$@"
}

# Runs the case function $1. The function sets $skipped to the reason when it cannot run. Its
# remaining background jobs are killed.
run_case() {
    problems='' skipped=''
    clips=$work/$1
    mkdir -p "$clips" "$TMPDIR"
    "$1"
    jobs -rp | xargs -r kill -KILL
    wait
    rm -rf "$clips" "$TMPDIR"
    if [ -n "$skipped" ]; then
        echo "ok $1 # SKIP $skipped"
    elif [ -z "$problems" ]; then
        echo "ok $1"
    else
        echo "not ok $1"
        printf '%s' "$problems"
        sed 's/^/  stdout: /' "$work/out"
        sed 's/^/  stderr: /' "$work/err"
        return 1
    fi
}

# Runs all these cases. Fails if one of them fails.
run_cases() {
    local case failures=0
    for case; do
        run_case "$case" || failures=$((failures + 1))
    done
    [ "$failures" -eq 0 ]
}
