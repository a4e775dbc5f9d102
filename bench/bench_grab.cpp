// Grab-path cost: the library's real grab thread (USBDVGrabThread) assembles
// 1280 x 1024 frames from recorded-style payload that a usbfs stand-in in
// this binary hands out (it defines ioctl(); valgrind cannot run the
// umockdev-simulated stream at a useful speed).  Run it under
//   valgrind --tool=callgrind --dump-instr=no bench_grab N
// and compare, from callgrind_annotate --inclusive=yes, the cost of
// USBDVGrabThread minus the stand-in (ioctl) per delivered frame with the
// cost of BenchReferenceCopy (called 4 times), one memcpy of 1,310,720 bytes.  Without
// valgrind it prints wall-clock figures only.
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "common/usbtr/usbtrint.h"
#include "lnx/transport/usbtr.h"
#include "stream_fill.h"
#include "../tests/usbfs_standin.h"

namespace {

constexpr int kFd = 0x7B7B;
constexpr uint32_t kPacket = USBVD_ISO_PACKET_SIZE;
constexpr uint32_t kPayload = kPacket - USBVD_PAYLOAD_HEADER_SIZE;

USBTR_CONTEXT* gCtx;
uint64_t gFramesWanted, gFramesDelivered;
StreamFill gStream;
std::deque<usbdevfs_urb*> gCompleted;
std::deque<usbdevfs_urb*> gParked;

// The application: takes each ready frame and gives it back at once.
void TakeFrames()
{
    pthread_mutex_lock(&gCtx->aGrabLock);
    for (int32_t i; (i = LILOGet(gCtx, USBVD_IMAGE_STATE_READY)) >= 0;) {
        gFramesDelivered++;
        LILOPut(gCtx, USBVD_IMAGE_STATE_FREE, uint8_t(i));
    }
    pthread_mutex_unlock(&gCtx->aGrabLock);
}

int Handle(unsigned long request, void* arg)
{
    switch (request) {
    case USBDEVFS_CONTROL:
        return static_cast<usbdevfs_ctrltransfer*>(arg)->wLength;
    case USBDEVFS_SUBMITURB: {
        auto* u = static_cast<usbdevfs_urb*>(arg);
        if (gFramesDelivered >= gFramesWanted) {
            gParked.push_back(u);  // enough: the stream ends
            USBVDSetGrabState(gCtx, USBVD_GRAB_STATE_STOPPED);
        } else {
            gStream.fill(u);
        }
        gCompleted.push_back(u);
        return 0;
    }
    case USBDEVFS_DISCARDURB:
        errno = EINVAL;
        return -1;
    case USBDEVFS_REAPURBNDELAY:
        if (gCompleted.empty()) {
            errno = EAGAIN;
            return -1;
        }
        TakeFrames();
        *static_cast<void**>(arg) = gCompleted.front();
        gCompleted.pop_front();
        return 0;
    default:
        return 0;
    }
}

}  // namespace

ZTUVC_USBFS_STANDIN(kFd, Handle)

// One copy of a 1280 x 1024 image: the yardstick.
extern "C" __attribute__((noinline)) void BenchReferenceCopy(uint8_t* dst, const uint8_t* src, size_t n)
{
    memcpy(dst, src, n);
    asm volatile("" ::"r"(dst) : "memory");
}

// The same bytes in the pieces the stream brings them in (3060 bytes behind
// each 12-byte header): the copy the grab thread cannot avoid, without the
// rest of its work.  glibc copies one large block with "rep movsb", which
// valgrind counts per byte, so both yardsticks are reported.
extern "C" __attribute__((noinline)) void BenchPacketCopy(uint8_t* dst, const uint8_t* src, size_t n)
{
    for (size_t o = 0; o < n; o += kPayload) {
        size_t d = n - o < kPayload ? n - o : kPayload;
        memcpy(dst + o, src + o / kPayload * kPacket + USBVD_PAYLOAD_HEADER_SIZE, d);
        asm volatile("" ::"r"(dst) : "memory");
    }
}

int main(int argc, char** argv)
{
    setenv("ZTTRACE_ON", "0", 1);  // traces off, as in production defaults beyond levels 1-2
    gFramesWanted = argc > 1 ? strtoull(argv[1], nullptr, 10) : 50;

    const USBTR_VIDEO_INFO* pInfo = nullptr;
    for (const USBTR_READER& r : gDeviceTable)
        if (r.aVideoInfo.dwImageWidth == 1280 && r.aVideoInfo.dwImageHeight == 1024)
            pInfo = &r.aVideoInfo;
    if (pInfo == nullptr)
        return 1;
    gStream.start(pInfo->dwImageWidth * pInfo->dwImageHeight);

    gCtx = static_cast<USBTR_CONTEXT*>(calloc(1, sizeof(USBTR_CONTEXT)));
    gCtx->dwMagic = USBTR_CTX_MAGIC;
    gCtx->fdDevice = kFd;
    gCtx->iIsoReadEP = 0x81;
    pthread_mutex_init(&gCtx->aIntReadLock, nullptr);
    pthread_mutex_init(&gCtx->aGrabLock, nullptr);
    pthread_mutex_init(&gCtx->aSyncSlotLock, nullptr);
    gCtx->pVDDeviceInfo = pInfo;
    gCtx->dwFrameInterval = USBTRStreamingInterval(pInfo);
    gCtx->nFrameCount = 4;
    for (uint8_t i = 0; i < 4; i++) {
        gCtx->aLilo[USBVD_IMAGE_STATE_FREE].aIndexes[i] = i;
        gCtx->aImageStates[i] = USBVD_IMAGE_STATE_FREE;
    }
    gCtx->aLilo[USBVD_IMAGE_STATE_FREE].nLength = 4;

    auto t0 = std::chrono::steady_clock::now();
    USBDVGrabThread(gCtx);
    double dGrab = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();

    // The yardstick, in the same run.
    static uint8_t aSrc[1310720], aDst[1310720];
    memset(aSrc, 1, sizeof(aSrc));
    BenchReferenceCopy(aDst, aSrc, sizeof(aSrc));  // pages touched once
    constexpr int kCopies = 4;                        // callgrind: divide by this
    t0 = std::chrono::steady_clock::now();
    for (int i = 1; i < kCopies; i++)
        BenchReferenceCopy(aDst, aSrc, sizeof(aSrc));
    double dCopy = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count() / (kCopies - 1);

    static uint8_t aPackets[(1310720 / kPayload + 1) * kPacket];
    BenchPacketCopy(aDst, aPackets, sizeof(aDst));

    printf("frames delivered: %llu (status %u)\n", (unsigned long long)gFramesDelivered, gCtx->dwGrabStatus);
    printf("wall time per frame: %.1f us; one 1,310,720-byte memcpy: %.1f us\n",
           dGrab * 1e6 / double(gFramesDelivered ? gFramesDelivered : 1), dCopy * 1e6);
    return gFramesDelivered >= gFramesWanted ? 0 : 1;
}
