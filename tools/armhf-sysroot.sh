#!/bin/bash
# Makes a sysroot for cross-building to 32-bit ARM and for running the result in qemu-user: Debian's
# armhf packages, unpacked. The machine's own package database is left alone, so that no foreign
# architecture has to be enabled, and no privilege is needed.
#   usage: armhf-sysroot.sh DIRECTORY
#
# An up-to-date sysroot is kept as it is.
set -euo pipefail

suite=bookworm
# Dependencies are not followed: these are the packages that compiling, linking and starting the
# project's programs takes, without the graphics that Qt's development package asks for.
packages=(
    # the C and C++ libraries
    libc6 libc6-dev libcrypt1 libgcc-s1 libstdc++6 linux-libc-dev
    # Qt Core and what it links
    qtbase5-dev qt5-qmake libqt5core5a libqt5test5
    libdouble-conversion3 libglib2.0-0 libicu72 libpcre2-16-0 libpcre2-8-0 libzstd1 zlib1g
    # udev
    libudev-dev libudev1 libcap2
    # the stand-in of the logging service
    libfmt-dev libfmt9 libspdlog-dev libspdlog1.10
    # checksums of the examples
    libxxhash-dev libxxhash0
)

sysroot=$(realpath -m "$1")
version=$(sha256sum <"${BASH_SOURCE[0]}")
if [[ $(cat "$sysroot/.complete" 2>/dev/null) == "$version" ]]; then
    exit
fi

mkdir -p "${sysroot%/*}"
work=$(mktemp -d "$sysroot.XXXXXXXX")
trap 'rm -rf "$work"' EXIT

# An apt of its own, with the mirror that the machine's apt uses for the same suite.
# shellcheck disable=SC2016 # apt expands these
mirror=$(apt-get indextargets --format '$(REPO_URI) $(RELEASE)' 'Created-By: Packages' |
    awk -v suite="$suite" '$2 == suite { print $1; exit }')
if [[ -z $mirror ]]; then
    echo "armhf-sysroot: apt knows no mirror of $suite" >&2
    exit 1
fi
mkdir -p "$work"/apt/{lists/partial,cache/archives/partial,parts} "$work/debs" "$work/root"
: >"$work/apt/status"
echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $mirror $suite main" \
    >"$work/apt/sources.list"
apt_get=(
    apt-get -q
    -o APT::Architecture=armhf -o APT::Architectures=armhf
    -o APT::Sandbox::User= # the user _apt has no access to the directory
    -o Acquire::Languages=none
    -o Acquire::Retries=3
    -o Dir::Cache="$work/apt/cache"
    -o Dir::Etc::SourceList="$work/apt/sources.list"
    -o Dir::Etc::SourceParts="$work/apt/parts"
    -o Dir::Etc::Preferences=/dev/null
    -o Dir::Etc::PreferencesParts="$work/apt/parts"
    -o Dir::State::Lists="$work/apt/lists"
    -o Dir::State::Status="$work/apt/status"
)
"${apt_get[@]}" update
(cd "$work/debs" && "${apt_get[@]}" download "${packages[@]}")
for deb in "$work"/debs/*.deb; do
    dpkg-deb --extract "$deb" "$work/root"
done

# Absolute symbolic links would lead out of the sysroot.
find "$work/root" -type l -lname '/*' -printf '%P\0%l\0' |
    while IFS= read -r -d '' link && IFS= read -r -d '' target; do
        link=$work/root/$link
        ln -sfn "$(realpath -m --relative-to="${link%/*}" "$work/root$target")" "$link"
    done

# Qt's CMake package looks for the build's tools inside the sysroot: these are the machine's own.
for tool in moc qmake rcc uic; do
    for directory in "$work/root"/usr/lib/{,arm-linux-gnueabihf/}qt5/bin; do
        mkdir -p "$directory"
        ln -sfn "/usr/lib/qt5/bin/$tool" "$directory/$tool"
    done
done

rm -rf "$sysroot"
mv "$work/root" "$sysroot"
echo "$version" >"$sysroot/.complete"
