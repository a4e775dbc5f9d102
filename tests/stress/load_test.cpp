// Load: four simulated readers stream at once, four application threads per
// reader take and give back frames, and another thread enumerates and reads
// and writes registers meanwhile. Every frame is byte-exact and handed out
// once, every call returns one of its codes, nothing is left behind; the TSan
// build checks the locking on the way.
#include <atomic>
#include <mutex>
#include <set>
#include <thread>

#include "stress.h"

namespace {

using sim::Model;

struct Stream {
    sim::Reader* reader = nullptr;
    CAMERA_HANDLE handle = nullptr;
    std::mutex m;
    std::set<uint32_t> seen;
    std::atomic<unsigned> taken{0};
};

class Load : public sim::CameraTest {
protected:
    Load() : sim::CameraTest(stress::watchdog(170)) {}
};

TEST_F(Load, FourReadersFourThreadsEachWithEnumerationAndRegisters)
{
    Stream streams[4];
    for (int i = 0; i < 4; i++) streams[i].reader = &addReader(i == 2 ? Model::T30 : Model::T10);
    enumerate();
    ASSERT_EQ(camera_device_count(), 4u);
    const uint32_t seed = stress::seed();
    const unsigned target = stress::frames(8);
    for (Stream& s : streams) {
        ASSERT_NE(s.handle = sim::handleOf(*s.reader), nullptr);
        ASSERT_EQ(open(s.handle), 0);
        s.reader->queueFrames(1);
        ASSERT_EQ(camera_start_capture(s.handle, 0), 0);
        s.reader->startPaced(sim::Pace{sim::Pace::FrameInterval, 1000000});  // 10 frames a second each
    }
    std::atomic<bool> done{false};
    std::vector<std::thread> workers;
    for (int t = 0; t < 16; t++)
        workers.emplace_back([&, t] {
            Stream& s = streams[t % 4];
            std::mt19937 rng(seed + uint32_t(t));
            while (s.taken.load() < target) {
                void* f = nullptr;
                int32_t rc = camera_get_image(s.handle, 300, &f);
                if (rc == CAMERA_ERR_TIMEOUT) continue;
                ASSERT_EQ(rc, 0) << "thread " << t;
                uint32_t n = sim::checkFrame(f, *s.reader, "under load");
                {
                    std::lock_guard<std::mutex> l(s.m);
                    EXPECT_TRUE(s.seen.insert(n).second) << "frame " << n << " handed out twice";
                }
                std::this_thread::sleep_for(std::chrono::microseconds(rng() % 3000));  // hold it a moment
                EXPECT_EQ(sim::firstPatternMismatch(static_cast<uint8_t*>(f), s.reader->info().imageSize(), n), -1)
                    << "frame " << n << " changed while held";
                EXPECT_EQ(camera_put_image(s.handle, f), 0);
                s.taken++;
            }
        });
    std::thread chaos([&] {
        std::mt19937 rng(seed ^ 0x5EEDu);
        while (!done.load()) {
            Stream& s = streams[rng() % 4];
            const uint16_t addr = uint16_t(0x2000 + rng() % 0x100);
            const uint8_t value = uint8_t(rng());
            if (rng() % 2) {
                camera_device_enumerate(nullptr, 0);
                std::set<CAMERA_HANDLE> now;
                for (uint32_t i = 0; i < 4; i++) now.insert(camera_get_by_index(i));
                for (Stream& x : streams) EXPECT_EQ(now.count(x.handle), 1u) << "an enumeration changed a handle";
            } else {
                EXPECT_EQ(camera_xu_sensor_write(s.handle, addr, value), 0);
                EXPECT_EQ(camera_xu_sensor_read(s.handle, addr), value);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 20));
        }
    });
    for (std::thread& w : workers) w.join();
    done = true;
    chaos.join();
    for (Stream& s : streams) {  // two stopped, two closed while streaming
        EXPECT_GE(s.taken.load(), target);
        if (&s - streams < 2) { EXPECT_EQ(camera_stop_capture(s.handle), 0); }
        camera_close(s.handle);
        s.reader->stopPaced();
    }
    expectNothingLeft("load");
}

}  // namespace
