#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Installs a build tree and moves the installation. Then builds and runs a program outside the tree
# with it: once through the CMake package, once through pkg-config. If the build tree has the
# examples, builds one of them as well.
#   usage: run.sh BUILD_DIRECTORY
#
# With a cross build, only compiles and links, through the CMake package: the pkg-config of the
# sysroot describes the sysroot.
set -euo pipefail

build=$(readlink -f "$1")
source=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/project
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# cached NAME: prints a variable from the CMake cache of the build tree.
cached() {
    sed -n "s|^$1:[A-Z]*=||p" "$build/CMakeCache.txt"
}

# quietly COMMAND...: prints the output only on failure.
quietly() {
    "$@" >"$work/log" 2>&1 || {
        cat "$work/log" >&2
        exit 1
    }
}

# run PROGRAM: runs it with an empty directory, and checks that it wrote a file.
run() {
    local files
    files=$(mktemp -d "$work/files.XXXXXX")
    "$1" "$files"
    [[ -s $files/clip ]]
}

quietly cmake --install "$build" --prefix "$work/first"
prefix=$work/moved
mv "$work/first" "$prefix"

flags=()
sanitizers=$(cached ORUIO_SANITIZE)
[[ -z $sanitizers ]] || flags+=("-fsanitize=$sanitizers")
generator=$(cached CMAKE_GENERATOR)
options=("-DCMAKE_PREFIX_PATH=$prefix" "-DCMAKE_CXX_FLAGS=${flags[*]}")
toolchain=$(cached CMAKE_TOOLCHAIN_FILE)
if [[ -n $toolchain ]]; then
    options+=(
        "-DCMAKE_TOOLCHAIN_FILE=$toolchain"
        "-DARMHF_SYSROOT=$(cached ARMHF_SYSROOT)"
        "-DCMAKE_FIND_ROOT_PATH=$prefix"
    )
fi
quietly cmake -G "$generator" -S "$source" -B "$work/build" "${options[@]}" \
    -DCMAKE_DISABLE_FIND_PACKAGE_PkgConfig=ON -DCMAKE_DISABLE_FIND_PACKAGE_spdlog=ON
quietly cmake --build "$work/build"
if grep -r -e spdlog -e libsmb2 "$work/build" --include=build.ninja --include=link.txt; then
    echo "the program is linked with private dependencies of the libraries" >&2
    exit 1
fi
examples=$(cached ORUIO_BUILD_EXAMPLES)
if [[ $examples == ON ]]; then
    cp -r "$source/../../../examples" "$work/examples"
    quietly cmake -G "$generator" -S "$work/examples" -B "$work/examples/build" "${options[@]}"
    quietly cmake --build "$work/examples/build" --target media_monitor
fi

if [[ -n $toolchain ]]; then
    echo "compiled and linked through the CMake package"
    exit
fi

# The program has a run path to liboruio, which must find the library beside it.
run "$work/build/consumer"
if [[ $examples == ON ]]; then
    quietly "$work/examples/build/media_monitor" --help
fi

if ! command -v pkg-config >/dev/null; then
    echo "SKIP: no pkg-config"
    exit 77
fi
libraries=$prefix/$(cached CMAKE_INSTALL_LIBDIR)
export PKG_CONFIG_PATH=$libraries/pkgconfig
compile=$(pkg-config --cflags oruio)
link=$(pkg-config --libs oruio)
# shellcheck disable=SC2086 # lists of flags
"$(cached CMAKE_CXX_COMPILER)" -fPIC "${flags[@]}" $compile \
    "$source/main.cpp" -o "$work/consumer" $link
# The flags of pkg-config set no run path.
export LD_LIBRARY_PATH=$libraries
run "$work/consumer"
