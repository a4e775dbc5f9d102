// Internal state of the simulator, shared by its translation units.
#pragma once

#include "simreader.h"

#include <umockdev.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

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

// A URB the host submitted and has not reaped yet.
struct Urb {
    UMockdevIoctlData* data = nullptr;  // usbdevfs_urb (+ iso packet descriptors)
    UMockdevIoctlData* buf = nullptr;   // its buffer, or null
    uint64_t addr = 0;                  // client address
    const void* owner = nullptr;        // the open file (umockdev client) that submitted it
    uint8_t type = 0, endpoint = 0;
    int bufferLength = 0;
    int packets = 0;
    bool hung = false;
    unsigned framesEnded = 0;           // frames whose last packet it carries
};

struct Fault {
    enum Action { Fail, Short, Unplug } action = Fail;
    enum Target { Ioctl, Control, IsoReap } target = Ioctl;
    unsigned long request = 0;
    ControlMatch match;
    When when;
    int err = 0;
    unsigned bytes = 0;
    unsigned seen = 0;   // matching events so far
    bool spent = false;
    // True when this event triggers the fault (counts the event).
    bool fire() {
        if (spent) return false;
        ++seen;
        switch (when.kind) {
        case When::Once: spent = true; return true;
        case When::Always: return true;
        case When::Nth:
            if (seen == when.n) { spent = true; return true; }
            return false;
        }
        return false;
    }
};

struct TestbedImpl;

struct ReaderState {
    mutable std::mutex m;
    mutable std::condition_variable cv;

    TestbedImpl* tb = nullptr;
    DeviceOptions opt;
    ModelInfo info{};
    uint16_t vid = 0, pid = 0, bcd = 0;
    unsigned bus = 0, dev = 0;
    std::string sysName, sysPath, node;
    std::vector<uint8_t> descriptors;
    std::string manufacturer, product, serial;  // effective texts ("" when absent)
    bool plugged = true;

    std::vector<uint8_t> regs = std::vector<uint8_t>(65536);
    int config = 0;
    int alt[2] = {0, 0};
    // The open file holding each interface. A claim by another file takes
    // it over instead of failing with EBUSY: umockdev tells us of a close
    // only later, so a reopen right after a close would be refused.
    const void* claimedBy[2] = {nullptr, nullptr};
    unsigned resets = 0;
    std::array<uint8_t, 26> probe{};
    std::optional<std::array<uint8_t, 26>> commit;
    std::vector<std::array<uint8_t, 26>> commits;
    // Pending extension-unit read per selector (index = selector): count, address.
    uint8_t xuCount[8] = {};
    uint16_t xuAddr[8] = {};

    std::deque<Urb*> inflight;
    std::deque<Urb*> completed;
    uint64_t submittedTotal = 0, reapedTotal = 0, isoReaps = 0;
    unsigned hangNext = 0;

    std::deque<QItem> queue;
    uint32_t nextFrame = 0;
    bool lastFid = true;      // so that frame 0 goes out with FID 0
    uint64_t framesSent = 0, framesReaped = 0;
    ImageMode imageMode = ImageMode::Pattern;
    uint32_t ptsClock = 0;
    mutable std::mutex imgMutex;  // cache of the last rendered fingerprint frame
    mutable uint32_t imgFrame = ~0u;
    mutable std::vector<uint8_t> img;

    std::vector<Fault> faults;
    std::vector<IoctlRecord> log;
    uint64_t seq = 0;

    // Pacing.
    std::atomic<bool> pacing{false};
    Pace pace;
    std::thread pacer;
    unsigned urbCredit = 0;

    // Helpers, called with m held.
    void pumpLocked();
    bool completeOneLocked(Urb* u);
    void fillPacket(uint8_t* dst, const QItem& it) const;
    void unplugLocked();  // marks gone and kills URBs (sysfs removal is done by the caller)
    void fileClosedLocked(const void* client);  // what usbfs does when an open file is released
    size_t isoInflightLocked() const;
    uint32_t queueFramesLocked(unsigned n, const FrameOptions& opt);
    uint8_t imageByte(uint32_t frame, uint32_t offset) const;
};

struct TestbedImpl {
    UMockdevTestbed* tb = nullptr;
    std::mutex m;  // guards the maps and umockdev testbed calls
    std::vector<std::unique_ptr<Reader>> readers;
    std::vector<std::shared_ptr<ReaderState>> states;
    // One ioctl handler per node path; which device it currently serves, and
    // which device each connected client opened.
    struct Node {
        UMockdevIoctlBase* handler = nullptr;
        std::shared_ptr<ReaderState> current;
    };
    std::vector<std::pair<std::string, Node>> nodes;
    std::vector<unsigned> rootHubs;
    unsigned nextPort[256] = {};
    unsigned nextDev[256] = {};

    std::shared_ptr<ReaderState> stateForClient(UMockdevIoctlClient* c);
    void removeSysfs(ReaderState& s);
};

}  // namespace sim
