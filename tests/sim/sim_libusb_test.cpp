// The simulator seen through an independent usbfs client (libusb): if libusb
// enumerates, negotiates and streams from it like from a real camera, what
// our library sees is what real usbfs gives.
#include "simtest.h"

#include <libusb.h>

#include <cstring>
#include <map>

using namespace sim;

namespace {

class LibusbTest : public SimTest {
protected:
    libusb_context* ctx = nullptr;
    void TearDown() override {
        if (ctx) libusb_exit(ctx);
        ctx = nullptr;
        SimTest::TearDown();
    }
    void init() { ASSERT_EQ(libusb_init(&ctx), 0); }
    libusb_device_handle* openReader(const Reader& r) {
        libusb_device** list = nullptr;
        ssize_t n = libusb_get_device_list(ctx, &list);
        libusb_device_handle* h = nullptr;
        for (ssize_t i = 0; i < n; ++i) {
            if (libusb_get_bus_number(list[i]) == r.busnum() && libusb_get_device_address(list[i]) == r.devnum()) {
                EXPECT_EQ(libusb_open(list[i], &h), 0);
            }
        }
        libusb_free_device_list(list, 1);
        return h;
    }
};

std::string usbString(libusb_device_handle* h, uint8_t idx) {
    unsigned char b[256];
    int n = libusb_get_string_descriptor_ascii(h, idx, b, sizeof b);
    return n < 0 ? std::string("<error ") + libusb_error_name(n) + ">" : std::string(reinterpret_cast<char*>(b), size_t(n));
}

TEST_F(LibusbTest, EnumeratesReadersAndWalksTheUvcLayout) {
    Reader& a = addReader(Model::T10);
    Reader& b = addReader(Model::T20);
    testbed().addUnsupported(0x046d, 0xc077);
    init();
    libusb_device** list = nullptr;
    ssize_t n = libusb_get_device_list(ctx, &list);
    ASSERT_GE(n, 3);
    std::map<uint16_t, libusb_device*> byPid;
    for (ssize_t i = 0; i < n; ++i) {
        libusb_device_descriptor d;
        ASSERT_EQ(libusb_get_device_descriptor(list[i], &d), 0);
        if (d.idVendor == kVendorId) byPid[d.idProduct] = list[i];
    }
    ASSERT_EQ(byPid.size(), 2u);
    ASSERT_TRUE(byPid.count(0x000B));
    ASSERT_TRUE(byPid.count(0x000C));
    EXPECT_EQ(libusb_get_bus_number(byPid[0x000B]), a.busnum());
    EXPECT_EQ(libusb_get_device_address(byPid[0x000C]), b.devnum());

    libusb_config_descriptor* cfg = nullptr;
    ASSERT_EQ(libusb_get_config_descriptor(byPid[0x000B], 0, &cfg), 0);
    ASSERT_EQ(cfg->bNumInterfaces, 2);
    // VideoControl: class 14/1, one interrupt IN endpoint, header/terminals/XU 6 in extras.
    const libusb_interface_descriptor& vc = cfg->interface[0].altsetting[0];
    EXPECT_EQ(vc.bInterfaceClass, 0x0E);
    EXPECT_EQ(vc.bInterfaceSubClass, 0x01);
    ASSERT_EQ(vc.bNumEndpoints, 1);
    EXPECT_EQ(vc.endpoint[0].bEndpointAddress, kInterruptEndpoint);
    EXPECT_EQ(vc.endpoint[0].bmAttributes & 3, LIBUSB_TRANSFER_TYPE_INTERRUPT);
    EXPECT_EQ(vc.endpoint[0].extra_length, 5);
    bool header = false, xu6 = false, it = false, ot = false;
    for (int o = 0; o + 2 < vc.extra_length; o += vc.extra[o]) {
        const unsigned char* p = vc.extra + o;
        ASSERT_GE(p[0], 3);
        if (p[1] != 0x24) continue;
        if (p[2] == 1) {
            header = true;
            EXPECT_EQ(p[3] | p[4] << 8, 0x0100);  // bcdUVC
            EXPECT_EQ(p[5] | p[6] << 8, vc.extra_length - o);  // header covers the rest
        }
        if (p[2] == 2) it = true;
        if (p[2] == 3) ot = p[7] == 6;  // output terminal fed by unit 6
        if (p[2] == 6) xu6 = p[3] == 6 && p[23] == 2 && (p[24] & 0x44) == 0x44;  // controls 3 and 7
    }
    EXPECT_TRUE(header && it && ot && xu6);
    // VideoStreaming: alt 0 no endpoint, format + frame in extras; alt 1 ISO 0x81.
    ASSERT_EQ(cfg->interface[1].num_altsetting, 2);
    const libusb_interface_descriptor& vs0 = cfg->interface[1].altsetting[0];
    EXPECT_EQ(vs0.bNumEndpoints, 0);
    bool format = false, frame = false;
    for (int o = 0; o + 2 < vs0.extra_length; o += vs0.extra[o]) {
        const unsigned char* p = vs0.extra + o;
        if (p[1] == 0x24 && p[2] == 4) format = p[4] == 1 && p[22] == 5;  // one frame, default index 5
        if (p[1] == 0x24 && p[2] == 5) {
            frame = p[3] == 5;
            EXPECT_EQ(p[5] | p[6] << 8, 640);
            EXPECT_EQ(p[7] | p[8] << 8, 240);
            EXPECT_EQ(uint32_t(p[21] | p[22] << 8 | p[23] << 16 | p[24] << 24), 333333u);
        }
    }
    EXPECT_TRUE(format && frame);
    const libusb_interface_descriptor& vs1 = cfg->interface[1].altsetting[1];
    ASSERT_EQ(vs1.bNumEndpoints, 1);
    EXPECT_EQ(vs1.endpoint[0].bEndpointAddress, kIsoEndpoint);
    EXPECT_EQ(vs1.endpoint[0].bmAttributes & 3, LIBUSB_TRANSFER_TYPE_ISOCHRONOUS);
    EXPECT_EQ(libusb_get_max_iso_packet_size(byPid[0x000B], kIsoEndpoint), 3072);
    libusb_free_config_descriptor(cfg);
    libusb_free_device_list(list, 1);
}

TEST_F(LibusbTest, StringsAndExtensionUnitExchange) {
    DeviceOptions o;
    o.serial = std::string("SN-42");
    Reader& r = addReader(Model::T30, o);
    r.setReg(0xF000, 0x7E);
    init();
    libusb_device_handle* h = openReader(r);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(usbString(h, 1), "Tessary Biometrics");
    EXPECT_EQ(usbString(h, 2), "Tessary 30 Fingerprint Reader");
    EXPECT_EQ(usbString(h, 3), "SN-42");
    ASSERT_EQ(libusb_claim_interface(h, 0), 0);
    ASSERT_EQ(libusb_claim_interface(h, 1), 0);

    // Finger register read: SET_CUR request block, then GET_CUR reply.
    unsigned char blk[11] = {1, 0xF0, 0x00};
    EXPECT_EQ(libusb_control_transfer(h, 0x21, 0x01, 0x0700, 0x0600, blk, 11, 1000), 11);
    unsigned char rep[11] = {};
    EXPECT_EQ(libusb_control_transfer(h, 0xA1, 0x81, 0x0700, 0x0600, rep, 11, 1000), 11);
    EXPECT_EQ(rep[3], 0x7E);
    // Sensor write then read back.
    unsigned char w[11] = {0x81, 0x00, 0x42, 0x99};
    EXPECT_EQ(libusb_control_transfer(h, 0x21, 0x01, 0x0700, 0x0600, w, 11, 1000), 11);
    unsigned char rd[11] = {1, 0x00, 0x42};
    EXPECT_EQ(libusb_control_transfer(h, 0x21, 0x01, 0x0700, 0x0600, rd, 11, 1000), 11);
    EXPECT_EQ(libusb_control_transfer(h, 0xA1, 0x81, 0x0700, 0x0600, rep, 11, 1000), 11);
    EXPECT_EQ(rep[3], 0x99);
    EXPECT_EQ(r.reg(0x42), 0x99);
    // Flash: 20 bytes at 0x1000 in chunks of 8, 8, 4.
    std::vector<uint8_t> flash;
    for (unsigned a = 0x1000, left = 20; left;) {
        unsigned chunk = left > 8 ? 8 : left;
        unsigned char q[11] = {uint8_t(chunk), uint8_t(a >> 8), uint8_t(a)};
        ASSERT_EQ(libusb_control_transfer(h, 0x21, 0x01, 0x0300, 0x0600, q, 11, 1000), 11);
        ASSERT_EQ(libusb_control_transfer(h, 0xA1, 0x81, 0x0300, 0x0600, rep, 11, 1000), 11);
        flash.insert(flash.end(), rep + 3, rep + 3 + chunk);
        a += chunk;
        left -= chunk;
    }
    for (unsigned i = 0; i < 20; ++i) EXPECT_EQ(flash[i], flashByte(0x1000 + i)) << i;
    // Probe/commit answer like a camera: GET_LEN, GET_INFO, GET_DEF, SET/GET probe.
    unsigned char len[2] = {};
    EXPECT_EQ(libusb_control_transfer(h, 0xA1, 0x85, 0x0100, 1, len, 2, 1000), 2);
    EXPECT_EQ(len[0], 26);
    auto want = expectedCommit(Model::T30, 666666 * 2);
    std::array<uint8_t, 26> got{};
    EXPECT_EQ(libusb_control_transfer(h, 0x21, 0x01, 0x0100, 1, want.data(), 26, 1000), 26);
    EXPECT_EQ(libusb_control_transfer(h, 0xA1, 0x81, 0x0100, 1, got.data(), 26, 1000), 26);
    EXPECT_EQ(got, want);
    EXPECT_EQ(libusb_control_transfer(h, 0x21, 0x01, 0x0200, 1, got.data(), 26, 1000), 26);
    ASSERT_TRUE(r.lastCommit());
    EXPECT_EQ(*r.lastCommit(), want);
    // A stall arrives as LIBUSB_ERROR_PIPE.
    r.stallControl(ControlMatch::xuGet(7));
    EXPECT_EQ(libusb_control_transfer(h, 0xA1, 0x81, 0x0700, 0x0600, rep, 11, 1000), LIBUSB_ERROR_PIPE);
    libusb_release_interface(h, 1);
    libusb_release_interface(h, 0);
    libusb_close(h);
}

// Reassembles frames by FID from ISO packets, as a UVC host does.
struct Assembler {
    std::vector<uint8_t> cur;
    int lastFid = -1;
    std::vector<std::vector<uint8_t>> frames;
    int transfersNoDevice = 0, transfersDone = 0;
    bool stop = false;
    void packet(const uint8_t* p, unsigned n) {
        if (n < 12) return;
        const int fid = p[1] & 1;
        if (fid != lastFid) {
            if (lastFid >= 0 && !cur.empty()) frames.push_back(cur);
            cur.clear();
            lastFid = fid;
        }
        cur.insert(cur.end(), p + 12, p + n);
    }
};

void LIBUSB_CALL isoDone(libusb_transfer* t) {
    auto* a = static_cast<Assembler*>(t->user_data);
    if (t->status == LIBUSB_TRANSFER_NO_DEVICE) {
        ++a->transfersNoDevice;
        return;
    }
    if (t->status != LIBUSB_TRANSFER_COMPLETED) return;
    ++a->transfersDone;
    for (int i = 0; i < t->num_iso_packets; ++i)
        a->packet(libusb_get_iso_packet_buffer_simple(t, unsigned(i)), t->iso_packet_desc[i].actual_length);
    if (!a->stop) libusb_submit_transfer(t);
}

TEST_F(LibusbTest, IsochronousStreamReassemblesByteExactFramesAndUnplugGivesNoDevice) {
    Reader& r = addReader(Model::T10);
    init();
    libusb_device_handle* h = openReader(r);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(libusb_claim_interface(h, 1), 0);
    ASSERT_EQ(libusb_set_interface_alt_setting(h, 1, 1), 0);
    EXPECT_EQ(r.currentAltSetting(1), 1);

    Assembler as;
    std::vector<libusb_transfer*> ts;
    std::vector<std::vector<uint8_t>> bufs(4, std::vector<uint8_t>(8 * 3072));
    for (int i = 0; i < 4; ++i) {
        libusb_transfer* t = libusb_alloc_transfer(8);
        libusb_fill_iso_transfer(t, h, kIsoEndpoint, bufs[i].data(), 8 * 3072, 8, isoDone, &as, 1000);
        libusb_set_iso_packet_lengths(t, 3072);
        ASSERT_EQ(libusb_submit_transfer(t), 0);
        ts.push_back(t);
    }
    ASSERT_TRUE(r.waitIsoUrbsInFlight(4));
    r.queueFrames(3);
    const size_t img = 640 * 480;
    while (as.frames.size() < 2) {
        timeval tv{0, 10000};
        ASSERT_EQ(libusb_handle_events_timeout(ctx, &tv), 0);
    }
    // Frames 0 and 1 complete (frame 2 ends only at the next FID change).
    for (uint32_t f = 0; f < 2; ++f) {
        ASSERT_EQ(as.frames[f].size(), img);
        EXPECT_EQ(firstPatternMismatch(as.frames[f].data(), img, f), -1) << "frame " << f;
        EXPECT_EQ(frameNumberOf(as.frames[f].data()), f);
    }
    while (r.packetsQueued() > 0) {
        timeval tv{0, 10000};
        ASSERT_EQ(libusb_handle_events_timeout(ctx, &tv), 0);
    }
    EXPECT_EQ(r.framesSent(), 3u);
    EXPECT_EQ(as.cur.size(), img);  // frame 2, still open

    // Unplug mid-stream: the transfers in flight end with NO_DEVICE.
    r.unplug();
    for (int i = 0; i < 50 && as.transfersNoDevice < 4; ++i) {
        timeval tv{0, 10000};
        libusb_handle_events_timeout(ctx, &tv);
    }
    EXPECT_EQ(as.transfersNoDevice, 4);
    unsigned char b[11] = {};
    EXPECT_EQ(libusb_control_transfer(h, 0xA1, 0x81, 0x0700, 0x0600, b, 11, 1000), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(libusb_submit_transfer(ts[0]), LIBUSB_ERROR_NO_DEVICE);
    for (auto* t : ts) libusb_free_transfer(t);
    libusb_close(h);
}

}  // namespace
