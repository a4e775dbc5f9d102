// The simulator is faithful to usbfs: an independent client (libusb) finds,
// negotiates and streams from it like from a real camera, and raw ioctls get
// what the kernel gives (per-file URBs, discard, reap, unplug, flock).
#include "simtest.h"

#include <fcntl.h>
#include <libusb.h>
#include <linux/usbdevice_fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>

using namespace sim;

namespace {

class SimUsb : public SimTest {};

// Reassembles frames by FID from ISO packets, as a UVC host does.
struct Assembler {
    std::vector<uint8_t> cur;
    int lastFid = -1, noDevice = 0;
    std::vector<std::vector<uint8_t>> frames;
};

void LIBUSB_CALL isoDone(libusb_transfer* t) {
    auto* a = static_cast<Assembler*>(t->user_data);
    if (t->status == LIBUSB_TRANSFER_NO_DEVICE) ++a->noDevice;
    if (t->status != LIBUSB_TRANSFER_COMPLETED) return;
    for (int i = 0; i < t->num_iso_packets; ++i) {
        const uint8_t* p = libusb_get_iso_packet_buffer_simple(t, unsigned(i));
        const unsigned n = t->iso_packet_desc[i].actual_length;
        if (n < 12) continue;
        if ((p[1] & 1) != a->lastFid) {
            if (a->lastFid >= 0) a->frames.push_back(a->cur);
            a->cur.clear();
            a->lastFid = p[1] & 1;
        }
        a->cur.insert(a->cur.end(), p + 12, p + n);
    }
    libusb_submit_transfer(t);
}

TEST_F(SimUsb, LibusbEnumeratesNegotiatesAndStreams) {
    DeviceOptions o;
    o.serial = std::string("SN-42");
    Reader& r = addReader(Model::T10, o);
    testbed().addUnsupported(0x046d, 0xc077);
    libusb_context* ctx = nullptr;
    ASSERT_EQ(libusb_init(&ctx), 0);
    std::unique_ptr<libusb_context, void (*)(libusb_context*)> exit(ctx, libusb_exit);  // before the testbed goes
    auto pump = [ctx] {
        timeval tv{0, 10000};
        EXPECT_EQ(libusb_handle_events_timeout(ctx, &tv), 0);
    };
    libusb_device_handle* h = libusb_open_device_with_vid_pid(ctx, kVendorId, 0x000B);
    ASSERT_NE(h, nullptr);
    libusb_device* dev = libusb_get_device(h);
    EXPECT_EQ(libusb_get_bus_number(dev), r.busnum());
    EXPECT_EQ(libusb_get_device_address(dev), r.devnum());
    libusb_config_descriptor* cfg = nullptr;
    ASSERT_EQ(libusb_get_config_descriptor(dev, 0, &cfg), 0);
    ASSERT_EQ(cfg->bNumInterfaces, 2);
    const libusb_interface_descriptor& vc = cfg->interface[0].altsetting[0];
    EXPECT_EQ(std::make_tuple(vc.bInterfaceClass, vc.bInterfaceSubClass, vc.endpoint[0].bEndpointAddress),
              std::make_tuple(0x0E, 0x01, kInterruptEndpoint));
    bool xu6 = false;
    for (int i = 0; i + 2 < vc.extra_length; i += vc.extra[i])
        xu6 |= vc.extra[i + 1] == 0x24 && vc.extra[i + 2] == 6 && vc.extra[i + 3] == 6 && (vc.extra[i + 24] & 0x44) == 0x44;
    EXPECT_TRUE(xu6) << "extension unit 6 with controls 3 and 7";
    ASSERT_EQ(cfg->interface[1].num_altsetting, 2);
    EXPECT_EQ(cfg->interface[1].altsetting[1].endpoint[0].bEndpointAddress, kIsoEndpoint);
    EXPECT_EQ(libusb_get_max_iso_packet_size(dev, kIsoEndpoint), 3072);
    libusb_free_config_descriptor(cfg);
    unsigned char s[64];
    EXPECT_EQ(libusb_get_string_descriptor_ascii(h, 3, s, sizeof s), 5);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(s), 5), "SN-42");
    ASSERT_EQ(libusb_claim_interface(h, 1), 0);
    // Register read: request block, then reply; commit; a stall.
    r.setReg(0xF000, 0x7E);
    unsigned char blk[11] = {1, 0xF0, 0x00}, rep[11] = {};
    EXPECT_EQ(libusb_control_transfer(h, 0x21, 0x01, 0x0700, 0x0600, blk, 11, 1000), 11);
    EXPECT_EQ(libusb_control_transfer(h, 0xA1, 0x81, 0x0700, 0x0600, rep, 11, 1000), 11);
    EXPECT_EQ(rep[3], 0x7E);
    auto want = expectedCommit(Model::T10, 666666);
    EXPECT_EQ(libusb_control_transfer(h, 0x21, 0x01, 0x0200, 1, want.data(), 26, 1000), 26);
    EXPECT_EQ(r.lastCommit(), want);
    r.stallControl(ControlMatch::xuGet(7));
    EXPECT_EQ(libusb_control_transfer(h, 0xA1, 0x81, 0x0700, 0x0600, rep, 11, 1000), LIBUSB_ERROR_PIPE);
    // Four ISO transfers in flight; frames come back byte-exact.
    ASSERT_EQ(libusb_set_interface_alt_setting(h, 1, 1), 0);
    Assembler as;
    std::vector<libusb_transfer*> ts;
    std::vector<std::vector<uint8_t>> bufs(4, std::vector<uint8_t>(8 * 3072));
    for (auto& b : bufs) {
        ts.push_back(libusb_alloc_transfer(8));
        libusb_fill_iso_transfer(ts.back(), h, kIsoEndpoint, b.data(), 8 * 3072, 8, isoDone, &as, 1000);
        libusb_set_iso_packet_lengths(ts.back(), 3072);
        ASSERT_EQ(libusb_submit_transfer(ts.back()), 0);
    }
    ASSERT_TRUE(r.waitIsoUrbsInFlight(4));
    r.queueFrames(3);
    while (as.frames.size() < 2) pump();
    for (uint32_t f = 0; f < 2; ++f) {
        ASSERT_EQ(as.frames[f].size(), 640u * 480);
        EXPECT_EQ(firstPatternMismatch(as.frames[f].data(), 640 * 480, f), -1) << "frame " << f;
    }
    while (r.packetsQueued() > 0) pump();
    r.unplug();  // the transfers in flight end with NO_DEVICE
    for (int i = 0; i < 500 && as.noDevice < 4; ++i) pump();
    EXPECT_EQ(as.noDevice, 4);
    EXPECT_EQ(libusb_control_transfer(h, 0xA1, 0x81, 0x0700, 0x0600, rep, 11, 1000), LIBUSB_ERROR_NO_DEVICE);
    for (auto* t : ts) libusb_free_transfer(t);
    libusb_close(h);
}

// Sysfs attributes as discovery reads them, overridden, missing, unreadable.
TEST_F(SimUsb, SysfsAttributes) {
    DeviceOptions o;
    o.sysfsName = "2-1.4";
    o.busnum = 2;
    o.devnum = 7;
    o.manufacturer = std::nullopt;
    o.rawAttributes = {{"product", "  \n"}};
    o.unreadableAttributes = {"serial"};
    Reader& r = addReader(Model::T30, o);
    auto read = [](const std::string& name) {
        int fd = open(("/sys/bus/usb/devices/2-1.4/" + name).c_str(), O_RDONLY);
        char b[4096];
        ssize_t n = fd < 0 ? 0 : ::read(fd, b, sizeof b);
        if (fd >= 0) close(fd);
        return fd < 0 ? "<missing>" : n < 0 ? "<unreadable>" : std::string(b, size_t(n));
    };
    EXPECT_EQ(read("busnum") + read("devnum") + read("product") + read("manufacturer") + read("serial"),
              "2\n7\n  \n<missing><unreadable>");
    auto want = readerDescriptors(Model::T30);
    EXPECT_EQ(read("descriptors"), std::string(want.begin(), want.end()));
    EXPECT_EQ(r.nodePath(), "/dev/bus/usb/002/007");
}

struct Iso {  // an ISO URB as the library builds it: 8 packets of 3072 bytes
    alignas(16) uint8_t head[sizeof(usbdevfs_urb) + 8 * sizeof(usbdevfs_iso_packet_desc)];
    uint8_t buf[8 * 3072];
    usbdevfs_urb& urb = *reinterpret_cast<usbdevfs_urb*>(head);
    usbdevfs_iso_packet_desc* desc = urb.iso_frame_desc;
    usbdevfs_urb* prepare() {
        memset(head, 0, sizeof head);
        urb.type = USBDEVFS_URB_TYPE_ISO, urb.endpoint = 0x81, urb.flags = USBDEVFS_URB_ISO_ASAP;
        urb.buffer = buf, urb.buffer_length = sizeof buf, urb.number_of_packets = 8;
        for (int i = 0; i < 8; i++) desc[i].length = 3072;
        return &urb;
    }
};
void submit(int fd, Iso& u) { ASSERT_EQ(ioctl(fd, USBDEVFS_SUBMITURB, u.prepare()), 0) << strerror(errno); }
std::pair<void*, int> reap(int fd) {  // the URB, or errno
    void* p = nullptr;
    return ioctl(fd, USBDEVFS_REAPURBNDELAY, &p) == 0 ? std::make_pair(p, 0) : std::make_pair(nullptr, errno);
}

TEST_F(SimUsb, RawUrbsClaimsUnplugAndLocks) {
    Reader& r = addReader(Model::T10);
    int a = open(r.nodePath().c_str(), O_RDWR), b = open(r.nodePath().c_str(), O_RDWR);
    ASSERT_GE(a, 0);
    ASSERT_EQ(flock(a, LOCK_EX | LOCK_NB), 0);
    EXPECT_EQ(std::make_pair(flock(b, LOCK_EX | LOCK_NB), errno), std::make_pair(-1, EWOULDBLOCK));
    usbdevfs_ioctl io{0, int(USBDEVFS_DISCONNECT), nullptr};
    EXPECT_EQ(std::make_pair(ioctl(a, USBDEVFS_IOCTL, &io), errno), std::make_pair(-1, ENODATA)) << "no driver bound";
    static Iso u[4];
    EXPECT_EQ(std::make_pair(ioctl(a, USBDEVFS_SUBMITURB, u[0].prepare()), errno), std::make_pair(-1, ENOENT)) << "alt 0";
    usbdevfs_setinterface alt{1, 1};
    ASSERT_EQ(ioctl(a, USBDEVFS_SETINTERFACE, &alt), 0);
    EXPECT_EQ(reap(a), std::make_pair((void*)nullptr, EAGAIN));
    submit(b, u[1]);
    submit(a, u[0]);
    submit(a, u[2]);
    r.queueEmptyUrbs(1);                        // completes b's
    r.queueFrame(-int(640 * 480 - 5 * 3060));  // 5 packets: a's first completes with them
    // Each file reaps and discards only its own.
    EXPECT_EQ(reap(b).first, &u[1].urb);
    EXPECT_EQ(reap(b), std::make_pair((void*)nullptr, EAGAIN));
    EXPECT_EQ(reap(a).first, &u[0].urb);
    EXPECT_EQ(std::make_tuple(u[0].urb.status, u[0].urb.actual_length, u[0].desc[4].actual_length, u[0].desc[5].actual_length),
              std::make_tuple(0, 5 * 3072, 3072u, 0u));
    EXPECT_EQ(std::make_tuple(u[0].buf[0], u[0].buf[1] & 3, u[0].buf[4 * 3072 + 1] & 3, u[0].buf[12 + 3072]),
              std::make_tuple(12, 0, 2, pixel(0, 3060))) << "header, FID 0, EOF on the last packet";
    EXPECT_EQ(std::make_pair(ioctl(b, USBDEVFS_DISCARDURB, &u[2].urb), errno), std::make_pair(-1, EINVAL));
    EXPECT_EQ(ioctl(a, USBDEVFS_DISCARDURB, &u[2].urb), 0);
    EXPECT_EQ(std::make_pair(ioctl(a, USBDEVFS_DISCARDURB, &u[0].urb), errno), std::make_pair(-1, EINVAL)) << "reaped";
    EXPECT_EQ(reap(a).first, &u[2].urb);
    EXPECT_EQ(u[2].urb.status, -ENOENT);
    // b's claim and URB go with b's close (reported a moment later).
    unsigned one = 1;
    ASSERT_EQ(ioctl(b, USBDEVFS_CLAIMINTERFACE, &one), 0);
    submit(b, u[1]);
    close(b);
    for (int i = 0; i < 500 && (r.interfaceClaimed(1) || r.isoUrbsInFlight() > 0); ++i) usleep(10000);
    EXPECT_FALSE(r.interfaceClaimed(1));
    EXPECT_EQ(r.isoUrbsInFlight(), 0u);
    // Unplug: a URB in flight is reaped once with -ESHUTDOWN, then ENODEV.
    submit(a, u[0]);
    r.unplug();
    EXPECT_LT(open(r.nodePath().c_str(), O_RDWR), 0);
    EXPECT_EQ(reap(a).first, &u[0].urb);
    EXPECT_EQ(u[0].urb.status, -ESHUTDOWN);
    EXPECT_EQ(reap(a), std::make_pair((void*)nullptr, ENODEV));
    EXPECT_EQ(std::make_pair(ioctl(a, USBDEVFS_SETINTERFACE, &alt), errno), std::make_pair(-1, ENODEV));
    close(a);
}

}  // namespace
