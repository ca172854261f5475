#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Builds libsmb2 for a Debian release without a package of it, from the source package of a later
# release. (The binary packages of that release need a newer C library.)
#   usage: libsmb2.sh source DIRECTORY   unpacks the source, with Debian's patches and those here
#          libsmb2.sh debs DIRECTORY     builds the packages, unless they are up to date
#          libsmb2.sh version            prints a checksum of all that these two depend on
#
# Needs no privilege. The caller installs the packages.
set -euo pipefail

suite=trixie
version=6.2+dfsg-2+deb13u1
# A mirror keeps only the last revision of a release. Any later one is accepted.
oldest=6.2

tools=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")
# shellcheck source=tools/own-apt.sh
source "$tools/own-apt.sh"

# Defects of libsmb2 that a server can use. The library works with and without these patches.
patches=("$tools"/libsmb2/patches/*.patch)

print_version() {
    cat "$tools/libsmb2.sh" "$tools/own-apt.sh" "${patches[@]}" | sha256sum
}

# Sets version to the wanted one if the lists have it, otherwise to the newest.
choose_version() {
    local offered wanted=$version
    version=$oldest
    while read -r offered; do
        if [[ $offered == "$wanted" ]]; then
            version=$wanted
            return
        fi
        if dpkg --compare-versions "$offered" gt "$version"; then
            version=$offered
        fi
    done < <(apt-cache "${own_apt[@]}" showsrc --only-source libsmb2 | sed -n 's/^Version: //p')
    if [[ $version == "$oldest" ]]; then
        echo "libsmb2.sh: the mirror's $suite has no source of libsmb2 $oldest or later" >&2
        return 1
    fi
    echo "libsmb2.sh: the mirror has no libsmb2 $wanted: taking $version" >&2
}

# unpack DIRECTORY
unpack() {
    make_own_apt "$work/apt" deb-src "$suite"
    choose_version
    mkdir "$work/files" "$1"
    # Without the .dsc, which some mirrors lack.
    (
        cd "$work/files"
        apt-get "${own_apt[@]}" source --download-only --tar-only "libsmb2=$version"
        apt-get "${own_apt[@]}" source --download-only --diff-only "libsmb2=$version"
    )
    tar -x -f "$work"/files/*.orig.tar.[gx]z -C "$1" --strip-components=1
    tar -x -f "$work"/files/*.debian.tar.[gx]z -C "$1"
    dpkg-source --before-build "$1"
    local patch
    for patch in "${patches[@]}"; do
        # A later revision may have its own correction.
        if ! patch -d "$1" -p1 --forward --dry-run --silent <"$patch" >/dev/null; then
            echo "libsmb2.sh: left out, as libsmb2 $version differs: ${patch##*/}" >&2
            continue
        fi
        patch -d "$1" -p1 --forward --silent --no-backup-if-mismatch <"$patch"
    done
}

# build_packages DIRECTORY
build_packages() {
    local stamp
    stamp=$(print_version)$(dpkg --print-architecture)
    [[ $(cat "$1/.complete" 2>/dev/null) != "$stamp" ]] || return 0
    mkdir "$work/build" "$work/debs"
    unpack "$work/build/libsmb2"
    # The later release's own package is an upgrade of this version.
    sed -i '1s/)/~bpo12+2)/' "$work/build/libsmb2/debian/changelog"
    (cd "$work/build/libsmb2" &&
        DEB_BUILD_OPTIONS="noautodbgsym parallel=$(nproc)" dpkg-buildpackage -b -us -uc)
    mv "$work"/build/libsmb2-{[0-9]*,dev_*}.deb "$work/debs"
    echo "$stamp" >"$work/debs/.complete"
    rm -rf "$1"
    mv -T "$work/debs" "$1"
}

usage='usage: libsmb2.sh source|debs DIRECTORY | version'
if [[ ${1-} == version ]]; then
    print_version
    exit
fi
output=$(realpath -m "${2:?"$usage"}")
mkdir -p "${output%/*}"
work=$(mktemp -d "$output.XXXXXXXX")
trap 'rm -rf "$work"' EXIT
case $1 in
source) unpack "$output" ;;
debs) build_packages "$output" ;;
*)
    echo "$usage" >&2
    exit 1
    ;;
esac
