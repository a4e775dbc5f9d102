// Load: four simulated readers stream at once, four application threads per
// reader take and give back frames, and another thread enumerates and reads
// and writes registers at random meanwhile.  Every frame must be byte-exact,
// no frame may be handed out twice, every call returns one of its codes, and
// nothing is left behind; the TSan build checks the locking on the way.
//
// CI runs a few frames per reader; tests/stress/soak.sh raises
// ZTUVC_STRESS_FRAMES.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "stress_util.h"

namespace {

using sim::Model;
using Clock = std::chrono::steady_clock;

struct Stream {
    sim::Reader* reader = nullptr;
    CAMERA_HANDLE handle = nullptr;
    std::mutex m;
    std::set<uint32_t> seen;        // frame numbers handed out
    std::atomic<unsigned> taken{0};
    std::atomic<unsigned> timeouts{0};
};

class Load : public sim::SimTest {
protected:
    Load() : sim::SimTest(stress::watchdog(170)) {}
};

TEST_F(Load, FourReadersFourThreadsEachWithEnumerationAndRegisters)
{
    const Model models[4] = {Model::T10, Model::T10, Model::T30, Model::T10};
    Stream streams[4];
    for (int i = 0; i < 4; i++)
        streams[i].reader = &addReader(models[i]);

    camera_init();
    camera_device_enumerate(nullptr, 0);
    ASSERT_EQ(camera_device_count(), 4u);
    const size_t fds0 = stress::fdCount();
    const size_t threads0 = sim::threadCount();
    const uint32_t dwSeed = stress::seed();

    // Handles by reader: the registry order is not the plug order.
    for (uint32_t i = 0; i < 4; i++) {
        CAMERA_HANDLE h = camera_get_by_index(i);
        ASSERT_NE(h, nullptr);
        const char* pszName = camera_get_filename(h);
        ASSERT_NE(pszName, nullptr);
        bool bFound = false;
        for (Stream& s : streams) {
            if (s.reader->cameraName() == pszName) {
                s.handle = h;
                bFound = true;
            }
        }
        ASSERT_TRUE(bFound) << pszName;
    }

    const unsigned nTarget = stress::frames(12);
    for (Stream& s : streams) {
        ASSERT_EQ(camera_open(s.handle), 0);
        s.reader->queueFrames(1);
        ASSERT_EQ(camera_start_capture(s.handle, 0), 0);
        // 10 frames a second each: well within what umockdev carries on two
        // cores, sanitizers included.
        s.reader->startPaced(sim::Pace{sim::Pace::FrameInterval, 1000000});
    }

    std::atomic<bool> bDone{false};
    std::vector<std::thread> workers;
    for (int r = 0; r < 4; r++) {
        for (int t = 0; t < 4; t++) {
            workers.emplace_back([&, r, t] {
                Stream& s = streams[r];
                std::mt19937 rng(dwSeed + uint32_t(r * 4 + t));
                while (s.taken.load() < nTarget && !bDone.load()) {
                    void* pFrame = nullptr;
                    int32_t iResult = camera_get_image(s.handle, 300, &pFrame);
                    if (iResult == CAMERA_ERR_TIMEOUT) {
                        EXPECT_EQ(pFrame, nullptr);
                        s.timeouts++;
                        continue;
                    }
                    ASSERT_EQ(iResult, 0) << "reader " << r << " thread " << t;
                    uint32_t n = stress::checkFrame(pFrame, *s.reader, "under load");
                    {
                        std::lock_guard<std::mutex> l(s.m);
                        EXPECT_TRUE(s.seen.insert(n).second) << "frame " << n << " handed out twice";
                    }
                    // hold it a moment, then look again: nobody wrote into it
                    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 3000));
                    EXPECT_EQ(sim::firstPatternMismatch(static_cast<uint8_t*>(pFrame),
                                                        s.reader->info().imageSize(), n),
                              -1)
                        << "frame " << n << " changed while held";
                    EXPECT_EQ(camera_put_image(s.handle, pFrame), 0);
                    s.taken++;
                }
            });
        }
    }

    // Enumeration and register traffic at random while the frames flow.
    unsigned nChaos = 0;
    std::thread chaos([&] {
        std::mt19937 rng(dwSeed ^ 0x5EEDu);
        while (!bDone.load()) {
            Stream& s = streams[rng() % 4];
            switch (rng() % 3) {
            case 0: {
                camera_device_enumerate(nullptr, 0);
                EXPECT_EQ(camera_device_count(), 4u);
                std::set<CAMERA_HANDLE> now;
                for (uint32_t i = 0; i < 4; i++)
                    now.insert(camera_get_by_index(i));
                for (Stream& x : streams)
                    EXPECT_EQ(now.count(x.handle), 1u) << "an enumeration changed a handle";
                break;
            }
            case 1: {
                uint16_t wAddress = uint16_t(rng() % 0x1000);
                EXPECT_EQ(camera_xu_sensor_read(s.handle, wAddress), s.reader->reg(wAddress));
                break;
            }
            default: {
                uint16_t wAddress = uint16_t(0x2000 + rng() % 0x100);
                uint8_t bValue = uint8_t(rng());
                EXPECT_EQ(camera_xu_sensor_write(s.handle, wAddress, bValue), 0);
                EXPECT_EQ(camera_xu_sensor_read(s.handle, wAddress), bValue);
                EXPECT_EQ(s.reader->reg(wAddress), bValue);
                break;
            }
            }
            nChaos++;
            std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 20));
        }
    });

    auto t0 = Clock::now();
    for (std::thread& w : workers)
        w.join();
    bDone = true;
    chaos.join();
    double dSeconds = std::chrono::duration<double>(Clock::now() - t0).count();

    for (int r = 0; r < 4; r++) {
        Stream& s = streams[r];
        EXPECT_GE(s.taken.load(), nTarget);
        uint32_t nFirst = s.seen.empty() ? 0 : *s.seen.begin();
        uint32_t nLast = s.seen.empty() ? 0 : *s.seen.rbegin();
        std::printf("[ stress ] reader %d (%s): %u frames (%u..%u, %u not seen), %u timeouts\n", r,
                    s.reader->sysfsName().c_str(), s.taken.load(), nFirst, nLast,
                    unsigned(nLast - nFirst + 1 - s.seen.size()), s.timeouts.load());
    }
    std::printf("[ stress ] %.1f s, %u enumerations and register calls\n", dSeconds, nChaos);

    for (Stream& s : streams) {
        EXPECT_EQ(camera_stop_capture(s.handle), 0);
        s.reader->stopPaced();
        camera_close(s.handle);
    }
    camera_cleanup();
    EXPECT_EQ(stress::settledThreadCount(threads0), threads0);
    EXPECT_EQ(stress::nodeFdCount(), 0u) << stress::fdList();
    EXPECT_EQ(stress::settledFdCount(fds0), fds0) << stress::fdList();
}

}  // namespace
