#!/bin/bash
# Runs the tests of a built preset; prints what failed and what was skipped, and the sum. The preset
# "device" is armhf's build in the emulated device.
#   usage: run-tests.sh PRESET [CTEST_ARGUMENT...]
set -euo pipefail

root=$(dirname "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")")
preset=$1
shift
expected_skips="$root/tests/expected-skips.txt"

# What both readers of results do with XML.
# shellcheck disable=SC2016 # it is awk's
xml_functions='
    function unescape(text) {
        gsub(/&lt;/, "<", text); gsub(/&gt;/, ">", text); gsub(/&quot;/, "\"", text)
        gsub(/&apos;/, "\047", text); gsub(/&#x0A;/, "\n", text); gsub(/&amp;/, "\\&", text)
        return text
    }
    function attribute(name) {
        if (!match($0, " " name "=\"[^\"]*\""))
            return ""
        return unescape(substr($0, RSTART + length(name) + 3, RLENGTH - length(name) - 4))
    }
'

# read_ctest FILE: prints "status<TAB>name<TAB>reason" for each test case of a JUnit file of ctest;
# the status is passed, failed or skipped. The reason of a skip is what the test said: GoogleTest
# writes it on the line below "file:line: Skipped", a script behind "SKIP:".
read_ctest() {
    awk "$xml_functions"'
        /^\t<testcase / {
            name = attribute("name")
            status = attribute("status") == "run" ? "passed" : "failed"
            reason = ""
            reasonFollows = 0
            if (attribute("status") == "disabled") {
                status = "skipped"
                reason = "disabled"
            }
        }
        # A test that could not be started is "skipped" to ctest, too.
        /^\t\t<skipped message="SKIP_/ { status = "skipped" }
        reasonFollows && NF { reason = unescape($0); reasonFollows = 0 }
        reason == "" && /: Skipped$/ { reasonFollows = 1 }
        reason == "" && /SKIP: / { reason = unescape($0); sub(/.*SKIP: /, "", reason) }
        /^\t<\/testcase>/ { print status "\t" name "\t" reason }
    ' "$1"
}

# read_googletest FILE: the same for the test cases of a file of GoogleTest.
read_googletest() {
    awk "$xml_functions"'
        function finish() {
            if (name != "")
                print status "\t" name "\t" reason
            name = ""
        }
        /^ *<testcase / {
            finish()
            name = attribute("classname") "." attribute("name")
            status = attribute("result") == "completed" ? "passed" : "skipped"
            reason = status == "skipped" ? "disabled" : ""
        }
        /^ *<failure / { status = "failed" }
        /^ *<skipped / {
            status = "skipped"
            reason = attribute("message")
            sub(/^[^\n]*\n/, "", reason)
            sub(/\n.*/, "", reason)
        }
        END { finish() }
    ' "$1"
}

# read_device DIRECTORY: the same for what one device left. To ctest, a program is one test.
read_device() {
    local outcome name reason cases
    while IFS=$'\t' read -r outcome name reason; do
        if [[ ! -e $1/results/$name.xml ]]; then
            printf '%s\t%s\t%s\n' "$outcome" "$name" "$reason"
            continue
        fi
        cases=$(read_googletest "$1/results/$name.xml")
        printf '%s\n' "$cases"
        # It may still fail when all of its tests are over.
        if [[ $outcome == failed && $'\n'$cases != *$'\nfailed\t'* ]]; then
            printf 'failed\t%s\t\n' "$name"
        fi
    done < <(read_ctest "$1/tests.xml")
}

# show_failures DIRECTORY: what the tests of a device that failed have written; of what is no test of
# GoogleTest, the end.
show_failures() {
    local log=$1/ctest/Testing/Temporary/LastTest.log outcome name
    while IFS=$'\t' read -r outcome name _; do
        [[ $outcome == failed ]] || continue
        echo "failed: $name"
        awk -v name="$name" '
            $0 == "[ RUN      ] " name { isTest = wanted = 1 }
            !isTest && $2 == "Test:" && $3 == name { wanted = 1 }
            wanted { print }
            wanted && isTest && index($0, "[  FAILED  ] " name) == 1 { exit }
            wanted && $0 == "<end of output>" { exit }
        ' "$log" | tail -n 100 | sed 's/^/    /'
    done < <(read_device "$1")
}

# Whether tests/expected-skips.txt allows the test to be skipped in this preset.
is_expected() {
    local name=$1 for_preset pattern
    while read -r for_preset pattern _; do
        [[ $preset =~ ^($for_preset)$ && $name =~ ^($pattern)$ ]] && return 0
    done < <(grep -v '^#' "$expected_skips")
    return 1
}

# run_here CTEST_ARGUMENT...
run_here() {
    results=$root/build/$preset/tests.xml
    rm -f "$results"
    # Of the progress, only what went wrong is worth reading.
    ctest --test-dir "$root/build/$preset" --parallel "$(nproc)" --timeout 300 \
        --no-tests=error --output-on-failure --test-output-size-passed 65536 \
        --output-junit "$results" --label-exclude '^device$' "$@" |
        awk '
            /^ +Start +[0-9]+: / { next }
            /^ *[0-9]+\/[0-9]+ Test +#[0-9]+: .*( Passed |\*\*\*Skipped|\(Disabled\))/ { next }
            /^Internal ctest changing|^Test project|^The following tests did not run:/ { next }
            /^\t *[0-9]+ - .* \((Skipped|Disabled)\)/ { next }
            NF
        ' || status=$?
    [[ -e $results ]] || exit 1
}

# run_in_device CTEST_ARGUMENT...
run_in_device() {
    local directory
    results=$root/build/device/tests
    "$root/tools/device/run-tests" "$results" "$@" || status=$?
    [[ $status -le 1 ]] || exit "$status" # it did not run
    for directory in "$results"/*; do
        if [[ -e $directory/tests.xml ]]; then
            show_failures "$directory"
        else
            echo "failed: the device with ${directory##*/} has left no results"
            broken=$((broken + 1))
        fi
    done
}

# Prints status, name and reason of all tests.
read_results() {
    local directory
    if [[ $preset != device ]]; then
        read_ctest "$results"
        return
    fi
    for directory in "$results"/*; do
        [[ ! -e $directory/tests.xml ]] || read_device "$directory"
    done
}

status=0
broken=0 # devices
case $preset in
device) run_in_device "$@" ;;
*) run_here "$@" ;;
esac

passed=0 failed=$broken skipped=0 unexpected=0
while IFS=$'\t' read -r outcome name reason; do
    case $outcome in
    passed) passed=$((passed + 1)) ;;
    failed) failed=$((failed + 1)) ;;
    skipped)
        skipped=$((skipped + 1))
        echo "skipped: $name: ${reason:-no reason given}"
        # Continuous integration runs as root with all tools, and so does all in the device: there,
        # a skip hides a test.
        if [[ ${CI:-} == true && ($EUID -eq 0 || $preset == device) ]] && ! is_expected "$name"; then
            echo "    is not in tests/expected-skips.txt for $preset"
            unexpected=$((unexpected + 1))
        fi
        ;;
    esac
done < <(read_results)

if [[ $((passed + failed)) -eq 0 ]]; then
    echo "no test ran"
    status=1
fi
echo "$passed passed, $failed failed, $skipped skipped"
[[ $status -eq 0 && $failed -eq 0 && $unexpected -eq 0 ]]
