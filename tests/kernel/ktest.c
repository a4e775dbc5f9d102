/* Guest side of the kernel lane: runs inside the QEMU guest against the real
 * kernel (sysfs, usbfs, uvcvideo) and a reader served over usbredir.  Each
 * subcommand exits 0 when all its checks held, prints "KFAIL" lines for the
 * ones that did not, and "@@unplug" / "@@plug" when it needs the host
 * harness to detach or attach the reader.  Frame rates and timings are
 * printed as "KINFO" lines, never checked. */
#include "ztuvc.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static int fails;
#define CHECK(c, ...)                                                  \
    do {                                                               \
        if (!(c)) {                                                    \
            ++fails;                                                   \
            printf("KFAIL %s:%d %s: ", __func__, __LINE__, #c);        \
            printf(__VA_ARGS__);                                       \
            printf("\n");                                              \
        }                                                              \
    } while (0)

/* The simulated reader's content: test pattern, flash and power-on registers. */
static uint8_t pixel(uint32_t frame, uint32_t offset) {
    if (offset < 4) return (uint8_t)(frame >> (8 * offset));
    uint32_t x = offset * 0x9E3779B1u ^ (frame * 0x85EBCA77u + 0x165667B1u);
    x ^= x >> 15;
    x *= 0x2C1B3C6Du;
    x ^= x >> 12;
    x *= 0x297A2D39u;
    x ^= x >> 15;
    return (uint8_t)(x >> 24);
}
static uint8_t flashByte(uint32_t a) {
    a %= 1u << 20;
    uint32_t x = a * 0x45D9F3Bu + 0x1234567u;
    x ^= x >> 16;
    return (uint8_t)(x ^ (a >> 8));
}
static uint8_t defaultRegister(uint16_t a) { return a == 0xF000 ? 0 : (uint8_t)((a * 31u) ^ (a >> 8) ^ 0x5A); }

static double now(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec + t.tv_nsec / 1e9;
}

/* The reader's sysfs directory name ("1-1"), or "" when it is not attached. */
static const char* readerSysfs(void) {
    static char name[256];
    name[0] = 0;
    DIR* d = opendir("/sys/bus/usb/devices");
    struct dirent* e;
    while (d && (e = readdir(d))) {
        char p[300], v[16] = "";
        snprintf(p, sizeof p, "/sys/bus/usb/devices/%s/idVendor", e->d_name);
        FILE* f = fopen(p, "r");
        if (!f) continue;
        if (fgets(v, sizeof v, f) && strncmp(v, "3a5c", 4) == 0) snprintf(name, sizeof name, "%s", e->d_name);
        fclose(f);
    }
    if (d) closedir(d);
    return name;
}
/* Results live in a small ring of buffers: one printf may use several. */
static char* ring(void) {
    static char b[8][256];
    static int i;
    return b[i++ & 7];
}
static const char* attr(const char* dev, const char* a) {
    char* v = ring();
    char p[300];
    v[0] = 0;
    snprintf(p, sizeof p, "/sys/bus/usb/devices/%s/%s", dev, a);
    FILE* f = fopen(p, "r");
    if (f) {
        if (!fgets(v, 256, f)) v[0] = 0;
        fclose(f);
    }
    v[strcspn(v, "\n")] = 0;
    return v;
}
/* Driver bound to interface `ifc` of the reader ("" when none). */
static const char* driverOf(const char* dev, int ifc) {
    char* v = ring();
    char p[300], t[256];
    snprintf(p, sizeof p, "/sys/bus/usb/devices/%s:1.%d/driver", dev, ifc);
    ssize_t n = readlink(p, t, sizeof t - 1);
    t[n > 0 ? n : 0] = 0;
    snprintf(v, 256, "%s", strrchr(t, '/') ? strrchr(t, '/') + 1 : t);
    return v;
}
static int openFds(void) {
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    while (d && readdir(d)) ++n;
    if (d) closedir(d);
    return n;
}
static int waitFor(const char* what, int attached, double seconds) {
    const double end = now() + seconds;
    while (now() < end) {
        if ((readerSysfs()[0] != 0) == attached) return 1;
        usleep(20000);
    }
    printf("KFAIL %s: reader still %s after %.0f s\n", what, attached ? "absent" : "present", seconds);
    return 0;
}

static CAMERA_HANDLE first(void) {
    camera_device_enumerate(NULL, 0);
    return camera_device_count() ? camera_get_by_index(0) : NULL;
}

/* Captures n frames, then checks them: every byte as the pattern, numbers
 * consecutive.  Checking after the capture keeps it from slowing the stream. */
static void capture(CAMERA_HANDLE h, uint32_t size, int n, const char* what) {
    uint8_t* all = malloc((size_t)size * n);
    int lost = 0, bad = 0, got = 0;
    double t0 = now();
    for (; got < n; ++got) {
        void* img = NULL;
        int32_t r = camera_get_image(h, 2000, &img);
        CHECK(r == 0, "%s: frame %d: get_image %d", what, got, r);
        if (r != 0) break;
        memcpy(all + (size_t)size * got, img, size);
        camera_put_image(h, img);
        if (got == 0) t0 = now();
    }
    printf("KINFO %s: %d frames, %.1f frames/s\n", what, got, (got - 1) / (now() - t0));
    uint32_t prev = 0;
    for (int i = 0; i < got; ++i) {
        const uint8_t* p = all + (size_t)size * i;
        const uint32_t f = p[0] | p[1] << 8 | p[2] << 16 | (uint32_t)p[3] << 24;
        for (uint32_t o = 0; o < size; ++o)
            if (p[o] != pixel(f, o)) {
                if (!bad++) printf("KFAIL %s: frame %u: byte %u is %u, not %u\n", what, f, o, p[o], pixel(f, o));
                break;
            }
        if (i > 0 && f != prev + 1) {
            printf("KINFO %s: frame %u follows %u\n", what, f, prev);
            lost += (int)(f - prev - 1);
        }
        prev = f;
    }
    free(all);
    CHECK(bad == 0, "%s: %d frames not byte-exact", what, bad);
    CHECK(lost == 0, "%s: %d frames lost", what, lost);
}

static int cmdEnum(const char* product) {
    camera_init();
    CAMERA_HANDLE h = first();
    const char* dev = readerSysfs();
    CHECK(camera_device_count() == 1 && h, "%u cameras", camera_device_count());
    if (!h) return 1;
    char name[300];
    snprintf(name, sizeof name, "%s_%s_%s_%03d_%s", attr(dev, "idVendor"), attr(dev, "idProduct"), attr(dev, "bcdDevice"),
             atoi(attr(dev, "busnum")), dev);
    CHECK(strcmp(camera_get_filename(h), name) == 0, "name %s, sysfs %s", camera_get_filename(h), name);
    CHECK(camera_get_vid(h) == (int32_t)strtol(attr(dev, "idVendor"), NULL, 16), "vid %x", camera_get_vid(h));
    CHECK(camera_get_pid(h) == (int32_t)strtol(attr(dev, "idProduct"), NULL, 16), "pid %x", camera_get_pid(h));
    CHECK(camera_get_revision(h) == (int32_t)strtol(attr(dev, "bcdDevice"), NULL, 16), "rev %x", camera_get_revision(h));
    CHECK(strcmp(camera_get_product_name(h), product) == 0 && strcmp(attr(dev, "product"), product) == 0,
          "product '%s', sysfs '%s'", camera_get_product_name(h), attr(dev, "product"));
    CHECK(strcmp(camera_get_manufacturer_name(h), attr(dev, "manufacturer")) == 0, "manufacturer '%s'",
          camera_get_manufacturer_name(h));
    CHECK(strcmp(camera_get_serialnumber(h), attr(dev, "serial")) == 0 && strncmp(attr(dev, "serial"), "SIM", 3) == 0,
          "serial '%s', sysfs '%s'", camera_get_serialnumber(h), attr(dev, "serial"));
    camera_cleanup();
    return 0;
}

/* A second process opening the same reader. */
static int cmdBusy(void) {
    camera_init();
    CAMERA_HANDLE h = first();
    int32_t r = h ? camera_open(h) : 99;
    camera_cleanup();
    return r == CAMERA_ERR_NO_DEVICE ? 0 : 1;
}

static int cmdOpen(const char* self) {
    const char* dev = readerSysfs();
    char d[256];
    snprintf(d, sizeof d, "%s", dev);
    CHECK(strcmp(driverOf(d, 0), "uvcvideo") == 0, "before open: interface 0 bound to '%s'", driverOf(d, 0));
    /* uvcvideo's node held open by another process during our open: it
     * reads once we have the reader and exits 0 when that gives ENODEV. */
    int go[2], ready[2];
    if (pipe(go) != 0 || pipe(ready) != 0) return 1;
    pid_t holder = fork();
    if (holder == 0) {
        int video = open("/dev/video0", O_RDWR);
        char b[16];
        if (write(ready[1], video >= 0 ? "y" : "n", 1) != 1 || read(go[0], b, 1) != 1) _exit(3);
        errno = 0;
        _exit(video >= 0 && read(video, b, sizeof b) < 0 && errno == ENODEV ? 0 : 1);
    }
    char b = 0;
    CHECK(read(ready[0], &b, 1) == 1 && b == 'y', "/dev/video0 could not be opened");
    camera_init();
    CAMERA_HANDLE h = first();
    int32_t r = h ? camera_open(h) : 99;
    CHECK(r == 0, "open %d", r);
    if (r != 0) return 1;
    printf("KINFO open: interface 0 '%s', interface 1 '%s', configuration %s\n", driverOf(d, 0), driverOf(d, 1),
           attr(d, "bConfigurationValue"));
    CHECK(strcmp(driverOf(d, 0), "uvcvideo") != 0 && strcmp(driverOf(d, 1), "usbfs") == 0,
          "after open: interfaces bound to '%s', '%s'", driverOf(d, 0), driverOf(d, 1));
    CHECK(strcmp(attr(d, "bConfigurationValue"), "1") == 0, "configuration '%s'", attr(d, "bConfigurationValue"));
    int st = 0;
    CHECK(write(go[1], "g", 1) == 1 && waitpid(holder, &st, 0) == holder && WIFEXITED(st) && WEXITSTATUS(st) == 0,
          "the process holding /dev/video0 did not read ENODEV (%d)", st);
    pid_t pid = fork();
    if (pid == 0) {
        execl("/proc/self/exe", self, "busy", (char*)NULL);
        _exit(2);
    }
    waitpid(pid, &st, 0);
    CHECK(WIFEXITED(st) && WEXITSTATUS(st) == 0, "a second process did not get CAMERA_ERR_NO_DEVICE (%d)", st);
    CHECK(camera_xu_sensor_read(h, 0x1234) == defaultRegister(0x1234), "register after the busy attempt");
    camera_close(h);
    camera_cleanup();
    return 0;
}

static int cmdRegs(void) {
    camera_init();
    CAMERA_HANDLE h = first();
    CHECK(h && camera_open(h) == 0, "open");
    for (uint32_t a = 0x0100; a < 0x0110; ++a) CHECK(camera_xu_sensor_read(h, a) == defaultRegister(a), "reg %x", a);
    for (uint32_t a = 0x0200; a < 0x0210; ++a) CHECK(camera_xu_sensor_write(h, a, (int32_t)(a * 7 + 1)) == 0, "write %x", a);
    for (uint32_t a = 0x0200; a < 0x0210; ++a) CHECK(camera_xu_sensor_read(h, a) == (int32_t)((a * 7 + 1) & 0xFF), "reread %x", a);
    CHECK(camera_xu_get_finger(h) == 0, "finger %d", camera_xu_get_finger(h));
    CHECK(camera_xu_set_finger(h, 1) == 0 && camera_xu_get_finger(h) == 1, "finger set");
    static uint8_t flash[4099];
    CHECK(camera_xu_flash_read(h, 0x7FFD, sizeof flash, flash) == 0, "flash read");
    for (uint32_t i = 0; i < sizeof flash; ++i)
        if (flash[i] != flashByte(0x7FFD + i)) {
            CHECK(0, "flash byte %u: %u, not %u", i, flash[i], flashByte(0x7FFD + i));
            break;
        }
    camera_close(h);
    camera_cleanup();
    return 0;
}

static int cmdCapture(int frames, uint32_t intervalMs) {
    camera_init();
    CAMERA_HANDLE h = first();
    CHECK(h && camera_open(h) == 0, "open");
    CAMERA_FORMAT fmt;
    CHECK(camera_set_format(h, &fmt) == 0, "format");
    uint32_t iv = intervalMs, got = 0;
    CHECK(camera_set_frame_interval(h, &iv) == 0 && iv == intervalMs, "interval %u", iv);
    CHECK(camera_get_frame_interval(h, &got) == 0 && got == intervalMs, "interval read back %u", got);
    for (int round = 0; round < 2; ++round) {
        double t = now();
        int32_t r = camera_start_capture(h, 0);
        CHECK(r == 0, "start %d: %d", round, r);
        printf("KINFO start %d: %.0f ms\n", round, (now() - t) * 1000);
        capture(h, fmt.dwImageSize, round ? frames / 2 : frames, round ? "capture again" : "capture");
        CHECK(camera_stop_capture(h) == 0, "stop %d", round);
    }
    CHECK(camera_start_capture(h, 0) == 0, "start for flush");
    void* img = NULL;
    CHECK(camera_get_image(h, 2000, &img) == 0, "frame before flush");
    uint32_t before = img ? *(uint32_t*)img : 0;
    if (img) camera_put_image(h, img);
    usleep(300000);
    CHECK(camera_flush(h) == 0, "flush");
    img = NULL;
    CHECK(camera_get_image(h, 2000, &img) == 0, "frame after flush");
    if (img) {
        uint32_t after = *(uint32_t*)img;
        printf("KINFO flush: frame %u before, %u after\n", before, after);
        CHECK(after > before + 1 && after - before < 100, "after flush: frame %u follows %u", after, before);
        camera_put_image(h, img);
    }
    CHECK(camera_stop_capture(h) == 0, "stop after flush");
    camera_close(h);
    camera_cleanup();
    return 0;
}

static int cmdUnplug(void) {
    camera_init();
    int fds = openFds();
    CAMERA_HANDLE h = first();
    CAMERA_FORMAT fmt;
    CHECK(h && camera_open(h) == 0 && camera_set_format(h, &fmt) == 0, "open");
    CHECK(camera_start_capture(h, 0) == 0, "start");
    capture(h, fmt.dwImageSize, 5, "before unplug");
    printf("@@unplug\n");
    fflush(stdout);
    const double t = now();
    void* img = NULL;
    int32_t r = 0;
    for (int i = 0; i < 100 && r == 0; ++i) {
        r = camera_get_image(h, 1000, &img);
        if (r == 0) camera_put_image(h, img);
    }
    printf("KINFO unplug: get_image %d after %.0f ms\n", r, (now() - t) * 1000);
    CHECK(r == CAMERA_ERR_FAILURE || r == CAMERA_ERR_TIMEOUT, "get_image after unplug: %d", r);
    CHECK(camera_stop_capture(h) == 0, "stop after unplug");
    camera_close(h);
    CHECK(openFds() == fds, "%d descriptors open, %d before", openFds(), fds);
    waitFor("unplug", 0, 10);
    camera_device_enumerate(NULL, 0);
    CHECK(camera_device_count() == 0, "%u cameras after unplug", camera_device_count());
    printf("@@plug\n");
    fflush(stdout);
    waitFor("replug", 1, 20);
    h = first();
    CHECK(h && camera_open(h) == 0 && camera_set_format(h, &fmt) == 0, "open after replug");
    CHECK(camera_start_capture(h, 0) == 0, "start after replug");
    capture(h, fmt.dwImageSize, 10, "after replug");
    CHECK(camera_stop_capture(h) == 0, "stop after replug");
    camera_close(h);
    camera_cleanup();
    return 0;
}

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    setvbuf(stdout, NULL, _IOLBF, 0);
    const char* c = argv[1];
    int r;
    if (!strcmp(c, "busy")) return cmdBusy();
    /* Every subcommand runs in its own process. */
    if (!strcmp(c, "enum") && argc == 3) r = cmdEnum(argv[2]);
    else if (!strcmp(c, "open")) r = cmdOpen(argv[0]);
    else if (!strcmp(c, "regs")) r = cmdRegs();
    else if (!strcmp(c, "capture") && argc == 4) r = cmdCapture(atoi(argv[2]), (uint32_t)atoi(argv[3]));
    else if (!strcmp(c, "unplug")) r = cmdUnplug();
    else return 2;
    return r || fails;
}
