/*
 * Platform services: millisecond clock, sleep, recursive local mutexes and
 * thread wrappers.
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

int32_t FPPltLocalMutexCreate(FPPLT_LOCAL_MUTEX *pLocalMutex);
void FPPltLocalMutexLock(FPPLT_LOCAL_MUTEX *pLocalMutex);
void FPPltLocalMutexUnlock(FPPLT_LOCAL_MUTEX *pLocalMutex);
int32_t FPPltLocalMutexTryLock(FPPLT_LOCAL_MUTEX *pLocalMutex);
int32_t FPPltLocalMutexDestroy(FPPLT_LOCAL_MUTEX *pLocalMutex);

int32_t FPPltThreadCreate(FPPLT_THREAD_FUNCTION pfnFunction, void *pArgument, FPPLT_THREAD *pThread);
void FPPltThreadWaitAndDestroy(FPPLT_THREAD *pThread);
void *FPPltThreadFunction(void *pThread);

#endif
