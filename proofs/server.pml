/* SPDX-License-Identifier: Apache-2.0 */
/* The server: its life, its session with the client, and what it does for each request. */

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
    d_step {
        if
        :: isFree(served.block) -> served.block = SERVER_THREAD; isLocked = 1
        :: else -> isLocked = 0
        fi
    };
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
    d_step {
        isTaken = 0; isLocked = 0; first = 0; index = 0;
        published = 0; copy[0] = 0; copy[1] = 0
    };
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
