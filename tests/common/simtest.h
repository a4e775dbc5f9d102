// Test-side helpers around the simulated readers: the gtest fixtures that own
// the testbed (and the library's init for camera-level cases), a watchdog
// against handlers that never complete, frame checks and leak counts.
#pragma once

#include "simreader.h"
#include "ztuvc.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace sim {

// "fd -> target" for every descriptor, by readlink alone: listing
// /proc/self/fd opens one itself, which races (falsely, under TSan) with
// umockdev's worker reusing descriptor numbers.
std::vector<std::string> openFds();
size_t openFdCount();
size_t threadCount();                   // entries of /proc/self/task
// Descriptors open on a usbfs node: a leak by the library shows up here.
// Sockets come and go with umockdev's emulated opens and are not counted.
size_t nodeFdCount();
size_t fileFdCount();                   // every descriptor but sockets
// `count()` once it equals `expected`, or after 2 s: umockdev tidies its side
// of a closed node a moment after close() returns, while a leak stays.
size_t settled(const std::function<size_t()>& count, size_t expected);
std::string fdList();

// A frame as the application sees it: the pattern of the frame number it
// carries, then the "TmSt" trailer. Returns the frame number.
uint32_t checkFrame(const void* frame, const Reader& r, const std::string& where = "");

// Aborts the process with a message naming `what` unless disarmed within
// `seconds` (a handler that never completes would hang the test forever).
class Watchdog {
public:
    Watchdog(unsigned seconds, std::string what);
    ~Watchdog();
    void disarm();
private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// gtest fixture base: testbed, watchdog, timer slack, preload check.
class SimTest : public ::testing::Test {
protected:
    explicit SimTest(unsigned watchdogSeconds = 60);
    ~SimTest() override;
    void SetUp() override;
    void TearDown() override;

    Testbed& testbed() { return *tb_; }
    Reader& addReader(Model m = Model::T30) { return tb_->addReader(m); }
    Reader& addReader(Model m, DeviceOptions opt) { return tb_->addReader(m, std::move(opt)); }

    size_t fdsAtStart() const { return fds0_; }
    size_t threadsAtStart() const { return threads0_; }

private:
    unsigned watchdogSeconds_;
    std::unique_ptr<Testbed> tb_;
    std::unique_ptr<Watchdog> watchdog_;
    size_t fds0_ = 0, threads0_ = 0;
};

CAMERA_HANDLE handleOf(const Reader& r);   // by camera name, or null
std::vector<CAMERA_HANDLE> registry();     // in registry order

// The exported interface on simulated readers. init() after the first reader
// is plugged (the transport finds the usbfs root once, at its first init);
// TearDown closes what the case opened and undoes init().
class CameraTest : public SimTest {
protected:
    using SimTest::SimTest;
    void TearDown() override;
    void init();
    void enumerate();                         // init() and one enumeration
    int32_t open(CAMERA_HANDLE h);            // closed again by TearDown
    CAMERA_HANDLE openReader(const Reader& r);  // enumerate, find, open
    // After init: what a finished case must be back to.
    size_t idleFds() const { return fds1_; }
    size_t idleThreads() const { return threads1_; }
    void expectNothingLeft(const std::string& where);

    std::vector<CAMERA_HANDLE> opened_;
    bool inited_ = false;
    size_t fds1_ = 0, threads1_ = 0;
};

}  // namespace sim
