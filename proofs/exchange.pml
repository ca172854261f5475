/* SPDX-License-Identifier: Apache-2.0 */
/* The requests of the file service between processes: a server, two clients, and everything that can
   happen to them. README.md describes the configurations, the assertions and the mutants.

   A store that another process can see is a step of its own. A d_step is what one atomic instruction
   does, or one operation of a mutex or semaphore. Variables marked "ghost" do not exist in the code:
   the assertions need them. */

/* --- Parameters ---------------------------------------------------------------------------------- */

#ifndef SESSIONS_1
#define SESSIONS_1 1  /* how many sessions client 1 begins, one after the other */
#endif
#ifndef SESSIONS_2
#define SESSIONS_2 1
#endif
#ifndef OPERATIONS
#define OPERATIONS 1  /* operations in each session */
#endif
#ifndef BUFFERS
#define BUFFERS 0     /* data buffers; 0: the operation needs none */
#endif
#ifndef SERVERS
#define SERVERS 1     /* servers, one after the other */
#endif
#ifndef CLIENT_DEATHS
#define CLIENT_DEATHS 0
#endif
#ifndef SERVER_DEATHS
#define SERVER_DEATHS 0
#endif
#ifndef THREAD_ENDS
#define THREAD_ENDS 0 /* how many threads of client 1 end between two calls */
#endif
/* TIMEOUTS: each wait may end at any moment
   STOPS: terminate() of the first server is called at any moment
   READS: the operation is a read, otherwise a write
   PROBES_ONCE: the clients are of an older release, which probes the server once before it waits */

/* --- Assertions ---------------------------------------------------------------------------------- */

/* With ONLY, one assertion is checked. The names appear in the messages; each of them is false. */
#ifndef ONLY
#define ONLY 0
#endif
hidden byte OwnResponse, BufferOnce, WholeRequest, NotCancelled, OwnFiles, OwnBytes, GetsIn, NoWaiter;

#define CHECK(number, name, condition) assert((condition) || (ONLY != 0 && ONLY != number) || name)
#define ASSERT_OWN_RESPONSE(condition) CHECK(1, OwnResponse, condition)
#define ASSERT_BUFFER_ONCE(condition) CHECK(2, BufferOnce, condition)
#define ASSERT_WHOLE_REQUEST(condition) CHECK(3, WholeRequest, condition)
#define ASSERT_NOT_CANCELLED(condition) CHECK(4, NotCancelled, condition)
#define ASSERT_OWN_FILES(condition) CHECK(5, OwnFiles, condition)
#define ASSERT_OWN_BYTES(condition) CHECK(6, OwnBytes, condition)
/* Number 7, nothing blocks, is Spin's search for invalid end states. */
#define ASSERT_GETS_IN(condition) CHECK(8, GetsIn, condition)
#define ASSERT_NO_WAITER(condition) CHECK(9, NoWaiter, condition)

#include "memory.pml"
#include "client.pml"
#include "server.pml"

/* --- Deaths, and ends of threads ----------------------------------------------------------------- */

#define canClientDie(client) (!isQuiet && clientDeaths < CLIENT_DEATHS && canDie[client])
/* terminate() is in the process of the server. Its process in the model does not die with it. */
#define canServerDie() (!isQuiet && serverDeaths < SERVER_DEATHS && canDie[0] && !isTerminating)
#define canEnd(thread) (callers[1] == 3 && calling[1] != thread)
inline endThread(thread) {
    callers[1] = callers[1] & ~thread;
    if :: object[0].clientMutex == 3 + thread -> object[0].clientMutex = DEAD :: else fi
}

active proctype Fate() {
    byte clientDeaths, serverDeaths, threadEnds;
    atomic {
        object[0].isValid = 1;
        object[0].isOwned = 1;
        object[0].serverMutex = SERVER_THREAD;
        object[0].bufferSem = BUFFERS;
        object[0].request[0] = WIPED;
        object[0].request[1] = WIPED;
        canDie[0] = 1;
        run Server();
        canDie[1] = 1;
        callers[1] = allCallers(1);
        run Client(1);
#if SESSIONS_2 > 0
        canDie[2] = 1;
        run Client(2);
#endif
#ifdef STOPS
        run Terminator()
#endif
    };
endIsIdle:
    do
#if CLIENT_DEATHS > 0
    /* death */
    :: atomic { canClientDie(1) -> death!1; clientDeaths++ }
    :: atomic { canClientDie(2) -> death!2; clientDeaths++ }
#endif
#if SERVER_DEATHS > 0
    :: atomic { canServerDie() -> death!0; serverDeaths++ }
#endif
#if THREAD_ENDS > 0
    :: d_step { threadEnds < THREAD_ENDS && canEnd(1) -> endThread(1); threadEnds++ }
    :: d_step { threadEnds < THREAD_ENDS && canEnd(2) -> endThread(2); threadEnds++ }
#endif
    :: false
    od
}
