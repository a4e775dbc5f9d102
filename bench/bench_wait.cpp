// What streaming costs while the library waits: CPU time per second and
// wake-ups of the grab thread per completed request, against a usbfs
// stand-in that completes one request per millisecond in real time and, like
// usbfs, signals POLLOUT on its descriptor while a completion waits to be
// reaped.  The descriptor is an eventfd: a counter at its maximum polls not
// writable, a counter of 0 polls writable.  The library's ioctl() calls on it
// reach the handler below (this binary defines ioctl()); its poll() calls
// reach the kernel.
//   bench_wait SECONDS          stream 1280 x 1024 frames for SECONDS (after 1 s of warm-up)
//   bench_wait libusb SECONDS   the same requests through libusb (built when libusb-1.0 is
//                               there): a ring of 16 isochronous transfers of 8 packets,
//                               resubmitted from their callback, events handled by a thread
//                               of their own as libuvc does; the callback copies nothing
//   bench_wait peer SECONDS     the same, and the callback copies the bytes as libuvc does
//                               (libuvc itself cannot be pointed at a given node: it finds
//                               its devices through libusb's enumeration)
// Figures go to stdout as "figure <name> <value>" lines, a summary to stderr.
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <sys/syscall.h>
#include <dirent.h>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#ifdef ZTUVC_BENCH_LIBUSB
#include <libusb.h>
#include <sys/syscall.h>
#endif

#include "common/usbtr/usbtrint.h"
#include "lnx/transport/usbtr.h"
#include "stream_fill.h"
#include "../tests/usbfs_standin.h"

namespace {

constexpr uint64_t kNotWritable = 0xfffffffffffffffeULL;

// An adaptive lock: it spins a little before it sleeps.  The grab thread,
// woken by the completion, asks for the lock while the bus still holds it for
// a moment; a lock that slept at once would add wake-ups of its own, which the
// kernel's usbfs does not cause.
struct AdaptiveLock {
    pthread_mutex_t m;
    AdaptiveLock()
    {
        pthread_mutexattr_t a;
        pthread_mutexattr_init(&a);
        pthread_mutexattr_settype(&a, PTHREAD_MUTEX_ADAPTIVE_NP);
        pthread_mutex_init(&m, &a);
        pthread_mutexattr_destroy(&a);
    }
    void lock() { pthread_mutex_lock(&m); }
    void unlock() { pthread_mutex_unlock(&m); }
};

int gFd = -1;
AdaptiveLock gLock;
std::deque<usbdevfs_urb*> gInFlight, gCompleted;
uint64_t gReaped;
StreamFill gStream;

// Under gLock: the descriptor polls writable exactly while gCompleted holds a request.
void Signal(bool bReady)
{
    uint64_t v = kNotWritable;
    if (bReady) {
        if (syscall(SYS_read, gFd, &v, sizeof(v)) < 0 && errno != EAGAIN)
            perror("eventfd read");
    } else if (write(gFd, &v, sizeof(v)) < 0) {
        perror("eventfd write");
    }
}

void Complete(usbdevfs_urb* u)
{
    if (gCompleted.empty())
        Signal(true);
    gCompleted.push_back(u);
}

// What a real kernel would have been asked: every ioctl on the node and every
// poll(), each one system call there.
uint64_t gIoctls;
std::atomic<uint64_t> gPolls{0};

int Handle(unsigned long request, void* arg)
{
    std::lock_guard<AdaptiveLock> l(gLock);
    gIoctls++;
    switch (request) {
    case USBDEVFS_CONTROL: {
        auto* c = static_cast<usbdevfs_ctrltransfer*>(arg);
        if (c->bRequest == 8 && c->wLength == 1) /* GET_CONFIGURATION */
            *static_cast<uint8_t*>(c->data) = 1;
        return c->wLength;
    }
    case USBDEVFS_CONNECTINFO:
        static_cast<usbdevfs_connectinfo*>(arg)->devnum = 2;
        static_cast<usbdevfs_connectinfo*>(arg)->slow = 0;
        return 0;
    case USBDEVFS_GET_CAPABILITIES:
        *static_cast<uint32_t*>(arg) = 0;
        return 0;
    case USBDEVFS_SUBMITURB:
        if (static_cast<usbdevfs_urb*>(arg)->type == USBDEVFS_URB_TYPE_ISO)
            gInFlight.push_back(static_cast<usbdevfs_urb*>(arg));
        else
            Complete(static_cast<usbdevfs_urb*>(arg));
        return 0;
    case USBDEVFS_DISCARDURB:
        for (auto it = gInFlight.begin(); it != gInFlight.end(); ++it) {
            if (*it == arg) {
                gInFlight.erase(it);
                static_cast<usbdevfs_urb*>(arg)->status = -ENOENT;
                Complete(static_cast<usbdevfs_urb*>(arg));
                return 0;
            }
        }
        errno = EINVAL;
        return -1;
    case USBDEVFS_REAPURBNDELAY:
        if (gCompleted.empty()) {
            errno = EAGAIN;
            return -1;
        }
        *static_cast<void**>(arg) = gCompleted.front();
        gCompleted.pop_front();
        gReaped++;
        if (gCompleted.empty())
            Signal(false);
        return 0;
    default:
        return 0;
    }
}

// The bus: one request completes per millisecond, on the millisecond.
void Bus(const bool* pbQuit)
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    while (!*static_cast<const volatile bool*>(pbQuit)) {
        t.tv_nsec += 1000000;
        if (t.tv_nsec >= 1000000000) {
            t.tv_nsec -= 1000000000;
            t.tv_sec++;
        }
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &t, nullptr);
        std::lock_guard<AdaptiveLock> l(gLock);
        if (!gInFlight.empty()) {
            usbdevfs_urb* u = gInFlight.front();
            gInFlight.pop_front();
            gStream.fill(u);
            Complete(u);
        }
    }
}

std::set<std::string> Tasks()
{
    std::set<std::string> s;
    if (DIR* d = opendir("/proc/self/task")) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.')
                s.insert(e->d_name);
        closedir(d);
    }
    return s;
}

uint64_t VoluntarySwitches(const std::string& tid)
{
    FILE* f = fopen(("/proc/self/task/" + tid + "/status").c_str(), "re");
    uint64_t n = 0;
    char line[256];
    while (f != nullptr && fgets(line, sizeof(line), f) != nullptr)
        if (sscanf(line, "voluntary_ctxt_switches: %lu", &n) == 1)
            break;
    if (f != nullptr)
        fclose(f);
    return n;
}

double CpuSeconds(clockid_t c)
{
    timespec t;
    clock_gettime(c, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

using Clock = std::chrono::steady_clock;

uint64_t Reaped(uint64_t* pnIoctls = nullptr)
{
    std::lock_guard<AdaptiveLock> l(gLock);
    if (pnIoctls != nullptr)
        *pnIoctls = gIoctls;
    return gReaped;
}

// One measurement window: the CPU time of the waiting thread and of the
// application thread, and the waiting thread's wake-ups (voluntary context
// switches: every time it slept and was woken).
struct Window {
    clockid_t waiter;
    std::string waiterTid;
    double dWall = 0, dWaiterCpu = 0, dAppCpu = 0, dWakeups = 0, dRequests = 0, dIoctls = 0, dPolls = 0;
    Clock::time_point t0;
    double w0 = 0, a0 = 0;
    uint64_t s0 = 0, r0 = 0, i0 = 0, p0 = 0;
    void start()
    {
        t0 = Clock::now();
        w0 = CpuSeconds(waiter);
        a0 = CpuSeconds(CLOCK_THREAD_CPUTIME_ID);
        s0 = VoluntarySwitches(waiterTid);
        r0 = Reaped(&i0);
        p0 = gPolls.load();
    }
    void stop()
    {
        dWall = std::chrono::duration<double>(Clock::now() - t0).count();
        dWaiterCpu = CpuSeconds(waiter) - w0;
        dAppCpu = CpuSeconds(CLOCK_THREAD_CPUTIME_ID) - a0;
        dWakeups = double(VoluntarySwitches(waiterTid) - s0);
        uint64_t i1 = 0;
        dRequests = double(Reaped(&i1) - r0);
        dIoctls = double(i1 - i0);
        dPolls = double(gPolls.load() - p0);
    }
    void report(const char* pszWho, const char* pszWaiter, const char* pszTag, double dFrames) const
    {
        double dCpuMs = (dWaiterCpu + dAppCpu) * 1000.0 / dWall;
        fprintf(stderr,
                "%s on a real-time stand-in: %.0f frames in %.1f s (%.1f/s), %.0f requests completed; CPU %.1f ms/s "
                "(%s %.1f ms/s), its wake-ups %.0f/s = %.2f per completed request\n",
                pszWho, dFrames, dWall, dFrames / dWall, dRequests, dCpuMs, pszWaiter, dWaiterCpu * 1000.0 / dWall,
                dWakeups / dWall, dWakeups / dRequests);
        fprintf(stderr, "  per completed request: %.2f ioctls on the node, %.2f poll() calls\n", dIoctls / dRequests,
                dPolls / dRequests);
        printf("figure %s_ioctls_per_request %.3f\nfigure %s_polls_per_request %.3f\n", pszTag, dIoctls / dRequests,
               pszTag, dPolls / dRequests);
        printf("figure %s_fps %.2f\nfigure %s_cpu_ms_per_s %.2f\nfigure %s_waiter_cpu_ms_per_s %.2f\n"
               "figure %s_wakeups_per_s %.0f\nfigure %s_wakeups_per_request %.3f\n",
               pszTag, dFrames / dWall, pszTag, dCpuMs, pszTag, dWaiterCpu * 1000.0 / dWall, pszTag, dWakeups / dWall,
               pszTag, dWakeups / dRequests);
    }
};

std::string NewTask(const std::set<std::string>& before)
{
    for (const std::string& t : Tasks())
        if (!before.count(t))
            return t;
    return "";
}

Clock::time_point After(double dSeconds)
{
    return Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(dSeconds));
}

// Through this library: its grab thread fills the slots, the application
// takes each frame and gives it back at once.
int RunZtuvc(const USBTR_VIDEO_INFO* pInfo, double dSeconds)
{
    auto* ctx = static_cast<USBTR_CONTEXT*>(calloc(1, sizeof(USBTR_CONTEXT)));
    ctx->dwMagic = USBTR_CTX_MAGIC;
    ctx->fdDevice = gFd;
    ctx->iIsoReadEP = 0x81;
    pthread_mutex_init(&ctx->aIntReadLock, nullptr);
    pthread_mutex_init(&ctx->aGrabLock, nullptr);
    pthread_mutex_init(&ctx->aSyncSlotLock, nullptr);
    USBTROpenWake(ctx);  // as USBTROpen does
    ctx->pVDDeviceInfo = pInfo;
    ctx->dwFrameInterval = USBTRStreamingInterval(pInfo);

    std::set<std::string> before = Tasks();
    if (int32_t s = USBVDStartTransfer(ctx, 4); s != USBTR_STATUS_SUCCESS) {
        fprintf(stderr, "USBVDStartTransfer: %d\n", s);
        return 1;
    }
    Window w;
    w.waiterTid = NewTask(before);
    pthread_getcpuclockid(ctx->aGrabThread, &w.waiter);
    auto Take = [&](Clock::time_point until) {
        int n = 0;
        while (Clock::now() < until) {
            void* p = nullptr;
            if (USBVDGetFrame(ctx, 2000, &p) != USBTR_STATUS_SUCCESS)
                return -1;
            USBVDReleaseFrame(ctx, p);
            n++;
        }
        return n;
    };
    if (Take(After(1.0)) < 0)
        return 1;
    w.start();
    int nFrames = Take(After(dSeconds));
    w.stop();
    USBVDStopTransfer(ctx, 0);
    if (nFrames <= 0)
        return 1;
    w.report("libztuvc", "grab thread", "wait", nFrames);
    return 0;
}

#ifdef ZTUVC_BENCH_LIBUSB
// The descriptors libusb reads from the node: a device with one
// configuration, a control interface and a streaming interface whose
// alternate setting 1 has the isochronous IN endpoint 0x81 (3 x 1024 bytes).
const uint8_t kDescriptors[] = {
    18, 1, 0x00, 0x02, 0xEF, 0x02, 0x01, 64, 0x34, 0x12, 0x78, 0x56, 0x00, 0x01, 0, 0, 0, 1,
    9, 2, 43, 0, 2, 1, 0, 0x80, 250,
    9, 4, 0, 0, 0, 0x0E, 0x01, 0x00, 0,
    9, 4, 1, 0, 0, 0x0E, 0x02, 0x00, 0,
    9, 4, 1, 1, 1, 0x0E, 0x02, 0x00, 0,
    7, 5, 0x81, 0x05, 0x00, 0x14, 1,
};
size_t gReadOffset;

std::atomic<unsigned> gPeerPackets{0};
std::atomic<bool> gPeerStop{false};
bool gPeerCopies;
std::vector<uint8_t> gPeerOut(USBVD_IMAGE_BUFFER_SIZE), gPeerFrame(USBVD_IMAGE_BUFFER_SIZE);
uint32_t gPeerGot;
int gPeerFid = -1;

// With copies, what libuvc does with the bytes: each payload into the frame
// being filled, and at the change of the frame identifier the finished frame
// once more into the frame handed to the application (libuvc makes that copy
// in a thread of its own; here the event thread makes it).
void PeerPacket(const uint8_t* p, uint32_t n)
{
    gPeerPackets++;
    if (!gPeerCopies)
        return;
    int fid = p[1] & 1;
    if (fid != gPeerFid) {
        if (gPeerGot != 0)
            memcpy(gPeerFrame.data(), gPeerOut.data(), gPeerGot);
        gPeerGot = 0;
        gPeerFid = fid;
    }
    uint32_t d = n - USBVD_PAYLOAD_HEADER_SIZE;
    if (gPeerGot + d <= gPeerOut.size()) {
        memcpy(gPeerOut.data() + gPeerGot, p + USBVD_PAYLOAD_HEADER_SIZE, d);
        gPeerGot += d;
    }
}

void LIBUSB_CALL OnTransfer(libusb_transfer* t)
{
    if (t->status == LIBUSB_TRANSFER_COMPLETED)
        for (int k = 0; k < t->num_iso_packets; k++)
            if (t->iso_packet_desc[k].actual_length > USBVD_PAYLOAD_HEADER_SIZE)
                PeerPacket(libusb_get_iso_packet_buffer_simple(t, unsigned(k)), t->iso_packet_desc[k].actual_length);
    if (!gPeerStop.load() && t->status == LIBUSB_TRANSFER_COMPLETED)
        libusb_submit_transfer(t);
}

// The same requests through libusb, as libuvc drives it.
int RunLibusb(double dSeconds, bool bCopies)
{
    gPeerCopies = bCopies;
    libusb_set_option(nullptr, LIBUSB_OPTION_NO_DEVICE_DISCOVERY);
    libusb_context* lctx = nullptr;
    libusb_device_handle* h = nullptr;
    if (libusb_init(&lctx) != 0 || libusb_wrap_sys_device(lctx, gFd, &h) != 0 || libusb_claim_interface(h, 1) != 0 ||
        libusb_set_interface_alt_setting(h, 1, 1) != 0) {
        fprintf(stderr, "libusb could not open the stand-in\n");
        return 1;
    }
    std::vector<libusb_transfer*> ring;
    for (uint32_t i = 0; i < USBVD_ISO_REQUEST_COUNT; i++) {
        libusb_transfer* t = libusb_alloc_transfer(USBVD_ISO_PACKET_COUNT);
        auto* buf = static_cast<unsigned char*>(malloc(USBVD_ISO_BUFFER_SIZE));
        libusb_fill_iso_transfer(t, h, 0x81, buf, USBVD_ISO_BUFFER_SIZE, USBVD_ISO_PACKET_COUNT, OnTransfer, nullptr,
                                 0);
        libusb_set_iso_packet_lengths(t, USBVD_ISO_PACKET_SIZE);
        ring.push_back(t);
    }
    std::set<std::string> before = Tasks();
    std::atomic<bool> quit{false};
    pthread_t events;
    auto Loop = [](void* p) -> void* {
        auto* q = static_cast<std::pair<libusb_context*, std::atomic<bool>*>*>(p);
        while (!q->second->load())
            libusb_handle_events(q->first);
        return nullptr;
    };
    std::pair<libusb_context*, std::atomic<bool>*> arg(lctx, &quit);
    pthread_create(&events, nullptr, Loop, &arg);
    for (libusb_transfer* t : ring)
        libusb_submit_transfer(t);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    Window w;
    w.waiterTid = NewTask(before);
    pthread_getcpuclockid(events, &w.waiter);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    unsigned p0 = gPeerPackets.load();
    w.start();
    std::this_thread::sleep_until(After(dSeconds));
    w.stop();
    unsigned p1 = gPeerPackets.load();
    gPeerStop = true;
    for (libusb_transfer* t : ring)
        libusb_cancel_transfer(t);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    quit = true;
    libusb_interrupt_event_handler(lctx);
    pthread_join(events, nullptr);
    w.report(bCopies ? "libusb + libuvc's copies" : "libusb alone", "event thread",
             bCopies ? "wait_peer" : "wait_libusb", double(p1 - p0) / gStream.packetsOfFrame);
    for (libusb_transfer* t : ring) {
        free(t->buffer);
        libusb_free_transfer(t);
    }
    libusb_release_interface(h, 1);
    libusb_close(h);
    libusb_exit(lctx);
    return 0;
}
#endif

}  // namespace

ZTUVC_USBFS_STANDIN(gFd, Handle)

extern "C" int poll(pollfd* pFds, nfds_t n, int iTimeout)
{
    gPolls++;
    return int(syscall(SYS_poll, pFds, n, iTimeout));
}

#ifdef ZTUVC_BENCH_LIBUSB
// libusb reads the descriptors from the node it was given.
extern "C" ssize_t read(int fd, void* buf, size_t n)
{
    if (fd != gFd)
        return syscall(SYS_read, fd, buf, n);
    size_t left = gReadOffset < sizeof(kDescriptors) ? sizeof(kDescriptors) - gReadOffset : 0;
    n = n < left ? n : left;
    memcpy(buf, kDescriptors + gReadOffset, n);
    gReadOffset += n;
    return ssize_t(n);
}
extern "C" off_t lseek(int fd, off_t offset, int whence) noexcept
{
    if (fd != gFd)
        return off_t(syscall(SYS_lseek, fd, offset, whence));
    gReadOffset = size_t(offset);
    return offset;
}
#endif

int main(int argc, char** argv)
{
    prctl(PR_SET_TIMERSLACK, 1);
    setenv("ZTTRACE_ON", "0", 1);
    bool bCopies = argc > 1 && strcmp(argv[1], "peer") == 0;
    bool bLibusb = bCopies || (argc > 1 && strcmp(argv[1], "libusb") == 0);
    double dSeconds = argc > 1 + bLibusb ? atof(argv[1 + bLibusb]) : 5.0;

    const USBTR_VIDEO_INFO* pInfo = nullptr;
    for (const USBTR_READER& r : gDeviceTable)
        if (r.aVideoInfo.dwImageWidth == 1280 && r.aVideoInfo.dwImageHeight == 1024)
            pInfo = &r.aVideoInfo;
    gFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (pInfo == nullptr || gFd < 0)
        return 1;
    Signal(false);
    gStream.start(pInfo->dwImageWidth * pInfo->dwImageHeight);

    bool bQuit = false;
    std::thread bus(Bus, &bQuit);
    int rc = 2;
    if (!bLibusb)
        rc = RunZtuvc(pInfo, dSeconds);
#ifdef ZTUVC_BENCH_LIBUSB
    else
        rc = RunLibusb(dSeconds, bCopies);
#else
    else
        fprintf(stderr, "built without libusb\n");
#endif
    bQuit = true;
    bus.join();
    return rc;
}
