// Test helpers: descriptor and thread counts, frame checks, watchdog, fixtures.
#include "simtest.h"

#include <dirent.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

namespace sim {

std::vector<std::string> openFds() {
    std::vector<std::string> r;
    for (int fd = 0; fd < 1024; fd++) {
        char link[64], target[4096];
        snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
        ssize_t n = readlink(link, target, sizeof target - 1);
        if (n <= 0) continue;
        target[n] = 0;
        r.push_back(std::to_string(fd) + " -> " + target);
    }
    return r;
}

static size_t countFds(const char* needle, bool with) {
    size_t n = 0;
    for (auto& f : openFds()) n += (f.find(needle) != std::string::npos) == with;
    return n;
}
size_t openFdCount() { return openFds().size(); }
size_t nodeFdCount() { return countFds("bus/usb/", true); }
size_t fileFdCount() { return countFds("socket:", false); }
std::string fdList() {
    std::string s;
    for (auto& f : openFds()) s += "  " + f + "\n";
    return s;
}

size_t threadCount() {
    size_t n = 0;
    DIR* d = opendir("/proc/self/task");
    while (d != nullptr && readdir(d) != nullptr) n++;
    if (d != nullptr) closedir(d);
    return n - 2;  // "." and ".."
}

size_t settled(const std::function<size_t()>& count, size_t expected) {
    size_t n = count();
    for (int i = 0; i < 100 && n != expected; i++) {
        usleep(20000);
        n = count();
    }
    return n;
}

uint32_t checkFrame(const void* frame, const Reader& r, const std::string& where) {
    EXPECT_NE(frame, nullptr) << where;
    if (frame == nullptr) return UINT32_MAX;
    auto* p = static_cast<const uint8_t*>(frame);
    const uint32_t n = frameNumberOf(p), size = r.info().imageSize();
    EXPECT_EQ(firstPatternMismatch(p, size, n), -1) << where << ": frame " << n << " of " << r.sysfsName();
    CAMERA_TIME_STAMP ts;
    memcpy(&ts, p + size, sizeof ts);
    EXPECT_EQ(std::string(ts.szSignature, 4), "TmSt") << where;
    EXPECT_LE(ts.dwFrameStart, ts.dwFrameReturned) << where;
    return n;
}

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
