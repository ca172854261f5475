# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# shellcheck disable=SC2034,SC2154 # the lists are for ./dev, which sources this and sets root
# The Debian packages that the verbs of ./dev need, and their installation.

# For every build of the project, in addition to Build-Depends in debian/control.
packages_build=(cmake g++ ninja-build)
packages_googletest=(googletest libgmock-dev libgtest-dev)
packages_samba=(samba samba-common-bin)
# udev, simulated and real; the tools that the maintenance program runs.
packages_media=(btrfs-progs dosfstools e2fsprogs exfatprogs fdisk iproute2 libumockdev-dev mount udev
    umockdev util-linux)
# The last ones are for the shell program that the maintenance program is compared with.
packages_bench=("${packages_samba[@]}" bindfs libbenchmark-dev libumockdev-dev libglib2.0-dev pkgconf smbclient
    dosfstools e2fsprogs exfatprogs fdisk mount psmisc util-linux)
packages_test=("${packages_googletest[@]}" "${packages_samba[@]}" "${packages_media[@]}" pkgconf procps python3 smbclient xxhash)
packages_demo=("${packages_samba[@]}" e2fsprogs fdisk mount udev util-linux)
packages_armhf=(debian-archive-keyring dpkg-dev g++-arm-linux-gnueabihf qemu-user-static)
# The emulated device; the tools that build its system and its disks and read its results.
packages_device=("${packages_armhf[@]}" cpio dosfstools e2fsprogs exfatprogs fdisk kmod python3 qemu-system-arm)
packages_fuzz=(clang debian-archive-keyring dpkg-dev libclang-rt-dev)
packages_check=(clang-format clang-tidy git pkgconf python3 shellcheck)
packages_prove=(gcc libc6-dev python3 spin)
packages_docs=(doxygen doxygen-awesome-css graphviz)
# To build libsmb2, if apt has no package of it.
packages_libsmb2=(build-essential debhelper debian-archive-keyring libkrb5-dev)
packages_package=(build-essential debhelper git lintian "${packages_docs[@]}")

# build_depends CONTROL: prints the Build-Depends of a debian/control, without those for packaging.
build_depends() {
    awk '
        /^[^ \t#]/ { wanted = 0 }
        sub(/^Build-Depends:/, "") { wanted = 1 }
        wanted && !/^#/ { gsub(/\([^)]*\)|<[^>]*>|[ \t]/, ""); gsub(/,/, "\n"); print }
    ' "$1" | grep -v -e '^$' -e '^debhelper-compat$'
}

# missing_packages NAME...: prints those that are not installed.
missing_packages() {
    comm -13 \
        <(dpkg-query -W -f '${db:Status-Status} ${Package}\n' "$@" 2>/dev/null |
            sed -n 's/^installed //p' | sort -u) \
        <(printf '%s\n' "$@" | sort -u)
}

# is_offered PACKAGE: succeeds if apt's lists contain the package.
is_offered() {
    local policy
    policy=$(LC_ALL=C apt-cache policy "$1")
    [[ $policy == *'Candidate: '[^\(]* ]]
}

# as_root COMMAND...: runs an installing command without questions. SYSTEMD_OFFLINE keeps the
# systemctl of the maintainer scripts from starting services. Unlike a policy-rc.d, it affects only
# this command.
as_root() {
    local command=(env DEBIAN_FRONTEND=noninteractive SYSTEMD_OFFLINE=1 "$@")
    [[ $EUID -eq 0 ]] || command=(sudo "${command[@]}")
    "${command[@]}"
}

apt_get() {
    as_root apt-get -q -y -o DPkg::Lock::Timeout=600 "$@"
}

# disable_services PACKAGE: keeps its services from starting at boot, and stops them: System V's
# init ignores SYSTEMD_OFFLINE and may have started them.
disable_services() {
    local service services
    mapfile -t services < <(dpkg-query -L "$1" | sed -n 's|^/etc/init\.d/||p')
    for service in "${services[@]}"; do
        as_root update-rc.d "$service" disable
        as_root invoke-rc.d "$service" stop
    done
}

# need NAME...: installs missing packages. Without dpkg, assumes that all are present.
need() {
    command -v dpkg-query >/dev/null || return 0
    local missing
    mapfile -t missing < <(missing_packages "$@")
    [[ ${#missing[@]} -gt 0 ]] || return 0
    if [[ $EUID -ne 0 ]] && ! command -v sudo >/dev/null; then
        die "missing packages, and neither root nor sudo to install them: ${missing[*]}"
    fi
    say "installing ${missing[*]}"
    # Old lists name versions that the mirror has deleted.
    quietly package-lists apt_get update
    local name names=() backported=false
    for name in "${missing[@]}"; do
        if [[ $name == libsmb2-dev ]] && ! is_offered "$name"; then
            backported=true
            names+=("${packages_libsmb2[@]}")
        else
            names+=("$name")
        fi
    done
    quietly packages apt_get install --no-install-recommends "${names[@]}"
    # The tests start their own servers.
    [[ " ${missing[*]} " != *' samba '* ]] || quietly services disable_services samba
    [[ $backported == false ]] || install_libsmb2
}

# Builds and installs libsmb2's packages.
install_libsmb2() {
    local debs
    say "building build/libsmb2: apt has no package of it"
    quietly libsmb2 "$root/tools/libsmb2.sh" debs "$root/build/libsmb2"
    debs=("$root"/build/libsmb2/*.deb)
    say "installing ${debs[*]##*/}"
    quietly packages-libsmb2 apt_get install --no-install-recommends "${debs[@]}"
}
