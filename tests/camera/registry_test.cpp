// The registry, handle validation, the library lifecycle and open/close,
// through the shared library against simulated readers.
#include "simtest.h"

#include <array>
#include <functional>
#include <set>

using sim::Model;

namespace {

class Registry : public sim::CameraTest {};
class Lifecycle : public sim::SimTest {};  // without the fixture's camera_init

TEST_F(Lifecycle, InitIsCountedAndTheRegistryOutlivesCleanup)
{
    auto& a = addReader(Model::T10);
    auto& b = addReader(Model::T30);
    camera_device_enumerate(nullptr, 0);  // no init: no transport, nothing found
    EXPECT_EQ(camera_device_count(), 0u);
    camera_init();
    camera_init();
    EXPECT_EQ(camera_device_count(), 0u) << "init alone must not fill the registry";
    camera_cleanup();
    camera_device_enumerate(nullptr, 0);  // still initialised once
    ASSERT_EQ(camera_device_count(), 2u);
    CAMERA_HANDLE ha = sim::handleOf(a);
    camera_cleanup();
    // Shut down: records still answer, enumeration changes nothing.
    b.unplug();
    camera_device_enumerate(nullptr, 0);
    EXPECT_EQ(camera_device_count(), 2u);
    EXPECT_EQ(camera_get_pid(ha), a.productId());
    camera_init();
    camera_device_enumerate(nullptr, 0);
    EXPECT_EQ(camera_device_count(), 1u);
    EXPECT_EQ(camera_get_by_index(0), ha) << "the survivor keeps its handle and index";
    camera_cleanup();
}

// Order of discovery, survivors first, the last record into a freed index,
// and the open camera of a vanished reader closed.
TEST_F(Registry, EnumerationMergesAndDeletes)
{
    std::vector<sim::Reader*> rs;
    for (int i = 0; i < 5; ++i) rs.push_back(&addReader(i % 2 ? Model::T10 : Model::T30));
    testbed().addUnsupported(0x046d, 0xc077);  // never listed
    enumerate();
    ASSERT_EQ(camera_device_count(), 5u);
    const auto before = sim::registry();
    camera_device_enumerate(reinterpret_cast<void*>(0x1234), 77);  // arguments have no effect
    EXPECT_EQ(sim::registry(), before);
    EXPECT_EQ(std::set<CAMERA_HANDLE>(before.begin(), before.end()).size(), 5u);
    EXPECT_TRUE(camera_get_by_index(5) == nullptr && camera_get_by_index(0xFFFFFFFFu) == nullptr);
    EXPECT_EQ(camera_get_by_vid_pid(sim::kVendorId, rs[0]->productId()), nullptr);  // not offered

    // Open the readers at indices 0 and 4 (the last: its lookup must work),
    // then unplug 0 and 3.
    ASSERT_EQ(open(before[0]), 0);
    ASSERT_EQ(open(before[4]), 0);
    for (auto* r : rs)
        if (r->cameraName() == camera_get_filename(before[0]) || r->cameraName() == camera_get_filename(before[3])) r->unplug();
    enumerate();
    // Walking down: 3 goes, 4 moves in; then 0 gets the record now last (4's).
    EXPECT_EQ(sim::registry(), (std::vector<CAMERA_HANDLE>{before[4], before[1], before[2]}));
    EXPECT_EQ(sim::nodeFdCount(), 1u) << "the vanished reader's node must be closed";
    EXPECT_GE(camera_xu_sensor_read(before[4], 0), 0) << "moved, still open";
    // Dead handles, checked before a new record may reuse their memory.
    EXPECT_TRUE(camera_get_filename(before[0]) == nullptr && camera_open(before[3]) == CAMERA_ERR_NO_DEVICE);
    auto& added = addReader(Model::T40);
    enumerate();
    EXPECT_EQ(sim::registry(), (std::vector<CAMERA_HANDLE>{before[4], before[1], before[2], sim::handleOf(added)}));
    for (auto* r : testbed().devices())
        if (r->plugged()) r->unplug();
    enumerate();
    EXPECT_EQ(camera_device_count(), 0u);
    EXPECT_EQ(sim::nodeFdCount(), 0u);
}

TEST_F(Registry, IdentityComesFromTheFirstEnumeration)
{
    sim::DeviceOptions o;
    o.manufacturer = std::string("Maker One");
    o.product = std::string("Reader X");
    o.serial = std::string("SN-0042");
    o.bcdDevice = 0x8123;  // above 0x7fff: must come back positive
    auto& a = addReader(Model::T20, o);
    sim::DeviceOptions p;
    p.serial = std::nullopt;   // empty, not NULL
    p.product = std::nullopt;  // the model name stands in
    auto& b = addReader(Model::T10, p);
    enumerate();
    CAMERA_HANDLE ha = sim::handleOf(a), hb = sim::handleOf(b);
    ASSERT_NE(ha, nullptr);
    ASSERT_NE(hb, nullptr);
    EXPECT_EQ(camera_get_revision(ha), 0x8123);
    EXPECT_STREQ(camera_get_manufacturer_name(ha), "Maker One");
    EXPECT_STREQ(camera_get_product_name(ha), "Reader X");
    EXPECT_STREQ(camera_get_serialnumber(ha), "SN-0042");
    char name[64];
    snprintf(name, sizeof name, "3a5c_000c_8123_%03u_%s", a.busnum(), a.sysfsName().c_str());
    EXPECT_STREQ(camera_get_filename(ha), name);
    EXPECT_STREQ(camera_get_serialnumber(hb), "");
    EXPECT_STREQ(camera_get_product_name(hb), sim::modelInfo(Model::T10).name);
    const char* s1 = camera_get_serialnumber(ha);
    enumerate();
    EXPECT_EQ(camera_get_serialnumber(ha), s1) << "strings point into the record";
}

// Every handle-checking call refuses NULL, a forged pointer and a deleted
// record with its code, writes no out-parameter and sends nothing; a closed
// camera answers identity only.
TEST_F(Registry, ForeignAndClosedHandlesAreRefused)
{
    struct Outs {
        void* frame = reinterpret_cast<void*>(0x77);
        std::array<uint8_t, 64> bytes;
        Outs() { bytes.fill(0xA5); }
        bool untouched() const { return frame == reinterpret_cast<void*>(0x77) && bytes == Outs().bytes; }
    };
    auto fmt = [](Outs& o) { return reinterpret_cast<CAMERA_FORMAT*>(o.bytes.data()); };
    auto u32 = [](Outs& o) { return reinterpret_cast<uint32_t*>(o.bytes.data()); };
    using Fn = std::function<long(CAMERA_HANDLE, Outs&)>;
    const long ND = CAMERA_ERR_NO_DEVICE, F = CAMERA_ERR_FAILURE;
    // name, call, result for an unknown handle, for a closed camera (sums of like calls)
    const std::vector<std::tuple<const char*, Fn, long, long>> calls = {
        {"open", [](CAMERA_HANDLE h, Outs&) { return long(camera_open(h)); }, ND, 0},
        {"ids", [](CAMERA_HANDLE h, Outs&) { return long(camera_get_vid(h) + camera_get_pid(h) + camera_get_revision(h)); },
         3 * ND, 0x3A5C + 0x000D + 0x0100},
        {"strings", [](CAMERA_HANDLE h, Outs&) {
             return long(!!camera_get_filename(h) + !!camera_get_product_name(h) + !!camera_get_manufacturer_name(h) +
                         !!camera_get_serialnumber(h)); }, 0, 4},
        {"start/stop/flush", [](CAMERA_HANDLE h, Outs&) {
             return long(camera_start_capture(h, 0) + camera_stop_capture(h) + camera_flush(h)); }, 3 * ND, 3 * ND},
        {"get", [](CAMERA_HANDLE h, Outs& o) { return long(camera_get_image(h, 0, &o.frame)); }, ND, ND},
        {"put", [](CAMERA_HANDLE h, Outs& o) { return long(camera_put_image(h, o.bytes.data())); }, ND, ND},
        {"set_format", [=](CAMERA_HANDLE h, Outs& o) { return long(camera_set_format(h, fmt(o))); }, ND, F},
        {"get_format", [=](CAMERA_HANDLE h, Outs& o) { return long(camera_get_format(h, fmt(o))); }, F, F},
        {"get_ival", [=](CAMERA_HANDLE h, Outs& o) { return long(camera_get_frame_interval(h, u32(o))); }, ND, F},
        {"set_ival", [=](CAMERA_HANDLE h, Outs& o) { return long(camera_set_frame_interval(h, u32(o))); }, ND, F},
        {"set_ival0", [](CAMERA_HANDLE h, Outs&) { return long(camera_set_frame_interval(h, nullptr)); }, F, F},
        {"registers", [](CAMERA_HANDLE h, Outs&) {
             return long(camera_xu_sensor_read(h, 0x12) + camera_xu_sensor_write(h, 0x12, 1) + camera_xu_get_finger(h) +
                         camera_xu_set_finger(h, 1)); }, 4 * ND, 4 * ND},
        {"flash", [](CAMERA_HANDLE h, Outs& o) { return long(camera_xu_flash_read(h, 0, 16, o.bytes.data())); }, ND, ND},
    };
    auto& r = addReader(Model::T30);
    auto& gone = addReader(Model::T10);
    enumerate();
    CAMERA_HANDLE h = sim::handleOf(r), deleted = sim::handleOf(gone);
    ASSERT_EQ(open(deleted), 0);
    gone.unplug();
    enumerate();
    ASSERT_EQ(camera_device_count(), 1u);
    r.clearLog();
    const CAMERA_HANDLE forged = reinterpret_cast<CAMERA_HANDLE>(uintptr_t(0x1000));  // unmapped
    for (CAMERA_HANDLE bad : {CAMERA_HANDLE(nullptr), forged, deleted})
        for (auto& [name, fn, refused, closed] : calls) {
            Outs o;
            EXPECT_EQ(fn(bad, o), refused) << name << " with " << bad;
            EXPECT_TRUE(o.untouched()) << name << " wrote an out-parameter";
        }
    for (auto& [name, fn, refused, closed] : calls) {
        Outs o;
        if (std::string(name) != "open") {
            EXPECT_EQ(fn(h, o), closed) << name << " on a closed camera";
        }
        EXPECT_TRUE(o.untouched()) << name;
    }
    EXPECT_TRUE(r.log().empty()) << "nothing may reach the reader";
}

TEST_F(Registry, OpenCloseAndReadersHeldElsewhere)
{
    auto& a = addReader(Model::T10);
    auto& b = addReader(Model::T30);
    enumerate();
    CAMERA_HANDLE ha = sim::handleOf(a), hb = sim::handleOf(b);
    camera_close(ha);  // never opened: harmless
    EXPECT_TRUE(a.log().empty());
    ASSERT_EQ(open(ha), 0);
    const size_t resets = a.resetCount();
    EXPECT_EQ(camera_open(ha), CAMERA_ERR_FAILURE) << "already open";
    EXPECT_EQ(a.resetCount(), resets);
    EXPECT_EQ(sim::nodeFdCount(), 1u);
    EXPECT_FALSE(testbed().holdLock(a).held()) << "an open camera holds the node's lock";
    {
        sim::LockHolder other = testbed().holdLockInChild(b);
        ASSERT_TRUE(other.held());
        EXPECT_EQ(camera_open(hb), CAMERA_ERR_NO_DEVICE);
        EXPECT_EQ(camera_xu_sensor_read(hb, 0), CAMERA_ERR_NO_DEVICE) << "stays closed";
    }
    ASSERT_EQ(open(hb), 0);
    a.setReg(0x0100, 0x11);
    b.setReg(0x0100, 0x22);
    EXPECT_EQ(camera_xu_sensor_read(ha, 0x0100), 0x11);
    EXPECT_EQ(camera_xu_sensor_read(hb, 0x0100), 0x22);
    camera_close(ha);
    EXPECT_EQ(camera_xu_sensor_read(ha, 0x0100), CAMERA_ERR_NO_DEVICE);
    EXPECT_TRUE(testbed().holdLock(a).held()) << "close must drop the lock";
    EXPECT_EQ(sim::nodeFdCount(), 1u);
    EXPECT_EQ(open(ha), 0) << "reopen after close";

    // Unplugged before the next enumeration: open fails, the record stays.
    camera_close(hb);
    b.unplug();
    EXPECT_EQ(camera_open(hb), CAMERA_ERR_NO_DEVICE);
    EXPECT_EQ(camera_get_pid(hb), 0x000D);
    EXPECT_EQ(sim::nodeFdCount(), 1u);
}

}  // namespace
