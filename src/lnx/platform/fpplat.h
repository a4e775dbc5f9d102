/*
 * Platform services: millisecond clock, sleep, event words, recursive local
 * mutexes and thread wrappers.
 */
#ifndef ZTUVC_FPPLAT_H
#define ZTUVC_FPPLAT_H

#include <cstdint>
#include <pthread.h>

typedef pthread_mutex_t FPPLT_LOCAL_MUTEX;
typedef void (*FPPLT_THREAD_FUNCTION)(void *pArgument);

struct FPPLT_THREAD {
    pthread_t aThread;
    FPPLT_THREAD_FUNCTION pfnFunction;
    void *pArgument;
};

/* Wall-clock milliseconds modulo 2^32; compare readings by unsigned difference. */
uint32_t FPPltGetTime(void);
/* Sleeps at least dwMilliseconds, resuming after signals. */
void FPPltSleep(uint32_t dwMilliseconds);

/* An event word: a counter that FPPltSignalEvent advances and that
 * FPPltWaitEvent sleeps on.  A waiter reads the word (under the lock that
 * guards what it waits for), lets that lock go and then waits: a signal
 * given in between ends the wait at once, so none is lost.  The wait ends on
 * a signal, after dwMilliseconds, or earlier (a signal for an earlier wait, an
 * interrupted system call): callers look again in any case. */
void FPPltWaitEvent(uint32_t *pdwEvent, uint32_t dwSeen, uint32_t dwMilliseconds);
void FPPltSignalEvent(uint32_t *pdwEvent);
inline uint32_t FPPltEventValue(uint32_t *pdwEvent)
{
    return __atomic_load_n(pdwEvent, __ATOMIC_ACQUIRE);
}

int32_t FPPltLocalMutexCreate(FPPLT_LOCAL_MUTEX *pLocalMutex);
void FPPltLocalMutexLock(FPPLT_LOCAL_MUTEX *pLocalMutex);
void FPPltLocalMutexUnlock(FPPLT_LOCAL_MUTEX *pLocalMutex);
int32_t FPPltLocalMutexTryLock(FPPLT_LOCAL_MUTEX *pLocalMutex);
int32_t FPPltLocalMutexDestroy(FPPLT_LOCAL_MUTEX *pLocalMutex);

int32_t FPPltThreadCreate(FPPLT_THREAD_FUNCTION pfnFunction, void *pArgument, FPPLT_THREAD *pThread);
void FPPltThreadWaitAndDestroy(FPPLT_THREAD *pThread);
void *FPPltThreadFunction(void *pThread);

#endif
