// Commands of the device's maintenance program, and unmounting.
//
// Whatever takes privilege or long (checking a file system, making one, formatting a card, mounting
// an export) is the business of one program, /usr/local/bin/oruio_sysutils. It gets a command word
// and its arguments on its command line, and succeeds with exit status 0.
//
// The program gets the environment and the working directory of the process, stays in its process
// group, and finds its standard input at its end. It gets none of the process's descriptors and
// blocked signals. Up to 1 MiB of each of its output streams is kept in memory.
//
// QProcess runs it. So nobody else in the process may wait for its children (wait(2), waitpid(2)
// with -1): how they end would be lost, and the command would count as successful. Where the kernel
// has no pidfd (before 5.4), Qt installs a handler for SIGCHLD at the first command, which has to
// stay, and ignores SIGPIPE.
//
// Threads: calls share nothing. Each blocks its caller until the program has ended.
#pragma once

#include <oruio/export.h>
#include <oruio/properties.h>

#include <QStringList>

namespace oru::io {

/// One command line of the maintenance program.
///
///     SysCmd("mkfs").addArg("ext4", "-t").addArg("/dev/sda1").exec(1);
class ORUIO_EXPORT SysCmd {
public:
    /// `cmd` is the command word: "fsck", "mkfs", "format" or "mount.nfs".
    explicit SysCmd(const char* cmd);

    /// Adds `option`, unless it is null, and `value`, unless it is empty, each as an argument of
    /// its own: nothing is split, quoted or seen by a shell. \returns this object.
    SysCmd& addArg(const QString& value, const char* option = nullptr);

    /// Runs the command until it succeeds, up to `runs` times, without a limit of time. What a run
    /// that fails has written is logged.
    /// \returns the last run's exit status; -1 when none was started, or none ended by itself;
    /// errno and liberrno say nothing. A program that cannot be started is not tried again: it is
    /// not there or not ready within 5 s; an argument contains a NUL, is no text, or is one that
    /// the locale's codec, in which QProcess hands it on, does not write as UTF-8; or the process
    /// ignores SIGCHLD and would not learn how it ends.
    int exec(int runs);

private:
    QStringList m_args;
};

/// Unmounts, by umount(2), what is mounted on `path`, which is compared with the kernel's table of
/// mounts byte for byte. So it has to be spelled as there: absolute, without symbolic links, ".",
/// ".." and a slash at its end; one with blanks, tabs, newlines or backslashes, which are escaped
/// there, is never found. Mounts stacked on one directory all go. One that cannot be unmounted is
/// tried once more by umount2(2): with MNT_DETACH, which detaches it at once and ends it with its
/// last user, if `props` is given and contains "lazy", whatever its value; and with MNT_FORCE if it
/// is busy. \returns 0, also when nothing is mounted there; else -1 with errno, at the first that
/// stays, or EFAULT when `path` is null.
ORUIO_EXPORT int umountPath(const char* path, const Properties* props);

} // namespace oru::io
