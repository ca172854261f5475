# shellcheck shell=bash
# shellcheck disable=SC2034 # the lists are for ./dev, which sources this
# Which Debian packages the verbs of ./dev need, and how they get installed.

# What every build of the project needs; the source package's Build-Depends say the rest.
packages_build=(cmake g++ ninja-build)
packages_googletest=(googletest libgmock-dev libgtest-dev)
packages_bench=(bindfs libbenchmark-dev libglib2.0-dev pkgconf)
packages_test=("${packages_googletest[@]}" pkgconf)
packages_armhf=(debian-archive-keyring g++-arm-linux-gnueabihf qemu-user-static)
packages_fuzz=(clang libclang-rt-dev)
packages_check=(clang-format clang-tidy git pkgconf shellcheck)
packages_docs=(doxygen graphviz)
packages_package=(build-essential debhelper git lintian "${packages_docs[@]}")

# What the source package with this debian/control builds with, apart from packaging itself.
build_depends() {
    awk '
        /^[^ \t#]/ { wanted = 0 }
        sub(/^Build-Depends:/, "") { wanted = 1 }
        wanted && !/^#/ { gsub(/\([^)]*\)|<[^>]*>|[ \t]/, ""); gsub(/,/, "\n"); print }
    ' "$1" | grep -v -e '^$' -e '^debhelper-compat$'
}

# missing_packages NAME...: those that are not installed.
missing_packages() {
    comm -13 \
        <(dpkg-query -W -f '${db:Status-Status} ${Package}\n' "$@" 2>/dev/null |
            sed -n 's/^installed //p' | sort -u) \
        <(printf '%s\n' "$@" | sort -u)
}

# apt_install NAME...: with fresh lists, since a mirror forgets what old lists name.
apt_install() {
    local as_root=()
    [[ $EUID -eq 0 ]] || as_root=(sudo)
    local apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive
        apt-get -q -y -o DPkg::Lock::Timeout=600)
    "${apt[@]}" update
    "${apt[@]}" install --no-install-recommends "$@"
}

# need NAME...: installs what is missing. Where packages are not Debian's, takes them for present.
need() {
    command -v dpkg-query >/dev/null || return 0
    local missing
    mapfile -t missing < <(missing_packages "$@")
    [[ ${#missing[@]} -gt 0 ]] || return 0
    if [[ $EUID -ne 0 ]] && ! command -v sudo >/dev/null; then
        die "missing packages, and neither root nor sudo to install them: ${missing[*]}"
    fi
    say "installing ${missing[*]}"
    quietly packages apt_install "${missing[@]}"
}
