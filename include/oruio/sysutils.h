// SPDX-License-Identifier: Apache-2.0
/// \file
/// Commands of the maintenance program, and unmounting.
///
/// Work that needs privilege or takes long is done by one program, `/usr/local/bin/oruio_sysutils`:
/// checking a file system, making one, formatting a card, mounting an export. It gets a command
/// word and arguments on its command line. Exit status 0 is success.
///
/// What the program gets from this process:
///
/// - the environment, the working directory and the process group;
/// - a standard input that is at its end;
/// - no other descriptors, and no blocked signals.
///
/// Up to 1 MiB of each of its output streams is kept in memory, for the log.
///
/// QProcess runs the program. The application must leave this to QProcess:
///
/// - Do not wait for any child of the process (wait(2), or waitpid(2) with -1). The exit status
///   would be lost, and the command would count as successful.
/// - On kernels without pidfd (before 5.4), Qt installs a handler for SIGCHLD at the first command
///   and ignores SIGPIPE. Do not replace that handler.
///
/// Threads: any thread may call any function; the calls share nothing. Each blocks its caller until
/// the program has ended.
#pragma once

#include <oruio/export.h>
#include <oruio/properties.h>

#include <QStringList>

namespace oru::io {

/// One command line of the maintenance program.
///
/// \code
/// SysCmd("mkfs").addArg("ext4", "-t").addArg("/dev/sda1").exec(1);
/// \endcode
class ORUIO_EXPORT SysCmd {
public:
    /// Begins a command line with the command word `cmd`: "fsck", "mkfs", "format" or "mount.nfs".
    explicit SysCmd(const char* cmd);

    /// Adds `option`, unless it is null, and then `value`, unless it is empty.
    ///
    /// Each is one argument. Nothing is split or quoted, and no shell is involved.
    ///
    /// \returns this object.
    SysCmd& addArg(const QString& value, const char* option = nullptr);

    /// Runs the command until it succeeds, up to `runs` times, without a limit of time.
    ///
    /// The output of a run that fails is logged.
    ///
    /// A program that cannot be started is not tried again. The log has "Unable to exec SysCmd" and
    /// the command line, but neither the path of the program nor the reason, which is one of these:
    /// - The program does not exist or is not executable: check `/usr/local/bin/oruio_sysutils`.
    /// - It was not ready within 5 s.
    /// - An argument contains a NUL or is not valid UTF-16.
    /// - The codec of the locale, which QProcess uses, does not encode an argument as UTF-8.
    /// - The process ignores SIGCHLD, so that the exit status would be lost.
    ///
    /// \returns the exit status of the last run that exited, 0 on success; -1 when a run could not
    /// be started, or every run was killed by a signal. errno and liberrno hold no reason.
    int exec(int runs);

private:
    QStringList m_args;
};

/// Unmounts everything that is mounted on `path`, as umount(2).
///
/// `path` is compared byte for byte with the mount points in `/proc/mounts`:
///
/// - It must be absolute, without symbolic links, ".", ".." and a slash at the end.
/// - A path with a blank, tab, newline or backslash is never found: the table escapes them.
///
/// Mounts that are stacked on one directory are all unmounted. When umount(2) fails, umount2(2) is
/// tried once, with these flags:
///
/// - MNT_DETACH, when `props` is not null and contains the key "lazy", with any value. The mount is
///   detached at once, and unmounted when it is no longer in use.
/// - MNT_FORCE, when the mount is busy (EBUSY).
///
/// \returns 0, also when nothing is mounted on `path`; -1 with errno:
/// - EFAULT: `path` is null;
/// - that of reading the mount table;
/// - that of umount2(2), for the first mount that stays.
ORUIO_EXPORT int umountPath(const char* path, const Properties* props);

} // namespace oru::io
