#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Runs a private SMB server on the loopback interface until SIGTERM or Ctrl-C, as root or as any
# other user. All its files are below one directory.
#   usage: ORUIO_SMB_PASSWORD=PASSWORD [ORUIO_SMB_PORT=PORT] smb-server.sh DIRECTORY [LINE]...
#
# Prints its port and the process group of smbd as soon as it serves. The share "recordings" is the
# directory DIRECTORY/recordings; the user is "tester". Each LINE is added to the section [global]
# of smb.conf, and may start further sections.
#
# Without PORT, it chooses a free port.
#
# Exits with 77 and prints the reason if this machine cannot run such a server.
set -euo pipefail

fail() {
    echo "smb-server: $2" >&2
    exit "$1"
}

[[ $# -gt 0 ]] || fail 2 "usage: smb-server.sh DIRECTORY [LINE]..."
password=${ORUIO_SMB_PASSWORD:?}
unset ORUIO_SMB_PASSWORD # smbd reads it from its password file
mkdir -p "$1"
directory=$(realpath "$1")
shift

PATH=$PATH:/usr/sbin # not in the PATH of every user
for program in smbd pdbedit; do
    command -v "$program" >/dev/null || fail 77 "$program is not installed"
done
account=$(id -un 2>/dev/null) || fail 77 "this user has no account, which smbd needs"

# write_files LINE...: writes the files that smbd reads. The configuration avoids the system's
# files, other services, and optional helper processes.
write_files() {
    mkdir -p "$directory"/{private,recordings,state}
    chmod 0700 "$directory/private"
    echo "$account = tester" >"$directory/users"
    {
        cat <<CONFIGURATION
[global]
server role = standalone server
workgroup = RECORDERS
netbios name = RECORDINGS
interfaces = 127.0.0.1
bind interfaces only = yes
private dir = $directory/private
lock directory = $directory/state
state directory = $directory/state
cache directory = $directory/state
pid directory = $directory/state
ncalrpc dir = $directory/state/ncalrpc
binddns dir = $directory/state/binddns
passdb backend = smbpasswd:$directory/private/smbpasswd
username map = $directory/users
guest account = $account
server min protocol = SMB2_02
disable netbios = yes
disable spoolss = yes
load printers = no
printcap name = /dev/null
rpc start on demand helpers = no
usershare max shares = 0
log level = 1
max log size = 0
CONFIGURATION
        printf '%s\n' "$@"
        cat <<CONFIGURATION
[recordings]
path = $directory/recordings
read only = no
valid users = $account
CONFIGURATION
    } >"$directory/smb.conf"
    # Not as an argument, which other users can see.
    printf '%s\n' "$password" "$password" |
        pdbedit -s "$directory/smb.conf" -a -t -u "$account" >"$directory/log" 2>&1 ||
        fail 1 "pdbedit failed: $(tail -n 3 "$directory/log")"
}

# grep_sockets PATTERN: searches the system's table of TCP sockets.
grep_sockets() {
    grep -Eiqs "$1" /proc/net/tcp /proc/net/tcp6
}

# Sets $port to a free port below the range that the system assigns to clients, so that no client
# takes it before smbd does.
choose_port() {
    port=$((10000 + RANDOM % 20000))
    while grep_sockets ":$(printf %04x "$port") "; do
        port=$((10000 + RANDOM % 20000))
    done
}

smbd=''
stop() {
    [[ -n $smbd ]] || return 0
    # The process group, and smbd itself in case it has not created the group yet.
    kill -KILL -- "-$smbd" "$smbd" 2>/dev/null || true
    wait "$smbd" 2>/dev/null || true
}
trap stop EXIT
trap 'exit 0' INT TERM

# smbd's input is a pipe that this shell holds open: smbd exits when the shell does, even if killed.
start() {
    local deadline=$((SECONDS + 10))
    # smbd resolves this machine's name for each connection: limit how long the resolver takes.
    exec 3> >(RES_OPTIONS='timeout:1 attempts:1' exec setsid smbd -F --no-process-group --debug-stdout -s "$directory/smb.conf" \
        -l "$directory/state" --option="smb ports=$port" >"$directory/log" 2>&1)
    smbd=$!
    # Check the socket table: a test connection would make smbd start a process.
    until grep_sockets ":$(printf %04x "$port") 0+:0000 0A "; do
        if [[ $SECONDS -ge $deadline ]] || ! kill -0 "$smbd" 2>/dev/null; then
            fail 1 "smbd does not serve: $(tail -n 3 "$directory/log")"
        fi
        sleep 0.02
    done
}

write_files "$@"
port=${ORUIO_SMB_PORT:-}
[[ -n $port ]] || choose_port
start
echo "$port $smbd"
wait "$smbd"
