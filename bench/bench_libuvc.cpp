// The peer: the same simulated 1280 x 1024 reader streamed through libuvc
// (over libusb), for the instruction comparison in bench/run with
// `bench_stream peer N`.  Runs under umockdev-wrapper (and, for the count,
// under callgrind).
//   bench_libuvc N    stream until N frames arrived (or 60 s passed)
#include <sys/prctl.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include <libuvc/libuvc.h>

#include "simreader.h"

namespace {

constexpr uint32_t kImage = 1310720;
std::atomic<unsigned> gFrames{0};
std::atomic<unsigned> gBad{0};

// A cheap look at each frame, as the line-rate run does: size, head and tail.
void OnFrame(uvc_frame_t* frame, void*)
{
    const auto* p = static_cast<const uint8_t*>(frame->data);
    if (frame->data_bytes != kImage) {
        gBad++;
    } else {
        uint32_t n = sim::frameNumberOf(p);
        if (sim::firstPatternMismatch(p, 4096, n) != -1 || p[kImage - 1] != sim::pixel(n, kImage - 1))
            gBad++;
    }
    gFrames++;
}

}  // namespace

int main(int argc, char** argv)
{
    prctl(PR_SET_TIMERSLACK, 1);
    if (!sim::underUmockdevPreload()) {
        fprintf(stderr, "run under umockdev-wrapper\n");
        return 2;
    }
    unsigned nWanted = argc > 1 ? unsigned(strtoul(argv[1], nullptr, 10)) : 20;
    sim::Testbed tb;
    sim::Reader& r = tb.addReader(sim::Model::T40);

    uvc_context_t* ctx = nullptr;
    uvc_error_t res = uvc_init(&ctx, nullptr);
    if (res < 0) {
        uvc_perror(res, "uvc_init");
        return 1;
    }
    uvc_device_t* dev = nullptr;
    res = uvc_find_device(ctx, &dev, r.vendorId(), r.productId(), nullptr);
    if (res < 0) {
        uvc_perror(res, "uvc_find_device");
        return 1;
    }
    uvc_device_handle_t* devh = nullptr;
    res = uvc_open(dev, &devh);
    if (res < 0) {
        uvc_perror(res, "uvc_open");
        return 1;
    }
    uvc_stream_ctrl_t ctrl;
    // The reader describes its 8-bit image as YUY2 of half the height.
    res = uvc_get_stream_ctrl_format_size(devh, &ctrl, UVC_FRAME_FORMAT_YUYV, 1280, 512, 15);
    if (res < 0) {
        uvc_perror(res, "uvc_get_stream_ctrl_format_size");
        uvc_print_diag(devh, stderr);
        return 1;
    }
    res = uvc_start_streaming(devh, &ctrl, OnFrame, nullptr, 0);
    if (res < 0) {
        uvc_perror(res, "uvc_start_streaming");
        return 1;
    }
    r.startPaced(sim::Pace{sim::Pace::AsFastAsPossible, 0});
    auto t0 = std::chrono::steady_clock::now();
    while (gFrames.load() < nWanted && std::chrono::steady_clock::now() - t0 < std::chrono::seconds(60))
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    double dSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    uvc_stop_streaming(devh);
    r.stopPaced();
    unsigned n = gFrames.load();
    fprintf(stderr, "libuvc: %u frames in %.1f s, %u damaged; the reader sent %llu\n", n, dSeconds, gBad.load(),
            (unsigned long long)r.framesSent());
    printf("figure libuvc_frames %u\nfigure libuvc_damaged %u\n", n, gBad.load());
    uvc_close(devh);
    uvc_unref_device(dev);
    uvc_exit(ctx);
    return n >= nWanted && gBad.load() == 0 ? 0 : 1;
}
