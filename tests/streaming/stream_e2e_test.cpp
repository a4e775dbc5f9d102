// The stream end to end through the transport and streaming internals, so
// that cases can look at the slot queues and the grab state (virtual time:
// the reader's requests complete only from the packets a case queues).
#include <gtest/gtest.h>
#include <linux/usbdevice_fs.h>

#include <set>

#include "lnx/platform/fpplat.h"
#include "lnx/transport/usbtr.h"
#include "simtest.h"

namespace {

using sim::Model;

class Stream : public sim::SimTest, public ::testing::WithParamInterface<Model> {
protected:
    virtual Model model() const { return GetParam(); }
    void SetUp() override {
        sim::SimTest::SetUp();
        r_ = &addReader(model());
        ASSERT_EQ(USBTRInit(&lib_, 0), USBTR_STATUS_SUCCESS);
        ASSERT_EQ(USBTROpen(lib_, nullptr, 0, &ctx_), USBTR_STATUS_SUCCESS);
        idleThreads_ = sim::threadCount();
    }
    void TearDown() override {
        if (ctx_ != nullptr) { EXPECT_EQ(USBTRClose(ctx_), USBTR_STATUS_SUCCESS); }
        if (lib_ != nullptr) USBTRDone(lib_);
        sim::SimTest::TearDown();
    }
    sim::Reader& r() { return *r_; }
    int32_t get(uint32_t timeout, uint8_t** frame) {
        void* p = reinterpret_cast<void*>(0x1);
        int32_t st = USBVDGetFrame(ctx_, timeout, &p);
        *frame = static_cast<uint8_t*>(p);
        if (st != USBTR_STATUS_SUCCESS) { EXPECT_EQ(p, nullptr) << "a failed get clears the frame pointer"; }
        return st;
    }
    // Takes frame `n`, byte for byte with its trailer; gives it back unless kept.
    uint8_t* expectFrame(uint32_t n, bool keep = false) {
        uint8_t* f = nullptr;
        EXPECT_EQ(get(10000, &f), USBTR_STATUS_SUCCESS) << "waiting for frame " << n;
        if (f == nullptr) return nullptr;
        EXPECT_EQ(sim::checkFrame(f, *r_), n);
        if (!keep) { EXPECT_EQ(USBVDReleaseFrame(ctx_, f), USBTR_STATUS_SUCCESS); }
        return keep ? f : nullptr;
    }
    void expectNoFrame() {
        uint8_t* f = nullptr;
        EXPECT_EQ(get(300, &f), USBTR_STATUS_TIMEOUT);
    }
    uint64_t ready() {
        pthread_mutex_lock(&ctx_->aGrabLock);
        uint64_t n = ctx_->aLilo[USBVD_IMAGE_STATE_READY].nLength;
        pthread_mutex_unlock(&ctx_->aGrabLock);
        return n;
    }
    // Waits, bounded, until the grab thread has put `n` frames in the ready queue.
    bool waitReady(uint64_t n) {
        for (uint32_t t0 = FPPltGetTime(); ready() < n; FPPltSleep(2))
            if (FPPltGetTime() - t0 > 5000) return false;
        return true;
    }
    uint32_t queue(unsigned n) {  // n frames, and the request carrying their tail ends
        uint32_t first = r_->queueFrames(n);
        r_->queueUrbBreak();
        return first;
    }
    uint32_t start(uint32_t slots = 0) {  // one frame queued: the first payload arrives
        uint32_t first = r_->queueFrames(1);
        EXPECT_EQ(USBVDStartTransfer(ctx_, slots), USBTR_STATUS_SUCCESS);
        return first;
    }
    // The stream ended cleanly: nothing in flight, interface idle, no thread.
    void expectIdle(const char* where) {
        EXPECT_EQ(r_->isoUrbsInFlight(), 0u) << where;
        EXPECT_EQ(r_->urbsCompleted(), 0u) << where << ": discarded requests collected";
        EXPECT_EQ(r_->currentAltSetting(1), 0) << where;
        EXPECT_EQ(sim::settled(sim::threadCount, idleThreads_), idleThreads_) << where;
    }
    sim::Reader* r_ = nullptr;
    void* lib_ = nullptr;
    USBTR_CONTEXT* ctx_ = nullptr;
    size_t idleThreads_ = 0;
};

// Cases where the geometry does not matter run on the 640 x 480 reader.
class StreamT10 : public Stream {
    Model model() const override { return Model::T10; }
};

TEST_P(Stream, CommitRingAndWholeFramesAtTheNextBoundary)
{
    start();
    EXPECT_EQ(r().commits(), (std::vector{sim::expectedCommit(model())}));
    EXPECT_EQ(r().currentAltSetting(1), 1);
    queue(3);
    for (uint32_t n = 0; n < 3; n++) expectFrame(n);
    expectNoFrame();  // 3 is complete, but its end shows only with 4's first packet
    r().queueFrames(1, sim::FrameOptions{0, 1000, false});  // 4: small packets, no EOF bit
    r().queueUrbBreak();
    expectFrame(3);
    queue(1);
    expectFrame(4);
    ASSERT_EQ(USBVDStopTransfer(ctx_, 1), USBTR_STATUS_SUCCESS);
    expectIdle("stop");
    EXPECT_EQ(USBVDGrabState(ctx_), (uint32_t)USBVD_GRAB_STATE_NOT_STARTED);
    uint8_t* f = nullptr;
    EXPECT_EQ(get(60000, &f), USBTR_STATUS_STOPPED);
    // 16 ISO requests of 8 x 3072 bytes, resubmitted in ring order.
    auto submits = r().ioctls(USBDEVFS_SUBMITURB);
    ASSERT_GT(submits.size(), 32u);
    std::set<uint64_t> ring;
    for (size_t i = 0; i < submits.size(); i++) {
        const auto& s = submits[i];
        EXPECT_EQ(std::make_tuple(s.urbType, s.endpoint, s.urbFlags, s.bufferLength, s.numberOfPackets),
                  std::make_tuple(USBDEVFS_URB_TYPE_ISO, sim::kIsoEndpoint, (unsigned)USBDEVFS_URB_ISO_ASAP, 24576, 8));
        ring.insert(s.urbAddress);
        if (i >= 16) { EXPECT_EQ(s.urbAddress, submits[i - 16].urbAddress) << i; }
    }
    EXPECT_EQ(ring.size(), 16u);
    ASSERT_EQ(USBVDSetFrameInterval(ctx_, 100), USBTR_STATUS_SUCCESS);
    start();
    EXPECT_EQ(r().lastCommit(), sim::expectedCommit(model(), 1000000));  // reaches the reader at the next start
    ASSERT_EQ(USBVDStopTransfer(ctx_, 0), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBVDStopTransfer(ctx_, 0), USBTR_STATUS_SUCCESS) << "a second stop is harmless";
}

TEST_P(Stream, DamagedFramesAreSkippedAndTinyPacketsIgnored)
{
    const uint32_t size = r().info().imageSize();
    r().queueFrame(-int(size / 2));  // 0: joined mid-frame
    ASSERT_EQ(USBVDStartTransfer(ctx_, 0), USBTR_STATUS_SUCCESS);
    r().queueFrames(1);     // 1
    r().queueFrame(-1);     // 2: one byte short
    r().queueFrame(+1);     // 3: one byte long
    r().queueFrame(+7000);  // 4: long over several packets
    r().queueFrame(-3060);  // 5: one packet short
    queue(2);               // 6, 7 (7 ends with the next frame)
    expectFrame(1);
    expectFrame(6);
    // Frame 1000 by hand, with packets of 0..11 bytes and same-FID headers mixed in.
    for (uint32_t off = 0, k = 0; off < size; k++) {
        uint32_t n = std::min<uint32_t>(sim::kMaxPayloadPerPacket - (k % 7) * 100, size - off);
        auto hdr = sim::payloadHeader(false, off + n == size);  // frame 7 had FID 1
        std::vector<uint8_t> p(hdr.begin(), hdr.end());
        for (uint32_t i = 0; i < n; i++) p.push_back(sim::pixel(1000, off + i));
        r().queueRawPacket(p);
        off += n;
        if (k % 3 == 1) r().queueRawPacket(std::vector<uint8_t>(1 + k % 11, 0x5A));
        if (k % 3 == 2) r().queueHeaderOnly(false);
    }
    r().queueUrbBreak();
    expectFrame(7);  // ended by the FID of the first raw packet
    expectNoFrame();
    r().queueHeaderOnly(true);  // FID flips: frame 1000 ends
    r().queueUrbBreak();
    expectFrame(1000);
}

TEST_F(StreamT10, HeldSlotsStopDelivery)
{
    EXPECT_EQ(USBVDStartTransfer(ctx_, 5), USBTR_STATUS_NOT_SUPPORTED);
    EXPECT_TRUE(r().commits().empty());
    start(0);  // 0 slots means 4
    queue(5);  // 0..3 fill the slots, 4 finds none
    uint8_t* held[4];
    for (uint32_t n = 0; n < 4; n++) ASSERT_NE(held[n] = expectFrame(n, true), nullptr);
    queue(2);  // the reader keeps sending
    ASSERT_TRUE(r().waitFramesReaped(8));
    expectNoFrame();
    ASSERT_EQ(USBVDReleaseFrame(ctx_, held[1]), USBTR_STATUS_SUCCESS);
    queue(3);  // the slot comes back at 7's end and takes 8
    expectFrame(8);
    expectNoFrame();
    for (uint32_t n : {0u, 2u, 3u}) {
        EXPECT_EQ(sim::firstPatternMismatch(held[n], r().info().imageSize(), n), -1) << "held frame overwritten";
        EXPECT_EQ(USBVDReleaseFrame(ctx_, held[n]), USBTR_STATUS_SUCCESS);
    }
}

TEST_F(StreamT10, FlushDropsReadyFramesAndTheOneInProgress)
{
    start();
    queue(2);  // 0 and 1 ready, 2 in its slot
    ASSERT_TRUE(waitReady(2));
    uint8_t* held = expectFrame(0, true);
    ASSERT_EQ(USBVDFlush(ctx_), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(ready(), 0u);
    queue(2);  // 3 ends 2, which is dropped; 4 ends 3
    expectFrame(3);
    EXPECT_EQ(USBVDStartTransfer(ctx_, 4), USBTR_STATUS_SUCCESS) << "while running: only flushes";
    EXPECT_EQ(r().commits().size(), 1u);
    queue(2);  // 5 ends 4, which is dropped; 6 ends 5
    expectFrame(5);
    EXPECT_EQ(sim::firstPatternMismatch(held, r().info().imageSize(), 0), -1) << "held across the flush";
    EXPECT_EQ(USBVDReleaseFrame(ctx_, held), USBTR_STATUS_SUCCESS);
}

// Every way the stream can fail ends the thread with the failure's status and
// leaves nothing in flight; the next start works.
TEST_F(StreamT10, FailuresEndTheThreadCleanly)
{
    r().queueFrames(1);
    r().stallControl(sim::ControlMatch::commit());
    EXPECT_EQ(USBVDStartTransfer(ctx_, 0), USBTR_STATUS_COMM_ERROR) << "commit stalled";
    r().shortControl(sim::ControlMatch::commit(), 20);
    EXPECT_EQ(USBVDStartTransfer(ctx_, 0), USBTR_STATUS_PARTIAL_TRANSFER) << "commit short";
    r().failIoctl(USBDEVFS_SETINTERFACE, EPROTO);
    EXPECT_EQ(USBVDStartTransfer(ctx_, 0), USBTR_STATUS_COMM_ERROR) << "alternate setting";
    r().failIoctl(USBDEVFS_SUBMITURB, ENOMEM, sim::When::nth(5));  // the four before it are discarded
    EXPECT_EQ(USBVDStartTransfer(ctx_, 0), USBTR_STATUS_COMM_ERROR) << "submission";
    expectIdle("set-up failures");
    r().hangNextUrbs(1);  // before the first payload: the start reports the time-out
    EXPECT_EQ(USBVDStartTransfer(ctx_, 0), USBTR_STATUS_TIMEOUT);
    expectIdle("hung request");
    r().clearQueue();
    r().queueEmptyUrbs(1000000);
    EXPECT_EQ(USBVDStartTransfer(ctx_, 0), USBTR_STATUS_TIMEOUT) << "only empty packets";
    expectIdle("empty packets");
    r().clearQueue();
    // Mid-stream: the thread ends, frames done before are not handed out.
    uint32_t first = start();
    queue(1);
    expectFrame(first);
    r().hangNextUrbs(1);
    queue(20);
    ASSERT_TRUE(r().waitAltSetting(1, 0, std::chrono::milliseconds(15000)));
    uint8_t* f = nullptr;
    for (uint32_t t0 = FPPltGetTime(); USBVDGrabState(ctx_) != USBVD_GRAB_STATE_STOPPED && FPPltGetTime() - t0 < 10000;)
        FPPltSleep(10);
    EXPECT_EQ(get(60000, &f), USBTR_STATUS_TIMEOUT);
    expectIdle("hung mid-stream");
    r().clearQueue();
    first = start();
    queue(1);
    expectFrame(first);
    r().unplug();
    EXPECT_EQ(get(5000, &f), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(USBVDStopTransfer(ctx_, 1), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBVDStartTransfer(ctx_, 0), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(USBTRClose(ctx_), USBTR_STATUS_SUCCESS);
    ctx_ = nullptr;
    EXPECT_EQ(sim::threadCount(), idleThreads_);
    EXPECT_EQ(sim::nodeFdCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Models, Stream, ::testing::Values(Model::T10, Model::T20),
                         [](const auto& i) { return std::string(i.param == Model::T10 ? "T10" : "T20"); });

}  // namespace
