// Test helpers: fd and thread counts, watchdog, fixture.
#include "simtest.h"

#include <dirent.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

namespace sim {

namespace {
std::vector<std::string> dirEntries(const char* path) {
    std::vector<std::string> v;
    DIR* d = opendir(path);
    if (!d) return v;
    while (dirent* e = readdir(d))
        if (strcmp(e->d_name, ".") && strcmp(e->d_name, "..")) v.push_back(e->d_name);
    closedir(d);
    return v;
}
}  // namespace

std::vector<std::string> openFds() {
    std::vector<std::string> r;
    // Read the names first: the directory's own fd is one of the entries.
    DIR* d = opendir("/proc/self/fd");
    if (!d) return r;
    const int self = dirfd(d);
    std::vector<int> fds;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        const int fd = atoi(e->d_name);
        if (fd != self) fds.push_back(fd);
    }
    closedir(d);
    for (int fd : fds) {
        char link[64], target[4096];
        snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
        ssize_t n = readlink(link, target, sizeof target - 1);
        target[n > 0 ? n : 0] = 0;
        r.push_back(std::to_string(fd) + " -> " + target);
    }
    return r;
}

size_t openFdCount() { return openFds().size(); }
size_t threadCount() { return dirEntries("/proc/self/task").size(); }

struct Watchdog::Impl {
    std::mutex m;
    std::condition_variable cv;
    bool armed = true;
    std::thread t;
};

Watchdog::Watchdog(unsigned seconds, std::string what) : impl_(std::make_unique<Impl>()) {
    Impl* I = impl_.get();
    I->t = std::thread([I, seconds, what] {
        std::unique_lock<std::mutex> l(I->m);
        if (!I->cv.wait_for(l, std::chrono::seconds(seconds), [&] { return !I->armed; })) {
            fprintf(stderr, "\nsim watchdog: %s did not finish within %u s; aborting (a URB or ioctl that never "
                            "completes, or a deadlock)\n", what.c_str(), seconds);
            fflush(stderr);
            abort();
        }
    });
}
void Watchdog::disarm() {
    {
        std::lock_guard<std::mutex> g(impl_->m);
        impl_->armed = false;
    }
    impl_->cv.notify_all();
    if (impl_->t.joinable()) impl_->t.join();
}
Watchdog::~Watchdog() { disarm(); }

SimTest::SimTest(unsigned watchdogSeconds) : watchdogSeconds_(watchdogSeconds) {}
SimTest::~SimTest() = default;

void SimTest::SetUp() {
    prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
    if (!underUmockdevPreload()) {
        GTEST_FAIL() << "this test must run under umockdev's preload (umockdev-wrapper); LD_PRELOAD does not "
                        "name libumockdev-preload";
    }
    const auto* ti = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = ti ? std::string(ti->test_suite_name()) + "." + ti->name() : "test";
    watchdog_ = std::make_unique<Watchdog>(watchdogSeconds_, name);
    tb_ = std::make_unique<Testbed>();
    fds0_ = openFdCount();
    threads0_ = threadCount();
}

void SimTest::TearDown() {
    tb_.reset();
    if (watchdog_) watchdog_->disarm();
    watchdog_.reset();
}

}  // namespace sim
