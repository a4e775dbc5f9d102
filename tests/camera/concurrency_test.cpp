// Many application threads at once: the one interface lock keeps every
// register exchange whole (a request of one thread between another's
// request and reply would return the wrong register), and nothing deadlocks.
#include "camera_test.h"

#include <atomic>
#include <thread>

using namespace camtest;
using sim::Model;

namespace {

class Concurrency : public CameraTest {};

}  // namespace

TEST_F(Concurrency, ExchangesNeverInterleave)
{
    auto& a = addReader(Model::T10);
    auto& b = addReader(Model::T30);
    CAMERA_HANDLE ha = openReader(a);
    CAMERA_HANDLE hb = openReader(b);
    // Every register holds a value derived from its address and reader.
    for (uint32_t i = 0; i < 256; ++i) {
        a.setReg(uint16_t(0x1000 + i), uint8_t(i));
        b.setReg(uint16_t(0x1000 + i), uint8_t(255 - i));
    }
    std::atomic<int> bad{0}, done{0};
    const int kIterations = 60;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            CAMERA_HANDLE h = t % 2 ? hb : ha;
            for (int i = 0; i < kIterations; ++i) {
                uint32_t reg = uint32_t((i * 37 + t * 11) % 256);
                int32_t v = camera_xu_sensor_read(h, 0x1000 + reg);
                int32_t want = t % 2 ? int32_t(255 - reg) : int32_t(reg);
                if (v != want)
                    bad++;
            }
            done++;
        });
    }
    // Flash reads and finger access at the same time.
    threads.emplace_back([&] {
        std::vector<uint8_t> buf(40);
        for (int i = 0; i < 10; ++i) {
            uint32_t addr = uint32_t(0x200 * i);
            if (camera_xu_flash_read(ha, addr, int32_t(buf.size()), buf.data()) != 0)
                bad++;
            for (size_t k = 0; k < buf.size(); ++k)
                if (buf[k] != sim::flashByte(addr + uint32_t(k)))
                    bad++;
            if (camera_xu_set_finger(hb, i) != 0 || camera_xu_get_finger(hb) != i)
                bad++;
        }
        done++;
    });
    // Registry readers alongside.
    threads.emplace_back([&] {
        while (done.load() < 5) {
            if (camera_device_count() != 2u || camera_get_vid(camera_get_by_index(0)) != 0x3A5C)
                bad++;
            camera_device_enumerate(nullptr, 0);  // same readers: no record changes
        }
    });
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(bad.load(), 0);
    EXPECT_EQ(camera_xu_sensor_read(ha, 0x1005), 5);
}

TEST_F(Concurrency, ImageWaitBlocksOtherCallsButNotForever)
{
    auto& a = addReader(Model::T10);
    auto& b = addReader(Model::T20);
    CAMERA_HANDLE ha = openReader(a);
    CAMERA_HANDLE hb = openReader(b);
    a.queueFrames(1);
    ASSERT_EQ(camera_start_capture(ha, 0), 0);
    std::atomic<bool> begun{false};
    Clock::time_point waitBegan;
    std::thread waiter([&] {
        void* f = nullptr;
        waitBegan = Clock::now();
        begun = true;
        EXPECT_EQ(camera_get_image(ha, 0, &f), CAMERA_ERR_TIMEOUT);
    });
    while (!begun)
        std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    // Another camera's register read waits for the lock (held for the whole
    // 1500 ms image wait), then works.
    b.setReg(0x0001, 0x77);
    EXPECT_EQ(camera_xu_sensor_read(hb, 0x0001), 0x77);
    Clock::time_point readEnded = Clock::now();
    waiter.join();
    EXPECT_GE(readEnded - waitBegan, std::chrono::milliseconds(1500));
    EXPECT_EQ(camera_stop_capture(ha), 0);
}
