// Capture through the exported interface on a simulated reader: the result
// codes the application sees, the image wait with its 1.5 s extra, frames
// byte for byte, and close while streaming.
#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include <chrono>

#include "simtest.h"
#include "ztuvc.h"

namespace {

using sim::Model;
using Clock = std::chrono::steady_clock;

long MsSince(Clock::time_point t0)
{
    return (long)std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
}

class CameraCapture : public sim::SimTest, public ::testing::WithParamInterface<Model> {
protected:
    CameraCapture() : sim::SimTest(90) {}

    void SetUp() override
    {
        sim::SimTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        reader_ = &addReader(GetParam());
        camera_init();
        camera_device_enumerate(nullptr, 0);
        ASSERT_EQ(camera_device_count(), 1u);
        h_ = camera_get_by_index(0);
        ASSERT_NE(h_, nullptr);
        ASSERT_EQ(camera_open(h_), 0);
        threads0_ = sim::threadCount();
    }

    void TearDown() override
    {
        if (h_ != nullptr)
            camera_close(h_);
        camera_cleanup();
        sim::SimTest::TearDown();
    }

    void CheckFrame(void *pFrame, uint32_t nExpected)
    {
        ASSERT_NE(pFrame, nullptr);
        const uint32_t nSize = reader_->info().imageSize();
        auto *p = static_cast<const uint8_t *>(pFrame);
        EXPECT_EQ(sim::frameNumberOf(p), nExpected);
        EXPECT_EQ(sim::firstPatternMismatch(p, nSize, nExpected), -1);
        CAMERA_TIME_STAMP aStamp;
        memcpy(&aStamp, p + nSize, sizeof(aStamp));
        EXPECT_EQ(std::string(aStamp.szSignature, 4), "TmSt");
        EXPECT_LE(aStamp.dwFrameStart, aStamp.dwFrameReturned);
    }

    sim::Reader *reader_ = nullptr;
    CAMERA_HANDLE h_ = nullptr;
    size_t threads0_ = 0; // with the camera open and idle
};

std::string ModelName(const ::testing::TestParamInfo<Model> &info)
{
    switch (info.param) {
    case Model::T10: return "T10";
    case Model::T20: return "T20";
    case Model::T30: return "T30";
    case Model::T40: return "T40";
    }
    return "unknown";
}

TEST_P(CameraCapture, ResultCodesAroundAStream)
{
    void *pFrame = reinterpret_cast<void *>(0x1);
    auto t0 = Clock::now();
    EXPECT_EQ(camera_get_image(h_, 10000, &pFrame), CAMERA_ERR_FAILURE) << "before start";
    EXPECT_LT(MsSince(t0), 1000);
    EXPECT_EQ(pFrame, nullptr);

    EXPECT_EQ(camera_start_capture(h_, 5), CAMERA_ERR_FAILURE);
    uint32_t nFirst = reader_->queueFrames(2);
    reader_->queueUrbBreak();
    ASSERT_EQ(camera_start_capture(h_, 0), 0);
    EXPECT_EQ(reader_->currentAltSetting(1), 1);
    ASSERT_EQ(camera_get_image(h_, 1000, &pFrame), 0);
    CheckFrame(pFrame, nFirst);
    EXPECT_EQ(camera_put_image(h_, pFrame), 0);

    // Nothing more comes: the wait lasts the time-out plus 1.5 s.
    t0 = Clock::now();
    pFrame = reinterpret_cast<void *>(0x1);
    EXPECT_EQ(camera_get_image(h_, 0, &pFrame), CAMERA_ERR_TIMEOUT);
    long nElapsed = MsSince(t0);
    EXPECT_GE(nElapsed, 1500);
    EXPECT_LT(nElapsed, 6000);
    EXPECT_EQ(pFrame, nullptr);

    EXPECT_EQ(camera_flush(h_), 0);
    EXPECT_EQ(camera_stop_capture(h_), 0);
    EXPECT_EQ(reader_->currentAltSetting(1), 0);
    t0 = Clock::now();
    EXPECT_EQ(camera_get_image(h_, 10000, &pFrame), CAMERA_ERR_FAILURE) << "after stop";
    EXPECT_LT(MsSince(t0), 1000);
    EXPECT_EQ(camera_stop_capture(h_), 0);
}

TEST_P(CameraCapture, CloseWhileStreamingLeavesNothingBehind)
{
    reader_->queueFrames(1);
    ASSERT_EQ(camera_start_capture(h_, 2), 0);
    reader_->startPaced(sim::Pace{sim::Pace::AsFastAsPossible, 0});
    for (int i = 0; i < 3; i++) {
        void *pFrame = nullptr;
        ASSERT_EQ(camera_get_image(h_, 5000, &pFrame), 0);
        CheckFrame(pFrame, sim::frameNumberOf(static_cast<uint8_t *>(pFrame)));
        EXPECT_EQ(camera_put_image(h_, pFrame), 0);
    }
    camera_close(h_);
    h_ = nullptr;
    reader_->stopPaced();
    EXPECT_EQ(sim::threadCount(), threads0_);
    for (const std::string &s : sim::openFds())
        EXPECT_EQ(s.find("bus/usb/"), std::string::npos) << s;
}

INSTANTIATE_TEST_SUITE_P(Models, CameraCapture,
                         ::testing::Values(Model::T10, Model::T20, Model::T30, Model::T40), ModelName);

} // namespace
