// The ztuvc tool end to end: the test process holds the simulated readers
// and runs the tool as a child process under the same umockdev preload, so
// the tool drives the readers exactly as on real hardware.
#include "simtest.h"
#include "tool_run.h"

#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <linux/usbdevice_fs.h>

#include <cerrno>
#include <set>
#include <string>
#include <vector>

#ifndef ZTUVC_TOOL
#error "ZTUVC_TOOL must name the tool binary"
#endif

using namespace std::chrono_literals;
using sim::Model;
using tooltest::Result;

namespace {

class ToolTest : public sim::SimTest {
protected:
    ToolTest() : sim::SimTest(120) {}

    void SetUp() override {
        sim::SimTest::SetUp();
        dir_ = tooltest::makeTempDir("tool");
        ASSERT_FALSE(dir_.empty());
    }

    std::vector<std::string> argv(std::vector<std::string> args) const {
        args.insert(args.begin(), ZTUVC_TOOL);
        return args;
    }
    Result tool(std::vector<std::string> args, std::chrono::milliseconds timeout = 60000ms) {
        Result r = tooltest::run(argv(std::move(args)), dir_, timeout);
        EXPECT_FALSE(r.timedOut) << "the tool hung";
        return r;
    }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }

    std::string dir_;
};

std::string describe(const Result& r) {
    return "exit " + std::to_string(r.exitCode) + "\n--- stdout\n" + r.out + "--- stderr\n" + r.err;
}

std::string hex2(unsigned v) {
    char b[8];
    std::snprintf(b, sizeof b, "0x%02x", v);
    return b;
}

// Checks one captured image against the test pattern: the frame number it
// carries in bytes 0..3 and every byte after them.
void expectPatternImage(const tooltest::Image& img, const sim::ModelInfo& mi, std::set<uint32_t>& seen,
                        const std::string& what) {
    ASSERT_TRUE(img.error.empty()) << what << ": " << img.error;
    ASSERT_EQ(img.width, mi.width) << what;
    ASSERT_EQ(img.height, mi.height) << what;
    ASSERT_EQ(img.pixels.size(), size_t(mi.width) * mi.height) << what;
    uint32_t frame = sim::frameNumberOf(img.pixels.data());
    EXPECT_EQ(sim::firstPatternMismatch(img.pixels.data(), img.pixels.size(), frame), -1)
        << what << " (frame " << frame << ") differs from the pattern";
    EXPECT_TRUE(seen.insert(frame).second) << what << ": frame " << frame << " written twice";
}

// ------------------------------------------------------------------ list

TEST_F(ToolTest, ListShowsEveryReaderAsTextAndJson) {
    sim::DeviceOptions o;
    o.serial = std::string("AB\"C\\1");  // characters JSON must escape
    o.bcdDevice = 0x0203;
    sim::Reader& a = addReader(Model::T10);
    sim::Reader& b = addReader(Model::T30, o);

    // The registry follows the order of the sysfs directory: either order.
    auto textOf = [&](int i, int k) {
        const std::string block[2] = {
            "  id:           3a5c:000b rev 0100\n"
            "  product:      Tessary 10 Fingerprint Reader\n"
            "  manufacturer: Tessary Biometrics\n"
            "  serial:       " + a.serial() + "\n",
            "  id:           3a5c:000d rev 0203\n"
            "  product:      Tessary 30 Fingerprint Reader\n"
            "  manufacturer: Tessary Biometrics\n"
            "  serial:       AB\"C\\1\n"};
        return "reader " + std::to_string(i) + ": " + (k == 0 ? a : b).cameraName() + "\n" + block[k];
    };
    auto jsonOf = [&](int i, int k) {
        const std::string tail[2] = {
            "\"product_id\": \"000b\", \"revision\": \"0100\", \"product\": \"Tessary 10 Fingerprint Reader\", "
            "\"manufacturer\": \"Tessary Biometrics\", \"serial\": \"" + a.serial() + "\"}",
            "\"product_id\": \"000d\", \"revision\": \"0203\", \"product\": \"Tessary 30 Fingerprint Reader\", "
            "\"manufacturer\": \"Tessary Biometrics\", \"serial\": \"AB\\\"C\\\\1\"}"};
        return "  {\"index\": " + std::to_string(i) + ", \"name\": \"" + (k == 0 ? a : b).cameraName() +
               "\", \"vendor_id\": \"3a5c\", " + tail[k];
    };

    Result r = tool({"list"});
    ASSERT_EQ(r.exitCode, 0) << describe(r);
    const bool aFirst = r.out.rfind("reader 0: " + a.cameraName() + "\n", 0) == 0;
    const int first = aFirst ? 0 : 1;
    EXPECT_EQ(r.out, textOf(0, first) + textOf(1, 1 - first));
    EXPECT_EQ(r.err, "");

    Result j = tool({"list", "--json"});
    ASSERT_EQ(j.exitCode, 0) << describe(j);
    EXPECT_EQ(j.out, "[\n" + jsonOf(0, first) + ",\n" + jsonOf(1, 1 - first) + "\n]\n");
    // Listing opens nothing.
    EXPECT_EQ(a.count(USBDEVFS_CLAIMINTERFACE) + b.count(USBDEVFS_CLAIMINTERFACE), 0u);

    // -d takes the index the list shows.
    Result byIndex = tool({"info", "-d", "1"});
    ASSERT_EQ(byIndex.exitCode, 0) << describe(byIndex);
    EXPECT_EQ(byIndex.out.rfind(textOf(1, 1 - first), 0), 0u) << byIndex.out;
}

TEST_F(ToolTest, NoReaderIsExitThreeEverywhere) {
    // An unsupported device is not a reader.
    testbed().addUnsupported(0x046d, 0xc077);
    Result r = tool({"list"});
    EXPECT_EQ(r.exitCode, 3) << describe(r);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("no reader found"), std::string::npos) << r.err;

    Result j = tool({"list", "--json"});
    EXPECT_EQ(j.exitCode, 3) << describe(j);
    EXPECT_EQ(j.out, "[]\n");

    for (std::vector<std::string> cmd : {std::vector<std::string>{"info"},
                                         {"capture", "-o", path("none-%d.png")},
                                         {"sensor", "read", "1"},
                                         {"finger"},
                                         {"flash", "read", "0", "8"}}) {
        Result c = tool(cmd);
        EXPECT_EQ(c.exitCode, 3) << cmd[0] << ": " << describe(c);
        EXPECT_NE(c.err.find("no reader found"), std::string::npos) << cmd[0] << ": " << c.err;
    }
    EXPECT_FALSE(tooltest::fileExists(path("none-0.png")));
}

// ------------------------------------------------------------------ info

TEST_F(ToolTest, InfoShowsFormatAndIntervalOfTheChosenReader) {
    sim::DeviceOptions o;
    o.serial = std::string("SECOND");
    sim::DeviceOptions numeric;
    numeric.serial = std::string("0042");  // a serial number that looks like an index
    sim::Reader& a = addReader(Model::T10);
    sim::Reader& b = addReader(Model::T20, o);

    Result r = tool({"info", "-d", a.cameraName()});
    ASSERT_EQ(r.exitCode, 0) << describe(r);
    EXPECT_NE(r.out.find(": " + a.cameraName() + "\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("  format:       YUYV 640 x 240, 307200 bytes\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("  image:        640 x 480, 8-bit grey\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("  interval:     33 ms"), std::string::npos) << r.out;

    // By name, by serial number, and by the index (decimal and hex) that
    // 'list' shows: the 1296 x 808 reader.
    Result listed = tool({"list"});
    const std::string bIndex = listed.out.find("reader 0: " + b.cameraName()) != std::string::npos ? "0" : "1";
    for (const std::string& sel : {bIndex, "0x" + bIndex, b.cameraName(), std::string("SECOND")}) {
        Result s = tool({"info", "-d", sel});
        ASSERT_EQ(s.exitCode, 0) << sel << ": " << describe(s);
        EXPECT_NE(s.out.find("reader " + bIndex + ": " + b.cameraName() + "\n"), std::string::npos)
            << sel << ": " << s.out;
        EXPECT_NE(s.out.find("  format:       YUYV 1296 x 404, 1047168 bytes\n"), std::string::npos) << s.out;
        EXPECT_NE(s.out.find("  image:        1296 x 808, 8-bit grey\n"), std::string::npos) << s.out;
        EXPECT_NE(s.out.find("  interval:     66 ms"), std::string::npos) << s.out;
    }

    Result j = tool({"info", "--device=SECOND", "--json"});
    ASSERT_EQ(j.exitCode, 0) << describe(j);
    EXPECT_NE(j.out.find("\"fourcc\": \"YUYV\", \"format_width\": 1296, \"format_height\": 404, "
                         "\"image_size\": 1047168, \"width\": 1296, \"height\": 808, \"frame_interval_ms\": 66}\n"),
              std::string::npos)
        << j.out;

    sim::Reader& c = addReader(Model::T40, numeric);
    Result byNumericSerial = tool({"info", "-d", "0042"});
    ASSERT_EQ(byNumericSerial.exitCode, 0) << describe(byNumericSerial);
    EXPECT_NE(byNumericSerial.out.find(": " + c.cameraName() + "\n"), std::string::npos)
        << byNumericSerial.out;

    Result none = tool({"info", "-d", "NOSUCH"});
    EXPECT_EQ(none.exitCode, 3) << describe(none);
    EXPECT_NE(none.err.find("no reader matches 'NOSUCH' (3 attached"), std::string::npos) << none.err;
    Result far = tool({"info", "-d", "3"});
    EXPECT_EQ(far.exitCode, 3) << describe(far);
}

// ------------------------------------------------------------------ capture

TEST_F(ToolTest, CaptureWritesByteExactPngFrames) {
    sim::Reader& r = addReader(Model::T30);
    const sim::ModelInfo& mi = r.info();
    // Frame n is complete when frame n+1 begins: one more than captured.
    r.queueFrames(4);
    Result res = tool({"capture", "-n", "3", "-o", path("frame-%03d.png")});
    ASSERT_EQ(res.exitCode, 0) << describe(res);

    std::set<uint32_t> seen;
    for (int i = 0; i < 3; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "frame-%03d.png", i);
        expectPatternImage(tooltest::readPng(path(name)), mi, seen, name);
    }
    EXPECT_FALSE(tooltest::fileExists(path("frame-003.png")));
    // In stream order.
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_LT(*seen.begin(), *seen.rbegin());

    EXPECT_EQ(tooltest::countLinesStartingWith(res.out, "frame "), 3) << res.out;
    EXPECT_NE(res.out.find("frame 0: 1310720 bytes, start "), std::string::npos) << res.out;
    EXPECT_NE(res.out.find("-> " + path("frame-002.png") + "\n"), std::string::npos) << res.out;
    EXPECT_NE(res.out.find("3 frames in "), std::string::npos) << res.out;
    EXPECT_EQ(res.out.find("bad trailer"), std::string::npos) << res.out;
    // The stream was committed as the library should, and shut down again.
    ASSERT_TRUE(r.lastCommit().has_value());
    EXPECT_EQ(*r.lastCommit(), sim::expectedCommit(Model::T30));
    EXPECT_EQ(r.currentAltSetting(1), 0);
}

TEST_F(ToolTest, CapturePgmDerivesTheRawGeometry) {
    // 1296 x 808: the format record says 1296 x 404 at two bytes a pixel.
    sim::Reader& r = addReader(Model::T20);
    r.queueFrames(3);
    Result res = tool({"capture", "-q", "--count=2", "--slots", "2", "-o", path("f%d.PGM")});
    ASSERT_EQ(res.exitCode, 0) << describe(res);
    EXPECT_EQ(tooltest::countLinesStartingWith(res.out, "frame "), 0) << "-q prints only the summary";
    EXPECT_NE(res.out.find("2 frames in "), std::string::npos) << res.out;
    std::set<uint32_t> seen;
    for (int i = 0; i < 2; ++i) {
        std::string name = "f" + std::to_string(i) + ".PGM";
        std::string raw = tooltest::readFile(path(name));
        EXPECT_EQ(raw.compare(0, 15, "P5\n1296 808\n255"), 0) << name;
        expectPatternImage(tooltest::readPgm(path(name)), r.info(), seen, name);
    }
}

TEST_F(ToolTest, CaptureCommitsTheRequestedInterval) {
    sim::Reader& r = addReader(Model::T10);
    r.queueFrames(2);
    Result res = tool({"capture", "--interval", "100", "-o", path("one.pgm")});
    ASSERT_EQ(res.exitCode, 0) << describe(res);
    EXPECT_NE(res.out.find("at 100 ms intervals"), std::string::npos) << res.out;
    ASSERT_TRUE(r.lastCommit().has_value());
    EXPECT_EQ(*r.lastCommit(), sim::expectedCommit(Model::T10, 1000000u));
    std::set<uint32_t> seen;
    expectPatternImage(tooltest::readPgm(path("one.pgm")), r.info(), seen, "one.pgm");
}

TEST_F(ToolTest, CaptureTimesOutWhenTheReaderStopsSending) {
    sim::Reader& r = addReader(Model::T10);
    r.queueFrames(3);  // two complete frames, then silence
    auto t0 = std::chrono::steady_clock::now();
    Result res = tool({"capture", "-n", "10", "--timeout", "100", "-o", path("t%d.pgm")});
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0);
    EXPECT_EQ(res.exitCode, 5) << describe(res);
    EXPECT_NE(res.err.find("timed out waiting for frame"), std::string::npos) << res.err;
    // The library waits the time-out plus 1500 ms.
    EXPECT_GE(ms.count(), 1600);
    // What arrived before the silence was written, and summarised.
    EXPECT_TRUE(tooltest::fileExists(path("t0.pgm")));
    EXPECT_TRUE(tooltest::fileExists(path("t1.pgm")));
    EXPECT_FALSE(tooltest::fileExists(path("t3.pgm")));
    EXPECT_NE(res.out.find(" frames in "), std::string::npos) << res.out;
    EXPECT_EQ(r.currentAltSetting(1), 0) << "the stream was not stopped";
}

TEST_F(ToolTest, CaptureReportsAReaderUnpluggedMidStream) {
    sim::Reader& r = addReader(Model::T10);
    tooltest::Child child(argv({"capture", "-n", "50", "--timeout", "3000", "-o", path("u%d.pgm")}), dir_);
    ASSERT_TRUE(child.running());
    ASSERT_TRUE(r.waitIsoUrbsInFlight(1, 20000ms));
    r.queueFrames(3);
    // Unplug only once the tool has a frame in hand, so that the stream
    // fails mid-way rather than at its start.
    auto deadline = std::chrono::steady_clock::now() + 20s;
    while (!tooltest::fileExists(path("u0.pgm")) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(5ms);
    ASSERT_TRUE(tooltest::fileExists(path("u0.pgm")));
    r.unplug();
    Result res = child.wait();
    EXPECT_EQ(res.exitCode, 6) << describe(res);
    EXPECT_NE(res.err.find("the stream failed at frame "), std::string::npos) << res.err;
    EXPECT_NE(res.err.find("the reader is gone"), std::string::npos) << res.err;
    EXPECT_FALSE(tooltest::fileExists(path("u3.pgm"))) << "more frames than were sent";
}

TEST_F(ToolTest, CaptureStopsCleanlyOnInterrupt) {
    sim::Reader& r = addReader(Model::T10);
    tooltest::Child child(argv({"capture", "-n", "50", "--timeout", "5000", "-o", path("i%d.pgm")}), dir_);
    ASSERT_TRUE(child.running());
    r.queueFrames(2);  // frame 0 completes, then nothing more
    auto deadline = std::chrono::steady_clock::now() + 20s;
    while (!tooltest::fileExists(path("i0.pgm")) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(5ms);
    ASSERT_TRUE(tooltest::fileExists(path("i0.pgm")));
    std::this_thread::sleep_for(100ms);  // the tool now waits for frame 1
    auto t0 = std::chrono::steady_clock::now();
    child.signal(SIGINT);
    Result res = child.wait();
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0);
    EXPECT_EQ(res.exitCode, 130) << describe(res);
    EXPECT_NE(res.err.find("ztuvc: interrupted"), std::string::npos) << res.err;
    EXPECT_NE(res.out.find("1 frame in "), std::string::npos) << res.out;
    // The frame wait under way ends (5000 + 1500 ms at most), then the tool
    // stops instead of waiting for the other 48 frames.
    EXPECT_LT(ms.count(), 15000);
    EXPECT_EQ(r.currentAltSetting(1), 0) << "the stream was not stopped";
}

TEST_F(ToolTest, CaptureDrawsAProgressBarOnlyOnATerminal) {
    sim::Reader& r = addReader(Model::T10);
    r.queueFrames(3);
    std::string out;
    int code = tooltest::runOnTerminal(argv({"capture", "-n", "2", "-o", path("p%d.pgm")}), out);
    ASSERT_EQ(code, 0) << out;
    EXPECT_NE(out.find("] 1/2"), std::string::npos) << out;
    EXPECT_NE(out.find("] 2/2"), std::string::npos) << out;
    EXPECT_NE(out.find("\r\033[K"), std::string::npos) << "the bar is cleared before the summary";
    EXPECT_NE(out.find("2 frames in "), std::string::npos) << out;

    r.queueFrames(3);
    Result plain = tool({"capture", "-n", "2", "-o", path("q%d.pgm")});
    ASSERT_EQ(plain.exitCode, 0) << describe(plain);
    EXPECT_EQ(plain.out.find('\r'), std::string::npos) << "progress bar written to a file";
}

TEST_F(ToolTest, CaptureOfAReaderThatNeverStreamsFailsToStart) {
    sim::Reader& r = addReader(Model::T10);
    (void)r;  // nothing queued: no payload ever arrives
    Result res = tool({"capture", "-o", path("x.png")});
    EXPECT_EQ(res.exitCode, 6) << describe(res);
    EXPECT_NE(res.err.find("cannot start capture"), std::string::npos) << res.err;
    EXPECT_FALSE(tooltest::fileExists(path("x.png")));
}

TEST_F(ToolTest, CaptureIntoAMissingDirectoryIsAnOutputError) {
    sim::Reader& r = addReader(Model::T10);
    r.queueFrames(2);
    Result res = tool({"capture", "-o", path("no/such/dir/x.png")});
    EXPECT_EQ(res.exitCode, 7) << describe(res);
    EXPECT_NE(res.err.find("cannot write " + path("no/such/dir/x.png") + ": No such file or directory"),
              std::string::npos)
        << res.err;
    EXPECT_EQ(r.currentAltSetting(1), 0) << "the stream was not stopped";
}

// ------------------------------------------------------ open failures

TEST_F(ToolTest, BusyReaderIsExitFourWithAHint) {
    sim::Reader& r = addReader(Model::T10);
    sim::LockHolder lock = testbed().holdLockInChild(r);
    ASSERT_TRUE(lock.held());
    for (std::vector<std::string> cmd : {std::vector<std::string>{"info"},
                                         {"capture", "-o", path("b.png")},
                                         {"sensor", "read", "0"}}) {
        Result res = tool(cmd);
        EXPECT_EQ(res.exitCode, 4) << cmd[0] << ": " << describe(res);
        EXPECT_NE(res.err.find("cannot open reader " + r.cameraName() + ": it is busy"), std::string::npos)
            << res.err;
    }
    // Listing does not open: still fine.
    EXPECT_EQ(tool({"list"}).exitCode, 0);
    lock.release();
    EXPECT_EQ(tool({"info"}).exitCode, 0);
}

TEST_F(ToolTest, DeniedReaderIsExitFourWithTheUdevHint) {
    sim::Reader& r = addReader(Model::T10);
    int err = testbed().denyOpen(r);
    if (err == 0) GTEST_SKIP() << "cannot deny opens on this file system";
    Result res = tool({"info"});
    testbed().allowOpen(r);
    EXPECT_EQ(res.exitCode, 4) << describe(res);
    EXPECT_NE(res.err.find("cannot open reader " + r.cameraName() + ": permission denied on " + r.nodePath()),
              std::string::npos)
        << res.err;
    EXPECT_NE(res.err.find("60-ztuvc.rules"), std::string::npos) << res.err;
}

// ------------------------------------------------------ registers and flash

TEST_F(ToolTest, SensorAndFingerRoundTrips) {
    sim::Reader& r = addReader(Model::T30);

    Result w = tool({"sensor", "write", "0x1234", "0xab"});
    ASSERT_EQ(w.exitCode, 0) << describe(w);
    EXPECT_EQ(w.out, "");
    EXPECT_EQ(r.reg(0x1234), 0xab);
    EXPECT_EQ(r.reg(0x1235), sim::defaultRegister(0x1235)) << "a neighbour changed";

    Result rd = tool({"sensor", "read", "4660"});  // 0x1234 in decimal
    ASSERT_EQ(rd.exitCode, 0) << describe(rd);
    EXPECT_EQ(rd.out, "0xab\n");

    r.setReg(0x00ff, 0x07);
    EXPECT_EQ(tool({"sensor", "read", "0xff"}).out, "0x07\n");
    EXPECT_EQ(tool({"sensor", "read", "0x2345"}).out, hex2(sim::defaultRegister(0x2345)) + "\n");

    Result f0 = tool({"finger"});
    ASSERT_EQ(f0.exitCode, 0) << describe(f0);
    EXPECT_EQ(f0.out, "0x00\n");
    Result fs = tool({"finger", "0x5"});
    ASSERT_EQ(fs.exitCode, 0) << describe(fs);
    EXPECT_EQ(r.reg(0xF000), 5);
    r.setReg(0xF000, 0x81);
    EXPECT_EQ(tool({"finger"}).out, "0x81\n");
}

TEST_F(ToolTest, FlashReadsToFileAndHexDump) {
    sim::Reader& r = addReader(Model::T10);
    (void)r;
    const uint32_t base = 0x1003;  // not a multiple of the 8-byte exchange
    Result f = tool({"flash", "read", "0x1003", "100", "-o", path("flash.bin")});
    ASSERT_EQ(f.exitCode, 0) << describe(f);
    EXPECT_EQ(f.out, "");
    std::string bytes = tooltest::readFile(path("flash.bin"));
    ASSERT_EQ(bytes.size(), 100u);
    for (uint32_t i = 0; i < 100; ++i)
        ASSERT_EQ(uint8_t(bytes[i]), sim::flashByte(base + i)) << "flash byte " << i;

    Result d = tool({"flash", "read", "16", "20"});
    ASSERT_EQ(d.exitCode, 0) << describe(d);
    // Two lines: 16 bytes at 0x10, 4 at 0x20; check every byte shown.
    std::string expected;
    for (uint32_t line = 0; line < 2; ++line) {
        char head[16];
        std::snprintf(head, sizeof head, "%08x ", 16 + line * 16);
        expected += head;
        for (uint32_t k = 0; k < 16; ++k) {
            if (k == 8) expected += ' ';
            uint32_t off = line * 16 + k;
            if (off < 20) {
                char b[8];
                std::snprintf(b, sizeof b, " %02x", sim::flashByte(16 + off));
                expected += b;
            } else {
                expected += "   ";
            }
        }
        expected += "  |";
        for (uint32_t k = 0; k < 16 && line * 16 + k < 20; ++k) {
            uint8_t c = sim::flashByte(16 + line * 16 + k);
            expected += (c >= 32 && c < 127) ? char(c) : '.';
        }
        expected += "|\n";
    }
    EXPECT_EQ(d.out, expected);
}

TEST_F(ToolTest, FailedTransfersAreExitOne) {
    sim::Reader& r = addReader(Model::T10);
    r.failControl(sim::ControlMatch::xuGet(), EPIPE, sim::When::always());
    Result s = tool({"sensor", "read", "0x10"});
    EXPECT_EQ(s.exitCode, 1) << describe(s);
    EXPECT_NE(s.err.find("reading the sensor register failed"), std::string::npos) << s.err;
    Result f = tool({"flash", "read", "0", "16", "-o", path("fail.bin")});
    EXPECT_EQ(f.exitCode, 1) << describe(f);
    EXPECT_NE(f.err.find("reading flash failed"), std::string::npos) << f.err;
    EXPECT_FALSE(tooltest::fileExists(path("fail.bin"))) << "nothing is written after a failed read";
    r.clearFaults();
    EXPECT_EQ(tool({"sensor", "read", "0x10"}).exitCode, 0);

    // Unplugged in the middle of the exchange: a failed transfer too, and
    // the tool still shuts the library down cleanly.
    r.unplugOnControl(sim::ControlMatch::xuGet());
    Result u = tool({"sensor", "read", "0x10"});
    EXPECT_EQ(u.exitCode, 1) << describe(u);
    EXPECT_NE(u.err.find("reading the sensor register failed (the reader did not answer; unplugged?)"),
              std::string::npos)
        << u.err;
    EXPECT_EQ(tool({"sensor", "read", "0x10"}).exitCode, 3) << "the reader is gone";
}

// ------------------------------------------------------ arguments

TEST_F(ToolTest, BadArgumentsAreExitTwoAndTouchNoReader) {
    sim::Reader& r = addReader(Model::T10);
    struct Case {
        std::vector<std::string> args;
        std::string message;
    };
    const std::vector<Case> cases = {
        {{}, "Usage: ztuvc COMMAND"},
        {{"frobnicate"}, "unknown command 'frobnicate'"},
        {{"list", "--bogus"}, "unknown option '--bogus'"},
        {{"list", "-d", "0"}, "unknown option '-d'"},
        {{"list", "extra"}, "unexpected argument 'extra'"},
        {{"info", "-d"}, "option '-d' needs a value"},
        {{"list", "--json=yes"}, "option '--json' takes no value"},
        {{"capture", "-n", "0"}, "-n: 0 is out of range"},
        {{"capture", "-n", "12abc"}, "-n: '12abc' is not a number"},
        {{"capture", "-n", "0x"}, "-n: '0x' is not a number"},
        {{"capture", "-n", "-3"}, "-n: '-3' is not a number"},
        {{"capture", "-n", "99999999999999999999999"}, "is not a number"},
        {{"capture", "--slots", "5"}, "--slots: 5 is out of range (1..4)"},
        {{"capture", "--interval", "0"}, "--interval: 0 is out of range"},
        {{"capture", "-o", "x-%s.png"}, "bad output pattern 'x-%s.png'"},
        {{"capture", "-o", "x-%d-%d.png"}, "more than one conversion"},
        {{"capture", "-o", "x-%n.png"}, "bad output pattern"},
        {{"capture", "-n", "2", "-o", "same.png"}, "needs a conversion such as %03d"},
        {{"capture", "-o", "frame-%d.jpg"}, "the extension must be .png or .pgm"},
        {{"sensor"}, "missing 'read' or 'write'"},
        {{"sensor", "poke", "1"}, "unknown operation 'poke'"},
        {{"sensor", "read"}, "usage: sensor read ADDR"},
        {{"sensor", "read", "0x10000"}, "ADDR: 0x10000 is out of range (0..65535)"},
        {{"sensor", "write", "1"}, "usage: sensor write ADDR VALUE"},
        {{"sensor", "write", "1", "256"}, "VALUE: 256 is out of range (0..255)"},
        {{"finger", "1", "2"}, "unexpected argument '2'"},
        {{"finger", "0x100"}, "VALUE: 0x100 is out of range"},
        {{"flash", "read", "0"}, "usage: flash read ADDR LEN"},
        {{"flash", "write", "0", "1"}, "usage: flash read ADDR LEN"},
        {{"flash", "read", "0", "0"}, "LEN: 0 is out of range"},
        {{"flash", "read", "0x100000000", "1"}, "ADDR: 0x100000000 is out of range"},
    };
    for (const Case& c : cases) {
        Result res = tool(c.args);
        std::string what = c.args.empty() ? "(none)" : c.args[0];
        for (size_t i = 1; i < c.args.size(); ++i) what += " " + c.args[i];
        EXPECT_EQ(res.exitCode, 2) << what << ": " << describe(res);
        EXPECT_NE(res.err.find(c.message), std::string::npos) << what << ": " << res.err;
        EXPECT_EQ(res.out, "") << what;
    }
    // None of them reached the reader.
    EXPECT_EQ(r.count(USBDEVFS_CLAIMINTERFACE), 0u);
    EXPECT_TRUE(r.controlTransfers().empty());
    EXPECT_FALSE(tooltest::fileExists("same.png"));
}

TEST_F(ToolTest, EveryCommandHasHelp) {
    addReader(Model::T10);
    Result top = tool({"--help"});
    EXPECT_EQ(top.exitCode, 0);
    EXPECT_EQ(top.out.rfind("Usage: ztuvc COMMAND", 0), 0u) << top.out;
    for (const char* cmd : {"list", "info", "capture", "sensor", "finger", "flash"}) {
        Result h = tool({cmd, "--help"});
        EXPECT_EQ(h.exitCode, 0) << cmd << ": " << describe(h);
        EXPECT_EQ(h.out.rfind(std::string("Usage: ztuvc ") + cmd, 0), 0u) << cmd << ": " << h.out;
        EXPECT_NE(h.out.find("-h, --help"), std::string::npos) << cmd;
        Result hs = tool({cmd, "-h"});
        EXPECT_EQ(hs.out, h.out) << cmd;
    }
}

}  // namespace
