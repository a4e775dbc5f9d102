// The extension unit on the wire (register and flash exchanges), format and
// frame interval, and the interface's trace records.
#include "simtest.h"

#include <cstring>
#include <fstream>
#include <regex>

using sim::ControlMatch;
using sim::Model;

namespace {

using Bytes = std::vector<uint8_t>;

class Xu : public sim::CameraTest {
protected:
    // One read exchange at log[i], log[i+1]: the request block, then the reply.
    void expectRead(const std::vector<sim::IoctlRecord>& log, size_t i, uint8_t sel, uint8_t n, uint16_t addr)
    {
        ASSERT_GT(log.size(), i + 1);
        EXPECT_EQ(log[i].dataOut, (Bytes{n, uint8_t(addr >> 8), uint8_t(addr), 0, 0, 0, 0, 0, 0, 0, 0})) << "at " << i;
        for (auto [c, type, req] : {std::tuple{log[i], 0x21, 0x01}, std::tuple{log[i + 1], 0xA1, 0x81}})
            EXPECT_EQ(std::make_tuple(c.bRequestType, c.bRequest, c.wValue, c.wIndex, c.wLength, c.timeout),
                      std::make_tuple(type, req, sel << 8, 0x0600, 11, 2000u)) << "at " << i;
    }
};

TEST_F(Xu, RegisterAndFingerExchanges)
{
    auto& r = addReader(Model::T30);
    CAMERA_HANDLE h = openReader(r);
    r.clearLog();
    r.setReg(0x2345, 0xFF);
    r.setReg(0x2346, 0x66);  // a neighbour that must not leak in
    EXPECT_EQ(camera_xu_sensor_read(h, 0xABC12345u), 0xFF) << "low 16 address bits; 0xFF is a value";
    expectRead(r.controlTransfers(), 0, 7, 1, 0x2345);
    EXPECT_EQ(camera_xu_sensor_write(h, 0x7F001234u, 0x1FE), 0);
    auto log = r.controlTransfers();
    ASSERT_EQ(log.size(), 3u) << "a write fetches no reply";
    EXPECT_EQ(std::make_tuple(log[2].bRequestType, log[2].wValue, log[2].wIndex, log[2].timeout),
              std::make_tuple(0x21, 0x0700, 0x0600, 1000u));
    EXPECT_EQ(log[2].dataOut, (Bytes{0x81, 0x12, 0x34, 0xFE, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(r.reg(0x1234), 0xFE);
    r.setReg(0xF000, 0xC3);
    EXPECT_EQ(camera_xu_get_finger(h), 0xC3);
    EXPECT_EQ(camera_xu_set_finger(h, 1), 0);
    EXPECT_EQ(r.reg(0xF000), 1);

    // A stalled request fetches no reply; a short reply fails; the camera
    // works afterwards.
    r.clearLog();
    r.stallControl(ControlMatch::xuSet(7));
    EXPECT_EQ(camera_xu_sensor_read(h, 0x1234), CAMERA_ERR_FAILURE);
    EXPECT_EQ(r.controlTransfers().size(), 1u);
    r.shortControl(ControlMatch::xuGet(7), 10);
    EXPECT_EQ(camera_xu_get_finger(h), CAMERA_ERR_FAILURE);
    r.stallControl(ControlMatch::xuSet(7));
    EXPECT_EQ(camera_xu_sensor_write(h, 0x1234, 1), CAMERA_ERR_FAILURE);
    EXPECT_EQ(camera_xu_sensor_read(h, 0x1234), 0xFE);

    // The controls these readers lack succeed without touching anything.
    r.clearLog();
    int32_t v = 1234;
    EXPECT_EQ(camera_wait_for_button(h, 10000) | camera_button_state(h, &v) | camera_xu_get_flip(h, &v) |
              camera_xu_get_mirror(h, &v) | camera_get_control(h, 1, &v) | camera_xu_set_leds(h, 3) |
              camera_xu_set_flip(h, 1) | camera_xu_set_mirror(h, 1) | camera_xu_set_leds_mode(h, 1), 0);
    EXPECT_EQ(v, 1234);
    EXPECT_TRUE(r.log().empty());
}

TEST_F(Xu, FlashReadsInExchangesOfEight)
{
    auto& r = addReader(Model::T10);
    CAMERA_HANDLE h = openReader(r);
    // address, length, chunk sizes; the address wraps in 16 bits on the wire
    for (auto& [addr, len, chunks] : std::vector<std::tuple<uint32_t, int32_t, Bytes>>{
             {0x0100, 8, {8}}, {0x0300, 20, {8, 8, 4}}, {0x1FFF8, 17, {8, 8, 1}}}) {
        r.clearLog();
        Bytes buf(size_t(len) + 8, 0xEE);
        ASSERT_EQ(camera_xu_flash_read(h, addr, len, buf.data()), 0);
        auto log = r.controlTransfers();
        ASSERT_EQ(log.size(), 2 * chunks.size()) << len;
        for (size_t i = 0, a = addr; i < chunks.size(); a += chunks[i++]) expectRead(log, 2 * i, 3, chunks[i], uint16_t(a));
        for (size_t i = 0; i < buf.size(); ++i)
            ASSERT_EQ(buf[i], i < size_t(len) ? sim::flashByte(uint16_t(addr + i)) : 0xEE) << i;
    }
    // The second exchange fails: the first chunk stays, nothing after it.
    Bytes buf(20, 0xEE);
    r.clearLog();
    r.stallControl(ControlMatch::flashRead(), sim::When::nth(2));
    EXPECT_EQ(camera_xu_flash_read(h, 0x0400, 20, buf.data()), CAMERA_ERR_FAILURE);
    EXPECT_EQ(r.controlTransfers().size(), 4u);
    for (size_t i = 0; i < 20; ++i) EXPECT_EQ(buf[i], i < 8 ? sim::flashByte(0x400 + uint32_t(i)) : 0xEE) << i;
    r.clearLog();
    for (int32_t bad : {0, -1, INT32_MIN}) EXPECT_EQ(camera_xu_flash_read(h, 0, bad, buf.data()), CAMERA_ERR_FAILURE);
    EXPECT_EQ(camera_xu_flash_read(h, 0, 8, nullptr), CAMERA_ERR_FAILURE);
    EXPECT_TRUE(r.controlTransfers().empty());
}

// Geometry for a 640 x 480 and a 1296 x 808 reader; intervals in ms, raised
// to the reader's own, saturating, committed at the next start.
TEST_F(Xu, FormatAndFrameInterval)
{
    auto& t10 = addReader(Model::T10);
    auto& t20 = addReader(Model::T20);
    CAMERA_HANDLE h10 = openReader(t10), h20 = openReader(t20);
    t10.clearLog();
    for (auto& [h, w, hh] : {std::tuple{h10, 640u, 240u}, std::tuple{h20, 1296u, 404u}}) {
        CAMERA_FORMAT f;
        memset(&f, 0x5C, sizeof f);
        ASSERT_EQ(camera_set_format(h, &f), 0);
        EXPECT_EQ(memcmp(&f.dwFourCC, "YUYV", 4), 0);
        EXPECT_EQ(std::make_tuple(f.dwWidth, f.dwHeight, f.dwImageSize, f.dwReserved), std::make_tuple(w, hh, w * hh * 2, 0u));
    }
    EXPECT_EQ(camera_set_format(h10, nullptr), CAMERA_ERR_FAILURE);
    uint32_t ms = 0;
    EXPECT_EQ(camera_get_frame_interval(h10, &ms), 0);
    EXPECT_EQ(ms, 33u);
    for (auto& [h, set, want] : {std::tuple{h10, 20u, 33u}, std::tuple{h20, 40u, 66u},
                                 std::tuple{h20, 429497u, 429496u}, std::tuple{h20, 100u, 100u}}) {
        ms = set;
        EXPECT_EQ(camera_set_frame_interval(h, &ms), 0);
        EXPECT_EQ(ms, want) << set << " ms: the interval in effect is reported back";
        ms = 0;
        EXPECT_EQ(camera_get_frame_interval(h, &ms), 0);
        EXPECT_EQ(ms, want) << set;
    }
    EXPECT_TRUE(t10.log().empty()) << "format and interval send nothing";
    EXPECT_EQ(camera_get_frame_interval(h20, nullptr), 0);

    // The result codes around a stream (frame assembly: tests/streaming).
    void* f = reinterpret_cast<void*>(0x1);
    EXPECT_EQ(camera_get_image(h20, 0, &f), CAMERA_ERR_FAILURE) << "before start";
    EXPECT_EQ(camera_start_capture(h20, 5), CAMERA_ERR_FAILURE);
    const uint32_t first = t20.queueFrames(2);
    t20.queueUrbBreak();
    ASSERT_EQ(camera_start_capture(h20, 0), 0);
    EXPECT_EQ(t20.lastCommit(), sim::expectedCommit(Model::T20, 1000000u)) << "the interval set before";
    EXPECT_EQ(camera_get_image(h20, 1000, nullptr), CAMERA_ERR_FAILURE);
    ASSERT_EQ(camera_get_image(h20, 1000, &f), 0);
    EXPECT_EQ(sim::checkFrame(f, t20), first) << "the refused get lost no frame";
    EXPECT_EQ(camera_put_image(h20, &ms), CAMERA_ERR_FAILURE) << "not a frame";
    EXPECT_EQ(camera_put_image(h20, f), 0);
    EXPECT_EQ(camera_get_image(h20, 0, &f), CAMERA_ERR_TIMEOUT);
    EXPECT_EQ(f, nullptr);
    EXPECT_EQ(camera_flush(h20) | camera_stop_capture(h20), 0);
    EXPECT_EQ(t20.currentAltSetting(1), 0);
    EXPECT_EQ(camera_get_image(h20, 0, &f), CAMERA_ERR_FAILURE) << "after stop";
    camera_close(h20);
    ASSERT_EQ(open(h20), 0);
    EXPECT_EQ(camera_get_frame_interval(h20, &ms), 0);
    EXPECT_EQ(ms, 66u) << "a new open starts from the reader's default";
}

// Records of every region at level 4 (ZTTRACE_PATH), set before the
// process's first library call.
TEST_F(Xu, TraceRecords)
{
    std::string dir = std::string(getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp") + "/camtrace.XXXXXX";
    ASSERT_NE(mkdtemp(dir.data()), nullptr);
    setenv("ZTTRACE_PATH", dir.c_str(), 1);
    sim::DeviceOptions o;
    o.bcdDevice = 0x8123;
    auto& r = addReader(Model::T10, o);
    CAMERA_HANDLE h = openReader(r);
    uint8_t buf[20];
    void* f = nullptr;
    EXPECT_TRUE(camera_get_revision(h) == 0x8123 && camera_get_by_vid_pid(0x3A5C, 13) == nullptr);
    EXPECT_EQ(camera_xu_flash_read(h, 0x100, 20, buf), 0);
    EXPECT_EQ(camera_get_image(h, 300, &f), CAMERA_ERR_FAILURE);         // not started
    EXPECT_EQ(camera_get_image(h, 0xFFFFFFFFu, &f), CAMERA_ERR_FAILURE);  // the wait wraps in 32 bits
    EXPECT_EQ(camera_flush(nullptr), CAMERA_ERR_NO_DEVICE);
    EXPECT_EQ(camera_flush(reinterpret_cast<CAMERA_HANDLE>(uintptr_t(0x2000))), CAMERA_ERR_NO_DEVICE);
    std::vector<std::string> recs;  // "region|level|indent|text"; a dump's data line as is
    std::ifstream in(dir + "/traces.log");
    const std::regex record(R"(^ *\S+\| *(\w+)\|[^|]*\|[^|]*\|(\w)\|(?:[^|]*\|){3}( *)(.*)$)");
    std::smatch m;
    for (std::string line; std::getline(in, line);)
        recs.push_back(std::regex_match(line, m, record) ? m.str(1) + "|" + m.str(2) + "|" + std::to_string(m.length(3)) + "|" + m.str(4) : line);
    char B[32];
    snprintf(B, sizeof B, "%p", (void*)buf);
    auto at = [&](const std::string& prefix, size_t from = 0) {
        for (size_t i = from; i < recs.size(); ++i)
            if (recs[i].rfind(prefix, 0) == 0) return long(i);
        ADD_FAILURE() << "no record " << prefix;
        return -1L;
    };
    EXPECT_NE(recs[size_t(at("usbuvc|d|0|<== (", at("usbuvc|d|0|==> camera_get_revision")))].find(
                  ") camera_get_revision() --> -32477"), std::string::npos);
    at("usbuvc|e|0|==> camera_get_by_vid_pid(14940,13)");
    long dump = at("usbuvc|t|1|camera_xu_flash_read: read data: " + std::string(B) + ", 20 bytes, full dump follows");
    std::string hex;
    for (uint32_t i = 0; i < 20; ++i) hex += (snprintf(B, sizeof B, "%02x,", sim::flashByte(0x100 + i)), B);
    EXPECT_EQ(dump >= 0 ? recs[size_t(dump) + 1] : "", hex);
    at("usbtr|d|1|==> USBVDGetFrame(", at("usbuvc|d|0|==> camera_get_image("));
    EXPECT_NE(recs[size_t(at("usbtr|d|1|==> USBVDGetFrame("))].find(",1800,"), std::string::npos) << "300 + 1500 ms";
    EXPECT_NE(recs[size_t(at("usbtr|d|1|==> USBVDGetFrame(", at("usbtr|d|1|==> USBVDGetFrame(") + 1))].find(",1499,"),
              std::string::npos);
    EXPECT_EQ(at("usbuvc|w|1|ListFind(): item 0x2000 not found"), at("usbuvc|w|")) << "none for NULL";
}

}  // namespace
