// SPDX-License-Identifier: Apache-2.0
// Memory of ended sessions that cannot be unmapped yet.
#pragma once

#include <oruio/fsipc.h>

#include <QMutex>
#include <QVector>

#include <sys/types.h>

namespace oru::io {

/// Blocks whose client mutex is still held by a living thread.
///
/// The kernel and glibc keep a list of the robust mutexes that a thread holds, linked through the
/// mutexes themselves. If one of them is unmapped, the thread crashes when it locks or unlocks the
/// next one. So when a session is ended by another thread than the one that connected, its block
/// stays mapped until the mutex's owner has ended or connects again.
class DeferredUnmap {
public:
    /// The only one of the process. It is never destroyed, as threads may outlive static objects.
    static DeferredUnmap& instance();

    /// Keeps `block` mapped while `owner`, a thread of this process, holds its client mutex.
    void add(const QSharedPointer<ShmBlock>& block, pid_t owner);

    /// Unmaps the blocks that the calling thread owns, after unlocking them, those whose owner has
    /// ended, and those added by a parent process.
    void sweep();

private:
    struct Entry {
        QSharedPointer<ShmBlock> block;
        pid_t owner;
        unsigned int generation; ///< processGeneration() of the process that added it
    };

    QMutex m_mutex; // guards m_entries
    QVector<Entry> m_entries;
};

} // namespace oru::io
