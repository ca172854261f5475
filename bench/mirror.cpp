// SPDX-License-Identifier: Apache-2.0
#include "mirror.h"

#include "mounts.h"
#include "service.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace {

/// In the private memory file system, so it is removed with that.
constexpr char mountPoint[] = "/dev/shm/mirror";

bool isMounted() {
    constexpr int fuse = 0x65735546;
    struct statfs st;
    return statfs(mountPoint, &st) == 0 && st.f_type == fuse;
}

} // namespace

Mirror& Mirror::instance() {
    static Mirror mirror;
    return mirror;
}

Mirror::Mirror() : m_lastError(mount()) {}

Mirror::~Mirror() {
    if (m_lastError.empty())
        umount2(mountPoint, MNT_DETACH);
}

/// \returns why it failed, empty on success.
std::string Mirror::mount() {
    const QString directory = Service::instance().systemDirectory();
    if (!hasPrivateMounts())
        return "no privilege to mount";
    if (access("/dev/fuse", R_OK | W_OK) != 0)
        return "no access to /dev/fuse";
    if (mkdir(mountPoint, 0700) != 0)
        return "no directory to mount on";
    m_bindfs.start("bindfs", {"-f", "-o", "attr_timeout=0,entry_timeout=0,negative_timeout=0",
                              directory, mountPoint});
    if (!m_bindfs.waitForStarted())
        return "bindfs is not installed";
    constexpr int pollMs = 5;
    for (int tries = 0; tries < 1000 && !m_bindfs.waitForFinished(pollMs); ++tries) {
        if (isMounted())
            return {};
    }
    return "bindfs does not mount: " + m_bindfs.readAllStandardError().toStdString();
}

const std::string& Mirror::lastError() const {
    return m_lastError;
}

std::string Mirror::clip() const {
    return mountPoint + Service::instance().clip().toStdString();
}
