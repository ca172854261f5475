/* SPDX-License-Identifier: Apache-2.0 */
/* The shared memory, the mutexes and semaphores in it, and how processes wait for them. */

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

/* IPCFS::Data::probeServer(). While it holds the mutex, other processes take it for
   a running server. */
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
