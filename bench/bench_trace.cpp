// Cost of a trace statement whose level is not enabled (the default
// configuration writes levels 1 and 2 only): median over many runs of a
// million statements, in ns per statement.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "trace/dtraces.h"

__attribute__((noinline)) static void Statements(int n, int* sink)
{
    for (int i = 0; i < n; i++) {
        DTRACE(_DRegion_usbtr, DTRACE_LEVEL_LOUD, "ioctl() --> %i", i);
        asm volatile("" ::"r"(sink) : "memory");
    }
}

int main()
{
    // A configuration of our own: default levels, output to a scratch file.
    char szHome[] = "/tmp/ztuvc-bench-XXXXXX";
    if (mkdtemp(szHome) == nullptr)
        return 1;
    setenv("HOME", szHome, 1);
    unsetenv("ZTTRACE_ON");
    unsetenv("ZTTRACE_PATH");
    int sink = 0;
    Statements(1000, &sink);  // first use initialises the region
    constexpr int kPerRun = 1000000;
    std::vector<double> ns;
    for (int r = 0; r < 31; r++) {
        auto t0 = std::chrono::steady_clock::now();
        Statements(kPerRun, &sink);
        ns.push_back(std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - t0).count() /
                     kPerRun);
    }
    std::sort(ns.begin(), ns.end());
    fprintf(stderr, "disabled trace statement: %.2f ns (median of 31 runs of 1e6; min %.2f, max %.2f)\n", ns[15],
            ns.front(), ns.back());
    printf("figure trace_disabled_ns %.3f\n", ns[15]);
    return 0;
}
