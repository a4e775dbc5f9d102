// Stream benchmarks against the simulated reader, through the exported
// interface.  Runs under umockdev-wrapper (bench/run does that).
//   bench_stream latency N    hand-out latency over N frames (1280 x 1024)
//   bench_stream linerate N   frames lost at the USB 2.0 high-bandwidth rate
//   bench_stream enumerate    camera_device_enumerate with 1, 10, 100 devices
//   bench_stream peer N       N frames as fast as the reader sends them, the
//                             same stream bench_libuvc takes through libuvc
//                             (for the instruction count under callgrind)
// Figures go to stdout as "figure <name> <value>" lines, and a readable
// summary to stderr.
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "simreader.h"
#include "ztuvc.h"

namespace {

using Clock = std::chrono::steady_clock;

double Ms(Clock::duration d)
{
    return std::chrono::duration<double, std::milli>(d).count();
}

double Percentile(std::vector<double> v, double p)
{
    std::sort(v.begin(), v.end());
    size_t i = size_t(p / 100.0 * double(v.size() - 1) + 0.5);
    return v[std::min(i, v.size() - 1)];
}

CAMERA_HANDLE OpenOnly()
{
    camera_init();
    camera_device_enumerate(nullptr, 0);
    CAMERA_HANDLE h = camera_get_by_index(0);
    if (h == nullptr || camera_open(h) != 0) {
        fprintf(stderr, "no reader to open\n");
        exit(1);
    }
    return h;
}

// Virtual time: the application waits in camera_get_image; after a random
// pause the reader sends the first packet of the next frame, in a URB of its
// own that completes at once (t0).  That packet ends the frame before it,
// which the application then receives (t1).  The frames are raw packets of
// the right length (the simulator's pattern generation for a whole frame
// would otherwise sit inside the measured time); the rest of the next frame
// is queued after the hand-out, outside the measurement.
std::vector<uint8_t> Packet(bool bFid, uint32_t nBytes, bool bEof)
{
    auto h = sim::payloadHeader(bFid, bEof);
    std::vector<uint8_t> p(h.begin(), h.end());
    p.resize(12 + nBytes, uint8_t(nBytes));
    return p;
}

void QueueRest(sim::Reader& r, bool bFid, uint32_t nImage)
{
    uint32_t nLeft = nImage - sim::kMaxPayloadPerPacket;
    while (nLeft > 0) {
        uint32_t d = std::min(nLeft, sim::kMaxPayloadPerPacket);
        nLeft -= d;
        r.queueRawPacket(Packet(bFid, d, nLeft == 0));
    }
}

int Latency(unsigned nFrames)
{
    sim::Testbed tb;
    sim::Reader& r = tb.addReader(sim::Model::T40);
    const uint32_t nImage = r.info().imageSize();
    CAMERA_HANDLE h = OpenOnly();
    bool bFid = false;
    r.queueRawPacket(Packet(bFid, sim::kMaxPayloadPerPacket, false));
    QueueRest(r, bFid, nImage);
    bFid = !bFid;
    r.queueRawPacket(Packet(bFid, sim::kMaxPayloadPerPacket, false));
    r.queueUrbBreak();
    if (camera_start_capture(h, 0) != 0)
        return 1;
    void* pFrame = nullptr;
    if (camera_get_image(h, 5000, &pFrame) != 0)
        return 1;
    camera_put_image(h, pFrame);
    QueueRest(r, bFid, nImage);

    std::vector<double> lat;
    std::mt19937 rng(1);
    std::atomic<bool> waiting{false};
    std::atomic<bool> quit{false};
    std::mutex m;
    Clock::time_point t0;
    std::thread feeder([&] {
        bool bNext = bFid;
        while (!quit.load()) {
            if (!waiting.load()) {
                std::this_thread::yield();
                continue;
            }
            // the application is in its wait: the packet comes at any point of its poll
            std::this_thread::sleep_for(std::chrono::microseconds(2000 + rng() % 20000));
            // On a real bus the frame's earlier requests completed over its whole
            // frame time and were reaped as they came; here they were all queued at
            // once, so let the grab thread catch up (its whole ring back in flight)
            // before the measured packet goes out.
            if (!r.waitQueueEmpty(std::chrono::milliseconds(5000)) ||
                !r.waitIsoUrbsInFlight(16, std::chrono::milliseconds(5000)))
                break;
            bNext = !bNext;
            {
                std::lock_guard<std::mutex> l(m);
                t0 = Clock::now();
            }
            r.queueRawPacket(Packet(bNext, sim::kMaxPayloadPerPacket, false));
            r.queueUrbBreak();
            waiting = false;
        }
    });
    unsigned nBad = 0;
    for (unsigned i = 0; i < nFrames; i++) {
        waiting = true;
        int32_t iResult = camera_get_image(h, 5000, &pFrame);
        Clock::time_point t1 = Clock::now();
        if (iResult != 0) {
            fprintf(stderr, "camera_get_image: %d at frame %u\n", iResult, i);
            nBad++;
            break;
        }
        {
            std::lock_guard<std::mutex> l(m);
            lat.push_back(Ms(t1 - t0));
        }
        camera_put_image(h, pFrame);
        while (waiting.load())
            std::this_thread::yield();
        bFid = !bFid;
        QueueRest(r, bFid, nImage);
    }
    quit = true;
    feeder.join();
    camera_stop_capture(h);
    camera_close(h);
    camera_cleanup();
    if (lat.empty())
        return 1;
    double p50 = Percentile(lat, 50), p99 = Percentile(lat, 99), mx = *std::max_element(lat.begin(), lat.end());
    fprintf(stderr, "hand-out latency over %zu frames: p50 %.2f ms, p99 %.2f ms, max %.2f ms\n", lat.size(), p50,
            p99, mx);
    printf("figure latency_frames %zu\nfigure latency_p50_ms %.2f\nfigure latency_p99_ms %.2f\n"
           "figure latency_max_ms %.2f\n",
           lat.size(), p50, p99, mx);
    return nBad != 0;
}

// Wall clock: 8 packets of 3072 bytes every millisecond (the simulator
// completes at most one URB per millisecond, with a credit of two); a feeder
// keeps two frames queued, and the application takes each frame and gives it
// back at once.  A frame number missing at the application is a frame the
// library lost; the achieved rate says whether it kept up with the line.
int LineRate(unsigned nFrames)
{
    sim::Testbed tb;
    sim::Reader& r = tb.addReader(sim::Model::T40);
    CAMERA_HANDLE h = OpenOnly();
    r.queueFrames(1);
    if (camera_start_capture(h, 0) != 0)
        return 1;
    r.startPaced(sim::Pace{sim::Pace::HighBandwidth, 0});
    const size_t nPerFrame = (r.info().imageSize() + sim::kMaxPayloadPerPacket - 1) / sim::kMaxPayloadPerPacket;
    std::atomic<bool> quit{false};
    std::thread feeder([&] {
        while (!quit.load()) {
            if (r.packetsQueued() < 2 * nPerFrame)
                r.queueFrames(1);
            else
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    uint32_t nFirst = 0, nLast = 0, nGot = 0, nBad = 0;
    auto t0 = Clock::now();
    while (nGot < nFrames) {
        void* pFrame = nullptr;
        int32_t iResult = camera_get_image(h, 2000, &pFrame);
        if (iResult != 0) {
            fprintf(stderr, "camera_get_image: %d after %u frames\n", iResult, nGot);
            break;
        }
        auto* p = static_cast<const uint8_t*>(pFrame);
        uint32_t n = sim::frameNumberOf(p);
        if (nGot == 0)
            nFirst = n;
        nLast = n;
        // a cheap look at the bytes: head, middle and tail of the image
        if (sim::firstPatternMismatch(p, 4096, n) != -1 || p[1310719] != sim::pixel(n, 1310719))
            nBad++;
        camera_put_image(h, pFrame);
        nGot++;
    }
    double dSeconds = std::chrono::duration<double>(Clock::now() - t0).count();
    quit = true;
    feeder.join();
    r.stopPaced();
    uint64_t nSent = r.framesSent();
    camera_stop_capture(h);
    camera_close(h);
    camera_cleanup();
    uint32_t nLost = nGot ? (nLast - nFirst + 1) - nGot : 0;
    fprintf(stderr,
            "line rate: %u frames taken in %.1f s (%.1f frames/s, %.1f MB/s), frames %u..%u: %u lost by the "
            "library, %u damaged; the reader sent %llu\n",
            nGot, dSeconds, nGot / dSeconds, nGot * 1.31072 / dSeconds, nFirst, nLast, nLost, nBad,
            (unsigned long long)nSent);
    printf("figure linerate_frames %u\nfigure linerate_lost %u\nfigure linerate_damaged %u\n"
           "figure linerate_fps %.2f\nfigure linerate_of_line %.3f\n",
           nGot, nLost, nBad, nGot / dSeconds, nGot * 1310720.0 / dSeconds / 24576000.0);
    return 0;
}

// The stream bench_libuvc takes, through this library: the reader sends
// 1280 x 1024 frames as fast as requests come back; the application takes
// each frame and returns it at once.
int Peer(unsigned nFrames)
{
    sim::Testbed tb;
    sim::Reader& r = tb.addReader(sim::Model::T40);
    CAMERA_HANDLE h = OpenOnly();
    // Capture starts once the first payload arrives, so the reader sends from the outset.
    r.startPaced(sim::Pace{sim::Pace::AsFastAsPossible, 0});
    if (int32_t iResult = camera_start_capture(h, 0); iResult != 0) {
        fprintf(stderr, "camera_start_capture: %d\n", iResult);
        return 1;
    }
    unsigned nGot = 0;
    auto t0 = Clock::now();
    while (nGot < nFrames) {
        void* pFrame = nullptr;
        int32_t iResult = camera_get_image(h, 5000, &pFrame);
        if (iResult != 0) {
            fprintf(stderr, "camera_get_image: %d after %u frames\n", iResult, nGot);
            break;
        }
        camera_put_image(h, pFrame);
        nGot++;
    }
    double dSeconds = std::chrono::duration<double>(Clock::now() - t0).count();
    camera_stop_capture(h);
    r.stopPaced();
    camera_close(h);
    camera_cleanup();
    fprintf(stderr, "libztuvc: %u frames in %.1f s; the reader sent %llu\n", nGot, dSeconds,
            (unsigned long long)r.framesSent());
    printf("figure peer_frames %u\n", nGot);
    return nGot == nFrames ? 0 : 1;
}

// Enumeration: time of camera_device_enumerate with n USB devices in sysfs
// (one reader, the rest other devices), median of repeated runs.
int Enumerate()
{
    sim::Testbed tb;
    tb.addReader(sim::Model::T30);
    camera_init();
    unsigned nDevices = 1;
    for (unsigned n : {1u, 10u, 100u}) {
        while (nDevices < n) {
            sim::DeviceOptions o;
            o.model = sim::Model::T30;
            o.vendorId = 0x046d;
            o.productId = uint16_t(0xc000 + nDevices);
            o.descriptors = sim::otherDeviceDescriptors(0x046d, uint16_t(0xc000 + nDevices));
            o.busnum = 2 + nDevices / 100;
            tb.addDevice(o);
            nDevices++;
        }
        std::vector<double> t;
        for (int i = 0; i < 21; i++) {
            auto t0 = Clock::now();
            camera_device_enumerate(nullptr, 0);
            t.push_back(Ms(Clock::now() - t0));
        }
        if (camera_device_count() != 1)
            fprintf(stderr, "enumeration found %u readers\n", camera_device_count());
        double med = Percentile(t, 50);
        fprintf(stderr, "enumeration with %u USB devices: %.2f ms (median of 21)\n", n, med);
        printf("figure enumerate_%u_ms %.3f\n", n, med);
    }
    camera_cleanup();
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    prctl(PR_SET_TIMERSLACK, 1);
    if (!sim::underUmockdevPreload()) {
        fprintf(stderr, "run under umockdev-wrapper\n");
        return 2;
    }
    std::string mode = argc > 1 ? argv[1] : "";
    unsigned n = argc > 2 ? unsigned(strtoul(argv[2], nullptr, 10)) : 0;
    if (mode == "latency")
        return Latency(n ? n : 1000);
    if (mode == "linerate")
        return LineRate(n ? n : 1000);
    if (mode == "enumerate")
        return Enumerate();
    if (mode == "peer")
        return Peer(n ? n : 20);
    fprintf(stderr, "usage: bench_stream latency|linerate|peer [frames] | enumerate\n");
    return 2;
}
