// Fuzz target: the isochronous payload stream through the real grab thread
// (USBDVGrabThread, run here) against a usbfs stand-in in this binary.  A
// model of the frame assembly, written from the stream's rules, predicts the
// frames and their bytes; every frame handed out must match it, and a stop
// must leave no URB behind.  Input: [model][slots][flags][refused submission,
// with flag 16], then operations [opcode][word]...:
//   low bits 1: whole frame, word = image bytes per packet, then a size delta (signed byte x 61)
//   low bits 4: end of this URB; any other: packet, word = length (mod 3073, raw with
//   opcode bit 7), then its two header bytes
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <vector>

#include "../usbfs_standin.h"
#include "common/usbtr/usbtrint.h"
#include "lnx/transport/usbtr.h"

namespace {

constexpr int kFd = 0x7A7A; // never a real descriptor of this process
constexpr uint32_t kPacket = USBVD_ISO_PACKET_SIZE, kHeader = USBVD_PAYLOAD_HEADER_SIZE;
constexpr uint32_t kPerUrb = USBVD_ISO_PACKET_COUNT, kPeriod = 65536;
enum : uint8_t { kDrain = 1, kEndByUnplug = 2, kCommitFails = 4, kSetAltFails = 8, kSubmitFails = 16 };

// actual may exceed the packet size; seed: stream position of its first image byte
struct Packet { uint32_t actual; uint8_t hdr0, hdr1; uint32_t seed; };
using Frame = std::vector<std::pair<uint32_t, uint32_t>>; // pieces of the stream: seed, length
uint8_t gPattern[kPeriod + kPacket];                      // stream byte c is gPattern[c % kPeriod]

struct Kernel {
    USBTR_CONTEXT *ctx;
    const std::vector<Packet> *packets; // whole URBs
    const std::vector<Frame> *expected; // null: no frame may come out
    unsigned flags, failAt, submits = 0;
    size_t nextUrb = 0, nDelivered = 0;
    bool gone = false;
    std::deque<usbdevfs_urb *> completed{}, inflight{};
} *gK;

std::vector<Packet> BuildStream(const uint8_t *p, size_t n, uint32_t nImage)
{
    std::vector<Packet> s;
    uint32_t nCounter = 0, nPushed = 0;
    bool bFid = false;
    auto byte = [&]() -> uint32_t { return n ? (n--, *p++) : 0; };
    auto push = [&](uint32_t actual, uint32_t h0, uint32_t h1) {
        s.push_back({actual, uint8_t(h0), uint8_t(h1), nCounter});
        nCounter += std::max(std::min(actual, kPacket), kHeader) - kHeader, nPushed++;
    };
    auto frame = [&](int64_t per, int64_t left) {
        bFid = !bFid;
        for (int64_t d = -1; (d < 0 || left > 0) && nPushed < 3000; left -= d) {
            d = std::min(std::max<int64_t>(left, 0), per);
            push(kHeader + uint32_t(d), 12, 0x8C | bFid | (left <= d ? 2 : 0));
        }
    };
    while (n > 0 && nPushed < 3000) {
        const uint32_t op = byte(), lo = byte(), w = lo | byte() << 8;
        if ((op & 7) == 1) {
            frame(1 + w % (kPacket - kHeader), int64_t(nImage) + int8_t(byte()) * 61);
        } else if ((op & 7) == 4) {
            s.resize((s.size() + kPerUrb - 1) / kPerUrb * kPerUrb, Packet{});
        } else {
            const uint32_t len = (op & 0x80) ? w : w % (kPacket + 1), h0 = byte(), h1 = byte();
            push(len, h0, h1);
            bFid = len >= kHeader ? h1 & 1 : bFid;
        }
    }
    s.resize((s.size() + kPerUrb - 1) / kPerUrb * kPerUrb, Packet{});
    return s;
}

// A frame ends at a change of FID and counts if exactly whole; it needs a
// free slot when it starts.  With kDrain each URB's reap gives every ready frame back.
std::vector<Frame> Expect(const std::vector<Packet> &s, uint32_t nImage, uint32_t nFree, bool bDrain)
{
    std::vector<Frame> frames;
    Frame cur;
    uint32_t nOffset = nImage, nReady = 0; // the first boundary ends a "whole" frame
    int iLastFid = -1;
    bool bOverflow = false, bSlot = false;
    for (size_t i = 0; i < s.size(); i++) {
        if (bDrain && i % kPerUrb == 0)
            nFree += nReady, nReady = 0;
        const uint32_t n = std::min(s[i].actual, kPacket);
        if (n < kHeader)
            continue;
        if ((s[i].hdr1 & 1) != iLastFid) {
            if (nOffset == nImage && !bOverflow) {
                if (bSlot)
                    frames.push_back(cur), nReady++;
                nFree -= (bSlot = nFree > 0);
            }
            iLastFid = s[i].hdr1 & 1, nOffset = 0, bOverflow = false, cur.clear();
        }
        const uint32_t d = std::min(n - kHeader, nImage - nOffset);
        bOverflow |= d < n - kHeader;
        if (bSlot && d != 0)
            cur.push_back({s[i].seed, d});
        nOffset += d;
    }
    return frames;
}

void Drain()
{
    USBTR_CONTEXT *ctx = gK->ctx;
    pthread_mutex_lock(&ctx->aGrabLock);
    for (int32_t i; (i = LILOGet(ctx, USBVD_IMAGE_STATE_READY)) >= 0; gK->nDelivered++) {
        if (uint32_t(i) >= ctx->nFrameCount || !gK->expected || gK->nDelivered >= gK->expected->size())
            abort(); // a slot never given, or a frame too many
        uint8_t *pImage = ctx->aImages[i];
        for (auto [seed, length] : (*gK->expected)[gK->nDelivered])
            if (memcmp((pImage += length) - length, gPattern + seed % kPeriod, length) != 0)
                abort();
        LILOPut(ctx, USBVD_IMAGE_STATE_FREE, uint8_t(i));
    }
    pthread_mutex_unlock(&ctx->aGrabLock);
}

void FillUrb(usbdevfs_urb *u, const Packet *p)
{
    static const bool bSelfTest = getenv("ZTUVC_FUZZ_SELFTEST"); // one wrong byte the check must catch
    u->actual_length = u->status = 0;
    for (uint32_t k = 0; k < kPerUrb; k++, p++) {
        uint8_t *d = static_cast<uint8_t *>(u->buffer) + k * kPacket;
        const uint32_t n = std::min(p->actual, kPacket);
        for (uint32_t j = 0; j < std::min(n, kHeader); j++)
            d[j] = j == 0 ? p->hdr0 : j == 1 ? p->hdr1 : uint8_t(j * 17);
        memcpy(d + kHeader, gPattern + p->seed % kPeriod, std::max(n, kHeader) - kHeader);
        d[kHeader + 100] ^= bSelfTest && n > kHeader + 100 && p->seed > 400000;
        u->iso_frame_desc[k] = {kPacket, p->actual, 0};
        u->actual_length += int(n);
    }
}

int Handle(unsigned long request, void *arg)
{
    Kernel &k = *gK;
    auto *u = static_cast<usbdevfs_urb *>(arg);
    if (request == USBDEVFS_CONTROL)
        return (k.flags & kCommitFails) ? (errno = EPIPE, -1) : static_cast<usbdevfs_ctrltransfer *>(arg)->wLength;
    if (request == USBDEVFS_SETINTERFACE && (k.flags & kSetAltFails))
        return static_cast<usbdevfs_setinterface *>(arg)->altsetting ? (errno = EPROTO, -1) : 0;
    if (request != USBDEVFS_SUBMITURB && request != USBDEVFS_DISCARDURB && request != USBDEVFS_REAPURBNDELAY)
        return 0;
    if (k.gone)
        return errno = ENODEV, -1;
    if (request == USBDEVFS_SUBMITURB) {
        if (std::count(k.inflight.begin(), k.inflight.end(), u) + std::count(k.completed.begin(), k.completed.end(), u) ||
            u->buffer_length != int(USBVD_ISO_BUFFER_SIZE) || u->number_of_packets != int(kPerUrb))
            abort(); // submitted again before it was reaped, or not a whole URB of the ring
        if (++k.submits == k.failAt)
            return errno = ENOMEM, -1;
        const bool bData = k.nextUrb * kPerUrb < k.packets->size();
        FillUrb(u, bData ? &(*k.packets)[k.nextUrb++ * kPerUrb] : std::vector<Packet>(kPerUrb).data());
        (bData ? k.completed : k.inflight).push_back(u); // past the input: the stream ends on this one
        return 0;
    }
    if (request == USBDEVFS_DISCARDURB) {
        auto it = std::find(k.inflight.begin(), k.inflight.end(), u);
        if (it == k.inflight.end())
            return errno = EINVAL, -1;
        k.inflight.erase(it), k.completed.push_back(u), u->status = -ENOENT;
        return 0;
    }
    if (k.completed.empty()) { // every data URB handed back: end the stream now
        if (k.inflight.empty())
            return errno = EAGAIN, -1;
        if (k.flags & kEndByUnplug)
            return k.gone = true, errno = ENODEV, -1;
        USBVDSetGrabState(k.ctx, USBVD_GRAB_STATE_STOPPED);
        k.completed.push_back(k.inflight.front()), k.inflight.pop_front();
    }
    *static_cast<void **>(arg) = k.completed.front(), k.completed.pop_front();
    if (k.flags & kDrain)
        Drain();
    return 0;
}

} // namespace

ZTUVC_USBFS_STANDIN(kFd, Handle)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // One context for the whole run: it holds megabytes of images, as an open reader's does.
    static USBTR_CONTEXT *ctx = [] {
        for (uint32_t c = 0; c < sizeof(gPattern); c++)
            gPattern[c] = uint8_t(((c % kPeriod) * 2654435761u) >> 13);
        auto *c = static_cast<USBTR_CONTEXT *>(calloc(1, sizeof(USBTR_CONTEXT)));
        c->dwMagic = USBTR_CTX_MAGIC, c->fdDevice = kFd, c->iIsoReadEP = 0x81, c->iIntReadEP = 0x82;
        for (pthread_mutex_t *m : {&c->aIntReadLock, &c->aGrabLock, &c->aSyncSlotLock})
            pthread_mutex_init(m, nullptr);
        return c;
    }();
    if (size < 3)
        return 0;
    const USBTR_VIDEO_INFO *pInfo = &gDeviceTable[data[0] % USBTR_READER_COUNT].aVideoInfo;
    const uint32_t nSlots = 1 + data[1] % USBVD_MAX_FRAMES, nImage = pInfo->dwImageWidth * pInfo->dwImageHeight;
    const uint8_t flags = data[2];
    const unsigned failAt = (flags & kSubmitFails) && size > 3 ? 1 + data[3] % USBVD_ISO_REQUEST_COUNT : 0;
    const std::vector<Packet> packets = BuildStream(data + 3 + !!failAt, size - 3 - !!failAt, nImage);
    const bool bStreamed = !(flags & (kCommitFails | kSetAltFails)) && failAt == 0;
    const std::vector<Frame> expected = Expect(packets, nImage, nSlots, flags & kDrain);

    ctx->dwStatusFlags = 0, ctx->nFramesToDrop = 0, ctx->dwGrabStatus = 0, ctx->nFrameCount = nSlots;
    ctx->pVDDeviceInfo = pInfo, ctx->dwFrameInterval = USBTRStreamingInterval(pInfo);
    memset(ctx->aImageStates, USBVD_IMAGE_NO_STATE, sizeof(ctx->aImageStates));
    memset(ctx->aLilo, 0, sizeof(ctx->aLilo));
    for (uint32_t i = 0; i < USBVD_MAX_FRAMES; i++)
        memset(ctx->aImages[i], 0xA5, 16); // an earlier run's bytes must not pass for this one's
    for (uint8_t i = 0; i < nSlots; i++)
        LILOPut(ctx, USBVD_IMAGE_STATE_FREE, i);
    USBVDSetGrabState(ctx, USBVD_GRAB_STATE_NOT_STARTED);
    Kernel k{ctx, &packets, bStreamed ? &expected : nullptr, flags, failAt};
    gK = &k;

    USBDVGrabThread(ctx);
    Drain();
    const uint32_t dwStatus = ctx->dwGrabStatus;
    const bool bUnplugged = bStreamed && (flags & kEndByUnplug);
    if (USBVDGrabState(ctx) != USBVD_GRAB_STATE_STOPPED || k.nDelivered != (bStreamed ? expected.size() : 0) ||
        (bUnplugged && dwStatus != USBTR_STATUS_COMM_ERROR && dwStatus != USBTR_STATUS_NO_DEVICE) ||
        (bStreamed && !bUnplugged && dwStatus != USBTR_STATUS_STOPPED) || dwStatus == 0)
        abort();
    // A stop, and a refused start, collect every request they had submitted.
    if (!(flags & (kEndByUnplug | kCommitFails | kSetAltFails)) && (!k.completed.empty() || !k.inflight.empty()))
        abort();
    return 0;
}
