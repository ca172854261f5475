# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Functions that simulate slots for memory cards: loop disks are the cards, and a private udevd
# reports them. The caller must run in private mount and network namespaces (`unshare --mount
# --net`). Outside of these only the loop disks are visible, and nothing remains after close_slots.

declare -A slot_cards=()

# missing_for_slots: prints why slots cannot be simulated; prints nothing if they can.
missing_for_slots() {
    local tool
    if [[ $EUID -ne 0 ]]; then
        echo "needs root"
    elif ! unshare --mount --net true 2>/dev/null; then
        echo "cannot create private mount and network namespaces"
    elif [[ ! -b $(losetup --find 2>/dev/null) ]]; then
        echo "no free loop device"
    elif [[ ! -x /lib/systemd/systemd-udevd ]]; then
        echo "systemd-udevd is not installed"
    else
        for tool in sfdisk partx mke2fs blkid udevadm; do
            command -v "$tool" >/dev/null || echo "$tool is not installed"
        done
    fi
}

# open_slots MAINTENANCE_PROGRAM: starts udevd, and installs the program where the library starts
# it.
open_slots() {
    local directory
    # Hide the system's rules, and the links in /dev, which are visible outside.
    mkdir -p /dev/block
    for directory in /run /dev/block /etc/udev/rules.d /usr/lib/udev/rules.d /usr/local/bin; do
        [[ ! -d $directory ]] || mount -t tmpfs -o mode=755 slot "$directory" || return
    done
    install "$1" /usr/local/bin/oruio_sysutils
    mkdir -p /run/udev/rules.d /run/slot
    # For "remove", udevd reports the properties it recorded at "add".
    cat >/run/udev/rules.d/10-slot.rules <<'RULES'
SUBSYSTEM!="block", GOTO="end"
ACTION=="remove", GOTO="end"
ENV{DEVTYPE}=="disk", IMPORT{file}="/run/slot/$kernel"
ENV{DEVTYPE}=="partition", IMPORT{parent}="ID_*"
ENV{ID_PATH}=="", GOTO="end"
IMPORT{builtin}="blkid"
LABEL="end"
RULES
    /lib/systemd/systemd-udevd --daemon >/run/udev/log 2>&1 && udevadm settle --timeout=30
}

close_slots() {
    local inserted
    for inserted in "${!slot_cards[@]}"; do
        umount --lazy "/dev/${inserted}p1" 2>/dev/null || true
        eject_card "$inserted"
    done
    [[ ! -S /run/udev/control ]] || udevadm control --exit
}

# make_card IMAGE SIZE: makes an image with one partition and an ext4 file system.
make_card() {
    truncate -s "$2" "$1"
    sfdisk --quiet "$1" <<<'start=1MiB, type=83'
    mke2fs -q -t ext4 -L CARD -E offset=$((1 << 20)) "$1" \
        "$((($(stat -c %s "$1") >> 10) - 1024))k" 2>/dev/null
}

# insert_card IMAGE ID_PATH: inserts the card into the slot with this ID_PATH. Sets $card: the disk
# is /dev/$card, its partition /dev/${card}p1.
insert_card() {
    udevadm settle --timeout=30
    card=$(losetup --find --show "$1")
    card=${card#/dev/}
    slot_cards[$card]=inserted
    echo "ID_PATH=$2" >"/run/slot/$card"
    partx --update "/dev/$card"
    echo add >"/sys/block/$card/uevent"
    echo add >"/sys/block/$card/${card}p1/uevent"
}

# eject_card CARD: removes the card, whose partition must not be mounted.
eject_card() {
    # Fails while udevd has the partition open.
    until partx --delete "/dev/$1" 2>/dev/null || [[ ! -e /sys/block/$1/${1}p1 ]]; do
        sleep 0.02
    done
    echo remove >"/sys/block/$1/uevent"
    udevadm settle --timeout=30
    # Without this file the empty loop device has no ID_PATH and is not in the slot.
    rm "/run/slot/$1"
    losetup --detach "/dev/$1"
    udevadm settle --timeout=30
    unset "slot_cards[$1]"
}
