// Unplugging a reader at many points, through the exported interface: during
// the open, at the commit, at a random request while streaming with frames
// held, during a flash read. Every call returns its code without hanging,
// held frames stay intact until given back, and each round leaves no
// descriptor, thread or heap block behind (LeakSanitizer in the ASan build).
// Each case repeats with random points from a printed seed on a fresh reader.
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

#include "stress.h"

namespace {

using sim::Model;

class Unplug : public sim::CameraTest {
protected:
    Unplug() : sim::CameraTest(stress::watchdog(170)) {}
    void SetUp() override {
        sim::CameraTest::SetUp();
        rng_.seed(stress::seed());
    }
    CAMERA_HANDLE plugAndOpen(sim::Reader*& r) {
        r = &addReader(pick(0, 1) ? Model::T10 : Model::T30);
        CAMERA_HANDLE h = openReader(*r);
        EXPECT_EQ(camera_device_count(), 1u);
        return h;
    }
    // Takes frames until the stream reports the loss; every frame before it is whole.
    int32_t drain(CAMERA_HANDLE h, const sim::Reader& r) {
        for (unsigned n = 0; n < 1000; n++) {
            void* f = nullptr;
            int32_t rc = camera_get_image(h, 1000, &f);
            if (rc != 0) {
                EXPECT_EQ(f, nullptr);
                return rc;
            }
            sim::checkFrame(f, r, "before the unplug");
            EXPECT_EQ(camera_put_image(h, f), 0);
        }
        return 0;
    }
    // The dead camera: refused at once, closed, gone with the next
    // enumeration, its handle refused, nothing of it left.
    void forget(sim::Reader& r, CAMERA_HANDLE h, const char* where, bool open = true) {
        void* f = reinterpret_cast<void*>(0x1);
        const int32_t dead = open ? CAMERA_ERR_FAILURE : CAMERA_ERR_NO_DEVICE;
        EXPECT_EQ(camera_get_image(h, 10000, &f), dead) << where;
        EXPECT_EQ(camera_xu_sensor_read(h, 0x20), dead) << where;
        EXPECT_EQ(camera_stop_capture(h), open ? 0 : dead) << where;
        camera_close(h);
        if (r.plugged()) r.unplug();
        camera_device_enumerate(nullptr, 0);
        EXPECT_EQ(camera_device_count(), 0u) << where;
        EXPECT_EQ(camera_get_image(h, 0, &f), CAMERA_ERR_NO_DEVICE) << where;
        EXPECT_EQ(camera_open(h), CAMERA_ERR_NO_DEVICE) << where;
        expectNothingLeft(where);
    }
    unsigned pick(unsigned lo, unsigned hi) { return std::uniform_int_distribution<unsigned>(lo, hi)(rng_); }
    std::mt19937 rng_;
};

TEST_F(Unplug, DuringTheOpenOrTheCommit)
{
    const unsigned long steps[] = {USBDEVFS_RESET, USBDEVFS_SETCONFIGURATION, USBDEVFS_CLAIMINTERFACE,
                                   USBDEVFS_SETINTERFACE};
    for (unsigned round = 0, n = stress::rounds(2); round < n && !HasFailure(); round++) {
        sim::Reader& r = addReader(Model::T10);
        enumerate();
        CAMERA_HANDLE h = camera_get_by_index(0);
        r.unplugOnIoctl(steps[pick(0, 3)]);
        EXPECT_EQ(open(h), CAMERA_ERR_NO_DEVICE);
        EXPECT_FALSE(r.plugged());
        forget(r, h, "open", false);
    }
    for (unsigned round = 0, n = stress::rounds(2); round < n && !HasFailure(); round++) {
        sim::Reader* r = nullptr;
        CAMERA_HANDLE h = plugAndOpen(r);
        r->unplugOnControl(sim::ControlMatch::commit());
        r->queueFrames(2);
        EXPECT_EQ(camera_start_capture(h, pick(0, 4)), CAMERA_ERR_FAILURE);
        EXPECT_FALSE(r->plugged());
        EXPECT_EQ(camera_start_capture(h, 0), CAMERA_ERR_FAILURE) << "second start on the dead reader";
        forget(*r, h, "commit");
    }
}

TEST_F(Unplug, WhileStreamingWithFramesHeld)
{
    for (unsigned round = 0, n = stress::rounds(3); round < n && !HasFailure(); round++) {
        sim::Reader* r = nullptr;
        CAMERA_HANDLE h = plugAndOpen(r);
        const unsigned slots = pick(1, 4), hold = pick(0, slots - 1), reap = pick(1, 300);
        r->queueFrames(hold + 1);
        r->queueUrbBreak();
        ASSERT_EQ(camera_start_capture(h, slots), 0);
        std::vector<void*> held(hold);
        for (void*& f : held) {
            ASSERT_EQ(camera_get_image(h, 2000, &f), 0);
            sim::checkFrame(f, *r, "held");
        }
        r->unplugOnIsoReap(reap);  // about 13 to 40 requests a frame
        r->startPaced(sim::Pace{sim::Pace::AsFastAsPossible, 0});
        EXPECT_EQ(drain(h, *r), CAMERA_ERR_FAILURE) << "unplug at reap " << reap;
        EXPECT_FALSE(r->plugged());
        EXPECT_EQ(camera_flush(h), 0);
        for (void* f : held) {
            sim::checkFrame(f, *r, "held across the unplug");
            EXPECT_EQ(camera_put_image(h, f), 0);
        }
        r->stopPaced();
        forget(*r, h, "streaming");
    }
    // A reader plugged in after all this streams normally.
    sim::Reader* r = nullptr;
    CAMERA_HANDLE h = plugAndOpen(r);
    uint32_t first = r->queueFrames(3);
    r->queueUrbBreak();
    ASSERT_EQ(camera_start_capture(h, 0), 0);
    for (uint32_t n = first; n < first + 2; n++) {
        void* f = nullptr;
        ASSERT_EQ(camera_get_image(h, 2000, &f), 0);
        EXPECT_EQ(sim::checkFrame(f, *r, "after replug"), n);
        EXPECT_EQ(camera_put_image(h, f), 0);
    }
}

TEST_F(Unplug, DuringAFlashRead)
{
    for (unsigned round = 0, n = stress::rounds(2); round < n && !HasFailure(); round++) {
        sim::Reader* r = nullptr;
        CAMERA_HANDLE h = plugAndOpen(r);
        const unsigned chunk = pick(1, 12);  // the exchange that dies
        const uint32_t addr = pick(0, 0x8000);
        std::vector<uint8_t> buf(12 * 8, 0xEE);
        r->unplugOnControl(sim::ControlMatch::flashRead(), sim::When::nth(chunk));
        EXPECT_EQ(camera_xu_flash_read(h, addr, int32_t(buf.size()), buf.data()), CAMERA_ERR_FAILURE);
        for (unsigned i = 0; i < (chunk - 1) * 8; i++) ASSERT_EQ(buf[i], sim::flashByte(addr + i)) << i;
        for (unsigned i = chunk * 8; i < buf.size(); i++) ASSERT_EQ(buf[i], 0xEE) << "written after the failure";
        EXPECT_EQ(camera_xu_sensor_write(h, 0x20, 1), CAMERA_ERR_FAILURE);
        forget(*r, h, "flash read");
    }
}

}  // namespace
