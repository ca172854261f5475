// SPDX-License-Identifier: Apache-2.0
#include "password.h"

#include "failure.h"
#include "stopsignal.h"

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace {

/// The terminal of this process, without echo while this object exists.
class SilentTerminal {
public:
    SilentTerminal() : m_fd(open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        if (m_fd < 0 || tcgetattr(m_fd, &m_before) != 0)
            return;
        termios silent = m_before;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        // Disables the keys of SIGQUIT and SIGTSTP. The key of SIGINT interrupts readLine().
        silent.c_cc[VQUIT] = _POSIX_VDISABLE;
        silent.c_cc[VSUSP] = _POSIX_VDISABLE;
        m_isSilent = tcsetattr(m_fd, TCSAFLUSH, &silent) == 0;
    }
    ~SilentTerminal() {
        if (m_isSilent) {
            write("\n");
            tcsetattr(m_fd, TCSADRAIN, &m_before);
        }
        if (m_fd >= 0)
            close(m_fd);
    }

    bool isSilent() const {
        return m_isSilent;
    }

    void write(const QByteArray& string) {
        dprintf(m_fd, "%s", string.constData());
    }

    /// \returns the line without its newline. Throws Failure.
    QByteArray readLine() {
        QByteArray line;
        char piece[256];
        while (!line.endsWith('\n')) {
            waitForInput();
            const ssize_t count = read(m_fd, piece, sizeof piece);
            if (count < 0)
                throw cannot("read the password");
            if (count == 0)
                return line;
            line.append(piece, static_cast<int>(count));
        }
        line.chop(1);
        return line;
    }

private:
    Q_DISABLE_COPY(SilentTerminal)

    /// Blocks the signals except during ppoll(): a signal just before would not interrupt it.
    void waitForInput() {
        sigset_t stops;
        sigset_t before;
        sigemptyset(&stops);
        sigaddset(&stops, SIGINT);
        sigaddset(&stops, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &stops, &before);
        struct pollfd input = {m_fd, POLLIN, 0};
        while (!stopsignal::isRequested() && ppoll(&input, 1, nullptr, &before) < 0 &&
               errno == EINTR) {
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        if (stopsignal::isRequested())
            throw Failure{"interrupted"};
    }

    const int m_fd;
    termios m_before = {};
    bool m_isSilent = false;
};

QByteArray askFor(const QString& whom) {
    SilentTerminal terminal;
    if (!terminal.isSilent())
        throw Failure{QStringLiteral("no terminal to ask for the password of %1 on, and %2 is not "
                                     "set")
                          .arg(whom, passwordVariable)};
    terminal.write(QStringLiteral("Password of %1: ").arg(whom).toUtf8());
    return terminal.readLine();
}

} // namespace

QString obtainPassword(const QString& whom) {
    const QByteArray password =
        qEnvironmentVariableIsSet(passwordVariable) ? qgetenv(passwordVariable) : askFor(whom);
    // With an empty password the library would begin an anonymous session, not one of this user.
    if (password.isEmpty())
        throw Failure{QStringLiteral("the password of %1 is empty").arg(whom)};
    return QString::fromUtf8(password);
}
