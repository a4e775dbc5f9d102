// ztuvc-sim as a user without hardware runs it: it sets up its own preload,
// so this process runs outside it.
#include "simreader.h"
#include "tool_test.h"

namespace {

TEST(SimRunner, RunsTheCommandAgainstStreamingReaders) {
    ASSERT_FALSE(sim::underUmockdevPreload());
    const std::string dir = tooltest::tempDir();
    auto run = [&](std::vector<std::string> args) { return tooltest::Child(ZTUVC_SIM, std::move(args), dir).wait(); };
    tooltest::Result r = run({"-q", "--pattern", "--readers", "2", "--model", "20", "--", ZTUVC_TOOL, "capture",
                              "-n", "2", "-o", dir + "/p-%d.pgm"});
    ASSERT_EQ(r.code, 0) << r.err;
    std::vector<uint8_t> px = tooltest::readImage(dir + "/p-1.pgm");
    ASSERT_EQ(px.size(), 1296u * 808);
    EXPECT_EQ(sim::firstPatternMismatch(px.data(), px.size(), sim::frameNumberOf(px.data())), -1);
    r = run({"--model", "10", "--", ZTUVC_TOOL, "capture", "-o", dir + "/fp.pgm"});
    EXPECT_NE(r.err.find("ztuvc-sim: 1 simulated Tessary 10 Fingerprint Reader (640 x 480"), std::string::npos) << r.err;
    std::vector<uint8_t> fp = tooltest::readImage(dir + "/fp.pgm");
    ASSERT_EQ(fp.size(), 640u * 480) << r.err;
    EXPECT_NE(sim::firstPatternMismatch(fp.data(), fp.size(), sim::frameNumberOf(fp.data())), -1) << "fingerprints by default";
    EXPECT_EQ(run({"-q", "--readers", "0", "--", ZTUVC_TOOL, "list"}).code, 3);
    EXPECT_EQ(run({"-q", "--", "/bin/sh", "-c", "kill -TERM $$"}).code, 128 + SIGTERM) << "its status comes back";
    EXPECT_EQ(run({"-q", "/bin/sh", "-c", "cat /sys/bus/usb/devices/1-1/idVendor; exit 7"}).out, "3a5c\n");
    for (auto bad : std::vector<std::vector<std::string>>{{"--model", "99", "--", "true"}, {"--readers", "9", "--", "true"}, {"--"}})
        EXPECT_EQ(run(bad).code, 2) << bad[0];
    EXPECT_EQ(run({"-q", "--", "/nonexistent/command"}).code, 127);
}

}  // namespace
