/* SPDX-License-Identifier: Apache-2.0 */
/* A client: its session and its operations. */

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
