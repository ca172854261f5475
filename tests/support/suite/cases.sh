# shellcheck shell=bash
# What tests of the example programs are made of; they source it. Gives each of their cases a fresh
# directory $clips, and $work for everything else.

work=$(mktemp -d "${TMPDIR:-/tmp}/examples-test-XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
export TMPDIR=$work/tmp

# Runs a command to its end; leaves its output in $work/out and $work/err, its result in $status.
run() {
    "$@" >"$work/out" 2>"$work/err"
    status=$?
}

# One condition of the current case, as a command.
expect() {
    "$@" || problems+="  failed: $*"$'\n'
}

# Whether the summary has the row LABEL with a text that matches the extended expression PATTERN.
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

# The recorder has recorded a clip and verified it.
expect_success() {
    expect [ "$status" -eq 0 ]
    expect [ ! -s "$work/err" ]
    expect has_row verified yes
}

# The program $3, if not the recorder, has ended with the status $1 and one line on standard error,
# which matches $2.
expect_error() {
    expect [ "$status" -eq "$1" ]
    expect has_one_error_line "${3:-recorder}" "$2"
}

# wait_until COMMAND...: until it succeeds. At most fifteen seconds: nothing here takes more than
# the ten that a client waits for its server.
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

# Runs the case function $1. It may set $skipped to the reason why it could not do its work. What it
# has left running is killed.
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

# Runs all these cases; fails if any of them does.
run_cases() {
    local case failures=0
    for case; do
        run_case "$case" || failures=$((failures + 1))
    done
    [ "$failures" -eq 0 ]
}
