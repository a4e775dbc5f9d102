/*
 * Image format list and frame interval of an open reader.  Each reader has
 * exactly one format; the interval is committed at the next stream start.
 */
#include "usbtr.h"

#include "../../trace/dtraces.h"

int32_t USBVDListImageFormats(USBTR_CONTEXT *pContext, USBVD_IMAGE_FORMAT_LIST **ppList)
{
    DTRACE_ENTER(call, _DRegion_usbtr, DTRACE_LEVEL_DEBUG, "%s(%p,%p)", (void *)pContext, (void *)ppList);
    int32_t iStatus = USBTR_STATUS_SUCCESS;
    if (!USBTR_CHECK_CONTEXT(pContext)) {
        iStatus = USBTR_STATUS_INVALID_HANDLE;
    } else if (ppList == nullptr) {
        /* Nowhere to store the answer: report it and write nothing. */
        DASSERT(ppList != nullptr, "ppList");
        iStatus = USBTR_STATUS_GENERAL_ERROR;
    } else {
        *ppList = &pContext->aImageFormatList;
    }
    DTRACE_EXIT(call, "%s() --> %d", iStatus);
    return iStatus;
}

int32_t USBVDSetImageFormat(USBTR_CONTEXT *pContext, uint64_t nImageFormatIndex)
{
    DTRACE_ENTER(call, _DRegion_usbtr, DTRACE_LEVEL_DEBUG, "%s(%p,%u)", (void *)pContext,
                 (unsigned)nImageFormatIndex);
    int32_t iStatus = USBTR_STATUS_SUCCESS;
    if (!USBTR_CHECK_CONTEXT(pContext)) {
        iStatus = USBTR_STATUS_INVALID_HANDLE;
    } else if (nImageFormatIndex >= pContext->aImageFormatList.nCount) {
        iStatus = USBTR_STATUS_INVALID_PARAMETER;
    } else {
        pContext->nImageFormatIndex = nImageFormatIndex;
        DASSERT(nImageFormatIndex == 0, "nImageFormatIndex == 0");
    }
    DTRACE_EXIT(call, "%s() --> %d", iStatus);
    return iStatus;
}

int32_t USBVDGetImageFormat(USBTR_CONTEXT *pContext, uint64_t *pnImageFormatIndex)
{
    DTRACE_ENTER(call, _DRegion_usbtr, DTRACE_LEVEL_DEBUG, "%s(%p,%p)", (void *)pContext,
                 (void *)pnImageFormatIndex);
    int32_t iStatus = USBTR_STATUS_SUCCESS;
    DASSERT(pnImageFormatIndex != nullptr, "pnImageFormatIndex");
    if (!USBTR_CHECK_CONTEXT(pContext))
        iStatus = USBTR_STATUS_INVALID_HANDLE;
    else if (pnImageFormatIndex == nullptr)
        iStatus = USBTR_STATUS_GENERAL_ERROR;
    else
        *pnImageFormatIndex = pContext->nImageFormatIndex;
    DTRACE_EXIT(call, "%s() --> %d", iStatus);
    return iStatus;
}

int32_t USBVDGetFrameInterval(USBTR_CONTEXT *pContext, uint32_t *pdwInterval)
{
    DTRACE_ENTER(call, _DRegion_usbtr, DTRACE_LEVEL_DEBUG, "%s(%p,%p)", (void *)pContext,
                 (void *)pdwInterval);
    int32_t iStatus = USBTR_STATUS_SUCCESS;
    DASSERT(pdwInterval != nullptr, "pdwInterval");
    if (!USBTR_CHECK_CONTEXT(pContext))
        iStatus = USBTR_STATUS_INVALID_HANDLE;
    else if (pdwInterval == nullptr)
        iStatus = USBTR_STATUS_GENERAL_ERROR;
    else
        *pdwInterval = pContext->dwFrameInterval / 10000;
    DTRACE_EXIT(call, "%s() --> %d", iStatus);
    return iStatus;
}

/* Milliseconds to 100 ns units.  Requests too long for the 32-bit field
 * (429,497 ms and more) saturate to the longest interval it can carry instead
 * of wrapping round to a short one. */
static uint32_t USBVDIntervalUnits(uint32_t dwMilliseconds)
{
    constexpr uint32_t dwUnitsPerMs = 10000;
    if (dwMilliseconds > UINT32_MAX / dwUnitsPerMs)
        return UINT32_MAX;
    return dwMilliseconds * dwUnitsPerMs;
}

int32_t USBVDSetFrameInterval(USBTR_CONTEXT *pContext, uint32_t dwInterval)
{
    DTRACE_ENTER(call, _DRegion_usbtr, DTRACE_LEVEL_DEBUG, "%s(%p,%u)", (void *)pContext, dwInterval);
    int32_t iStatus = USBTR_STATUS_SUCCESS;
    if (!USBTR_CHECK_CONTEXT(pContext)) {
        iStatus = USBTR_STATUS_INVALID_HANDLE;
    } else {
        uint32_t dwUnits = USBVDIntervalUnits(dwInterval);
        /* The reader's own interval is the shortest it can do. */
        if (pContext->pVDDeviceInfo != nullptr) {
            uint32_t dwLowest = USBTRStreamingInterval(pContext->pVDDeviceInfo);
            if (dwUnits < dwLowest)
                dwUnits = dwLowest;
        } else {
            DASSERT(pContext->pVDDeviceInfo != nullptr, "pContext->pVDDeviceInfo");
        }
        pContext->dwFrameInterval = dwUnits;
    }
    DTRACE_EXIT(call, "%s() --> %d", iStatus);
    return iStatus;
}
