/*
 * Platform services: sleep across signals, recursive local mutexes, threads.
 */
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <sys/time.h>
#include <thread>

#include "lnx/platform/fpplat.h"

namespace {
std::atomic<int> gSignals{0};
void OnAlarm(int)
{
    gSignals++;
}
} // namespace

TEST(PlatformSleep, SleepsAtLeastTheRequestWhileSignalsArrive)
{
    struct sigaction sa = {};
    sa.sa_handler = OnAlarm; /* no SA_RESTART: nanosleep is interrupted */
    ASSERT_EQ(0, sigaction(SIGALRM, &sa, nullptr));
    struct itimerval every50ms = {{0, 50000}, {0, 50000}};
    ASSERT_EQ(0, setitimer(ITIMER_REAL, &every50ms, nullptr));

    auto t0 = std::chrono::steady_clock::now();
    FPPltSleep(1500);
    auto elapsed = std::chrono::steady_clock::now() - t0;

    struct itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
    signal(SIGALRM, SIG_DFL);
    EXPECT_GE(elapsed, std::chrono::milliseconds(1500));
    EXPECT_GT(gSignals.load(), 5); /* the sleep really was interrupted */
}

TEST(PlatformSleep, ZeroReturnsAndClockFollowsWallTime)
{
    uint32_t t0 = FPPltGetTime();
    FPPltSleep(0);
    FPPltSleep(120);
    uint32_t elapsed = FPPltGetTime() - t0;
    EXPECT_GE(elapsed, 119u);
    EXPECT_LT(elapsed, 2000u);
}

TEST(PlatformMutex, RecursiveForOwnerAndBusyForOthers)
{
    FPPLT_LOCAL_MUTEX m;
    ASSERT_EQ(0, FPPltLocalMutexCreate(&m));
    FPPltLocalMutexLock(&m);
    EXPECT_EQ(1, FPPltLocalMutexTryLock(&m)); /* same thread: recursive */
    int other = -1;
    std::thread([&] { other = FPPltLocalMutexTryLock(&m); }).join();
    EXPECT_EQ(0, other);
    FPPltLocalMutexUnlock(&m);
    FPPltLocalMutexUnlock(&m);
    std::thread([&] {
        other = FPPltLocalMutexTryLock(&m);
        if (other == 1)
            FPPltLocalMutexUnlock(&m);
    }).join();
    EXPECT_EQ(1, other); /* released as often as taken */
    EXPECT_EQ(0, FPPltLocalMutexDestroy(&m));
}

namespace {
void Worker(void *p)
{
    static_cast<std::atomic<int> *>(p)->store(42);
}
} // namespace

TEST(PlatformThread, CreateRunsFunctionAndWaitJoins)
{
    std::atomic<int> value{0};
    FPPLT_THREAD t;
    ASSERT_EQ(0, FPPltThreadCreate(Worker, &value, &t));
    FPPltThreadWaitAndDestroy(&t);
    EXPECT_EQ(42, value.load());
    EXPECT_EQ(1, FPPltThreadCreate(Worker, &value, nullptr));
}
