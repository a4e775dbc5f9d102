// Capture, format and frame interval through the camera interface: the
// open-state checks, the wait time of an image request and the mapping of
// the video layer's statuses (frame assembly itself is tested with the
// streaming layer).
#include "camera_test.h"

#include <cstring>
#include <atomic>
#include <thread>

using namespace camtest;
using sim::Model;

namespace {

class Capture : public CameraTest {
protected:
    // Starts with one frame queued (the start waits for the first payload);
    // returns its number.  It is finished once the next frame begins.
    uint32_t start(sim::Reader& r, CAMERA_HANDLE h, uint32_t slots = 0)
    {
        uint32_t first = r.queueFrames(1);
        EXPECT_EQ(camera_start_capture(h, slots), 0);
        return first;
    }
    // Queues n frames and ends the request that carries their tail: the
    // frame before them and n-1 of them become available.
    uint32_t queue(sim::Reader& r, unsigned n)
    {
        uint32_t first = r.queueFrames(n);
        r.queueUrbBreak();
        return first;
    }
};

class Format : public CameraTest {};

}  // namespace

TEST_F(Capture, GetImageBeforeStartAndAfterStopFailsAtOnce)
{
    auto& r = addReader(Model::T10);
    CAMERA_HANDLE h = openReader(r);
    void* f = reinterpret_cast<void*>(0x1);
    auto t0 = Clock::now();
    EXPECT_EQ(camera_get_image(h, 5000, &f), CAMERA_ERR_FAILURE);
    EXPECT_LT(msSince(t0), 1000) << "no wait when nothing streams";
    EXPECT_EQ(f, nullptr);
    EXPECT_EQ(camera_stop_capture(h), 0) << "stopping a stream never started is fine";

    start(r, h);
    queue(r, 1);
    void* frame = nullptr;
    ASSERT_EQ(camera_get_image(h, 3000, &frame), 0);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(camera_put_image(h, frame), 0);
    EXPECT_EQ(camera_stop_capture(h), 0);

    t0 = Clock::now();
    f = reinterpret_cast<void*>(0x1);
    EXPECT_EQ(camera_get_image(h, 5000, &f), CAMERA_ERR_FAILURE);
    EXPECT_LT(msSince(t0), 1000);
    EXPECT_EQ(f, nullptr);
}

TEST_F(Capture, FramesComeInOrderWithTrailer)
{
    auto& r = addReader(Model::T10);
    CAMERA_HANDLE h = openReader(r);
    uint32_t first = start(r, h);
    queue(r, 3);
    const uint32_t size = r.info().imageSize();
    for (uint32_t i = 0; i < 3; ++i) {
        void* frame = nullptr;
        ASSERT_EQ(camera_get_image(h, 3000, &frame), 0);
        const uint8_t* img = static_cast<const uint8_t*>(frame);
        EXPECT_EQ(sim::frameNumberOf(img), first + i);
        EXPECT_EQ(sim::firstPatternMismatch(img, size, first + i), -1);
        EXPECT_EQ(memcmp(img + size, "TmSt", 4), 0);
        EXPECT_EQ(camera_put_image(h, frame), 0);
    }
}

TEST_F(Capture, TimeoutIsTheRequestPlus1500Ms)
{
    auto& r = addReader(Model::T30);
    CAMERA_HANDLE h = openReader(r);
    start(r, h);
    void* frame = reinterpret_cast<void*>(0x1);
    auto t0 = Clock::now();
    EXPECT_EQ(camera_get_image(h, 0, &frame), CAMERA_ERR_TIMEOUT);
    long waited = msSince(t0);
    EXPECT_GE(waited, 1500);
    EXPECT_LT(waited, 5000);
    EXPECT_EQ(frame, nullptr);

    // A fresh start, so that the stream's own request timeout stays far.
    EXPECT_EQ(camera_stop_capture(h), 0);
    start(r, h);
    t0 = Clock::now();
    EXPECT_EQ(camera_get_image(h, 300, &frame), CAMERA_ERR_TIMEOUT);
    waited = msSince(t0);
    EXPECT_GE(waited, 1800);
    EXPECT_LT(waited, 6000);
}

// A huge timeout wraps in 32 bits: 0xFFFFFFFF + 1500 waits about 1.5 s.
TEST_F(Capture, TimeoutSumWrapsIn32Bits)
{
    auto& r = addReader(Model::T10);
    CAMERA_HANDLE h = openReader(r);
    start(r, h);
    void* frame = nullptr;
    auto t0 = Clock::now();
    EXPECT_EQ(camera_get_image(h, 0xFFFFFFFFu, &frame), CAMERA_ERR_TIMEOUT);
    long waited = msSince(t0);
    EXPECT_GE(waited, 1400);
    EXPECT_LT(waited, 5000);
}

TEST_F(Capture, NullFramePointerIsRefusedAndLosesNoFrame)
{
    auto& r = addReader(Model::T10);
    CAMERA_HANDLE h = openReader(r);
    uint32_t first = start(r, h);
    queue(r, 1);
    EXPECT_EQ(camera_get_image(h, 3000, nullptr), CAMERA_ERR_FAILURE);
    void* frame = nullptr;
    ASSERT_EQ(camera_get_image(h, 3000, &frame), 0);
    EXPECT_EQ(sim::frameNumberOf(static_cast<uint8_t*>(frame)), first);
    EXPECT_EQ(camera_put_image(h, frame), 0);
}

TEST_F(Capture, SlotCountsAndForeignFramesAreRefused)
{
    auto& r = addReader(Model::T10);
    CAMERA_HANDLE h = openReader(r);
    EXPECT_EQ(camera_start_capture(h, 5), CAMERA_ERR_FAILURE);
    EXPECT_EQ(r.isoUrbsInFlight(), 0u) << "no stream after a refused start";
    start(r, h, 1);
    queue(r, 1);
    void* frame = nullptr;
    ASSERT_EQ(camera_get_image(h, 3000, &frame), 0);
    uint8_t notAFrame[16];
    EXPECT_EQ(camera_put_image(h, notAFrame), CAMERA_ERR_FAILURE);
    EXPECT_EQ(camera_put_image(h, nullptr), CAMERA_ERR_FAILURE);
    EXPECT_EQ(camera_put_image(h, frame), 0);
    // With the one slot back, a later frame can be taken (the one that came
    // while the slot was held is lost).
    queue(r, 2);
    ASSERT_EQ(camera_get_image(h, 3000, &frame), 0);
    EXPECT_EQ(camera_put_image(h, frame), 0);
}

TEST_F(Capture, FlushDiscardsFinishedFrames)
{
    auto& r = addReader(Model::T10);
    CAMERA_HANDLE h = openReader(r);
    uint32_t first = start(r, h);
    queue(r, 2);  // first and first+1 finished, first+2 being assembled
    ASSERT_TRUE(r.waitFramesReaped(first + 3));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(camera_flush(h), 0);
    void* frame = nullptr;
    int32_t rc = camera_get_image(h, 0, &frame);
    if (rc == 0) {
        EXPECT_GT(sim::frameNumberOf(static_cast<uint8_t*>(frame)), first + 1)
            << "a frame finished before the flush was handed out";
        camera_put_image(h, frame);
    } else {
        EXPECT_EQ(rc, CAMERA_ERR_TIMEOUT);
    }
}

TEST_F(Capture, ReaderGoneIsFailureAndClosedCameraIsNoDevice)
{
    auto& r = addReader(Model::T10);
    CAMERA_HANDLE h = openReader(r);
    start(r, h);
    r.unplug();
    void* frame = nullptr;
    int32_t rc = camera_get_image(h, 0, &frame);
    EXPECT_TRUE(rc == CAMERA_ERR_FAILURE || rc == CAMERA_ERR_TIMEOUT) << rc;
    EXPECT_EQ(frame, nullptr);
    camera_close(h);
    EXPECT_EQ(camera_start_capture(h, 0), CAMERA_ERR_NO_DEVICE);
    EXPECT_EQ(camera_get_image(h, 0, &frame), CAMERA_ERR_NO_DEVICE);
    EXPECT_EQ(camera_flush(h), CAMERA_ERR_NO_DEVICE);
}

// The image wait holds the library lock: a put from another thread waits
// until the get has finished.
TEST_F(Capture, WaitHoldsTheLock)
{
    auto& r = addReader(Model::T10);
    CAMERA_HANDLE h = openReader(r);
    start(r, h);
    queue(r, 1);
    void* frame = nullptr;
    ASSERT_EQ(camera_get_image(h, 3000, &frame), 0);

    // The waiter holds the interface lock for its whole 1500 ms wait, so a
    // put issued meanwhile cannot finish before that wait is over.
    std::atomic<bool> begun{false};
    Clock::time_point getBegan;
    std::thread waiter([&] {
        void* f2 = nullptr;
        getBegan = Clock::now();
        begun = true;
        EXPECT_EQ(camera_get_image(h, 0, &f2), CAMERA_ERR_TIMEOUT);
    });
    while (!begun)
        std::this_thread::yield();
    // Well inside the wait, and long enough for the waiter to take the lock on a loaded machine.
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    EXPECT_EQ(camera_put_image(h, frame), 0);
    Clock::time_point putEnded = Clock::now();
    waiter.join();
    EXPECT_GE(putEnded - getBegan, std::chrono::milliseconds(1500)) << "put ran while get held the lock";
}

TEST_F(Format, SetFormatDescribesEachModel)
{
    const Model models[] = {Model::T10, Model::T20, Model::T30, Model::T40};
    std::vector<sim::Reader*> rs;
    for (Model m : models)
        rs.push_back(&addReader(m));
    for (sim::Reader* r : rs) {
        CAMERA_HANDLE h = openReader(*r);
        r->clearLog();
        CAMERA_FORMAT f;
        memset(&f, 0x5C, sizeof f);
        ASSERT_EQ(camera_set_format(h, &f), 0);
        const auto& mi = r->info();
        EXPECT_EQ(f.dwFourCC, 0x56595559u);  // "YUYV"
        EXPECT_EQ(memcmp(&f.dwFourCC, "YUYV", 4), 0);
        EXPECT_EQ(f.dwWidth, mi.width);
        EXPECT_EQ(f.dwHeight, mi.height / 2);
        EXPECT_EQ(f.dwImageSize, mi.width * 2 * (mi.height / 2));
        EXPECT_EQ(f.dwReserved, 0u);
        EXPECT_TRUE(r->log().empty()) << "selecting the format sends nothing";
    }
}

TEST_F(Format, SetFormatRefusals)
{
    auto& r = addReader(Model::T30);
    auto& closed = addReader(Model::T10);
    CAMERA_HANDLE h = openReader(r);
    r.clearLog();
    EXPECT_EQ(camera_set_format(h, nullptr), CAMERA_ERR_FAILURE);
    CAMERA_FORMAT f;
    memset(&f, 0x5C, sizeof f);
    CAMERA_FORMAT orig = f;
    EXPECT_EQ(camera_set_format(handleOf(closed), &f), CAMERA_ERR_FAILURE);
    EXPECT_EQ(memcmp(&f, &orig, sizeof f), 0);
    EXPECT_EQ(camera_set_format(reinterpret_cast<CAMERA_HANDLE>(&f), &f), CAMERA_ERR_NO_DEVICE);
    EXPECT_EQ(memcmp(&f, &orig, sizeof f), 0);
    // Not implemented, even for an open camera.
    EXPECT_EQ(camera_get_format(h, &f), CAMERA_ERR_FAILURE);
    EXPECT_EQ(memcmp(&f, &orig, sizeof f), 0);
    EXPECT_EQ(camera_get_format(nullptr, nullptr), CAMERA_ERR_FAILURE);
    // Neither sends anything to the reader.
    EXPECT_TRUE(r.log().empty());
}

TEST_F(Format, FrameIntervalsInMilliseconds)
{
    auto& t10 = addReader(Model::T10);
    auto& t30 = addReader(Model::T30);
    CAMERA_HANDLE h10 = openReader(t10);
    CAMERA_HANDLE h30 = openReader(t30);
    uint32_t ms = 0;
    EXPECT_EQ(camera_get_frame_interval(h10, &ms), 0);
    EXPECT_EQ(ms, 33u);
    EXPECT_EQ(camera_get_frame_interval(h30, &ms), 0);
    EXPECT_EQ(ms, 66u);

    // Shorter than the reader's own interval: raised to it.
    ms = 0;
    EXPECT_EQ(camera_set_frame_interval(h10, &ms), 0);
    EXPECT_EQ(ms, 33u);
    ms = 10;
    EXPECT_EQ(camera_set_frame_interval(h30, &ms), 0);
    EXPECT_EQ(ms, 66u);

    ms = 100;
    EXPECT_EQ(camera_set_frame_interval(h30, &ms), 0);
    EXPECT_EQ(ms, 100u);
    uint32_t back = 0;
    EXPECT_EQ(camera_get_frame_interval(h30, &back), 0);
    EXPECT_EQ(back, 100u);
    EXPECT_EQ(camera_get_frame_interval(h10, &back), 0);
    EXPECT_EQ(back, 33u) << "cameras keep their own interval";

    // NULL pointers.
    EXPECT_EQ(camera_get_frame_interval(h30, nullptr), 0);
    EXPECT_EQ(camera_set_frame_interval(h30, nullptr), CAMERA_ERR_FAILURE);
    EXPECT_EQ(camera_set_frame_interval(reinterpret_cast<CAMERA_HANDLE>(&back), nullptr),
              CAMERA_ERR_FAILURE);
    EXPECT_EQ(camera_set_frame_interval(nullptr, nullptr), CAMERA_ERR_FAILURE);
    EXPECT_EQ(camera_get_frame_interval(h30, &back), 0);
    EXPECT_EQ(back, 100u);

    // The interval reaches the reader with the next stream start.
    t30.queueFrames(1);
    ASSERT_EQ(camera_start_capture(h30, 0), 0);
    auto commit = t30.lastCommit();
    ASSERT_TRUE(commit.has_value());
    EXPECT_EQ(hexBytes({commit->begin(), commit->end()}),
              hexBytes([&] {
                  auto e = sim::expectedCommit(Model::T30, 1000000u);
                  return std::vector<uint8_t>(e.begin(), e.end());
              }()));
    EXPECT_EQ(camera_stop_capture(h30), 0);

    // A new open starts from the reader's default again.
    camera_close(h30);
    ASSERT_EQ(open(h30), 0);
    EXPECT_EQ(camera_get_frame_interval(h30, &back), 0);
    EXPECT_EQ(back, 66u);
}
