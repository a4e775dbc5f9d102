// The reader's device-side behaviour, shared by every transport.
#include "device.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace sim {

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

void DeviceModel::reset(Model m, std::vector<uint8_t> desc, std::string mf, std::string pr, std::string sn) {
    info = modelInfo(m);
    descriptors = std::move(desc);
    manufacturer = std::move(mf);
    product = std::move(pr);
    serial = std::move(sn);
    regs.assign(65536, 0);
    for (unsigned a = 0; a < 65536; ++a) regs[a] = defaultRegister(uint16_t(a));
    probe = expectedCommit(m);
    config = 0;
    alt[0] = alt[1] = 0;
    commit.reset();
    commits.clear();
    for (auto& c : xuCount) c = 0;
    queue.clear();
    nextFrame = 0;
    lastFid = true;
    framesSent = 0;
    ptsClock = 0;
}

bool DeviceModel::setConfiguration(unsigned v) {
    if (v != 1 && v != 0) return false;
    config = int(v);
    alt[0] = alt[1] = 0;
    return true;
}

bool DeviceModel::setInterface(unsigned i, unsigned a) {
    const bool valid = customDescriptors ? i == 0 && a == 0 : (i == 0 && a == 0) || (i == 1 && a <= 1);
    if (!valid) return false;
    alt[i] = int(a);
    return true;
}

uint32_t DeviceModel::frameInterval() const {
    if (commit) {
        const auto& c = *commit;
        const uint32_t iv = uint32_t(c[4]) | c[5] << 8 | c[6] << 16 | uint32_t(c[7]) << 24;
        if (iv) return iv;
    }
    return info.frameInterval;
}

void DeviceModel::sensorTick() {
    const size_t per = (info.imageSize() + kMaxPayloadPerPacket - 1) / kMaxPayloadPerPacket;
    if (queue.size() < 2 * per) queueFrames(1, {});
    else ++nextFrame;
}

uint8_t DeviceModel::imageByte(uint32_t frame, uint32_t offset) const {
    if (imageMode == ImageMode::Pattern) return pixel(frame, offset);
    if (offset >= info.imageSize()) return pixel(frame, offset);
    std::lock_guard<std::mutex> g(imgMutex_);
    if (imgFrame_ != frame) {
        img_.resize(info.imageSize());
        for (uint32_t i = 0; i < img_.size(); ++i) img_[i] = fingerprintByte(info, frame, i);
        imgFrame_ = frame;
    }
    return img_[offset];
}

void DeviceModel::fillPacket(uint8_t* dst, const QItem& it) const {
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

uint32_t DeviceModel::queueFrames(unsigned n, const FrameOptions& o) {
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

unsigned DeviceModel::fillIso(IsoSlot* d, int n, uint8_t* buf, size_t bufLength) {
    unsigned ended = 0;
    for (int i = 0; i < n; ++i) {
        d[i].actual = 0;
        d[i].status = 0;
    }
    if (!queue.empty() && queue.front().kind == QItem::EmptyUrb) {
        queue.pop_front();
        return 0;
    }
    uint32_t at = 0;
    for (int i = 0; i < n; ++i) {
        const uint32_t room = d[i].length;
        if (queue.empty()) break;
        QItem& it = queue.front();
        if (it.kind == QItem::EmptyUrb) break;
        if (it.kind == QItem::UrbBreak) {
            queue.pop_front();
            break;
        }
        const uint32_t psz = it.packetSize();
        if (psz > 0 && buf && at + std::min(psz, room) <= bufLength) {
            if (psz <= room) {
                fillPacket(buf + at, it);
            } else {
                // Larger than the slot: the host sees the first `room` bytes (babble).
                std::vector<uint8_t> tmp(psz);
                fillPacket(tmp.data(), it);
                memcpy(buf + at, tmp.data(), room);
                d[i].status = -EOVERFLOW;
            }
            d[i].actual = std::min(psz, room);
        }
        if (it.kind == QItem::FramePacket && it.lastOfFrame) {
            ++ended;
            ++framesSent;
        }
        ptsClock += 1;
        at += room;
        queue.pop_front();
    }
    return ended;
}

long DeviceModel::answerControl(const Setup& t, uint8_t* data, unsigned len) {
    DeviceModel& s = *this;
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

}  // namespace sim
