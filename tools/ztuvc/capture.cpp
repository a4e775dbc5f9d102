// ztuvc capture: stream frames into image files, one line per frame with
// its time stamps, and a summary of rate, drops and hand-out latency.
#include "common.h"
#include "image_io.h"

#include <CLI/App.hpp>

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace ztuvc_tool {
namespace {

// A printf-style pattern with at most one integer conversion; anything else
// would let the pattern read arguments that are not there.
bool checkPattern(const std::string& p, int& conversions, std::string& why) {
    conversions = 0;
    for (size_t i = 0; i < p.size(); ++i) {
        if (p[i] != '%') continue;
        if (i + 1 < p.size() && p[i + 1] == '%') {
            ++i;
            continue;
        }
        size_t j = i + 1;
        while (j < p.size() && std::strchr("-0 +#", p[j]) != nullptr) ++j;
        while (j < p.size() && p[j] >= '0' && p[j] <= '9') ++j;
        if (j >= p.size() || std::strchr("diuxX", p[j]) == nullptr) {
            why = "only integer conversions (%d, %03d, %x, ...) and %% are allowed";
            return false;
        }
        if (j - i > 6) {
            why = "conversion too wide";
            return false;
        }
        ++conversions;
        i = j;
    }
    if (conversions > 1) {
        why = "more than one conversion";
        return false;
    }
    return true;
}

std::string formatName(const std::string& pattern, int conversions, uint32_t index) {
    if (conversions == 0) return pattern;
    // The pattern was checked: one integer conversion, of an int.
    int n = std::snprintf(nullptr, 0, pattern.c_str(), int(index));
    std::string s(size_t(n) + 1, '\0');
    std::snprintf(s.data(), s.size(), pattern.c_str(), int(index));
    s.resize(size_t(n));
    return s;
}

volatile std::sig_atomic_t gInterrupted = 0;
void onSignal(int) { gInterrupted = 1; }

void drawProgress(uint32_t done, uint32_t total) {
    const int width = 30;
    int filled = total != 0 ? int(uint64_t(done) * width / total) : width;
    std::printf("\r[");
    for (int i = 0; i < width; ++i) std::putchar(i < filled ? '#' : '.');
    std::printf("] %u/%u", done, total);
    std::fflush(stdout);
}

void clearProgress() { std::printf("\r\033[K"); }

int cmdCapture(const Args& a) {
    if (!a.positional.empty())
        return usageError(a.command, "unexpected argument '%s'", a.positional[0].c_str());
    uint64_t count = 1, slots = 0, timeout = 1000, interval = 0;
    if (a.count && !numberArg(a, "-n", *a.count, 1, 1000000, count)) return kExitUsage;
    if (a.slots && !numberArg(a, "--slots", *a.slots, 1, 4, slots)) return kExitUsage;
    if (a.timeout && !numberArg(a, "--timeout", *a.timeout, 0, 3600000, timeout)) return kExitUsage;
    if (a.interval && !numberArg(a, "--interval", *a.interval, 1, 3600000, interval))
        return kExitUsage;
    std::string pattern = a.output.value_or("frame-%03d.png");
    int conversions = 0;
    std::string why;
    if (!checkPattern(pattern, conversions, why))
        return usageError(a.command, "bad output pattern '%s': %s", pattern.c_str(), why.c_str());
    if (conversions == 0 && count > 1)
        return usageError(a.command,
                          "output pattern '%s' needs a conversion such as %%03d for %llu frames",
                          pattern.c_str(), static_cast<unsigned long long>(count));
    ImageKind kind = imageKindOf(pattern);
    if (kind == ImageKind::Unknown)
        return usageError(a.command, "output '%s': the extension must be .png or .pgm", pattern.c_str());

    Library lib;
    OpenCamera cam;
    if (int rc = openSelected(a, cam); rc != kExitOk) return rc;
    Geometry g;
    if (int rc = queryGeometry(cam.h, g); rc != kExitOk) return rc;
    uint32_t effective = 0;
    if (interval != 0) {
        effective = uint32_t(interval);
        if (int32_t rc = camera_set_frame_interval(cam.h, &effective); rc != 0)
            return failedCall(rc, "setting the frame interval");
    } else if (int32_t rc = camera_get_frame_interval(cam.h, &effective); rc != 0) {
        return failedCall(rc, "reading the frame interval");
    }

    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    const bool tty = isatty(STDOUT_FILENO) == 1 && !a.quiet;
    const size_t imageBytes = size_t(g.width) * g.height;
    std::vector<uint8_t> image(imageBytes);

    // The grab thread inherits the mask of the thread that starts it: with
    // SIGINT and SIGTERM blocked there, Ctrl-C always reaches this thread and
    // never interrupts the grab thread's ioctls.
    sigset_t stopSignals, mask;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, &mask);
    auto t0 = std::chrono::steady_clock::now();
    const int32_t started = camera_start_capture(cam.h, uint32_t(slots));
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    if (int32_t rc = started; rc != 0) {
        if (rc == CAMERA_ERR_NO_DEVICE) {
            errorf("cannot start capture: the reader is gone");
        } else {
            errorf("cannot start capture: the reader sends no video (unplugged, or stuck?)");
        }
        return kExitGone;
    }
    if (!a.quiet)
        std::printf("capturing %llu frame%s of %u x %u at %u ms intervals\n",
                    static_cast<unsigned long long>(count), count == 1 ? "" : "s", g.width, g.height,
                    effective);

    int result = kExitOk;
    uint32_t got = 0, dropped = 0, badTrailers = 0;
    uint32_t firstStart = 0, lastStart = 0, maxLatency = 0;
    uint64_t latencySum = 0;
    for (uint32_t i = 0; i < count; ++i) {
        if (gInterrupted) {
            result = kExitInterrupted;
            break;
        }
        void* frame = nullptr;
        int32_t rc = camera_get_image(cam.h, uint32_t(timeout), &frame);
        if (rc != 0 || frame == nullptr) {
            if (tty) clearProgress();
            if (gInterrupted && rc == CAMERA_ERR_TIMEOUT) {
                result = kExitInterrupted;
            } else if (rc == CAMERA_ERR_TIMEOUT) {
                errorf("timed out waiting for frame %u (%llu ms + 1500 ms); the reader stopped sending",
                       i, static_cast<unsigned long long>(timeout));
                result = kExitTimeout;
            } else {
                errorf("the stream failed at frame %u: the reader is gone or stopped (unplugged?)", i);
                result = kExitGone;
            }
            break;
        }
        const auto* bytes = static_cast<const uint8_t*>(frame);
        CAMERA_TIME_STAMP ts;
        std::memcpy(&ts, bytes + imageBytes, sizeof ts);
        std::memcpy(image.data(), bytes, imageBytes);
        camera_put_image(cam.h, frame);

        bool trailerOk = std::memcmp(ts.szSignature, "TmSt", 4) == 0;
        if (!trailerOk) ++badTrailers;
        uint32_t latency = ts.dwFrameReturned - ts.dwFrameStart;
        if (got == 0) {
            firstStart = ts.dwFrameStart;
        } else if (effective != 0) {
            // A gap of more than 1.5 intervals between frame starts means
            // frames were lost on the way.
            uint32_t gap = ts.dwFrameStart - lastStart;
            if (gap > effective + effective / 2) dropped += (gap + effective / 2) / effective - 1;
        }
        lastStart = ts.dwFrameStart;
        latencySum += latency;
        maxLatency = std::max(maxLatency, latency);
        ++got;

        std::string path = formatName(pattern, conversions, i);
        std::string err;
        if (!writeGreyImage(path, kind, image.data(), g.width, g.height, err)) {
            if (tty) clearProgress();
            errorf("cannot write %s: %s", path.c_str(), err.c_str());
            result = kExitOutput;
            break;
        }
        if (!a.quiet) {
            if (tty) clearProgress();
            std::printf("frame %u: %zu bytes, start %u ms, out %u ms, latency %u ms%s -> %s\n", i, imageBytes,
                        ts.dwFrameStart, ts.dwFrameReturned, latency, trailerOk ? "" : " (bad trailer)",
                        path.c_str());
            if (tty) drawProgress(i + 1, uint32_t(count));
        }
    }
    if (tty && got > 0) clearProgress();
    camera_stop_capture(cam.h);
    double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();

    if (got > 0) {
        uint32_t span = lastStart - firstStart;
        double fps = got > 1 && span > 0 ? (got - 1) * 1000.0 / span : 0.0;
        std::printf("%u frame%s in %.2f s: %.1f frames/s, %u dropped, latency mean %.1f ms, max %u ms\n", got,
                    got == 1 ? "" : "s", elapsed, fps, dropped, double(latencySum) / got, maxLatency);
        if (badTrailers != 0) std::printf("warning: %u frame(s) without a time-stamp trailer\n", badTrailers);
    }
    if (result == kExitInterrupted) errorf("interrupted");
    return result;
}

void captureOptions(CLI::App& app, Args& a) {
    addDeviceOption(app, a);
    app.add_option("-o,--output", a.output);
    app.add_option("-n,--count", a.count);
    app.add_option("--interval", a.interval);
    app.add_option("--slots", a.slots);
    app.add_option("--timeout", a.timeout);
    app.add_flag("-q,--quiet", a.quiet)->disable_flag_override();
}

}  // namespace

const Command kCaptureCommand{
    "capture",
    "Usage: ztuvc capture [-d N|NAME] [-n COUNT] [-o PATTERN] [--interval MS]\n"
    "                     [--slots N] [--timeout MS] [-q]\n"
    "Captures COUNT frames (default 1) and writes each as an 8-bit grey image.\n"
    "  -o, --output PATTERN  printf-style file name with one integer conversion for\n"
    "                        the frame index (default frame-%03d.png); the extension\n"
    "                        .png or .pgm chooses the format\n"
    "  -n, --count COUNT     frames to capture (1..1000000)\n"
    "      --interval MS     request a frame interval (raised to the reader's shortest)\n"
    "      --slots N         frame slots of the library (1..4, default 4)\n"
    "      --timeout MS      wait per frame (default 1000; the library adds 1500)\n"
    "  -q, --quiet           only the summary\n",
    cmdCapture,
    captureOptions,
};

}  // namespace ztuvc_tool
