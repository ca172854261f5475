#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Runs the tests of a built preset; prints what failed and what was skipped, and the sum. The preset
# "device" is armhf's build in the emulated device.
#   usage: run-tests.sh PRESET[/FOLDER] [CTEST_ARGUMENT...]
#
# FOLDER is one of the tests in the build: dev/tests/ipc.
set -euo pipefail

root=$(dirname "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")")
directory=$root/build/$1
preset=${1%%/*}
shift

# run_here CTEST_ARGUMENT...
run_here() {
    results=$directory/tests.xml
    rm -f "$results"
    local parallel=$((2 * $(nproc))) # most tests wait most of the time
    # Of the progress, only what went wrong is worth reading.
    ctest --test-dir "$directory" --parallel "$parallel" --timeout 300 \
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
    results=$root/build/device/tests
    "$root/tools/device/run-tests" "$results" "$@" || status=$?
    [[ $status -le 1 ]] || exit "$status" # it did not run
}

status=0
case $preset in
device) run_in_device "$@" ;;
*) run_here "$@" ;;
esac

# Continuous integration runs as root with all tools, and so does everything in the device. There a
# skip would hide a test.
read_options=()
if [[ ${CI:-} == true && ($EUID -eq 0 || $preset == device) ]]; then
    read_options+=(--skips "$preset")
fi
"$root/tools/read-results" "${read_options[@]}" "$results" || status=1
exit "$((status != 0))"
