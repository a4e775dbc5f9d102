// Supported reader table, identity look-up, kernel release check, device
// names and the handle checks.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "lnx/transport/usbtr.h"

namespace {

uint32_t le32(const uint8_t *p)
{
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

TEST(TransportReaderTable, RowsMatchTheReaderModels)
{
    struct Row {
        uint16_t pid;
        const char *name;
        uint32_t w, h;
        uint8_t frameIndex;
        uint32_t interval, maxFrame;
    } const expected[] = {
        {0x000B, "Tessary 10 Fingerprint Reader", 640, 480, 5, 333333, 307200},
        {0x000C, "Tessary 20 Fingerprint Reader", 1296, 808, 1, 666666, 1310720},
        {0x000D, "Tessary 30 Fingerprint Reader", 1280, 1024, 1, 666666, 1310720},
        {0x000E, "Tessary 40 Fingerprint Reader", 1280, 1024, 1, 666666, 1310720},
    };
    ASSERT_EQ(USBTR_READER_COUNT, 4u);
    for (uint32_t i = 0; i < USBTR_READER_COUNT; i++) {
        SCOPED_TRACE(i);
        const USBTR_READER &r = gDeviceTable[i];
        const Row &e = expected[i];
        EXPECT_EQ(r.wVid, USBTR_READER_VENDOR_ID);
        EXPECT_EQ(r.wPid, e.pid);
        EXPECT_EQ(r.wRev, 0);
        EXPECT_STREQ(r.pszModelName, e.name);
        EXPECT_EQ(r.aVideoInfo.dwImageWidth, e.w);
        EXPECT_EQ(r.aVideoInfo.dwImageHeight, e.h);
        const uint8_t *sc = r.aVideoInfo.aStreamingControl;
        EXPECT_EQ(sc[0], 0x01); // bmHint, little-endian
        EXPECT_EQ(sc[1], 0x00);
        EXPECT_EQ(sc[2], 1); // bFormatIndex
        EXPECT_EQ(sc[3], e.frameIndex);
        EXPECT_EQ(le32(sc + 4), e.interval);
        for (int k = 8; k < 18; k++)
            EXPECT_EQ(sc[k], 0) << "byte " << k;
        EXPECT_EQ(le32(sc + 18), e.maxFrame);
        EXPECT_EQ(le32(sc + 22), 3072u);
        EXPECT_EQ(USBTRStreamingInterval(&r.aVideoInfo), e.interval);
    }
}

TEST(TransportReaderTable, IdentifyFindsEachModelWhateverTheRelease)
{
    for (uint32_t i = 0; i < USBTR_READER_COUNT; i++) {
        for (uint16_t rev : {0x0000, 0x0100, 0xFFFF}) {
            USBTR_IDENTITY id = {USBTR_READER_VENDOR_ID, gDeviceTable[i].wPid, rev};
            const char *name = "stale";
            const USBTR_VIDEO_INFO *video = nullptr;
            EXPECT_EQ(USBTRIdentifyDevice(&id, &name, &video), 2);
            EXPECT_EQ(name, gDeviceTable[i].pszModelName);
            EXPECT_EQ(video, &gDeviceTable[i].aVideoInfo);
        }
    }
    USBTR_IDENTITY t20 = {USBTR_READER_VENDOR_ID, 0x000C, 0x0100};
    const char *name = nullptr;
    const USBTR_VIDEO_INFO *video = nullptr;
    ASSERT_EQ(USBTRIdentifyDevice(&t20, &name, &video), 2);
    EXPECT_STREQ(name, "Tessary 20 Fingerprint Reader");
    EXPECT_EQ(video->dwImageWidth, 1296u);
    EXPECT_EQ(video->dwImageHeight, 808u);
    // Either output may be omitted.
    EXPECT_EQ(USBTRIdentifyDevice(&t20, nullptr, nullptr), 2);
}

TEST(TransportReaderTable, IdentifyRejectsOtherDevices)
{
    const USBTR_VIDEO_INFO sentinel = {};
    const USBTR_IDENTITY others[] = {
        {USBTR_READER_VENDOR_ID, 0x000F, 0x0100},
        {USBTR_READER_VENDOR_ID, 0x000A, 0x0100},
        {USBTR_READER_VENDOR_ID, 0x0000, 0x0000},
        {0x046D, 0x000C, 0x0100},
        {uint16_t(USBTR_READER_VENDOR_ID + 1), 0x000D, 0x0100},
    };
    for (const USBTR_IDENTITY &id : others) {
        const char *name = "stale";
        const USBTR_VIDEO_INFO *video = &sentinel;
        EXPECT_EQ(USBTRIdentifyDevice(&id, &name, &video), 0);
        EXPECT_EQ(name, nullptr) << "name is cleared";
        EXPECT_EQ(video, &sentinel) << "video part is left untouched";
    }
    const char *name = "stale";
    EXPECT_EQ(USBTRIdentifyDevice(nullptr, &name, nullptr), 0);
    EXPECT_EQ(name, nullptr);
}

TEST(TransportKernelCheck, ReleasesBefore2626AreRefused)
{
    for (const char *r : {"2.6.25-generic", "2.6", "2", "2.6.25", "2.4.37", "1.99.99", "", "linux", "2.6.026",
                          "0x2.0x6.0x19"})
        EXPECT_EQ(USBTRKernelSupported(r), 0) << r;
    EXPECT_EQ(USBTRKernelSupported(nullptr), 0);
}

TEST(TransportKernelCheck, Releases2626AndLaterAreAccepted)
{
    for (const char *r : {"2.6.26", "2.6.32-5-amd64", "2.7.0", "2.7", "3.0", "3", "4.15.0-generic", "10.1",
                          "6.1.0-18-amd64", "0x3.0", "0x2.0x6.0x1a", "02.06.032", "010.1", "2.07"})
        EXPECT_EQ(USBTRKernelSupported(r), 1) << r;
}

TEST(TransportDeviceName, FormatIsVidPidRevBusSysfsName)
{
    std::unique_ptr<USBTR_DEVICE_INFO> info(new USBTR_DEVICE_INFO());
    info->aDeviceDescriptor.idVendor = USBTR_READER_VENDOR_ID;
    info->aDeviceDescriptor.idProduct = 0x000B;
    info->aDeviceDescriptor.bcdDevice = 0x0100;
    strcpy(info->szBusNum, "001");
    strcpy(info->szDevNum, "007");
    strcpy(info->szSysfsName, "1-1.2");
    char name[256];
    memset(name, 'x', sizeof(name));
    USBTRCreateDeviceName(info.get(), name);
    EXPECT_STREQ(name, "3a5c_000b_0100_001_1-1.2");

    info->aDeviceDescriptor.idProduct = 0xABCD;
    info->aDeviceDescriptor.bcdDevice = 0xF00D;
    strcpy(info->szBusNum, "012");
    strcpy(info->szSysfsName, "12-3.4.1");
    USBTRCreateDeviceName(info.get(), name);
    EXPECT_STREQ(name, "3a5c_abcd_f00d_012_12-3.4.1");

    // The longest sysfs name the record holds still fits.
    std::string longName(127, 'n');
    strcpy(info->szSysfsName, longName.c_str());
    USBTRCreateDeviceName(info.get(), name);
    EXPECT_EQ(std::string(name), "3a5c_abcd_f00d_012_" + longName);
}

TEST(TransportHandleCheck, NullAndWrongMagicAreRefused)
{
    std::unique_ptr<USBTR_CONTEXT> ctx(new USBTR_CONTEXT());
    EXPECT_FALSE(USBTR_CHECK_CONTEXT(nullptr));
    EXPECT_FALSE(USBTR_CHECK_CONTEXT(ctx.get()));
    ctx->dwMagic = USBTR_LIB_MAGIC;
    EXPECT_FALSE(USBTR_CHECK_CONTEXT(ctx.get()));
    ctx->dwMagic = USBTR_CTX_MAGIC;
    EXPECT_TRUE(USBTR_CHECK_CONTEXT(ctx.get()));

    USBTR_LIB_CONTEXT lib = {USBTR_CTX_MAGIC};
    EXPECT_FALSE(USBTRCheckLibContext(nullptr, true, __FILE__, __LINE__));
    EXPECT_FALSE(USBTRCheckLibContext(&lib, true, __FILE__, __LINE__));
    lib.dwMagic = USBTR_LIB_MAGIC;
    EXPECT_TRUE(USBTRCheckLibContext(&lib, false, __FILE__, __LINE__));
}

// Operations refuse a bad context before they touch anything.
TEST(TransportHandleCheck, OperationsOnABadContextReturnInvalidHandle)
{
    std::unique_ptr<USBTR_CONTEXT> bad(new USBTR_CONTEXT());
    bad->dwMagic = 0xDEADBEEF;
    bad->fdDevice = -1;
    uint8_t buf[16];
    uint64_t actual = 99;
    USBTR_IDENTITY id = {1, 2, 3};
    for (USBTR_CONTEXT *ctx : {static_cast<USBTR_CONTEXT *>(nullptr), bad.get()}) {
        EXPECT_EQ(USBTRClose(ctx), USBTR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(USBTRControlTransferEx(ctx, 0xA1, 0x81, 0, 0, buf, sizeof(buf), 100), USBTR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(USBTRReadRegisters(ctx, 0, buf, sizeof(buf)), USBTR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(USBTRWriteRegisters(ctx, 0, buf, sizeof(buf)), USBTR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(USBTRBulkRead(ctx, buf, sizeof(buf), &actual, 100), USBTR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(USBTRInterruptRead(ctx, buf, sizeof(buf)), USBTR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(USBTRCancel(ctx, USBTR_CANCEL_INT_READ), USBTR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(USBTRDeviceInfo(ctx, &id), USBTR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(USBTRSetInterfaceAlt(ctx, 1, 0), USBTR_STATUS_INVALID_HANDLE);
    }
    EXPECT_EQ(id.wVid, 1);
    EXPECT_EQ(bad->dwMagic, 0xDEADBEEFu) << "a refused close frees nothing";

    USBTR_LIB_CONTEXT wrong = {USBTR_CTX_MAGIC};
    USBTR_DEVICE_LIST *list = reinterpret_cast<USBTR_DEVICE_LIST *>(0x1);
    EXPECT_EQ(USBTREnumerate(nullptr, nullptr, &list), USBTR_STATUS_INVALID_HANDLE);
    EXPECT_EQ(USBTREnumerate(&wrong, nullptr, &list), USBTR_STATUS_INVALID_HANDLE);
    EXPECT_EQ(list, reinterpret_cast<USBTR_DEVICE_LIST *>(0x1)) << "list not written";
    USBTR_CONTEXT *handle = reinterpret_cast<USBTR_CONTEXT *>(0x1);
    EXPECT_EQ(USBTROpen(&wrong, nullptr, 0, &handle), USBTR_STATUS_INVALID_HANDLE);
    EXPECT_EQ(handle, reinterpret_cast<USBTR_CONTEXT *>(0x1)) << "handle not written";
    EXPECT_EQ(USBTRDone(&wrong), USBTR_STATUS_INVALID_HANDLE);
    EXPECT_EQ(USBTRDone(nullptr), USBTR_STATUS_INVALID_HANDLE);
}

TEST(TransportHandleCheck, NullOutPointersAreRefusedBeforeAllocating)
{
    EXPECT_EQ(USBTRInit(nullptr, 0), USBTR_STATUS_GENERAL_ERROR);
    USBTR_LIB_CONTEXT lib = {USBTR_LIB_MAGIC};
    EXPECT_EQ(USBTROpen(&lib, nullptr, 0, nullptr), USBTR_STATUS_GENERAL_ERROR);
    EXPECT_EQ(USBTREnumerate(&lib, nullptr, nullptr), USBTR_STATUS_GENERAL_ERROR);
}

// The disconnected flag short-cuts every ioctl; a bad descriptor maps to
// COMM_ERROR.  Neither needs a device.
TEST(TransportIoctl, DisconnectedContextFailsWithoutTheKernel)
{
    std::unique_ptr<USBTR_CONTEXT> ctx(new USBTR_CONTEXT());
    ctx->dwMagic = USBTR_CTX_MAGIC;
    ctx->fdDevice = -1;
    errno = 0;
    EXPECT_EQ(USBTRIOCtlEx(ctx.get(), USBDEVFS_RESET, nullptr, nullptr), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(errno, EBADF) << "the ioctl was made";
    USBTRSetStatusFlag(ctx.get(), USBTR_SF_DISCONNECTED);
    errno = 0;
    EXPECT_EQ(USBTRIOCtlEx(ctx.get(), USBDEVFS_RESET, nullptr, nullptr), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(errno, 0) << "no system call once disconnected";
    uint8_t buf[4];
    EXPECT_EQ(USBTRControlTransferEx(ctx.get(), 0xA1, 0x81, 0, 0, buf, 4, 100), USBTR_STATUS_COMM_ERROR);
}

} // namespace
