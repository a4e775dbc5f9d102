// The reader model behind the usbfs ioctls, and the Reader API.
#include "internal.h"

#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace sim {

namespace {

std::string requestName(unsigned long req) {
    switch (req) {
    case USBDEVFS_CONTROL: return "CONTROL";
    case USBDEVFS_BULK: return "BULK";
    case USBDEVFS_RESETEP: return "RESETEP";
    case USBDEVFS_SETINTERFACE: return "SETINTERFACE";
    case USBDEVFS_SETCONFIGURATION: return "SETCONFIGURATION";
    case USBDEVFS_GETDRIVER: return "GETDRIVER";
    case USBDEVFS_SUBMITURB: return "SUBMITURB";
    case USBDEVFS_DISCARDURB: return "DISCARDURB";
    case USBDEVFS_REAPURB: return "REAPURB";
    case USBDEVFS_REAPURBNDELAY: return "REAPURBNDELAY";
    case USBDEVFS_CLAIMINTERFACE: return "CLAIMINTERFACE";
    case USBDEVFS_RELEASEINTERFACE: return "RELEASEINTERFACE";
    case USBDEVFS_CONNECTINFO: return "CONNECTINFO";
    case USBDEVFS_IOCTL: return "IOCTL";
    case USBDEVFS_RESET: return "RESET";
    case USBDEVFS_CLEAR_HALT: return "CLEAR_HALT";
    case USBDEVFS_DISCONNECT: return "DISCONNECT";
    case USBDEVFS_CONNECT: return "CONNECT";
    case USBDEVFS_GET_CAPABILITIES: return "GET_CAPABILITIES";
    case USBDEVFS_DISCONNECT_CLAIM: return "DISCONNECT_CLAIM";
    case USBDEVFS_ALLOC_STREAMS: return "ALLOC_STREAMS";
    case USBDEVFS_GET_SPEED: return "GET_SPEED";
    default: {
        char b[32];
        snprintf(b, sizeof b, "0x%08lx", req);
        return b;
    }
    }
}

using Iso = usbdevfs_iso_packet_desc;

Iso* isoDescs(Urb* u) {
    return reinterpret_cast<Iso*>(u->data->data + sizeof(usbdevfs_urb));
}
usbdevfs_urb* urbOf(Urb* u) { return reinterpret_cast<usbdevfs_urb*>(u->data->data); }

void freeUrb(Urb* u) {
    if (u->buf) umockdev_ioctl_data_unref(u->buf);
    if (u->data) umockdev_ioctl_data_unref(u->data);
    delete u;
}

// Ends a URB without data (discard, unplug, alt change).
void endUrb(Urb* u, int status) {
    usbdevfs_urb* k = urbOf(u);
    k->status = status;
    k->actual_length = 0;
    k->error_count = 0;
    if (u->type == USBDEVFS_URB_TYPE_ISO) {
        Iso* d = isoDescs(u);
        for (int i = 0; i < u->packets; ++i) {
            d[i].actual_length = 0;
            d[i].status = uint32_t(status);
        }
    }
}

std::vector<uint8_t> stringDescriptor(const std::string& s) {
    std::vector<uint8_t> d = {0, 3};
    for (unsigned char c : s) {
        d.push_back(c);
        d.push_back(0);
    }
    if (d.size() > 254) d.resize(254);
    d[0] = uint8_t(d.size());
    return d;
}

}  // namespace

// --------------------------------------------------------------- stream

uint8_t ReaderState::imageByte(uint32_t frame, uint32_t offset) const {
    if (imageMode == ImageMode::Pattern) return pixel(frame, offset);
    if (offset >= info.imageSize()) return pixel(frame, offset);
    std::lock_guard<std::mutex> g(imgMutex);
    if (imgFrame != frame) {
        img.resize(info.imageSize());
        for (uint32_t i = 0; i < img.size(); ++i) img[i] = fingerprintByte(info, frame, i);
        imgFrame = frame;
    }
    return img[offset];
}

void ReaderState::fillPacket(uint8_t* dst, const QItem& it) const {
    if (it.kind == QItem::Raw) {
        if (!it.raw.empty()) memcpy(dst, it.raw.data(), it.raw.size());
        return;
    }
    // Presentation time: the frame's start in 6 MHz ticks; source clock
    // advances with every packet.
    auto h = payloadHeader(it.fid, it.eof, it.frame * 400000u, ptsClock);
    memcpy(dst, h.data(), h.size());
    uint8_t* p = dst + kPayloadHeaderSize;
    if (imageMode == ImageMode::Pattern) {
        for (uint32_t i = 0; i < it.len; ++i) p[i] = pixel(it.frame, it.offset + i);
    } else {
        for (uint32_t i = 0; i < it.len; ++i) p[i] = imageByte(it.frame, it.offset + i);
    }
}

uint32_t ReaderState::queueFramesLocked(unsigned n, const FrameOptions& o) {
    const uint32_t first = nextFrame;
    const uint32_t per = std::clamp<uint32_t>(o.payloadPerPacket, 1, kMaxPayloadPerPacket);
    long sz = long(info.imageSize()) + o.sizeDelta;
    if (sz < 0) sz = 0;
    for (unsigned f = 0; f < n; ++f) {
        const uint32_t frame = nextFrame++;
        const bool fid = !lastFid;
        lastFid = fid;
        uint32_t off = 0;
        do {
            QItem it;
            it.frame = frame;
            it.offset = off;
            it.len = std::min<uint32_t>(per, uint32_t(sz) - off);
            it.fid = fid;
            off += it.len;
            it.lastOfFrame = off >= uint32_t(sz);
            it.eof = it.lastOfFrame && o.eofBit;
            queue.push_back(std::move(it));
        } while (off < uint32_t(sz));
    }
    return first;
}

size_t ReaderState::isoInflightLocked() const {
    size_t n = 0;
    for (auto* u : inflight)
        if (u->type == USBDEVFS_URB_TYPE_ISO) ++n;
    return n;
}

bool ReaderState::completeOneLocked(Urb* u) {
    usbdevfs_urb* k = urbOf(u);
    Iso* d = isoDescs(u);
    if (!queue.empty() && queue.front().kind == QItem::EmptyUrb) {
        queue.pop_front();
    } else {
        uint32_t at = 0;
        for (int i = 0; i < u->packets; ++i) {
            d[i].actual_length = 0;
            d[i].status = 0;
        }
        for (int i = 0; i < u->packets; ++i) {
            const uint32_t room = d[i].length;
            if (queue.empty()) break;
            QItem& it = queue.front();
            if (it.kind == QItem::EmptyUrb) break;
            if (it.kind == QItem::UrbBreak) {
                queue.pop_front();
                break;
            }
            const uint32_t psz = it.packetSize();
            if (psz > 0 && u->buf && at + std::min(psz, room) <= uint32_t(u->bufferLength)) {
                if (psz <= room) {
                    fillPacket(u->buf->data + at, it);
                } else {
                    // Larger than the slot: the host sees the first `room` bytes (babble).
                    std::vector<uint8_t> tmp(psz);
                    fillPacket(tmp.data(), it);
                    memcpy(u->buf->data + at, tmp.data(), room);
                    d[i].status = uint32_t(-EOVERFLOW);
                }
                d[i].actual_length = std::min(psz, room);
            }
            if (it.kind == QItem::FramePacket && it.lastOfFrame) {
                ++u->framesEnded;
                ++framesSent;
            }
            ptsClock += 1;
            at += room;
            queue.pop_front();
        }
    }
    int total = 0;
    for (int i = 0; i < u->packets; ++i) total += int(d[i].actual_length);
    k->status = 0;
    k->actual_length = total;
    k->error_count = 0;
    for (int i = 0; i < u->packets; ++i)
        if (d[i].status != 0) ++k->error_count;
    return true;
}

void ReaderState::pumpLocked() {
    if (!plugged || alt[1] != 1) return;
    for (;;) {
        Urb* u = nullptr;
        for (auto* c : inflight)
            if (c->type == USBDEVFS_URB_TYPE_ISO && !c->hung) {
                u = c;
                break;
            }
        if (!u) break;
        if (pacing && pace.kind == Pace::AsFastAsPossible && queue.empty())
            queueFramesLocked(1, {});
        if (queue.empty()) break;
        if (pacing && pace.kind == Pace::HighBandwidth) {
            if (urbCredit == 0) break;
            --urbCredit;
        }
        completeOneLocked(u);
        inflight.erase(std::find(inflight.begin(), inflight.end(), u));
        completed.push_back(u);
    }
    cv.notify_all();
}

void ReaderState::unplugLocked() {
    if (!plugged) return;
    plugged = false;
    // The kernel flushes the endpoints: every URB in flight completes with
    // -ESHUTDOWN and can still be reaped; everything else answers ENODEV.
    for (auto* u : inflight) {
        endUrb(u, -ESHUTDOWN);
        completed.push_back(u);
    }
    inflight.clear();
    cv.notify_all();
}

void ReaderState::fileClosedLocked(const void* client) {
    // Its interfaces are released and its URBs killed and freed: nobody can reap them any more.
    for (auto& owner : claimedBy)
        if (owner == client) owner = nullptr;
    for (auto* q : {&inflight, &completed}) {
        for (auto it = q->begin(); it != q->end();) {
            if ((*it)->owner == client) {
                freeUrb(*it);
                it = q->erase(it);
            } else {
                ++it;
            }
        }
    }
    cv.notify_all();
}

// ------------------------------------------------------------ the handler

namespace {

struct Ctx {
    ReaderState& s;
    UMockdevIoctlClient* client;
    UMockdevIoctlData* arg;
    unsigned long req;
    IoctlRecord rec;
};

void finish(Ctx& c, long result, int err) {
    c.rec.result = result;
    c.rec.err = err;
    c.rec.seq = ++c.s.seq;
    c.s.log.push_back(std::move(c.rec));
    c.s.cv.notify_all();
    umockdev_ioctl_client_complete(c.client, result, err);
}

// Returns bytes moved (>= 0) or -errno.
long control(ReaderState& s, const usbdevfs_ctrltransfer& t, uint8_t* data, unsigned len) {
    const bool in = t.bRequestType & 0x80;
    const uint8_t type = t.bRequestType & 0x60;
    auto reply = [&](const uint8_t* p, size_t n) -> long {
        n = std::min<size_t>(n, len);
        if (n) memcpy(data, p, n);
        return long(n);
    };
    if (type == 0x00) {  // standard
        if (t.bRequest == 6 && in) {  // GET_DESCRIPTOR
            const uint8_t dt = t.wValue >> 8, di = t.wValue & 0xFF;
            if (dt == 1) return reply(s.descriptors.data(), std::min<size_t>(18, s.descriptors.size()));
            if (dt == 2 && di == 0 && s.descriptors.size() > 18)
                return reply(s.descriptors.data() + 18, s.descriptors.size() - 18);
            if (dt == 3) {
                if (di == 0) {
                    const uint8_t l[] = {4, 3, 0x09, 0x04};
                    return reply(l, 4);
                }
                const std::string* str = di == 1 ? &s.manufacturer : di == 2 ? &s.product : di == 3 ? &s.serial : nullptr;
                if (!str || str->empty()) return -EPIPE;
                auto d = stringDescriptor(*str);
                return reply(d.data(), d.size());
            }
            return -EPIPE;
        }
        if (t.bRequest == 0 && in) {  // GET_STATUS
            const uint8_t z[2] = {0, 0};
            return reply(z, 2);
        }
        if (t.bRequest == 8 && in) {  // GET_CONFIGURATION
            const uint8_t c = uint8_t(s.config);
            return reply(&c, 1);
        }
        if (t.bRequest == 1 || t.bRequest == 3) return 0;  // CLEAR/SET_FEATURE
        return -EPIPE;
    }
    if (type == 0x40 && t.bRequest == 12 && (t.bRequestType & 0x1F) == 0) {  // vendor registers
        for (unsigned i = 0; i < len; ++i) {
            const uint16_t a = uint16_t(t.wValue + i);
            if (in) data[i] = s.regs[a];
            else s.regs[a] = data[i];
        }
        return long(len);
    }
    if (type != 0x20 || (t.bRequestType & 0x1F) != 1) return -EPIPE;
    const uint8_t sel = t.wValue >> 8;
    const uint8_t ifc = t.wIndex & 0xFF, unit = t.wIndex >> 8;
    if (ifc == 0 && unit == 6 && (sel == 7 || sel == 3)) {
        switch (t.bRequest) {
        case 0x01:  // SET_CUR
            if (in || len != 11) return -EPIPE;
            if (sel == 7 && data[0] == 0x81) {
                s.regs[uint16_t(data[1] << 8 | data[2])] = data[3];
            } else if (data[0] >= 1 && data[0] <= 8) {
                s.xuCount[sel] = data[0];
                s.xuAddr[sel] = uint16_t(data[1] << 8 | data[2]);
            } else {
                return -EPIPE;
            }
            return 11;
        case 0x81: {  // GET_CUR
            if (!in) return -EPIPE;
            uint8_t b[11] = {};
            b[0] = s.xuCount[sel];
            b[1] = uint8_t(s.xuAddr[sel] >> 8);
            b[2] = uint8_t(s.xuAddr[sel]);
            for (unsigned i = 0; i < s.xuCount[sel]; ++i) {
                const uint16_t a = uint16_t(s.xuAddr[sel] + i);
                b[3 + i] = sel == 7 ? s.regs[a] : flashByte(a);
            }
            return reply(b, 11);
        }
        case 0x82: case 0x83: case 0x84: case 0x87: {  // MIN MAX RES DEF
            const uint8_t z[11] = {};
            return in ? reply(z, 11) : -EPIPE;
        }
        case 0x85: {  // GET_LEN
            const uint8_t l[2] = {11, 0};
            return in ? reply(l, 2) : -EPIPE;
        }
        case 0x86: {  // GET_INFO
            const uint8_t i = 0x03;
            return in ? reply(&i, 1) : -EPIPE;
        }
        }
        return -EPIPE;
    }
    if (ifc == 1 && unit == 0 && (sel == 1 || sel == 2)) {
        const auto def = expectedCommit(s.info.model);
        switch (t.bRequest) {
        case 0x01: {  // SET_CUR
            if (in || len < 26) return -EPIPE;
            std::array<uint8_t, 26> b;
            memcpy(b.data(), data, 26);
            if (sel == 2) {
                s.commits.push_back(b);
                s.commit = b;
            } else {
                // Negotiate: our only format and frame, an interval no shorter
                // than the default, our sizes.
                uint32_t iv = uint32_t(b[4]) | b[5] << 8 | b[6] << 16 | uint32_t(b[7]) << 24;
                if (iv < s.info.frameInterval) iv = s.info.frameInterval;
                auto p = expectedCommit(s.info.model, iv);
                p[0] = b[0];
                p[1] = b[1];
                s.probe = p;
            }
            return long(len);
        }
        case 0x81: {
            if (!in) return -EPIPE;
            if (sel == 1) return reply(s.probe.data(), 26);
            const auto& c = s.commit ? *s.commit : s.probe;
            return reply(c.data(), 26);
        }
        case 0x82: case 0x87: return in ? reply(def.data(), 26) : -EPIPE;
        case 0x83: {
            auto mx = expectedCommit(s.info.model, s.info.frameInterval * 4);
            return in ? reply(mx.data(), 26) : -EPIPE;
        }
        case 0x85: {
            const uint8_t l[2] = {26, 0};
            return in ? reply(l, 2) : -EPIPE;
        }
        case 0x86: {
            const uint8_t i = 0x03;
            return in ? reply(&i, 1) : -EPIPE;
        }
        }
        return -EPIPE;
    }
    return -EPIPE;
}

// A control transfer with the faults registered for it applied.
long controlWithFaults(ReaderState& s, const usbdevfs_ctrltransfer& t, uint8_t* data, unsigned len, bool* unplug) {
    int failErr = 0;
    long shortTo = -1;
    for (auto& f : s.faults) {
        if (f.target != Fault::Control || !f.match.matches(t.bRequestType, t.bRequest, t.wValue, t.wIndex))
            continue;
        if (!f.fire()) continue;
        if (f.action == Fault::Unplug) *unplug = true;
        else if (f.action == Fault::Fail) failErr = f.err;
        else shortTo = f.bytes;
        break;
    }
    if (*unplug) return -ENODEV;
    long r = failErr ? -failErr : control(s, t, data, len);
    if (r >= 0 && shortTo >= 0 && r > shortTo) r = shortTo;
    return r;
}

// Applies the faults registered for an ioctl; returns true when one decided
// the outcome (then `c` has been finished). Sets *shortBytes for a short reply.
bool ioctlFaults(Ctx& c, bool* unplug) {
    for (auto& f : c.s.faults) {
        if (f.target != Fault::Ioctl || f.request != c.req) continue;
        if (!f.fire()) continue;
        if (f.action == Fault::Unplug) {
            *unplug = true;
            return true;
        }
        finish(c, -1, f.err);
        return true;
    }
    return false;
}

void handleControl(Ctx& c, bool* unplug) {
    ReaderState& s = c.s;
    UMockdevIoctlData* td = umockdev_ioctl_data_resolve(c.arg, 0, sizeof(usbdevfs_ctrltransfer), nullptr);
    if (!td) {
        finish(c, -1, EFAULT);
        return;
    }
    usbdevfs_ctrltransfer t;
    memcpy(&t, td->data, sizeof t);
    c.rec.bRequestType = t.bRequestType;
    c.rec.bRequest = t.bRequest;
    c.rec.wValue = t.wValue;
    c.rec.wIndex = t.wIndex;
    c.rec.wLength = t.wLength;
    c.rec.timeout = t.timeout;
    UMockdevIoctlData* dd = nullptr;
    if (t.wLength > 0 && t.data) {
        dd = umockdev_ioctl_data_resolve(td, offsetof(usbdevfs_ctrltransfer, data), t.wLength, nullptr);
        if (!dd) {
            umockdev_ioctl_data_unref(td);
            finish(c, -1, EFAULT);
            return;
        }
    }
    const bool in = t.bRequestType & 0x80;
    const unsigned len = dd ? t.wLength : 0;
    if (!in && dd) c.rec.dataOut.assign(dd->data, dd->data + len);

    long r = controlWithFaults(s, t, dd ? dd->data : nullptr, len, unplug);
    if (*unplug) {
        if (dd) umockdev_ioctl_data_unref(dd);
        umockdev_ioctl_data_unref(td);
        return;
    }
    if (r >= 0 && in && dd) c.rec.dataIn.assign(dd->data, dd->data + r);
    if (dd) umockdev_ioctl_data_unref(dd);
    umockdev_ioctl_data_unref(td);
    if (r < 0) finish(c, -1, int(-r));
    else finish(c, r, 0);
}

void handleSubmit(Ctx& c, bool* unplug) {
    ReaderState& s = c.s;
    c.rec.urbAddress = *reinterpret_cast<const uint64_t*>(c.arg->data);
    UMockdevIoctlData* ud = umockdev_ioctl_data_resolve(c.arg, 0, sizeof(usbdevfs_urb), nullptr);
    if (!ud) {
        finish(c, -1, EFAULT);
        return;
    }
    usbdevfs_urb k;
    memcpy(&k, ud->data, sizeof k);
    c.rec.urbType = k.type;
    c.rec.endpoint = k.endpoint;
    c.rec.urbFlags = k.flags;
    c.rec.bufferLength = k.buffer_length;
    c.rec.numberOfPackets = k.type == USBDEVFS_URB_TYPE_ISO ? k.number_of_packets : 0;

    auto fail = [&](int e) {
        umockdev_ioctl_data_unref(ud);
        finish(c, -1, e);
    };
    // What usbfs checks before it queues a URB.
    const bool isoEp = k.endpoint == kIsoEndpoint && s.alt[1] == 1;
    const bool intEp = k.endpoint == kInterruptEndpoint;
    if (k.buffer_length < 0) return fail(EINVAL);
    if (k.type == USBDEVFS_URB_TYPE_ISO) {
        if (!isoEp) return fail(k.endpoint == kIsoEndpoint ? ENOENT : (intEp ? EINVAL : ENOENT));
        if (k.number_of_packets < 1 || k.number_of_packets > 128) return fail(EINVAL);
    } else if (k.type == USBDEVFS_URB_TYPE_INTERRUPT) {
        if (!intEp) return fail(k.endpoint == kIsoEndpoint && s.alt[1] == 1 ? EINVAL : ENOENT);
    } else if (k.type == USBDEVFS_URB_TYPE_BULK) {
        return fail(k.endpoint == kIsoEndpoint || intEp ? EINVAL : ENOENT);
    } else if (k.type != USBDEVFS_URB_TYPE_CONTROL || k.endpoint != 0 || k.buffer_length < 8) {
        return fail(EINVAL);
    }
    if (k.buffer_length > 0 && !k.buffer) return fail(EFAULT);

    auto* u = new Urb;
    u->addr = c.rec.urbAddress;
    u->owner = c.client;
    u->type = k.type;
    u->endpoint = k.endpoint;
    u->bufferLength = k.buffer_length;
    if (k.type == USBDEVFS_URB_TYPE_ISO) {
        const int n = k.number_of_packets;
        // Reach the packet descriptors behind the URB: drop the short copy
        // (reload forgets it), put the client pointer that resolving replaced
        // back into the argument and resolve again at full size.
        const uint64_t client = ud->client_addr;
        umockdev_ioctl_data_unref(ud);
        umockdev_ioctl_data_reload(c.arg, nullptr);
        memcpy(c.arg->data, &client, sizeof client);
        ud = umockdev_ioctl_data_resolve(c.arg, 0, sizeof(usbdevfs_urb) + n * sizeof(Iso), nullptr);
        if (!ud) {
            delete u;
            finish(c, -1, EFAULT);
            return;
        }
        u->packets = n;
        const Iso* d = reinterpret_cast<const Iso*>(ud->data + sizeof(usbdevfs_urb));
        uint64_t sum = 0;
        for (int i = 0; i < n; ++i) {
            if (d[i].length > kIsoPacketSize) {
                delete u;
                return fail(EINVAL);
            }
            sum += d[i].length;
        }
        if (sum > uint64_t(k.buffer_length)) {
            delete u;
            return fail(EINVAL);
        }
    }
    u->data = ud;
    if (k.buffer_length > 0) {
        u->buf = umockdev_ioctl_data_resolve(ud, offsetof(usbdevfs_urb, buffer), size_t(k.buffer_length), nullptr);
        if (!u->buf) {
            freeUrb(u);
            finish(c, -1, EFAULT);
            return;
        }
    }
    if (k.type == USBDEVFS_URB_TYPE_CONTROL) {
        // Asynchronous control transfer: setup packet + data stage in the
        // buffer; done at once, reaped later.
        usbdevfs_ctrltransfer t{};
        uint8_t* b = u->buf->data;
        t.bRequestType = b[0];
        t.bRequest = b[1];
        t.wValue = uint16_t(b[2] | b[3] << 8);
        t.wIndex = uint16_t(b[4] | b[5] << 8);
        t.wLength = uint16_t(b[6] | b[7] << 8);
        c.rec.bRequestType = t.bRequestType;
        c.rec.bRequest = t.bRequest;
        c.rec.wValue = t.wValue;
        c.rec.wIndex = t.wIndex;
        c.rec.wLength = t.wLength;
        const unsigned len = std::min<unsigned>(t.wLength, unsigned(k.buffer_length - 8));
        const bool in = t.bRequestType & 0x80;
        if (!in) c.rec.dataOut.assign(b + 8, b + 8 + len);
        long r = controlWithFaults(s, t, b + 8, len, unplug);
        if (*unplug) {
            freeUrb(u);
            return;
        }
        if (r >= 0 && in) c.rec.dataIn.assign(b + 8, b + 8 + r);
        urbOf(u)->status = r < 0 ? int(r) : 0;
        urbOf(u)->actual_length = r < 0 ? 0 : int(r);
        s.completed.push_back(u);
        ++s.submittedTotal;
        finish(c, 0, 0);
        return;
    }
    if (k.type == USBDEVFS_URB_TYPE_ISO && s.hangNext > 0) {
        --s.hangNext;
        u->hung = true;
    }
    s.inflight.push_back(u);
    ++s.submittedTotal;
    finish(c, 0, 0);
    s.pumpLocked();
}

void handleReap(Ctx& c, bool* unplugAfter) {
    ReaderState& s = c.s;
    // The oldest completed URB of the file that asks: usbfs keeps one list per open file.
    auto it = std::find_if(s.completed.begin(), s.completed.end(), [&](Urb* u) { return u->owner == c.client; });
    if (it == s.completed.end()) {
        finish(c, -1, s.plugged ? EAGAIN : ENODEV);
        return;
    }
    Urb* u = *it;
    UMockdevIoctlData* p = umockdev_ioctl_data_resolve(c.arg, 0, sizeof(void*), nullptr);
    if (!p) {
        finish(c, -1, EFAULT);
        return;
    }
    s.completed.erase(it);
    usbdevfs_urb* k = urbOf(u);
    c.rec.urbAddress = u->addr;
    c.rec.urbType = u->type;
    c.rec.endpoint = u->endpoint;
    c.rec.bufferLength = u->bufferLength;
    c.rec.numberOfPackets = u->packets;
    c.rec.urbStatus = k->status;
    c.rec.actualLength = k->actual_length;
    umockdev_ioctl_data_set_ptr(p, 0, u->data);
    ++s.reapedTotal;
    s.framesReaped += u->framesEnded;
    if (u->type == USBDEVFS_URB_TYPE_ISO && k->status == 0) {
        ++s.isoReaps;
        for (auto& f : s.faults)
            if (f.target == Fault::IsoReap && f.fire()) *unplugAfter = true;
    }
    finish(c, 0, 0);
    umockdev_ioctl_data_unref(p);
    freeUrb(u);
}

void handleDiscard(Ctx& c) {
    ReaderState& s = c.s;
    const uint64_t addr = *reinterpret_cast<const uint64_t*>(c.arg->data);
    c.rec.urbAddress = addr;
    auto it = std::find_if(s.inflight.begin(), s.inflight.end(),
                           [&](Urb* u) { return u->addr == addr && u->owner == c.client; });
    if (it == s.inflight.end()) {
        finish(c, -1, EINVAL);
        return;
    }
    Urb* u = *it;
    c.rec.urbType = u->type;
    c.rec.endpoint = u->endpoint;
    s.inflight.erase(it);
    endUrb(u, -ENOENT);
    s.completed.push_back(u);
    finish(c, 0, 0);
}

unsigned argUint(UMockdevIoctlData* arg, bool* ok) {
    UMockdevIoctlData* d = umockdev_ioctl_data_resolve(arg, 0, sizeof(unsigned), nullptr);
    if (!d) {
        *ok = false;
        return 0;
    }
    unsigned v;
    memcpy(&v, d->data, sizeof v);
    umockdev_ioctl_data_unref(d);
    *ok = true;
    return v;
}

// Interfaces and alternate settings that exist on a reader.
bool hasInterface(const ReaderState& s, unsigned i) {
    if (s.opt.descriptors) return i == 0;  // custom layouts: be lenient on interface 0 only
    return i < 2;
}

void handleOne(Ctx& c, bool* unplug, bool* unplugAfter) {
    ReaderState& s = c.s;
    if (ioctlFaults(c, unplug)) return;
    if (!s.plugged && c.req != USBDEVFS_REAPURBNDELAY && c.req != USBDEVFS_REAPURB) {
        finish(c, -1, ENODEV);
        return;
    }
    bool ok = true;
    switch (c.req) {
    case USBDEVFS_CONTROL: handleControl(c, unplug); return;
    case USBDEVFS_SUBMITURB: handleSubmit(c, unplug); return;
    case USBDEVFS_REAPURBNDELAY:
    case USBDEVFS_REAPURB:
        // Never blocks, as umockdev's only worker thread would stall: EAGAIN like REAPURBNDELAY.
        handleReap(c, unplugAfter);
        return;
    case USBDEVFS_DISCARDURB: handleDiscard(c); return;
    case USBDEVFS_SETINTERFACE: {
        UMockdevIoctlData* d = umockdev_ioctl_data_resolve(c.arg, 0, sizeof(usbdevfs_setinterface), nullptr);
        if (!d) return finish(c, -1, EFAULT);
        usbdevfs_setinterface si;
        memcpy(&si, d->data, sizeof si);
        umockdev_ioctl_data_unref(d);
        c.rec.interface = si.interface;
        c.rec.alt = si.altsetting;
        const bool valid = s.opt.descriptors ? si.interface == 0 && si.altsetting == 0
                                             : (si.interface == 0 && si.altsetting == 0) ||
                                                   (si.interface == 1 && si.altsetting <= 1);
        if (!valid) return finish(c, -1, EINVAL);
        if (si.interface == 1 && unsigned(s.alt[1]) != si.altsetting) {
            // Switching alternate settings disables the old endpoints: their URBs end.
            for (auto it = s.inflight.begin(); it != s.inflight.end();) {
                if ((*it)->endpoint == kIsoEndpoint) {
                    endUrb(*it, -ESHUTDOWN);
                    s.completed.push_back(*it);
                    it = s.inflight.erase(it);
                } else {
                    ++it;
                }
            }
        }
        if (si.interface < 2) {
            s.alt[si.interface] = int(si.altsetting);
            s.claimedBy[si.interface] = c.client;  // usbfs claims implicitly
        }
        finish(c, 0, 0);
        s.pumpLocked();
        return;
    }
    case USBDEVFS_SETCONFIGURATION: {
        const unsigned v = argUint(c.arg, &ok);
        if (!ok) return finish(c, -1, EFAULT);
        c.rec.interface = v;
        if (v != 1 && v != 0) return finish(c, -1, EINVAL);
        if (v != unsigned(s.config) && (s.claimedBy[0] || s.claimedBy[1])) return finish(c, -1, EBUSY);
        s.config = int(v);
        s.alt[0] = s.alt[1] = 0;
        return finish(c, 0, 0);
    }
    case USBDEVFS_CLAIMINTERFACE:
    case USBDEVFS_RELEASEINTERFACE: {
        const unsigned v = argUint(c.arg, &ok);
        if (!ok) return finish(c, -1, EFAULT);
        c.rec.interface = v;
        if (!hasInterface(s, v)) return finish(c, -1, c.req == USBDEVFS_CLAIMINTERFACE ? ENOENT : EINVAL);
        if (c.req == USBDEVFS_RELEASEINTERFACE && s.claimedBy[v] != c.client) return finish(c, -1, EINVAL);
        s.claimedBy[v] = c.req == USBDEVFS_CLAIMINTERFACE ? c.client : nullptr;
        return finish(c, 0, 0);
    }
    case USBDEVFS_IOCTL: {
        UMockdevIoctlData* d = umockdev_ioctl_data_resolve(c.arg, 0, sizeof(usbdevfs_ioctl), nullptr);
        if (!d) return finish(c, -1, EFAULT);
        usbdevfs_ioctl io;
        memcpy(&io, d->data, sizeof io);
        umockdev_ioctl_data_unref(d);
        c.rec.interface = unsigned(io.ifno);
        c.rec.innerCode = io.ioctl_code;
        if (!hasInterface(s, unsigned(io.ifno))) return finish(c, -1, EINVAL);
        // No kernel driver is bound to a simulated interface.
        if (io.ioctl_code == int(USBDEVFS_DISCONNECT)) return finish(c, -1, ENODATA);
        if (io.ioctl_code == int(USBDEVFS_CONNECT)) return finish(c, 0, 0);
        return finish(c, -1, ENOTTY);
    }
    case USBDEVFS_RESET:
        ++s.resets;
        for (auto* u : s.inflight) {
            endUrb(u, -ESHUTDOWN);
            s.completed.push_back(u);
        }
        s.inflight.clear();
        s.alt[0] = s.alt[1] = 0;
        return finish(c, 0, 0);
    case USBDEVFS_GETDRIVER: return finish(c, -1, ENODATA);
    case USBDEVFS_CLEAR_HALT:
    case USBDEVFS_RESETEP: return finish(c, 0, 0);
    case USBDEVFS_GET_CAPABILITIES: {
        UMockdevIoctlData* d = umockdev_ioctl_data_resolve(c.arg, 0, sizeof(uint32_t), nullptr);
        if (!d) return finish(c, -1, EFAULT);
        const uint32_t caps = USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_NO_PACKET_SIZE_LIM;
        memcpy(d->data, &caps, sizeof caps);
        umockdev_ioctl_data_unref(d);
        return finish(c, 0, 0);
    }
    case USBDEVFS_GET_SPEED: return finish(c, 3 /* USB_SPEED_HIGH */, 0);
    case USBDEVFS_CONNECTINFO: {
        UMockdevIoctlData* d = umockdev_ioctl_data_resolve(c.arg, 0, sizeof(usbdevfs_connectinfo), nullptr);
        if (!d) return finish(c, -1, EFAULT);
        usbdevfs_connectinfo ci{s.dev, 0};
        memcpy(d->data, &ci, sizeof ci);
        umockdev_ioctl_data_unref(d);
        return finish(c, 0, 0);
    }
    default: return finish(c, -1, ENOTTY);
    }
}

}  // namespace

// Entry from umockdev's worker thread. Never blocks beyond our own mutex.
gboolean simHandleIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer user) {
    auto* tb = static_cast<TestbedImpl*>(user);
    std::shared_ptr<ReaderState> sp = tb->stateForClient(client);
    if (!sp) return FALSE;
    ReaderState& s = *sp;
    bool unplug = false, unplugAfter = false;
    {
        std::lock_guard<std::mutex> g(s.m);
        Ctx c{s, client, umockdev_ioctl_client_get_arg(client), umockdev_ioctl_client_get_request(client), {}};
        c.rec.request = c.req;
        c.rec.nr = _IOC_NR(c.req);
        c.rec.name = requestName(c.req);
        handleOne(c, &unplug, &unplugAfter);
        if (unplug) {
            s.unplugLocked();
            finish(c, -1, ENODEV);
        } else if (unplugAfter) {
            s.unplugLocked();
        }
    }
    if (unplug || unplugAfter) tb->removeSysfs(s);
    return TRUE;
}

// ------------------------------------------------------------ Reader API

bool IoctlRecord::isControl() const { return request == USBDEVFS_CONTROL; }

bool ControlMatch::matches(uint8_t rt, uint8_t rq, uint16_t v, uint16_t i) const {
    return (bRequestType < 0 || bRequestType == rt) && (bRequest < 0 || bRequest == rq) &&
           (wValue < 0 || wValue == v) && (wIndex < 0 || wIndex == i);
}

#define LOCK std::lock_guard<std::mutex> g_(s_->m)

Model Reader::model() const { return s_->info.model; }
const ModelInfo& Reader::info() const { return s_->info; }
uint16_t Reader::vendorId() const { return s_->vid; }
uint16_t Reader::productId() const { return s_->pid; }
uint16_t Reader::bcdDevice() const { return s_->bcd; }
unsigned Reader::busnum() const { return s_->bus; }
unsigned Reader::devnum() const { return s_->dev; }
std::string Reader::sysfsName() const { return s_->sysName; }
std::string Reader::sysfsPath() const { return s_->sysPath; }
std::string Reader::nodePath() const { return s_->node; }
std::string Reader::cameraName() const {
    char b[300];
    snprintf(b, sizeof b, "%04x_%04x_%04x_%03u_%s", s_->vid, s_->pid, s_->bcd, s_->bus, s_->sysName.c_str());
    return b;
}
std::string Reader::manufacturer() const { return s_->manufacturer; }
std::string Reader::product() const { return s_->product; }
std::string Reader::serial() const { return s_->serial; }
bool Reader::plugged() const { LOCK; return s_->plugged; }

uint8_t Reader::reg(uint16_t a) const { LOCK; return s_->regs[a]; }
void Reader::setReg(uint16_t a, uint8_t v) { LOCK; s_->regs[a] = v; }

int Reader::currentAltSetting(unsigned i) const { LOCK; return i < 2 ? s_->alt[i] : -1; }
int Reader::configuration() const { LOCK; return s_->config; }
bool Reader::interfaceClaimed(unsigned i) const { LOCK; return i < 2 && s_->claimedBy[i]; }
unsigned Reader::resetCount() const { LOCK; return s_->resets; }
std::optional<std::array<uint8_t, 26>> Reader::lastCommit() const { LOCK; return s_->commit; }
std::vector<std::array<uint8_t, 26>> Reader::commits() const { LOCK; return s_->commits; }
std::array<uint8_t, 26> Reader::probe() const { LOCK; return s_->probe; }

std::vector<IoctlRecord> Reader::log() const { LOCK; return s_->log; }
std::vector<IoctlRecord> Reader::controlTransfers() const { return ioctls(USBDEVFS_CONTROL); }
std::vector<IoctlRecord> Reader::ioctls(unsigned long request) const {
    LOCK;
    std::vector<IoctlRecord> r;
    for (const auto& x : s_->log)
        if (x.request == request) r.push_back(x);
    return r;
}
size_t Reader::count(unsigned long request) const {
    LOCK;
    return size_t(std::count_if(s_->log.begin(), s_->log.end(), [&](const IoctlRecord& x) { return x.request == request; }));
}
void Reader::clearLog() { LOCK; s_->log.clear(); }

size_t Reader::urbsInFlight() const { LOCK; return s_->inflight.size(); }
size_t Reader::isoUrbsInFlight() const { LOCK; return s_->isoInflightLocked(); }
size_t Reader::urbsCompleted() const { LOCK; return s_->completed.size(); }
uint64_t Reader::urbsSubmittedTotal() const { LOCK; return s_->submittedTotal; }
uint64_t Reader::urbsReapedTotal() const { LOCK; return s_->reapedTotal; }

uint32_t Reader::queueFrames(unsigned n, const FrameOptions& opt) {
    LOCK;
    const uint32_t f = s_->queueFramesLocked(n, opt);
    s_->pumpLocked();
    return f;
}
void Reader::queueRawPacket(std::vector<uint8_t> bytes) {
    LOCK;
    if (bytes.size() > kIsoPacketSize) bytes.resize(kIsoPacketSize);
    if (bytes.size() >= 2) s_->lastFid = bytes[1] & 1;
    QItem it;
    it.kind = QItem::Raw;
    it.raw = std::move(bytes);
    s_->queue.push_back(std::move(it));
    s_->pumpLocked();
}
void Reader::queueHeaderOnly(bool fid, bool eof) {
    auto h = payloadHeader(fid, eof);
    queueRawPacket(std::vector<uint8_t>(h.begin(), h.end()));
}
void Reader::queueUrbBreak() {
    LOCK;
    QItem it;
    it.kind = QItem::UrbBreak;
    s_->queue.push_back(it);
    s_->pumpLocked();
}
void Reader::queueEmptyUrbs(unsigned n) {
    LOCK;
    for (unsigned i = 0; i < n; ++i) {
        QItem it;
        it.kind = QItem::EmptyUrb;
        s_->queue.push_back(it);
    }
    s_->pumpLocked();
}
void Reader::hangNextUrbs(unsigned n) { LOCK; s_->hangNext += n; }
uint32_t Reader::frameCounter() const { LOCK; return s_->nextFrame; }
size_t Reader::packetsQueued() const {
    LOCK;
    return size_t(std::count_if(s_->queue.begin(), s_->queue.end(), [](const QItem& q) {
        return q.kind == QItem::FramePacket || q.kind == QItem::Raw;
    }));
}
uint64_t Reader::framesSent() const { LOCK; return s_->framesSent; }
uint64_t Reader::framesReaped() const { LOCK; return s_->framesReaped; }
void Reader::clearQueue() { LOCK; s_->queue.clear(); }

void Reader::setImageMode(ImageMode m) { LOCK; s_->imageMode = m; }
uint8_t Reader::expectedByte(uint32_t frame, uint32_t offset) const {
    ImageMode m;
    {
        LOCK;
        m = s_->imageMode;
    }
    return m == ImageMode::Pattern ? pixel(frame, offset) : s_->imageByte(frame, offset);
}
std::vector<uint8_t> Reader::expectedImage(uint32_t frame) const {
    std::vector<uint8_t> v(s_->info.imageSize());
    for (uint32_t i = 0; i < v.size(); ++i) v[i] = expectedByte(frame, i);
    return v;
}

template <class Pred>
static bool waitFor(ReaderState& s, std::chrono::milliseconds t, Pred p) {
    std::unique_lock<std::mutex> l(s.m);
    return s.cv.wait_for(l, t, p);
}

bool Reader::waitIsoUrbsInFlight(size_t k, Ms t) const {
    return waitFor(*s_, t, [&] { return s_->isoInflightLocked() >= k; });
}
bool Reader::waitFramesSent(uint64_t n, Ms t) const {
    return waitFor(*s_, t, [&] { return s_->framesSent >= n; });
}
bool Reader::waitFramesReaped(uint64_t n, Ms t) const {
    return waitFor(*s_, t, [&] { return s_->framesReaped >= n; });
}
bool Reader::waitQueueEmpty(Ms t) const {
    return waitFor(*s_, t, [&] { return s_->queue.empty(); });
}
bool Reader::waitAltSetting(unsigned i, int a, Ms t) const {
    return waitFor(*s_, t, [&] { return i < 2 && s_->alt[i] == a; });
}
bool Reader::waitCommit(Ms t) const {
    return waitFor(*s_, t, [&] { return s_->commit.has_value(); });
}
bool Reader::waitIoctlCount(unsigned long request, size_t n, Ms t) const {
    return waitFor(*s_, t, [&] {
        return size_t(std::count_if(s_->log.begin(), s_->log.end(),
                                    [&](const IoctlRecord& x) { return x.request == request; })) >= n;
    });
}

// --------------------------------------------------------------- pacing

static void pacerLoop(ReaderState* s) {
    using clock = std::chrono::steady_clock;
    auto next = clock::now();
    std::unique_lock<std::mutex> l(s->m);
    while (s->pacing) {
        std::chrono::microseconds step;
        if (s->pace.kind == Pace::HighBandwidth) {
            step = std::chrono::microseconds(1000);
            if (s->urbCredit < 2) ++s->urbCredit;
        } else if (s->pace.kind == Pace::FrameInterval) {
            uint32_t iv = s->pace.interval;
            if (!iv && s->commit) iv = uint32_t((*s->commit)[4]) | (*s->commit)[5] << 8 | (*s->commit)[6] << 16 | uint32_t((*s->commit)[7]) << 24;
            if (!iv) iv = s->info.frameInterval;
            step = std::chrono::microseconds(iv / 10);
            // A real sensor does not wait for the host: when two frames are
            // still queued, this one is lost.
            if (s->plugged && s->alt[1] == 1) {
                const size_t per = (s->info.imageSize() + kMaxPayloadPerPacket - 1) / kMaxPayloadPerPacket;
                if (s->queue.size() < 2 * per) s->queueFramesLocked(1, {});
                else ++s->nextFrame;
            }
        } else {
            step = std::chrono::microseconds(20000);
        }
        s->pumpLocked();
        next += step;
        if (next < clock::now() - std::chrono::milliseconds(50)) next = clock::now();
        s->cv.wait_until(l, next, [&] { return !s->pacing; });
    }
}

void Reader::startPaced(Pace p) {
    stopPaced();
    LOCK;
    s_->pace = p;
    s_->urbCredit = 0;
    s_->pacing = true;
    s_->pacer = std::thread(pacerLoop, s_.get());
}
void Reader::stopPaced() {
    std::thread t;
    {
        LOCK;
        s_->pacing = false;
        s_->cv.notify_all();
        t = std::move(s_->pacer);
    }
    if (t.joinable()) t.join();
}
bool Reader::paced() const { return s_->pacing; }

// --------------------------------------------------------------- faults

void Reader::failControl(ControlMatch m, int err, When w) {
    LOCK;
    Fault f;
    f.target = Fault::Control;
    f.action = Fault::Fail;
    f.match = m;
    f.err = err;
    f.when = w;
    s_->faults.push_back(f);
}
void Reader::shortControl(ControlMatch m, unsigned bytes, When w) {
    LOCK;
    Fault f;
    f.target = Fault::Control;
    f.action = Fault::Short;
    f.match = m;
    f.bytes = bytes;
    f.when = w;
    s_->faults.push_back(f);
}
void Reader::failIoctl(unsigned long request, int err, When w) {
    LOCK;
    Fault f;
    f.target = Fault::Ioctl;
    f.action = Fault::Fail;
    f.request = request;
    f.err = err;
    f.when = w;
    s_->faults.push_back(f);
}
void Reader::unplugOnControl(ControlMatch m, When w) {
    LOCK;
    Fault f;
    f.target = Fault::Control;
    f.action = Fault::Unplug;
    f.match = m;
    f.when = w;
    s_->faults.push_back(f);
}
void Reader::unplugOnIoctl(unsigned long request, When w) {
    LOCK;
    Fault f;
    f.target = Fault::Ioctl;
    f.action = Fault::Unplug;
    f.request = request;
    f.when = w;
    s_->faults.push_back(f);
}
void Reader::unplugOnIsoReap(unsigned n) {
    LOCK;
    Fault f;
    f.target = Fault::IsoReap;
    f.action = Fault::Unplug;
    f.when = When::nth(n);
    s_->faults.push_back(f);
}
void Reader::clearFaults() { LOCK; s_->faults.clear(); s_->hangNext = 0; }

void Reader::unplug() {
    {
        LOCK;
        s_->unplugLocked();
    }
    s_->tb->removeSysfs(*s_);
}

}  // namespace sim
