/*
 * Private header of the Linux USB transport and the video streaming layer:
 * status codes, discovery records, the device context and every internal
 * entry point.  Nothing here is exported from the shared library.
 */
#ifndef ZTUVC_USBTR_H
#define ZTUVC_USBTR_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <linux/usbdevice_fs.h>
#include <pthread.h>
#include <sys/ioctl.h> /* the USBDEVFS_* request codes expand to _IO* */

#include "../../common/usbtr/usbtrint.h"
#include "../../trace/dtraces.h"

/* ---- Transport status codes ------------------------------------------- */
enum : int32_t {
    USBTR_STATUS_SUCCESS = 0,
    USBTR_STATUS_GENERAL_ERROR = 1,
    USBTR_STATUS_INVALID_PARAMETER = 2,
    USBTR_STATUS_INVALID_HANDLE = 3,
    USBTR_STATUS_NOT_SUPPORTED = 4,
    USBTR_STATUS_NO_MEMORY = 5,
    USBTR_STATUS_TIMEOUT = 7,
    USBTR_STATUS_COMM_ERROR = 8,
    USBTR_STATUS_STOPPED = 10,
    USBTR_STATUS_PARTIAL_TRANSFER = 12,
    USBTR_STATUS_DEVICE_BUSY = 18,
    USBTR_STATUS_ACCESS_DENIED = 19,
    USBTR_STATUS_NO_DEVICE = 20,
};

/* ---- Library context --------------------------------------------------- */
constexpr uint32_t USBTR_LIB_MAGIC = 0x4C425355; /* "USBL" */
constexpr uint32_t USBTR_CTX_MAGIC = 0x54425355; /* "USBT" */

struct USBTR_LIB_CONTEXT {
    uint32_t dwMagic;
};

/* ---- Discovery records -------------------------------------------------- */
constexpr uint32_t USBTR_MAX_CONFIGS = 8;
constexpr uint32_t USBTR_MAX_INTERFACES = 32;
constexpr uint32_t USBTR_MAX_ALTSETTINGS = 128;
constexpr uint32_t USBTR_MAX_ENDPOINTS = 32;
constexpr size_t USBTR_DESCRIPTORS_BUFFER_SIZE = 16384;

enum : uint32_t {
    USBTR_DEVINFO_UNVERIFIED = 0,
    USBTR_DEVINFO_VERIFIED = 1,
    USBTR_DEVINFO_SELECTED = 2,
};

#pragma pack(push, 1)
struct USBTR_DEVICE_DESCRIPTOR {
    uint8_t bLength;
    uint8_t bDescriptorType;
    uint16_t bcdUSB;
    uint8_t bDeviceClass;
    uint8_t bDeviceSubClass;
    uint8_t bDeviceProtocol;
    uint8_t bMaxPacketSize0;
    uint16_t idVendor;
    uint16_t idProduct;
    uint16_t bcdDevice;
    uint8_t iManufacturer;
    uint8_t iProduct;
    uint8_t iSerialNumber;
    uint8_t bNumConfigurations;
};
#pragma pack(pop)
static_assert(sizeof(USBTR_DEVICE_DESCRIPTOR) == 18);
static_assert(offsetof(USBTR_DEVICE_DESCRIPTOR, idVendor) == 8);

struct USBTR_ENDPOINT {
    uint8_t bLength;
    uint8_t bDescriptorType;
    uint8_t bEndpointAddress;
    uint8_t bmAttributes;
    uint16_t wMaxPacketSize;
    uint8_t bInterval;
    uint8_t bRefresh;
    uint8_t bSynchAddress;
};

struct USBTR_ALTSETTING {
    uint8_t bLength;
    uint8_t bDescriptorType;
    uint8_t bInterfaceNumber;
    uint8_t bAlternateSetting;
    uint8_t bNumEndpoints;
    uint8_t bInterfaceClass;
    uint8_t bInterfaceSubClass;
    uint8_t bInterfaceProtocol;
    uint8_t iInterface;
    USBTR_ENDPOINT aEndpoints[USBTR_MAX_ENDPOINTS];
};

struct USBTR_INTERFACE {
    uint32_t nAltSettings;
    USBTR_ALTSETTING aAltSettings[USBTR_MAX_ALTSETTINGS];
};

struct USBTR_CONFIG {
    uint8_t bLength;
    uint8_t bDescriptorType;
    uint16_t wTotalLength;
    uint8_t bNumInterfaces;
    uint8_t bConfigurationValue;
    uint8_t iConfiguration;
    uint8_t bmAttributes;
    uint8_t bMaxPower;
    USBTR_INTERFACE *pInterfaces; /* bNumInterfaces records, owned */
};

struct USBTR_DEVICE_INFO {
    char szDevNum[4];
    char szBusNum[4];
    char szSysfsName[128];
    USBTR_DEVICE_DESCRIPTOR aDeviceDescriptor;
    USBTR_CONFIG aConfigs[USBTR_MAX_CONFIGS];
    uint32_t dwState;
    char szManufacturer[128];
    char szProduct[128];
    char szSerialNumber[128];
};

/* What the camera interface sees of a reader; its leading part is a request. */
struct USBTR_DEVICE_DESCRIPTION {
    uint16_t wVid;
    uint16_t wPid;
    uint16_t wRev;
    char szDeviceName[256];
    char szManufacturer[128];
    char szDescription[128];
    char szSerialNumber[128];
};
static_assert(offsetof(USBTR_DEVICE_DESCRIPTION, szDeviceName) == 6);

struct USBTR_DEVICE_LIST {
    uint64_t nCount;
    USBTR_DEVICE_DESCRIPTION aDevices[];
};

/* ---- Request records ----------------------------------------------------- */
/* The kernel's struct usbdevfs_urb, mirrored without its flexible array so that
 * it can be embedded; usercontext is the completion mark (null in flight,
 * the record's own address once reaped). */
struct USBTR_REQUEST {
    unsigned char type;
    unsigned char endpoint;
    int status;
    unsigned int flags;
    void *buffer;
    int buffer_length;
    int actual_length;
    int start_frame;
    union {
        int number_of_packets;
        unsigned int stream_id;
    };
    int error_count;
    unsigned int signr;
    void *usercontext;
};
static_assert(sizeof(USBTR_REQUEST) == sizeof(struct usbdevfs_urb));
static_assert(offsetof(USBTR_REQUEST, buffer) == offsetof(struct usbdevfs_urb, buffer));
static_assert(offsetof(USBTR_REQUEST, actual_length) == offsetof(struct usbdevfs_urb, actual_length));
static_assert(offsetof(USBTR_REQUEST, number_of_packets) ==
              offsetof(struct usbdevfs_urb, number_of_packets));
static_assert(offsetof(USBTR_REQUEST, usercontext) == offsetof(struct usbdevfs_urb, usercontext));

constexpr uint32_t USB_MAX_BULK_TRANSFER = 16384;
constexpr int USB_TRANSFER_DIRECTION_MASK = 0x80;
constexpr int USB_TRANSFER_TYPE_ISO = USBDEVFS_URB_TYPE_ISO;
constexpr int USB_TRANSFER_TYPE_INTERRUPT = USBDEVFS_URB_TYPE_INTERRUPT;
constexpr int USB_TRANSFER_TYPE_CONTROL = USBDEVFS_URB_TYPE_CONTROL;
constexpr int USB_TRANSFER_TYPE_BULK = USBDEVFS_URB_TYPE_BULK;
constexpr uint32_t USBTR_TIMEOUT_INFINITE = 0xFFFFFFFF;
constexpr uint32_t USBTR_REAP_POLL_US = 200;
/* Longest sleep in poll() between reap passes for a waiter that nobody wakes
 * when another thread reaps its completion (the node's signal is gone then),
 * so its mark is looked at after this.  One waiter at a time may sleep longer:
 * whoever marks a request for it wakes it through the context's eventfd. */
constexpr int USBTR_REAP_WAIT_MS = 1;
/* Wake-ups in a row with nothing to reap before a node counts as one that
 * poll() cannot tell about. */
constexpr uint32_t USBTR_POLL_BLIND_AFTER = 8;
constexpr uint32_t USBTR_DISCARD_COLLECT_TIMEOUT = 1000;
constexpr uint32_t USBTR_CANCEL_INT_READ = 4;

/* Synchronous transfers run in context-owned slots with their own bounce
 * buffer: a piece that is discarded but not collected in time stays owned by
 * the context (orphaned) until some later reap marks it, so the kernel never
 * writes through a stale stack address. */
constexpr uint32_t USBTR_SYNC_SLOT_COUNT = 4;
struct USBTR_SYNC_SLOT {
    USBTR_REQUEST aRequest;
    uint32_t dwBusy; /* 0 free, 1 used by a transfer, 2 orphaned until reaped */
    uint8_t aBuffer[USB_MAX_BULK_TRANSFER];
};

/* ---- Video streaming records ---------------------------------------------- */
constexpr uint32_t USBVD_MAX_FRAMES = 4;
constexpr uint32_t USBVD_DEFAULT_FRAMES = 4;
constexpr uint32_t USBVD_MAX_IMAGE_SIZE = 1280 * 1024;
constexpr uint32_t USBVD_TIME_STAMP_SIZE = 12;
constexpr uint32_t USBVD_IMAGE_BUFFER_SIZE = 0x14000C; /* largest image + trailer */
static_assert(USBVD_IMAGE_BUFFER_SIZE == USBVD_MAX_IMAGE_SIZE + USBVD_TIME_STAMP_SIZE);
static_assert(USBVD_IMAGE_BUFFER_SIZE % 4 == 0);

constexpr uint32_t USBVD_ISO_REQUEST_COUNT = 16;
constexpr uint32_t USBVD_ISO_PACKET_COUNT = 8;
constexpr uint32_t USBVD_ISO_PACKET_SIZE = 3072;
constexpr uint32_t USBVD_ISO_BUFFER_SIZE = USBVD_ISO_PACKET_COUNT * USBVD_ISO_PACKET_SIZE;
constexpr uint32_t USBVD_PAYLOAD_HEADER_SIZE = 12;
constexpr uint32_t USBVD_ISO_REAP_TIMEOUT = 2500;
constexpr uint32_t USBVD_COMMIT_TIMEOUT = 1000;
constexpr uint32_t USBVD_START_POLL = 200;
/* A stream whose requests complete but never carry payload ends after this. */
constexpr uint32_t USBVD_START_TIMEOUT = 5000;
/* Once the grab thread has caught up with the ring it lets completions
 * gather this long before it takes them: at high speed a request completes
 * every millisecond, so one wake-up serves about four while twelve stay
 * queued, instead of one wake-up (with a poll() and an empty reap) per
 * request.  It costs at most this much hand-out latency. */
constexpr uint32_t USBVD_GATHER_MS = 4;
constexpr int INTERFACE_NO_ACTIVE = 1;
static_assert(USBVD_ISO_BUFFER_SIZE == 24576);

enum : uint8_t {
    USBVD_IMAGE_STATE_FREE = 0,
    USBVD_IMAGE_STATE_READY = 1,
    USBVD_IMAGE_STATE_IN_USE = 2,
    USBVD_IMAGE_STATE_MAX = 3,
    USBVD_IMAGE_NO_STATE = 0xFF,
};

enum : uint32_t {
    USBVD_GRAB_STATE_NOT_STARTED = 0,
    USBVD_GRAB_STATE_STOPPED = 1,
    USBVD_GRAB_STATE_RUNNING = 2,
};

struct USBVD_LILO {
    uint64_t nLength;
    uint8_t aIndexes[USBVD_MAX_FRAMES];
};

struct USBVD_ISO_REQUEST {
    USBTR_REQUEST aRequest;
    struct usbdevfs_iso_packet_desc aPackets[USBVD_ISO_PACKET_COUNT];
};
static_assert(offsetof(USBVD_ISO_REQUEST, aPackets) == sizeof(struct usbdevfs_urb));

struct USBVD_TIME_STAMP {
    char dwTMSignature[4]; /* "TmSt" */
    uint32_t dwTMFrameStart;
    uint32_t dwTMFrameReturned;
};
static_assert(sizeof(USBVD_TIME_STAMP) == USBVD_TIME_STAMP_SIZE);

struct USBVD_IMAGE_FORMAT {
    uint32_t dwFourCC;
    uint32_t dwWidth;
    uint32_t dwHeight;
    uint32_t dwImageSize;
    uint32_t dwReserved;
};
constexpr uint32_t USBVD_FOURCC_YUYV = 0x56595559;

struct USBVD_IMAGE_FORMAT_LIST {
    uint64_t nCount;
    USBVD_IMAGE_FORMAT aFormats[1];
};

/* ---- Device context -------------------------------------------------------- */
enum : uint32_t {
    USBTR_SF_EX_LOCKED = 1,
    USBTR_SF_DISCONNECTED = 2,
};

struct USBTR_CONTEXT {
    uint32_t dwMagic;
    int32_t fdDevice;
    uint32_t dwStatusFlags; /* shared between threads: use the accessors below */
    USBTR_IDENTITY aDeviceInfo;
    int32_t iBulkReadEP;
    int32_t iIsoReadEP;
    int32_t iIntReadEP;
    USBTR_REQUEST *pIntReadRequest;
    pthread_mutex_t aIntReadLock;
    /* video streaming */
    pthread_mutex_t aGrabLock;
    uint32_t dwFrameEvent; /* event word, signalled under aGrabLock: a frame is ready or the grab state changed */
    uint32_t dwGrabState; /* read without the lock: use the accessors below */
    uint32_t dwGrabStatus;
    pthread_t aGrabThread;
    pthread_attr_t aGrabThreadAttributes;
    uint32_t bGrabThreadAttributesValid;
    const USBTR_VIDEO_INFO *pVDDeviceInfo;
    USBVD_IMAGE_FORMAT_LIST aImageFormatList;
    uint64_t nImageFormatIndex;
    uint32_t dwFrameInterval;
    uint64_t nFrameCount;
    uint64_t nFramesToDrop;
    USBVD_LILO aLilo[USBVD_IMAGE_STATE_MAX];
    uint32_t aFrameStartTimes[USBVD_MAX_FRAMES];
    uint8_t aImageStates[USBVD_MAX_FRAMES];
    /* poll() wake-ups in a row that found nothing to reap, shared by every
     * waiter (atomic accesses); from USBTR_POLL_BLIND_AFTER on, the node is
     * taken for one that poll() cannot tell about. */
    uint32_t nPollMisses;
    /* Wakes the one waiter that sleeps beyond USBTR_REAP_WAIT_MS (an eventfd;
     * 0 or below: none, as in a zero-filled context), and the flag that such
     * a waiter is asleep (atomic accesses). */
    int32_t fdWake;
    uint32_t bLongWaiter;
    pthread_mutex_t aSyncSlotLock;
    USBTR_SYNC_SLOT aSyncSlots[USBTR_SYNC_SLOT_COUNT];
    USBVD_ISO_REQUEST aIsoRequests[USBVD_ISO_REQUEST_COUNT];
    alignas(64) uint8_t aIsoBuffers[USBVD_ISO_REQUEST_COUNT][USBVD_ISO_BUFFER_SIZE];
    alignas(64) uint8_t aImages[USBVD_MAX_FRAMES][USBVD_IMAGE_BUFFER_SIZE];
};

inline bool USBTR_CTX_READY(const USBTR_CONTEXT *pContext)
{
    return pContext != nullptr && pContext->dwMagic == USBTR_CTX_MAGIC;
}

/* Handle check of every operation that callers give a context to: reports
 * which condition failed and yields false. */
bool USBTRCheckContext(const USBTR_CONTEXT *pContext, const char *pszFile, int iLine);
#define USBTR_CHECK_CONTEXT(ctx) USBTRCheckContext((ctx), __FILE__, __LINE__)

/* Flags and grab state are touched by several threads. */
inline uint32_t USBTRStatusFlags(USBTR_CONTEXT *pContext)
{
    return std::atomic_ref<uint32_t>(pContext->dwStatusFlags).load(std::memory_order_acquire);
}
inline void USBTRSetStatusFlag(USBTR_CONTEXT *pContext, uint32_t dwFlag)
{
    std::atomic_ref<uint32_t>(pContext->dwStatusFlags).fetch_or(dwFlag, std::memory_order_acq_rel);
}
inline void USBTRClearStatusFlag(USBTR_CONTEXT *pContext, uint32_t dwFlag)
{
    std::atomic_ref<uint32_t>(pContext->dwStatusFlags).fetch_and(~dwFlag, std::memory_order_acq_rel);
}
inline uint32_t USBVDGrabState(USBTR_CONTEXT *pContext)
{
    return std::atomic_ref<uint32_t>(pContext->dwGrabState).load(std::memory_order_acquire);
}
inline void USBVDSetGrabState(USBTR_CONTEXT *pContext, uint32_t dwState)
{
    std::atomic_ref<uint32_t>(pContext->dwGrabState).store(dwState, std::memory_order_release);
}
/* Completion mark of a request. */
inline void *USBTRRequestMark(USBTR_REQUEST *pRequest)
{
    return std::atomic_ref<void *>(pRequest->usercontext).load(std::memory_order_acquire);
}
inline void USBTRSetRequestMark(USBTR_REQUEST *pRequest, void *pMark)
{
    std::atomic_ref<void *>(pRequest->usercontext).store(pMark, std::memory_order_release);
}

/* ---- Library context and process-wide state --------------------------------- */
extern uint32_t gdwTimeStampBase;
extern char gszUSBFSRoot[4096];
extern uint32_t gGlobalInitialised;

/* Handle check of the library context: reports which condition failed (and,
 * with bErrorRecord, the error record "USBTR_STATUS_INVALID_HANDLE"). */
bool USBTRCheckLibContext(const void *pLibCtx, bool bErrorRecord, const char *pszFile, int iLine);

int32_t USBTRInit(void **phLibraryHandle, uint32_t dwFlags);
int32_t USBTRDone(void *pLibCtx);
int32_t USBTRInitialise(void);
int32_t USBTRFindRoot(void);
/* Kernel release check ("%i.%i.%i", 2.6.26 or later): 1 supported, 0 not. */
int32_t USBTRKernelSupported(const char *pszRelease);
void USBTRChangeCheckHandleCount(int32_t iDelta);
uint64_t USBTRHandleCount(void);

/* ---- Discovery ------------------------------------------------------------ */
int32_t USBTREnumerate(void *pLibCtx, const USBTR_DEVICE_DESCRIPTION *pRequest,
                       USBTR_DEVICE_LIST **ppDeviceList);
int32_t USBTRInternalEnumerate(const USBTR_DEVICE_DESCRIPTION *pRequest,
                               USBTR_DEVICE_INFO ***pppDeviceInfoTable, int32_t *piDeviceCount,
                               int32_t *piFilteredDeviceCount, USBTR_DEVICE_INFO **ppFirstValidDevice);
int32_t USBTRVerifyAndFillDeviceInfo(USBTR_DEVICE_INFO *pDevInfo,
                                     const USBTR_DEVICE_DESCRIPTION *pRequest, uint32_t *pbVerified);
/* Parses bNumConfigurations configurations from pData (the bytes after the
 * device descriptor) into pDevInfo->aConfigs; releases what it allocated on
 * failure. */
int32_t USBTRParseConfigurations(USBTR_DEVICE_INFO *pDevInfo, const uint8_t *pData, int32_t nDataLength);
int32_t USBTRSkipOtherDescriptors(const uint8_t **ppDataPtr, int32_t *pnDataLength);
void USBTRFreeConfigurations(USBTR_DEVICE_INFO *pDevInfo);
int32_t USBTRReadDevice(const char *pszBusName, const char *pszDeviceName, void *pBuffer,
                        int32_t *pnLength, uint32_t bTrim);
int32_t USBTRLoadDeviceNumber(const char *pszBusName, const char *pszAttribute, char *pszOut);
void USBTRCreateDeviceName(const USBTR_DEVICE_INFO *pDevInfo, char *pszOut);
void USBTRFreeDevices(USBTR_DEVICE_INFO **ppTable, int32_t iCount);
int32_t USBTRDeviceInfo(USBTR_CONTEXT *pContext, USBTR_IDENTITY *pDeviceInfo);

/* ---- Open and close ---------------------------------------------------------- */
int32_t USBTROpen(void *pLibCtx, const USBTR_DEVICE_DESCRIPTION *pDeviceRequest, uint32_t dwOpenFlags,
                  USBTR_CONTEXT **phTransferHandle);
int32_t USBTRClose(USBTR_CONTEXT *pContext);
int32_t USBTRInternalOpen(USBTR_CONTEXT *pContext, const USBTR_DEVICE_INFO *pDeviceInfo);
int32_t USBTRSetInterfaceAlt(USBTR_CONTEXT *pContext, int iInterface, int iAltSetting);
int32_t USBTRResetDevice(USBTR_CONTEXT *pContext);
int32_t LockFD(USBTR_CONTEXT *pContext);
void UnlockFD(USBTR_CONTEXT *pContext);

/* ---- Request engine ------------------------------------------------------------ */
int32_t USBTRIOCtlEx(USBTR_CONTEXT *pContext, unsigned long request, void *pArgument, int64_t *pnResult);
int32_t USBTRIOCtlVal(USBTR_CONTEXT *pContext, unsigned long request, uint32_t dwValue,
                      const char *pszName);
/* Inline: the grab thread prepares every request again before submitting it. */
inline void USBTRPrepareRequest(USBTR_CONTEXT *pContext, USBTR_REQUEST *pRequest, int iEndPoint,
                                int iDirection, int iType, void *pBuffer, uint64_t nLength)
{
    DASSERT(pContext != nullptr, "pContext");
    DASSERT(pRequest != nullptr, "pRequest");
    DASSERT(pBuffer != nullptr, "pBuffer");
    DASSERT((iEndPoint & USB_TRANSFER_DIRECTION_MASK) == iDirection,
            "(iEndPoint & USB_TRANSFER_DIRECTION_MASK) == iDirection");
    if (pRequest == nullptr)
        return;
    memset(pRequest, 0, sizeof(*pRequest));
    pRequest->type = static_cast<unsigned char>(iType);
    pRequest->endpoint = static_cast<unsigned char>(iEndPoint);
    pRequest->buffer = pBuffer;
    pRequest->buffer_length = static_cast<int>(nLength);
    DASSERT(iType != USB_TRANSFER_TYPE_BULK || nLength <= USB_MAX_BULK_TRANSFER,
            "(iType != USB_TRANSFER_TYPE_BULK) || (nLength <= USB_MAX_BULK_TRANSFER)");
}

int32_t USBTRSubmitRequest(USBTR_CONTEXT *pContext, USBTR_REQUEST *pRequest);
int32_t USBTRPollReapThisRequest(USBTR_CONTEXT *pContext, USBTR_REQUEST *pRequest, uint32_t dwTimeout);
int32_t USBTRTryReapThisRequest(USBTR_CONTEXT *pContext, USBTR_REQUEST *pRequest);
/* Marks a reaped request completed; a waiter asleep beyond the usual bound is
 * woken, since the request may be the one it waits for. */
void USBTRMarkReaped(USBTR_CONTEXT *pContext, USBTR_REQUEST *pReaped);
/* The context's wake-up descriptor: made at open, closed at close. */
void USBTROpenWake(USBTR_CONTEXT *pContext);
void USBTRCloseWake(USBTR_CONTEXT *pContext);
int32_t USBTRDiscardRequest(USBTR_CONTEXT *pContext, USBTR_REQUEST *pRequest);
int32_t USBTRSynchronousTransferEx(USBTR_CONTEXT *pContext, USBTR_REQUEST **ppRequest,
                                   pthread_mutex_t *pLock, int iEndPoint, int iDirection, int iType,
                                   void *pBuffer, uint64_t nLength, uint32_t dwTimeout,
                                   uint64_t *pnActualLength);
int32_t USBTRBulkRead(USBTR_CONTEXT *pContext, void *pBuffer, uint64_t nLength,
                      uint64_t *pnActualLength, uint32_t dwTimeout);
int32_t USBTRInterruptRead(USBTR_CONTEXT *pContext, void *pBuffer, uint64_t nLength);
int32_t USBTRCancel(USBTR_CONTEXT *pContext, uint32_t dwFlags);

/* ---- Control transfers -------------------------------------------------------- */
int32_t USBTRControlTransferInternal(USBTR_CONTEXT *pContext, uint8_t bRequestType, uint8_t bRequest,
                                     uint16_t wValue, uint16_t wIndex, void *pData, uint16_t wLength,
                                     uint32_t dwTimeout, uint64_t *pnActualLength);
int32_t USBTRControlTransferEx(USBTR_CONTEXT *pContext, uint8_t bRequestType, uint8_t bRequest,
                               uint16_t wValue, uint16_t wIndex, void *pData, uint64_t nLength,
                               uint32_t dwTimeout);
int32_t USBTRReadRegisters(USBTR_CONTEXT *pContext, uint16_t wAddress, void *pBuffer, uint64_t nLength);
int32_t USBTRWriteRegisters(USBTR_CONTEXT *pContext, uint16_t wAddress, const void *pBuffer,
                            uint64_t nLength);

/* ---- Frame slots ------------------------------------------------------------- */
void LILOPut(USBTR_CONTEXT *pContext, uint8_t aState, uint8_t aImageIndex);
int32_t LILOGet(USBTR_CONTEXT *pContext, uint8_t aState);
bool LILOFindAndRemove(USBTR_CONTEXT *pContext, uint8_t aState, uint8_t aImageIndex);

/* ---- Streaming ------------------------------------------------------------------ */
int32_t USBVDStartTransfer(USBTR_CONTEXT *pContext, uint32_t nFrameCount);
int32_t USBVDStopTransfer(USBTR_CONTEXT *pContext, uint32_t dwTraceTag);
void *USBDVGrabThread(void *pContext);
int32_t USBDVInitTransfer(USBTR_CONTEXT *pContext);
void USBVDPrepareISORequest(USBTR_CONTEXT *pContext, USBVD_ISO_REQUEST *pRequest, uint8_t *pBuffer);

/* ---- Frame hand-out ------------------------------------------------------------- */
int32_t USBVDGetFrame(USBTR_CONTEXT *pContext, uint32_t dwTimeout, void **ppFrame);
int32_t USBVDReleaseFrame(USBTR_CONTEXT *pContext, void *pFrame);
int32_t USBVDFlush(USBTR_CONTEXT *pContext);

/* ---- Formats and interval ------------------------------------------------------- */
int32_t USBVDListImageFormats(USBTR_CONTEXT *pContext, USBVD_IMAGE_FORMAT_LIST **ppList);
int32_t USBVDSetImageFormat(USBTR_CONTEXT *pContext, uint64_t nImageFormatIndex);
int32_t USBVDGetImageFormat(USBTR_CONTEXT *pContext, uint64_t *pnImageFormatIndex);
int32_t USBVDGetFrameInterval(USBTR_CONTEXT *pContext, uint32_t *pdwInterval);
int32_t USBVDSetFrameInterval(USBTR_CONTEXT *pContext, uint32_t dwInterval);

#endif
