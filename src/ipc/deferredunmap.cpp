// SPDX-License-Identifier: Apache-2.0
#include "ipc/deferredunmap_p.h"

#include "ipc/ipcwire_p.h"
#include "ipc/threadid_p.h"

#include <algorithm>

#include <pthread.h>

namespace oru::io {

using namespace ipcwire;

DeferredUnmap& DeferredUnmap::instance() {
    static auto* const blocks = new DeferredUnmap;
    return *blocks;
}

void DeferredUnmap::add(const QSharedPointer<ShmBlock>& block, pid_t owner) {
    const QMutexLocker lock(&m_mutex);
    m_entries.append({block, owner, processGeneration()});
}

void DeferredUnmap::sweep() {
    const QMutexLocker lock(&m_mutex);
    const auto canUnmap = [](const Entry& entry) {
        if (entry.generation != processGeneration())
            return true;
        pthread_mutex_t& clientMutex = areaOf(shmAt(entry.block->base())).control.clientMutex;
        return entry.owner == currentThread() ? pthread_mutex_unlock(&clientMutex) == 0
                                              : !isAlive(entry.owner);
    };
    m_entries.erase(std::remove_if(m_entries.begin(), m_entries.end(), canUnmap), m_entries.end());
}

} // namespace oru::io
