// Unplugging a reader at many points, through the exported interface: while
// the stream is committed, while it streams, while the application holds
// frames, during a flash read and during the open.  Every call must return
// its documented code without hanging, held frames must stay intact until
// they are given back, and each round must leave no descriptor, thread or
// heap block behind (LeakSanitizer checks the last in the ASan build).
//
// Each case repeats its scenario ZTUVC_STRESS_ROUNDS times (a few in CI;
// tests/stress/soak.sh runs many) on a fresh simulated reader per round,
// with random points from a printed seed (ZTUVC_STRESS_SEED replays one).
#include <chrono>
#include <random>
#include <vector>

#include <sys/ioctl.h>
#include <linux/usbdevice_fs.h>

#include "stress_util.h"

namespace {

using Clock = std::chrono::steady_clock;
using sim::Model;

long msSince(Clock::time_point t0)
{
    return long(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count());
}

class Unplug : public sim::SimTest {
protected:
    Unplug() : sim::SimTest(stress::watchdog(170)) {}

    void SetUp() override
    {
        sim::SimTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        rng_.seed(stress::seed());
    }

    void TearDown() override
    {
        if (inited_)
            camera_cleanup();
        sim::SimTest::TearDown();
    }

    // The library finds the usbfs root at its first initialisation, so that
    // waits for the first simulated reader.
    void initOnce()
    {
        if (inited_)
            return;
        camera_init();
        inited_ = true;
        fds0_ = stress::fdCount();
        threads0_ = sim::threadCount();
    }

    // A fresh reader, enumerated and opened; the handle is the only camera.
    CAMERA_HANDLE plugAndOpen(sim::Reader*& r, Model m = Model::T10)
    {
        r = &addReader(m);
        initOnce();
        camera_device_enumerate(nullptr, 0);
        EXPECT_EQ(camera_device_count(), 1u);
        CAMERA_HANDLE h = camera_get_by_index(0);
        EXPECT_NE(h, nullptr);
        if (h != nullptr) {
            EXPECT_EQ(camera_open(h), 0) << r->sysfsName();
        }
        return h;
    }

    // After the unplug: the closed camera goes with the next enumeration,
    // its handle is refused everywhere, and nothing of it is left.
    void closeAndForget(sim::Reader& r, CAMERA_HANDLE h, const char* where)
    {
        // stop first: collecting an ended grab thread must not block
        auto t0 = Clock::now();
        EXPECT_EQ(camera_stop_capture(h), 0) << where;
        camera_close(h);
        EXPECT_LT(msSince(t0), 4000) << where << ": stop and close after the unplug";
        if (r.plugged())
            r.unplug();
        camera_device_enumerate(nullptr, 0);
        EXPECT_EQ(camera_device_count(), 0u) << where;
        void* pFrame = reinterpret_cast<void*>(0x1);
        EXPECT_EQ(camera_get_image(h, 0, &pFrame), CAMERA_ERR_NO_DEVICE) << where;
        EXPECT_EQ(camera_open(h), CAMERA_ERR_NO_DEVICE) << where;
        EXPECT_EQ(camera_start_capture(h, 0), CAMERA_ERR_NO_DEVICE) << where;
        EXPECT_EQ(camera_xu_sensor_read(h, 0x10), CAMERA_ERR_NO_DEVICE) << where;
        EXPECT_EQ(camera_get_vid(h), CAMERA_ERR_NO_DEVICE) << where;
        EXPECT_EQ(stress::settledThreadCount(threads0_), threads0_) << where << ": a thread was left running";
        EXPECT_EQ(stress::nodeFdCount(), 0u) << stress::fdList();
        EXPECT_EQ(stress::settledFdCount(fds0_), fds0_) << where << ": descriptors left open:\n" << stress::fdList();
    }

    // Takes frames until the stream reports the loss; every frame before it
    // must be whole.  Returns the code that ended it.
    int32_t drainUntilFailure(CAMERA_HANDLE h, const sim::Reader& r, unsigned* pnFrames)
    {
        auto t0 = Clock::now();
        for (;;) {
            void* pFrame = nullptr;
            int32_t iResult = camera_get_image(h, 1000, &pFrame);
            if (iResult != 0) {
                EXPECT_EQ(pFrame, nullptr);
                return iResult;
            }
            stress::checkFrame(pFrame, r, "before the unplug");
            EXPECT_EQ(camera_put_image(h, pFrame), 0);
            ++*pnFrames;
            if (msSince(t0) > 30000) {
                ADD_FAILURE() << "frames keep coming after the unplug";
                return 0;
            }
        }
    }

    unsigned pick(unsigned lo, unsigned hi) { return std::uniform_int_distribution<unsigned>(lo, hi)(rng_); }

    bool inited_ = false;
    size_t fds0_ = 0, threads0_ = 0;
    std::mt19937 rng_;
};

TEST_F(Unplug, DuringCommitStartFailsAndTheCameraIsDead)
{
    const unsigned n = stress::rounds(3);
    for (unsigned round = 0; round < n && !HasFailure(); round++) {
        sim::Reader* r = nullptr;
        CAMERA_HANDLE h = plugAndOpen(r);
        ASSERT_NE(h, nullptr);
        r->unplugOnControl(sim::ControlMatch::commit());
        r->queueFrames(2);
        auto t0 = Clock::now();
        EXPECT_EQ(camera_start_capture(h, pick(0, 4)), CAMERA_ERR_FAILURE);
        EXPECT_LT(msSince(t0), 5000);
        EXPECT_FALSE(r->plugged());
        t0 = Clock::now();
        void* pFrame = reinterpret_cast<void*>(0x1);
        EXPECT_EQ(camera_get_image(h, 10000, &pFrame), CAMERA_ERR_FAILURE);
        EXPECT_EQ(pFrame, nullptr);
        EXPECT_LT(msSince(t0), 1000) << "a dead reader is reported at once";
        EXPECT_EQ(camera_xu_sensor_read(h, 0x20), CAMERA_ERR_FAILURE);
        EXPECT_EQ(camera_start_capture(h, 0), CAMERA_ERR_FAILURE) << "second start on the dead reader";
        closeAndForget(*r, h, "commit");
    }
}

TEST_F(Unplug, WhileStreamingAtARandomRequest)
{
    const unsigned n = stress::rounds(3);
    for (unsigned round = 0; round < n && !HasFailure(); round++) {
        sim::Reader* r = nullptr;
        CAMERA_HANDLE h = plugAndOpen(r);
        ASSERT_NE(h, nullptr);
        // 640 x 480 is about 13 requests a frame: up to ~25 frames in
        const unsigned nReap = pick(1, 320);
        r->unplugOnIsoReap(nReap);
        r->queueFrames(1);
        r->startPaced(sim::Pace{sim::Pace::AsFastAsPossible, 0});
        int32_t iStart = camera_start_capture(h, pick(1, 4));
        unsigned nFrames = 0;
        if (iStart == 0) {
            EXPECT_EQ(drainUntilFailure(h, *r, &nFrames), CAMERA_ERR_FAILURE) << "unplug at reap " << nReap;
        } else {
            // the thread ended before the start looked (it polls every 200 ms)
            EXPECT_EQ(iStart, CAMERA_ERR_FAILURE);
        }
        EXPECT_FALSE(r->plugged());
        void* pFrame = reinterpret_cast<void*>(0x1);
        auto t0 = Clock::now();
        EXPECT_EQ(camera_get_image(h, 10000, &pFrame), CAMERA_ERR_FAILURE);
        EXPECT_LT(msSince(t0), 1000);
        EXPECT_EQ(camera_flush(h), 0);
        r->stopPaced();
        closeAndForget(*r, h, "streaming");
    }
}

TEST_F(Unplug, WhileTheApplicationHoldsFrames)
{
    const unsigned n = stress::rounds(3);
    for (unsigned round = 0; round < n && !HasFailure(); round++) {
        sim::Reader* r = nullptr;
        CAMERA_HANDLE h = plugAndOpen(r);
        ASSERT_NE(h, nullptr);
        const unsigned nSlots = pick(1, 4);
        const unsigned nHold = pick(1, nSlots);
        r->queueFrames(nHold + 1);
        r->queueUrbBreak();
        ASSERT_EQ(camera_start_capture(h, nSlots), 0);
        std::vector<void*> held;
        for (unsigned i = 0; i < nHold; i++) {
            void* pFrame = nullptr;
            ASSERT_EQ(camera_get_image(h, 2000, &pFrame), 0) << "frame " << i << " of " << nHold;
            stress::checkFrame(pFrame, *r, "held");
            held.push_back(pFrame);
        }
        // More data is on its way while the frames are held.
        r->queueFrames(pick(0, 3));
        r->unplug();
        unsigned nFrames = 0;
        EXPECT_EQ(drainUntilFailure(h, *r, &nFrames), CAMERA_ERR_FAILURE);
        // The held frames are still the application's, untouched.
        for (void* p : held) {
            stress::checkFrame(p, *r, "held across the unplug");
            EXPECT_EQ(camera_put_image(h, p), 0);
        }
        closeAndForget(*r, h, "holding frames");
    }
}

TEST_F(Unplug, DuringAFlashRead)
{
    const unsigned n = stress::rounds(3);
    for (unsigned round = 0; round < n && !HasFailure(); round++) {
        sim::Reader* r = nullptr;
        CAMERA_HANDLE h = plugAndOpen(r);
        ASSERT_NE(h, nullptr);
        const unsigned nChunk = pick(1, 12);  // the exchange that dies
        const uint32_t dwAddress = pick(0, 0x8000);
        std::vector<uint8_t> aBuffer(12 * 8, 0xEE);
        r->unplugOnControl(sim::ControlMatch::flashRead(), sim::When::nth(nChunk));
        EXPECT_EQ(camera_xu_flash_read(h, dwAddress, int32_t(aBuffer.size()), aBuffer.data()),
                  CAMERA_ERR_FAILURE);
        for (unsigned i = 0; i < (nChunk - 1) * 8; i++)
            ASSERT_EQ(aBuffer[i], sim::flashByte(dwAddress + i)) << "byte " << i << " read before the unplug";
        for (unsigned i = nChunk * 8; i < aBuffer.size(); i++)
            ASSERT_EQ(aBuffer[i], 0xEE) << "byte " << i << " written after the failure";
        EXPECT_EQ(camera_xu_sensor_read(h, 0x20), CAMERA_ERR_FAILURE);
        EXPECT_EQ(camera_xu_sensor_write(h, 0x20, 1), CAMERA_ERR_FAILURE);
        EXPECT_EQ(camera_start_capture(h, 0), CAMERA_ERR_FAILURE);
        closeAndForget(*r, h, "flash read");
    }
}

TEST_F(Unplug, DuringTheOpen)
{
    const unsigned long aSteps[] = {USBDEVFS_RESET, USBDEVFS_SETCONFIGURATION, USBDEVFS_CLAIMINTERFACE,
                                    USBDEVFS_SETINTERFACE, USBDEVFS_CONTROL};
    const unsigned n = stress::rounds(3);
    for (unsigned round = 0; round < n && !HasFailure(); round++) {
        sim::Reader& r = addReader(Model::T10);
        initOnce();
        camera_device_enumerate(nullptr, 0);
        ASSERT_EQ(camera_device_count(), 1u);
        CAMERA_HANDLE h = camera_get_by_index(0);
        const unsigned long ulStep = aSteps[pick(0, std::size(aSteps) - 1)];
        r.unplugOnIoctl(ulStep);
        int32_t iOpen = camera_open(h);
        if (r.plugged()) {
            // that step is not part of this library's open: a clean open
            EXPECT_EQ(iOpen, 0);
            r.unplug();
            EXPECT_EQ(camera_xu_sensor_read(h, 0x20), CAMERA_ERR_FAILURE);
            camera_close(h);
        } else {
            EXPECT_EQ(iOpen, CAMERA_ERR_NO_DEVICE) << "ioctl " << std::hex << ulStep;
            EXPECT_EQ(camera_start_capture(h, 0), CAMERA_ERR_NO_DEVICE) << "camera left half open";
            camera_close(h);
        }
        camera_device_enumerate(nullptr, 0);
        EXPECT_EQ(camera_device_count(), 0u);
        EXPECT_EQ(stress::settledThreadCount(threads0_), threads0_);
        EXPECT_EQ(stress::nodeFdCount(), 0u) << stress::fdList();
        EXPECT_EQ(stress::settledFdCount(fds0_), fds0_) << stress::fdList();
    }
}

// A mix of the above on one library instance, and a replugged reader works.
TEST_F(Unplug, RandomPointsThenAReplugStreams)
{
    const unsigned n = stress::rounds(4);
    for (unsigned round = 0; round < n && !HasFailure(); round++) {
        sim::Reader* r = nullptr;
        CAMERA_HANDLE h = plugAndOpen(r, pick(0, 1) ? Model::T10 : Model::T30);
        ASSERT_NE(h, nullptr);
        const unsigned kind = pick(0, 2);
        if (kind == 0)
            r->unplugOnControl(sim::ControlMatch::xuGet(7), sim::When::nth(pick(1, 4)));
        else
            r->unplugOnIsoReap(pick(3, 200));
        r->queueFrames(1);
        r->startPaced(sim::Pace{sim::Pace::AsFastAsPossible, 0});
        if (camera_start_capture(h, 0) == 0) {
            unsigned nFrames = 0;
            for (int i = 0; i < 6 && r->plugged(); i++) {
                if (kind == 0)
                    (void)camera_xu_sensor_read(h, pick(0, 0xFFFF));  // any code until it dies
                void* pFrame = nullptr;
                if (camera_get_image(h, 1000, &pFrame) == 0) {
                    stress::checkFrame(pFrame, *r, "mixed");
                    EXPECT_EQ(camera_put_image(h, pFrame), 0);
                }
            }
            if (r->plugged())
                r->unplug();
            EXPECT_EQ(drainUntilFailure(h, *r, &nFrames), CAMERA_ERR_FAILURE);
        }
        EXPECT_EQ(camera_xu_sensor_read(h, 0x20), CAMERA_ERR_FAILURE);
        r->stopPaced();
        closeAndForget(*r, h, "mixed");
    }

    // A reader plugged in after all this streams normally.
    sim::Reader* r = nullptr;
    CAMERA_HANDLE h = plugAndOpen(r);
    ASSERT_NE(h, nullptr);
    uint32_t nFirst = r->queueFrames(3);
    r->queueUrbBreak();
    ASSERT_EQ(camera_start_capture(h, 0), 0);
    for (uint32_t f = nFirst; f < nFirst + 2; f++) {
        void* pFrame = nullptr;
        ASSERT_EQ(camera_get_image(h, 2000, &pFrame), 0);
        EXPECT_EQ(stress::checkFrame(pFrame, *r, "after replug"), f);
        EXPECT_EQ(camera_put_image(h, pFrame), 0);
    }
    EXPECT_EQ(camera_stop_capture(h), 0);
    camera_close(h);
    EXPECT_EQ(stress::settledThreadCount(threads0_), threads0_);
    EXPECT_EQ(stress::nodeFdCount(), 0u) << stress::fdList();
        EXPECT_EQ(stress::settledFdCount(fds0_), fds0_) << stress::fdList();
}

}  // namespace
