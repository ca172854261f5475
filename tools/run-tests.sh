#!/bin/bash
# Runs the tests of a built preset; prints what failed and what was skipped, and the sum.
#   usage: run-tests.sh PRESET [CTEST_ARGUMENT...]
set -euo pipefail

root=$(dirname "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")")
preset=$1
shift
results="$root/build/$preset/tests.xml"
expected_skips="$root/tests/expected-skips.txt"

# Prints "status<TAB>name<TAB>reason" for each test case of a JUnit file of ctest; the status is
# passed, failed or skipped. The reason of a skip is what the test said: GoogleTest writes it on
# the line below "file:line: Skipped", a script behind "SKIP:".
read_results() {
    awk '
        function unescape(text) {
            gsub(/&lt;/, "<", text); gsub(/&gt;/, ">", text); gsub(/&quot;/, "\"", text)
            gsub(/&apos;/, "\047", text); gsub(/&amp;/, "\\&", text)
            return text
        }
        function attribute(name) {
            if (!match($0, " " name "=\"[^\"]*\""))
                return ""
            return unescape(substr($0, RSTART + length(name) + 3, RLENGTH - length(name) - 4))
        }
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
    ' "$results"
}

# Whether tests/expected-skips.txt allows the test to be skipped in this preset.
is_expected() {
    local name=$1 for_preset pattern
    while read -r for_preset pattern _; do
        [[ $preset =~ ^($for_preset)$ && $name =~ ^($pattern)$ ]] && return 0
    done < <(grep -v '^#' "$expected_skips")
    return 1
}

rm -f "$results"
status=0
# Of the progress, only what went wrong is worth reading.
ctest --test-dir "$root/build/$preset" --parallel "$(nproc)" --timeout 300 \
    --no-tests=error --output-on-failure --test-output-size-passed 65536 \
    --output-junit "$results" "$@" |
    awk '
        /^ +Start +[0-9]+: / { next }
        /^ *[0-9]+\/[0-9]+ Test +#[0-9]+: .*( Passed |\*\*\*Skipped|\(Disabled\))/ { next }
        /^Internal ctest changing|^Test project|^The following tests did not run:/ { next }
        /^\t *[0-9]+ - .* \((Skipped|Disabled)\)/ { next }
        NF
    ' || status=$?
[[ -e $results ]] || exit 1

passed=0 failed=0 skipped=0 unexpected=0
while IFS=$'\t' read -r outcome name reason; do
    case $outcome in
    passed) passed=$((passed + 1)) ;;
    failed) failed=$((failed + 1)) ;;
    skipped)
        skipped=$((skipped + 1))
        echo "skipped: $name: ${reason:-no reason given}"
        # Continuous integration runs as root with all tools: there, a skip hides a test.
        if [[ ${CI:-} == true && $EUID -eq 0 ]] && ! is_expected "$name"; then
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
