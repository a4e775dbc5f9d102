// Handle validation: every function that checks its camera handle refuses
// NULL, a pointer the library never issued and the pointer of a deleted
// record with its documented code, without touching out-parameters, and
// writes the not-found warning only for non-NULL handles.
#include "camera_test.h"

#include <cstring>
#include <functional>

using namespace camtest;
using sim::Model;

namespace {

constexpr uint32_t kSentinel = 0xA5A5A5A5u;

struct Outs {
    void* frame = reinterpret_cast<void*>(0x77);
    CAMERA_FORMAT format;
    uint32_t interval = kSentinel;
    uint8_t buffer[16];
    int32_t value = int32_t(kSentinel);
    Outs()
    {
        memset(&format, 0xA5, sizeof format);
        memset(buffer, 0xA5, sizeof buffer);
    }
    bool untouched() const
    {
        CAMERA_FORMAT f;
        memset(&f, 0xA5, sizeof f);
        uint8_t b[16];
        memset(b, 0xA5, sizeof b);
        return frame == reinterpret_cast<void*>(0x77) && memcmp(&format, &f, sizeof f) == 0 &&
               interval == kSentinel && memcmp(buffer, b, sizeof b) == 0 &&
               value == int32_t(kSentinel);
    }
};

struct Call {
    const char* name;
    std::function<long(CAMERA_HANDLE, Outs&)> fn;
    long refused;   // result for a handle that is not in the registry
    int lookups;    // registry lookups the call makes
};

long P(const void* p) { return long(reinterpret_cast<intptr_t>(p)); }

const std::vector<Call>& calls()
{
    static const std::vector<Call> v = {
        {"camera_open", [](CAMERA_HANDLE h, Outs&) { return long(camera_open(h)); }, CAMERA_ERR_NO_DEVICE, 1},
        {"camera_close", [](CAMERA_HANDLE h, Outs&) { camera_close(h); return 0L; }, 0, 1},
        {"camera_get_filename", [](CAMERA_HANDLE h, Outs&) { return P(camera_get_filename(h)); }, 0, 1},
        {"camera_get_vid", [](CAMERA_HANDLE h, Outs&) { return long(camera_get_vid(h)); }, CAMERA_ERR_NO_DEVICE, 1},
        {"camera_get_pid", [](CAMERA_HANDLE h, Outs&) { return long(camera_get_pid(h)); }, CAMERA_ERR_NO_DEVICE, 1},
        {"camera_get_revision", [](CAMERA_HANDLE h, Outs&) { return long(camera_get_revision(h)); }, CAMERA_ERR_NO_DEVICE, 1},
        {"camera_get_product_name", [](CAMERA_HANDLE h, Outs&) { return P(camera_get_product_name(h)); }, 0, 1},
        {"camera_get_manufacturer_name", [](CAMERA_HANDLE h, Outs&) { return P(camera_get_manufacturer_name(h)); }, 0, 1},
        {"camera_get_serialnumber", [](CAMERA_HANDLE h, Outs&) { return P(camera_get_serialnumber(h)); }, 0, 1},
        {"camera_start_capture", [](CAMERA_HANDLE h, Outs&) { return long(camera_start_capture(h, 0)); }, CAMERA_ERR_NO_DEVICE, 1},
        {"camera_stop_capture", [](CAMERA_HANDLE h, Outs&) { return long(camera_stop_capture(h)); }, CAMERA_ERR_NO_DEVICE, 1},
        {"camera_get_image", [](CAMERA_HANDLE h, Outs& o) { return long(camera_get_image(h, 0, &o.frame)); }, CAMERA_ERR_NO_DEVICE, 1},
        {"camera_put_image", [](CAMERA_HANDLE h, Outs& o) { return long(camera_put_image(h, o.buffer)); }, CAMERA_ERR_NO_DEVICE, 1},
        {"camera_flush", [](CAMERA_HANDLE h, Outs&) { return long(camera_flush(h)); }, CAMERA_ERR_NO_DEVICE, 1},
        {"camera_set_format", [](CAMERA_HANDLE h, Outs& o) { return long(camera_set_format(h, &o.format)); }, CAMERA_ERR_NO_DEVICE, 1},
        {"camera_get_frame_interval", [](CAMERA_HANDLE h, Outs& o) { return long(camera_get_frame_interval(h, &o.interval)); }, CAMERA_ERR_NO_DEVICE, 1},
        {"camera_set_frame_interval", [](CAMERA_HANDLE h, Outs& o) { return long(camera_set_frame_interval(h, &o.interval)); }, CAMERA_ERR_NO_DEVICE, 1},
        // A missing request is refused before the handle is looked at.
        {"camera_set_frame_interval(NULL)", [](CAMERA_HANDLE h, Outs&) { return long(camera_set_frame_interval(h, nullptr)); }, CAMERA_ERR_FAILURE, 0},
        {"camera_xu_sensor_read", [](CAMERA_HANDLE h, Outs&) { return long(camera_xu_sensor_read(h, 0x1234)); }, CAMERA_ERR_NO_DEVICE, 1},
        {"camera_xu_sensor_write", [](CAMERA_HANDLE h, Outs&) { return long(camera_xu_sensor_write(h, 0x1234, 1)); }, CAMERA_ERR_NO_DEVICE, 1},
        {"camera_xu_get_finger", [](CAMERA_HANDLE h, Outs&) { return long(camera_xu_get_finger(h)); }, CAMERA_ERR_NO_DEVICE, 1},
        {"camera_xu_set_finger", [](CAMERA_HANDLE h, Outs&) { return long(camera_xu_set_finger(h, 1)); }, CAMERA_ERR_NO_DEVICE, 1},
        {"camera_xu_flash_read", [](CAMERA_HANDLE h, Outs& o) { return long(camera_xu_flash_read(h, 0, 16, o.buffer)); }, CAMERA_ERR_NO_DEVICE, 1},
        // Not implemented: fails for every handle without looking it up.
        {"camera_get_format", [](CAMERA_HANDLE h, Outs& o) { return long(camera_get_format(h, &o.format)); }, CAMERA_ERR_FAILURE, 0},
        // Controls the readers lack: success for every handle, nothing written.
        {"camera_get_controls", [](CAMERA_HANDLE h, Outs& o) { return long(camera_get_controls(h, o.buffer, &o.interval)); }, 0, 0},
        {"camera_get_control_info", [](CAMERA_HANDLE h, Outs& o) { return long(camera_get_control_info(h, 1, o.buffer)); }, 0, 0},
        {"camera_get_control", [](CAMERA_HANDLE h, Outs& o) { return long(camera_get_control(h, 1, &o.value)); }, 0, 0},
        {"camera_set_control", [](CAMERA_HANDLE h, Outs&) { return long(camera_set_control(h, 1, 2)); }, 0, 0},
        {"camera_button_state", [](CAMERA_HANDLE h, Outs& o) { return long(camera_button_state(h, &o.value)); }, 0, 0},
        {"camera_wait_for_button", [](CAMERA_HANDLE h, Outs&) { return long(camera_wait_for_button(h, 60000)); }, 0, 0},
        {"camera_xu_get_flip", [](CAMERA_HANDLE h, Outs& o) { return long(camera_xu_get_flip(h, &o.value)); }, 0, 0},
        {"camera_xu_set_flip", [](CAMERA_HANDLE h, Outs&) { return long(camera_xu_set_flip(h, 1)); }, 0, 0},
        {"camera_xu_get_mirror", [](CAMERA_HANDLE h, Outs& o) { return long(camera_xu_get_mirror(h, &o.value)); }, 0, 0},
        {"camera_xu_set_mirror", [](CAMERA_HANDLE h, Outs&) { return long(camera_xu_set_mirror(h, 1)); }, 0, 0},
        {"camera_xu_set_leds_mode", [](CAMERA_HANDLE h, Outs&) { return long(camera_xu_set_leds_mode(h, 1)); }, 0, 0},
        {"camera_xu_set_leds", [](CAMERA_HANDLE h, Outs&) { return long(camera_xu_set_leds(h, 1)); }, 0, 0},
    };
    return v;
}

class Handles : public CameraTest {
protected:
    TraceCapture trace_;  // constructed before any library call of the process

    // Runs every call with `h`; returns the number of lookups made.
    int runAll(CAMERA_HANDLE h, const char* what)
    {
        int lookups = 0;
        for (const Call& c : calls()) {
            Outs o;
            auto t0 = Clock::now();
            EXPECT_EQ(c.fn(h, o), c.refused) << c.name << " with " << what;
            EXPECT_TRUE(o.untouched()) << c.name << " with " << what << " wrote an out-parameter";
            EXPECT_LT(msSince(t0), 1000) << c.name << " must not wait";
            lookups += c.lookups;
        }
        return lookups;
    }
    size_t notFoundRecords(CAMERA_HANDLE h)
    {
        size_t n = 0;
        for (auto& r : trace_.find("ListFind(): item " + ptr(h) + " not found"))
            n += r.level == 'w';
        return n;
    }
    size_t listFindRecords()
    {
        size_t n = 0;
        for (auto& r : trace_.records())
            n += r.text.find("ListFind") != std::string::npos;
        return n;
    }
};

}  // namespace

TEST_F(Handles, NullIsRefusedWithoutNotFoundRecord)
{
    ASSERT_TRUE(trace_.ok());
    addReader(Model::T30);
    enumerate();
    ASSERT_EQ(camera_device_count(), 1u);
    runAll(nullptr, "NULL");
    EXPECT_EQ(listFindRecords(), 0u);
    // The registry is untouched.
    EXPECT_EQ(camera_device_count(), 1u);
}

TEST_F(Handles, ForeignPointerIsRefusedAndReported)
{
    ASSERT_TRUE(trace_.ok());
    addReader(Model::T30);
    enumerate();
    // Unmapped: any dereference would crash the test.
    CAMERA_HANDLE forged = reinterpret_cast<CAMERA_HANDLE>(uintptr_t(0x1000));
    int lookups = runAll(forged, "a forged pointer");
    EXPECT_EQ(notFoundRecords(forged), size_t(lookups));
    EXPECT_EQ(listFindRecords(), size_t(lookups));
}

TEST_F(Handles, DeletedRecordIsRefusedAndReported)
{
    ASSERT_TRUE(trace_.ok());
    auto& a = addReader(Model::T30);
    auto& b = addReader(Model::T10);
    enumerate();
    CAMERA_HANDLE ha = handleOf(a);
    ASSERT_NE(ha, nullptr);
    ASSERT_EQ(open(ha), 0);
    a.unplug();
    enumerate();
    ASSERT_EQ(camera_device_count(), 1u);
    ASSERT_EQ(handleOf(a), nullptr);
    // Freed memory: a dereference shows under the address sanitizer.
    int lookups = runAll(ha, "a deleted record");
    EXPECT_EQ(notFoundRecords(ha), size_t(lookups));
    // The other camera is not disturbed.
    EXPECT_EQ(camera_get_pid(handleOf(b)), b.productId());
}

// A known but closed camera: identity works, device access does not.
TEST_F(Handles, ClosedCameraAnswersIdentityOnly)
{
    auto& r = addReader(Model::T30);
    enumerate();
    CAMERA_HANDLE h = handleOf(r);
    ASSERT_NE(h, nullptr);
    Outs o;
    EXPECT_EQ(camera_get_vid(h), r.vendorId());
    EXPECT_EQ(camera_get_pid(h), r.productId());
    EXPECT_EQ(camera_start_capture(h, 0), CAMERA_ERR_NO_DEVICE);
    EXPECT_EQ(camera_stop_capture(h), CAMERA_ERR_NO_DEVICE);
    EXPECT_EQ(camera_get_image(h, 0, &o.frame), CAMERA_ERR_NO_DEVICE);
    EXPECT_EQ(camera_put_image(h, o.buffer), CAMERA_ERR_NO_DEVICE);
    EXPECT_EQ(camera_flush(h), CAMERA_ERR_NO_DEVICE);
    EXPECT_EQ(camera_xu_sensor_read(h, 1), CAMERA_ERR_NO_DEVICE);
    EXPECT_EQ(camera_xu_sensor_write(h, 1, 1), CAMERA_ERR_NO_DEVICE);
    EXPECT_EQ(camera_xu_get_finger(h), CAMERA_ERR_NO_DEVICE);
    EXPECT_EQ(camera_xu_set_finger(h, 1), CAMERA_ERR_NO_DEVICE);
    EXPECT_EQ(camera_xu_flash_read(h, 0, 8, o.buffer), CAMERA_ERR_NO_DEVICE);
    // Format and interval go to the video layer, which refuses a missing context.
    EXPECT_EQ(camera_set_format(h, &o.format), CAMERA_ERR_FAILURE);
    EXPECT_EQ(camera_get_frame_interval(h, &o.interval), CAMERA_ERR_FAILURE);
    EXPECT_EQ(camera_set_frame_interval(h, &o.interval), CAMERA_ERR_FAILURE);
    EXPECT_TRUE(o.untouched());
    // Nothing reached the device.
    EXPECT_TRUE(r.log().empty());
}
