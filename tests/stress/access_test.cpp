// Readers the application cannot have: held by another opener (this process
// or another one) or refused by the system.  The codes must say so at once,
// nothing may be sent to such a reader, nothing leaks, and a reader that is
// streaming next to it carries on.
#include <chrono>
#include <thread>

#include "stress_util.h"

namespace {

using sim::Model;
using Clock = std::chrono::steady_clock;

long msSince(Clock::time_point t0)
{
    return long(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count());
}

class Access : public sim::SimTest {
protected:
    Access() : sim::SimTest(stress::watchdog(120)) {}

    // Two readers enumerated; handles in plug order.
    void twoReaders()
    {
        a_ = &addReader(Model::T10);
        b_ = &addReader(Model::T10);
        camera_init();
        inited_ = true;
        camera_device_enumerate(nullptr, 0);
        ASSERT_EQ(camera_device_count(), 2u);
        for (uint32_t i = 0; i < 2; i++) {
            CAMERA_HANDLE h = camera_get_by_index(i);
            (a_->cameraName() == camera_get_filename(h) ? ha_ : hb_) = h;
        }
        ASSERT_NE(ha_, nullptr);
        ASSERT_NE(hb_, nullptr);
        fds0_ = stress::fdCount();
        threads0_ = sim::threadCount();
    }

    void TearDown() override
    {
        if (inited_)
            camera_cleanup();
        sim::SimTest::TearDown();
    }

    // Reader A streams; a frame comes through whole.
    void aStreams(const char* where)
    {
        void* pFrame = nullptr;
        ASSERT_EQ(camera_get_image(ha_, 3000, &pFrame), 0) << where;
        stress::checkFrame(pFrame, *a_, where);
        EXPECT_EQ(camera_put_image(ha_, pFrame), 0);
    }

    void startA()
    {
        ASSERT_EQ(camera_open(ha_), 0);
        a_->queueFrames(1);
        ASSERT_EQ(camera_start_capture(ha_, 0), 0);
        a_->startPaced(sim::Pace{sim::Pace::AsFastAsPossible, 0});
    }

    void stopA()
    {
        EXPECT_EQ(camera_stop_capture(ha_), 0);
        a_->stopPaced();
        camera_close(ha_);
    }

    // The refused camera stays closed: every open-only call says so.
    void expectClosed(CAMERA_HANDLE h, const char* where)
    {
        void* pFrame = reinterpret_cast<void*>(0x1);
        EXPECT_EQ(camera_start_capture(h, 0), CAMERA_ERR_NO_DEVICE) << where;
        EXPECT_EQ(camera_get_image(h, 0, &pFrame), CAMERA_ERR_NO_DEVICE) << where;
        EXPECT_EQ(camera_xu_sensor_read(h, 0x10), CAMERA_ERR_NO_DEVICE) << where;
        EXPECT_EQ(camera_get_vid(h), sim::kVendorId) << where << ": identity works while closed";
    }

    sim::Reader *a_ = nullptr, *b_ = nullptr;
    CAMERA_HANDLE ha_ = nullptr, hb_ = nullptr;
    bool inited_ = false;
    size_t fds0_ = 0, threads0_ = 0;
};

TEST_F(Access, AReaderHeldByAnotherProcessOrOpenDescriptionIsRefusedAtOnce)
{
    twoReaders();
    startA();
    for (int round = 0; round < 2; round++) {
        const char* where = round == 0 ? "held by a child process" : "held by another open file description";
        sim::LockHolder other = round == 0 ? testbed().holdLockInChild(*b_) : testbed().holdLock(*b_);
        ASSERT_TRUE(other.held());
        b_->clearLog();
        const unsigned nResets = b_->resetCount();
        auto t0 = Clock::now();
        EXPECT_EQ(camera_open(hb_), CAMERA_ERR_NO_DEVICE) << where;
        EXPECT_LT(msSince(t0), 2000) << where << ": the open does not wait for the holder";
        EXPECT_EQ(b_->log().size(), 0u) << where << ": nothing is sent to a reader someone else holds";
        EXPECT_EQ(b_->resetCount(), nResets);
        expectClosed(hb_, where);
        aStreams(where);
        other.release();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        ASSERT_EQ(camera_open(hb_), 0) << where << ": free again";
        EXPECT_EQ(camera_xu_sensor_read(hb_, 0x10), b_->reg(0x10));
        EXPECT_EQ(camera_open(hb_), CAMERA_ERR_FAILURE) << "already open";
        camera_close(hb_);
    }
    aStreams("after the holders");
    stopA();
    EXPECT_EQ(stress::nodeFdCount(), 0u) << stress::fdList();
    EXPECT_EQ(stress::settledFdCount(fds0_), fds0_) << stress::fdList();
    EXPECT_EQ(stress::settledThreadCount(threads0_), threads0_);
}

TEST_F(Access, PermissionDeniedOnOpenIsRefusedCleanly)
{
    twoReaders();
    int err = testbed().denyOpen(*b_);
    if (err == 0)
        GTEST_SKIP() << "this file system cannot refuse the node to root";
    EXPECT_TRUE(err == EPERM || err == EACCES) << err;
    startA();
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(camera_open(hb_), CAMERA_ERR_NO_DEVICE);
        expectClosed(hb_, "denied");
    }
    aStreams("next to a denied reader");
    testbed().allowOpen(*b_);
    ASSERT_EQ(camera_open(hb_), 0) << "allowed again";
    uint32_t n = b_->queueFrames(2);
    b_->queueUrbBreak();
    ASSERT_EQ(camera_start_capture(hb_, 0), 0);
    void* pFrame = nullptr;
    ASSERT_EQ(camera_get_image(hb_, 2000, &pFrame), 0);
    EXPECT_EQ(stress::checkFrame(pFrame, *b_, "after the denial"), n);
    EXPECT_EQ(camera_put_image(hb_, pFrame), 0);
    EXPECT_EQ(camera_stop_capture(hb_), 0);
    camera_close(hb_);
    stopA();
    EXPECT_EQ(stress::nodeFdCount(), 0u) << stress::fdList();
    EXPECT_EQ(stress::settledFdCount(fds0_), fds0_) << stress::fdList();
    EXPECT_EQ(stress::settledThreadCount(threads0_), threads0_);
}

}  // namespace
