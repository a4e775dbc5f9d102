// Fuzz target: the isochronous payload stream as the grab thread sees it.
//
// The real grab thread (USBDVGrabThread, run on the calling thread) streams
// from a stand-in for usbfs: this binary defines ioctl(), and every ioctl on
// the stand-in's descriptor is answered here.  The input chooses the reader
// model, the slot count, how the stream ends and a list of packets (sizes,
// header bytes and FID patterns, whole frames of any length, URB breaks,
// over-long actual lengths).  Besides the sanitizers, an independent model
// of the frame assembly predicts which frames are delivered and their bytes;
// every delivered frame must match it, and no URB may be left with the
// stand-in when the thread has ended a stop.
//
// Input layout: [model][slots][flags] then operations (see BuildStream).
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#include "common/usbtr/usbtrint.h"
#include "lnx/transport/usbtr.h"
#include "../usbfs_standin.h"

namespace {

constexpr int kFd = 0x7A7A;  // never a real descriptor of this process
constexpr size_t kMaxPackets = 3000;
constexpr uint32_t kPacket = USBVD_ISO_PACKET_SIZE;
constexpr uint32_t kHeader = USBVD_PAYLOAD_HEADER_SIZE;

enum Flags : uint8_t {
    kDrain = 1,         // the application takes every ready frame at each reap
    kEndByUnplug = 2,   // else the stream ends by a stop
    kCommitFails = 4,
    kSetAltFails = 8,
    kSubmitFails = 16,  // one of the first 16 submissions is refused
};

struct Packet {
    uint32_t actual;   // actual_length reported (may exceed the packet size)
    uint8_t hdr0, hdr1;
    uint32_t seed;     // image byte counter of its first payload byte
};

struct Urb {
    Packet packets[USBVD_ISO_PACKET_COUNT];
    uint32_t n = 0;
};

// Image bytes: byte c of the stream is gPattern[c % 65536]; a shift, a gap
// or a repeat shows.  The table runs on by a packet so that any packet's
// bytes are one contiguous piece of it.
constexpr uint32_t kPatternPeriod = 65536;
uint8_t gPattern[kPatternPeriod + kPacket];

inline const uint8_t* PatternAt(uint32_t c)
{
    return gPattern + (c % kPatternPeriod);
}

// A delivered frame as the model expects it: pieces of the stream in order.
struct Piece {
    uint32_t seed, length;
};
using Frame = std::vector<Piece>;

// ------------------------------------------------------------ input

struct Reader {
    const uint8_t* p;
    size_t n;
    uint8_t byte() { return n ? (n--, *p++) : 0; }
    uint16_t word() { uint16_t lo = byte(); return uint16_t(lo | (byte() << 8)); }
};

// Operations (low 3 bits of the opcode):
//   0 packet: length (word, mod 3073, or raw when opcode bit 7), header bytes
//   1 whole frame: image bytes per packet (word), size delta (signed byte x 61)
//   2 zero-length packet      3 packet of 1..11 bytes
//   4 URB break (the rest of this URB carries nothing)
//   5 header-only packet, FID from opcode bit 3, EOF bit 4
//   6 several frames of the right size (count from the next byte)
//   7 a run of zero-length packets (count)
std::vector<Urb> BuildStream(Reader in, uint32_t nImage)
{
    std::vector<Urb> urbs(1);
    size_t nPackets = 0;
    uint32_t nCounter = 0;
    bool bFid = false;
    auto push = [&](uint32_t actual, uint8_t hdr0, uint8_t hdr1) {
        if (urbs.back().n == USBVD_ISO_PACKET_COUNT)
            urbs.emplace_back();
        Packet& k = urbs.back().packets[urbs.back().n++];
        k.actual = actual;
        k.hdr0 = hdr0;
        k.hdr1 = hdr1;
        k.seed = nCounter;
        uint32_t nBytes = actual > kPacket ? kPacket : actual;
        if (nBytes > kHeader)
            nCounter += nBytes - kHeader;
        nPackets++;
    };
    auto frame = [&](uint32_t per, int32_t delta) {
        bFid = !bFid;
        int64_t nLeft = int64_t(nImage) + delta;
        if (nLeft < 0)
            nLeft = 0;
        do {
            uint32_t d = uint32_t(nLeft < per ? nLeft : per);
            nLeft -= d;
            uint8_t bInfo = uint8_t(0x80 | 0x0C | (bFid ? 1 : 0) | (nLeft == 0 ? 2 : 0));
            push(kHeader + d, 12, bInfo);
        } while (nLeft > 0 && nPackets < kMaxPackets);
    };

    while (in.n > 0 && nPackets < kMaxPackets) {
        uint8_t op = in.byte();
        switch (op & 7) {
        case 0: {
            uint16_t w = in.word();
            uint32_t len = (op & 0x80) ? w : w % (kPacket + 1);
            uint8_t h0 = in.byte(), h1 = in.byte();
            push(len, h0, h1);
            if (len >= kHeader)
                bFid = h1 & 1;
            break;
        }
        case 1: {
            uint32_t per = 1 + in.word() % (kPacket - kHeader);
            int32_t delta = int8_t(in.byte()) * 61;
            frame(per, delta);
            break;
        }
        case 2:
            push(0, 0, 0);
            break;
        case 3:
            push(1 + op % 11, 12, uint8_t(op >> 3));
            break;
        case 4:
            if (urbs.back().n != 0)
                urbs.back().n = USBVD_ISO_PACKET_COUNT;  // the rest stays empty
            break;
        case 5:
            bFid = (op >> 3) & 1;
            push(kHeader, 12, uint8_t(0x80 | (bFid ? 1 : 0) | ((op >> 3) & 2)));
            break;
        case 6: {
            unsigned nFrames = 1 + in.byte() % 4;
            for (unsigned f = 0; f < nFrames && nPackets < kMaxPackets; f++)
                frame(kPacket - kHeader, 0);
            break;
        }
        default: {
            unsigned nEmpty = 1 + in.byte() % 32;
            for (unsigned e = 0; e < nEmpty; e++)
                push(0, 0, 0);
            break;
        }
        }
    }
    // Unused packet places of a broken URB are zero-length.
    for (Urb& u : urbs)
        for (uint32_t k = u.n; k < USBVD_ISO_PACKET_COUNT; k++)
            u.packets[k] = Packet{0, 0, 0, 0};
    return urbs;
}

// ------------------------------------------------------------ model

// What the application should get: the frames, in order, as hashes of their
// bytes.  Written from the stream's rules, not from the library's code.
struct Model {
    uint32_t nImage = 0;
    uint32_t nSlots = 0;
    bool bDrain = false;
    uint32_t nOffset = 0;
    int iLastFid = -1;
    bool bOverflow = false;
    bool bHaveSlot = false;
    uint32_t nFree = 0, nReady = 0;
    Frame current;
    std::vector<Frame> frames;

    void start(uint32_t image, uint32_t slots, bool drain)
    {
        nImage = image;
        nSlots = slots;
        bDrain = drain;
        nOffset = image;  // the first boundary looks like the end of a whole frame
        iLastFid = -1;
        bOverflow = false;
        bHaveSlot = false;
        nFree = slots;
        nReady = 0;
        current.clear();
        frames.clear();
    }
    void boundary(int fid)
    {
        if (nOffset == nImage && !bOverflow) {
            if (bHaveSlot) {
                frames.push_back(current);
                nReady++;
            }
            bHaveSlot = nFree > 0;
            if (bHaveSlot)
                nFree--;
        }
        iLastFid = fid;
        nOffset = 0;
        bOverflow = false;
        current.clear();
    }
    void urb(const Urb& u)
    {
        if (bDrain) {  // the application gave every ready frame back
            nFree += nReady;
            nReady = 0;
        }
        for (const Packet& k : u.packets) {
            uint32_t n = k.actual > kPacket ? kPacket : k.actual;
            if (n < kHeader)
                continue;
            int fid = k.hdr1 & 1;
            if (fid != iLastFid)
                boundary(fid);
            uint32_t d = n - kHeader;
            if (d > nImage - nOffset) {
                d = nImage - nOffset;
                bOverflow = true;
            }
            if (bHaveSlot && d != 0)
                current.push_back(Piece{k.seed, d});
            nOffset += d;
        }
    }
};

// ------------------------------------------------------------ stand-in

struct Kernel {
    USBTR_CONTEXT* ctx = nullptr;
    const std::vector<Urb>* urbs = nullptr;
    size_t nextUrb = 0;           // stream position of the next ISO submission
    std::deque<usbdevfs_urb*> completed;
    std::deque<usbdevfs_urb*> inflight;
    const std::vector<Frame>* expected = nullptr;
    size_t nDelivered = 0;
    uint32_t nImage = 0;
    uint8_t flags = 0;
    unsigned submitFailAt = 0;    // 1-based ISO submission that is refused
    unsigned isoSubmits = 0;
    bool gone = false;
    bool endReached = false;
};

Kernel gK;

void Drain()
{
    USBTR_CONTEXT* ctx = gK.ctx;
    pthread_mutex_lock(&ctx->aGrabLock);
    for (;;) {
        int32_t i = LILOGet(ctx, USBVD_IMAGE_STATE_READY);
        if (i < 0)
            break;
        if (uint32_t(i) >= ctx->nFrameCount)
            abort();  // a slot index the stream was never given
        const uint8_t* pSlot = ctx->aImages[i];
        if (gK.expected != nullptr) {
            if (gK.nDelivered >= gK.expected->size()) {
                fprintf(stderr, "frame %zu delivered, only %zu expected\n", gK.nDelivered, gK.expected->size());
                abort();
            }
            uint32_t nOffset = 0;
            for (const Piece& p : (*gK.expected)[gK.nDelivered]) {
                if (memcmp(pSlot + nOffset, PatternAt(p.seed), p.length) != 0) {
                    fprintf(stderr, "frame %zu differs in bytes %u..%u\n", gK.nDelivered, nOffset,
                            nOffset + p.length - 1);
                    abort();
                }
                nOffset += p.length;
            }
            if (nOffset != gK.nImage)
                abort();  // the model's frame is not whole: the model is wrong
        }
        gK.nDelivered++;
        LILOPut(ctx, USBVD_IMAGE_STATE_FREE, uint8_t(i));
    }
    pthread_mutex_unlock(&ctx->aGrabLock);
}

int Fail(int err)
{
    errno = err;
    return -1;
}

void FillIso(usbdevfs_urb* u, const Urb& src)
{
    auto* buf = static_cast<uint8_t*>(u->buffer);
    int total = 0;
    for (int k = 0; k < u->number_of_packets && k < int(USBVD_ISO_PACKET_COUNT); k++) {
        const Packet& p = src.packets[k];
        uint8_t* d = buf + size_t(k) * kPacket;
        uint32_t n = p.actual > kPacket ? kPacket : p.actual;
        if (n > 0)
            d[0] = p.hdr0;
        if (n > 1)
            d[1] = p.hdr1;
        for (uint32_t j = 2; j < n && j < kHeader; j++)
            d[j] = uint8_t(j * 17);
        if (n > kHeader)
            memcpy(d + kHeader, PatternAt(p.seed), n - kHeader);
        // ZTUVC_FUZZ_SELFTEST: one wrong byte on the wire, which the check must catch
        static const bool bSelfTest = getenv("ZTUVC_FUZZ_SELFTEST") != nullptr;
        if (bSelfTest && n > kHeader + 100 && p.seed > 400000)
            d[kHeader + 100] ^= 1;
        u->iso_frame_desc[k].actual_length = p.actual;
        u->iso_frame_desc[k].status = 0;
        total += int(n);
    }
    u->actual_length = total;
    u->status = 0;
}

int Handle(unsigned long request, void* arg)
{
    switch (request) {
    case USBDEVFS_CONTROL: {
        auto* c = static_cast<usbdevfs_ctrltransfer*>(arg);
        if (gK.flags & kCommitFails)
            return Fail(EPIPE);
        return c->wLength;
    }
    case USBDEVFS_SETINTERFACE: {
        auto* s = static_cast<usbdevfs_setinterface*>(arg);
        if ((gK.flags & kSetAltFails) && s->altsetting == 1)
            return Fail(EPROTO);
        return 0;
    }
    case USBDEVFS_SUBMITURB: {
        auto* u = static_cast<usbdevfs_urb*>(arg);
        if (gK.gone)
            return Fail(ENODEV);
        if (u->type != USBDEVFS_URB_TYPE_ISO || u->buffer_length != int(USBVD_ISO_BUFFER_SIZE) ||
            u->number_of_packets != int(USBVD_ISO_PACKET_COUNT))
            return Fail(EINVAL);
        for (int k = 0; k < u->number_of_packets; k++)
            if (u->iso_frame_desc[k].length != kPacket)
                return Fail(EINVAL);
        if (++gK.isoSubmits == gK.submitFailAt)
            return Fail(ENOMEM);
        for (usbdevfs_urb* x : gK.inflight)
            if (x == u)
                abort();  // submitted twice
        for (usbdevfs_urb* x : gK.completed)
            if (x == u)
                abort();  // resubmitted before it was reaped
        if (gK.nextUrb < gK.urbs->size()) {
            FillIso(u, (*gK.urbs)[gK.nextUrb++]);
            gK.completed.push_back(u);
        } else {
            // past the end of the input: the stream ends on this one
            memset(u->iso_frame_desc, 0, sizeof(usbdevfs_iso_packet_desc) * size_t(u->number_of_packets));
            u->actual_length = 0;
            u->status = 0;
            gK.inflight.push_back(u);
        }
        return 0;
    }
    case USBDEVFS_DISCARDURB: {
        auto* u = static_cast<usbdevfs_urb*>(arg);
        if (gK.gone)
            return Fail(ENODEV);
        for (auto it = gK.inflight.begin(); it != gK.inflight.end(); ++it) {
            if (*it == u) {
                gK.inflight.erase(it);
                u->status = -ENOENT;
                gK.completed.push_back(u);
                return 0;
            }
        }
        return Fail(EINVAL);
    }
    case USBDEVFS_REAPURBNDELAY: {
        if (gK.gone)
            return Fail(ENODEV);
        if (gK.completed.empty()) {
            if (gK.inflight.empty())
                return Fail(EAGAIN);
            // every data URB has been handed back: end the stream now
            gK.endReached = true;
            if (gK.flags & kEndByUnplug) {
                gK.gone = true;
                return Fail(ENODEV);
            }
            USBVDSetGrabState(gK.ctx, USBVD_GRAB_STATE_STOPPED);
            usbdevfs_urb* u = gK.inflight.front();
            gK.inflight.pop_front();
            gK.completed.push_back(u);
        }
        usbdevfs_urb* u = gK.completed.front();
        gK.completed.pop_front();
        if (gK.flags & kDrain)
            Drain();
        *static_cast<void**>(arg) = u;
        return 0;
    }
    default:
        return 0;
    }
}

USBTR_CONTEXT* Context()
{
    // One context for the whole run: it holds every image and buffer
    // (megabytes), as an open reader's does.
    static USBTR_CONTEXT* p = [] {
        auto* c = static_cast<USBTR_CONTEXT*>(calloc(1, sizeof(USBTR_CONTEXT)));
        if (c == nullptr)
            abort();
        c->dwMagic = USBTR_CTX_MAGIC;
        c->fdDevice = kFd;
        c->iIsoReadEP = 0x81;
        c->iIntReadEP = 0x82;
        pthread_mutex_init(&c->aIntReadLock, nullptr);
        pthread_mutex_init(&c->aGrabLock, nullptr);
        pthread_mutex_init(&c->aSyncSlotLock, nullptr);
        return c;
    }();
    return p;
}

}  // namespace

ZTUVC_USBFS_STANDIN(kFd, Handle)

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // Traces off: a failure record per odd packet would be a file append.
    setenv("ZTTRACE_ON", "0", 1);
    for (uint32_t c = 0; c < sizeof(gPattern); c++)
        gPattern[c] = uint8_t(((c % kPatternPeriod) * 2654435761u) >> 13);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Reader in{data, size};
    const USBTR_VIDEO_INFO* pInfo = &gDeviceTable[in.byte() % USBTR_READER_COUNT].aVideoInfo;
    const uint32_t nSlots = 1 + in.byte() % USBVD_MAX_FRAMES;
    const uint8_t flags = in.byte();
    const unsigned submitFailAt = (flags & kSubmitFails) ? 1 + in.byte() % USBVD_ISO_REQUEST_COUNT : 0;
    const uint32_t nImage = pInfo->dwImageWidth * pInfo->dwImageHeight;
    const std::vector<Urb> urbs = BuildStream(in, nImage);
    const bool bStreamed = !(flags & (kCommitFails | kSetAltFails)) && submitFailAt == 0;
    // What should come out, worked out before the library runs: frames are
    // checked as they are taken, before their slots are used again.
    Model m;
    m.start(nImage, nSlots, (flags & kDrain) != 0);
    if (bStreamed)
        for (const Urb& u : urbs)
            m.urb(u);

    USBTR_CONTEXT* ctx = Context();
    ctx->dwStatusFlags = 0;
    ctx->pVDDeviceInfo = pInfo;
    ctx->dwFrameInterval = USBTRStreamingInterval(pInfo);
    ctx->nFrameCount = nSlots;
    ctx->nFramesToDrop = 0;
    ctx->dwGrabStatus = 0;
    for (USBVD_LILO& l : ctx->aLilo)
        l.nLength = 0;
    for (uint32_t i = 0; i < USBVD_MAX_FRAMES; i++) {
        ctx->aImageStates[i] = i < nSlots ? USBVD_IMAGE_STATE_FREE : USBVD_IMAGE_NO_STATE;
        if (i < nSlots)
            ctx->aLilo[USBVD_IMAGE_STATE_FREE].aIndexes[i] = uint8_t(i);
        // stale bytes from an earlier run must never pass for this one's
        memset(ctx->aImages[i], 0xA5, 16);
    }
    ctx->aLilo[USBVD_IMAGE_STATE_FREE].nLength = nSlots;
    USBVDSetGrabState(ctx, USBVD_GRAB_STATE_NOT_STARTED);

    gK = Kernel{};
    gK.ctx = ctx;
    gK.urbs = &urbs;
    gK.expected = bStreamed ? &m.frames : nullptr;
    gK.nImage = nImage;
    gK.flags = flags;
    gK.submitFailAt = submitFailAt;

    USBDVGrabThread(ctx);
    Drain();

    const uint32_t dwStatus = ctx->dwGrabStatus;
    if (USBVDGrabState(ctx) != USBVD_GRAB_STATE_STOPPED || dwStatus == 0)
        abort();  // the thread always ends stopped, with a reason

    static const bool bVerbose = getenv("ZTUVC_FUZZ_VERBOSE") != nullptr;
    if (bVerbose)
        fprintf(stderr, "image %u, %u slots, flags %02x: %zu URBs, %zu frames delivered, status %u\n", nImage,
                nSlots, flags, urbs.size(), gK.nDelivered, dwStatus);
    if (bStreamed) {
        if (gK.nDelivered != m.frames.size()) {
            fprintf(stderr, "delivered %zu frames, expected %zu\n", gK.nDelivered, m.frames.size());
            abort();
        }
        if (!(flags & kEndByUnplug)) {
            if (dwStatus != USBTR_STATUS_STOPPED)
                abort();
            // a stop collects every request it had in flight
            if (!gK.completed.empty() || !gK.inflight.empty())
                abort();
        } else if (dwStatus != USBTR_STATUS_COMM_ERROR && dwStatus != USBTR_STATUS_NO_DEVICE) {
            abort();
        }
    } else if (gK.nDelivered != 0) {
        abort();  // nothing can be delivered from a stream that never ran
    } else if (submitFailAt != 0 && !(flags & (kCommitFails | kSetAltFails))) {
        // the refused start discards what it had submitted
        if (!gK.inflight.empty() || !gK.completed.empty())
            abort();
    }
    return 0;
}
