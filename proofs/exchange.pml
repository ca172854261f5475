/* SPDX-License-Identifier: Apache-2.0 */
/* The requests of the file service between processes: a server, two clients, and everything that can
   happen to them. README.md describes the parameters, the assertions and the mutants.

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
   STOPS: the first server is told to terminate at any moment
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

/* --- The shared memory --------------------------------------------------------------------------- */

/* RequestState, and the first letters of requests */
#define Idle 0
#define Copying 1
#define Accepted 2
#define Done 3
#define Ending 4
#define CONNECT 5
#define OPERATION 6
#define DISCONNECT 7
#define isPublished(state) (state > Ending)

/* A mutex is free, or held by a thread, or in one of the states after DEAD. Process p has the threads
   3p+1 to 3p+3. */
#define FREE 0
#define SERVER_THREAD 1    /* the thread in run() */
#define TERMINATE_THREAD 2 /* the thread in terminate() */
#define OWNER_THREAD 3     /* of a client: ClientMutexOwner */
#define DEAD 10            /* the owner has died */
#define UNRECOVERABLE 11   /* unlocked after EOWNERDEAD without pthread_mutex_consistent(3) */
#define ZEROED 12          /* pthread_mutex_init(3) has zeroed it, and not yet made it robust */
#define ZEROED_LOCKED 13
#define STUCK 14           /* locked while it was zeroed, so nobody can unlock it */
#define isHeldBy(mutex, process) (mutex > 3 * (process) && mutex <= 3 * (process) + 3)
#define isFree(mutex) (mutex == FREE || mutex == DEAD)

/* What is sent: session * 8 + number in the session * 2 + index of the data buffer */
#define WIPED 255
#define CANCELLED 254 /* a response with ECANCELED */
#define LAST 3        /* the number of a "disconnect" */
#define content(number, index) (session * 8 + (number) * 2 + index)
#define sessionOf(content) (content / 8)
#define indexOf(content) (content & 1)
#define bitOf(content) (1 << (content / 2))

/* One shared memory object: the block and the area in it. */
typedef Object {
    byte block = FREE;
    bool isValid;         /* the magic of the header */
    bool isOwned;         /* the magic of the area */
    byte clientMutex, serverMutex, bufferMutex;
    byte requestSem, responseSem, bufferSem;
    byte bufferMap;
    byte state;           /* the first byte of the request area */
    byte request[2];      /* the other bytes of the request area */
    byte response[2];
#if BUFFERS > 0
    byte buffer[2];
#endif
    byte published;       /* ghost: the content of the request that was published last */
    byte filesOf;         /* ghost: the session whose files the server has open; 0: no files */
    bool isStopping;      /* of the server's process: State::Terminating */
};
Object object[SERVERS];
#define NOWHERE 7
byte named = 0;           /* the object that the name leads to */

/* --- Ghosts -------------------------------------------------------------------------------------- */

#define AtResponse 1
#define AtBuffer 2
byte waiting[3];          /* the semaphore that a client waits at */
byte at[3];               /* the object that a process uses */
byte uses[3];             /* the data buffer that a process uses, plus 1 */
int cancelled;            /* the requests that were cancelled */
bool isServing = 1;       /* a server accepts requests */
bool isLastServerGone;
bool isTerminating;       /* terminate() is running */
/* Nothing happens any more: no deaths, no time-outs. Client 1 must be able to connect. */
bool isQuiet;

/* --- Threads and deaths -------------------------------------------------------------------------- */

byte callers[3] = 1;      /* bit set: the threads of the application that have not ended */
#define allCallers(process) (process == 1 && THREAD_ENDS > 0 -> 3 : 1)
byte calling[3] = 1;      /* the thread that is in a call of the library; 0: none */
bool canDie[3];           /* ghost: it runs and has not finished */
chan death = [0] of { byte };

#if THREAD_ENDS > 0
inline beginCall() {
    if
    :: d_step { (callers[c] & 1) -> calling[c] = 1 }
    :: d_step { (callers[c] & 2) -> calling[c] = 2 }
    fi
}
#define endCall() calling[c] = 0
#else
#define beginCall() skip
#define endCall() skip
#endif
#define CALLER (3 * c + calling[c])

#ifdef MUTANT_CONNECTING_THREAD_OWNS
#define OWNER CALLER
#else
#define OWNER (3 * c + OWNER_THREAD)
#endif

inline markDead(mutex, process) {
    if :: isHeldBy(mutex, process) -> mutex = DEAD :: else fi
}
inline markAllDead(process) {
    markDead(object[0].block, process);
    markDead(object[0].clientMutex, process);
    markDead(object[0].serverMutex, process);
    markDead(object[0].bufferMutex, process);
#if SERVERS > 1
    markDead(object[1].block, process);
    markDead(object[1].clientMutex, process);
    markDead(object[1].serverMutex, process);
    markDead(object[1].bufferMutex, process);
#endif
    waiting[process] = 0;
    uses[process] = 0
}

/* --- Waiting ------------------------------------------------------------------------------------- */

#ifdef TIMEOUTS
#define TIMEOUT !isQuiet
#else
#define TIMEOUT false
#endif

/* lockShared() */
inline lock(mutex, thread, isLocked) {
    if
    :: d_step { isFree(mutex) -> mutex = thread; isLocked = 1 }
    :: TIMEOUT -> isLocked = 0
    fi
}
inline unlock(mutex, thread) {
    d_step { if :: mutex == thread -> mutex = FREE :: else fi }
}

#define mine object[at[c]] /* of a client */
#define served object[at[0]]

/* IPCFS::Data::probeServer(). Other processes take its caller for a running server meanwhile. */
inline probeServer(isUp) {
    d_step {
        if
        :: mine.serverMutex == FREE -> mine.serverMutex = CALLER; isUp = 0
        :: mine.serverMutex == DEAD -> mine.serverMutex = CALLER; isUp = 0; found = DEAD
        :: else -> isUp = 1
        fi
    };
    if
    :: isUp
    :: else ->
        if :: found == DEAD -> mine.isOwned = 0; found = 0 :: else fi;
        mine.serverMutex = FREE
    fi
}

/* IPCFS::Data::await() */
inline await(condition, isMet) {
    do
    :: condition -> isMet = 1; break
    :: isFree(mine.serverMutex) && !(condition) ->
        probeServer(isMet);
        if :: !isMet -> isMet = (condition); break :: else fi
    :: TIMEOUT && !(condition) -> isMet = 0; break
    od
}

/* --- Client -------------------------------------------------------------------------------------- */

inline publish(letter, what) {
    /* publish */
#ifdef MUTANT_FIRST_LETTER_FIRST
    d_step { mine.state = letter; mine.published = what };
#endif
    mine.request[0] = what;
    mine.request[1] = what;
#ifndef MUTANT_FIRST_LETTER_FIRST
    d_step { mine.state = letter; mine.published = what };
#endif
    /* post */
    mine.requestSem++
}

/* ipcwire::cancel() */
inline cancel() {
    found = mine.state;
    if
    :: isPublished(found) ->
#ifdef MUTANT_CANCEL_IS_A_STORE
        d_step { mine.state = Done; cancelled = cancelled | bitOf(mine.published) }
#else
        d_step {
            if
            :: mine.state == found -> mine.state = Done; cancelled = cancelled | bitOf(mine.published)
            :: else
            fi
        }
#endif
    :: else
    fi;
    found = 0
}

/* IPCFS::Data::leave() */
inline leave() {
    isConnected = 0;
    /* cancel */
    if :: holdsClientMutex -> cancel() :: else fi;
    /* releaseClientMutex */
    holdsClientMutex = 0;
    unlock(mine.clientMutex, OWNER)
}

/* IPCFS::Data::getResponse(). Leaves when no response comes. */
inline getResponse(isAnswered, what) {
    probeServer(isAnswered);
    if
    :: isAnswered ->
        waiting[c] = AtResponse;
        do
        :: d_step { mine.responseSem > 0 -> mine.responseSem--; waiting[c] = 0; isAnswered = 1 } break
#if !defined(PROBES_ONCE) && !defined(MUTANT_PROBES_ONCE)
        :: isFree(mine.serverMutex) && mine.responseSem == 0 ->
            waiting[c] = 0;
            probeServer(isAnswered);
            if
            :: isAnswered -> waiting[c] = AtResponse
            :: else ->
                d_step { if :: mine.responseSem > 0 -> mine.responseSem--; isAnswered = 1 :: else fi };
                break
            fi
#endif
        :: TIMEOUT && mine.responseSem == 0 -> d_step { waiting[c] = 0; isAnswered = 0 } break
        od
    :: else
    fi;
    if
    :: isAnswered ->
        /* takeResponse */
#ifdef MUTANT_DONE_BEFORE_COPY
        mine.state = Done;
#endif
        found = mine.response[0];
        d_step {
            ASSERT_OWN_RESPONSE(found == CANCELLED || found == what);
            ASSERT_OWN_RESPONSE(mine.response[1] == found);
            isAnswered = (found != CANCELLED);
            found = 0
        };
        /* done */
#ifndef MUTANT_DONE_BEFORE_COPY
        mine.state = Done;
#endif
    :: else -> leave()
    fi
}

/* IPCShm::freeDataBuf() */
inline freeDataBuf(which, thread) {
    /* freeBuffer */
    lock(which.bufferMutex, thread, isLocked);
    if
    :: isLocked ->
        isLocked = which.bufferMap & (1 << index);
        which.bufferMap = which.bufferMap & ~(1 << index);
        which.bufferMutex = FREE;
        if :: isLocked -> which.bufferSem++ :: else fi
    :: else
    fi;
    isLocked = 0
}

/* IPCShm::allocDataBuf() */
inline allocDataBuf(isReserved) {
    /* reserveBuffer */
    waiting[c] = AtBuffer;
    do
    :: d_step { mine.bufferSem > 0 -> mine.bufferSem--; waiting[c] = 0; isReserved = 1 } break
    :: isFree(mine.serverMutex) && mine.bufferSem == 0 -> d_step { waiting[c] = 0; isReserved = 0 } break
    :: TIMEOUT && mine.bufferSem == 0 -> d_step { waiting[c] = 0; isReserved = 0 } break
    od;
    if
    :: isReserved ->
        lock(mine.bufferMutex, CALLER, isReserved);
        if
        :: isReserved ->
            d_step {
                if
                :: !(mine.bufferMap & 1) -> index = 0
                :: else -> index = 1
                fi;
                isReserved = index < BUFFERS && !(mine.bufferMap & (1 << index));
                ASSERT_BUFFER_ONCE(isReserved || mine.isStopping);
                ASSERT_BUFFER_ONCE(!isReserved || at[3 - c] != at[c] || uses[3 - c] != index + 1);
                ASSERT_BUFFER_ONCE(!isReserved || at[0] != at[c] || uses[0] != index + 1);
                if :: isReserved -> uses[c] = index + 1 :: else -> index = 0 fi
            };
            if :: isReserved -> mine.bufferMap = mine.bufferMap | (1 << index) :: else fi;
            mine.bufferMutex = FREE
        :: else -> mine.bufferSem++
        fi
    :: else
    fi
}

proctype Client(byte c) {
    byte sessions, session, index, found, operations;
    bool isOk, isConnected, holdsClientMutex, isLocked;
again:
    {
        if
        :: sessions < (c == 1 -> SESSIONS_1 : SESSIONS_2)
        :: else ->
            if
            :: c == 2 || isQuiet -> canDie[c] = 0; goto finish
            :: c == 1 && !isQuiet && !canDie[2] ->
                if
                :: d_step { isServing && !isTerminating -> isQuiet = 1 }
                :: isLastServerGone -> canDie[c] = 0; goto finish
                fi
            fi
        fi;
        d_step { sessions++; session = 2 * sessions + c - 2; operations = 0 };

        /* IPCFS::Data::init(): connect */
        beginCall();
        d_step { if :: named != NOWHERE -> at[c] = named; isOk = 1 :: else -> isOk = 0 fi };
        if :: !isOk -> goto failed :: else fi;
        lock(mine.block, CALLER, isOk);
        if :: !isOk || !mine.isValid -> goto failed :: else fi;
        if
        :: !mine.isOwned ->
            publish(CONNECT, content(0, 0));
#ifdef MUTANT_WAITS_WITHOUT_SERVER
            goto awaitConnected
#else
            goto failed
#endif
        :: else
        fi;
        probeServer(isOk);
        if :: !isOk -> goto failed :: else fi;
        /* lockClientMutex */
        d_step {
            if
            :: isFree(mine.clientMutex) -> mine.clientMutex = OWNER; holdsClientMutex = 1
            :: mine.clientMutex == ZEROED -> mine.clientMutex = ZEROED_LOCKED; holdsClientMutex = 1
            :: else
            fi
        };
        if :: !holdsClientMutex -> goto failed :: else fi;
        /* endPredecessor() */
        cancel();
#ifdef MUTANT_DOES_NOT_AWAIT_COPYING
        isOk = 1;
#else
        await(mine.state != Copying && mine.state != Ending, isOk);
#endif
        if
        :: isOk && mine.state != Idle ->
            mine.state = Done;
#ifndef MUTANT_PREDECESSOR_NOT_ENDED
            publish(DISCONNECT, content(LAST, 0));
#ifndef MUTANT_DOES_NOT_AWAIT_IDLE
            await(mine.state == Idle, isOk)
#endif
#endif
        :: else
        fi;
        if :: !isOk -> leave(); goto failed :: else fi;
        publish(CONNECT, content(0, 0));
awaitConnected:
        getResponse(isOk, content(0, 0));
        if :: !isOk -> leave(); goto failed :: else fi;
        isConnected = 1;
        unlock(mine.block, CALLER);
        endCall();

        do
        :: operations < OPERATIONS && isConnected ->
            operations++;
            beginCall();
#if BUFFERS > 0
            isOk = (mine.state == Done);
            if :: !isOk -> leave(); goto done :: else fi;
            allocDataBuf(isOk);
            if :: !isOk -> goto done :: else fi;
#ifndef READS
            /* fillBuffer */
            mine.buffer[index] = content(operations, index);
#endif
#endif
            isOk = (mine.state == Done);
            if :: !isOk -> leave(); goto done :: else fi;
#ifndef READS
            uses[c] = 0; /* from here on it is the server's */
#endif
            publish(OPERATION, content(operations, index));
            getResponse(isOk, content(operations, index));
#ifdef READS
            if
            :: isOk -> ASSERT_OWN_BYTES(mine.buffer[index] == content(operations, index))
            :: else
            fi;
            uses[c] = 0;
            if :: isConnected -> freeDataBuf(mine, CALLER) :: else fi;
#endif
done:
            index = 0;
            uses[c] = 0;
            endCall()
        :: else -> break
        od;

        /* IPCFS::Data::end() */
        if
        :: isConnected ->
            beginCall();
            lock(mine.block, CALLER, isOk);
            if
            :: mine.state == Done ->
                publish(DISCONNECT, content(LAST, 0));
                await(mine.state == Idle, isOk)
            :: else
            fi;
            leave();
            unlock(mine.block, CALLER);
            endCall()
        :: else
        fi;
        goto again;
failed:
        /* 8: after any death, a new client gets in. */
        ASSERT_GETS_IN(!isQuiet);
        unlock(mine.block, CALLER);
        endCall();
        goto again
    } unless {
        atomic {
            death?eval(c);
            d_step {
                markAllDead(c);
                session = 0; index = 0; found = 0; operations = 0;
                isOk = 0; isConnected = 0; holdsClientMutex = 0; isLocked = 0;
                callers[c] = allCallers(c); calling[c] = 1
            }
        }
    };
    goto again;
finish:
    skip
}

/* --- Server -------------------------------------------------------------------------------------- */

/* ipcwire::take() */
inline take(which, isTaken) {
    first = which.state;
    isTaken = 0;
    if
    :: isPublished(first) ->
        /* accept */
#ifdef MUTANT_ACCEPT_IS_A_STORE
        d_step { which.state = Copying; isTaken = 1; published = which.published };
#else
        d_step {
            if
            :: which.state == first -> which.state = Copying; isTaken = 1; published = which.published
            :: else
            fi
        };
#endif
        if
        :: isTaken ->
            copy[0] = which.request[0];
            copy[1] = which.request[1];
#ifndef MUTANT_PARSES_THE_AREA
            d_step { which.request[0] = WIPED; which.request[1] = WIPED };
#endif
            /* copied */
#ifdef MUTANT_DISCONNECT_IS_ACCEPTED
            which.state = Accepted
#else
            which.state = (first == DISCONNECT -> Ending : Accepted)
#endif
        :: else
        fi
    :: else
    fi
}

inline respond(which, what) {
    /* respond */
#ifdef MUTANT_POST_BEFORE_RESPONSE
    which.responseSem++;
#endif
    which.response[0] = what;
    which.response[1] = what;
#ifndef MUTANT_POST_BEFORE_RESPONSE
    which.responseSem++
#endif
}

inline answerLateRequest(which) {
#ifndef MUTANT_NO_LATE_ANSWER
    take(which, isTaken);
    if :: isTaken -> respond(which, CANCELLED) :: else fi;
#endif
    isTaken = 0
}

/* IPCServer::Data::probeClient(). Finds out whether the client has died; initialises its mutex then. */
inline probeClient() {
#ifdef MUTANT_MUTEX_MADE_WITHOUT_BLOCK
    isLocked = 1;
#else
    d_step { if :: isFree(served.block) -> served.block = SERVER_THREAD; isLocked = 1 :: else -> isLocked = 0 fi };
#endif
    if
    :: isLocked ->
        d_step {
            if
            :: served.clientMutex == FREE -> served.clientMutex = SERVER_THREAD; first = FREE
            :: served.clientMutex == DEAD -> served.clientMutex = SERVER_THREAD; first = DEAD
            :: else -> first = served.clientMutex
            fi
        };
        if
        :: first == FREE -> served.clientMutex = FREE
        :: first == DEAD -> served.clientMutex = UNRECOVERABLE
        :: else
        fi;
        if
        :: first == DEAD || first == UNRECOVERABLE ->
            served.clientMutex = ZEROED;
            d_step {
                if
                :: served.clientMutex == ZEROED -> served.clientMutex = FREE
                :: else -> served.clientMutex = STUCK
                fi
            }
        :: else
        fi;
#ifndef MUTANT_MUTEX_MADE_WITHOUT_BLOCK
        served.block = FREE;
#endif
        isLocked = 0
    :: else
    fi;
    first = 0
}

inline initialiseSemaphore(semaphore, kind, value) {
    d_step {
        ASSERT_NO_WAITER(waiting[1] != kind || at[1] != at[0]);
        ASSERT_NO_WAITER(waiting[2] != kind || at[2] != at[0]);
        semaphore = value
    }
}

/* IPCServer::Data::resetSession() */
inline resetSession() {
    /* beginReset */
    served.filesOf = 0;
#ifdef MUTANT_IDLE_BEFORE_RESET
    served.state = Idle;
#endif
    served.requestSem = 0;
#ifndef MUTANT_RESPONSE_SEM_NOT_RESET
    initialiseSemaphore(served.responseSem, AtResponse, 0);
#endif
#if BUFFERS > 0
#ifndef MUTANT_BUFFER_SEM_NOT_RESET
    initialiseSemaphore(served.bufferSem, AtBuffer, BUFFERS);
#endif
    lock(served.bufferMutex, SERVER_THREAD, isLocked);
#ifndef MUTANT_BUFFER_MAP_NOT_RESET
    served.bufferMap = 0;
#endif
    unlock(served.bufferMutex, SERVER_THREAD);
#endif
    d_step { served.request[0] = WIPED; served.request[1] = WIPED };
#ifndef MUTANT_IDLE_BEFORE_RESET
    /* idle */
    served.state = Idle;
#endif
    isLocked = 0
}

/* IPCServer::Data::process() */
inline process() {
#ifdef MUTANT_PARSES_THE_AREA
    d_step { copy[0] = served.request[0]; copy[1] = served.request[1] };
#endif
    /* execute */
    d_step {
        ASSERT_WHOLE_REQUEST(copy[0] == published && copy[1] == published);
        ASSERT_NOT_CANCELLED(!(cancelled & bitOf(published)));
        ASSERT_OWN_FILES(first != CONNECT || served.filesOf == 0);
        ASSERT_OWN_FILES(first != OPERATION || served.filesOf == sessionOf(copy[0]));
        if :: first == CONNECT -> served.filesOf = sessionOf(copy[0]) :: else fi;
#if BUFFERS > 0
        if :: first == OPERATION -> index = indexOf(copy[0]); uses[0] = index + 1 :: else fi
#endif
    };
#if BUFFERS > 0
    if
    :: first == OPERATION ->
#ifdef READS
        served.buffer[index] = copy[0];
        uses[0] = 0;
#else
        d_step { ASSERT_OWN_BYTES(served.buffer[index] == copy[0]); uses[0] = 0 };
        freeDataBuf(served, SERVER_THREAD);
#endif
        index = 0
    :: else
    fi;
#endif
    respond(served, copy[0]);
    if
    :: first == DISCONNECT -> resetSession()
    :: else
    fi
}

/* IPCServer::Data::retirePredecessor() and takeOver() */
inline start() {
    do
    :: named == NOWHERE -> break
    :: named != NOWHERE ->
        at[0] = named;
        lock(served.block, SERVER_THREAD, isLocked);
        if
        :: isLocked && served.isValid ->
            if
            :: served.isOwned ->
                d_step { isFree(served.serverMutex) -> served.serverMutex = SERVER_THREAD };
                served.isOwned = 0;
                served.serverMutex = FREE
            :: else
            fi;
#ifdef MUTANT_REPAIRED_IN_PLACE
            served.clientMutex = FREE;
            goto takeOver;
#else
            /* retire */
            d_step { if :: named == at[0] -> named = NOWHERE :: else fi };
            served.isValid = 0;
            unlock(served.block, SERVER_THREAD);
            break
#endif
        :: else -> unlock(served.block, SERVER_THREAD)
        fi
    od;
    at[0] = servers;
    named = at[0];
    served.isValid = 1;
    d_step { isFree(served.block) -> served.block = SERVER_THREAD };
takeOver:
    served.serverMutex = SERVER_THREAD;
    served.isOwned = 1;
    resetSession();
    served.block = FREE
}

proctype Server() {
    byte servers, first, index, published, copy[2];
    bool isTaken, isLocked;
    goto ready; /* the first server has started */
again:
    {
#if SERVERS > 1
        canDie[0] = 1;
        start();
#endif
        isServing = 1;
ready:
        do
        :: served.isStopping -> break
        :: else ->
            probeClient();
endIsWaiting:
            if
            :: d_step { served.requestSem > 0 -> served.requestSem-- }
            :: served.requestSem == 0 && served.clientMutex == DEAD -> goto ready /* after clientPollMs */
            fi;
            if :: served.isStopping -> break :: else fi;
            take(served, isTaken);
            if :: isTaken -> process() :: else fi;
            d_step { isTaken = 0; first = 0; published = 0; copy[0] = 0; copy[1] = 0 }
        od;
#ifdef STOPS
        /* stop */
#ifndef MUTANT_STOP_IGNORES_ACCEPTED
        if
        :: served.state != Accepted ->
#endif
            take(served, isTaken);
            respond(served, CANCELLED);
#ifndef MUTANT_STOP_IGNORES_ACCEPTED
        :: else
        fi;
#endif
        /* IPCServer::Data::tearDown() */
        served.filesOf = 0;
#ifndef MUTANT_BLOCK_BEFORE_SERVER_MUTEX
        served.serverMutex = FREE;
        answerLateRequest(served);
#endif
        lock(served.block, SERVER_THREAD, isLocked);
#ifdef MUTANT_BLOCK_BEFORE_SERVER_MUTEX
        served.serverMutex = FREE;
        answerLateRequest(served);
#endif
        served.isOwned = 0;
        d_step { if :: named == at[0] -> named = NOWHERE :: else fi };
        served.isValid = 0;
        unlock(served.block, SERVER_THREAD);
        canDie[0] = 0
#endif
    } unless {
        atomic { death?eval(0); d_step { markAllDead(0); isServing = 0; canDie[0] = 0 } }
    };
    servers++;
    d_step { isTaken = 0; isLocked = 0; first = 0; index = 0; published = 0; copy[0] = 0; copy[1] = 0 };
    if
    :: servers < SERVERS -> goto again
    :: else -> isLastServerGone = 1
    fi
}

/* IPCServer::Data::terminate(), for the first server */
proctype Terminator() {
    byte first, published, copy[2];
    bool isTaken, isLocked;
#define target object[0]
endIsIdle:
    d_step { !isQuiet && isServing && at[0] == 0 -> isTerminating = 1 };
    lock(target.block, TERMINATE_THREAD, isLocked);
    unlock(target.block, TERMINATE_THREAD);
    d_step { target.isStopping = 1; isServing = 0 };
    target.requestSem++;
    target.bufferSem++;
    lock(target.serverMutex, TERMINATE_THREAD, isLocked);
    if
    :: isLocked -> target.serverMutex = FREE; answerLateRequest(target)
    :: else
    fi;
    isTerminating = 0
}

/* --- Deaths, and ends of threads ----------------------------------------------------------------- */

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
    :: atomic { !isQuiet && clientDeaths < CLIENT_DEATHS && canDie[1] -> death!1; clientDeaths++ }
    :: atomic { !isQuiet && clientDeaths < CLIENT_DEATHS && canDie[2] -> death!2; clientDeaths++ }
#endif
#if SERVER_DEATHS > 0
    :: atomic { !isQuiet && serverDeaths < SERVER_DEATHS && canDie[0] && !isTerminating -> death!0; serverDeaths++ }
#endif
#if THREAD_ENDS > 0
    :: d_step { threadEnds < THREAD_ENDS && canEnd(1) -> endThread(1); threadEnds++ }
    :: d_step { threadEnds < THREAD_ENDS && canEnd(2) -> endThread(2); threadEnds++ }
#endif
    :: false
    od
}
