// SPDX-License-Identifier: Apache-2.0
// A share on the network.
#include "locations/kept_p.h"
#include "locations/mountpoint_p.h"

#include <oruio/fsnfs.h>
#include <oruio/fssmb.h>
#include <oruio/sysutils.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/mount.h>

namespace oru::io {

namespace {

class KeptShare : public Kept {
public:
    KeptShare(StorageLocation& kept, const MediumKeeper::Policy& chosen);

    int step() override;
    int mount(StorageLocation::AccessType access) override;
    int unmount(bool lazy) override;

private:
    bool isBroken() const;
    bool answers();
    int keepConnected();
    int tryToConnect();
    int disconnect(bool lazy);

    RemoteLocation* const m_remote; // null for a location of another class
    Smb2FS* const m_smb;            // null for another file system
    NFS* const m_nfs;               // null for another file system
    // Resolved before the export is mounted: later that may wait for a server that is lost.
    const MountPoint m_exportPoint;
    bool m_isConnected = false;
    QDeadlineTimer m_nextProbe;
};

KeptShare::KeptShare(StorageLocation& kept, const MediumKeeper::Policy& chosen)
    : Kept(kept, chosen), m_remote(qobject_cast<RemoteLocation*>(&kept)),
      m_smb(dynamic_cast<Smb2FS*>(kept.fs().data())), m_nfs(dynamic_cast<NFS*>(kept.fs().data())),
      m_exportPoint(m_nfs ? m_nfs->mountPoint() : QString()) {}

int KeptShare::step() {
    if (m_isConnected)
        return keepConnected();
    if (m_wanted == StorageLocation::None) {
        setAccess(StorageLocation::None);
        setState(MediumKeeper::Absent);
        return never;
    }
    if (m_retry.isDue() && tryToConnect() == 0)
        return keepConnected();
    return m_retry.remaining();
}

/// Whether the share is unusable, as far as is known without asking its server.
bool KeptShare::isBroken() const {
    if (m_smb)
        return m_smb->brokenBy() != 0;
    // NFS::isConnected() does not notice that another program has unmounted the export.
    return m_nfs && m_exportPoint.mounts().isEmpty();
}

bool KeptShare::answers() {
    m_nextProbe = QDeadlineTimer(policy.probeMs);
    return (!m_remote || m_remote->ping()) && !isBroken();
}

int KeptShare::keepConnected() {
    constexpr int glanceMs = 250; // isBroken() costs next to nothing
    if (isBroken() || (m_nextProbe.hasExpired() && !answers())) {
        disconnect(true);
        m_retry.reset();
        setState(MediumKeeper::Failed, QStringLiteral("the connection is lost"));
        return 0;
    }
    const bool isWriteable = location.access() == StorageLocation::Write;
    setAccess(isWriteable ? StorageLocation::Write : StorageLocation::Read);
    setState(MediumKeeper::Mounted);
    return std::min(glanceMs, std::max(static_cast<int>(m_nextProbe.remainingTime()), 0));
}

int KeptShare::tryToConnect() {
    errno = 0;
    const int result = location.mount(nullptr);
    const int error = errno;
    m_isConnected = result == 0 && !isBroken();
    if (!m_isConnected) {
        setAccess(StorageLocation::None);
        m_retry.fail();
        QString why = m_smb ? m_smb->connectFailure().message.trimmed() : QString();
        if (m_nfs)
            why = SysCmd::failure();
        if (why.isEmpty() && result > 0)
            why = QStringLiteral("it cannot be mounted (%1)").arg(result);
        else if (why.isEmpty())
            why = error ? QString::fromUtf8(std::strerror(error))
                        : QStringLiteral("it cannot be connected");
        setState(MediumKeeper::Failed, why);
        errno = error;
        return -1;
    }
    bool isWriteable = m_wanted == StorageLocation::Write;
    if (isWriteable && m_remote)
        m_remote->probe(&isWriteable, nullptr, true); // it is connected
    if (!isWriteable)
        setAccess(StorageLocation::Read);
    m_retry.reset();
    m_nextProbe = QDeadlineTimer(policy.probeMs);
    return 0;
}

/// Disconnects. An export whose server is lost can only be detached.
int KeptShare::disconnect(bool lazy) {
    int result = location.umount(nullptr);
    if (result != 0 && lazy && m_nfs && m_exportPoint.unmountLast(MNT_FORCE | MNT_DETACH) == 0)
        result = location.umount(nullptr);
    if (result == 0 || lazy) {
        m_isConnected = false;
        setAccess(StorageLocation::None);
    }
    return result == 0 ? 0 : -1;
}

int KeptShare::mount(StorageLocation::AccessType access) {
    const bool isOtherwise = m_isConnected && m_wanted != access;
    m_wanted = access;
    if (isOtherwise && disconnect(false) != 0)
        return -1;
    if (m_isConnected && step() >= 0 && state == MediumKeeper::Mounted)
        return 0;
    m_retry.reset();
    const int result = tryToConnect();
    const int error = errno;
    if (result == 0)
        keepConnected();
    errno = error;
    return result;
}

int KeptShare::unmount(bool lazy) {
    const StorageLocation::AccessType wanted = m_wanted;
    m_wanted = StorageLocation::None;
    if (m_isConnected && disconnect(lazy) != 0 && m_isConnected) {
        m_wanted = wanted;
        return -1;
    }
    step();
    return 0;
}

} // namespace

std::unique_ptr<Kept> makeKeptShare(StorageLocation& location, const MediumKeeper::Policy& policy) {
    return std::make_unique<KeptShare>(location, policy);
}

} // namespace oru::io
