// The transport's own codes for a reader it cannot have: busy while another
// process holds it, access denied when the system refuses the node.  The
// caller's handle is never written on failure and nothing is left open.
#include <sys/ioctl.h>

#include "stress_util.h"

#include "lnx/transport/usbtr.h"

namespace {

class TransportAccess : public sim::SimTest {
protected:
    void TearDown() override
    {
        if (lib_ != nullptr) {
            EXPECT_EQ(USBTRDone(lib_), USBTR_STATUS_SUCCESS);
        }
        sim::SimTest::TearDown();
    }
    void* lib()
    {
        if (lib_ == nullptr) {
            EXPECT_EQ(USBTRInit(&lib_, 0), USBTR_STATUS_SUCCESS);
        }
        return lib_;
    }
    void* lib_ = nullptr;
};

TEST_F(TransportAccess, BusyThenDeniedThenOpen)
{
    sim::Reader& r = addReader(sim::Model::T20);
    lib();
    USBTR_CONTEXT* const pUntouched = reinterpret_cast<USBTR_CONTEXT*>(0x1);
    USBTR_CONTEXT* ctx = pUntouched;
    {
        sim::LockHolder other = testbed().holdLockInChild(r);
        ASSERT_TRUE(other.held());
        EXPECT_EQ(USBTROpen(lib(), nullptr, 0, &ctx), USBTR_STATUS_DEVICE_BUSY);
        EXPECT_EQ(ctx, pUntouched);
        EXPECT_EQ(stress::nodeFdCount(), 0u) << stress::fdList();
    }
    int err = testbed().denyOpen(r);
    if (err != 0) {
        EXPECT_EQ(USBTROpen(lib(), nullptr, 0, &ctx), USBTR_STATUS_ACCESS_DENIED) << "open() errno " << err;
        EXPECT_EQ(ctx, pUntouched);
        EXPECT_EQ(stress::nodeFdCount(), 0u) << stress::fdList();
        EXPECT_EQ(USBTRHandleCount(), 0u);
        testbed().allowOpen(r);
    }
    // A refused ioctl of the open is access denied too, and undone.
    r.failIoctl(USBDEVFS_CLAIMINTERFACE, EACCES);
    EXPECT_EQ(USBTROpen(lib(), nullptr, 0, &ctx), USBTR_STATUS_ACCESS_DENIED);
    EXPECT_EQ(ctx, pUntouched);
    EXPECT_EQ(stress::nodeFdCount(), 0u) << stress::fdList();

    ctx = nullptr;
    ASSERT_EQ(USBTROpen(lib(), nullptr, 0, &ctx), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBTRClose(ctx), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(stress::nodeFdCount(), 0u) << stress::fdList();
    if (err == 0)
        GTEST_SKIP() << "the access-denied open could not be produced here";
}

}  // namespace
