// Opening and closing cameras: the open state, a reader that went away, a
// reader held by another opener, and what close releases.
#include "camera_test.h"

using namespace camtest;
using sim::Model;

namespace {

class Open : public CameraTest {};

}  // namespace

TEST_F(Open, OpenTwiceFailsAndKeepsTheFirstContext)
{
    auto& r = addReader(Model::T30);
    enumerate();
    CAMERA_HANDLE h = handleOf(r);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(open(h), 0);
    EXPECT_EQ(nodeFds(), 1u);
    const size_t resets = r.resetCount();

    EXPECT_EQ(camera_open(h), CAMERA_ERR_FAILURE);
    EXPECT_EQ(nodeFds(), 1u) << "a second open must not open the node again";
    EXPECT_EQ(r.resetCount(), resets) << "a second open must not touch the device";

    // The first context still works.
    r.setReg(0x0042, 0x5A);
    EXPECT_EQ(camera_xu_sensor_read(h, 0x0042), 0x5A);
    camera_close(h);
    EXPECT_EQ(nodeFds(), 0u);
}

TEST_F(Open, CloseReleasesTheNodeAndItsLockAndAllowsReopen)
{
    auto& r = addReader(Model::T10);
    enumerate();
    CAMERA_HANDLE h = handleOf(r);
    ASSERT_EQ(open(h), 0);
    {
        // Held by the library: nobody else gets it.
        sim::LockHolder l = testbed().holdLock(r);
        EXPECT_FALSE(l.held());
    }
    camera_close(h);
    EXPECT_EQ(nodeFds(), 0u);
    {
        sim::LockHolder l = testbed().holdLock(r);
        EXPECT_TRUE(l.held()) << "close must drop the lock";
    }
    // Closing a closed camera changes nothing; it can still be opened.
    camera_close(h);
    EXPECT_EQ(camera_get_pid(h), r.productId());
    EXPECT_EQ(open(h), 0);
    EXPECT_EQ(nodeFds(), 1u);
}

TEST_F(Open, CloseOfNeverOpenedCameraIsHarmless)
{
    auto& r = addReader(Model::T20);
    enumerate();
    CAMERA_HANDLE h = handleOf(r);
    camera_close(h);
    EXPECT_TRUE(r.log().empty());
    EXPECT_EQ(camera_device_count(), 1u);
    EXPECT_EQ(open(h), 0);
}

TEST_F(Open, OpenAfterUnplugBeforeEnumerationIsNoDevice)
{
    auto& r = addReader(Model::T30);
    enumerate();
    CAMERA_HANDLE h = handleOf(r);
    ASSERT_NE(h, nullptr);
    r.unplug();
    EXPECT_EQ(camera_open(h), CAMERA_ERR_NO_DEVICE);
    // The record stays, closed.
    EXPECT_EQ(camera_device_count(), 1u);
    EXPECT_EQ(camera_get_by_index(0), h);
    EXPECT_STREQ(camera_get_filename(h), r.cameraName().c_str());
    EXPECT_EQ(camera_xu_sensor_read(h, 0), CAMERA_ERR_NO_DEVICE);
    EXPECT_EQ(nodeFds(), 0u);
    // The next enumeration removes it.
    enumerate();
    EXPECT_EQ(camera_device_count(), 0u);
}

TEST_F(Open, ReaderHeldByAnotherOpenerIsNoDevice)
{
    auto& r = addReader(Model::T30);
    enumerate();
    CAMERA_HANDLE h = handleOf(r);
    {
        sim::LockHolder other = testbed().holdLock(r);
        ASSERT_TRUE(other.held());
        EXPECT_EQ(camera_open(h), CAMERA_ERR_NO_DEVICE);
        EXPECT_EQ(nodeFds(), 1u) << "only the other opener's descriptor may remain";
        EXPECT_EQ(camera_xu_sensor_read(h, 0), CAMERA_ERR_NO_DEVICE) << "the camera stays closed";
    }
    // Free again: a later open succeeds.
    EXPECT_EQ(open(h), 0);
}

TEST_F(Open, ReaderHeldByAnotherProcessIsNoDevice)
{
    auto& r = addReader(Model::T10);
    enumerate();
    CAMERA_HANDLE h = handleOf(r);
    sim::LockHolder child = testbed().holdLockInChild(r);
    ASSERT_TRUE(child.held());
    EXPECT_EQ(camera_open(h), CAMERA_ERR_NO_DEVICE);
    child.release();
    EXPECT_EQ(open(h), 0);
}

TEST_F(Open, TwoReadersOpenIndependently)
{
    auto& a = addReader(Model::T10);
    auto& b = addReader(Model::T30);
    CAMERA_HANDLE ha = openReader(a);
    CAMERA_HANDLE hb = openReader(b);
    ASSERT_NE(ha, hb);
    a.setReg(0x0100, 0x11);
    b.setReg(0x0100, 0x22);
    EXPECT_EQ(camera_xu_sensor_read(ha, 0x0100), 0x11);
    EXPECT_EQ(camera_xu_sensor_read(hb, 0x0100), 0x22);
    camera_close(ha);
    EXPECT_EQ(camera_xu_sensor_read(ha, 0x0100), CAMERA_ERR_NO_DEVICE);
    EXPECT_EQ(camera_xu_sensor_read(hb, 0x0100), 0x22);
}
