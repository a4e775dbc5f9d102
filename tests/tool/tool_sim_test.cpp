// ztuvc-sim: commands run against simulated readers streaming in real time,
// as a user without hardware runs them.
#include "simtest.h"
#include "tool_run.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#if !defined(ZTUVC_TOOL) || !defined(ZTUVC_SIM)
#error "ZTUVC_TOOL and ZTUVC_SIM must name the binaries"
#endif

using tooltest::Result;

namespace {

class SimRunner : public ::testing::Test {
protected:
    void SetUp() override {
        // This process must not be under the preload: ztuvc-sim sets it up.
        ASSERT_FALSE(sim::underUmockdevPreload());
        dir_ = tooltest::makeTempDir("toolsim");
        ASSERT_FALSE(dir_.empty());
    }
    Result sim(std::vector<std::string> args) {
        args.insert(args.begin(), ZTUVC_SIM);
        Result r = tooltest::run(args, dir_, std::chrono::milliseconds(120000));
        EXPECT_FALSE(r.timedOut) << "ztuvc-sim hung";
        return r;
    }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    std::string dir_;
};

std::string describe(const Result& r) {
    return "exit " + std::to_string(r.exitCode) + "\n--- stdout\n" + r.out + "--- stderr\n" + r.err;
}

TEST_F(SimRunner, CapturesPatternFramesByteExact) {
    Result r = sim({"-q", "--pattern", "--model", "10", "--", ZTUVC_TOOL, "capture", "-n", "3", "-o",
                    path("p-%d.png")});
    ASSERT_EQ(r.exitCode, 0) << describe(r);
    EXPECT_EQ(r.err, "") << "-q: no banner";
    const sim::ModelInfo& mi = sim::modelInfo(sim::Model::T10);
    uint32_t previous = 0;
    for (int i = 0; i < 3; ++i) {
        std::string name = "p-" + std::to_string(i) + ".png";
        tooltest::Image img = tooltest::readPng(path(name));
        ASSERT_TRUE(img.error.empty()) << name << ": " << img.error;
        ASSERT_EQ(img.width, mi.width);
        ASSERT_EQ(img.height, mi.height);
        uint32_t frame = sim::frameNumberOf(img.pixels.data());
        EXPECT_EQ(sim::firstPatternMismatch(img.pixels.data(), img.pixels.size(), frame), -1) << name;
        if (i > 0) {
            EXPECT_GT(frame, previous) << name << ": frames out of order";
        }
        previous = frame;
    }
    EXPECT_NE(r.out.find("3 frames in "), std::string::npos) << r.out;
}

TEST_F(SimRunner, StreamsFingerprintImagesByDefault) {
    Result r = sim({"--model", "10", "--", ZTUVC_TOOL, "capture", "-o", path("fp.pgm")});
    ASSERT_EQ(r.exitCode, 0) << describe(r);
    EXPECT_NE(r.err.find("ztuvc-sim: 1 simulated Tessary 10 Fingerprint Reader (640 x 480"), std::string::npos)
        << r.err;
    tooltest::Image img = tooltest::readPgm(path("fp.pgm"));
    ASSERT_TRUE(img.error.empty()) << img.error;
    ASSERT_EQ(img.width, 640u);
    ASSERT_EQ(img.height, 480u);
    // Whichever frame it was, every byte is the simulator's fingerprint image
    // of that frame number.
    const sim::ModelInfo& mi = sim::modelInfo(sim::Model::T10);
    long found = -1;
    for (uint32_t f = 0; f < 2000 && found < 0; ++f) {
        bool same = true;
        for (size_t o = 0; o < img.pixels.size() && same; ++o)
            same = img.pixels[o] == sim::fingerprintByte(mi, f, uint32_t(o));
        if (same) found = f;
    }
    EXPECT_GE(found, 0) << "the image is no fingerprint frame of the simulator";
}

TEST_F(SimRunner, SeveralReadersOfAModel) {
    Result r = sim({"-q", "--readers", "3", "--model", "20", "--", ZTUVC_TOOL, "list", "--json"});
    ASSERT_EQ(r.exitCode, 0) << describe(r);
    EXPECT_EQ(tooltest::countLinesStartingWith(r.out, "  {\"index\": "), 3) << r.out;
    size_t n = 0;
    for (size_t at = r.out.find("\"product_id\": \"000c\""); at != std::string::npos;
         at = r.out.find("\"product_id\": \"000c\"", at + 1))
        ++n;
    EXPECT_EQ(n, 3u) << r.out;

    Result none = sim({"-q", "--readers", "0", "--", ZTUVC_TOOL, "list"});
    EXPECT_EQ(none.exitCode, 3) << describe(none);
}

TEST_F(SimRunner, ForwardsTheCommandsExitStatus) {
    EXPECT_EQ(sim({"-q", "--", "/bin/sh", "-c", "exit 7"}).exitCode, 7);
    EXPECT_EQ(sim({"-q", "/bin/sh", "-c", "exit 0"}).exitCode, 0);
    EXPECT_EQ(sim({"-q", "--", "/bin/sh", "-c", "kill -TERM $$"}).exitCode, 128 + SIGTERM);
    // The command sees the simulated sysfs.
    Result ls = sim({"-q", "--", "/bin/sh", "-c", "cat /sys/bus/usb/devices/1-1/idVendor"});
    EXPECT_EQ(ls.exitCode, 0) << describe(ls);
    EXPECT_EQ(ls.out, "3a5c\n");
}

TEST_F(SimRunner, PassesSignalsToTheCommand) {
    const std::string ready = path("ready");
    tooltest::Child child({ZTUVC_SIM, "-q", "--", "/bin/sh", "-c",
                           "trap 'exit 9' TERM; touch " + ready + "; while :; do sleep 0.05; done"},
                          dir_);
    ASSERT_TRUE(child.running());
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!tooltest::fileExists(ready) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_TRUE(tooltest::fileExists(ready));
    child.signal(SIGTERM);
    Result r = child.wait(std::chrono::seconds(60));
    EXPECT_FALSE(r.timedOut);
    // The command's own handler ran and its exit status came back.
    EXPECT_EQ(r.exitCode, 9) << describe(r);
}

TEST_F(SimRunner, BadArgumentsAreExitTwo) {
    struct Case {
        std::vector<std::string> args;
        int code;
        std::string message;
    };
    const std::vector<Case> cases = {
        {{"--model", "99", "--", "true"}, 2, "unknown model '99'"},
        {{"--model"}, 2, "option '--model' needs a value"},
        {{"--readers", "9", "--", "true"}, 2, "at most 8"},
        {{"--readers", "x", "--", "true"}, 2, "bad number 'x'"},
        {{"--frobnicate", "--", "true"}, 2, "unknown option '--frobnicate'"},
        {{"--"}, 2, "no command given"},
        {{"-q", "--", "/nonexistent/command"}, 127, "cannot run '/nonexistent/command'"},
    };
    for (const Case& c : cases) {
        Result r = sim(c.args);
        EXPECT_EQ(r.exitCode, c.code) << c.args[0] << ": " << describe(r);
        EXPECT_NE(r.err.find(c.message), std::string::npos) << c.args[0] << ": " << r.err;
    }
    Result h = sim({"--help"});
    EXPECT_EQ(h.exitCode, 0);
    EXPECT_EQ(h.out.rfind("Usage: ztuvc-sim", 0), 0u) << h.out;
}

}  // namespace
