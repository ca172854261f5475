#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Makes a sysroot for cross-building to 32-bit ARM and for running the result in qemu-user: unpacks
# Debian's armhf packages and cross-builds libsmb2. Does not use the machine's package database, so
# it needs no foreign architecture and no privilege.
#   usage: armhf-sysroot.sh DIRECTORY
#
# Keeps an up-to-date sysroot.
set -euo pipefail

suite=bookworm
# All packages needed to compile, link and run the project's programs. Dependencies are not
# followed, because Qt's development package depends on graphics libraries.
packages=(
    # the C and C++ libraries
    libc6 libc6-dev libcrypt1 libgcc-s1 libstdc++6 linux-libc-dev
    # Qt Core and the libraries it links
    qtbase5-dev qt5-qmake libqt5core5a libqt5test5
    libdouble-conversion3 libglib2.0-0 libicu72 libpcre2-16-0 libpcre2-8-0 libzstd1 zlib1g
    # udev
    libudev-dev libudev1 libcap2
    # the libraries of the maintenance program, and what they link or their .pc files name
    libblkid-dev libblkid1 libfdisk-dev libfdisk1 libmount-dev libmount1
    libpcre2-dev libselinux1 libselinux1-dev libsepol-dev libsepol2 libuuid1 uuid-dev
    # the stand-in of the logging service
    libfmt-dev libfmt9 libspdlog-dev libspdlog1.10
    # checksums of the examples
    libxxhash-dev libxxhash0
)

root=$(dirname "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")")
# shellcheck source=tools/own-apt.sh
source "$root/tools/own-apt.sh"
toolchain=$root/cmake/toolchains/armhf.cmake

sysroot=$(realpath -m "$1")
version=$(cat "$root"/tools/{armhf-sysroot,own-apt}.sh "$toolchain" | sha256sum)
version+=$("$root/tools/libsmb2.sh" version)
if [[ $(cat "$sysroot/.complete" 2>/dev/null) == "$version" ]]; then
    exit
fi

mkdir -p "${sysroot%/*}"
work=$(mktemp -d "$sysroot.XXXXXXXX")
trap 'rm -rf "$work"' EXIT

make_own_apt "$work/apt" deb "$suite" -o APT::Architecture=armhf -o APT::Architectures=armhf
mkdir "$work/debs" "$work/root"
(cd "$work/debs" && apt-get "${own_apt[@]}" download "${packages[@]}")
for deb in "$work"/debs/*.deb; do
    dpkg-deb --extract "$deb" "$work/root"
done

# Make absolute symbolic links relative: they would lead out of the sysroot.
find "$work/root" -type l -lname '/*' -printf '%P\0%l\0' |
    while IFS= read -r -d '' link && IFS= read -r -d '' target; do
        link=$work/root/$link
        ln -sfn "$(realpath -m --relative-to="${link%/*}" "$work/root$target")" "$link"
    done

# Qt's CMake package expects the build tools inside the sysroot: link the machine's own.
for tool in moc qmake rcc uic; do
    for directory in "$work/root"/usr/lib/{,arm-linux-gnueabihf/}qt5/bin; do
        mkdir -p "$directory"
        ln -sfn "/usr/lib/qt5/bin/$tool" "$directory/$tool"
    done
done

# This Debian release has no libsmb2 to unpack. The version in the library's file name comes from
# its CMake build and differs from that of Debian's packages; programs linked here work with it.
"$root/tools/libsmb2.sh" source "$work/libsmb2"
cmake -G Ninja -S "$work/libsmb2" -B "$work/libsmb2-build" \
    -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DARMHF_SYSROOT="$work/root" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
    -DLIB_SUFFIX=/arm-linux-gnueabihf -DENABLE_LIBKRB5=OFF -DENABLE_GSSAPI=OFF
cmake --build "$work/libsmb2-build"
DESTDIR="$work/root" cmake --install "$work/libsmb2-build"

rm -rf "$sysroot"
mv "$work/root" "$sysroot"
echo "$version" >"$sysroot/.complete"
