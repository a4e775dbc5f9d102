/*
 * Reader extension controls: sensor registers and flash through the vendor
 * extension unit, plus the controls these readers do not have.
 *
 * Every request and reply is an 11-byte block on extension unit 6 of
 * interface 0.  A read writes {count, addr hi, addr lo, 0...} with SET_CUR
 * and fetches the data (from byte 3 on) with GET_CUR; a write sends
 * {0x81, addr hi, addr lo, value, 0...}.
 */
#include <cstring>

#include "usbuvc_int.h"

constexpr uint8_t XU_CONTROL_SENSOR = 7;
constexpr uint8_t XU_CONTROL_FLASH = 3;
constexpr uint32_t XU_FINGER_REGISTER = 0xF000;

constexpr uint16_t XU_UNIT_INDEX = 0x0600; /* unit 6 in the high byte, interface 0 */
constexpr size_t XU_BLOCK_SIZE = 11;
constexpr size_t XU_DATA_OFFSET = 3;
constexpr size_t XU_MAX_DATA = 8;
constexpr uint8_t XU_WRITE_COMMAND = 0x81;

constexpr uint8_t UVC_REQTYPE_SET = 0x21; /* host to device, class, interface */
constexpr uint8_t UVC_REQTYPE_GET = 0xA1; /* device to host, class, interface */
constexpr uint8_t UVC_SET_CUR = 0x01;
constexpr uint8_t UVC_GET_CUR = 0x81;

constexpr uint32_t XU_READ_TIMEOUT = 2000;
constexpr uint32_t XU_WRITE_TIMEOUT = 1000;
/* The reader needs a moment between taking a request and having the reply. */
constexpr uint32_t XU_READ_PAUSE = 1;

static_assert(XU_DATA_OFFSET + XU_MAX_DATA == XU_BLOCK_SIZE);

/* One read exchange of up to 8 bytes; 0, or -1 on any failure. */
static int32_t sensor_read(CAMERA_DEVICE *pDevice, uint8_t bSelector, uint32_t dwAddress,
                           uint8_t *pBuffer, size_t nLength)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p,%x,%p,%d)",
                 static_cast<void *>(pDevice), dwAddress, static_cast<void *>(pBuffer),
                 static_cast<int>(nLength));
    DASSERT(nLength <= XU_MAX_DATA, "nLength <= 8");
    if (nLength > XU_MAX_DATA)
        nLength = XU_MAX_DATA;

    uint8_t aBlock[XU_BLOCK_SIZE] = {};
    aBlock[0] = static_cast<uint8_t>(nLength);
    aBlock[1] = static_cast<uint8_t>(dwAddress >> 8);
    aBlock[2] = static_cast<uint8_t>(dwAddress);
    const uint16_t wValue = static_cast<uint16_t>(bSelector << 8);

    int32_t iResult = -1;
    if (USBTRControlTransferEx(pDevice->hDeviceHandle, UVC_REQTYPE_SET, UVC_SET_CUR, wValue,
                               XU_UNIT_INDEX, aBlock, sizeof(aBlock),
                               XU_READ_TIMEOUT) == USBTR_STATUS_SUCCESS) {
        FPPltSleep(XU_READ_PAUSE);
        /* A short reply is a failure of the transfer, so the block is whole here. */
        if (USBTRControlTransferEx(pDevice->hDeviceHandle, UVC_REQTYPE_GET, UVC_GET_CUR, wValue,
                                   XU_UNIT_INDEX, aBlock, sizeof(aBlock),
                                   XU_READ_TIMEOUT) == USBTR_STATUS_SUCCESS) {
            memcpy(pBuffer, &aBlock[XU_DATA_OFFSET], nLength);
            iResult = 0;
        }
    }
    DTRACE_EXIT(call, "%s() --> %d", iResult);
    return iResult;
}

extern "C" CAMERA_API int32_t camera_xu_sensor_read(CAMERA_HANDLE handle, uint32_t address)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p,%x)", static_cast<void *>(handle),
                 address);
    int32_t iResult;
    {
        UVC_LOCK_GUARD guard;
        CAMERA_DEVICE *pDevice = ListFind(handle);
        uint8_t bValue = 0;
        if (pDevice == nullptr || pDevice->hDeviceHandle == nullptr)
            iResult = CAMERA_ERR_NO_DEVICE;
        else if (sensor_read(pDevice, XU_CONTROL_SENSOR, address, &bValue, 1) != 0)
            iResult = CAMERA_ERR_FAILURE;
        else
            iResult = bValue; /* 0..255: never mistaken for a failure code */
    }
    DTRACE_EXIT(call, "%s() --> %d", iResult);
    return iResult;
}

extern "C" CAMERA_API int32_t camera_xu_sensor_write(CAMERA_HANDLE handle, uint32_t address,
                                                     int32_t value)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p,%x,%d)",
                 static_cast<void *>(handle), address, value);
    int32_t iResult;
    {
        UVC_LOCK_GUARD guard;
        CAMERA_DEVICE *pDevice = ListFind(handle);
        if (pDevice == nullptr || pDevice->hDeviceHandle == nullptr) {
            iResult = CAMERA_ERR_NO_DEVICE;
        } else {
            uint8_t aBlock[XU_BLOCK_SIZE] = {};
            aBlock[0] = XU_WRITE_COMMAND;
            aBlock[1] = static_cast<uint8_t>(address >> 8);
            aBlock[2] = static_cast<uint8_t>(address);
            aBlock[3] = static_cast<uint8_t>(value);
            int32_t status = USBTRControlTransferEx(
                pDevice->hDeviceHandle, UVC_REQTYPE_SET, UVC_SET_CUR,
                static_cast<uint16_t>(XU_CONTROL_SENSOR << 8), XU_UNIT_INDEX, aBlock,
                sizeof(aBlock), XU_WRITE_TIMEOUT);
            iResult = status == USBTR_STATUS_SUCCESS ? 0 : CAMERA_ERR_FAILURE;
        }
    }
    DTRACE_EXIT(call, "%s() --> %d", iResult);
    return iResult;
}

/* The finger functions take the lock only through the functions they call. */
extern "C" CAMERA_API int32_t camera_xu_get_finger(CAMERA_HANDLE handle)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p)", static_cast<void *>(handle));
    int32_t iResult = camera_xu_sensor_read(handle, XU_FINGER_REGISTER);
    DTRACE_EXIT(call, "%s() --> %d", iResult);
    return iResult;
}

extern "C" CAMERA_API int32_t camera_xu_set_finger(CAMERA_HANDLE handle, int32_t value)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p,%i)", static_cast<void *>(handle),
                 value);
    int32_t iResult = camera_xu_sensor_write(handle, XU_FINGER_REGISTER, value);
    DTRACE_EXIT(call, "%s() --> %d", iResult);
    return iResult;
}

extern "C" CAMERA_API int32_t camera_xu_flash_read(CAMERA_HANDLE handle, uint32_t address,
                                                   int32_t length, void *buffer)
{
    DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_DEBUG, "%s(%p,%x,%d,%p)",
                 static_cast<void *>(handle), address, length, buffer);
    int32_t iResult;
    {
        UVC_LOCK_GUARD guard;
        CAMERA_DEVICE *pDevice = ListFind(handle);
        if (pDevice == nullptr || pDevice->hDeviceHandle == nullptr) {
            iResult = CAMERA_ERR_NO_DEVICE;
        } else if (length <= 0 || buffer == nullptr) {
            /* Nothing to read, or nowhere to put it: refuse before any transfer. */
            iResult = CAMERA_ERR_FAILURE;
        } else {
            uint8_t *pPosition = static_cast<uint8_t *>(buffer);
            uint32_t dwAddress = address;
            uint32_t nRemaining = static_cast<uint32_t>(length);
            iResult = 0;
            while (nRemaining > 0) {
                uint32_t nChunk = nRemaining > XU_MAX_DATA ? XU_MAX_DATA : nRemaining;
                /* Chunks already read stay in the buffer on failure. */
                if (sensor_read(pDevice, XU_CONTROL_FLASH, dwAddress, pPosition, nChunk) != 0) {
                    iResult = CAMERA_ERR_FAILURE;
                    break;
                }
                dwAddress += nChunk; /* wraps; only the low 16 bits go on the wire */
                pPosition += nChunk;
                nRemaining -= nChunk;
            }
        }
    }
    if (iResult == 0)
        _DDataDump(&_DRegion_usbuvc, DTRACE_LEVEL_TRACE, __FILE__, __LINE__,
                   "camera_xu_flash_read: read data", buffer, static_cast<uint32_t>(length), 1);
    DTRACE_EXIT(call, "%s() --> %d", iResult);
    return iResult;
}

/* Controls these readers do not have: report success and touch nothing. */
#define UVC_NO_CONTROL(function, ...)                                                              \
    extern "C" CAMERA_API int32_t function(CAMERA_HANDLE handle, __VA_ARGS__)                      \
    {                                                                                              \
        DTRACE_ENTER(call, _DRegion_usbuvc, DTRACE_LEVEL_ERROR, "%s(%p)",                          \
                     static_cast<void *>(handle));                                                 \
        DTRACE_EXIT(call, "%s() --> 0");                                                           \
        return 0;                                                                                  \
    }

UVC_NO_CONTROL(camera_get_controls, void *, uint32_t *)
UVC_NO_CONTROL(camera_get_control_info, uint32_t, void *)
UVC_NO_CONTROL(camera_get_control, uint32_t, int32_t *)
UVC_NO_CONTROL(camera_set_control, uint32_t, int32_t)
UVC_NO_CONTROL(camera_button_state, int32_t *)
UVC_NO_CONTROL(camera_wait_for_button, uint32_t)
UVC_NO_CONTROL(camera_xu_get_flip, int32_t *)
UVC_NO_CONTROL(camera_xu_set_flip, int32_t)
UVC_NO_CONTROL(camera_xu_get_mirror, int32_t *)
UVC_NO_CONTROL(camera_xu_set_mirror, int32_t)
UVC_NO_CONTROL(camera_xu_set_leds_mode, int32_t)
UVC_NO_CONTROL(camera_xu_set_leds, int32_t)
