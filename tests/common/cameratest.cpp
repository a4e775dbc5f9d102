// The camera-level fixture: in its own object, so that tests without the
// shared library can link the helpers.
#include "simtest.h"

namespace sim {

void CameraTest::TearDown() {
    for (CAMERA_HANDLE h : opened_) camera_close(h);  // harmless on a closed or deleted camera
    if (inited_) camera_cleanup();
    SimTest::TearDown();
}
void CameraTest::init() {
    if (inited_) return;
    camera_init();
    inited_ = true;
    fds1_ = fileFdCount();
    threads1_ = threadCount();
}
void CameraTest::enumerate() {
    init();
    camera_device_enumerate(nullptr, 0);
}
int32_t CameraTest::open(CAMERA_HANDLE h) {
    int32_t r = camera_open(h);
    if (r == 0) opened_.push_back(h);
    return r;
}
CAMERA_HANDLE CameraTest::openReader(const Reader& r) {
    enumerate();
    CAMERA_HANDLE h = handleOf(r);
    EXPECT_NE(h, nullptr) << r.cameraName();
    EXPECT_EQ(open(h), 0);
    return h;
}
std::vector<CAMERA_HANDLE> registry() {
    std::vector<CAMERA_HANDLE> v;
    for (uint32_t i = 0, n = camera_device_count(); i < n; ++i) v.push_back(camera_get_by_index(i));
    return v;
}
CAMERA_HANDLE handleOf(const Reader& r) {
    for (CAMERA_HANDLE h : registry()) {
        const char* name = camera_get_filename(h);
        if (name != nullptr && r.cameraName() == name) return h;
    }
    return nullptr;
}
void CameraTest::expectNothingLeft(const std::string& where) {
    EXPECT_EQ(settled(threadCount, threads1_), threads1_) << where << ": a thread was left running";
    EXPECT_EQ(nodeFdCount(), 0u) << where << ":\n" << fdList();
    EXPECT_EQ(settled(fileFdCount, fds1_), fds1_) << where << ": descriptors left open:\n" << fdList();
}

}  // namespace sim
