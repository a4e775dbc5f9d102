// Simulated fingerprint readers on umockdev, for tests, benchmarks and tools.
//
// One sim::Testbed per process (create it first, before the library under
// test starts any thread). It adds USB devices to umockdev's fake sysfs and
// /dev/bus/usb, and answers every usbfs ioctl on their nodes from a model of
// a UVC reader (sim::Reader). The library under test runs unmodified: it only
// sees sysfs files, device nodes and ioctls.
//
// Stream timing: by default "virtual time": isochronous URBs complete only
// from packets the test queued (queueFrames() and friends). startPaced()
// switches a reader to a generator thread for demos, soak runs and benchmarks.
//
// See README.md in this folder for a walk-through.
#pragma once

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sim {

// ---------------------------------------------------------------- models

enum class Model { T10, T20, T30, T40 };

constexpr uint16_t kVendorId = 0x3A5C;
constexpr uint8_t kIsoEndpoint = 0x81;       // interface 1, alt 1
constexpr uint8_t kInterruptEndpoint = 0x82; // interface 0
constexpr uint32_t kIsoPacketSize = 3072;     // bytes per microframe
constexpr uint32_t kPayloadHeaderSize = 12;
constexpr uint32_t kMaxPayloadPerPacket = kIsoPacketSize - kPayloadHeaderSize;  // 3060
constexpr uint32_t kFlashSize = 1u << 20;    // flash image, wraps beyond

struct ModelInfo {
    Model model;
    uint16_t productId;
    const char* name;            // product string, e.g. "Tessary 30 Fingerprint Reader"
    uint32_t width;
    uint32_t height;
    uint8_t frameIndex;          // bFrameIndex of its single frame descriptor
    uint32_t frameInterval;      // default, 100 ns units
    uint32_t maxVideoFrameSize;  // as the library commits it
    uint32_t imageSize() const { return width * height; }
};

const ModelInfo& modelInfo(Model m);
// Model for a product id of the reader vendor, if it is one of the four.
std::optional<Model> modelForProductId(uint16_t pid);

// Image byte `offset` of frame number `frame` (test pattern mode). Bytes 0..3
// of every frame hold the frame number little-endian, so a frame identifies
// itself (see frameNumberOf); the rest is a hash of (frame, offset) in which
// every shift, swap or repetition of bytes shows.
uint8_t pixel(uint32_t frame, uint32_t offset);
uint32_t frameNumberOf(const uint8_t* image);
// Index of the first byte of `image` (size bytes) that differs from the
// pattern of `frame`, or -1 when the whole image matches.
long firstPatternMismatch(const uint8_t* image, size_t size, uint32_t frame);

// Image byte `offset` of frame `frame` in fingerprint mode: ridges that
// drift from frame to frame.
uint8_t fingerprintByte(const ModelInfo& mi, uint32_t frame, uint32_t offset);

// Deterministic flash content: byte at `address` (wraps at kFlashSize).
uint8_t flashByte(uint32_t address);
// Power-on value of sensor register `address` (the register file is 64 KiB).
uint8_t defaultRegister(uint16_t address);

// ------------------------------------------------------ wire-level helpers

// Builds a 12-byte UVC payload header: bHeaderLength 12, bmHeaderInfo with
// FID (bit 0), EOF (bit 1), PTS (bit 2), SCR (bit 3) and EOH (bit 7).
std::array<uint8_t, 12> payloadHeader(bool fid, bool eof, uint32_t pts = 0, uint32_t scr = 0);

// The 26-byte probe/commit block the library sends for a model at its
// default interval (or `interval` when given).
std::array<uint8_t, 26> expectedCommit(Model m, std::optional<uint32_t> interval = std::nullopt);

// Full sysfs "descriptors" content (device + configuration) of a model.
std::vector<uint8_t> readerDescriptors(Model m, uint16_t vid = kVendorId,
                                       std::optional<uint16_t> pid = std::nullopt,
                                       uint16_t bcdDevice = 0x0100);
// A plain non-video device (a HID mouse-like device) with the given ids.
std::vector<uint8_t> otherDeviceDescriptors(uint16_t vid, uint16_t pid);

// --------------------------------------------------------- ioctl log

struct IoctlRecord {
    uint64_t seq = 0;              // order of arrival, from 1
    unsigned long request = 0;     // full ioctl request code (USBDEVFS_*)
    unsigned nr = 0;               // _IOC_NR(request)
    std::string name;              // "CONTROL", "SUBMITURB", ... or "0x...."
    long result = 0;               // what the caller got back
    int err = 0;                   // errno the caller got (0 on success)

    // USBDEVFS_CONTROL
    uint8_t bRequestType = 0, bRequest = 0;
    uint16_t wValue = 0, wIndex = 0, wLength = 0;
    uint32_t timeout = 0;
    std::vector<uint8_t> dataOut;  // host -> device data stage
    std::vector<uint8_t> dataIn;   // device -> host bytes returned

    // SETINTERFACE (interface, alt), CLAIM/RELEASEINTERFACE and
    // SETCONFIGURATION (value in `interface`), USBDEVFS_IOCTL (ifno in
    // `interface`, inner ioctl code in `innerCode`)
    unsigned interface = 0, alt = 0;
    int innerCode = 0;

    // SUBMITURB / DISCARDURB / REAPURBNDELAY (the URB reaped)
    uint64_t urbAddress = 0;       // client address of the usbdevfs_urb
    uint8_t urbType = 0, endpoint = 0;
    unsigned urbFlags = 0;
    int bufferLength = 0;
    int numberOfPackets = 0;
    int urbStatus = 0;             // reap: status handed back
    int actualLength = 0;          // reap: actual_length handed back

    bool isControl() const;
};

// ------------------------------------------------------- fault injection

// Which occurrences of a matching event a fault applies to.
struct When {
    enum Kind { Once, Always, Nth } kind = Once;
    unsigned n = 1;                // Nth: 1-based count of matching events
    static When once() { return {Once, 1}; }
    static When always() { return {Always, 1}; }
    static When nth(unsigned k) { return {Nth, k}; }
};

// Matches a control request; -1 fields match anything.
struct ControlMatch {
    int bRequestType = -1;
    int bRequest = -1;
    int wValue = -1;
    int wIndex = -1;
    bool matches(uint8_t rt, uint8_t rq, uint16_t v, uint16_t i) const;

    static ControlMatch commit() { return {0x21, 0x01, 0x0200, 0x0001}; }
    static ControlMatch xuSet(int selector = -1) { return {0x21, 0x01, selector < 0 ? -1 : selector << 8, 0x0600}; }
    static ControlMatch xuGet(int selector = -1) { return {0xA1, 0x81, selector < 0 ? -1 : selector << 8, 0x0600}; }
    static ControlMatch flashRead() { return {0xA1, 0x81, 0x0300, 0x0600}; }
    static ControlMatch any() { return {}; }
};

// Options for frames queued in virtual time.
struct FrameOptions {
    int sizeDelta = 0;               // bytes more (+) or fewer (-) than width*height
    uint32_t payloadPerPacket = kMaxPayloadPerPacket;  // 1..3060 image bytes per packet
    bool eofBit = true;              // set EOF on the last packet
};

// Pacing for startPaced().
struct Pace {
    enum Kind {
        FrameInterval,   // one frame every committed frame interval
        AsFastAsPossible,// frames whenever the host has URBs waiting
        HighBandwidth,   // 8 packets per millisecond (3072 B / 125 us)
    } kind = FrameInterval;
    // FrameInterval: override of the interval in 100 ns units (0 = committed,
    // or the model default when nothing was committed).
    uint32_t interval = 0;
};

enum class ImageMode { Pattern, Fingerprint };

struct DeviceOptions {
    Model model = Model::T30;
    // Identity; defaults come from the model.
    uint16_t vendorId = kVendorId;
    std::optional<uint16_t> productId;
    uint16_t bcdDevice = 0x0100;
    // Raw sysfs descriptors (and what GET_DESCRIPTOR answers). Default:
    // the model's full UVC layout.
    std::optional<std::vector<uint8_t>> descriptors;
    // String files; std::nullopt = the file does not exist.
    std::optional<std::string> manufacturer = std::string("Tessary Biometrics");
    std::optional<std::string> product = std::string("");  // "" = model name
    std::optional<std::string> serial = std::string("");   // "" = "SIM" + number
    // Sysfs directory name; "" = "<bus>-<n>" with n counting from 1.
    std::string sysfsName;
    unsigned busnum = 1;
    unsigned devnum = 0;             // 0 = next free number on that bus (from 2)
    // Raw attribute files written after the defaults (name, exact contents),
    // e.g. {"busnum", "abc\n"} or {"product", "  \n"}.
    std::vector<std::pair<std::string, std::string>> rawAttributes;
    // Attribute files that exist but cannot be read: open() succeeds,
    // read() fails (EISDIR: they become directories, since we run as root).
    std::vector<std::string> unreadableAttributes;
    // Attribute files that do not exist at all (open() fails with ENOENT).
    std::vector<std::string> missingAttributes;
};

class Testbed;
struct ReaderState;

// A simulated device. Owned by the testbed; stays valid (and answers ENODEV)
// after unplug until the testbed is destroyed. All methods are thread-safe.
class Reader {
public:
    // Identity and places.
    Model model() const;
    const ModelInfo& info() const;
    uint16_t vendorId() const;
    uint16_t productId() const;
    uint16_t bcdDevice() const;
    unsigned busnum() const;
    unsigned devnum() const;
    std::string sysfsName() const;         // "1-1"
    std::string sysfsPath() const;         // "/sys/devices/.../1-1" (as seen under preload)
    std::string nodePath() const;          // "/dev/bus/usb/001/002"
    std::string cameraName() const;        // "3a5c_000d_0100_001_1-1", what the library names it
    std::string manufacturer() const;
    std::string product() const;
    std::string serial() const;
    bool plugged() const;

    // Register file (64 KiB) and flash.
    uint8_t reg(uint16_t address) const;
    void setReg(uint16_t address, uint8_t value);

    // Device state.
    int currentAltSetting(unsigned interface) const;  // -1 if unknown interface
    int configuration() const;                        // 0 until SETCONFIGURATION
    bool interfaceClaimed(unsigned interface) const;
    unsigned resetCount() const;
    std::optional<std::array<uint8_t, 26>> lastCommit() const;
    std::vector<std::array<uint8_t, 26>> commits() const;
    std::array<uint8_t, 26> probe() const;            // current probe block

    // Ioctl log.
    std::vector<IoctlRecord> log() const;
    std::vector<IoctlRecord> controlTransfers() const;
    std::vector<IoctlRecord> ioctls(unsigned long request) const;
    size_t count(unsigned long request) const;
    void clearLog();

    // URBs.
    size_t urbsInFlight() const;           // submitted, not completed (ISO + others)
    size_t isoUrbsInFlight() const;
    size_t urbsCompleted() const;          // completed, not yet reaped
    uint64_t urbsSubmittedTotal() const;
    uint64_t urbsReapedTotal() const;

    // --- Virtual time: stream content ---------------------------------
    // Appends n whole frames (numbers frameCounter() ... +n-1). Returns the
    // number of the first one. FID toggles per frame; EOF on the last packet.
    uint32_t queueFrames(unsigned n, const FrameOptions& opt = {});
    // One frame short (negative) or long (positive) by `delta` bytes.
    uint32_t queueFrame(int sizeDelta) { return queueFrames(1, FrameOptions{sizeDelta}); }
    // A raw packet of any size (0..3072 bytes) with any contents.
    void queueRawPacket(std::vector<uint8_t> bytes);
    // A header-only packet (12 bytes) with the given FID.
    void queueHeaderOnly(bool fid, bool eof = false);
    // The URB that takes the next queued item completes early, with
    // the packets before this mark only (the rest zero-length).
    void queueUrbBreak();
    // The next n URBs to complete carry zero-length packets only.
    void queueEmptyUrbs(unsigned n);
    // The next n ISO URBs submitted never complete on their own (a discard
    // or an unplug still ends them).
    void hangNextUrbs(unsigned n);
    // Frame number the next queued frame gets; FID of the last packet queued.
    uint32_t frameCounter() const;
    size_t packetsQueued() const;
    // Frames whose last packet went out in a completed URB, and frames whose
    // every URB has been reaped by the host.
    uint64_t framesSent() const;
    uint64_t framesReaped() const;
    void clearQueue();

    // Image content (Pattern = sim::pixel, Fingerprint = ridges + counter).
    void setImageMode(ImageMode m);
    uint8_t expectedByte(uint32_t frame, uint32_t offset) const;
    std::vector<uint8_t> expectedImage(uint32_t frame) const;

    // --- Waits (virtual time helpers); false on timeout ----------------
    using Ms = std::chrono::milliseconds;
    bool waitIsoUrbsInFlight(size_t k, Ms timeout = Ms(5000)) const;
    bool waitFramesSent(uint64_t n, Ms timeout = Ms(5000)) const;
    bool waitFramesReaped(uint64_t n, Ms timeout = Ms(5000)) const;
    bool waitQueueEmpty(Ms timeout = Ms(5000)) const;
    bool waitAltSetting(unsigned interface, int alt, Ms timeout = Ms(5000)) const;
    bool waitCommit(Ms timeout = Ms(5000)) const;
    bool waitIoctlCount(unsigned long request, size_t n, Ms timeout = Ms(5000)) const;

    // --- Paced streaming ------------------------------------------------
    void startPaced(Pace p = {});
    void stopPaced();
    bool paced() const;

    // --- Faults -----------------------------------------------------------
    // Control request fails with errno `err` (EPIPE = stall).
    void failControl(ControlMatch m, int err, When w = When::once());
    void stallControl(ControlMatch m, When w = When::once()) { failControl(m, EPIPE, w); }
    // Control request answers only `bytes` bytes (device -> host), or takes
    // only `bytes` (host -> device).
    void shortControl(ControlMatch m, unsigned bytes, When w = When::once());
    // Any ioctl by full request code (USBDEVFS_*) fails with `err`.
    void failIoctl(unsigned long request, int err, When w = When::once());
    // Unplug when the event happens; the event itself answers ENODEV.
    void unplugOnControl(ControlMatch m, When w = When::once());
    void unplugOnIoctl(unsigned long request, When w = When::once());
    // Unplug at the Nth successful ISO reap (that reap still delivers).
    void unplugOnIsoReap(unsigned n);
    void clearFaults();
    // Unplug now (same as Testbed::unplug).
    void unplug();

private:
    friend class Testbed;
    explicit Reader(std::shared_ptr<ReaderState> s) : s_(std::move(s)) {}
    std::shared_ptr<ReaderState> s_;
};

// Holds the exclusive flock on a node, from this process (own open file
// description) or from a forked child process. Released on destruction.
class LockHolder {
public:
    LockHolder() = default;
    LockHolder(LockHolder&&) noexcept;
    LockHolder& operator=(LockHolder&&) noexcept;
    ~LockHolder();
    bool held() const { return fd_ >= 0 || pid_ > 0; }
    void release();
private:
    friend class Testbed;
    int fd_ = -1;
    int pid_ = -1;
    int pipe_ = -1;
};

class Testbed {
public:
    Testbed();   // aborts unless running under umockdev's preload
    ~Testbed();
    Testbed(const Testbed&) = delete;
    Testbed& operator=(const Testbed&) = delete;

    static Testbed* current();          // the live testbed, or null

    Reader& addReader(Model m);
    Reader& addReader(Model m, DeviceOptions opt);
    Reader& addDevice(DeviceOptions opt);          // any device, any descriptors
    Reader& addUnsupported(uint16_t vid, uint16_t pid);  // plain non-video device
    void unplug(Reader& r);
    std::vector<Reader*> devices();

    // Another holder of the node's flock: a second open file description in
    // this process, or a child process.
    LockHolder holdLock(const Reader& r);
    LockHolder holdLockInChild(const Reader& r);
    // Makes open(O_RDWR) of the node fail. Tries EACCES-like denial first
    // (immutable node); returns the errno open() now gives, 0 if nothing
    // could be done. See README for what root can and cannot emulate.
    int denyOpen(const Reader& r);
    void allowOpen(const Reader& r);

    std::string rootDir() const;        // umockdev's testbed root

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// ------------------------------------------------------------ environment

bool underUmockdevPreload();            // LD_PRELOAD names libumockdev-preload

}  // namespace sim
