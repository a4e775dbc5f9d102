// The registry holds 1024 records. A thousand simulated devices take a while
// to add (longer under a sanitizer): own executable and time limit.
#include "simtest.h"

class RegistryFull : public sim::CameraTest {
protected:
    RegistryFull() : sim::CameraTest(550) {}
};

TEST_F(RegistryFull, CapacityIs1024Records)
{
    std::vector<sim::Reader*> rs;
    for (unsigned i = 0; i < 1025; ++i) {
        sim::DeviceOptions o;
        o.busnum = 1 + i / 100;  // at most 100 devices per bus
        rs.push_back(&addReader(sim::Model::T10, o));
    }
    enumerate();
    EXPECT_EQ(sim::nodeFdCount(), 0u) << "enumeration opens no node";
    ASSERT_EQ(camera_device_count(), 1024u);
    EXPECT_EQ(camera_get_by_index(1024), nullptr);
    const auto before = sim::registry();
    sim::Reader* left = rs[0];  // the one not registered
    for (auto* r : rs) left = sim::handleOf(*r) == nullptr ? r : left;
    for (auto* r : rs)
        if (r->cameraName() == camera_get_filename(before[10])) r->unplug();
    enumerate();  // index 10 freed: the last record moves in, the waiting reader comes last
    ASSERT_EQ(camera_device_count(), 1024u);
    EXPECT_EQ(camera_get_by_index(10), before[1023]);
    EXPECT_STREQ(camera_get_filename(camera_get_by_index(1023)), left->cameraName().c_str());
}
