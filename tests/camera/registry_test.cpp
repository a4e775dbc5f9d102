// The camera registry: enumeration merge, handle stability, index access,
// capacity and the library lifecycle, through the shared library against
// simulated readers.
#include "camera_test.h"

#include <set>

using namespace camtest;
using sim::Model;

namespace {

class Registry : public CameraTest {};

// Registry tests that must run without the fixture's camera_init.
class RegistryNoInit : public sim::SimTest {};

}  // namespace

TEST_F(RegistryNoInit, EmptyBeforeEnumerationAndUnchangedWithoutInit)
{
    addReader(Model::T30);
    EXPECT_EQ(camera_device_count(), 0u);
    EXPECT_EQ(camera_get_by_index(0), nullptr);

    // Without camera_init the transport has no library handle: nothing changes.
    camera_device_enumerate(nullptr, 0);
    EXPECT_EQ(camera_device_count(), 0u);
    EXPECT_EQ(camera_get_by_index(0), nullptr);

    camera_init();
    EXPECT_EQ(camera_device_count(), 0u) << "init alone must not fill the registry";
    camera_device_enumerate(nullptr, 0);
    EXPECT_EQ(camera_device_count(), 1u);
    camera_cleanup();
}

TEST_F(RegistryNoInit, HandlesSurviveCleanupAndInit)
{
    auto& a = addReader(Model::T10);
    auto& b = addReader(Model::T30);
    camera_init();
    camera_device_enumerate(nullptr, 0);
    ASSERT_EQ(camera_device_count(), 2u);
    const auto before = registry();
    camera_cleanup();

    // The registry outlives the transport; its records still answer.
    EXPECT_EQ(registry(), before);
    CAMERA_HANDLE ha = handleOf(a);
    ASSERT_NE(ha, nullptr);
    EXPECT_EQ(camera_get_pid(ha), a.productId());

    // Enumerating while uninitialised changes nothing, even with a reader gone.
    b.unplug();
    camera_device_enumerate(nullptr, 0);
    EXPECT_EQ(registry(), before);

    camera_init();
    camera_device_enumerate(nullptr, 0);
    ASSERT_EQ(camera_device_count(), 1u);
    EXPECT_EQ(camera_get_by_index(0), ha) << "the surviving reader keeps its handle";
    camera_cleanup();
}

TEST_F(RegistryNoInit, InitIsCountedAndLastCleanupShutsDown)
{
    addReader(Model::T30);
    camera_init();
    camera_init();
    camera_cleanup();
    // Still initialised: enumeration works.
    camera_device_enumerate(nullptr, 0);
    EXPECT_EQ(camera_device_count(), 1u);

    camera_cleanup();
    // Shut down: a new reader is not picked up.
    addReader(Model::T20);
    camera_device_enumerate(nullptr, 0);
    EXPECT_EQ(camera_device_count(), 1u);

    // And a new init brings it back.
    camera_init();
    camera_device_enumerate(nullptr, 0);
    EXPECT_EQ(camera_device_count(), 2u);
    camera_cleanup();
}

TEST_F(Registry, ReadersAreListedInDiscoveryOrderAndKeepTheirHandles)
{
    std::vector<sim::Reader*> readers = {&addReader(Model::T10), &addReader(Model::T20),
                                         &addReader(Model::T30)};
    testbed().addUnsupported(0x046d, 0xc077);  // not a reader: never listed
    enumerate();
    ASSERT_EQ(camera_device_count(), 3u);
    EXPECT_EQ(registryNames(), expectedOrder(readers));

    const auto first = registry();
    enumerate();
    camera_device_enumerate(reinterpret_cast<void*>(0x1234), 77);  // arguments have no effect
    EXPECT_EQ(registry(), first) << "re-enumeration must neither create nor delete records";
    EXPECT_EQ(std::set<CAMERA_HANDLE>(first.begin(), first.end()).size(), 3u);
}

TEST_F(Registry, NewReadersAreAppendedAfterSurvivors)
{
    auto& a = addReader(Model::T30);
    enumerate();
    ASSERT_EQ(camera_device_count(), 1u);
    CAMERA_HANDLE ha = camera_get_by_index(0);

    std::vector<sim::Reader*> added = {&addReader(Model::T10), &addReader(Model::T20),
                                       &addReader(Model::T40)};
    enumerate();
    ASSERT_EQ(camera_device_count(), 4u);
    EXPECT_EQ(camera_get_by_index(0), ha);
    EXPECT_STREQ(camera_get_filename(ha), a.cameraName().c_str());
    auto names = registryNames();
    EXPECT_EQ(std::vector<std::string>(names.begin() + 1, names.end()), expectedOrder(added));
}

TEST_F(Registry, UnplugOfOpenReaderClosesItAndMovesTheLastRecord)
{
    auto& a = addReader(Model::T10);
    addReader(Model::T20);
    addReader(Model::T30);
    enumerate();
    ASSERT_EQ(camera_device_count(), 3u);
    const auto before = registry();

    // Open the reader at index 0.
    CAMERA_HANDLE h0 = before[0];
    sim::Reader* r0 = nullptr;
    for (auto* r : testbed().devices())
        if (r->cameraName() == camera_get_filename(h0))
            r0 = r;
    ASSERT_NE(r0, nullptr);
    ASSERT_EQ(open(h0), 0);
    EXPECT_EQ(nodeFds(), 1u);

    r0->unplug();
    enumerate();
    ASSERT_EQ(camera_device_count(), 2u);
    EXPECT_EQ(camera_get_by_index(0), before[2]) << "the last record takes the freed index";
    EXPECT_EQ(camera_get_by_index(1), before[1]);
    EXPECT_EQ(camera_get_by_index(2), nullptr);
    EXPECT_EQ(nodeFds(), 0u) << "the open reader's node must be closed";

    // The deleted record's handle is unknown now.
    EXPECT_EQ(camera_get_filename(h0), nullptr);
    EXPECT_EQ(camera_get_vid(h0), CAMERA_ERR_NO_DEVICE);
    EXPECT_EQ(camera_open(h0), CAMERA_ERR_NO_DEVICE);
    (void)a;
}

TEST_F(Registry, DeletionOfSeveralRecordsKeepsTheRestConsistent)
{
    std::vector<sim::Reader*> rs;
    for (int i = 0; i < 6; ++i)
        rs.push_back(&addReader(i % 2 ? Model::T10 : Model::T30));
    enumerate();
    ASSERT_EQ(camera_device_count(), 6u);
    const auto before = registry();

    // Remove the readers at registry indices 0, 3 and 5.
    std::set<std::string> gone;
    for (int idx : {0, 3, 5})
        gone.insert(camera_get_filename(before[idx]));
    for (auto* r : rs)
        if (gone.count(r->cameraName()))
            r->unplug();
    enumerate();

    // Walking down: 5 goes; 4 moves into 3; then 0 gets the record now last,
    // which is that same record from 4.
    std::vector<CAMERA_HANDLE> expected = {before[4], before[1], before[2]};
    EXPECT_EQ(registry(), expected);
    EXPECT_EQ(camera_get_by_index(3), nullptr);

    // Everything gone: the registry empties.
    for (auto* r : rs)
        if (r->plugged())
            r->unplug();
    enumerate();
    EXPECT_EQ(camera_device_count(), 0u);
    EXPECT_EQ(camera_get_by_index(0), nullptr);
}

TEST_F(Registry, ReplugGivesANewHandle)
{
    auto& a = addReader(Model::T30);
    enumerate();
    CAMERA_HANDLE old = handleOf(a);
    ASSERT_NE(old, nullptr);
    a.unplug();
    auto& b = addReader(Model::T30);  // same model, new device number
    ASSERT_NE(a.cameraName(), b.cameraName());
    enumerate();
    ASSERT_EQ(camera_device_count(), 1u);
    CAMERA_HANDLE now = camera_get_by_index(0);
    EXPECT_STREQ(camera_get_filename(now), b.cameraName().c_str());
    // The handle is the record's address: the allocator may hand the freed
    // record's memory to the new one.  When it does not, the old handle is dead.
    if (now != old) {
        EXPECT_EQ(camera_get_pid(old), CAMERA_ERR_NO_DEVICE);
    }
}

TEST_F(Registry, IndexOutOfRangeAndVidPidLookupGiveNull)
{
    auto& a = addReader(Model::T30);
    addReader(Model::T10);
    enumerate();
    ASSERT_EQ(camera_device_count(), 2u);
    EXPECT_NE(camera_get_by_index(1), nullptr);
    EXPECT_EQ(camera_get_by_index(2), nullptr);
    EXPECT_EQ(camera_get_by_index(1024), nullptr);
    EXPECT_EQ(camera_get_by_index(0x80000000u), nullptr);
    EXPECT_EQ(camera_get_by_index(0xFFFFFFFFu), nullptr);
    // Not offered, even for an attached reader's ids.
    EXPECT_EQ(camera_get_by_vid_pid(a.vendorId(), a.productId()), nullptr);
    EXPECT_EQ(camera_get_by_vid_pid(0, 0), nullptr);
}

TEST_F(Registry, IdentityComesFromTheEnumerationThatCreatedTheRecord)
{
    sim::DeviceOptions o;
    o.manufacturer = std::string("Maker One");
    o.product = std::string("Reader X");
    o.serial = std::string("SN-0042");
    o.bcdDevice = 0x8123;  // above 0x7fff: must come back positive
    auto& a = addReader(Model::T20, o);
    sim::DeviceOptions p;
    p.serial = std::nullopt;  // no serial file
    p.product = std::nullopt; // no product file: the model name stands in
    auto& b = addReader(Model::T10, p);
    enumerate();
    CAMERA_HANDLE ha = handleOf(a), hb = handleOf(b);
    ASSERT_NE(ha, nullptr);
    ASSERT_NE(hb, nullptr);

    // Closed cameras answer every identity query.
    EXPECT_EQ(camera_get_vid(ha), 0x3A5C);
    EXPECT_EQ(camera_get_pid(ha), a.productId());
    EXPECT_EQ(camera_get_revision(ha), 0x8123);
    EXPECT_STREQ(camera_get_manufacturer_name(ha), "Maker One");
    EXPECT_STREQ(camera_get_product_name(ha), "Reader X");
    EXPECT_STREQ(camera_get_serialnumber(ha), "SN-0042");
    EXPECT_STREQ(camera_get_filename(ha), a.cameraName().c_str());
    char expectedName[64];
    snprintf(expectedName, sizeof expectedName, "3a5c_%04x_8123_%03u_%s", a.productId(), a.busnum(),
             a.sysfsName().c_str());
    EXPECT_STREQ(camera_get_filename(ha), expectedName);

    ASSERT_NE(camera_get_serialnumber(hb), nullptr) << "a missing serial is empty, not NULL";
    EXPECT_STREQ(camera_get_serialnumber(hb), "");
    EXPECT_STREQ(camera_get_product_name(hb), sim::modelInfo(Model::T10).name);
    EXPECT_EQ(camera_get_revision(hb), 0x0100);

    // Strings point into the record: stable across calls and enumerations.
    const char* s1 = camera_get_serialnumber(ha);
    enumerate();
    EXPECT_EQ(camera_get_serialnumber(ha), s1);
}
