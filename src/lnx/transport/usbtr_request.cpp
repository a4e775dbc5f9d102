/*
 * Request engine: the usbfs ioctl wrapper with its errno mapping, the
 * asynchronous request primitives, the synchronous transfer built on them and
 * the bulk and interrupt reads.
 *
 * Any thread may reap any completed request of a device, so the reaper marks
 * what it reaps (usercontext := the record's own address, release store) and
 * every waiter decides from its own request's mark (acquire load).
 *
 * Between reap passes a waiter sleeps in poll() on the node: usbfs signals
 * POLLOUT while a completion waits to be reaped (POLLERR/POLLHUP once the
 * device is gone).  A completion that another thread reaps leaves no signal,
 * so the sleep lasts one millisecond at most, except for one waiter at a
 * time, which sleeps up to its time-out on the node and on the context's
 * eventfd: whoever marks a request it did not wait for itself writes to the
 * eventfd while that waiter sleeps.  A node that polls ready with nothing to
 * reap (not a usbfs node) cannot tell; waiters on it fall back to fixed
 * 200 us passes.
 *
 * Synchronous transfers run in context-owned slots (request record + bounce
 * buffer).  A piece that was discarded but could not be collected stays with
 * its slot, orphaned, until some later reap marks it; only then is the slot
 * reused.  The kernel therefore never writes through a record or buffer that
 * has gone away.  When every slot is busy or orphaned, a transfer first tries
 * to collect the orphans and otherwise fails with USBTR_STATUS_COMM_ERROR.
 */
#include <cerrno>
#include <cstring>
#include <climits>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "../../trace/dtraces.h"
#include "../platform/fpplat.h"
#include "usbtr.h"

namespace {

constexpr uint32_t SLOT_FREE = 0;
constexpr uint32_t SLOT_USED = 1;
constexpr uint32_t SLOT_ORPHANED = 2;

/* The usbfs command number, as printed in failure records. */
int CommandNumber(unsigned long request)
{
    return static_cast<int>(_IOC_NR(request));
}

/* The status of a failed ioctl, from its errno. */
__attribute__((noinline)) int32_t FailureStatus(USBTR_CONTEXT *pContext, unsigned long request, int iErrno)
{
    switch (iErrno) {
    case EAGAIN:
        return USBTR_STATUS_TIMEOUT;
    case EPERM:
    case EACCES:
        DTRACE(_DRegion_usbtr, DTRACE_LEVEL_ERROR, "Access denied");
        return USBTR_STATUS_ACCESS_DENIED;
    case ENODEV:
        USBTRSetStatusFlag(pContext, USBTR_SF_DISCONNECTED);
        UnlockFD(pContext);
        DTRACE(_DRegion_usbtr, DTRACE_LEVEL_ERROR, "Device disconnected");
        return USBTR_STATUS_COMM_ERROR;
    default:
        /* EINVAL on a discard only means the request already completed. */
        if (_DIsTraceEnabled(&_DRegion_usbtr, DTRACE_LEVEL_ERROR) &&
            !(CommandNumber(request) == CommandNumber(USBDEVFS_DISCARDURB) && iErrno == EINVAL))
            DTRACE(_DRegion_usbtr, DTRACE_LEVEL_ERROR, "ioctl(%i) failed: %s", CommandNumber(request),
                   strerror(iErrno));
        return USBTR_STATUS_COMM_ERROR;
    }
}

/* The ioctl with its status mapping; *piErrno receives the errno of a failed
 * system call, 0 otherwise (also when no call was made). */
__attribute__((always_inline)) inline int32_t IOCtl(USBTR_CONTEXT *pContext, unsigned long request,
                                                     void *pArgument, int64_t *pnResult, int *piErrno)
{
    DTRACE_ENTER_AS(aCall, _DRegion_usbtr, DTRACE_LEVEL_LOUD, "USBTRIOCtlEx", "%s(%p,%i,%p,%p)",
                    static_cast<void *>(pContext), static_cast<int>(request), pArgument,
                    static_cast<void *>(pnResult));
    *piErrno = 0;
    int32_t iStatus = USBTR_STATUS_SUCCESS;
    if (pContext == nullptr) {
        DASSERT(false, "pContext");
        iStatus = USBTR_STATUS_INVALID_HANDLE;
    } else if (USBTRStatusFlags(pContext) & USBTR_SF_DISCONNECTED) {
        iStatus = USBTR_STATUS_COMM_ERROR;
    } else {
        int iResult = ioctl(pContext->fdDevice, request, pArgument);
        if (iResult < 0)
            *piErrno = errno;
        DTRACE(_DRegion_usbtr, DTRACE_LEVEL_LOUD, "ioctl() --> %i", iResult);
        if (iResult >= 0) {
            if (pnResult != nullptr)
                *pnResult = iResult;
        } else {
            iStatus = FailureStatus(pContext, request, *piErrno);
        }
    }
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}

/* USBTRIOCtlEx, inline in the engine's own hot paths. */
__attribute__((always_inline)) inline int32_t IOCtlEx(USBTR_CONTEXT *pContext, unsigned long request,
                                                       void *pArgument, int64_t *pnResult)
{
    int iErrno;
    int32_t iStatus = IOCtl(pContext, request, pArgument, pnResult, &iErrno);
    /* Callers that report the failure themselves still find its errno. */
    if (iErrno != 0)
        errno = iErrno;
    return iStatus;
}

/* The engine's loud records (the entries and exits of submit, poll-reap, reap
 * pass and ioctl) are all written in one region at one level, which never
 * changes once configured.  When that level is off, the hot paths below skip
 * the per-call bookkeeping; the only records they can still write (failures)
 * are indented as the nested calls would have indented them. */
inline bool LoudTraceOff()
{
    return !_DMayTrace(&_DRegion_usbtr, DTRACE_LEVEL_LOUD);
}

/* A failed ioctl of a quiet path, with its records nDepth calls deeper. */
__attribute__((noinline, cold)) int32_t QuietFailure(USBTR_CONTEXT *pContext, unsigned long request, int iErrno,
                                                     int nDepth)
{
    gDIndentDepth += nDepth;
    int32_t iStatus = FailureStatus(pContext, request, iErrno);
    gDIndentDepth -= nDepth;
    errno = iErrno;
    return iStatus;
}

/* USBTRIOCtlEx without its (unwritten) records, for a non-null context;
 * nDepth is the depth of its body below the caller's. */
__attribute__((always_inline)) inline int32_t QuietIOCtl(USBTR_CONTEXT *pContext, unsigned long request,
                                                          void *pArgument, int nDepth)
{
    if (USBTRStatusFlags(pContext) & USBTR_SF_DISCONNECTED)
        return USBTR_STATUS_COMM_ERROR;
    if (__builtin_expect(ioctl(pContext->fdDevice, request, pArgument) >= 0, 1))
        return USBTR_STATUS_SUCCESS;
    int iErrno = errno;
    if (iErrno == EAGAIN)
        return USBTR_STATUS_TIMEOUT;
    return QuietFailure(pContext, request, iErrno, nDepth);
}

/* The body of a reap pass: reaps until the node has nothing more or
 * pRequest itself comes back, marking every request it reaps; reapOne is
 * the REAPURBNDELAY ioctl, traced or quiet. */
template <typename ReapOne>
__attribute__((always_inline)) inline int32_t ReapReady(USBTR_CONTEXT *pContext, USBTR_REQUEST *pRequest,
                                                        bool *pbReaped, ReapOne reapOne)
{
    /* A null pRequest waits for nothing: the pass drains what is ready. */
    int32_t iStatus;
    for (;;) {
        void *pReaped = nullptr;
        iStatus = reapOne(&pReaped);
        if (iStatus != USBTR_STATUS_SUCCESS)
            break;
        if (pReaped == nullptr) {
            DERROR("USBTR_STATUS_GENERAL_ERROR");
            iStatus = USBTR_STATUS_GENERAL_ERROR;
            break;
        }
        USBTR_REQUEST *pDone = static_cast<USBTR_REQUEST *>(pReaped);
        *pbReaped = true;
        if (pDone == pRequest) {
            USBTRSetRequestMark(pDone, pDone);
            break;
        }
        USBTRMarkReaped(pContext, pDone);
    }
    /* Another thread may have reaped it for us. */
    if (pRequest != nullptr && USBTRRequestMark(pRequest) != nullptr)
        iStatus = USBTR_STATUS_SUCCESS;
    return iStatus;
}

/* A reap pass whose records are not written; the pass's own body would be
 * one call below the caller, its ioctl's body two. */
__attribute__((always_inline)) inline int32_t QuietReap(USBTR_CONTEXT *pContext, USBTR_REQUEST *pRequest,
                                                         bool *pbReaped, int nDepth)
{
    return ReapReady(pContext, pRequest, pbReaped, [&](void **ppReaped) {
        return QuietIOCtl(pContext, USBDEVFS_REAPURBNDELAY, ppReaped, nDepth + 2);
    });
}

/* One reap pass (the records are USBTRTryReapThisRequest's); *pbReaped tells
 * whether it collected any request at all. */
__attribute__((always_inline)) inline int32_t TryReap(USBTR_CONTEXT *pContext, USBTR_REQUEST *pRequest,
                                                      bool *pbReaped)
{
    DTRACE_ENTER_AS(aCall, _DRegion_usbtr, DTRACE_LEVEL_LOUD, "USBTRTryReapThisRequest", "%s(%p,%p)",
                    static_cast<void *>(pContext), static_cast<void *>(pRequest));
    int32_t iStatus = ReapReady(pContext, pRequest, pbReaped, [&](void **ppReaped) {
        return IOCtlEx(pContext, USBDEVFS_REAPURBNDELAY, ppReaped, nullptr);
    });
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}

/* Sleeps until the next reap pass; true when poll() said that a completion
 * (or the device's end) is there to be reaped.  iLongMs: how long the waiter
 * for pRequest may sleep if it is the one woken through the eventfd (-1: no
 * end); every other waiter sleeps at most USBTR_REAP_WAIT_MS. */
bool WaitBeforeNextPass(USBTR_CONTEXT *pContext, USBTR_REQUEST *pRequest, bool bAfterMiss, int iLongMs)
{
    std::atomic_ref<uint32_t> aMisses(pContext->nPollMisses);
    /* Right after a wake-up that found nothing, sleep the fixed pass: a node
     * that always polls ready must not make the waiter spin. */
    if (!bAfterMiss && aMisses.load(std::memory_order_relaxed) < USBTR_POLL_BLIND_AFTER) {
        struct pollfd aPoll[2] = {{pContext->fdDevice, POLLOUT, 0}, {pContext->fdWake, POLLIN, 0}};
        nfds_t nFds = 1;
        int iWaitMs = USBTR_REAP_WAIT_MS;
        std::atomic_ref<uint32_t> aLong(pContext->bLongWaiter);
        uint32_t dwNone = 0;
        if (pContext->fdWake > 0 && (iLongMs < 0 || iLongMs > USBTR_REAP_WAIT_MS) &&
            aLong.compare_exchange_strong(dwNone, 1)) {
            /* Pairs with USBTRMarkReaped: either the reaper sees this waiter
             * asleep and wakes it, or the waiter sees the mark here. */
            std::atomic_thread_fence(std::memory_order_seq_cst);
            if (USBTRRequestMark(pRequest) != nullptr) {
                aLong.store(0, std::memory_order_release);
                return false;
            }
            nFds = 2;
            iWaitMs = iLongMs;
        }
        int n = poll(aPoll, nFds, iWaitMs);
        if (nFds == 2) {
            aLong.store(0, std::memory_order_release);
            /* Only this waiter drains the counter; a wake-up meant for an
             * earlier sleep costs one extra pass at most. */
            uint64_t nCount;
            if (n > 0 && (aPoll[1].revents & POLLIN) != 0 && read(pContext->fdWake, &nCount, sizeof(nCount)) < 0)
                return false;
        }
        if (n <= 0 || aPoll[0].revents == 0)
            return false; /* the interval passed, a signal came, or another thread's reap */
        if ((aPoll[0].revents & POLLNVAL) == 0)
            return true;
        /* Not an open descriptor: poll() cannot tell anything about it. */
        aMisses.store(USBTR_POLL_BLIND_AFTER, std::memory_order_relaxed);
    }
    usleep(USBTR_REAP_POLL_US);
    return false;
}

/* After a pass that poll() woke: a pass that found something resets the
 * count of misses, one that found nothing adds to it. */
bool NoteWakeUp(USBTR_CONTEXT *pContext, bool bReaped)
{
    std::atomic_ref<uint32_t> aMisses(pContext->nPollMisses);
    uint32_t n = aMisses.load(std::memory_order_relaxed);
    if (bReaped) {
        if (n != 0 && n < USBTR_POLL_BLIND_AFTER)
            aMisses.store(0, std::memory_order_relaxed);
        return false;
    }
    if (n < USBTR_POLL_BLIND_AFTER)
        aMisses.store(n + 1, std::memory_order_relaxed);
    return true;
}

/* A refused submission's record, nDepth calls below the caller's depth. */
__attribute__((noinline, cold)) void SubmitFailed(int32_t iStatus, int nDepth)
{
    gDIndentDepth += nDepth;
    DTRACE(_DRegion_usbtr, DTRACE_LEVEL_ERROR, "USBTRIOCtl(IOCTL_USB_SUBMITURB) --> %d", iStatus);
    gDIndentDepth -= nDepth;
}

void LockOrReport(pthread_mutex_t *pLock)
{
    DASSERT(pthread_mutex_lock(pLock) == 0, "(pthread_mutex_lock(pLock)) == 0");
}

void UnlockOrReport(pthread_mutex_t *pLock)
{
    DASSERT(pthread_mutex_unlock(pLock) == 0, "(pthread_mutex_unlock(pLock)) == 0");
}

/* Under aSyncSlotLock: frees orphans that a reap has marked meanwhile and
 * takes the first free slot. */
USBTR_SYNC_SLOT *TakeFreeSlot(USBTR_CONTEXT *pContext)
{
    USBTR_SYNC_SLOT *pTaken = nullptr;
    LockOrReport(&pContext->aSyncSlotLock);
    for (USBTR_SYNC_SLOT &aSlot : pContext->aSyncSlots) {
        if (aSlot.dwBusy == SLOT_ORPHANED && USBTRRequestMark(&aSlot.aRequest) != nullptr)
            aSlot.dwBusy = SLOT_FREE;
        if (pTaken == nullptr && aSlot.dwBusy == SLOT_FREE) {
            aSlot.dwBusy = SLOT_USED;
            pTaken = &aSlot;
        }
    }
    UnlockOrReport(&pContext->aSyncSlotLock);
    return pTaken;
}

USBTR_SYNC_SLOT *AcquireSlot(USBTR_CONTEXT *pContext)
{
    USBTR_SYNC_SLOT *pSlot = TakeFreeSlot(pContext);
    if (pSlot != nullptr)
        return pSlot;
    /* Collect (and mark) whatever has completed meanwhile, then look again.
     * The pass waits for no particular request, so it touches no slot. */
    USBTRTryReapThisRequest(pContext, nullptr);
    pSlot = TakeFreeSlot(pContext);
    if (pSlot == nullptr) {
        DTRACE(_DRegion_usbtr, DTRACE_LEVEL_ERROR, "No free transfer slot: %u requests still pending",
               USBTR_SYNC_SLOT_COUNT);
        DERROR("USBTR_STATUS_COMM_ERROR");
    }
    return pSlot;
}

void ReleaseSlot(USBTR_CONTEXT *pContext, USBTR_SYNC_SLOT *pSlot, uint32_t dwState)
{
    LockOrReport(&pContext->aSyncSlotLock);
    pSlot->dwBusy = dwState;
    UnlockOrReport(&pContext->aSyncSlotLock);
}

} // namespace

int32_t USBTRIOCtlEx(USBTR_CONTEXT *pContext, unsigned long request, void *pArgument, int64_t *pnResult)
{
    return IOCtlEx(pContext, request, pArgument, pnResult);
}

int32_t USBTRIOCtlVal(USBTR_CONTEXT *pContext, unsigned long request, uint32_t dwValue, const char *pszName)
{
    DTRACE_ENTER_AS(aCall, _DRegion_usbtr, DTRACE_LEVEL_DEBUG, pszName, "%s(%p)", static_cast<void *>(pContext));
    unsigned int uValue = dwValue;
    int32_t iStatus = USBTRIOCtlEx(pContext, request, &uValue, nullptr);
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}

int32_t USBTRSubmitRequest(USBTR_CONTEXT *pContext, USBTR_REQUEST *pRequest)
{
    if (LoudTraceOff() && pContext != nullptr) {
        USBTRSetRequestMark(pRequest, nullptr);
        int32_t iStatus = QuietIOCtl(pContext, USBDEVFS_SUBMITURB, pRequest, 2);
        if (iStatus != USBTR_STATUS_SUCCESS)
            SubmitFailed(iStatus, 1);
        return iStatus;
    }
    DTRACE_ENTER(aCall, _DRegion_usbtr, DTRACE_LEVEL_LOUD, "%s(%p,%p)", static_cast<void *>(pContext),
                 static_cast<void *>(pRequest));
    USBTRSetRequestMark(pRequest, nullptr);
    int32_t iStatus = IOCtlEx(pContext, USBDEVFS_SUBMITURB, pRequest, nullptr);
    if (iStatus != USBTR_STATUS_SUCCESS)
        SubmitFailed(iStatus, 0);
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}

int32_t USBTRDiscardRequest(USBTR_CONTEXT *pContext, USBTR_REQUEST *pRequest)
{
    int iErrno;
    int32_t iStatus = IOCtl(pContext, USBDEVFS_DISCARDURB, pRequest, nullptr, &iErrno);
    if (iStatus != USBTR_STATUS_SUCCESS && iErrno == EINVAL)
        iStatus = USBTR_STATUS_SUCCESS;
    return iStatus;
}

void USBTRMarkReaped(USBTR_CONTEXT *pContext, USBTR_REQUEST *pReaped)
{
    USBTRSetRequestMark(pReaped, pReaped);
    std::atomic_thread_fence(std::memory_order_seq_cst);
    if (std::atomic_ref<uint32_t>(pContext->bLongWaiter).load(std::memory_order_relaxed) != 0) {
        const uint64_t nOne = 1;
        /* A full counter needs no more: it already polls readable. */
        if (write(pContext->fdWake, &nOne, sizeof(nOne)) < 0)
            return;
    }
}

void USBTROpenWake(USBTR_CONTEXT *pContext)
{
    pContext->fdWake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    /* Without one (or with descriptor 0, which a zero-filled context also
     * holds), every waiter keeps the short bound. */
    if (pContext->fdWake == 0)
        close(0);
}

void USBTRCloseWake(USBTR_CONTEXT *pContext)
{
    if (pContext->fdWake > 0)
        close(pContext->fdWake);
    pContext->fdWake = -1;
}

int32_t USBTRTryReapThisRequest(USBTR_CONTEXT *pContext, USBTR_REQUEST *pRequest)
{
    bool bReaped = false;
    if (LoudTraceOff() && pContext != nullptr)
        return QuietReap(pContext, pRequest, &bReaped, 0);
    return TryReap(pContext, pRequest, &bReaped);
}

/* The waiting loop of USBTRPollReapThisRequest; bLoud: with the records of
 * each pass (else the pass's body would be two calls below the caller's). */
template <bool bLoud>
__attribute__((always_inline)) inline int32_t PollReap(USBTR_CONTEXT *pContext, USBTR_REQUEST *pRequest,
                                                        uint32_t dwTimeout)
{
    /* The clock is read only once the first pass has found nothing: a
     * request that is already there costs no clock reading. */
    uint32_t dwStart = 0;
    bool bWaited = false;
    bool bWoken = false; /* the last wait ended by poll() saying ready */
    bool bMissed = false;
    for (;;) {
        bool bReaped = false;
        int32_t iStatus = bLoud ? TryReap(pContext, pRequest, &bReaped) : QuietReap(pContext, pRequest, &bReaped, 1);
        if (bWoken)
            bMissed = NoteWakeUp(pContext, bReaped || iStatus != USBTR_STATUS_TIMEOUT);
        if (iStatus != USBTR_STATUS_TIMEOUT)
            return iStatus;
        uint32_t dwNow = FPPltGetTime();
        if (!bWaited) {
            dwStart = dwNow;
            bWaited = true;
        } else if (dwTimeout != USBTR_TIMEOUT_INFINITE && dwNow - dwStart > dwTimeout) {
            return iStatus;
        }
        /* Up to just past the time-out, when nothing wakes it earlier. */
        uint32_t dwLeft = dwTimeout - (dwNow - dwStart);
        int iLongMs = dwTimeout == USBTR_TIMEOUT_INFINITE ? -1 : dwLeft < INT_MAX ? int(dwLeft) + 1 : INT_MAX;
        bWoken = WaitBeforeNextPass(pContext, pRequest, bWoken && bMissed, iLongMs);
    }
}

int32_t USBTRPollReapThisRequest(USBTR_CONTEXT *pContext, USBTR_REQUEST *pRequest, uint32_t dwTimeout)
{
    if (LoudTraceOff() && pContext != nullptr && pRequest != nullptr && dwTimeout != 0)
        return PollReap<false>(pContext, pRequest, dwTimeout);
    DTRACE_ENTER(aCall, _DRegion_usbtr, DTRACE_LEVEL_LOUD, "%s(%p,%p,%u)", static_cast<void *>(pContext),
                 static_cast<void *>(pRequest), dwTimeout);
    DASSERT(pRequest != nullptr, "pRequest");
    DASSERT(dwTimeout != 0, "dwTimeout");
    int32_t iStatus = USBTR_STATUS_GENERAL_ERROR;
    if (pRequest != nullptr)
        iStatus = PollReap<true>(pContext, pRequest, dwTimeout);
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}

int32_t USBTRSynchronousTransferEx(USBTR_CONTEXT *pContext, USBTR_REQUEST **ppRequest, pthread_mutex_t *pLock,
                                   int iEndPoint, int iDirection, int iType, void *pBuffer, uint64_t nLength,
                                   uint32_t dwTimeout, uint64_t *pnActualLength)
{
    DTRACE_ENTER(aCall, _DRegion_usbtr, DTRACE_LEVEL_TRACE, "%s(%p,%i,%i,%i,%p,%u,%u)",
                 static_cast<void *>(pContext), iEndPoint, iDirection, iType, pBuffer,
                 static_cast<unsigned>(nLength), dwTimeout);
    uint64_t nLocalActual = 0;
    DASSERT(pnActualLength != nullptr, "pnActualLength");
    if (pnActualLength == nullptr)
        pnActualLength = &nLocalActual;
    *pnActualLength = 0;
    DASSERT((ppRequest == nullptr) == (pLock == nullptr), "(ppRequest == NULL) == (pLock == NULL)");
    if (pLock == nullptr)
        ppRequest = nullptr;
    if (ppRequest != nullptr) {
        LockOrReport(pLock);
        DASSERT(*ppRequest == nullptr, "(ppRequest == NULL) || (*ppRequest == NULL)");
        UnlockOrReport(pLock);
    }

    int32_t iStatus = USBTR_STATUS_SUCCESS;
    USBTR_SYNC_SLOT *pSlot = nullptr;
    if (pContext == nullptr || (pBuffer == nullptr && nLength != 0)) {
        DASSERT(pContext != nullptr, "pContext");
        DASSERT(pBuffer != nullptr, "pBuffer");
        iStatus = USBTR_STATUS_GENERAL_ERROR;
    } else {
        pSlot = AcquireSlot(pContext);
        if (pSlot == nullptr)
            iStatus = USBTR_STATUS_COMM_ERROR;
    }

    uint8_t *pCursor = static_cast<uint8_t *>(pBuffer);
    uint64_t nRemaining = nLength;
    uint32_t dwSlotState = SLOT_FREE;
    while (pSlot != nullptr) {
        const uint32_t nPieceLength =
            static_cast<uint32_t>(nRemaining < USB_MAX_BULK_TRANSFER ? nRemaining : USB_MAX_BULK_TRANSFER);
        USBTR_REQUEST *pRequest = &pSlot->aRequest;
        USBTRPrepareRequest(pContext, pRequest, iEndPoint, iDirection, iType, pSlot->aBuffer, nPieceLength);
        if ((iDirection & USB_TRANSFER_DIRECTION_MASK) == 0 && nPieceLength > 0)
            memcpy(pSlot->aBuffer, pCursor, nPieceLength);

        iStatus = USBTRSubmitRequest(pContext, pRequest);
        if (iStatus != USBTR_STATUS_SUCCESS)
            break;

        if (ppRequest != nullptr) {
            LockOrReport(pLock);
            *ppRequest = pRequest;
            UnlockOrReport(pLock);
            iStatus = USBTRPollReapThisRequest(pContext, pRequest, dwTimeout);
            LockOrReport(pLock);
            *ppRequest = nullptr;
            UnlockOrReport(pLock);
        } else {
            iStatus = USBTRPollReapThisRequest(pContext, pRequest, dwTimeout);
        }

        if (iStatus != USBTR_STATUS_SUCCESS) {
            /* Take the request back from the kernel before giving up on it. */
            USBTRDiscardRequest(pContext, pRequest);
            USBTRPollReapThisRequest(pContext, pRequest, USBTR_DISCARD_COLLECT_TIMEOUT);
            if (USBTRRequestMark(pRequest) == nullptr)
                dwSlotState = SLOT_ORPHANED;
            break;
        }

        int iActual = pRequest->actual_length;
        DTRACE(_DRegion_usbtr, DTRACE_LEVEL_TRACE, "%s: transferred %u bytes of %u", __func__,
               static_cast<unsigned>(iActual), nPieceLength);
        DASSERT(static_cast<int>(nPieceLength) >= iActual, "(int)nPieceLength >= aRequest.iActualLength");
        /* Never hand out more than was asked for, whatever the kernel claims. */
        uint32_t nMoved = iActual < 0 ? 0 : static_cast<uint32_t>(iActual);
        if (nMoved > nPieceLength)
            nMoved = nPieceLength;
        if ((iDirection & USB_TRANSFER_DIRECTION_MASK) != 0 && nMoved > 0)
            memcpy(pCursor, pSlot->aBuffer, nMoved);
        *pnActualLength += nMoved;
        nRemaining -= nMoved;
        if (nMoved < nPieceLength || nRemaining == 0)
            break;
        pCursor += nMoved;
    }
    if (pSlot != nullptr)
        ReleaseSlot(pContext, pSlot, dwSlotState);
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}

int32_t USBTRBulkRead(USBTR_CONTEXT *pContext, void *pBuffer, uint64_t nLength, uint64_t *pnActualLength,
                      uint32_t dwTimeout)
{
    if (!USBTR_CHECK_CONTEXT(pContext))
        return USBTR_STATUS_INVALID_HANDLE;
    if (pContext->iBulkReadEP == 0) {
        DERROR("USBTR_STATUS_NOT_SUPPORTED");
        return USBTR_STATUS_NOT_SUPPORTED;
    }
    uint64_t nActual = 0;
    int32_t iStatus = USBTRSynchronousTransferEx(pContext, nullptr, nullptr, pContext->iBulkReadEP,
                                                 USB_TRANSFER_DIRECTION_MASK, USB_TRANSFER_TYPE_BULK, pBuffer,
                                                 nLength, dwTimeout, &nActual);
    if (pnActualLength != nullptr)
        *pnActualLength = nActual;
    return iStatus;
}

int32_t USBTRInterruptRead(USBTR_CONTEXT *pContext, void *pBuffer, uint64_t nLength)
{
    if (!USBTR_CHECK_CONTEXT(pContext))
        return USBTR_STATUS_INVALID_HANDLE;
    /* Without an interrupt IN endpoint the request would go to endpoint 0. */
    if (pContext->iIntReadEP == 0) {
        DERROR("USBTR_STATUS_NOT_SUPPORTED");
        return USBTR_STATUS_NOT_SUPPORTED;
    }
    uint64_t nActual = 0;
    int32_t iStatus = USBTRSynchronousTransferEx(
        pContext, &pContext->pIntReadRequest, &pContext->aIntReadLock, pContext->iIntReadEP,
        USB_TRANSFER_DIRECTION_MASK, USB_TRANSFER_TYPE_INTERRUPT, pBuffer, nLength, USBTR_TIMEOUT_INFINITE, &nActual);
    if (iStatus == USBTR_STATUS_SUCCESS && nActual < nLength)
        iStatus = USBTR_STATUS_PARTIAL_TRANSFER;
    return iStatus;
}

int32_t USBTRCancel(USBTR_CONTEXT *pContext, uint32_t dwFlags)
{
    DTRACE_ENTER(aCall, _DRegion_usbtr, DTRACE_LEVEL_TRACE, "%s(%p)", static_cast<void *>(pContext));
    int32_t iStatus = USBTR_STATUS_SUCCESS;
    if (!USBTR_CHECK_CONTEXT(pContext)) {
        iStatus = USBTR_STATUS_INVALID_HANDLE;
    } else if (dwFlags & USBTR_CANCEL_INT_READ) {
        DASSERT(pthread_mutex_lock(&pContext->aIntReadLock) == 0,
                "(pthread_mutex_lock(&pContext->aIntReadLock)) == 0");
        if (pContext->pIntReadRequest != nullptr)
            USBTRDiscardRequest(pContext, pContext->pIntReadRequest);
        DASSERT(pthread_mutex_unlock(&pContext->aIntReadLock) == 0,
                "(pthread_mutex_unlock(&pContext->aIntReadLock)) == 0");
    }
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}
