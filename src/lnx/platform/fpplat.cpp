/*
 * Platform services: clock, sleep, event words, recursive local mutexes,
 * threads.
 */
#include "fpplat.h"

#include <cerrno>
#include <climits>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include "../../trace/dtraces.h"

uint32_t FPPltGetTime(void)
{
    struct timeval aNow;
    gettimeofday(&aNow, nullptr);
    /* Truncation to 32 bits is intended: callers compare unsigned differences. */
    return static_cast<uint32_t>(static_cast<uint64_t>(aNow.tv_sec) * 1000u +
                                 static_cast<uint64_t>(aNow.tv_usec) / 1000u);
}

static struct timespec FPPltTimespec(uint32_t dwMilliseconds)
{
    struct timespec aSpan;
    aSpan.tv_sec = dwMilliseconds / 1000;
    aSpan.tv_nsec = static_cast<long>(dwMilliseconds % 1000) * 1000000L;
    return aSpan;
}

void FPPltSleep(uint32_t dwMilliseconds)
{
    if (dwMilliseconds == 0)
        return;
    struct timespec aRequest = FPPltTimespec(dwMilliseconds);
    struct timespec aRemain = {0, 0};
    while (nanosleep(&aRequest, &aRemain) != 0) {
        /* A signal cuts the sleep short: sleep the rest.  Other failures are
         * unexpected, but the caller still relies on the full pause. */
        if (errno != EINTR)
            DFORCED_ASSERT();
        aRequest = aRemain;
    }
}

/* A futex with a relative time-out: no clock is read, and a wait costs one
 * system call, where a condition variable's timed wait takes an absolute
 * deadline and several hundred instructions of bookkeeping. */
void FPPltWaitEvent(uint32_t *pdwEvent, uint32_t dwSeen, uint32_t dwMilliseconds)
{
    struct timespec aTimeout = FPPltTimespec(dwMilliseconds);
    syscall(SYS_futex, pdwEvent, FUTEX_WAIT_PRIVATE, dwSeen, &aTimeout, nullptr, 0);
}

void FPPltSignalEvent(uint32_t *pdwEvent)
{
    __atomic_fetch_add(pdwEvent, 1, __ATOMIC_RELEASE);
    syscall(SYS_futex, pdwEvent, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

int32_t FPPltLocalMutexCreate(FPPLT_LOCAL_MUTEX *pLocalMutex)
{
    DASSERT(pLocalMutex != nullptr, "pLocalMutex");
    pthread_mutexattr_t a;
    DASSERT(pthread_mutexattr_init(&a) == 0, "(pthread_mutexattr_init(&a)) == 0");
    DASSERT(pthread_mutexattr_settype(&a, PTHREAD_MUTEX_RECURSIVE_NP) == 0,
            "(pthread_mutexattr_settype(&a, PTHREAD_MUTEX_RECURSIVE_NP)) == 0");
    if (pLocalMutex != nullptr)
        DASSERT(pthread_mutex_init(pLocalMutex, &a) == 0, "(pthread_mutex_init(pLocalMutex, &a)) == 0");
    pthread_mutexattr_destroy(&a);
    return 0;
}

void FPPltLocalMutexLock(FPPLT_LOCAL_MUTEX *pLocalMutex)
{
    DASSERT(pLocalMutex != nullptr, "pLocalMutex");
    if (pLocalMutex != nullptr)
        DASSERT(pthread_mutex_lock(pLocalMutex) == 0, "(pthread_mutex_lock(pLocalMutex)) == 0");
}

void FPPltLocalMutexUnlock(FPPLT_LOCAL_MUTEX *pLocalMutex)
{
    DASSERT(pLocalMutex != nullptr, "pLocalMutex");
    if (pLocalMutex != nullptr)
        DASSERT(pthread_mutex_unlock(pLocalMutex) == 0, "(pthread_mutex_unlock(pLocalMutex)) == 0");
}

int32_t FPPltLocalMutexTryLock(FPPLT_LOCAL_MUTEX *pLocalMutex)
{
    DASSERT(pLocalMutex != nullptr, "pLocalMutex");
    if (pLocalMutex == nullptr)
        return 0;
    int result = pthread_mutex_trylock(pLocalMutex);
    if (result == 0)
        return 1;
    DASSERT(result == EBUSY, "(result == 0) || (result == EBUSY)");
    return 0;
}

int32_t FPPltLocalMutexDestroy(FPPLT_LOCAL_MUTEX *pLocalMutex)
{
    DASSERT(pLocalMutex != nullptr, "pLocalMutex");
    if (pLocalMutex == nullptr)
        return EINVAL;
    return pthread_mutex_destroy(pLocalMutex);
}

void *FPPltThreadFunction(void *pThread)
{
    FPPLT_THREAD *pRecord = static_cast<FPPLT_THREAD *>(pThread);
    pRecord->pfnFunction(pRecord->pArgument);
    return nullptr;
}

int32_t FPPltThreadCreate(FPPLT_THREAD_FUNCTION pfnFunction, void *pArgument, FPPLT_THREAD *pThread)
{
    DASSERT(pThread != nullptr, "pThread");
    if (pThread == nullptr)
        return 1;
    pThread->pfnFunction = pfnFunction;
    pThread->pArgument = pArgument;
    int iResult = pthread_create(&pThread->aThread, nullptr, FPPltThreadFunction, pThread);
    if (iResult != 0) {
        DTRACE(_DRegion_fpplat, DTRACE_LEVEL_ERROR, "pthread_create() failed (%u)",
               static_cast<unsigned>(iResult));
        return 1;
    }
    return 0;
}

void FPPltThreadWaitAndDestroy(FPPLT_THREAD *pThread)
{
    DASSERT(pThread != nullptr, "pThread");
    if (pThread == nullptr)
        return;
    DASSERT(pthread_join(pThread->aThread, nullptr) == 0,
            "(pthread_join(pThread->aThread,((void *)0))) == 0");
}
