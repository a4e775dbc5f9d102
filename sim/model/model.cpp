// Reader models: identities, descriptors, stream content, flash and registers.
#include "simreader.h"

#include <cmath>
#include <cstring>

namespace sim {

namespace {

const ModelInfo kModels[] = {
    {Model::T10, 0x000B, "Tessary 10 Fingerprint Reader", 640, 480, 5, 333333, 307200},
    {Model::T20, 0x000C, "Tessary 20 Fingerprint Reader", 1296, 808, 1, 666666, 1310720},
    {Model::T30, 0x000D, "Tessary 30 Fingerprint Reader", 1280, 1024, 1, 666666, 1310720},
    {Model::T40, 0x000E, "Tessary 40 Fingerprint Reader", 1280, 1024, 1, 666666, 1310720},
};

void put16(std::vector<uint8_t>& v, uint16_t x) {
    v.push_back(uint8_t(x));
    v.push_back(uint8_t(x >> 8));
}
void put32(std::vector<uint8_t>& v, uint32_t x) {
    for (int i = 0; i < 4; ++i) v.push_back(uint8_t(x >> (8 * i)));
}
void set16(std::vector<uint8_t>& v, size_t at, uint16_t x) {
    v[at] = uint8_t(x);
    v[at + 1] = uint8_t(x >> 8);
}

}  // namespace

const ModelInfo& modelInfo(Model m) { return kModels[static_cast<int>(m)]; }

std::optional<Model> modelForProductId(uint16_t pid) {
    for (const auto& mi : kModels)
        if (mi.productId == pid) return mi.model;
    return std::nullopt;
}

uint8_t pixel(uint32_t frame, uint32_t offset) {
    if (offset < 4) return uint8_t(frame >> (8 * offset));
    uint32_t x = offset * 0x9E3779B1u ^ (frame * 0x85EBCA77u + 0x165667B1u);
    x ^= x >> 15;
    x *= 0x2C1B3C6Du;
    x ^= x >> 12;
    x *= 0x297A2D39u;
    x ^= x >> 15;
    return uint8_t(x >> 24);
}

uint32_t frameNumberOf(const uint8_t* image) {
    return uint32_t(image[0]) | uint32_t(image[1]) << 8 | uint32_t(image[2]) << 16 |
           uint32_t(image[3]) << 24;
}

long firstPatternMismatch(const uint8_t* image, size_t size, uint32_t frame) {
    for (size_t i = 0; i < size; ++i)
        if (image[i] != pixel(frame, uint32_t(i))) return long(i);
    return -1;
}

uint8_t flashByte(uint32_t address) {
    address %= kFlashSize;
    uint32_t x = address * 0x45D9F3Bu + 0x1234567u;
    x ^= x >> 16;
    return uint8_t(x ^ (address >> 8));
}

uint8_t defaultRegister(uint16_t address) {
    if (address == 0xF000) return 0;  // finger register: no finger
    return uint8_t((address * 31u) ^ (address >> 8) ^ 0x5A);
}

std::array<uint8_t, 12> payloadHeader(bool fid, bool eof, uint32_t pts, uint32_t scr) {
    std::array<uint8_t, 12> h{};
    h[0] = 12;
    h[1] = uint8_t(0x80 | 0x08 | 0x04 | (eof ? 0x02 : 0) | (fid ? 0x01 : 0));
    for (int i = 0; i < 4; ++i) h[2 + i] = uint8_t(pts >> (8 * i));
    for (int i = 0; i < 4; ++i) h[6 + i] = uint8_t(scr >> (8 * i));
    // SOF counter of the source clock: 11 bits.
    h[10] = uint8_t(scr >> 3);
    h[11] = uint8_t((scr >> 11) & 0x07);
    return h;
}

std::array<uint8_t, 26> expectedCommit(Model m, std::optional<uint32_t> interval) {
    const ModelInfo& mi = modelInfo(m);
    std::array<uint8_t, 26> c{};
    c[0] = 0x01;  // bmHint: dwFrameInterval fixed
    c[2] = 1;     // bFormatIndex
    c[3] = mi.frameIndex;
    uint32_t iv = interval.value_or(mi.frameInterval);
    for (int i = 0; i < 4; ++i) c[4 + i] = uint8_t(iv >> (8 * i));
    for (int i = 0; i < 4; ++i) c[18 + i] = uint8_t(mi.maxVideoFrameSize >> (8 * i));
    for (int i = 0; i < 4; ++i) c[22 + i] = uint8_t(kIsoPacketSize >> (8 * i));
    return c;
}

std::vector<uint8_t> readerDescriptors(Model m, uint16_t vid, std::optional<uint16_t> pid,
                                       uint16_t bcdDevice) {
    const ModelInfo& mi = modelInfo(m);
    std::vector<uint8_t> d;
    // Device: USB 2.0, miscellaneous class with interface association.
    d.insert(d.end(), {18, 1, 0x00, 0x02, 0xEF, 0x02, 0x01, 64});
    put16(d, vid);
    put16(d, pid.value_or(mi.productId));
    put16(d, bcdDevice);
    d.insert(d.end(), {1, 2, 3, 1});

    const size_t cfg = d.size();
    d.insert(d.end(), {9, 2, 0, 0, 2, 1, 0, 0x80, 0xFA});
    // Interface association: video interface collection 0..1.
    d.insert(d.end(), {8, 11, 0, 2, 0x0E, 0x03, 0x00, 0});
    // VideoControl interface 0.
    d.insert(d.end(), {9, 4, 0, 0, 1, 0x0E, 0x01, 0x00, 0});
    const size_t vch = d.size();
    d.insert(d.end(), {13, 0x24, 0x01, 0x00, 0x01, 0, 0});
    put32(d, 6000000);  // dwClockFrequency
    d.insert(d.end(), {1, 1});  // one streaming interface: 1
    // Input terminal 1: camera sensor.
    d.insert(d.end(), {18, 0x24, 0x02, 1, 0x01, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0});
    // Extension unit 6 with controls 3 (flash) and 7 (sensor).
    d.insert(d.end(), {27, 0x24, 0x06, 6});
    static const uint8_t guid[16] = {0x5a, 0x54, 0x55, 0x56, 0x43, 0x58, 0x55, 0x00,
                                     0x91, 0x3d, 0x52, 0x65, 0x61, 0x64, 0x65, 0x72};
    d.insert(d.end(), guid, guid + 16);
    d.insert(d.end(), {2, 1, 1, 2, 0x44, 0x00, 0});
    // Output terminal 3: USB streaming, fed by unit 6.
    d.insert(d.end(), {9, 0x24, 0x03, 3, 0x01, 0x01, 0, 6, 0});
    set16(d, vch + 5, uint16_t(d.size() - vch));
    // Interrupt IN endpoint + class-specific interrupt endpoint.
    d.insert(d.end(), {7, 5, kInterruptEndpoint, 0x03, 16, 0, 8});
    d.insert(d.end(), {5, 0x25, 0x03, 16, 0});

    // VideoStreaming interface 1, alt 0: no endpoints.
    d.insert(d.end(), {9, 4, 1, 0, 0, 0x0E, 0x02, 0x00, 0});
    const size_t vsh = d.size();
    d.insert(d.end(), {14, 0x24, 0x01, 1, 0, 0, kIsoEndpoint, 0, 3, 0, 0, 0, 1, 0});
    // Uncompressed YUY2 format; the raw 8-bit image travels as width x height/2 YUYV.
    d.insert(d.end(), {27, 0x24, 0x04, 1, 1});
    static const uint8_t yuy2[16] = {'Y', 'U', 'Y', '2', 0x00, 0x00, 0x10, 0x00,
                                     0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
    d.insert(d.end(), yuy2, yuy2 + 16);
    d.insert(d.end(), {16, mi.frameIndex, 0, 0, 0, 0});
    // The one frame descriptor, with the default interval and two slower ones.
    d.insert(d.end(), {38, 0x24, 0x05, mi.frameIndex, 0});
    put16(d, uint16_t(mi.width));
    put16(d, uint16_t(mi.height / 2));
    const uint32_t bytes = mi.width * mi.height;
    const uint32_t fps = 10000000u / mi.frameInterval;
    put32(d, bytes * 8 * (fps / 4 ? fps / 4 : 1));
    put32(d, bytes * 8 * fps);
    put32(d, bytes);
    put32(d, mi.frameInterval);
    d.push_back(3);
    put32(d, mi.frameInterval);
    put32(d, mi.frameInterval * 2);
    put32(d, mi.frameInterval * 4);
    // Colour matching.
    d.insert(d.end(), {6, 0x24, 0x0D, 1, 1, 4});
    set16(d, vsh + 4, uint16_t(d.size() - vsh));
    // Alt 1: one isochronous IN endpoint, 3 x 1024 bytes per microframe.
    d.insert(d.end(), {9, 4, 1, 1, 1, 0x0E, 0x02, 0x00, 0});
    d.insert(d.end(), {7, 5, kIsoEndpoint, 0x05, 0x00, 0x14, 1});

    set16(d, cfg + 2, uint16_t(d.size() - cfg));
    return d;
}

std::vector<uint8_t> otherDeviceDescriptors(uint16_t vid, uint16_t pid) {
    std::vector<uint8_t> d = {18, 1, 0x00, 0x02, 0, 0, 0, 8};
    put16(d, vid);
    put16(d, pid);
    put16(d, 0x0110);
    d.insert(d.end(), {1, 2, 0, 1});
    d.insert(d.end(), {9, 2, 34, 0, 1, 1, 0, 0xA0, 50});
    d.insert(d.end(), {9, 4, 0, 0, 1, 0x03, 0x01, 0x02, 0});
    d.insert(d.end(), {9, 0x21, 0x11, 0x01, 0, 1, 0x22, 52, 0});
    d.insert(d.end(), {7, 5, 0x81, 0x03, 4, 0, 10});
    return d;
}

// A fingerprint-like picture: elliptical pad of curved ridges on a light
// background, with the frame number drawn in the top-left corner.
namespace {
const uint8_t kDigits[10][7] = {
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
    {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}, {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C},
};
}  // namespace

uint8_t fingerprintByte(const ModelInfo& mi, uint32_t frame, uint32_t offset) {
    const uint32_t x = offset % mi.width, y = offset / mi.width;
    // Counter: 8 digits, 5x7 glyphs scaled by 4, at (16,16).
    const uint32_t scale = 4, gx = 16, gy = 16;
    if (y >= gy && y < gy + 7 * scale && x >= gx && x < gx + 8 * 6 * scale) {
        const uint32_t col = (x - gx) / scale, row = (y - gy) / scale;
        const uint32_t digit = col / 6, dx = col % 6;
        uint32_t v = frame;
        for (uint32_t i = 0; i < 7 - digit; ++i) v /= 10;
        const bool on = dx < 5 && (kDigits[v % 10][row] >> (4 - dx)) & 1;
        return on ? 0 : 255;
    }
    const double cx = mi.width / 2.0, cy = mi.height / 2.0;
    const double ex = (x - cx) / (mi.width * 0.36), ey = (y - cy) / (mi.height * 0.45);
    const double e = ex * ex + ey * ey;
    if (e > 1.0) return 235;
    const double dx = x - cx, dy = (y - cy * 1.15) * 1.2;
    const double r = std::sqrt(dx * dx + dy * dy);
    const double a = std::atan2(dy, dx);
    const double s = std::sin(r / 4.2 + 1.8 * std::sin(a * 2.0) + 0.02 * frame);
    double v = 128 + 105 * s;
    v = v * (1.0 - 0.3 * e) + 235 * 0.3 * e;
    return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v);
}

}  // namespace sim
