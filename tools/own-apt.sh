# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# shellcheck disable=SC2034 # the options are for the scripts that source this
# Downloads packages of another architecture or release, without privilege and without changing the
# machine's apt configuration.

# make_own_apt DIRECTORY TYPE SUITE [OPTION...]: sets own_apt, the options that restrict apt-get and
# apt-cache to Debian's SUITE, on the mirror that the machine's apt uses, checked against Debian's
# keys. TYPE is deb or deb-src. The lists and the cache are in DIRECTORY.
make_own_apt() {
    local directory=$1 type=$2 suite=$3 mirror
    shift 3
    # Other origins use the same suite names. Only fetched lists contain the origin.
    # shellcheck disable=SC2016 # expanded by apt
    mirror=$(apt-get indextargets --format '$(REPO_URI)' \
        'Created-By: Packages' 'Origin: Debian' 'Label: Debian' | sed -n 1p)
    if [[ -z $mirror ]]; then
        echo "${0##*/}: apt has no Debian mirror: run 'apt-get update'" >&2
        return 1
    fi
    mkdir -p "$directory"/{lists/partial,cache/archives/partial,parts}
    : >"$directory/status"
    echo "$type [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $mirror $suite main" \
        >"$directory/sources.list"
    own_apt=(
        -q
        -o APT::Sandbox::User= # the user _apt cannot access the directory
        -o Acquire::Languages=none
        -o Acquire::Retries=3
        -o Dir::Cache="$directory/cache"
        -o Dir::Etc::SourceList="$directory/sources.list"
        -o Dir::Etc::SourceParts="$directory/parts"
        -o Dir::Etc::Preferences=/dev/null
        -o Dir::Etc::PreferencesParts="$directory/parts"
        -o Dir::State::Lists="$directory/lists"
        -o Dir::State::Status="$directory/status"
        "$@"
    )
    apt-get "${own_apt[@]}" update --error-on=any
}
