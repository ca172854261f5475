// SPDX-License-Identifier: Apache-2.0
// The automaton for one area. tracechecker.h describes the rules.
#pragma once

#include "support/ipc/tracechecker.h"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

namespace oru::io::test {

/// Thrown when a step is refused.
struct Refusal {
    std::string rule;
    std::string reason;
};

inline void require(bool condition, const char* rule, const char* reason) {
    if (!condition)
        throw Refusal{rule, reason};
}

class AreaChecker {
public:
    explicit AreaChecker(const DyingProcesses& dying);

    void step(const TraceEvent& event);
    /// Checks that nothing is left at the end of the record.
    void finish() const;
    /// Whether a server has started in this area and the name still leads to it.
    bool isNamed() const;

private:
    enum class Purpose { None, Attempt, Connect, Disconnect, Serve, Retire };
    struct Block {
        bool isHeld = false;
        pid_t process = 0;
        int thread = 0;
        Purpose purpose = Purpose::None;
    };

    enum class ClientPhase {
        Locked,    // holds the client mutex
        Counted,   // has counted its session
        Settling,  // waits until the state is neither Copying nor Ending
        MustEnd,   // a predecessor has not disconnected
        MayEnd,    // has set the state to Done for its "disconnect"
        Ready,     // may send "connect"
        Published, // has published a request, and will post it
        Waiting,   // for the response
        Taken,     // has the post of the response
        Greeted,   // "connect" was answered
        InSession,
        AwaitingIdle,
        Ended,   // the server has ended the session
        GaveUp,  // no response came
        Leaving, // has nothing published any more
    };
    enum class BufferPhase { None, Reserved, Filled, Lent };
    struct Client {
        pid_t process = 0;
        ClientPhase phase = ClientPhase::Locked;
        std::uint32_t session = 0;
        int buffer = -1;
        BufferPhase bufferPhase = BufferPhase::None;
        bool isConnected = false;
        bool isCancelled = false; // the response that it has taken is ECANCELED
    };

    enum class ServerPhase {
        None,
        Starting,
        Resetting,
        SemaphoresInitialised,
        Loop,
        Woken,
        Stopping,
        Answered, // has sent what it sends when it stops
        Released,
    };
    struct Server {
        pid_t process = 0;
        int thread = 0;
        ServerPhase phase = ServerPhase::None;
        bool mustReset = false; // has answered "disconnect"
        bool isTold = false;    // to terminate
        bool isDead = false;
    };
    /// A thread that takes a request: the server's, or one in terminate().
    enum class TakerPhase { Copying, Copied, Executing, Cancelling };
    struct Taker {
        TakerPhase phase;
        bool isCancelling; // the server stops: the request is not executed
    };

    struct Request {
        std::uint64_t number = 0; // of the event Publish; 0: no request
        std::uint32_t session = 0;
        RequestKind kind = RequestKind::None;
        int buffer = -1;
        std::uint64_t text = 0;
        bool isCancelled = false;
        bool isBufferFreed = false;
    };
    /// What a client has traced, but perhaps not done if it was killed.
    struct Undo {
        int thread = 0;
        pid_t process = 0;
        char state = 0; // before
    };

    // areachecker.cpp
    bool isServerStopping() const;
    bool isDead(pid_t process);
    bool takes(const TraceEvent& event, TakerPhase phase) const;
    void lockBlock(const TraceEvent& event);
    void unlockBlock(const TraceEvent& event);
    void retire(const TraceEvent& event);
    void giveUp(const TraceEvent& event);
    void freeBuffer(const TraceEvent& event);

    // areachecker_client.cpp
    bool clientStep(const TraceEvent& event);
    bool clientExchange(const TraceEvent& event);
    Client& holder(const TraceEvent& event);
    void enter(const TraceEvent& event, ClientPhase from, ClientPhase to);
    void serverGone(const TraceEvent& event);
    void lockClientMutex(const TraceEvent& event);
    void countSession(const TraceEvent& event);
    void cancel(const TraceEvent& event);
    void settled(const TraceEvent& event);
    void done(const TraceEvent& event);
    void publish(const TraceEvent& event);
    void publishWithoutServer(const TraceEvent& event);
    void publishInSession(const TraceEvent& event);
    void useBuffer(const TraceEvent& event);
    void fillBuffer(const TraceEvent& event);
    void post(const TraceEvent& event);
    void takeResponse(const TraceEvent& event);
    void reserveBuffer(const TraceEvent& event);
    void releaseClientMutex(const TraceEvent& event);

    // areachecker_server.cpp
    bool serverStep(const TraceEvent& event);
    bool takerStep(const TraceEvent& event);
    void expectServer(const TraceEvent& event) const;
    void lockServerMutex(const TraceEvent& event);
    void releaseServerMutex(const TraceEvent& event);
    void beginReset(const TraceEvent& event);
    void semaphoresInitialised(const TraceEvent& event);
    void idle(const TraceEvent& event);
    void wake(const TraceEvent& event);
    void accept(const TraceEvent& event);
    void copied(const TraceEvent& event);
    void execute(const TraceEvent& event);
    void cancelledResponse(const TraceEvent& event);
    void respond(const TraceEvent& event);
    void clientMutexRemade(const TraceEvent& event);
    void terminate(const TraceEvent& event);
    void stop(const TraceEvent& event);

    const DyingProcesses& m_dying;
    std::set<pid_t> m_gone; // processes whose death another process has found

    Block m_block;
    std::optional<Client> m_client;
    Server m_server;
    std::map<int, Taker> m_takers;
    std::set<int> m_terminators; // threads in terminate() that have not locked the server mutex
    int m_serverMutex = 0;       // the thread that holds it
    pid_t m_serverMutexProcess = 0;
    std::set<int> m_finders; // threads that have found the server gone
    bool m_isRetired = false;
    pid_t m_retirer = 0;

    char m_state = ipcwire::Idle;
    std::optional<Undo> m_undo;
    Request m_request;
    Request m_taken;
    std::uint64_t m_response = 0;       // the request that was answered last
    bool m_isResponseCancelled = false; // a response with ECANCELED has been posted
    std::optional<std::uint32_t> m_sessions;
    std::size_t m_deathsCounted = 0;
    std::optional<std::uint32_t> m_openSession; // the session whose files the server has open

    int m_requests = 0;      // posts of the request semaphore
    int m_responses = 0;     // of the response semaphore
    int m_buffers = 0;       // of the buffer semaphore
    std::set<int> m_posting; // threads that have traced a post and may not have made it
    unsigned int m_bufferMap = 0;
};

} // namespace oru::io::test
