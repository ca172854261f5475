#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Checks that the library exports its namespace only, and no private classes.
#   usage: exports_test.sh NM LIBRARY
set -euo pipefail

nm=$1 library=$2
exported=$("$nm" -D --defined-only "$library" | awk '{ print $3 }' | sed 's/@.*//')

grep -qx '_ZN3oru2io8liberrnoE' <<<"$exported" || {
    echo "liberrno is not exported"
    exit 1
}
if grep -vE '^_Z(N|NK|TVN|TIN|TSN)3oru2io' <<<"$exported" || grep -E '4Data' <<<"$exported"; then
    echo "exported symbols that are not part of the interface"
    exit 1
fi
echo "$(wc -l <<<"$exported") symbols"
