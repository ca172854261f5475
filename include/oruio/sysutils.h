// SPDX-License-Identifier: Apache-2.0
/// \file
/// Running commands of the maintenance program, and unmounting directories.
///
/// One program, the maintenance program `/usr/local/bin/oruio_sysutils`, does the work that needs
/// privilege or takes long: it checks and makes file systems, formats cards and mounts exports. It
/// gets a command word and arguments on its command line. Exit status 0 is success.
///
/// What the program gets from this process:
///
/// - the environment and the working directory;
/// - a standard input that is at end of file;
/// - no other descriptors, and no blocked signals.
///
/// The program runs in a session of its own (setsid(2)), so no signal of a terminal, such as that
/// of Ctrl-C, reaches it. It writes its output into memory, not into a pipe. So when this process
/// ends or is killed, the program runs on: a repair is never left half done.
///
/// The beginning of its standard output and of its standard error, up to 1 MiB each, is kept for
/// the log. The end is kept for MaintenanceJob::lastLines(). The rest is discarded.
///
/// SysCmd::exec() waits for the program. MaintenanceJob (oruio/maintenancejob.h) runs the same
/// commands while its caller goes on, reports their progress and can cancel some.
///
/// QProcess runs the program. The application must not take the exit status from QProcess:
///
/// - Do not call wait(2), or waitpid(2) with -1: they may take the exit status of the program. The
///   command would then count as successful.
/// - Qt installs a handler for SIGCHLD at the first command, and ignores SIGPIPE. Do not replace
///   this handler, and do not change the action of SIGPIPE.
///
/// Threads: any thread may call any function; the calls share no data. SysCmd::exec() blocks its
/// caller until the program has ended.
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
    /// The option and the value become one argument each. Nothing is split or quoted, and no shell
    /// is involved.
    ///
    /// \returns this object.
    SysCmd& addArg(const QString& value, const char* option = nullptr);

    /// Runs the command until a run succeeds, at most `runs` times, without a time limit.
    ///
    /// The output of a run that fails is logged.
    ///
    /// If the program cannot be started, no further run is tried. The log then contains "Unable to
    /// exec SysCmd" and the command line, but neither the path of the program nor the reason. The
    /// reason is one of these:
    /// - The program does not exist or is not executable: check `/usr/local/bin/oruio_sysutils`.
    /// - The program did not start within 5 s.
    /// - An argument contains a NUL or is not valid UTF-16.
    /// - The codec of the locale, which QProcess uses, does not encode an argument as UTF-8.
    /// - The process ignores SIGCHLD, so that the exit status would be lost.
    ///
    /// errno and liberrno hold no reason of a failure; failure() does.
    ///
    /// \returns the exit status of the last run that exited, 0 on success; -1 in these cases:
    /// - a run could not be started;
    /// - every run was killed by a signal;
    /// - `runs` is less than 1.
    int exec(int runs);

    /// Returns the command word and the arguments.
    const QStringList& arguments() const;

    /// Why the last command of this thread failed, as the maintenance program said: the last line
    /// of its standard error that is not empty. That of the last run, if there were several.
    ///
    /// It is set by exec() and by the operations that run a command and wait for it:
    /// BlockDevice::fsck(), mkfs() and format(), NFS::connect(), and those of the locations.
    ///
    /// \returns an empty string if the command succeeded, could not be started, or the program said
    /// nothing.
    static QString failure();

private:
    QStringList m_args;
};

/// Unmounts everything that is mounted on `path`, as umount(2).
///
/// `path` is compared byte for byte with the mount points in `/proc/mounts`:
///
/// - It must be absolute. It must not contain symbolic links, "." or "..", or end with a slash.
/// - A path with a blank, tab, newline or backslash is never found, because the table escapes these
///   characters. Call umount2(2) for it, as a MediumKeeper does.
///
/// If several mounts are stacked on `path`, all of them are unmounted. When umount(2) fails,
/// umount2(2) is called once, with these flags:
///
/// - MNT_DETACH, if `props` is not null and contains the key "lazy", with any value. The mount is
///   detached at once, and unmounted when it is no longer in use.
/// - MNT_FORCE, if umount(2) failed with EBUSY.
///
/// \returns 0, also when nothing is mounted on `path`; -1 with errno:
/// - EFAULT: `path` is null;
/// - any errno of open(2) or read(2) on the mount table;
/// - any errno of umount2(2). The first mount that cannot be unmounted ends the call.
ORUIO_EXPORT int umountPath(const char* path, const Properties* props);

} // namespace oru::io
