// SPDX-License-Identifier: Apache-2.0
#include "support/ipc/tracerecorder.h"

#include "core/errnosaver_p.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <random>
#include <utility>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace oru::io::test {

using namespace ipcwire;

namespace {

constexpr std::uint64_t traceMagic = 0x6563617274637069;
constexpr std::size_t maxSteps = 48;

struct TraceHeader {
    std::uint64_t magic;
    std::uint64_t capacity;
    std::atomic<std::uint64_t> claimed;
    std::atomic<std::uint32_t> areas;
    std::atomic<std::uint64_t> counts[maxSteps][2]; // by step, and by whether it has a value
};

constexpr std::size_t headerSize = 4096;
static_assert(sizeof(TraceHeader) <= headerSize);

TraceHeader* recording = nullptr;

TraceEvent* eventsOf(TraceHeader* header) {
    return reinterpret_cast<TraceEvent*>(reinterpret_cast<char*>(header) + headerSize);
}

void* mapFile(int fd, std::size_t size) {
    void* const base = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                            fd == -1 ? MAP_SHARED | MAP_ANONYMOUS : MAP_SHARED, fd, 0);
    return base == MAP_FAILED ? nullptr : base;
}

/// Maps a file that exists. \returns null when it is not a trace.
TraceHeader* openTrace(const char* path) {
    const int fd = ::open(path, O_RDWR | O_CLOEXEC);
    struct stat st = {};
    void* base = nullptr;
    if (fd != -1 && fstat(fd, &st) == 0 && st.st_size >= static_cast<off_t>(headerSize))
        base = mapFile(fd, st.st_size);
    if (fd != -1)
        ::close(fd);
    auto* const header = static_cast<TraceHeader*>(base);
    const auto isWhole = [&] {
        return header->magic == traceMagic && headerSize + header->capacity * sizeof(TraceEvent) <=
                                                  static_cast<std::uint64_t>(st.st_size);
    };
    return header && isWhole() ? header : nullptr;
}

[[maybe_unused]] const bool isOpenedByEnvironment = [] {
    const char* const path = std::getenv("ORUIO_IPC_TRACE_FILE");
    if (path && !recording)
        recording = openTrace(path);
    return recording != nullptr;
}();

/// The number of an area. It is stored in the area itself, in the last of the unused bytes.
std::uint32_t numberOf(const Area& area) {
    constexpr std::size_t offset = offsetof(Area, buffers) - sizeof(std::uint32_t);
    auto* const place = reinterpret_cast<std::uint32_t*>(
        const_cast<char*>(reinterpret_cast<const char*>(&area)) + offset);
    std::uint32_t number = __atomic_load_n(place, __ATOMIC_RELAXED);
    if (number != 0)
        return number;
    const std::uint32_t next = ++recording->areas;
    return __atomic_compare_exchange_n(place, &number, next, false, __ATOMIC_RELAXED,
                                       __ATOMIC_RELAXED)
               ? next
               : number;
}

bool startsWith(const char* text, const char* name) {
    return std::strncmp(text, name, std::strlen(name)) == 0;
}

/// Classifies a request. `index` becomes that of its data buffer.
RequestKind kindOf(const char* text, std::int32_t& index) {
    if (std::strcmp(text, op::connect) == 0)
        return RequestKind::Connect;
    if (std::strcmp(text, op::disconnect) == 0)
        return RequestKind::Disconnect;
    RequestKind kind = RequestKind::Other;
    if (startsWith(text, "read ") || startsWith(text, "pread "))
        kind = RequestKind::Read;
    else if (startsWith(text, "write ") || startsWith(text, "pwrite "))
        kind = RequestKind::Write;
    else
        return kind;
    int fd = -1;
    FieldReader(std::strchr(text, ' ') + 1).number(fd).separator(' ').number(index);
    return kind;
}

std::uint64_t hashOf(const char* text) {
    std::uint64_t hash = 14695981039346656037U;
    for (; *text; ++text)
        hash = (hash ^ static_cast<unsigned char>(*text)) * 1099511628211U;
    return hash;
}

std::int32_t threadNumber() {
    return static_cast<std::int32_t>(syscall(SYS_gettid));
}

std::atomic<unsigned int> delayedSteps{0};

void delay() {
    if (delayedSteps == 0)
        return;
    thread_local std::minstd_rand random(static_cast<unsigned int>(threadNumber()));
    if (random() % (2 * delayedSteps) == 0)
        usleep(random() % 200);
}

std::atomic<int> deadlyPoint{0};

/// Dies if this is the point to die at.
void point() {
    if (deadlyPoint > 0 && --deadlyPoint == 0) {
        recordDeath();
        ::kill(getpid(), SIGKILL);
        pause();
    }
}

/// Claims the next place. \returns null when there is no room.
TraceEvent* claim(Step step, int value) {
    const auto row = static_cast<std::size_t>(step);
    recording->counts[row][value != 0].fetch_add(1, std::memory_order_relaxed);
    const std::uint64_t number = recording->claimed.fetch_add(1);
    return number < recording->capacity ? eventsOf(recording) + number : nullptr;
}

void fill(TraceEvent& place, TraceEvent event) {
    event.process = getpid();
    event.thread = threadNumber();
    event.number = static_cast<std::uint64_t>(&place - eventsOf(recording));
    event.isValid = 0;
    std::memcpy(&place, &event, sizeof event);
    __atomic_store_n(&place.isValid, 1, __ATOMIC_RELEASE);
}

struct StepAction {
    std::atomic<int> count{0};
    std::function<void()> run;
};
StepAction actions[maxSteps];

} // namespace

bool startTrace(const std::string& path, std::uint64_t capacity) {
    stopTrace();
    const std::size_t size = headerSize + capacity * sizeof(TraceEvent);
    int fd = -1;
    if (capacity > 0) {
        fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd == -1 || ftruncate(fd, static_cast<off_t>(size)) != 0)
            return false;
    }
    void* const base = mapFile(fd, size);
    if (fd != -1)
        ::close(fd);
    if (!base)
        return false;
    auto* const header = new (base) TraceHeader{};
    header->magic = traceMagic;
    header->capacity = capacity;
    recording = header;
    return true;
}

void stopTrace() {
    if (recording)
        munmap(recording, headerSize + recording->capacity * sizeof(TraceEvent));
    recording = nullptr;
}

void recordDeath(pid_t process) {
    if (!recording)
        return;
    TraceEvent event = {};
    event.step = Step::Death;
    event.value = process ? process : getpid();
    event.index = -1;
    if (TraceEvent* const place = claim(event.step, 1))
        fill(*place, event);
}

std::uint64_t tracedSteps() {
    return recording ? recording->claimed.load() : 0;
}

std::uint64_t tracedSteps(Step step, bool hasValue) {
    return recording ? recording->counts[static_cast<std::size_t>(step)][hasValue].load() : 0;
}

Trace readTrace(const std::string& path) {
    Trace trace;
    TraceHeader* const header = openTrace(path.c_str());
    if (!header)
        return trace;
    const std::uint64_t count = std::min(header->claimed.load(), header->capacity);
    trace.isComplete = header->claimed <= header->capacity;
    trace.events.reserve(count);
    std::copy_if(eventsOf(header), eventsOf(header) + count, std::back_inserter(trace.events),
                 [](const TraceEvent& event) {
                     return __atomic_load_n(&event.isValid, __ATOMIC_ACQUIRE) == 1;
                 });
    trace.holes = count - trace.events.size();
    munmap(header, headerSize + header->capacity * sizeof(TraceEvent));
    return trace;
}

void runAtStep(Step step, int count, std::function<void()> action) {
    StepAction& planned = actions[static_cast<std::size_t>(step)];
    planned.count = 0;
    planned.run = std::move(action);
    planned.count = count;
}

void delaySteps(unsigned int steps) {
    delayedSteps = steps;
}

void dieAtTracePoint(int point) {
    deadlyPoint = point;
}

std::string nameOf(Step step) {
    static const char* const names[] = {
        "lockBlock",
        "unlockBlock",
        "freeBuffer",
        "retire",
        "giveUp",
        "serverGone",
        "lockClientMutex",
        "countSession",
        "cancel",
        "settled",
        "publish",
        "post",
        "takeResponse",
        "done",
        "reserveBuffer",
        "fillBuffer",
        "releaseClientMutex",
        "lockServerMutex",
        "releaseServerMutex",
        "beginReset",
        "semaphoresInitialised",
        "idle",
        "wake",
        "accept",
        "copied",
        "execute",
        "cancelledResponse",
        "respond",
        "clientMutexRemade",
        "terminate",
        "stop",
        "death",
    };
    static_assert(std::size(names) == static_cast<std::size_t>(Step::Death) + 1);
    const auto number = static_cast<std::size_t>(step);
    return number < std::size(names) ? names[number] : "unknown";
}

std::string describe(const TraceEvent& event) {
    static const char* const kinds[] = {"", "connect", "disconnect", "read", "write", "operation"};
    char text[200];
    snprintf(text, sizeof text, "%llu: process %d thread %d area %u session %u: %s %s %d buffer %d",
             static_cast<unsigned long long>(event.number), event.process, event.thread, event.area,
             event.session, nameOf(event.step).c_str(),
             kinds[std::min<std::size_t>(static_cast<std::size_t>(event.kind), 5)], event.value,
             event.index);
    return text;
}

} // namespace oru::io::test

namespace oru::io::ipcwire {

using test::RequestKind;
using test::TraceEvent;

void recordStep(Step step, const Area& area, int value, int index, const char* text) {
    if (!test::recording)
        return;
    const ErrnoSaver saver;
    TraceEvent event = {};
    event.area = test::numberOf(area);
    event.session = __atomic_load_n(&area.sessions, __ATOMIC_RELAXED);
    event.value = value;
    event.index = index;
    event.step = step;
    if (text) {
        event.kind = test::kindOf(text, event.index);
        event.text = test::hashOf(text);
    }
    test::delay();
    test::point();
    TraceEvent* const place = test::claim(step, value);
    test::point();
    if (place)
        test::fill(*place, event);
    test::point();
    test::delay();
    auto& planned = test::actions[static_cast<std::size_t>(step)];
    if (planned.count > 0 && --planned.count == 0) {
        const auto action = std::move(planned.run); // it may plan the next one
        action();
    }
}

} // namespace oru::io::ipcwire
