// The ztuvc tool end to end: the test process holds the simulated readers and
// runs the tool as a child under the same preload.
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <nlohmann/json.hpp>

#include "simtest.h"
#include "tool_test.h"

using sim::Model;
using tooltest::Result;

namespace {

class Tool : public sim::SimTest {
protected:
    Result tool(std::vector<std::string> args) { return tooltest::Child(ZTUVC_TOOL, std::move(args), dir_).wait(); }
    std::string path(const std::string& name) { return dir_ + "/" + name; }
    // Every byte of the image is the pattern of the frame number it carries.
    uint32_t expectFrame(const std::string& name, const sim::Reader& r) {
        uint32_t width = 0;
        std::vector<uint8_t> px = tooltest::readImage(path(name), &width);
        EXPECT_EQ(width, r.info().width) << name;
        if (px.size() != r.info().imageSize()) return ADD_FAILURE() << name << ": " << px.size() << " bytes", 0;
        uint32_t n = sim::frameNumberOf(px.data());
        EXPECT_EQ(sim::firstPatternMismatch(px.data(), px.size(), n), -1) << name;
        return n;
    }
    std::string dir_ = tooltest::tempDir();
};

TEST_F(Tool, ListInfoAndCapture) {
    testbed().addUnsupported(0x046d, 0xc077);
    Result none = tool({"list", "--json"});
    EXPECT_EQ(std::make_pair(none.code, nlohmann::json::parse(none.out)), std::make_pair(3, nlohmann::json::array()));
    sim::DeviceOptions o;
    o.serial = std::string("AB\"C\\1");  // characters JSON must escape
    o.bcdDevice = 0x0203;
    sim::Reader& a = addReader(Model::T10);
    sim::Reader& b = addReader(Model::T20, o);
    auto j = nlohmann::json::parse(tool({"list", "--json"}).out);
    ASSERT_EQ(j.size(), 2u);
    const int ib = j[0]["name"] == b.cameraName() ? 0 : 1;
    EXPECT_EQ(j[ib], nlohmann::json({{"index", ib}, {"name", b.cameraName()}, {"vendor_id", "3a5c"},
                                     {"product_id", "000c"}, {"revision", "0203"}, {"product", b.product()},
                                     {"manufacturer", "Tessary Biometrics"}, {"serial", "AB\"C\\1"}}));
    EXPECT_EQ(a.count(USBDEVFS_CLAIMINTERFACE) + b.count(USBDEVFS_CLAIMINTERFACE), 0u) << "listing opens nothing";
    for (const std::string& sel : {std::to_string(ib), b.cameraName(), std::string("AB\"C\\1")}) {
        auto i = nlohmann::json::parse(tool({"info", "-d", sel, "--json"}).out);
        EXPECT_EQ(std::make_tuple(i["name"], i["fourcc"], i["format_width"], i["format_height"], i["image_size"],
                                  i["width"], i["height"], i["frame_interval_ms"]),
                  std::make_tuple(b.cameraName(), "YUYV", 1296, 404, 1047168, 1296, 808, 66)) << sel;
    }
    EXPECT_NE(tool({"info", "-d", a.cameraName()}).out.find("YUYV 640 x 240, 307200 bytes\n"), std::string::npos);
    EXPECT_EQ(tool({"info", "-d", "NOSUCH"}).code + tool({"info", "-d", "2"}).code, 6);

    // Captures: byte-exact frames in stream order, the stream committed and stopped.
    sim::Reader& r = b;
    r.queueFrames(4);  // frame n is complete when n+1 begins
    Result png = tool({"capture", "-d", b.cameraName(), "-n", "3", "-o", path("f-%03d.png")});
    ASSERT_EQ(png.code, 0) << png.err;
    uint32_t n0 = expectFrame("f-000.png", r);
    EXPECT_EQ(expectFrame("f-002.png", r), n0 + 2) << "in stream order, none lost";
    EXPECT_EQ(r.lastCommit(), sim::expectedCommit(Model::T20));
    EXPECT_EQ(r.currentAltSetting(1), 0) << "the stream was stopped";
    r.queueFrames(3);
    ASSERT_EQ(tool({"capture", "-d", b.cameraName(), "-n", "2", "--interval", "100", "-o", path("g%d.pgm")}).code, 0);
    EXPECT_EQ(expectFrame("g1.pgm", r), expectFrame("g0.pgm", r) + 1);
    EXPECT_EQ(r.lastCommit(), sim::expectedCommit(Model::T20, 1000000u));
}

TEST_F(Tool, CaptureEndsWithTheRightExitCode) {
    sim::Reader* r = &addReader(Model::T10);
    EXPECT_EQ(tool({"capture", "-o", path("x.png")}).code, 6) << "never streams: cannot start";
    r->queueFrames(3);  // two complete frames, then silence
    EXPECT_EQ(tool({"capture", "-n", "10", "--timeout", "100", "-o", path("t%d.pgm")}).code, 5) << "timed out";
    EXPECT_TRUE(tooltest::exists(path("t1.pgm")) && !tooltest::exists(path("t2.pgm")));
    r->queueFrames(2);
    EXPECT_EQ(tool({"capture", "-o", path("no/such/x.png")}).code, 7);
    EXPECT_EQ(r->currentAltSetting(1), 0) << "the stream was stopped";
    for (int sig : {0, SIGINT}) {  // unplugged mid-stream, interrupted
        tooltest::Child c(ZTUVC_TOOL, {"capture", "-n", "50", "--timeout", "3000", "-o", path(std::to_string(sig) + "-%d.pgm")}, dir_);
        ASSERT_TRUE(r->waitIsoUrbsInFlight(1, std::chrono::seconds(20)));
        r->queueFrames(2);
        ASSERT_TRUE(tooltest::waitFile(path(std::to_string(sig) + "-0.pgm")));
        sig ? c.signal(sig) : r->unplug();
        Result res = c.wait();
        EXPECT_TRUE(res.code == (sig ? 130 : 6) && res.err.find(sig ? "interrupted" : "gone") != std::string::npos) << res.err;
        if (!sig) r = &addReader(Model::T10);
    }
}

TEST_F(Tool, RegistersFlashAndRefusals) {
    sim::Reader& r = addReader(Model::T30);
    EXPECT_EQ(tool({"sensor", "write", "0x1234", "0xab"}).code + r.reg(0x1234), 0xab);
    EXPECT_EQ(tool({"sensor", "read", "4660"}).out, "0xab\n");
    EXPECT_EQ(tool({"finger", "5"}).code + r.reg(0xF000), 5);
    EXPECT_EQ(tool({"finger"}).out, "0x05\n");
    ASSERT_EQ(tool({"flash", "read", "0x1003", "100", "-o", path("flash.bin")}).code, 0);
    std::string bytes = tooltest::readFile(path("flash.bin"));
    for (uint32_t i = 0; i < 100; ++i) ASSERT_EQ(uint8_t(bytes.at(i)), sim::flashByte(0x1003 + i)) << i;
    r.failControl(sim::ControlMatch::xuGet(), EPIPE, sim::When::always());
    EXPECT_EQ(tool({"sensor", "read", "0x10"}).code, 1);
    EXPECT_EQ(tool({"flash", "read", "0", "16", "-o", path("fail.bin")}).code, 1);
    EXPECT_FALSE(tooltest::exists(path("fail.bin")));
    r.clearFaults();
    r.clearLog();
    for (std::vector<std::string> bad : std::vector<std::vector<std::string>>{{}, {"frobnicate"}, {"list", "--bogus"},
             {"capture", "-n", "0"}, {"capture", "-n", "12abc"}, {"capture", "--slots", "5"}, {"capture", "-o", "x-%s.png"},
             {"capture", "-n", "2", "-o", "same.png"}, {"capture", "-o", "f%d.jpg"}, {"sensor", "read", "0x10000"},
             {"sensor", "write", "1", "256"}, {"finger", "0x100"}, {"flash", "read", "0", "0"}}) {
        Result res = tool(bad);  // exit 2, a message, nothing on stdout
        EXPECT_EQ(std::make_tuple(res.code, res.out, res.err.empty()), std::make_tuple(2, "", false)) << bad.size();
    }
    EXPECT_TRUE(r.log().empty()) << "a bad command line touches no reader";
    sim::LockHolder other = testbed().holdLockInChild(r);
    Result busy = tool({"sensor", "read", "0"});
    EXPECT_TRUE(busy.code == 4 && busy.err.find("busy") != std::string::npos) << busy.err;
    other.release();
    if (testbed().denyOpen(r) == 0) return;  // this file system cannot refuse root
    Result denied = tool({"info"});
    EXPECT_TRUE(denied.code == 4 && denied.err.find("60-ztuvc.rules") != std::string::npos) << denied.err;
}

}  // namespace
