/*
 * Platform services: sleep across signals and the clock, recursive local
 * mutexes, threads.
 */
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <sys/time.h>
#include <thread>

#include "lnx/platform/fpplat.h"

TEST(Platform, SleepLastsTheRequestWhileSignalsArriveAndTheClockKeepsMilliseconds)
{
    static std::atomic<int> signals{0};
    struct sigaction sa = {};
    sa.sa_handler = [](int) { signals++; }; /* no SA_RESTART: the sleep is interrupted */
    ASSERT_EQ(0, sigaction(SIGALRM, &sa, nullptr));
    struct itimerval every20ms = {{0, 20000}, {0, 20000}}, off = {};
    ASSERT_EQ(0, setitimer(ITIMER_REAL, &every20ms, nullptr));
    const auto t0 = std::chrono::steady_clock::now();
    const uint32_t c0 = FPPltGetTime();
    FPPltSleep(0), FPPltSleep(1250);
    const uint32_t clock = FPPltGetTime() - c0;
    const auto elapsed = std::chrono::steady_clock::now() - t0;
    setitimer(ITIMER_REAL, &off, nullptr);
    signal(SIGALRM, SIG_DFL);
    EXPECT_GE(elapsed, std::chrono::milliseconds(1250));
    EXPECT_GT(signals.load(), 5); /* it really was interrupted */
    EXPECT_GE(clock, 1249u);
    EXPECT_LT(clock, 60000u) << "the clock counts milliseconds";
}

TEST(Platform, RecursiveLocalMutexAndThreads)
{
    FPPLT_LOCAL_MUTEX m;
    ASSERT_EQ(0, FPPltLocalMutexCreate(&m));
    FPPltLocalMutexLock(&m);
    EXPECT_EQ(1, FPPltLocalMutexTryLock(&m));
    int other = -1;
    std::thread([&] { other = FPPltLocalMutexTryLock(&m); }).join();
    EXPECT_EQ(0, other);
    FPPltLocalMutexUnlock(&m);
    FPPltLocalMutexUnlock(&m);
    std::thread([&] {
        if ((other = FPPltLocalMutexTryLock(&m)) == 1)
            FPPltLocalMutexUnlock(&m);
    }).join();
    EXPECT_EQ(1, other) << "released as often as taken";
    EXPECT_EQ(0, FPPltLocalMutexDestroy(&m));

    std::atomic<int> value{0};
    FPPLT_THREAD t;
    ASSERT_EQ(0, FPPltThreadCreate([](void *p) { static_cast<std::atomic<int> *>(p)->store(42); }, &value, &t));
    FPPltThreadWaitAndDestroy(&t);
    EXPECT_EQ(42, value.load());
    EXPECT_EQ(1, FPPltThreadCreate([](void *) {}, &value, nullptr));
}
