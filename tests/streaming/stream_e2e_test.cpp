// The stream end to end: the library's transport and streaming internals
// against the simulated readers (virtual time: the reader's requests complete
// only from the packets a test queues).
#include <cstring>
#include <gtest/gtest.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <set>
#include <string>
#include <thread>

#include "lnx/platform/fpplat.h"
#include "lnx/transport/usbtr.h"
#include "simtest.h"

namespace {

using sim::Model;
using Ms = std::chrono::milliseconds;

struct Got {
    int32_t iStatus = -1;
    uint8_t *pFrame = nullptr;
};

class Stream : public sim::SimTest, public ::testing::WithParamInterface<Model> {
protected:
    Stream() : sim::SimTest(90) {}

    void SetUp() override
    {
        sim::SimTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        reader_ = &addReader(GetParam());
        ASSERT_EQ(USBTRInit(&hLib_, 0), USBTR_STATUS_SUCCESS);
        ASSERT_EQ(USBTROpen(hLib_, nullptr, 0, &ctx_), USBTR_STATUS_SUCCESS);
        ASSERT_NE(ctx_, nullptr);
        threads0_ = sim::threadCount();
    }

    void TearDown() override
    {
        if (ctx_ != nullptr) {
            EXPECT_EQ(USBTRClose(ctx_), USBTR_STATUS_SUCCESS);
        }
        ctx_ = nullptr;
        if (hLib_ != nullptr)
            USBTRDone(hLib_);
        sim::SimTest::TearDown();
    }

    sim::Reader &r() { return *reader_; }
    uint32_t imageSize() const { return reader_->info().imageSize(); }

    Got Get(uint32_t dwTimeout)
    {
        Got g;
        void *p = reinterpret_cast<void *>(0x1);
        g.iStatus = USBVDGetFrame(ctx_, dwTimeout, &p);
        g.pFrame = static_cast<uint8_t *>(p);
        if (g.iStatus != USBTR_STATUS_SUCCESS) {
            EXPECT_EQ(p, nullptr) << "a failed get must clear the frame pointer";
        }
        return g;
    }

    // Takes the next frame, checks it is frame `nExpected` of the pattern,
    // byte for byte, with a sound trailer; releases it unless told to keep it.
    uint8_t *ExpectFrame(uint32_t nExpected, bool bRelease = true)
    {
        Got g = Get(10000);
        EXPECT_EQ(g.iStatus, USBTR_STATUS_SUCCESS) << "waiting for frame " << nExpected;
        if (g.iStatus != USBTR_STATUS_SUCCESS)
            return nullptr;
        EXPECT_EQ(sim::frameNumberOf(g.pFrame), nExpected);
        EXPECT_EQ(sim::firstPatternMismatch(g.pFrame, imageSize(), nExpected), -1)
            << "frame " << nExpected << " differs";
        USBVD_TIME_STAMP aStamp;
        memcpy(&aStamp, g.pFrame + imageSize(), sizeof(aStamp));
        EXPECT_EQ(std::string(aStamp.dwTMSignature, 4), "TmSt");
        EXPECT_LE(aStamp.dwTMFrameStart, aStamp.dwTMFrameReturned);
        EXPECT_LE(aStamp.dwTMFrameReturned, FPPltGetTime() - gdwTimeStampBase);
        if (bRelease) {
            EXPECT_EQ(USBVDReleaseFrame(ctx_, g.pFrame), USBTR_STATUS_SUCCESS);
            return nullptr;
        }
        return g.pFrame;
    }

    void ExpectNoFrame(uint32_t dwTimeout = 300)
    {
        Got g = Get(dwTimeout);
        EXPECT_EQ(g.iStatus, USBTR_STATUS_TIMEOUT);
        if (g.pFrame != nullptr && g.iStatus == USBTR_STATUS_SUCCESS)
            ADD_FAILURE() << "unexpected frame " << sim::frameNumberOf(g.pFrame);
    }

    uint64_t ReadyCount()
    {
        pthread_mutex_lock(&ctx_->aGrabLock);
        uint64_t n = ctx_->aLilo[USBVD_IMAGE_STATE_READY].nLength;
        pthread_mutex_unlock(&ctx_->aGrabLock);
        return n;
    }

    bool WaitReady(uint64_t n, uint32_t dwTimeout = 5000)
    {
        uint32_t t0 = FPPltGetTime();
        while (ReadyCount() < n) {
            if (FPPltGetTime() - t0 > dwTimeout)
                return false;
            FPPltSleep(2);
        }
        return true;
    }

    // Queues frames and ends the request that carries their tail.
    uint32_t Queue(unsigned n)
    {
        uint32_t first = r().queueFrames(n);
        r().queueUrbBreak();
        return first;
    }

    // Starts with one frame queued so that the first payload arrives;
    // returns that frame's number.
    uint32_t StartStreaming(uint32_t nSlots = 0)
    {
        uint32_t nFirst = r().queueFrames(1);
        EXPECT_EQ(USBVDStartTransfer(ctx_, nSlots), USBTR_STATUS_SUCCESS);
        EXPECT_EQ(USBVDGrabState(ctx_), (uint32_t)USBVD_GRAB_STATE_RUNNING);
        return nFirst;
    }

    // Lets the grab thread finish the requests it has reaped.
    void Settle(uint64_t nFrames)
    {
        ASSERT_TRUE(r().waitFramesReaped(nFrames));
        FPPltSleep(100);
    }

    bool NodeStillOpen() const
    {
        for (const std::string &s : sim::openFds())
            if (s.find("bus/usb/") != std::string::npos)
                return true;
        return false;
    }

    // Threads of the process with the reader open and idle.
    size_t threadsIdle() const { return threads0_; }

    sim::Reader *reader_ = nullptr;
    size_t threads0_ = 0;
    void *hLib_ = nullptr;
    USBTR_CONTEXT *ctx_ = nullptr;
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

TEST_P(Stream, CommitRequestRingAndAlternateSettings)
{
    StartStreaming();
    auto commits = r().commits();
    ASSERT_EQ(commits.size(), 1u);
    EXPECT_EQ(commits[0], sim::expectedCommit(GetParam()));
    bool bSeen = false;
    for (const sim::IoctlRecord &rec : r().controlTransfers()) {
        if (rec.bRequestType == 0x21 && rec.bRequest == 0x01 && rec.wValue == 0x0200) {
            bSeen = true;
            EXPECT_EQ(rec.wIndex, 1);
            EXPECT_EQ(rec.wLength, 26);
            EXPECT_EQ(rec.timeout, 1000u);
        }
    }
    EXPECT_TRUE(bSeen);
    EXPECT_EQ(r().currentAltSetting(1), INTERFACE_NO_ACTIVE);

    // Keep the ring turning for more than one round.
    Queue(3);
    ExpectFrame(0);
    ExpectFrame(1);
    ExpectFrame(2);
    ASSERT_EQ(USBVDStopTransfer(ctx_, 1), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(r().currentAltSetting(1), 0);
    EXPECT_EQ(USBVDGrabState(ctx_), (uint32_t)USBVD_GRAB_STATE_NOT_STARTED);
    EXPECT_EQ(ctx_->dwGrabStatus, (uint32_t)USBTR_STATUS_STOPPED);
    EXPECT_EQ(r().isoUrbsInFlight(), 0u) << "every request discarded";
    EXPECT_EQ(r().urbsCompleted(), 0u) << "every discarded request collected";

    // The ring: 16 ISO requests of 8 x 3072 bytes, resubmitted in ring order.
    auto submits = r().ioctls(USBDEVFS_SUBMITURB);
    ASSERT_GT(submits.size(), 32u);
    std::set<uint64_t> addresses;
    for (size_t i = 0; i < submits.size(); i++) {
        const sim::IoctlRecord &s = submits[i];
        EXPECT_EQ(s.urbType, USBDEVFS_URB_TYPE_ISO);
        EXPECT_EQ(s.endpoint, sim::kIsoEndpoint);
        EXPECT_EQ(s.urbFlags, (unsigned)USBDEVFS_URB_ISO_ASAP);
        EXPECT_EQ(s.bufferLength, 24576);
        EXPECT_EQ(s.numberOfPackets, 8);
        addresses.insert(s.urbAddress);
        if (i >= 16) {
            EXPECT_EQ(s.urbAddress, submits[i - 16].urbAddress) << "submission " << i;
        }
    }
    EXPECT_EQ(addresses.size(), 16u);

    // A new interval reaches the reader at the next start.
    ASSERT_EQ(USBVDSetFrameInterval(ctx_, 100), USBTR_STATUS_SUCCESS);
    StartStreaming();
    commits = r().commits();
    ASSERT_EQ(commits.size(), 2u);
    EXPECT_EQ(commits[1], sim::expectedCommit(GetParam(), 1000000));
    const uint8_t aInterval[4] = {0x40, 0x42, 0x0F, 0x00};
    EXPECT_EQ(memcmp(commits[1].data() + 4, aInterval, 4), 0);
    EXPECT_EQ(r().currentAltSetting(1), INTERFACE_NO_ACTIVE);
    ASSERT_EQ(USBVDStopTransfer(ctx_, 0), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(r().currentAltSetting(1), 0);
    EXPECT_EQ(USBVDStopTransfer(ctx_, 0), USBTR_STATUS_SUCCESS) << "a second stop is harmless";
}

TEST_P(Stream, FramesAreDeliveredWholeInOrderAtTheNextBoundary)
{
    StartStreaming();
    Queue(3); // frames 1..3
    for (uint32_t n = 0; n < 3; n++)
        ExpectFrame(n);
    // Frame 3 is complete but its end shows only with frame 4's first packet.
    ExpectNoFrame();
    r().queueFrames(1, sim::FrameOptions{0, 1000, true}); // 4, in small packets
    r().queueUrbBreak();
    ExpectFrame(3);
    ExpectNoFrame();
    Queue(1);
    ExpectFrame(4);
}

TEST_P(Stream, JoinedShortAndLongFramesAreSkipped)
{
    // The stream is joined in the middle of a frame.
    r().queueFrame(-(int)(imageSize() / 2)); // 0
    ASSERT_EQ(USBVDStartTransfer(ctx_, 0), USBTR_STATUS_SUCCESS);
    r().queueFrames(1);      // 1: good
    r().queueFrame(-1);      // 2: one byte short
    r().queueFrame(+1);      // 3: one byte long
    r().queueFrame(+7000);   // 4: cut over several packets
    r().queueFrame(-3060);   // 5: one packet short
    r().queueFrames(2);      // 6, 7: good
    r().queueFrames(1);      // 8: ends 7
    r().queueUrbBreak();
    ExpectFrame(1);
    ExpectFrame(6);
    ExpectFrame(7);
    ExpectNoFrame();
}

// Raw packets: a frame built here from the reader's pattern, with packets
// that carry nothing (0..11 bytes) or only a header mixed in.
TEST_P(Stream, HeaderOnlyPacketsMarkBoundariesAndTinyPacketsAreIgnored)
{
    StartStreaming(); // frame 0, FID 0
    const uint32_t nFrame = 1000;
    const uint32_t nSize = imageSize();
    uint32_t nOffset = 0;
    unsigned nPacket = 0;
    while (nOffset < nSize) {
        uint32_t n = std::min<uint32_t>(sim::kMaxPayloadPerPacket - (nPacket % 7) * 100, nSize - nOffset);
        auto aHeader = sim::payloadHeader(true, nOffset + n == nSize);
        std::vector<uint8_t> aPacket(aHeader.begin(), aHeader.end());
        for (uint32_t i = 0; i < n; i++)
            aPacket.push_back(sim::pixel(nFrame, nOffset + i));
        r().queueRawPacket(aPacket);
        nOffset += n;
        switch (nPacket++ % 5) {
        case 1: r().queueRawPacket(std::vector<uint8_t>(1 + nPacket % 11, 0x5A)); break; // 1..11 bytes
        case 2: r().queueRawPacket({}); break;
        case 3: { // a header of the same frame: no bytes, no boundary
            auto h = sim::payloadHeader(true, false);
            r().queueRawPacket(std::vector<uint8_t>(h.begin(), h.end()));
            break;
        }
        default: break;
        }
    }
    r().queueUrbBreak();
    ExpectFrame(0); // ended by the first raw packet's FID
    ExpectNoFrame();

    auto h = sim::payloadHeader(false, false); // FID flips: the raw frame ends
    r().queueRawPacket(std::vector<uint8_t>(h.begin(), h.end()));
    r().queueUrbBreak();
    ExpectFrame(nFrame);
    ExpectNoFrame();
}

TEST_P(Stream, AllSlotsHeldStopsDeliveryUntilOneIsReleased)
{
    StartStreaming(0); // 0 slots means 4
    EXPECT_EQ(ctx_->nFrameCount, 4u);
    Queue(5); // 1..5: 0..3 fill the slots, 4 finds none
    uint8_t *aHeld[4];
    for (uint32_t n = 0; n < 4; n++) {
        aHeld[n] = ExpectFrame(n, false);
        ASSERT_NE(aHeld[n], nullptr);
    }
    Queue(2); // 6, 7: the reader keeps sending
    ASSERT_TRUE(r().waitFramesReaped(8));
    ExpectNoFrame();
    // The held frames were not overwritten meanwhile.
    for (uint32_t n = 0; n < 4; n++)
        EXPECT_EQ(sim::firstPatternMismatch(aHeld[n], imageSize(), n), -1);

    ASSERT_EQ(USBVDReleaseFrame(ctx_, aHeld[1]), USBTR_STATUS_SUCCESS);
    Queue(3); // 8, 9, 10: the slot comes back at 7's end and takes 8
    ExpectFrame(8);
    ExpectNoFrame();
    for (uint32_t n : {0u, 2u, 3u})
        EXPECT_EQ(USBVDReleaseFrame(ctx_, aHeld[n]), USBTR_STATUS_SUCCESS);
}

TEST_P(Stream, FlushFreesReadyFramesAndDropsTheOneInProgress)
{
    StartStreaming();
    Queue(2); // 1, 2: frames 0 and 1 ready, 2 in its slot
    ASSERT_TRUE(WaitReady(2));
    uint8_t *pHeld = ExpectFrame(0, false);
    ASSERT_NE(pHeld, nullptr);
    ASSERT_EQ(USBVDFlush(ctx_), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(ReadyCount(), 0u);
    Queue(2); // 3 ends 2, which is dropped; 4 ends 3
    ExpectFrame(3);
    ExpectNoFrame();
    // The frame held across the flush is intact and goes back as usual.
    EXPECT_EQ(sim::firstPatternMismatch(pHeld, imageSize(), 0), -1);
    EXPECT_EQ(USBVDReleaseFrame(ctx_, pHeld), USBTR_STATUS_SUCCESS);
}

TEST_P(Stream, SlotCountLimitsAndStartWhileRunning)
{
    EXPECT_EQ(USBVDStartTransfer(ctx_, 5), USBTR_STATUS_NOT_SUPPORTED);
    EXPECT_TRUE(r().commits().empty());
    EXPECT_EQ(sim::threadCount(), threadsIdle());

    StartStreaming(1);
    EXPECT_EQ(ctx_->nFrameCount, 1u);
    EXPECT_EQ(USBVDStartTransfer(ctx_, 5), USBTR_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(USBVDGrabState(ctx_), (uint32_t)USBVD_GRAB_STATE_RUNNING);

    Queue(2); // 0 ready in the only slot; 1 and 2 have none
    Settle(3);
    ASSERT_EQ(ReadyCount(), 1u);
    EXPECT_EQ(USBVDStartTransfer(ctx_, 4), USBTR_STATUS_SUCCESS); // only flushes
    EXPECT_EQ(ReadyCount(), 0u);
    EXPECT_EQ(ctx_->nFrameCount, 1u);
    EXPECT_EQ(r().commits().size(), 1u) << "no second commit while running";
    // 3 ends 2 (never stored) and takes the slot back; 3 is the first frame
    // completed in a slot after the flush and is dropped; 4 comes through.
    Queue(3);
    ExpectFrame(4);
    ExpectNoFrame();
}

TEST_P(Stream, GetStatusesBeforeAfterAndWithoutFrames)
{
    uint32_t t0 = FPPltGetTime();
    EXPECT_EQ(Get(60000).iStatus, USBTR_STATUS_GENERAL_ERROR);
    EXPECT_LT(FPPltGetTime() - t0, 1000u);

    StartStreaming();
    t0 = FPPltGetTime();
    EXPECT_EQ(Get(0).iStatus, USBTR_STATUS_TIMEOUT);
    EXPECT_LT(FPPltGetTime() - t0, 1000u);

    ASSERT_EQ(USBVDStopTransfer(ctx_, 1), USBTR_STATUS_SUCCESS);
    t0 = FPPltGetTime();
    EXPECT_EQ(Get(60000).iStatus, USBTR_STATUS_STOPPED);
    EXPECT_LT(FPPltGetTime() - t0, 1000u);
}

TEST_P(Stream, RequestThatNeverCompletesEndsTheThread)
{
    // Before the first payload: start itself reports the time-out.
    r().hangNextUrbs(1);
    r().queueFrames(1);
    uint32_t t0 = FPPltGetTime();
    EXPECT_EQ(USBVDStartTransfer(ctx_, 0), USBTR_STATUS_TIMEOUT);
    uint32_t dwElapsed = FPPltGetTime() - t0;
    EXPECT_GE(dwElapsed, USBVD_ISO_REAP_TIMEOUT);
    EXPECT_LT(dwElapsed, 20000u);
    EXPECT_EQ(USBVDGrabState(ctx_), (uint32_t)USBVD_GRAB_STATE_NOT_STARTED);
    EXPECT_EQ(sim::threadCount(), threadsIdle());
    EXPECT_EQ(r().isoUrbsInFlight(), 0u);
    EXPECT_EQ(r().currentAltSetting(1), 0);

    // Mid-stream: the thread ends, get reports why, and a new start runs.
    r().clearQueue();
    uint32_t nFirst = StartStreaming();
    Queue(1);
    ExpectFrame(nFirst);
    r().hangNextUrbs(1);
    Queue(20);
    ASSERT_TRUE(r().waitAltSetting(1, 0, Ms(15000)));
    uint32_t dwWait = FPPltGetTime();
    while (USBVDGrabState(ctx_) != USBVD_GRAB_STATE_STOPPED && FPPltGetTime() - dwWait < 10000)
        FPPltSleep(10);
    // Frames completed before the failure are not handed out any more.
    t0 = FPPltGetTime();
    EXPECT_EQ(Get(60000).iStatus, USBTR_STATUS_TIMEOUT);
    EXPECT_LT(FPPltGetTime() - t0, 1000u);
    EXPECT_EQ(r().isoUrbsInFlight(), 0u);
    r().clearQueue();
    nFirst = StartStreaming();
    Queue(1);
    ExpectFrame(nFirst);
}

// Every way the set-up can fail ends the thread with the failure's status,
// leaves nothing in flight and the interface idle; the next start works.
TEST_P(Stream, SetUpFailuresEndTheThreadCleanly)
{
    r().queueFrames(1);

    r().stallControl(sim::ControlMatch::commit());
    EXPECT_EQ(USBVDStartTransfer(ctx_, 0), USBTR_STATUS_COMM_ERROR) << "commit stalled";
    r().shortControl(sim::ControlMatch::commit(), 20);
    EXPECT_EQ(USBVDStartTransfer(ctx_, 0), USBTR_STATUS_PARTIAL_TRANSFER) << "commit short";
    EXPECT_EQ(r().isoUrbsInFlight(), 0u);

    r().failIoctl(USBDEVFS_SETINTERFACE, EPROTO);
    EXPECT_EQ(USBVDStartTransfer(ctx_, 0), USBTR_STATUS_COMM_ERROR) << "alternate setting";
    EXPECT_EQ(r().isoUrbsInFlight(), 0u);

    // The fifth of the sixteen first submissions is refused: the four before
    // it are discarded and collected.
    r().failIoctl(USBDEVFS_SUBMITURB, ENOMEM, sim::When::nth(5));
    EXPECT_EQ(USBVDStartTransfer(ctx_, 0), USBTR_STATUS_COMM_ERROR) << "submission";
    EXPECT_EQ(r().isoUrbsInFlight(), 0u);
    EXPECT_EQ(r().urbsCompleted(), 0u);
    EXPECT_EQ(r().currentAltSetting(1), 0);
    EXPECT_EQ(sim::threadCount(), threadsIdle());
    EXPECT_EQ(USBVDGrabState(ctx_), (uint32_t)USBVD_GRAB_STATE_NOT_STARTED);

    r().clearFaults();
    uint32_t nFirst = StartStreaming();
    Queue(1);
    ExpectFrame(nFirst);
}

TEST_P(Stream, ReaderSendingOnlyEmptyPacketsTimesOutTheStart)
{
    r().queueEmptyUrbs(1000000);
    uint32_t t0 = FPPltGetTime();
    EXPECT_EQ(USBVDStartTransfer(ctx_, 0), USBTR_STATUS_TIMEOUT);
    uint32_t dwElapsed = FPPltGetTime() - t0;
    EXPECT_GE(dwElapsed, USBVD_START_TIMEOUT);
    EXPECT_LT(dwElapsed, 20000u);
    EXPECT_EQ(sim::threadCount(), threadsIdle());
    EXPECT_EQ(r().isoUrbsInFlight(), 0u);
    EXPECT_EQ(r().currentAltSetting(1), 0);
    EXPECT_EQ(Get(0).iStatus, USBTR_STATUS_TIMEOUT); // the thread's status
}

TEST_P(Stream, UnplugMidStream)
{
    StartStreaming();
    Queue(1);
    ExpectFrame(0);
    r().unplug();
    EXPECT_EQ(Get(5000).iStatus, USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(Get(5000).iStatus, USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(USBVDStopTransfer(ctx_, 1), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBVDStartTransfer(ctx_, 0), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(USBTRClose(ctx_), USBTR_STATUS_SUCCESS);
    ctx_ = nullptr;
    EXPECT_EQ(sim::threadCount(), threadsIdle());
    EXPECT_FALSE(NodeStillOpen());
}

TEST_P(Stream, CloseWhileStreamingJoinsTheThread)
{
    StartStreaming();
    r().startPaced(sim::Pace{sim::Pace::AsFastAsPossible, 0});
    for (int i = 0; i < 3; i++) {
        Got g = Get(5000);
        ASSERT_EQ(g.iStatus, USBTR_STATUS_SUCCESS);
        uint32_t n = sim::frameNumberOf(g.pFrame);
        EXPECT_EQ(sim::firstPatternMismatch(g.pFrame, imageSize(), n), -1) << "frame " << n;
        EXPECT_EQ(USBVDReleaseFrame(ctx_, g.pFrame), USBTR_STATUS_SUCCESS);
    }
    EXPECT_EQ(USBTRClose(ctx_), USBTR_STATUS_SUCCESS);
    ctx_ = nullptr;
    r().stopPaced();
    EXPECT_EQ(sim::threadCount(), threadsIdle());
    EXPECT_FALSE(NodeStillOpen());
}

TEST_P(Stream, FormatAndIntervalAfterOpen)
{
    const sim::ModelInfo &mi = r().info();
    USBVD_IMAGE_FORMAT_LIST *pList = nullptr;
    ASSERT_EQ(USBVDListImageFormats(ctx_, &pList), USBTR_STATUS_SUCCESS);
    ASSERT_NE(pList, nullptr);
    ASSERT_EQ(pList->nCount, 1u);
    EXPECT_EQ(memcmp(&pList->aFormats[0].dwFourCC, "YUYV", 4), 0);
    EXPECT_EQ(pList->aFormats[0].dwWidth, mi.width);
    EXPECT_EQ(pList->aFormats[0].dwHeight, mi.height / 2);
    EXPECT_EQ(pList->aFormats[0].dwImageSize, mi.width * mi.height);
    EXPECT_EQ(pList->aFormats[0].dwReserved, 0u);

    const uint32_t dwOwn = mi.frameInterval / 10000;
    uint32_t dwMs = 0;
    ASSERT_EQ(USBVDGetFrameInterval(ctx_, &dwMs), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(dwMs, mi.width == 640 ? 33u : 66u);
    ASSERT_EQ(USBVDSetFrameInterval(ctx_, 10), USBTR_STATUS_SUCCESS);
    ASSERT_EQ(USBVDGetFrameInterval(ctx_, &dwMs), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(dwMs, dwOwn);
    ASSERT_EQ(USBVDSetFrameInterval(ctx_, 100), USBTR_STATUS_SUCCESS);
    ASSERT_EQ(USBVDGetFrameInterval(ctx_, &dwMs), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(dwMs, 100u);
    ASSERT_EQ(USBVDSetFrameInterval(ctx_, 0), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(ctx_->dwFrameInterval, mi.frameInterval);
    // The reader's own interval is committed after that.
    StartStreaming();
    EXPECT_EQ(r().lastCommit(), sim::expectedCommit(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Models, Stream, ::testing::Values(Model::T10, Model::T20, Model::T30, Model::T40),
                         ModelName);

} // namespace
