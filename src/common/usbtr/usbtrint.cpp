/*
 * The supported readers and the look-up that matches a USB identity against
 * them.  The table is constant data built at compile time; the streaming
 * control blocks are assembled from their fields so that a wrong byte order
 * or offset cannot slip in unnoticed (see the static_asserts below).
 */
#include "usbtrint.h"

namespace {

/* UVC 1.0 probe/commit field offsets not already named in the header. */
constexpr size_t SC_HINT = 0;
constexpr size_t SC_FORMAT_INDEX = 2;

constexpr uint16_t SC_HINT_FRAME_INTERVAL = 0x0001;
constexpr uint8_t SC_FORMAT_RAW = 1;
constexpr uint32_t SC_MAX_PAYLOAD = 3072;

constexpr void PutLE16(uint8_t *pDest, size_t nOffset, uint16_t wValue)
{
    pDest[nOffset] = static_cast<uint8_t>(wValue);
    pDest[nOffset + 1] = static_cast<uint8_t>(wValue >> 8);
}

constexpr void PutLE32(uint8_t *pDest, size_t nOffset, uint32_t dwValue)
{
    for (size_t i = 0; i < 4; i++)
        pDest[nOffset + i] = static_cast<uint8_t>(dwValue >> (8 * i));
}

constexpr uint32_t GetLE32(const uint8_t *pSource, size_t nOffset)
{
    uint32_t dwValue = 0;
    for (size_t i = 0; i < 4; i++)
        dwValue |= static_cast<uint32_t>(pSource[nOffset + i]) << (8 * i);
    return dwValue;
}

/* Key frame rate, P frame rate, compression quality and window, and delay
 * stay zero: the readers stream uncompressed frames. */
constexpr USBTR_VIDEO_INFO MakeVideoInfo(uint32_t dwWidth, uint32_t dwHeight, uint8_t bFrameIndex,
                                         uint32_t dwFrameInterval, uint32_t dwMaxVideoFrameSize)
{
    USBTR_VIDEO_INFO aInfo{};
    aInfo.dwImageWidth = dwWidth;
    aInfo.dwImageHeight = dwHeight;
    PutLE16(aInfo.aStreamingControl, SC_HINT, SC_HINT_FRAME_INTERVAL);
    aInfo.aStreamingControl[SC_FORMAT_INDEX] = SC_FORMAT_RAW;
    aInfo.aStreamingControl[USBTR_SC_FRAME_INDEX] = bFrameIndex;
    PutLE32(aInfo.aStreamingControl, USBTR_SC_FRAME_INTERVAL, dwFrameInterval);
    PutLE32(aInfo.aStreamingControl, USBTR_SC_MAX_VIDEO_FRAME_SIZE, dwMaxVideoFrameSize);
    PutLE32(aInfo.aStreamingControl, USBTR_SC_MAX_PAYLOAD_SIZE, SC_MAX_PAYLOAD);
    return aInfo;
}

constexpr uint32_t INTERVAL_30FPS = 333333;
constexpr uint32_t INTERVAL_15FPS = 666666;
/* Every large model announces the 1280 x 1024 frame size, also the
 * 1296 x 808 one: the device expects exactly this value in the commit. */
constexpr uint32_t LARGE_FRAME_SIZE = 1280 * 1024;

} // namespace

constexpr USBTR_READER gDeviceTable[USBTR_READER_COUNT] = {
    {USBTR_READER_VENDOR_ID, 0x000B, 0, "Tessary 10 Fingerprint Reader",
     MakeVideoInfo(640, 480, 5, INTERVAL_30FPS, 640 * 480)},
    {USBTR_READER_VENDOR_ID, 0x000C, 0, "Tessary 20 Fingerprint Reader",
     MakeVideoInfo(1296, 808, 1, INTERVAL_15FPS, LARGE_FRAME_SIZE)},
    {USBTR_READER_VENDOR_ID, 0x000D, 0, "Tessary 30 Fingerprint Reader",
     MakeVideoInfo(1280, 1024, 1, INTERVAL_15FPS, LARGE_FRAME_SIZE)},
    {USBTR_READER_VENDOR_ID, 0x000E, 0, "Tessary 40 Fingerprint Reader",
     MakeVideoInfo(1280, 1024, 1, INTERVAL_15FPS, LARGE_FRAME_SIZE)},
};

namespace {

constexpr bool AllRowsShareVendor()
{
    for (const USBTR_READER &aRow : gDeviceTable)
        if (aRow.wVid != USBTR_READER_VENDOR_ID)
            return false;
    return true;
}

constexpr bool BlockEquals(const uint8_t *pBlock, const uint8_t (&aExpected)[USBTR_STREAMING_CONTROL_SIZE])
{
    for (size_t i = 0; i < USBTR_STREAMING_CONTROL_SIZE; i++)
        if (pBlock[i] != aExpected[i])
            return false;
    return true;
}

/* The exact bytes the readers are known to accept on the wire. */
constexpr uint8_t SC_EXPECTED_SMALL[USBTR_STREAMING_CONTROL_SIZE] = {
    0x01, 0x00, 0x01, 0x05, 0x15, 0x16, 0x05, 0x00, 0, 0, 0, 0, 0,
    0,    0,    0,    0,    0,    0x00, 0xB0, 0x04, 0x00, 0x00, 0x0C, 0x00, 0x00};
constexpr uint8_t SC_EXPECTED_LARGE[USBTR_STREAMING_CONTROL_SIZE] = {
    0x01, 0x00, 0x01, 0x01, 0x2A, 0x2C, 0x0A, 0x00, 0, 0, 0, 0, 0,
    0,    0,    0,    0,    0,    0x00, 0x00, 0x14, 0x00, 0x00, 0x0C, 0x00, 0x00};

static_assert(AllRowsShareVendor());
static_assert(BlockEquals(gDeviceTable[0].aVideoInfo.aStreamingControl, SC_EXPECTED_SMALL));
static_assert(BlockEquals(gDeviceTable[1].aVideoInfo.aStreamingControl, SC_EXPECTED_LARGE));
static_assert(BlockEquals(gDeviceTable[2].aVideoInfo.aStreamingControl, SC_EXPECTED_LARGE));
static_assert(BlockEquals(gDeviceTable[3].aVideoInfo.aStreamingControl, SC_EXPECTED_LARGE));
static_assert(GetLE32(gDeviceTable[0].aVideoInfo.aStreamingControl, USBTR_SC_FRAME_INTERVAL) == 333333);
static_assert(USBTR_SC_MAX_PAYLOAD_SIZE + 4 == USBTR_STREAMING_CONTROL_SIZE);

} // namespace

uint32_t USBTRStreamingInterval(const USBTR_VIDEO_INFO *pInfo)
{
    if (pInfo == nullptr)
        return 0;
    return GetLE32(pInfo->aStreamingControl, USBTR_SC_FRAME_INTERVAL);
}

int32_t USBTRIdentifyDevice(const void *pInfo, const char **ppszModelName,
                            const USBTR_VIDEO_INFO **ppVDDeviceInfo)
{
    if (ppszModelName != nullptr)
        *ppszModelName = nullptr;
    /* A caller without an identity gets "not a reader" rather than a crash. */
    if (pInfo == nullptr)
        return 0;

    const USBTR_IDENTITY *pIdentity = static_cast<const USBTR_IDENTITY *>(pInfo);
    if (pIdentity->wVid != USBTR_READER_VENDOR_ID)
        return 0;

    for (const USBTR_READER &aRow : gDeviceTable) {
        if (aRow.wPid != pIdentity->wPid)
            continue;
        if (aRow.wRev != 0 && aRow.wRev != pIdentity->wRev)
            continue;
        if (ppszModelName != nullptr)
            *ppszModelName = aRow.pszModelName;
        if (ppVDDeviceInfo != nullptr)
            *ppVDDeviceInfo = &aRow.aVideoInfo;
        return 2;
    }
    return 0;
}
