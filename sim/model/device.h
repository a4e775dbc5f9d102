// The reader as a USB device, independent of how it is attached: what it
// answers to control requests, its configuration and alternate settings,
// register file, flash, probe/commit, and the stream queue that isochronous
// transfers are filled from. The umockdev transport (usbfs ioctls) and the
// usbredir transport (a QEMU guest's host controller) both serve this.
//
// Not thread-safe: the transport serialises every call with its own lock.
#pragma once

#include "simreader.h"

#include <array>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace sim {

// One queued stream item.
struct QItem {
    enum Kind { FramePacket, Raw, UrbBreak, EmptyUrb } kind = FramePacket;
    uint32_t frame = 0;     // FramePacket: frame number
    uint32_t offset = 0;    // image offset of the first byte
    uint32_t len = 0;       // image bytes carried
    bool fid = false;
    bool eof = false;
    bool lastOfFrame = false;
    std::vector<uint8_t> raw;  // Raw: whole packet
    uint32_t packetSize() const { return kind == Raw ? uint32_t(raw.size()) : len + kPayloadHeaderSize; }
};

// The 8-byte setup packet of a control transfer.
struct Setup {
    uint8_t bRequestType = 0, bRequest = 0;
    uint16_t wValue = 0, wIndex = 0, wLength = 0;
};

// One isochronous packet slot: `length` is the room the host gave it;
// `actual` and `status` (0 or -errno) are what the device filled in.
struct IsoSlot {
    uint32_t length = 0;
    uint32_t actual = 0;
    int status = 0;
};

struct DeviceModel {
    ModelInfo info{};
    std::vector<uint8_t> descriptors;           // device + configuration
    bool customDescriptors = false;             // only interface 0 alt 0 exists then
    std::string manufacturer, product, serial;  // "" = no such string

    std::vector<uint8_t> regs = std::vector<uint8_t>(65536);
    int config = 0;
    int alt[2] = {0, 0};
    std::array<uint8_t, 26> probe{};
    std::optional<std::array<uint8_t, 26>> commit;
    std::vector<std::array<uint8_t, 26>> commits;
    // Pending extension-unit read per selector (index = selector): count, address.
    uint8_t xuCount[8] = {};
    uint16_t xuAddr[8] = {};

    std::deque<QItem> queue;
    uint32_t nextFrame = 0;
    bool lastFid = true;      // so that frame 0 goes out with FID 0
    uint64_t framesSent = 0;
    ImageMode imageMode = ImageMode::Pattern;
    uint32_t ptsClock = 0;

    // Power-on state of a freshly attached reader of a model, with these
    // descriptors and strings.
    void reset(Model m, std::vector<uint8_t> desc, std::string manufacturer, std::string product,
               std::string serial);

    // Answers a control request: bytes moved into / taken from `data`
    // (len bytes of data stage), or -errno (-EPIPE = stall).
    long answerControl(const Setup& s, uint8_t* data, unsigned len);
    // SET_CONFIGURATION / SET_INTERFACE as the device sees them; false when
    // the device has no such configuration or setting.
    bool setConfiguration(unsigned value);
    bool setInterface(unsigned interface, unsigned altSetting);
    bool hasInterface(unsigned interface) const { return customDescriptors ? interface == 0 : interface < 2; }
    bool streaming() const { return alt[1] == 1; }

    // Fills one isochronous transfer of n slots into buf (slot i at the sum
    // of the lengths before it) from the queue. Returns the frames whose
    // last packet it carries. A queued EmptyUrb item leaves every slot empty.
    unsigned fillIso(IsoSlot* slots, int n, uint8_t* buf, size_t bufLength);
    // Appends n frames; returns the first frame number.
    uint32_t queueFrames(unsigned n, const FrameOptions& opt);
    // The sensor's clock ticked: one more frame, or a lost one when two are
    // still waiting to go out (a sensor does not wait for the host).
    void sensorTick();
    // Frame interval in 100 ns units: committed, else the model's default.
    uint32_t frameInterval() const;
    void fillPacket(uint8_t* dst, const QItem& it) const;
    uint8_t imageByte(uint32_t frame, uint32_t offset) const;

private:
    mutable std::mutex imgMutex_;  // cache of the last rendered fingerprint frame
    mutable uint32_t imgFrame_ = ~0u;
    mutable std::vector<uint8_t> img_;
};

// String descriptor (type 3) of an ASCII text.
std::vector<uint8_t> stringDescriptor(const std::string& s);

}  // namespace sim
