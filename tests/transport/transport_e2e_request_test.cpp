// Control transfers, register access and the request engine on the wire of
// the simulated reader.
#include <atomic>
#include <chrono>
#include <thread>

#include "lnx/platform/fpplat.h"
#include "transport_e2e.h"

using namespace sim;
using transport_e2e::TransportE2E;

namespace {

class Wire : public TransportE2E {
protected:
    Reader &open(Model m = Model::T30)
    {
        Reader &r = addReader(m);
        EXPECT_EQ(USBTROpen(lib(), nullptr, 0, &ctx_), USBTR_STATUS_SUCCESS);
        r.clearLog();
        return r;
    }
    void TearDown() override
    {
        if (ctx_ != nullptr) {
            EXPECT_EQ(USBTRClose(ctx_), USBTR_STATUS_SUCCESS);
        }
        ctx_ = nullptr;
        TransportE2E::TearDown();
    }
    USBTR_CONTEXT *ctx_ = nullptr;
};

TEST_F(Wire, ControlTransfersCarryTheirSetupAndDataExactly)
{
    Reader &r = open();
    r.setReg(0x1234, 0xA5);
    uint8_t ask[11] = {0x02, 0x12, 0x34};
    ASSERT_EQ(USBTRControlTransferEx(ctx_, 0x21, 0x01, 0x0700, 0x0600, ask, 11, 1000), USBTR_STATUS_SUCCESS);
    uint8_t reply[11] = {};
    ASSERT_EQ(USBTRControlTransferEx(ctx_, 0xA1, 0x81, 0x0700, 0x0600, reply, 11, 2000), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(reply[3], 0xA5);

    auto log = r.controlTransfers();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].bRequestType, 0x21);
    EXPECT_EQ(log[0].bRequest, 0x01);
    EXPECT_EQ(log[0].wValue, 0x0700);
    EXPECT_EQ(log[0].wIndex, 0x0600);
    EXPECT_EQ(log[0].wLength, 11);
    EXPECT_EQ(log[0].timeout, 1000u);
    EXPECT_EQ(log[0].dataOut, std::vector<uint8_t>(ask, ask + 11));
    EXPECT_EQ(log[1].bRequestType, 0xA1);
    EXPECT_EQ(log[1].bRequest, 0x81);
    EXPECT_EQ(log[1].timeout, 2000u);
    EXPECT_EQ(log[1].dataIn, std::vector<uint8_t>(reply, reply + 11));
}

TEST_F(Wire, RegistersAreReadAndWrittenWithVendorRequest12)
{
    Reader &r = open();
    const uint8_t values[3] = {0x11, 0x22, 0x33};
    ASSERT_EQ(USBTRWriteRegisters(ctx_, 0x2000, values, 3), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(r.reg(0x2000), 0x11);
    EXPECT_EQ(r.reg(0x2002), 0x33);
    uint8_t back[4] = {};
    ASSERT_EQ(USBTRReadRegisters(ctx_, 0x1FFF, back, 4), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(back[0], r.reg(0x1FFF));
    EXPECT_EQ(back[1], 0x11);
    EXPECT_EQ(back[3], 0x33);
    auto log = r.controlTransfers();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].bRequestType, 0x40);
    EXPECT_EQ(log[0].bRequest, 12);
    EXPECT_EQ(log[0].wValue, 0x2000);
    EXPECT_EQ(log[0].wIndex, 0);
    EXPECT_EQ(log[0].timeout, 1000u);
    EXPECT_EQ(log[1].bRequestType, 0xC0);
    EXPECT_EQ(log[1].wValue, 0x1FFF);
    EXPECT_EQ(log[1].wLength, 4);
}

TEST_F(Wire, AShortAnswerIsPartialForTheGeneralEntryAndAnErrorForRegisters)
{
    Reader &r = open();
    r.shortControl(ControlMatch::xuGet(), 8);
    uint8_t reply[11];
    EXPECT_EQ(USBTRControlTransferEx(ctx_, 0xA1, 0x81, 0x0700, 0x0600, reply, 11, 1000),
              USBTR_STATUS_PARTIAL_TRANSFER);
    r.shortControl(ControlMatch{0xC0, 12, -1, -1}, 8);
    EXPECT_EQ(USBTRReadRegisters(ctx_, 0x10, reply, 11), USBTR_STATUS_COMM_ERROR);
    // Nothing short about the next one.
    EXPECT_EQ(USBTRReadRegisters(ctx_, 0x10, reply, 11), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBTRStatusFlags(ctx_) & USBTR_SF_DISCONNECTED, 0u);
}

TEST_F(Wire, AStallFailsOnlyThatTransfer)
{
    Reader &r = open();
    r.stallControl(ControlMatch::any());
    uint8_t reply[11];
    EXPECT_EQ(USBTRControlTransferEx(ctx_, 0xA1, 0x81, 0x0700, 0x0600, reply, 11, 1000), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(traceCount("IOCtlEx(IOCTL_USB_CONTROL) failed, status = 8"), 1u);
    EXPECT_EQ(traceCount("ioctl(0) failed: Broken pipe"), 1u);
    EXPECT_EQ(USBTRStatusFlags(ctx_) & USBTR_SF_DISCONNECTED, 0u);
    EXPECT_EQ(USBTRReadRegisters(ctx_, 0x10, reply, 11), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(r.controlTransfers().size(), 2u);
}

TEST_F(Wire, AZeroLengthTransferHasNoDataStage)
{
    Reader &r = open();
    EXPECT_EQ(USBTRWriteRegisters(ctx_, 0x2000, nullptr, 0), USBTR_STATUS_SUCCESS);
    auto log = r.controlTransfers();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].wLength, 0);
}

TEST_F(Wire, ARegisterReadBeyond65535BytesNeverSucceeds)
{
    Reader &r = open();
    std::vector<uint8_t> big(70000, 0xEE);
    EXPECT_EQ(USBTRReadRegisters(ctx_, 0, big.data(), big.size()), USBTR_STATUS_COMM_ERROR);
    auto log = r.controlTransfers();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].wLength, 4464) << "70000 modulo 65536";
    EXPECT_EQ(big[4464], 0xEE) << "nothing beyond the setup length is written";
}

TEST_F(Wire, AnUnpluggedReaderFailsFastAfterOneReport)
{
    Reader &r = open();
    r.unplugOnControl(ControlMatch::any());
    uint8_t reply[11];
    EXPECT_EQ(USBTRControlTransferEx(ctx_, 0xA1, 0x81, 0x0700, 0x0600, reply, 11, 1000), USBTR_STATUS_COMM_ERROR);
    const size_t ioctls = r.log().size();
    EXPECT_EQ(USBTRControlTransferEx(ctx_, 0xA1, 0x81, 0x0700, 0x0600, reply, 11, 1000), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(USBTRReadRegisters(ctx_, 0, reply, 4), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(USBTRSetInterfaceAlt(ctx_, 1, 1), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(r.log().size(), ioctls) << "no system call once disconnected";
    EXPECT_EQ(traceCount("Device disconnected"), 1u);
    EXPECT_EQ(traceCount("IOCtlEx(IOCTL_USB_CONTROL) failed, status = 8"), 3u);
    EXPECT_EQ(USBTRStatusFlags(ctx_) & USBTR_SF_EX_LOCKED, 0u) << "the advisory lock was dropped";
}

TEST_F(Wire, SetInterfaceReachesTheReader)
{
    Reader &r = open();
    EXPECT_EQ(USBTRSetInterfaceAlt(ctx_, 1, 1), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(r.currentAltSetting(1), 1);
    EXPECT_EQ(USBTRSetInterfaceAlt(ctx_, 1, 5), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(USBTRSetInterfaceAlt(ctx_, 1, 0), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(r.currentAltSetting(1), 0);
}

// The reader's interrupt endpoint accepts requests that never complete on
// their own: what a poll time-out, a discard and a cancel need.
TEST_F(Wire, APollTimeoutDiscardsAndCollectsItsRequest)
{
    Reader &r = open();
    uint8_t buf[16];
    memset(buf, 0xEE, sizeof(buf));
    uint64_t actual = 99;
    const uint32_t t0 = FPPltGetTime();
    EXPECT_EQ(USBTRSynchronousTransferEx(ctx_, nullptr, nullptr, kInterruptEndpoint, 0x80,
                                         USB_TRANSFER_TYPE_INTERRUPT, buf, sizeof(buf), 5, &actual),
              USBTR_STATUS_TIMEOUT);
    const uint32_t elapsed = FPPltGetTime() - t0;
    EXPECT_GE(elapsed, 5u);
    EXPECT_LT(elapsed, 900u);
    EXPECT_EQ(actual, 0u);
    auto submits = r.ioctls(USBDEVFS_SUBMITURB);
    auto discards = r.ioctls(USBDEVFS_DISCARDURB);
    ASSERT_EQ(submits.size(), 1u);
    ASSERT_EQ(discards.size(), 1u);
    EXPECT_EQ(submits[0].urbType, USBDEVFS_URB_TYPE_INTERRUPT);
    EXPECT_EQ(submits[0].endpoint, kInterruptEndpoint);
    EXPECT_EQ(submits[0].bufferLength, 16);
    EXPECT_EQ(discards[0].urbAddress, submits[0].urbAddress);
    bool collected = false;
    for (const IoctlRecord &rec : r.ioctls(USBDEVFS_REAPURBNDELAY))
        collected |= rec.result == 0 && rec.urbAddress == submits[0].urbAddress;
    EXPECT_TRUE(collected);
    EXPECT_EQ(r.urbsInFlight(), 0u);
    EXPECT_EQ(r.urbsCompleted(), 0u);
    EXPECT_EQ(buf[0], 0xEE);
}

TEST_F(Wire, CancelEndsAnInterruptReadThatWaitsForever)
{
    Reader &r = open();
    ctx_->iIntReadEP = kInterruptEndpoint; // this layout keeps it on interface 0
    std::vector<uint8_t> buf(16);
    std::atomic<int32_t> status{-1};
    std::thread reader([&] { status = USBTRInterruptRead(ctx_, buf.data(), buf.size()); });
    ASSERT_TRUE(r.waitIoctlCount(USBDEVFS_SUBMITURB, 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(status.load(), -1) << "no time-out of its own";
    EXPECT_EQ(USBTRCancel(ctx_, USBTR_CANCEL_INT_READ), USBTR_STATUS_SUCCESS);
    reader.join();
    EXPECT_EQ(status.load(), USBTR_STATUS_PARTIAL_TRANSFER);
    auto discards = r.ioctls(USBDEVFS_DISCARDURB);
    ASSERT_EQ(discards.size(), 1u);
    EXPECT_EQ(discards[0].urbAddress, r.ioctls(USBDEVFS_SUBMITURB)[0].urbAddress);
    EXPECT_EQ(r.urbsInFlight(), 0u);
}

TEST_F(Wire, BulkReadWithoutABulkEndpointIsNotSupported)
{
    Reader &r = open();
    uint8_t buf[8];
    uint64_t actual = 0;
    EXPECT_EQ(USBTRBulkRead(ctx_, buf, sizeof(buf), &actual, 100), USBTR_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(r.log().size(), 0u);
}

} // namespace
