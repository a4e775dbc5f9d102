// The simulator driven with raw usbfs calls: what a usbfs client sees.
#include "simtest.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>
#include <set>
#include <thread>

using namespace sim;

namespace {

std::string readFile(const std::string& p, int* err = nullptr) {
    int fd = open(p.c_str(), O_RDONLY);
    if (fd < 0) {
        if (err) *err = errno;
        return "<open failed>";
    }
    char b[65536];
    ssize_t n = read(fd, b, sizeof b);
    int e = errno;
    close(fd);
    if (n < 0) {
        if (err) *err = e;
        return "<read failed>";
    }
    if (err) *err = 0;
    return std::string(b, size_t(n));
}

std::set<std::string> sysDevices() {
    std::set<std::string> s;
    DIR* d = opendir("/sys/bus/usb/devices");
    if (!d) return s;
    while (dirent* e = readdir(d))
        if (e->d_name[0] != '.') s.insert(e->d_name);
    closedir(d);
    return s;
}

int ctrl(int fd, uint8_t rt, uint8_t rq, uint16_t v, uint16_t i, void* data, uint16_t len) {
    usbdevfs_ctrltransfer t{};
    t.bRequestType = rt;
    t.bRequest = rq;
    t.wValue = v;
    t.wIndex = i;
    t.wLength = len;
    t.timeout = 1000;
    t.data = data;
    return ioctl(fd, USBDEVFS_CONTROL, &t);
}

// An ISO URB as the library builds it: 8 packets of 3072 bytes.
struct IsoUrb {
    alignas(16) uint8_t head[sizeof(usbdevfs_urb) + 8 * sizeof(usbdevfs_iso_packet_desc)];
    uint8_t buf[8 * 3072];
    usbdevfs_urb& urb = *reinterpret_cast<usbdevfs_urb*>(head);
    usbdevfs_iso_packet_desc* desc = reinterpret_cast<usbdevfs_iso_packet_desc*>(head + sizeof(usbdevfs_urb));
    void prepare() {
        memset(&urb, 0, sizeof urb);
        urb.type = USBDEVFS_URB_TYPE_ISO;
        urb.endpoint = 0x81;
        urb.flags = USBDEVFS_URB_ISO_ASAP;
        urb.buffer = buf;
        urb.buffer_length = sizeof buf;
        urb.number_of_packets = 8;
        for (int i = 0; i < 8; ++i) desc[i] = {3072, 0, 0};
        memset(buf, 0xEE, sizeof buf);
    }
};

class RawTest : public SimTest {
protected:
    int openNode(Reader& r) {
        int fd = open(r.nodePath().c_str(), O_RDWR);
        EXPECT_GE(fd, 0) << strerror(errno);
        return fd;
    }
    usbdevfs_urb* reap(int fd) {
        void* p = nullptr;
        if (ioctl(fd, USBDEVFS_REAPURBNDELAY, &p) != 0) return nullptr;
        return static_cast<usbdevfs_urb*>(p);
    }
    void setAlt(int fd, unsigned i, unsigned a) {
        usbdevfs_setinterface si{i, a};
        ASSERT_EQ(ioctl(fd, USBDEVFS_SETINTERFACE, &si), 0) << strerror(errno);
    }
};

TEST_F(RawTest, SysfsShowsReadersWithExactAttributes) {
    Reader& a = addReader(Model::T10);
    DeviceOptions o;
    o.serial = std::string("ABC 123");
    o.sysfsName = "2-1.4";
    o.busnum = 2;
    o.devnum = 7;
    Reader& b = addReader(Model::T30, o);
    testbed().addUnsupported(0x046d, 0xc077);
    auto devs = sysDevices();
    EXPECT_TRUE(devs.count("usb1"));
    EXPECT_TRUE(devs.count("usb2"));
    EXPECT_TRUE(devs.count("1-1"));
    EXPECT_TRUE(devs.count("1-1:1.0"));
    EXPECT_TRUE(devs.count("1-2"));
    EXPECT_TRUE(devs.count("2-1.4"));
    EXPECT_EQ(a.sysfsName(), "1-1");
    EXPECT_EQ(readFile("/sys/bus/usb/devices/1-1/busnum"), "1\n");
    EXPECT_EQ(readFile("/sys/bus/usb/devices/1-1/devnum"), std::to_string(a.devnum()) + "\n");
    EXPECT_EQ(readFile("/sys/bus/usb/devices/2-1.4/busnum"), "2\n");
    EXPECT_EQ(readFile("/sys/bus/usb/devices/2-1.4/devnum"), "7\n");
    EXPECT_EQ(readFile("/sys/bus/usb/devices/2-1.4/serial"), "ABC 123\n");
    EXPECT_EQ(readFile("/sys/bus/usb/devices/1-1/product"), "Tessary 10 Fingerprint Reader\n");
    EXPECT_EQ(b.nodePath(), "/dev/bus/usb/002/007");
    EXPECT_EQ(b.cameraName(), "3a5c_000d_0100_002_2-1.4");
    std::string d = readFile("/sys/bus/usb/devices/1-1/descriptors");
    auto expect = readerDescriptors(Model::T10);
    ASSERT_EQ(d.size(), expect.size());
    EXPECT_EQ(0, memcmp(d.data(), expect.data(), d.size()));
    EXPECT_EQ(uint8_t(d[10]), 0x0B);
    EXPECT_EQ(uint8_t(d[8]), 0x5C);
    EXPECT_EQ(uint8_t(d[9]), 0x3A);
}

TEST_F(RawTest, AttributeOverridesMissingAndUnreadable) {
    DeviceOptions o;
    o.manufacturer = std::nullopt;
    o.product = std::string("  ");
    o.rawAttributes = {{"busnum", "abc\n"}};
    o.unreadableAttributes = {"devnum"};
    o.missingAttributes = {"serial"};
    Reader& r = addReader(Model::T20, o);
    const std::string dir = "/sys/bus/usb/devices/" + r.sysfsName() + "/";
    int err = 0;
    readFile(dir + "manufacturer", &err);
    EXPECT_EQ(err, ENOENT);
    readFile(dir + "serial", &err);
    EXPECT_EQ(err, ENOENT);
    EXPECT_EQ(readFile(dir + "product"), "  \n");
    EXPECT_EQ(readFile(dir + "busnum"), "abc\n");
    int fd = open((dir + "devnum").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    char b[16];
    EXPECT_LT(read(fd, b, sizeof b), 0);
    close(fd);
}

TEST_F(RawTest, OpenSequenceAndControlTransfers) {
    Reader& r = addReader(Model::T30);
    int fd = openNode(r);
    ASSERT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0);
    usbdevfs_ioctl io{0, int(USBDEVFS_DISCONNECT), nullptr};
    EXPECT_EQ(ioctl(fd, USBDEVFS_IOCTL, &io), -1);
    EXPECT_EQ(errno, ENODATA);
    EXPECT_EQ(ioctl(fd, USBDEVFS_RESET, nullptr), 0);
    unsigned cfg = 1, ifc = 1;
    EXPECT_EQ(ioctl(fd, USBDEVFS_SETCONFIGURATION, &cfg), 0);
    EXPECT_EQ(ioctl(fd, USBDEVFS_CLAIMINTERFACE, &ifc), 0);
    setAlt(fd, 1, 0);
    EXPECT_EQ(r.configuration(), 1);
    EXPECT_TRUE(r.interfaceClaimed(1));
    EXPECT_EQ(r.resetCount(), 1u);

    // Sensor write, then read back through the two-step exchange.
    uint8_t blk[11] = {0x81, 0x12, 0x34, 0xA5};
    EXPECT_EQ(ctrl(fd, 0x21, 0x01, 0x0700, 0x0600, blk, 11), 11);
    EXPECT_EQ(r.reg(0x1234), 0xA5);
    uint8_t rd[11] = {0x02, 0x12, 0x34};
    EXPECT_EQ(ctrl(fd, 0x21, 0x01, 0x0700, 0x0600, rd, 11), 11);
    uint8_t reply[11] = {};
    EXPECT_EQ(ctrl(fd, 0xA1, 0x81, 0x0700, 0x0600, reply, 11), 11);
    EXPECT_EQ(reply[3], 0xA5);
    EXPECT_EQ(reply[4], r.reg(0x1235));
    // Flash: 8 bytes at 0x0100.
    uint8_t fr[11] = {0x08, 0x01, 0x00};
    EXPECT_EQ(ctrl(fd, 0x21, 0x01, 0x0300, 0x0600, fr, 11), 11);
    EXPECT_EQ(ctrl(fd, 0xA1, 0x81, 0x0300, 0x0600, reply, 11), 11);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(reply[3 + i], flashByte(0x100 + i)) << i;
    // Vendor register request 12.
    uint8_t regs[3] = {1, 2, 3};
    EXPECT_EQ(ctrl(fd, 0x40, 12, 0x2000, 0, regs, 3), 3);
    uint8_t back[3] = {};
    EXPECT_EQ(ctrl(fd, 0xC0, 12, 0x2000, 0, back, 3), 3);
    EXPECT_EQ(0, memcmp(regs, back, 3));
    // Commit.
    auto commit = expectedCommit(Model::T30);
    EXPECT_EQ(ctrl(fd, 0x21, 0x01, 0x0200, 1, commit.data(), 26), 26);
    ASSERT_TRUE(r.lastCommit());
    EXPECT_EQ(*r.lastCommit(), commit);
    // An unknown request stalls.
    EXPECT_EQ(ctrl(fd, 0xA1, 0x81, 0x0900, 0x0600, reply, 11), -1);
    EXPECT_EQ(errno, EPIPE);

    auto log = r.controlTransfers();
    ASSERT_GE(log.size(), 2u);
    EXPECT_EQ(log[0].bRequestType, 0x21);
    EXPECT_EQ(log[0].wValue, 0x0700);
    EXPECT_EQ(log[0].wIndex, 0x0600);
    EXPECT_EQ(log[0].dataOut, std::vector<uint8_t>(blk, blk + 11));
    EXPECT_EQ(log[2].dataIn.size(), 11u);
    EXPECT_EQ(log.back().err, EPIPE);
    close(fd);
}

TEST_F(RawTest, ControlFaults) {
    Reader& r = addReader(Model::T10);
    int fd = openNode(r);
    uint8_t b[11] = {1, 0, 0};
    r.stallControl(ControlMatch::xuGet(7), When::nth(2));
    r.shortControl(ControlMatch::flashRead(), 8, When::always());
    r.failIoctl(USBDEVFS_CLAIMINTERFACE, EBUSY);
    EXPECT_EQ(ctrl(fd, 0xA1, 0x81, 0x0700, 0x0600, b, 11), 11);
    EXPECT_EQ(ctrl(fd, 0xA1, 0x81, 0x0700, 0x0600, b, 11), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(ctrl(fd, 0xA1, 0x81, 0x0700, 0x0600, b, 11), 11);
    EXPECT_EQ(ctrl(fd, 0xA1, 0x81, 0x0300, 0x0600, b, 11), 8);
    EXPECT_EQ(ctrl(fd, 0xA1, 0x81, 0x0300, 0x0600, b, 11), 8);
    unsigned i = 1;
    EXPECT_EQ(ioctl(fd, USBDEVFS_CLAIMINTERFACE, &i), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(ioctl(fd, USBDEVFS_CLAIMINTERFACE, &i), 0);
    close(fd);
}

TEST_F(RawTest, IsoSubmitReapDiscard) {
    Reader& r = addReader(Model::T10);
    int fd = openNode(r);
    static IsoUrb u[3];
    for (auto& x : u) x.prepare();
    // Not streaming in alt 0.
    EXPECT_EQ(ioctl(fd, USBDEVFS_SUBMITURB, &u[0].urb), -1);
    EXPECT_EQ(errno, ENOENT);
    setAlt(fd, 1, 1);
    EXPECT_EQ(reap(fd), nullptr);
    EXPECT_EQ(errno, EAGAIN);
    for (auto& x : u) ASSERT_EQ(ioctl(fd, USBDEVFS_SUBMITURB, &x.urb), 0) << strerror(errno);
    EXPECT_EQ(r.isoUrbsInFlight(), 3u);
    EXPECT_EQ(reap(fd), nullptr);
    EXPECT_EQ(errno, EAGAIN);

    // 5 packets: the first URB completes with them, the rest zero-length.
    const uint32_t f0 = r.queueFrame(-int(640 * 480 - 5 * 3060));
    EXPECT_EQ(f0, 0u);
    usbdevfs_urb* got = reap(fd);
    ASSERT_EQ(got, &u[0].urb);
    EXPECT_EQ(got->status, 0);
    EXPECT_EQ(got->actual_length, 5 * 3072);
    for (int k = 0; k < 8; ++k) EXPECT_EQ(u[0].desc[k].actual_length, k < 5 ? 3072u : 0u) << k;
    for (int k = 0; k < 5; ++k) {
        const uint8_t* p = u[0].buf + k * 3072;
        EXPECT_EQ(p[0], 12);
        EXPECT_EQ(p[1] & 1, 0);
        EXPECT_EQ(bool(p[1] & 2), k == 4);
        for (int j = 0; j < 3060; ++j) ASSERT_EQ(p[12 + j], pixel(0, k * 3060 + j)) << k << "," << j;
    }
    EXPECT_EQ(reap(fd), nullptr);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(r.framesSent(), 1u);
    EXPECT_EQ(r.framesReaped(), 1u);

    // Discard an in-flight URB: reapable with -ENOENT; discarding it again: EINVAL.
    EXPECT_EQ(ioctl(fd, USBDEVFS_DISCARDURB, &u[1].urb), 0);
    EXPECT_EQ(ioctl(fd, USBDEVFS_DISCARDURB, &u[1].urb), -1);
    EXPECT_EQ(errno, EINVAL);
    got = reap(fd);
    ASSERT_EQ(got, &u[1].urb);
    EXPECT_EQ(got->status, -ENOENT);
    EXPECT_EQ(ioctl(fd, USBDEVFS_DISCARDURB, &u[0].urb), -1);
    EXPECT_EQ(errno, EINVAL);

    // Empty URBs, then a header-only packet.
    r.queueEmptyUrbs(1);
    got = reap(fd);
    ASSERT_EQ(got, &u[2].urb);
    EXPECT_EQ(got->actual_length, 0);
    // Queued before the URB arrives: one URB takes both.
    r.queueHeaderOnly(true, true);
    r.queueRawPacket({1, 2, 3});
    EXPECT_EQ(r.packetsQueued(), 2u);
    ASSERT_EQ(ioctl(fd, USBDEVFS_SUBMITURB, &u[0].urb), 0);
    got = reap(fd);
    ASSERT_EQ(got, &u[0].urb);
    EXPECT_EQ(u[0].desc[0].actual_length, 12u);
    EXPECT_EQ(u[0].desc[1].actual_length, 3u);
    EXPECT_EQ(u[0].buf[1] & 1, 1);
    EXPECT_EQ(u[0].buf[3072], 1);
    close(fd);
}

// usbfs keeps URBs and claims per open file: a second open of the same node
// (libusb opens one for the strings while the first streams) must neither
// reap nor discard the first file's URBs, and closing a file kills its own.
TEST_F(RawTest, EachOpenFileHasItsOwnUrbsAndClaims) {
    Reader& r = addReader(Model::T10);
    int a = openNode(r), b = openNode(r);
    static IsoUrb u[3];
    for (auto& x : u) x.prepare();
    setAlt(a, 1, 1);
    ASSERT_EQ(ioctl(a, USBDEVFS_SUBMITURB, &u[0].urb), 0) << strerror(errno);
    ASSERT_EQ(ioctl(b, USBDEVFS_SUBMITURB, &u[1].urb), 0) << strerror(errno);
    r.queueEmptyUrbs(2);
    ASSERT_EQ(r.urbsCompleted(), 2u);
    EXPECT_EQ(reap(b), &u[1].urb);
    EXPECT_EQ(reap(b), nullptr);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(reap(a), &u[0].urb);

    ASSERT_EQ(ioctl(a, USBDEVFS_SUBMITURB, &u[2].urb), 0);
    EXPECT_EQ(ioctl(b, USBDEVFS_DISCARDURB, &u[2].urb), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(ioctl(a, USBDEVFS_DISCARDURB, &u[2].urb), 0);
    EXPECT_EQ(reap(a), &u[2].urb);

    unsigned one = 1;
    ASSERT_EQ(ioctl(b, USBDEVFS_CLAIMINTERFACE, &one), 0);
    unsigned zero = 0;
    ASSERT_EQ(ioctl(b, USBDEVFS_CLAIMINTERFACE, &zero), 0);
    EXPECT_EQ(ioctl(a, USBDEVFS_RELEASEINTERFACE, &zero), -1);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(ioctl(b, USBDEVFS_SUBMITURB, &u[1].urb), 0);
    ASSERT_EQ(r.isoUrbsInFlight(), 1u);
    close(b);
    // umockdev reports the close a little later.
    for (int i = 0; i < 500 && r.interfaceClaimed(0); ++i) usleep(10000);
    EXPECT_FALSE(r.interfaceClaimed(0));
    EXPECT_FALSE(r.interfaceClaimed(1));  // b had taken it over
    EXPECT_EQ(r.isoUrbsInFlight(), 0u);
    EXPECT_EQ(reap(a), nullptr);
    EXPECT_EQ(errno, EAGAIN);
    close(a);
}

TEST_F(RawTest, UnplugGivesEnodevAndKillsUrbs) {
    Reader& r = addReader(Model::T10);
    int fd = openNode(r);
    static IsoUrb u;
    u.prepare();
    setAlt(fd, 1, 1);
    ASSERT_EQ(ioctl(fd, USBDEVFS_SUBMITURB, &u.urb), 0);
    r.unplug();
    EXPECT_FALSE(sysDevices().count(r.sysfsName()));
    EXPECT_LT(open(r.nodePath().c_str(), O_RDWR), 0);
    // The killed URB can still be reaped, then ENODEV everywhere.
    usbdevfs_urb* got = reap(fd);
    ASSERT_EQ(got, &u.urb);
    EXPECT_EQ(got->status, -ESHUTDOWN);
    EXPECT_EQ(reap(fd), nullptr);
    EXPECT_EQ(errno, ENODEV);
    uint8_t b[11] = {};
    EXPECT_EQ(ctrl(fd, 0xA1, 0x81, 0x0700, 0x0600, b, 11), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(ioctl(fd, USBDEVFS_SUBMITURB, &u.urb), -1);
    EXPECT_EQ(errno, ENODEV);
    close(fd);
}

TEST_F(RawTest, UnplugOnTheNthEvent) {
    Reader& r = addReader(Model::T10);
    r.unplugOnControl(ControlMatch::commit());
    int fd = openNode(r);
    auto c = expectedCommit(Model::T10);
    EXPECT_EQ(ctrl(fd, 0x21, 0x01, 0x0100, 1, c.data(), 26), 26);  // probe passes
    EXPECT_EQ(ctrl(fd, 0x21, 0x01, 0x0200, 1, c.data(), 26), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_FALSE(r.plugged());
    close(fd);

    Reader& s = addReader(Model::T10);
    s.unplugOnIsoReap(2);
    fd = openNode(s);
    setAlt(fd, 1, 1);
    static IsoUrb u[3];
    for (auto& x : u) {
        x.prepare();
        ASSERT_EQ(ioctl(fd, USBDEVFS_SUBMITURB, &x.urb), 0);
    }
    s.queueFrame(-int(640 * 480 - 16 * 3060));  // two URBs' worth
    EXPECT_EQ(reap(fd), &u[0].urb);
    EXPECT_TRUE(s.plugged());
    EXPECT_EQ(reap(fd), &u[1].urb);  // the 2nd reap still delivers
    EXPECT_FALSE(s.plugged());
    usbdevfs_urb* k = reap(fd);
    ASSERT_EQ(k, &u[2].urb);
    EXPECT_EQ(k->status, -ESHUTDOWN);
    EXPECT_EQ(reap(fd), nullptr);
    EXPECT_EQ(errno, ENODEV);
    close(fd);
}

TEST_F(RawTest, SecondOpenerGetsEwouldblock) {
    Reader& r = addReader(Model::T40);
    {
        LockHolder h = testbed().holdLock(r);
        ASSERT_TRUE(h.held());
        int fd = openNode(r);
        EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), -1);
        EXPECT_EQ(errno, EWOULDBLOCK);
        close(fd);
    }
    {
        LockHolder h = testbed().holdLockInChild(r);
        ASSERT_TRUE(h.held());
        int fd = openNode(r);
        EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), -1);
        EXPECT_EQ(errno, EWOULDBLOCK);
        h.release();
        EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0);
        close(fd);
    }
}

TEST_F(RawTest, DenyOpen) {
    Reader& r = addReader(Model::T40);
    int e = testbed().denyOpen(r);
    if (e == 0) GTEST_SKIP() << "the file system does not let root deny an open";
    EXPECT_EQ(open(r.nodePath().c_str(), O_RDWR), -1);
    EXPECT_EQ(errno, e);
    testbed().allowOpen(r);
    int fd = openNode(r);
    close(fd);
}

}  // namespace

namespace {

TEST_F(RawTest, PacedAsFastAsPossibleAndFingerprintImages) {
    Reader& r = addReader(Model::T10);
    r.setImageMode(ImageMode::Fingerprint);
    int fd = openNode(r);
    setAlt(fd, 1, 1);
    r.startPaced(Pace{Pace::AsFastAsPossible, 0});
    static IsoUrb u;
    std::vector<uint8_t> frame;
    std::vector<std::vector<uint8_t>> frames;
    int lastFid = -1;
    while (frames.size() < 3) {
        u.prepare();
        ASSERT_EQ(ioctl(fd, USBDEVFS_SUBMITURB, &u.urb), 0);
        usbdevfs_urb* got = nullptr;
        while (!(got = reap(fd))) ASSERT_EQ(errno, EAGAIN);
        for (int k = 0; k < 8; ++k) {
            const uint8_t* p = u.buf + k * 3072;
            if (u.desc[k].actual_length < 12) continue;
            if ((p[1] & 1) != lastFid) {
                if (lastFid >= 0) frames.push_back(frame);
                frame.clear();
                lastFid = p[1] & 1;
            }
            frame.insert(frame.end(), p + 12, p + u.desc[k].actual_length);
        }
    }
    r.stopPaced();
    for (uint32_t f = 0; f < 3; ++f) {
        ASSERT_EQ(frames[f].size(), 640u * 480u);
        EXPECT_EQ(frames[f], r.expectedImage(f)) << f;
    }
    // The counter makes consecutive frames differ.
    EXPECT_NE(frames[0], frames[1]);
    close(fd);
}

TEST_F(RawTest, PacedFrameIntervalFollowsTheCommit) {
    Reader& r = addReader(Model::T10);
    int fd = openNode(r);
    auto c = expectedCommit(Model::T10, 1000000);  // 10 fps
    uint8_t* d = c.data();
    ASSERT_EQ(ctrl(fd, 0x21, 0x01, 0x0200, 1, d, 26), 26);
    setAlt(fd, 1, 1);
    r.startPaced();
    const auto t0 = std::chrono::steady_clock::now();
    // Frames are produced only while the host keeps URBs in flight; with none
    // they pile up to two and the rest are lost, so count generated frames.
    std::this_thread::sleep_for(std::chrono::milliseconds(450));
    r.stopPaced();
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
    // About one frame per 100 ms; generous margins for a loaded machine.
    EXPECT_GE(r.frameCounter(), 3u);
    EXPECT_LE(r.frameCounter(), uint32_t(ms / 100 + 2));
    close(fd);
}

}  // namespace
