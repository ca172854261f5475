# shellcheck shell=bash
# shellcheck disable=SC2034 # the options are for the scripts that source this
# Packages of another architecture or release than the machine's, without a trace of them in the
# machine's own apt, and without privilege.

# make_own_apt DIRECTORY TYPE SUITE [OPTION...]: sets own_apt, the options with which apt-get and
# apt-cache know nothing but Debian's SUITE. It comes from the mirror that the machine's apt uses,
# and is checked against Debian's keys. TYPE is deb or deb-src.
make_own_apt() {
    local directory=$1 type=$2 suite=$3 mirror
    shift 3
    # Other origins have suites of the same names. Only fetched lists tell their origin.
    # shellcheck disable=SC2016 # apt expands it
    mirror=$(apt-get indextargets --format '$(REPO_URI)' \
        'Created-By: Packages' 'Origin: Debian' 'Label: Debian' | sed -n 1p)
    if [[ -z $mirror ]]; then
        echo "${0##*/}: apt knows no mirror of Debian; has 'apt-get update' been run?" >&2
        return 1
    fi
    mkdir -p "$directory"/{lists/partial,cache/archives/partial,parts}
    : >"$directory/status"
    echo "$type [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $mirror $suite main" \
        >"$directory/sources.list"
    own_apt=(
        -q
        -o APT::Sandbox::User= # the user _apt has no access to the directory
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
