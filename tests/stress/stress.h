// Counts of the fault and load cases: short in CI, raised by soak.sh
// (ZTUVC_STRESS_ROUNDS, ZTUVC_STRESS_FRAMES); ZTUVC_STRESS_SEED replays a run.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include "simtest.h"

namespace stress {

inline unsigned env(const char* name, unsigned fallback) {
    const char* s = getenv(name);
    unsigned long v = s != nullptr ? strtoul(s, nullptr, 10) : 0;
    return v > 0 ? unsigned(v) : fallback;
}
inline unsigned rounds(unsigned ci) { return env("ZTUVC_STRESS_ROUNDS", ci); }
inline unsigned frames(unsigned ci) { return env("ZTUVC_STRESS_FRAMES", ci); }
inline unsigned watchdog(unsigned base) {
    return base + 30 * env("ZTUVC_STRESS_ROUNDS", 0) + env("ZTUVC_STRESS_FRAMES", 0);
}
// A fresh seed unless one is given, printed so that a failure can be replayed.
inline uint32_t seed() {
    uint32_t s = env("ZTUVC_STRESS_SEED", std::random_device{}() | 1u);
    std::printf("[ stress ] ZTUVC_STRESS_SEED=%u\n", s);
    ::testing::Test::RecordProperty("seed", std::to_string(s));
    return s;
}

}  // namespace stress
