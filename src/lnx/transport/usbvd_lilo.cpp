/*
 * Frame slot queues: one short first-in-first-out list of slot indexes per
 * image state.  The caller holds aGrabLock; nothing here locks or allocates.
 */
#include "usbtr.h"

#include "../../trace/dtraces.h"

/* Out-of-range states or indexes would index past aLilo / aImageStates: they
 * are reported and the operation stops before touching either array. */
static inline bool LILOStateValid(uint8_t aState)
{
    return aState < USBVD_IMAGE_STATE_MAX;
}

static inline bool LILOIndexValid(const USBTR_CONTEXT *pContext, uint8_t aImageIndex)
{
    return aImageIndex < USBVD_MAX_FRAMES && aImageIndex < pContext->nFrameCount;
}

void LILOPut(USBTR_CONTEXT *pContext, uint8_t aState, uint8_t aImageIndex)
{
    DTRACE(_DRegion_usbtr, DTRACE_LEVEL_DEBUG, "%s(%p,%u,%u)", "LILOPut", (void *)pContext, aState,
           aImageIndex);

    bool bIndexValid = LILOIndexValid(pContext, aImageIndex);
    DASSERT(aImageIndex < pContext->nFrameCount, "aImageIndex < pContext->nFrameCount");
    DASSERT(aState < USBVD_IMAGE_STATE_MAX, "aState < USBVD_IMAGE_STATE_MAX");
    if (!bIndexValid || !LILOStateValid(aState))
        return;

    DASSERT(pContext->aImageStates[aImageIndex] == USBVD_IMAGE_NO_STATE,
            "pContext->aImageStates[aImageIndex] == USBVD_IMAGE_NO_STATE");
    pContext->aImageStates[aImageIndex] = aState;

    USBVD_LILO *pLilo = &pContext->aLilo[aState];
    if (pLilo->nLength >= pContext->nFrameCount || pLilo->nLength >= USBVD_MAX_FRAMES) {
        _DAssert("LILO full, cannot add", __FILE__, __LINE__);
        return;
    }
    pLilo->aIndexes[pLilo->nLength] = aImageIndex;
    pLilo->nLength++;
}

int32_t LILOGet(USBTR_CONTEXT *pContext, uint8_t aState)
{
    int32_t nResult = -1;

    DASSERT(aState < USBVD_IMAGE_STATE_MAX, "aState < USBVD_IMAGE_STATE_MAX");
    if (LILOStateValid(aState)) {
        USBVD_LILO *pLilo = &pContext->aLilo[aState];
        DASSERT(pLilo->nLength <= pContext->nFrameCount, "pLilo->nLength <= pContext->nFrameCount");
        /* A length beyond the array means the queue is damaged: hand out
         * nothing rather than indexes read from past its end. */
        if (pLilo->nLength != 0 && pLilo->nLength <= USBVD_MAX_FRAMES) {
            nResult = pLilo->aIndexes[0];
            pLilo->nLength--;
            for (uint64_t i = 0; i < pLilo->nLength; i++)
                pLilo->aIndexes[i] = pLilo->aIndexes[i + 1];
            if (nResult < (int32_t)USBVD_MAX_FRAMES) {
                DASSERT(pContext->aImageStates[nResult] == aState,
                        "pContext->aImageStates[nResult] == aState");
                pContext->aImageStates[nResult] = USBVD_IMAGE_NO_STATE;
            } else {
                DFORCED_ASSERT();
            }
        }
    }

    DTRACE(_DRegion_usbtr, DTRACE_LEVEL_TRACE, "%s(%u) --> %i", "LILOGet", aState, nResult & 0xFF);
    return nResult;
}

bool LILOFindAndRemove(USBTR_CONTEXT *pContext, uint8_t aState, uint8_t aImageIndex)
{
    DTRACE(_DRegion_usbtr, DTRACE_LEVEL_TRACE, "%s(%p,%u,%u)", "LILOFindAndRemove", (void *)pContext,
           aState, aImageIndex);

    bool bIndexValid = LILOIndexValid(pContext, aImageIndex);
    DASSERT(aImageIndex < pContext->nFrameCount, "aImageIndex < pContext->nFrameCount");
    if (!bIndexValid || !LILOStateValid(aState)) {
        DASSERT(aState < USBVD_IMAGE_STATE_MAX, "aState < USBVD_IMAGE_STATE_MAX");
        return false;
    }

    DASSERT(pContext->aImageStates[aImageIndex] == aState,
            "pContext->aImageStates[aImageIndex] == aState");
    pContext->aImageStates[aImageIndex] = USBVD_IMAGE_NO_STATE;

    bool boResult = false;
    USBVD_LILO *pLilo = &pContext->aLilo[aState];
    uint64_t nLength = pLilo->nLength <= USBVD_MAX_FRAMES ? pLilo->nLength : USBVD_MAX_FRAMES;
    for (uint64_t k = 0; k < nLength; k++) {
        if (pLilo->aIndexes[k] == aImageIndex) {
            /* Order among the remaining entries does not matter here: the
             * last one fills the hole. */
            nLength--;
            if (nLength != 0)
                pLilo->aIndexes[k] = pLilo->aIndexes[nLength];
            pLilo->nLength = nLength;
            boResult = true;
            break;
        }
    }
    DASSERT(boResult, "boResult");
    return boResult;
}
