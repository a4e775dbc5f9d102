/* CPU time of streaming on a real kernel.  Runs inside the kernel lane's
 * guest (`tests/kernel/run.sh BUILD xhci bench`) against the simulated
 * 1280 x 1024 reader at 7.5 frames/s, through this library or through
 * libuvc over libusb, and prints "figure" lines for bench/run:
 *
 *   ztuvc-kbench ztuvc|peer SECONDS
 *
 * CPU time is the whole process's (every thread of the library and of the
 * application); wake-ups are the voluntary context switches of the threads
 * other than the main one (the grab thread, or libusb's event thread).  At
 * high speed a ring of 8-packet requests completes one request per
 * millisecond, so wake-ups per completed request are wake-ups per second
 * over 1000. */
#include "ztuvc.h"

#ifdef ZTUVC_BENCH_LIBUVC
#include <libuvc/libuvc.h>
#endif

#include <dirent.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

enum { kVendor = 0x3a5c, kProduct = 0x000e, kIntervalMs = 133 };

static double clockSeconds(clockid_t c)
{
    struct timespec t;
    clock_gettime(c, &t);
    return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

/* Voluntary context switches of every thread but the main one. */
static long helperWakeups(void)
{
    long sum = 0;
    DIR* d = opendir("/proc/self/task");
    struct dirent* e;
    while (d && (e = readdir(d))) {
        if (e->d_name[0] == '.' || atoi(e->d_name) == getpid()) continue;
        char path[300], line[128];
        snprintf(path, sizeof path, "/proc/self/task/%s/status", e->d_name);
        FILE* f = fopen(path, "r");
        while (f && fgets(line, sizeof line, f))
            if (strncmp(line, "voluntary_ctxt_switches:", 24) == 0) sum += atol(line + 24);
        if (f) fclose(f);
    }
    if (d) closedir(d);
    return sum;
}

static atomic_uint gFrames;

struct Sample {
    double wall, cpu;
    long wakeups;
    unsigned frames;
};
static struct Sample sample(void)
{
    struct Sample s = {clockSeconds(CLOCK_MONOTONIC), clockSeconds(CLOCK_PROCESS_CPUTIME_ID), helperWakeups(),
                       atomic_load(&gFrames)};
    return s;
}

static void report(const char* mode, struct Sample a, struct Sample b)
{
    const double s = b.wall - a.wall;
    printf("figure kernel_%s_cpu_ms_per_s %.2f\n", mode, (b.cpu - a.cpu) * 1000 / s);
    printf("figure kernel_%s_wakeups_per_request %.3f\n", mode, (double)(b.wakeups - a.wakeups) / s / 1000);
    printf("figure kernel_%s_frames_per_s %.2f\n", mode, (double)(b.frames - a.frames) / s);
}

/* Takes frames for `seconds` after one second of warm-up; the application
 * reads each frame's first byte, as a user would look at it. */
static int viaLibrary(double seconds)
{
    camera_init();
    camera_device_enumerate(NULL, 0);
    CAMERA_HANDLE h = camera_device_count() ? camera_get_by_index(0) : NULL;
    CAMERA_FORMAT fmt;
    uint32_t iv = kIntervalMs;
    if (!h || camera_open(h) != 0 || camera_set_format(h, &fmt) != 0 || camera_set_frame_interval(h, &iv) != 0 ||
        camera_start_capture(h, 0) != 0) {
        fprintf(stderr, "kbench: cannot stream through the library\n");
        return 1;
    }
    struct Sample a = {0};
    const double start = clockSeconds(CLOCK_MONOTONIC);
    volatile uint8_t sink = 0;
    for (int warm = 1;;) {
        void* img = NULL;
        if (camera_get_image(h, 2000, &img) != 0) break;
        sink ^= *(const uint8_t*)img;
        camera_put_image(h, img);
        atomic_fetch_add(&gFrames, 1);
        const double now = clockSeconds(CLOCK_MONOTONIC);
        if (warm && now - start >= 1) {
            a = sample();
            warm = 0;
        } else if (!warm && now - a.wall >= seconds) {
            break;
        }
    }
    struct Sample b = sample();
    camera_stop_capture(h);
    camera_close(h);
    camera_cleanup();
    if (a.wall == 0) return 1;
    report("ztuvc", a, b);
    return 0;
}

#ifdef ZTUVC_BENCH_LIBUVC
static void onFrame(uvc_frame_t* frame, void* sink)
{
    *(volatile uint8_t*)sink ^= *(const uint8_t*)frame->data;
    atomic_fetch_add(&gFrames, 1);
}

static int viaPeer(double seconds)
{
    uvc_context_t* ctx = NULL;
    uvc_device_t* dev = NULL;
    uvc_device_handle_t* devh = NULL;
    uvc_stream_ctrl_t ctrl;
    static uint8_t sink;
    /* The raw 8-bit image travels as YUYV of half the height. */
    if (uvc_init(&ctx, NULL) != UVC_SUCCESS || uvc_find_device(ctx, &dev, kVendor, kProduct, NULL) != UVC_SUCCESS ||
        uvc_open(dev, &devh) != UVC_SUCCESS ||
        uvc_get_stream_ctrl_format_size(devh, &ctrl, UVC_FRAME_FORMAT_YUYV, 1280, 512, 1000 / kIntervalMs) !=
            UVC_SUCCESS ||
        uvc_start_streaming(devh, &ctrl, onFrame, &sink, 0) != UVC_SUCCESS) {
        fprintf(stderr, "kbench: cannot stream through libuvc\n");
        return 1;
    }
    const struct timespec tick = {0, 50 * 1000 * 1000};
    const double start = clockSeconds(CLOCK_MONOTONIC);
    while (clockSeconds(CLOCK_MONOTONIC) - start < 1) nanosleep(&tick, NULL);
    struct Sample a = sample();
    while (clockSeconds(CLOCK_MONOTONIC) - a.wall < seconds) nanosleep(&tick, NULL);
    struct Sample b = sample();
    uvc_stop_streaming(devh);
    uvc_close(devh);
    uvc_unref_device(dev);
    uvc_exit(ctx);
    report("peer", a, b);
    return 0;
}
#endif

int main(int argc, char** argv)
{
    setvbuf(stdout, NULL, _IOLBF, 0);
    const double seconds = argc > 2 ? atof(argv[2]) : 5;
    if (argc > 1 && strcmp(argv[1], "ztuvc") == 0) return viaLibrary(seconds);
#ifdef ZTUVC_BENCH_LIBUVC
    if (argc > 1 && strcmp(argv[1], "peer") == 0) return viaPeer(seconds);
#endif
    fprintf(stderr, "usage: ztuvc-kbench ztuvc|peer SECONDS\n");
    return 2;
}
