// Open and close end to end: the wire sequence, the reader chosen, the
// context filled at open, and a clean slate after every failed open.
#include <chrono>
#include <memory>
#include <thread>

#include "descblob.h"
#include "transport_e2e.h"

using namespace sim;
using transport_e2e::TransportE2E;

namespace {

using Open = TransportE2E;

uint32_t msSince(std::chrono::steady_clock::time_point t0)
{
    return uint32_t(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count());
}

// The ioctls of an open, in order, and nothing else.
void expectOpenSequence(const Reader &r)
{
    auto log = r.log();
    ASSERT_EQ(log.size(), 5u);
    EXPECT_EQ(log[0].request, USBDEVFS_IOCTL);
    EXPECT_EQ(log[0].interface, 0u);
    EXPECT_EQ(log[0].innerCode, int(USBDEVFS_DISCONNECT));
    EXPECT_EQ(log[1].request, USBDEVFS_RESET);
    EXPECT_EQ(log[2].request, USBDEVFS_SETCONFIGURATION);
    EXPECT_EQ(log[2].interface, 1u);
    EXPECT_EQ(log[3].request, USBDEVFS_CLAIMINTERFACE);
    EXPECT_EQ(log[3].interface, 1u);
    EXPECT_EQ(log[4].request, USBDEVFS_SETINTERFACE);
    EXPECT_EQ(log[4].interface, 1u);
    EXPECT_EQ(log[4].alt, 0u);
    for (size_t i = 1; i < log.size(); i++)
        EXPECT_EQ(log[i].err, 0) << log[i].name;
}

TEST_F(Open, FirstReaderOpensWithTheFullSequenceAndClosesCleanly)
{
    Reader &r = addReader(Model::T30);
    lib();
    USBTR_CONTEXT *ctx = nullptr;
    ASSERT_EQ(USBTROpen(lib(), nullptr, 0, &ctx), USBTR_STATUS_SUCCESS);
    ASSERT_NE(ctx, nullptr);
    expectOpenSequence(r);
    EXPECT_EQ(r.configuration(), 1);
    EXPECT_TRUE(r.interfaceClaimed(1));
    EXPECT_EQ(r.currentAltSetting(1), 0);
    EXPECT_EQ(USBTRHandleCount(), 1u);
    EXPECT_EQ(deviceFds().size(), 1u) << allFds();

    EXPECT_EQ(ctx->dwMagic, USBTR_CTX_MAGIC);
    EXPECT_EQ(ctx->aDeviceInfo.wVid, USBTR_READER_VENDOR_ID);
    EXPECT_EQ(ctx->aDeviceInfo.wPid, 0x000D);
    EXPECT_EQ(ctx->aDeviceInfo.wRev, 0x0100);
    EXPECT_EQ(ctx->iIsoReadEP, kIsoEndpoint);
    EXPECT_EQ(ctx->iBulkReadEP, 0);
    EXPECT_EQ(ctx->iIntReadEP, 0) << "the interrupt endpoint is on interface 0, not looked at";
    EXPECT_EQ(ctx->pVDDeviceInfo, &gDeviceTable[2].aVideoInfo);
    EXPECT_EQ(ctx->aImageFormatList.nCount, 1u);
    EXPECT_EQ(ctx->nImageFormatIndex, 0u);
    const USBVD_IMAGE_FORMAT &f = ctx->aImageFormatList.aFormats[0];
    EXPECT_EQ(f.dwFourCC, 0x56595559u);
    EXPECT_EQ(memcmp(&f.dwFourCC, "YUYV", 4), 0);
    EXPECT_EQ(f.dwWidth, 1280u);
    EXPECT_EQ(f.dwHeight, 512u);
    EXPECT_EQ(f.dwImageSize, 1280u * 1024u);
    EXPECT_EQ(f.dwReserved, 0u);
    EXPECT_EQ(ctx->dwFrameInterval, 666666u);
    EXPECT_EQ(ctx->dwGrabState, USBVD_GRAB_STATE_NOT_STARTED);
    EXPECT_NE(USBTRStatusFlags(ctx) & USBTR_SF_EX_LOCKED, 0u);

    USBTR_IDENTITY id = {};
    EXPECT_EQ(USBTRDeviceInfo(ctx, &id), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(id.wPid, 0x000D);
    EXPECT_EQ(id.wRev, 0x0100);

    EXPECT_EQ(traceCount("Could not detach kernel driver from interface 0: No data available, ignoring"), 1u);
    EXPECT_EQ(traceCount("Found 1 endpoints"), 1u);
    EXPECT_EQ(traceCount("Found ISO IN EP at 0x81"), 1u);
    EXPECT_EQ(traceCount("Frame interval is 666666 (15 fps)"), 1u);
    EXPECT_EQ(traceCount("USBTRSetConfiguration(") , 2u) << "entry and exit under the given name";
    EXPECT_EQ(traceCount("USBTRClaimInterface(") , 2u);

    {
        LockHolder other = testbed().holdLock(r);
        EXPECT_FALSE(other.held()) << "the node is locked while open";
    }
    EXPECT_EQ(USBTRClose(ctx), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBTRHandleCount(), 0u);
    EXPECT_TRUE(deviceFds().empty()) << allFds();
    LockHolder after = testbed().holdLock(r);
    EXPECT_TRUE(after.held()) << "the lock is released at close";
}

TEST_F(Open, TheSmallReaderOpensWithItsOwnFormat)
{
    addReader(Model::T10);
    USBTR_CONTEXT *ctx = nullptr;
    USBTR_DEVICE_DESCRIPTION any = {}; // empty name: first reader
    ASSERT_EQ(USBTROpen(lib(), &any, 0, &ctx), USBTR_STATUS_SUCCESS);
    const USBVD_IMAGE_FORMAT &f = ctx->aImageFormatList.aFormats[0];
    EXPECT_EQ(f.dwWidth, 640u);
    EXPECT_EQ(f.dwHeight, 240u);
    EXPECT_EQ(f.dwImageSize, 307200u);
    EXPECT_EQ(ctx->dwFrameInterval, 333333u);
    EXPECT_EQ(traceCount("Frame interval is 333333 (30 fps)"), 1u);
    EXPECT_EQ(USBTRClose(ctx), USBTR_STATUS_SUCCESS);
}

TEST_F(Open, ByNameOpensExactlyThatReader)
{
    Reader &a = addReader(Model::T30);
    Reader &b = addReader(Model::T30);
    USBTR_DEVICE_DESCRIPTION req = requestByName(b.cameraName());
    USBTR_CONTEXT *ctx = nullptr;
    ASSERT_EQ(USBTROpen(lib(), &req, 0, &ctx), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(a.log().size(), 0u);
    expectOpenSequence(b);
    EXPECT_EQ(traceCount("USBTROpen() - open by name " + b.cameraName()), 1u);
    EXPECT_EQ(USBTRClose(ctx), USBTR_STATUS_SUCCESS);
}

TEST_F(Open, AnUnknownNameGivesNoDeviceAndLeavesTheHandleAlone)
{
    Reader &r = addReader(Model::T30);
    lib();
    USBTR_DEVICE_DESCRIPTION req = requestByName("3a5c_000d_0100_001_7-7");
    USBTR_CONTEXT *ctx = reinterpret_cast<USBTR_CONTEXT *>(0x1);
    EXPECT_EQ(USBTROpen(lib(), &req, 0, &ctx), USBTR_STATUS_NO_DEVICE);
    EXPECT_EQ(ctx, reinterpret_cast<USBTR_CONTEXT *>(0x1));
    EXPECT_EQ(r.log().size(), 0u);
    EXPECT_TRUE(deviceFds().empty()) << allFds();
    EXPECT_EQ(USBTRHandleCount(), 0u);

    // The product filter acts too.
    USBTR_DEVICE_DESCRIPTION other = {};
    other.wPid = 0x000B;
    EXPECT_EQ(USBTROpen(lib(), &other, 0, &ctx), USBTR_STATUS_NO_DEVICE);
    EXPECT_EQ(ctx, reinterpret_cast<USBTR_CONTEXT *>(0x1));
}

TEST_F(Open, AReaderHeldByAnotherProcessIsBusyAtOnce)
{
    Reader &r = addReader(Model::T40);
    lib();
    LockHolder other = testbed().holdLockInChild(r);
    ASSERT_TRUE(other.held());
    USBTR_CONTEXT *ctx = reinterpret_cast<USBTR_CONTEXT *>(0x1);
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(USBTROpen(lib(), nullptr, 0, &ctx), USBTR_STATUS_DEVICE_BUSY);
    EXPECT_LT(msSince(t0), 2000u) << "the open does not wait for the lock";
    EXPECT_EQ(ctx, reinterpret_cast<USBTR_CONTEXT *>(0x1));
    EXPECT_EQ(r.resetCount(), 0u) << "nothing is sent to a reader someone else holds";
    EXPECT_TRUE(deviceFds().empty()) << allFds();
    EXPECT_EQ(USBTRHandleCount(), 0u);
    other.release();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ASSERT_EQ(USBTROpen(lib(), nullptr, 0, &ctx), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBTRClose(ctx), USBTR_STATUS_SUCCESS);
}

TEST_F(Open, ASecondOpenInTheSameProcessIsBusyToo)
{
    addReader(Model::T20);
    USBTR_CONTEXT *first = nullptr, *second = reinterpret_cast<USBTR_CONTEXT *>(0x1);
    ASSERT_EQ(USBTROpen(lib(), nullptr, 0, &first), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBTROpen(lib(), nullptr, 0, &second), USBTR_STATUS_DEVICE_BUSY);
    EXPECT_EQ(second, reinterpret_cast<USBTR_CONTEXT *>(0x1));
    EXPECT_EQ(USBTRHandleCount(), 1u);
    uint8_t regs[2];
    EXPECT_EQ(USBTRReadRegisters(first, 0x10, regs, 2), USBTR_STATUS_SUCCESS) << "the first open is unaffected";
    // Closing the library context with a handle open is reported, not refused.
    void *extra = nullptr;
    ASSERT_EQ(USBTRInit(&extra, 0), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBTRDone(extra), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(traceCount("Checking handle count (1) to be 0"), 1u);
    EXPECT_EQ(USBTRClose(first), USBTR_STATUS_SUCCESS);
}

struct OpenFault {
    const char *what;
    unsigned long request;
    int err;
    int32_t status;
};

class OpenFaults : public TransportE2E, public ::testing::WithParamInterface<OpenFault> {};

// Whatever step fails, the open leaves no descriptor, lock, handle or
// memory behind (memory: LSan in the sanitizer build).
TEST_P(OpenFaults, LeaveNothingBehind)
{
    const OpenFault &p = GetParam();
    Reader &r = addReader(Model::T30);
    lib();
    r.failIoctl(p.request, p.err, When::always());
    USBTR_CONTEXT *ctx = reinterpret_cast<USBTR_CONTEXT *>(0x1);
    EXPECT_EQ(USBTROpen(lib(), nullptr, 0, &ctx), p.status);
    EXPECT_EQ(ctx, reinterpret_cast<USBTR_CONTEXT *>(0x1));
    EXPECT_TRUE(deviceFds().empty()) << allFds();
    EXPECT_EQ(USBTRHandleCount(), 0u);
    LockHolder after = testbed().holdLock(r);
    EXPECT_TRUE(after.held()) << "no lock remains";
    after.release();
    // The steps after the failing one were not attempted.
    auto log = r.log();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back().request, p.request);
    EXPECT_EQ(log.back().err, p.err);
}

INSTANTIATE_TEST_SUITE_P(
    Steps, OpenFaults,
    ::testing::Values(OpenFault{"reset denied", USBDEVFS_RESET, EPERM, USBTR_STATUS_ACCESS_DENIED},
                      OpenFault{"reset gone", USBDEVFS_RESET, ENODEV, USBTR_STATUS_COMM_ERROR},
                      OpenFault{"configuration busy", USBDEVFS_SETCONFIGURATION, EBUSY, USBTR_STATUS_COMM_ERROR},
                      OpenFault{"claim denied", USBDEVFS_CLAIMINTERFACE, EACCES, USBTR_STATUS_ACCESS_DENIED},
                      OpenFault{"alt setting", USBDEVFS_SETINTERFACE, EIO, USBTR_STATUS_COMM_ERROR},
                      OpenFault{"alt setting would block", USBDEVFS_SETINTERFACE, EAGAIN, USBTR_STATUS_TIMEOUT}),
    [](const ::testing::TestParamInfo<OpenFault> &i) {
        std::string n = i.param.what;
        for (char &c : n)
            if (!isalnum(static_cast<unsigned char>(c)))
                c = '_';
        return n;
    });

TEST_F(Open, AReaderWithOneInterfaceIsRefusedBeforeItsNodeIsOpened)
{
    using namespace descblob;
    Bytes d = device(USBTR_READER_VENDOR_ID, 0x000D, 0x0100, 1);
    Bytes c = configHeader(1);
    append(c, interface(0, 0, 1));
    append(c, endpoint(0x81, 0x05, 0x0C00, 1));
    finishConfig(c);
    append(d, c);
    DeviceOptions o;
    o.descriptors = d;
    Reader &r = addReader(Model::T30, o);
    lib();
    USBTR_CONTEXT *ctx = reinterpret_cast<USBTR_CONTEXT *>(0x1);
    EXPECT_EQ(USBTROpen(lib(), nullptr, 0, &ctx), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(ctx, reinterpret_cast<USBTR_CONTEXT *>(0x1));
    EXPECT_EQ(r.log().size(), 0u);
    EXPECT_TRUE(deviceFds().empty()) << allFds();
}

// ---- endpoint selection, through the device part of the open ------------------
//
// The simulated reader answers the open sequence only for its own layout, so
// these cases parse a layout of their own and hand it to USBTRInternalOpen
// with the node of a standard reader.

struct ContextFree {
    void operator()(USBTR_CONTEXT *p) const { free(p); }
};

class Endpoints : public TransportE2E {
protected:
    // Opens `r`'s node with a streaming alt setting 1 holding `endpoints`.
    int32_t openWith(Reader &r, const std::vector<descblob::Bytes> &endpoints)
    {
        using namespace descblob;
        Bytes c = configHeader(2);
        append(c, interface(0, 0, 0));
        append(c, interface(1, 0, 0, 2));
        append(c, interface(1, 1, uint8_t(endpoints.size()), 2));
        for (const Bytes &e : endpoints)
            append(c, e);
        finishConfig(c);
        info_.reset(new USBTR_DEVICE_INFO());
        info_->aDeviceDescriptor.bNumConfigurations = 1;
        EXPECT_EQ(USBTRParseConfigurations(info_.get(), c.data(), int32_t(c.size())), USBTR_STATUS_SUCCESS);
        snprintf(info_->szBusNum, sizeof(info_->szBusNum), "%03u", r.busnum());
        snprintf(info_->szDevNum, sizeof(info_->szDevNum), "%03u", r.devnum());
        ctx_.reset(static_cast<USBTR_CONTEXT *>(calloc(1, sizeof(USBTR_CONTEXT))));
        ctx_->dwMagic = USBTR_CTX_MAGIC;
        ctx_->aDeviceInfo = {r.vendorId(), r.productId(), r.bcdDevice()};
        return USBTRInternalOpen(ctx_.get(), info_.get());
    }

    void TearDown() override
    {
        if (ctx_ && ctx_->fdDevice >= 0) {
            UnlockFD(ctx_.get());
            close(ctx_->fdDevice);
        }
        ctx_.reset();
        if (info_)
            USBTRFreeConfigurations(info_.get());
        TransportE2E::TearDown();
    }

    std::unique_ptr<USBTR_DEVICE_INFO> info_;
    std::unique_ptr<USBTR_CONTEXT, ContextFree> ctx_;
};

TEST_F(Endpoints, TheFirstInEndpointOfEachTypeWins)
{
    using namespace descblob;
    Reader &r = addReader(Model::T30);
    lib();
    ASSERT_EQ(openWith(r, {endpoint(0x01, 0x01, 1024, 1),  // iso OUT
                           endpoint(0x84, 0x02, 512, 0),   // bulk IN
                           endpoint(0x83, 0x01, 3072, 1),  // iso IN: stored
                           endpoint(0x85, 0x03, 16, 4),    // interrupt IN
                           endpoint(0x81, 0x01, 3072, 1),  // second iso IN: ignored
                           endpoint(0x86, 0x02, 512, 0),   // second bulk IN: ignored
                           endpoint(0x80, 0x00, 64, 0)}),  // control: ignored
              USBTR_STATUS_SUCCESS);
    EXPECT_EQ(ctx_->iIsoReadEP, 0x83);
    EXPECT_EQ(ctx_->iBulkReadEP, 0x84);
    EXPECT_EQ(ctx_->iIntReadEP, 0x85);
    EXPECT_GE(ctx_->fdDevice, 0);
    EXPECT_EQ(traceCount("Found 7 endpoints"), 1u);
    EXPECT_EQ(traceCount("Found ISO IN EP at 0x01"), 1u) << "reported before the direction is tested";
    EXPECT_EQ(traceCount("Found ISO IN EP at 0x"), 3u);
    EXPECT_EQ(traceCount("Found BULK IN EP at 0x"), 2u);
    EXPECT_EQ(traceCount("Found INT IN EP at 0x85"), 1u);
}

TEST_F(Endpoints, NoIsoInEndpointFailsWithTheNodeClosedAndUnlocked)
{
    using namespace descblob;
    Reader &r = addReader(Model::T30);
    lib();
    EXPECT_EQ(openWith(r, {endpoint(0x01, 0x01, 1024, 1), endpoint(0x82, 0x02, 512, 0)}), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(ctx_->fdDevice, -1);
    EXPECT_EQ(USBTRStatusFlags(ctx_.get()) & USBTR_SF_EX_LOCKED, 0u);
    EXPECT_TRUE(deviceFds().empty()) << allFds();
    expectOpenSequence(r);
    LockHolder after = testbed().holdLock(r);
    EXPECT_TRUE(after.held());
}

TEST_F(Open, ClosingADisconnectedContextFreesEverything)
{
    Reader &r = addReader(Model::T30);
    lib();
    USBTR_CONTEXT *ctx = nullptr;
    ASSERT_EQ(USBTROpen(lib(), nullptr, 0, &ctx), USBTR_STATUS_SUCCESS);
    r.unplug();
    uint8_t b[4];
    EXPECT_EQ(USBTRReadRegisters(ctx, 0, b, 4), USBTR_STATUS_COMM_ERROR);
    EXPECT_NE(USBTRStatusFlags(ctx) & USBTR_SF_DISCONNECTED, 0u);
    EXPECT_EQ(USBTRStatusFlags(ctx) & USBTR_SF_EX_LOCKED, 0u);
    EXPECT_EQ(USBTRClose(ctx), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBTRHandleCount(), 0u);
    EXPECT_TRUE(deviceFds().empty()) << allFds();
}

} // namespace
