// The registry's capacity: 1024 records.  A thousand simulated devices take
// a while to add and remove (from seconds to minutes, with the machine's
// load and the sanitizer), so this case has its own executable and limit.
#include "camera_test.h"

using namespace camtest;
using sim::Model;

namespace {

class RegistryFull : public CameraTest {
protected:
    RegistryFull() : CameraTest(550) {}
};

}  // namespace

// 1024 records fill the registry; one more reader is not registered until a
// record frees up.  Enumeration opens no device node, so umockdev's limit on
// open emulated descriptors does not apply.
TEST_F(RegistryFull, CapacityIs1024Records)
{
    std::vector<sim::Reader*> rs;
    for (unsigned i = 0; i < 1025; ++i) {
        sim::DeviceOptions o;
        o.busnum = 1 + i / 100;  // at most 100 devices per bus
        rs.push_back(&addReader(Model::T10, o));
    }
    enumerate();
    EXPECT_EQ(nodeFds(), 0u);
    ASSERT_EQ(camera_device_count(), 1024u);
    EXPECT_NE(camera_get_by_index(1023), nullptr);
    EXPECT_EQ(camera_get_by_index(1024), nullptr);

    // The one left out is the last in discovery order.
    auto order = expectedOrder(rs);
    ASSERT_EQ(order.size(), 1025u);
    auto names = registryNames();
    EXPECT_EQ(std::vector<std::string>(order.begin(), order.begin() + 1024), names);

    // Full registry, same readers: nothing changes.
    const auto before = registry();
    enumerate();
    EXPECT_EQ(registry(), before);

    // Unplug the reader at index 10: its record goes, the waiting one comes in.
    const std::string gone = names[10];
    for (auto* r : rs)
        if (r->cameraName() == gone)
            r->unplug();
    enumerate();
    ASSERT_EQ(camera_device_count(), 1024u);
    EXPECT_EQ(camera_get_by_index(10), before[1023]);
    EXPECT_STREQ(camera_get_filename(camera_get_by_index(1023)), order[1024].c_str());
}
