// Test-side helpers around the simulated readers: the gtest fixture that
// owns the testbed, a watchdog against handlers that never complete, and
// descriptor and thread counts for leak checks.
#pragma once

#include "simreader.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace sim {

size_t openFdCount();                   // entries of /proc/self/fd
size_t threadCount();                   // entries of /proc/self/task
std::vector<std::string> openFds();     // readlink of every /proc/self/fd entry

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

}  // namespace sim
