#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Builds libsmb2 with AddressSanitizer and the fuzzer's instrumentation, unless it is up to date. A
# program of clang++ with the same sanitizer uses it when LD_LIBRARY_PATH contains DIRECTORY.
#   usage: libsmb2-sanitized.sh DIRECTORY               with the patches of libsmb2.sh
#          libsmb2-sanitized.sh --unpatched DIRECTORY   as Debian's package
set -euo pipefail

tools=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")
usage='usage: libsmb2-sanitized.sh [--unpatched] DIRECTORY'
unpatched=false
if [[ ${1-} == --unpatched ]]; then
    unpatched=true
    shift
fi
output=$(realpath -m "${1:?"$usage"}")

shopt -s nullglob
patches=("$tools"/libsmb2/patches/*.patch)
stamp=$(cat "$tools/libsmb2-sanitized.sh" "$tools/libsmb2.sh" "${patches[@]}" | sha256sum)
[[ $(cat "$output/.complete" 2>/dev/null) != "$stamp" ]] || exit 0

mkdir -p "${output%/*}"
work=$(mktemp -d "$output.XXXXXXXX")
trap 'rm -rf "$work"' EXIT
"$tools/libsmb2.sh" source "$work/source"
if $unpatched; then
    for ((i = ${#patches[@]} - 1; i >= 0; --i)); do
        # Without those that libsmb2.sh has left out.
        if patch -d "$work/source" -p1 -R --force --dry-run --silent <"${patches[i]}" >/dev/null; then
            patch -d "$work/source" -p1 -R --force --silent <"${patches[i]}"
        fi
    done
fi

# Exports what the package exports.
{
    echo '{ global:'
    sed 's/$/;/' "$work/source/lib/libsmb2.syms"
    echo 'local: *; };'
} >"$work/exports"
cmake -S "$work/source" -B "$work/build" -DCMAKE_C_COMPILER=clang \
    -DCMAKE_C_FLAGS='-O1 -g -fno-omit-frame-pointer -fsanitize=address,fuzzer-no-link' \
    -DCMAKE_SHARED_LINKER_FLAGS="-Wl,--version-script=$work/exports" \
    -DENABLE_LIBKRB5=OFF -DENABLE_GSSAPI=OFF
cmake --build "$work/build" --parallel "$(nproc)"
mkdir "$work/library"
# Under the name that the package has.
cp -L "$work/build/lib/libsmb2.so" "$work/library/libsmb2.so.6"
echo "$stamp" >"$work/library/.complete"
rm -rf "$output"
mv -T "$work/library" "$output"
