// SPDX-License-Identifier: Apache-2.0
#include "media/program_p.h"

#include "core/systemtext_p.h"

#include <QProcessEnvironment>

#include <algorithm>
#include <cerrno>
#include <csignal>

#include <dirent.h>
#include <fcntl.h>
#include <linux/falloc.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace oru::io {

namespace {

const QString fl_sysCmdPath = QStringLiteral("/usr/local/bin/oruio_sysutils");
constexpr int startLimitMs = 5000;

const QString progressVariable = QStringLiteral("ORUIO_PROGRESS_FD");

constexpr int lastLinesBytes = 16 << 10;
/// More than a page above lastLinesBytes: memory is freed in whole pages.
constexpr qint64 keptEnd = 128 << 10;
constexpr qint64 muchOutput = 1 << 20;

/// Whether this process can wait for its children. If not, QProcess takes each exit for a success.
bool canWaitForChildren() {
    struct sigaction action = {};
    sigaction(SIGCHLD, nullptr, &action);
    return action.sa_handler != SIG_IGN && !(action.sa_flags & SA_NOCLDWAIT);
}

/// Checks that QProcess passes all arguments to a program unchanged. \returns false with errno.
bool checkArguments(const QStringList& arguments) {
    return std::all_of(arguments.begin(), arguments.end(), checkQtEncoding);
}

/// Marks every descriptor above stderr close-on-exec. Runs between fork(2) and exec(3), so it makes
/// system calls only.
void closeDescriptorsOnExec() {
    constexpr unsigned int closeRangeCloexec = 4; // CLOSE_RANGE_CLOEXEC
    if (syscall(SYS_close_range, 3U, ~0U, closeRangeCloexec) == 0)
        return;
    // Before Linux 5.11. Not a loop up to the limit: it may be a billion, and after it was lowered
    // there may be descriptors above it.
    const int directory = ::open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    alignas(struct dirent64) char entries[1024];
    long size = 0;
    while ((size = syscall(SYS_getdents64, directory, entries, sizeof entries)) > 0) {
        for (long at = 0; at < size;) {
            const auto* const entry = reinterpret_cast<const struct dirent64*>(entries + at);
            int fd = 0;
            for (const char* digit = entry->d_name; *digit >= '0' && *digit <= '9'; ++digit)
                fd = fd * 10 + (*digit - '0');
            if (fd >= 3)
                fcntl(fd, F_SETFD, FD_CLOEXEC);
            at += entry->d_reclen;
        }
    }
}

/// Occupies the standard descriptors that are closed. So no other new descriptor, such as the one
/// through which QProcess learns of a failed execve(2), is where the child gets its streams.
class StandardDescriptors {
public:
    StandardDescriptors() {
        while ((m_last = ::open("/dev/null", O_RDWR | O_CLOEXEC)) != -1 && m_last <= STDERR_FILENO)
            m_occupied[m_count++] = m_last;
    }
    ~StandardDescriptors() {
        while (m_count > 0)
            ::close(m_occupied[--m_count]);
        if (m_last != -1)
            ::close(m_last);
    }
    StandardDescriptors(const StandardDescriptors&) = delete;
    StandardDescriptors& operator=(const StandardDescriptors&) = delete;

private:
    int m_occupied[STDERR_FILENO + 1] = {};
    int m_count = 0;
    int m_last = -1;
};

void closeOpen(int& fd) {
    if (fd != -1)
        ::close(fd);
    fd = -1;
}

} // namespace

OutputFile::~OutputFile() {
    closeOpen(m_fd);
}

bool OutputFile::open() {
    m_fd = memfd_create("oruio-output", MFD_CLOEXEC);
    // A program may open its own /dev/stderr again.
    return m_fd != -1 && fcntl(m_fd, F_SETFL, O_APPEND) == 0;
}

int OutputFile::descriptor() const {
    return m_fd;
}

qint64 OutputFile::size() const {
    struct stat st = {};
    return m_fd != -1 && fstat(m_fd, &st) == 0 ? st.st_size : 0;
}

QByteArray OutputFile::read(qint64 from, int count) const {
    QByteArray bytes(count, Qt::Uninitialized);
    const ssize_t length = pread(m_fd, bytes.data(), static_cast<size_t>(count), from);
    bytes.truncate(static_cast<int>(std::max<ssize_t>(length, 0)));
    return bytes;
}

QByteArray OutputFile::beginning() const {
    return read(0, static_cast<int>(std::min<qint64>(size(), longestBeginning)));
}

QStringList OutputFile::lastLines(int count) const {
    const qint64 length = size();
    QByteArray bytes = read(std::max<qint64>(length - lastLinesBytes, 0), lastLinesBytes);
    const int firstEnd = bytes.indexOf('\n');
    if (length > lastLinesBytes && firstEnd != -1)
        bytes.remove(0, firstEnd + 1); // the end of a line
    bytes.replace('\r', '\n');
    QStringList lines;
    for (const QByteArray& line : bytes.split('\n')) {
        const QString whole = decoded(line.constData(), line.size()).trimmed();
        if (!whole.isEmpty())
            lines.append(whole);
    }
    return lines.mid(std::max(lines.size() - count, 0));
}

bool OutputFile::trim(int kept) {
    const qint64 to = size() - keptEnd;
    if (to <= kept)
        return false;
    fallocate(m_fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, kept, to - kept);
    const bool wasMuch = to - m_trimmedTo > muchOutput;
    m_trimmedTo = to;
    return wasMuch;
}

ProgressPipe::~ProgressPipe() {
    closeOpen(m_readEnd);
    closeOpen(m_writeEnd);
}

bool ProgressPipe::open() {
    int ends[2] = {-1, -1};
    const bool isOpen = pipe2(ends, O_CLOEXEC | O_NONBLOCK) == 0;
    m_readEnd = ends[0];
    m_writeEnd = ends[1];
    return isOpen;
}

void ProgressPipe::closeWriteEnd() {
    closeOpen(m_writeEnd);
}

int ProgressPipe::writeEnd() const {
    return m_writeEnd;
}

void ProgressPipe::read(ProgressLines& lines) const {
    if (m_readEnd == -1)
        return;
    char bytes[4096];
    for (int i = 0; i < 16; ++i) {
        const ssize_t count = ::read(m_readEnd, bytes, sizeof bytes);
        if (count <= 0)
            return;
        lines.add(bytes, static_cast<int>(count));
    }
}

Program::Program() {
    connect(this, &QProcess::started, this, [this] { m_hasStarted = true; });
}

Program::~Program() {
    awaitStart();
    disconnect();
    // QProcess kills a program that is still running. Qt's handler of SIGCHLD takes the exit
    // status.
    if (m_hasStarted)
        setProcessState(NotRunning);
}

void Program::setVariables(const Properties& variables) {
    // An inherited number would be that of a descriptor which the program does not get.
    if (variables.isEmpty() && m_pipe.writeEnd() == -1 &&
        !qEnvironmentVariableIsSet("ORUIO_PROGRESS_FD"))
        return;
    QProcessEnvironment all = QProcessEnvironment::systemEnvironment();
    all.remove(progressVariable);
    for (auto variable = variables.begin(); variable != variables.end(); ++variable)
        all.insert(variable.key(), variable.value().toString());
    if (m_pipe.writeEnd() != -1)
        all.insert(progressVariable, QString::number(m_pipe.writeEnd()));
    setProcessEnvironment(all);
}

bool Program::begin(const QStringList& arguments, const Properties& environment,
                    bool reportsProgress) {
    if (!checkArguments(arguments))
        return false;
    if (!canWaitForChildren()) {
        errno = ECHILD;
        return false;
    }
    const StandardDescriptors standard;
    if (!output.open() || !errors.open() || (reportsProgress && !m_pipe.open()))
        return false;
    setVariables(environment);
    setStandardInputFile(nullDevice()); // a program that asks a question reads the end of the file
    setProcessChannelMode(ForwardedChannels); // no pipes: setupChildProcess() sets the streams
    m_startDeadline.setRemainingTime(startLimitMs);
    start(fl_sysCmdPath, arguments, QIODevice::ReadOnly);
    m_pipe.closeWriteEnd();
    return true;
}

bool Program::hasEnded() const {
    return state() == NotRunning || (state() == Starting && m_startDeadline.hasExpired());
}

bool Program::hasStarted() const {
    return m_hasStarted;
}

void Program::awaitStart() {
    if (state() == Starting)
        waitForStarted(static_cast<int>(m_startDeadline.remainingTime()));
}

void Program::readProgress() {
    m_pipe.read(progress);
}

void Program::setupChildProcess() {
    // A file that is open on one medium must not keep that busy while another is checked.
    closeDescriptorsOnExec();
    dup2(output.descriptor(), STDOUT_FILENO);
    dup2(errors.descriptor(), STDERR_FILENO);
    if (m_pipe.writeEnd() != -1)
        fcntl(m_pipe.writeEnd(), F_SETFD, 0);
    setsid();
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

} // namespace oru::io
