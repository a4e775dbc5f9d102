/*
 * Control transfers on an open reader, and the vendor register request built
 * on them.  Everything goes through USBTRIOCtlEx, so a disconnected reader
 * fails fast without reaching the kernel.
 */
#include <sys/ioctl.h>

#include "../../trace/dtraces.h"
#include "usbtr.h"

namespace {

constexpr uint8_t REGISTER_REQUEST = 0x0C;
constexpr uint8_t REGISTER_READ_TYPE = 0xC0;  /* device to host, vendor, device */
constexpr uint8_t REGISTER_WRITE_TYPE = 0x40; /* host to device, vendor, device */
constexpr uint32_t REGISTER_TIMEOUT = 1000;

/* The register operations report a bad handle by assertion only. */
bool ContextReady(const USBTR_CONTEXT *pContext)
{
    if (pContext == nullptr) {
        DASSERT(false, "(pContext != ((void *)0))");
        return false;
    }
    if (pContext->dwMagic != USBTR_CTX_MAGIC) {
        DASSERT(false, "(pContext->dwMagic == 0x54425355)");
        return false;
    }
    return true;
}

/* The setup packet carries only the low 16 bits of a length. */
uint16_t SetupLength(uint64_t nLength)
{
    return static_cast<uint16_t>(nLength & 0xFFFF);
}

int32_t RegisterTransfer(USBTR_CONTEXT *pContext, uint8_t bRequestType, uint16_t wAddress, void *pBuffer,
                         uint64_t nLength)
{
    uint64_t nActual = 0;
    int32_t iStatus = USBTRControlTransferInternal(pContext, bRequestType, REGISTER_REQUEST, wAddress, 0, pBuffer,
                                                   SetupLength(nLength), REGISTER_TIMEOUT, &nActual);
    if (iStatus == USBTR_STATUS_SUCCESS && nActual != nLength) {
        DERROR("USBTR_STATUS_COMM_ERROR");
        iStatus = USBTR_STATUS_COMM_ERROR;
    }
    return iStatus;
}

} // namespace

int32_t USBTRControlTransferInternal(USBTR_CONTEXT *pContext, uint8_t bRequestType, uint8_t bRequest,
                                     uint16_t wValue, uint16_t wIndex, void *pData, uint16_t wLength,
                                     uint32_t dwTimeout, uint64_t *pnActualLength)
{
    DTRACE_ENTER(aCall, _DRegion_usbtr, DTRACE_LEVEL_TRACE, "%s(%p,0x%02x,%i,%i,%u,%p,%u,%u)",
                 static_cast<void *>(pContext), bRequestType, bRequest, wValue, wIndex, pData, wLength, dwTimeout);
    struct usbdevfs_ctrltransfer aTransfer = {};
    aTransfer.bRequestType = bRequestType;
    aTransfer.bRequest = bRequest;
    aTransfer.wValue = wValue;
    aTransfer.wIndex = wIndex;
    aTransfer.wLength = wLength;
    aTransfer.timeout = dwTimeout;
    aTransfer.data = pData;
    int64_t nResult = 0;
    int32_t iStatus = USBTRIOCtlEx(pContext, USBDEVFS_CONTROL, &aTransfer, &nResult);
    if (iStatus != USBTR_STATUS_SUCCESS)
        DTRACE(_DRegion_usbtr, DTRACE_LEVEL_ERROR, "IOCtlEx(IOCTL_USB_CONTROL) failed, status = %d", iStatus);
    else if (pnActualLength != nullptr)
        *pnActualLength = static_cast<uint64_t>(nResult);
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}

int32_t USBTRControlTransferEx(USBTR_CONTEXT *pContext, uint8_t bRequestType, uint8_t bRequest, uint16_t wValue,
                               uint16_t wIndex, void *pData, uint64_t nLength, uint32_t dwTimeout)
{
    DTRACE_ENTER(aCall, _DRegion_usbtr, DTRACE_LEVEL_DEBUG, "%s(%p,%i,%i,%i,%i,%p,%u,%u)",
                 static_cast<void *>(pContext), bRequestType, bRequest, wValue, wIndex, pData,
                 static_cast<unsigned>(nLength), dwTimeout);
    int32_t iStatus;
    if (!USBTR_CHECK_CONTEXT(pContext)) {
        iStatus = USBTR_STATUS_INVALID_HANDLE;
    } else {
        uint64_t nActual = 0;
        iStatus = USBTRControlTransferInternal(pContext, bRequestType, bRequest, wValue, wIndex, pData,
                                               SetupLength(nLength), dwTimeout, &nActual);
        if (iStatus == USBTR_STATUS_SUCCESS && nActual != nLength) {
            DERROR("USBTR_STATUS_PARTIAL_TRANSFER");
            iStatus = USBTR_STATUS_PARTIAL_TRANSFER;
        }
    }
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}

int32_t USBTRReadRegisters(USBTR_CONTEXT *pContext, uint16_t wAddress, void *pBuffer, uint64_t nLength)
{
    DTRACE_ENTER(aCall, _DRegion_usbtr, DTRACE_LEVEL_TRACE, "%s(%p,%u,%p,%u)", static_cast<void *>(pContext),
                 wAddress, pBuffer, static_cast<unsigned>(nLength));
    int32_t iStatus = USBTR_STATUS_INVALID_HANDLE;
    if (ContextReady(pContext))
        iStatus = RegisterTransfer(pContext, REGISTER_READ_TYPE, wAddress, pBuffer, nLength);
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}

int32_t USBTRWriteRegisters(USBTR_CONTEXT *pContext, uint16_t wAddress, const void *pBuffer, uint64_t nLength)
{
    DTRACE_ENTER(aCall, _DRegion_usbtr, DTRACE_LEVEL_TRACE, "%s(%p,%u,%p,%u)", static_cast<void *>(pContext),
                 wAddress, pBuffer, static_cast<unsigned>(nLength));
    int32_t iStatus = USBTR_STATUS_INVALID_HANDLE;
    /* usbfs only reads the buffer of an OUT transfer. */
    if (ContextReady(pContext))
        iStatus = RegisterTransfer(pContext, REGISTER_WRITE_TYPE, wAddress, const_cast<void *>(pBuffer), nLength);
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}
