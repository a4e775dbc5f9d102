// Shared bits of the fault and load tests: how long to run (CI keeps it
// short, tests/stress/soak.sh raises the counts), a reproducible random
// source, and frame checks.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>
#include <unistd.h>

#include "simtest.h"
#include "ztuvc.h"

namespace stress {

// Integer from the environment, or `fallback` when unset or not a number.
inline unsigned envCount(const char* name, unsigned fallback)
{
    const char* s = getenv(name);
    if (s == nullptr || *s == '\0')
        return fallback;
    char* end = nullptr;
    unsigned long v = strtoul(s, &end, 10);
    return (end != nullptr && *end == '\0' && v > 0) ? unsigned(v) : fallback;
}

// Rounds of a fault case (ZTUVC_STRESS_ROUNDS) and frames per reader of a
// load case (ZTUVC_STRESS_FRAMES).
inline unsigned rounds(unsigned ci) { return envCount("ZTUVC_STRESS_ROUNDS", ci); }
inline unsigned frames(unsigned ci) { return envCount("ZTUVC_STRESS_FRAMES", ci); }

// Watchdog of a case: `base` seconds for the CI counts, more for long runs.
inline unsigned watchdog(unsigned base)
{
    return base + 30 * envCount("ZTUVC_STRESS_ROUNDS", 0) + envCount("ZTUVC_STRESS_FRAMES", 0);
}

// ZTUVC_STRESS_SEED repeats a run; otherwise a fresh seed, printed so that a
// failure can be replayed.
inline uint32_t seed()
{
    uint32_t s = envCount("ZTUVC_STRESS_SEED", 0);
    if (s == 0)
        s = std::random_device{}() | 1u;
    std::printf("[ stress ] ZTUVC_STRESS_SEED=%u\n", s);
    ::testing::Test::RecordProperty("seed", std::to_string(s));
    return s;
}

// A frame as the application sees it: the pattern of the frame number it
// carries, then the "TmSt" trailer. Returns the frame number.
inline uint32_t checkFrame(const void* pFrame, const sim::Reader& r, const char* where)
{
    EXPECT_NE(pFrame, nullptr) << where;
    if (pFrame == nullptr)
        return UINT32_MAX;
    auto* p = static_cast<const uint8_t*>(pFrame);
    const uint32_t n = sim::frameNumberOf(p);
    const uint32_t size = r.info().imageSize();
    EXPECT_EQ(sim::firstPatternMismatch(p, size, n), -1) << where << ": frame " << n << " of " << r.sysfsName();
    CAMERA_TIME_STAMP ts;
    memcpy(&ts, p + size, sizeof(ts));
    EXPECT_EQ(std::string(ts.szSignature, 4), "TmSt") << where;
    EXPECT_LE(ts.dwFrameStart, ts.dwFrameReturned) << where;
    return n;
}

// The descriptors of this process as "fd -> target", found by readlink alone:
// listing /proc/self/fd would open a descriptor itself, and under TSan that
// races (falsely) with umockdev's worker thread reusing descriptor numbers.
inline std::vector<std::string> fdTargets()
{
    std::vector<std::string> r;
    for (int fd = 0; fd < 1024; fd++) {
        char link[64], target[4096];
        snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
        ssize_t n = readlink(link, target, sizeof target - 1);
        if (n <= 0)
            continue;
        target[n] = 0;
        r.push_back(std::to_string(fd) + " -> " + target);
    }
    return r;
}

// Descriptors without the sockets: the simulator opens one per simulated
// device node (its ioctl server) and umockdev one per emulated open; those
// are theirs.  A descriptor the library leaks on a node shows up as the
// node's path.
inline size_t fdCount()
{
    size_t n = 0;
    for (const std::string& f : fdTargets())
        n += f.find("socket:") == std::string::npos;
    return n;
}

// The count once it equals `expected`, or after 2 s: umockdev tidies its own
// side of a closed emulated node a moment after close() returns, while a
// leak stays.
inline size_t settledFdCount(size_t expected)
{
    size_t n = fdCount();
    for (int i = 0; i < 100 && n != expected; i++) {
        usleep(20000);
        n = fdCount();
    }
    return n;
}

inline size_t settledThreadCount(size_t expected)
{
    size_t n = sim::threadCount();
    for (int i = 0; i < 100 && n != expected; i++) {
        usleep(20000);
        n = sim::threadCount();
    }
    return n;
}

inline size_t nodeFdCount()
{
    size_t n = 0;
    for (const std::string& f : fdTargets())
        n += f.find("bus/usb/") != std::string::npos;
    return n;
}

inline std::string fdList()
{
    std::string s;
    for (const std::string& f : fdTargets())
        s += "  " + f + "\n";
    return s;
}

}  // namespace stress
