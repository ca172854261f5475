# shellcheck shell=bash
# Slots for memory cards, for whoever sources this: loop disks play the cards, and a udevd of their
# own tells of them. This wants to be in mounts and a network of its own, as
# `unshare --mount --net` gives them; nothing but the loop disks is then seen outside, and nothing of
# it stays behind close_slots.

declare -A slot_cards=()

# missing_for_slots: prints why there can be none; nothing when there can.
missing_for_slots() {
    local tool
    if [[ $EUID -ne 0 ]]; then
        echo "it takes root"
    elif ! unshare --mount --net true 2>/dev/null; then
        echo "no mounts and network of its own here"
    elif [[ ! -b $(losetup --find 2>/dev/null) ]]; then
        echo "no loop devices here"
    elif [[ ! -x /lib/systemd/systemd-udevd ]]; then
        echo "systemd-udevd is not installed"
    else
        for tool in sfdisk partx mke2fs blkid udevadm; do
            command -v "$tool" >/dev/null || echo "$tool is not installed"
        done
    fi
}

# open_slots MAINTENANCE_PROGRAM: the program is what the library finds in the device's place.
open_slots() {
    local directory
    # The system's rules are not for this udevd, nor are links in /dev, which all would see.
    mkdir -p /dev/block
    for directory in /run /dev/block /etc/udev/rules.d /usr/lib/udev/rules.d /usr/local/bin; do
        [[ ! -d $directory ]] || mount -t tmpfs -o mode=755 slot "$directory" || return
    done
    install "$1" /usr/local/bin/oruio_sysutils
    mkdir -p /run/udev/rules.d /run/slot
    # Of what has been removed, udevd tells what it knew.
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

# make_card IMAGE SIZE: with one partition, and an ext4 file system in it.
make_card() {
    truncate -s "$2" "$1"
    sfdisk --quiet "$1" <<<'start=1MiB, type=83'
    mke2fs -q -t ext4 -L CARD -E offset=$((1 << 20)) "$1" \
        "$((($(stat -c %s "$1") >> 10) - 1024))k" 2>/dev/null
}

# insert_card IMAGE ID_PATH: into the slot that udev knows by that. Leaves the card's name in $card,
# as in /dev/$card and its partition /dev/${card}p1.
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

# eject_card CARD: its partition must not be mounted.
eject_card() {
    # udevd may have it open for a moment.
    until partx --delete "/dev/$1" 2>/dev/null || [[ ! -e /sys/block/$1/${1}p1 ]]; do
        sleep 0.02
    done
    echo remove >"/sys/block/$1/uevent"
    udevadm settle --timeout=30
    # The empty loop device that stays behind is not in the slot.
    rm "/run/slot/$1"
    losetup --detach "/dev/$1"
    udevadm settle --timeout=30
    unset "slot_cards[$1]"
}
