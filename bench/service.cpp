// SPDX-License-Identifier: Apache-2.0
#include "service.h"

#include "clip.h"
#include "files.h"
#include "mounts.h"

#include <cstdio>
#include <cstdlib>

#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr char clipPath[] = "/clip.mov";

/// Creates memory for a Floor. Programs started later inherit the descriptor. \returns it, or
/// -1.
int makeSharedMemory() {
    const int fd = memfd_create("oruio-bench", 0);
    return fd != -1 && ftruncate(fd, sizeof(Floor)) == 0 ? fd : -1;
}

} // namespace

Service& Service::instance() {
    static Service service;
    return service;
}

Service::Service() : m_directory(directoryTemplate()) {
    makeFile(m_directory, clipPath, clipSize);
    // A system has only one service. Without a private namespace this is the system's.
    hasPrivateMounts();
    const int shared = makeSharedMemory();
    m_floor = mapFloor(shared);
    const bool isServed =
        m_floor && sem_init(&m_floor->pingPong.ping, 1, 0) == 0 &&
        sem_init(&m_floor->pingPong.pong, 1, 0) == 0 && sem_init(&m_floor->begin, 1, 0) == 0 &&
        m_server.startUntilReady(ORUIO_BENCH_SERVER, {m_directory.path(), QString::number(shared),
                                                      m_directory.path() + clipPath}) &&
        m_client.connect(1, nullptr) == 0;
    close(shared);
    if (!isServed) {
        std::fprintf(stderr, "cannot start the file service\n");
        m_directory.remove();
        std::exit(1);
    }
}

Service::~Service() {
    m_client.disconnect();
    munmap(m_floor, sizeof *m_floor);
}

oru::io::FS& Service::fs() {
    return m_client;
}

PingPong& Service::pingPong() {
    return m_floor->pingPong;
}

Floor& Service::floor() {
    return *m_floor;
}

QString Service::clip() const {
    return clipPath;
}

std::string Service::systemClip() const {
    return (m_directory.path() + clipPath).toStdString();
}

QString Service::systemDirectory() const {
    return m_directory.path();
}
