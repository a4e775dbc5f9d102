/*
 * The readers this library drives: one constant row per model with the video
 * parameters the stream needs.
 */
#ifndef ZTUVC_USBTRINT_H
#define ZTUVC_USBTRINT_H

#include <cstddef>
#include <cstdint>

/* USB vendor id shared by every supported reader. */
constexpr uint16_t USBTR_READER_VENDOR_ID = 0x3A5C;

constexpr size_t USBTR_STREAMING_CONTROL_SIZE = 26;
constexpr uint32_t USBTR_READER_COUNT = 4;

/* Identity triple: idVendor, idProduct, bcdDevice. */
struct USBTR_IDENTITY {
    uint16_t wVid;
    uint16_t wPid;
    uint16_t wRev;
};
static_assert(sizeof(USBTR_IDENTITY) == 6);

struct USBTR_VIDEO_INFO {
    uint32_t dwImageWidth;
    uint32_t dwImageHeight;
    /* UVC 1.0 probe/commit block, little-endian, packed. */
    uint8_t aStreamingControl[USBTR_STREAMING_CONTROL_SIZE];
};

struct USBTR_READER {
    uint16_t wVid;
    uint16_t wPid;
    uint16_t wRev; /* 0 matches any release */
    const char *pszModelName;
    USBTR_VIDEO_INFO aVideoInfo;
};

extern const USBTR_READER gDeviceTable[USBTR_READER_COUNT];

/* Offsets inside aStreamingControl. */
constexpr size_t USBTR_SC_FRAME_INDEX = 3;
constexpr size_t USBTR_SC_FRAME_INTERVAL = 4;
constexpr size_t USBTR_SC_MAX_VIDEO_FRAME_SIZE = 18;
constexpr size_t USBTR_SC_MAX_PAYLOAD_SIZE = 22;

/* dwFrameInterval (100 ns units) of a streaming control block. */
uint32_t USBTRStreamingInterval(const USBTR_VIDEO_INFO *pInfo);

/* 2 when pInfo names a supported reader, 0 when not. */
int32_t USBTRIdentifyDevice(const void *pInfo, const char **ppszModelName,
                            const USBTR_VIDEO_INFO **ppVDDeviceInfo);

#endif
