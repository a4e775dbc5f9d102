/* CPU time of streaming on a real kernel.  Runs inside the kernel lane's
 * guest (`tests/kernel/run.sh BUILD xhci bench`) against the simulated
 * 1280 x 1024 reader at 7.5 frames/s, through this library or through
 * libuvc over libusb, and prints "figure" lines for bench/run:
 *
 *   ztuvc-kbench ztuvc|peer|floor SECONDS
 *
 * "floor" streams the same way straight on usbfs, with no library and no
 * copy: a ring of 16 requests of 8 packets, reaped every 8 ms.  What it
 * costs is the kernel's (and the emulated controller's) share of the
 * stream, which every client pays whatever it does itself.
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
#include <errno.h>
#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
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

/* Voluntary context switches and CPU time (scheduler run time, seconds) of
 * every thread but the main one. */
static long helperWakeups(double* cpu)
{
    long sum = 0;
    *cpu = 0;
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
        snprintf(path, sizeof path, "/proc/self/task/%s/schedstat", e->d_name);
        f = fopen(path, "r");
        if (f && fgets(line, sizeof line, f)) *cpu += atof(line) / 1e9;
        if (f) fclose(f);
    }
    if (d) closedir(d);
    return sum;
}

static atomic_uint gFrames;

struct Sample {
    double wall, cpu, helperCpu;
    long wakeups;
    unsigned frames;
};
static struct Sample sample(void)
{
    struct Sample s = {clockSeconds(CLOCK_MONOTONIC), clockSeconds(CLOCK_PROCESS_CPUTIME_ID), 0, 0,
                       atomic_load(&gFrames)};
    s.wakeups = helperWakeups(&s.helperCpu);
    return s;
}

static void report(const char* mode, struct Sample a, struct Sample b)
{
    const double s = b.wall - a.wall;
    printf("figure kernel_%s_cpu_ms_per_s %.2f\n", mode, (b.cpu - a.cpu) * 1000 / s);
    printf("figure kernel_%s_helper_cpu_ms_per_s %.2f\n", mode, (b.helperCpu - a.helperCpu) * 1000 / s);
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

enum { kRing = 16, kPackets = 8, kPacketSize = 3072, kIsoEndpoint = 0x81 };
struct IsoRequest {
    struct usbdevfs_urb urb;
    struct usbdevfs_iso_packet_desc packets[kPackets];
};

static unsigned sysfsValue(const char* dir, const char* name, int base)
{
    char path[300], text[32] = "";
    snprintf(path, sizeof path, "/sys/bus/usb/devices/%s/%s", dir, name);
    FILE* f = fopen(path, "r");
    if (f && !fgets(text, sizeof text, f)) text[0] = 0;
    if (f) fclose(f);
    return (unsigned)strtoul(text, NULL, base);
}

/* The reader's usbfs node, opened read-write; -1 when there is none. */
static int openReaderNode(void)
{
    int fd = -1;
    DIR* d = opendir("/sys/bus/usb/devices");
    struct dirent* e;
    while (fd < 0 && d && (e = readdir(d))) {
        if (sysfsValue(e->d_name, "idVendor", 16) != kVendor || sysfsValue(e->d_name, "idProduct", 16) != kProduct)
            continue;
        char node[64];
        snprintf(node, sizeof node, "/dev/bus/usb/%03u/%03u", sysfsValue(e->d_name, "busnum", 10),
                 sysfsValue(e->d_name, "devnum", 10));
        fd = open(node, O_RDWR | O_CLOEXEC);
    }
    if (d) closedir(d);
    return fd;
}

static void submitIso(int fd, struct IsoRequest* r, uint8_t* buffer)
{
    memset(r, 0, sizeof *r);
    r->urb.type = USBDEVFS_URB_TYPE_ISO;
    r->urb.endpoint = kIsoEndpoint;
    r->urb.flags = USBDEVFS_URB_ISO_ASAP;
    r->urb.buffer = buffer;
    r->urb.buffer_length = kPackets * kPacketSize;
    r->urb.number_of_packets = kPackets;
    for (int k = 0; k < kPackets; k++) r->packets[k].length = kPacketSize;
    if (ioctl(fd, USBDEVFS_SUBMITURB, r) != 0) perror("kbench: submit");
}

static int viaUsbfs(double seconds)
{
    static struct IsoRequest ring[kRing];
    static uint8_t buffers[kRing][kPackets * kPacketSize];
    int fd = openReaderNode();
    if (fd < 0) {
        fprintf(stderr, "kbench: no reader node\n");
        return 1;
    }
    for (int i = 0; i < 2; i++) {
        struct usbdevfs_ioctl detach = {i, USBDEVFS_DISCONNECT, NULL};
        ioctl(fd, USBDEVFS_IOCTL, &detach);
    }
    unsigned int streaming = 1;
    /* VS_COMMIT_CONTROL: format 1, frame 1, 133 ms, 1,310,720-byte frames, 3072-byte payloads. */
    uint8_t commit[26] = {1, 0, 1, 1, 0x50, 0x4B, 0x14, 0, [18] = 0, 0, 0x14, 0, 0, 0x0C, 0, 0};
    struct usbdevfs_ctrltransfer control = {0x21, 0x01, 0x0200, 1, sizeof commit, 1000, commit};
    struct usbdevfs_setinterface alt = {1, 1};
    if (ioctl(fd, USBDEVFS_CLAIMINTERFACE, &streaming) != 0 || ioctl(fd, USBDEVFS_CONTROL, &control) < 0 ||
        ioctl(fd, USBDEVFS_SETINTERFACE, &alt) != 0) {
        perror("kbench: cannot start the stream on usbfs");
        close(fd);
        return 1;
    }
    for (int i = 0; i < kRing; i++) submitIso(fd, &ring[i], buffers[i]);

    const struct timespec gather = {0, 8 * 1000 * 1000};
    const double start = clockSeconds(CLOCK_MONOTONIC);
    struct Sample a = {0};
    struct rusage ru;
    long wakeups0 = 0;
    unsigned long completed = 0, completed0 = 0;
    for (;;) {
        nanosleep(&gather, NULL);
        struct usbdevfs_urb* done;
        while (ioctl(fd, USBDEVFS_REAPURBNDELAY, &done) == 0) {
            struct IsoRequest* r = (struct IsoRequest*)done;
            submitIso(fd, r, buffers[r - ring]);
            completed++;
        }
        if (errno != EAGAIN) {
            perror("kbench: reap");
            break;
        }
        const double now = clockSeconds(CLOCK_MONOTONIC);
        if (a.wall == 0 && now - start >= 1) {
            a = sample();
            getrusage(RUSAGE_SELF, &ru);
            wakeups0 = ru.ru_nvcsw;
            completed0 = completed;
        } else if (a.wall != 0 && now - a.wall >= seconds) {
            break;
        }
    }
    struct Sample b = sample();
    getrusage(RUSAGE_SELF, &ru);
    alt.altsetting = 0;
    ioctl(fd, USBDEVFS_SETINTERFACE, &alt);
    close(fd);
    if (a.wall == 0) return 1;
    const double s = b.wall - a.wall;
    printf("figure kernel_floor_cpu_ms_per_s %.2f\n", (b.cpu - a.cpu) * 1000 / s);
    printf("figure kernel_floor_requests_per_s %.1f\n", (double)(completed - completed0) / s);
    printf("figure kernel_floor_wakeups_per_request %.3f\n",
           (double)(ru.ru_nvcsw - wakeups0) / (double)(completed - completed0 ? completed - completed0 : 1));
    return 0;
}

int main(int argc, char** argv)
{
    setvbuf(stdout, NULL, _IOLBF, 0);
    const double seconds = argc > 2 ? atof(argv[2]) : 5;
    if (argc > 1 && strcmp(argv[1], "ztuvc") == 0) return viaLibrary(seconds);
    if (argc > 1 && strcmp(argv[1], "floor") == 0) return viaUsbfs(seconds);
#ifdef ZTUVC_BENCH_LIBUVC
    if (argc > 1 && strcmp(argv[1], "peer") == 0) return viaPeer(seconds);
#endif
    fprintf(stderr, "usage: ztuvc-kbench ztuvc|peer|floor SECONDS\n");
    return 2;
}
