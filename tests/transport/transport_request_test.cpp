// The request engine against a usbfs stand-in in this binary (it defines
// ioctl()): each case decides when URBs complete and with how many bytes.  It
// reaches what the simulated reader cannot: bulk URBs, late completions,
// another thread's reap, a kernel that keeps a discarded URB.
#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <sys/eventfd.h>
#include <thread>

#include "../usbfs_standin.h"
#include "lnx/transport/usbtr.h"

namespace {

struct Kernel {
    std::mutex m;
    std::condition_variable cv;
    std::deque<usbdevfs_urb *> inflight, completed;
    std::vector<std::pair<unsigned long, void *>> calls; // the URB submitted, discarded or handed out
    std::vector<int> lengths;                            // of each submission's buffer
    std::vector<int> answers; // per submission: bytes the device claims (-1: stays in flight); then: all
    uint32_t offset = 0;      // stream position of the next byte the device sends
    bool discardKeepsInFlight = false;
    std::map<unsigned long, int> failNext; // request -> errno of its next call
} *gK;
int gFd = 0x5A5A; // not a descriptor of this process (one case points it at an eventfd)

uint8_t Pattern(uint32_t i)
{
    return uint8_t((i * 7u) ^ (i >> 8));
}

// Under the lock: the device claims n bytes (at most the buffer's are written).
void CompleteLocked(usbdevfs_urb *u, int n)
{
    for (int i = 0; i < std::min(n, u->buffer_length); i++)
        static_cast<uint8_t *>(u->buffer)[i] = Pattern(gK->offset++);
    u->actual_length = n, u->status = 0;
    gK->completed.push_back(u);
    gK->cv.notify_all();
}

void CompleteFirstInFlight(int n)
{
    std::lock_guard<std::mutex> l(gK->m);
    ASSERT_FALSE(gK->inflight.empty());
    CompleteLocked(gK->inflight.front(), n);
    gK->inflight.pop_front();
}

std::vector<void *> Calls(unsigned long request)
{
    std::lock_guard<std::mutex> l(gK->m);
    std::vector<void *> out;
    for (const auto &[r, urb] : gK->calls)
        if (r == request)
            out.push_back(urb);
    return out;
}

bool WaitFor(const std::function<bool()> &done)
{
    std::unique_lock<std::mutex> l(gK->m);
    return gK->cv.wait_for(l, std::chrono::seconds(5), done);
}

int Handle(unsigned long request, void *arg)
{
    Kernel &k = *gK;
    std::lock_guard<std::mutex> l(k.m);
    auto *u = static_cast<usbdevfs_urb *>(arg);
    k.calls.push_back({request, request == USBDEVFS_REAPURBNDELAY ? nullptr : arg});
    k.cv.notify_all();
    if (int err = std::exchange(k.failNext[request], 0))
        return errno = err, -1;
    if (request == USBDEVFS_SUBMITURB) {
        const size_t n = k.lengths.size();
        k.lengths.push_back(u->buffer_length);
        if (n < k.answers.size() && k.answers[n] < 0)
            k.inflight.push_back(u);
        else
            CompleteLocked(u, n < k.answers.size() ? k.answers[n] : u->buffer_length);
    } else if (request == USBDEVFS_DISCARDURB) {
        auto it = std::find(k.inflight.begin(), k.inflight.end(), u);
        if (it == k.inflight.end())
            return errno = EINVAL, -1; // already completed
        if (!k.discardKeepsInFlight)
            k.inflight.erase(it), u->status = -ENOENT, u->actual_length = 0, k.completed.push_back(u);
    } else if (request == USBDEVFS_REAPURBNDELAY) {
        if (k.completed.empty())
            return errno = EAGAIN, -1;
        k.calls.back().second = *static_cast<void **>(arg) = k.completed.front();
        k.completed.pop_front();
    }
    return 0;
}

} // namespace

ZTUVC_USBFS_STANDIN(gFd, Handle)

namespace {

// An open-looking context on the stand-in with bulk, interrupt and iso IN endpoints.
class Request : public ::testing::Test {
protected:
    void SetUp() override
    {
        gK = &kernel_;
        ctx_->dwMagic = USBTR_CTX_MAGIC, ctx_->fdDevice = gFd;
        ctx_->iBulkReadEP = 0x83, ctx_->iIntReadEP = 0x82, ctx_->iIsoReadEP = 0x81;
        pthread_mutex_init(&ctx_->aIntReadLock, nullptr);
        pthread_mutex_init(&ctx_->aSyncSlotLock, nullptr);
    }
    uint32_t slots(uint32_t state)
    {
        uint32_t n = 0;
        for (const USBTR_SYNC_SLOT &s : ctx_->aSyncSlots)
            n += s.dwBusy == state;
        return n;
    }
    Kernel kernel_;
    std::unique_ptr<USBTR_CONTEXT> ctx_ = std::make_unique<USBTR_CONTEXT>();
    uint64_t actual_ = 99;
};

TEST_F(Request, BulkReadsArePiecedReassembledAndNeverOverrun)
{
    std::vector<uint8_t> buf(40016, 0xEE);
    ASSERT_EQ(USBTRBulkRead(ctx_.get(), buf.data(), 40000, &actual_, 1000), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(actual_, 40000u);
    EXPECT_EQ(kernel_.lengths, (std::vector<int>{16384, 16384, 7232}));
    for (void *urb : Calls(USBDEVFS_SUBMITURB)) {
        auto *u = static_cast<usbdevfs_urb *>(urb);
        EXPECT_TRUE(u->type == USBDEVFS_URB_TYPE_BULK && u->endpoint == 0x83);
        EXPECT_TRUE(u->buffer >= (void *)ctx_.get() && u->buffer < (void *)(ctx_.get() + 1)) << "into the context";
    }
    for (uint32_t i = 0; i < buf.size(); i++)
        ASSERT_EQ(buf[i], i < 40000 ? Pattern(i) : 0xEE) << "byte " << i;

    // A short piece ends the read; a device claiming more than the piece gets only the piece.
    kernel_.calls.clear(), kernel_.lengths.clear(), kernel_.offset = 0, kernel_.answers = {16384, 100};
    ASSERT_EQ(USBTRBulkRead(ctx_.get(), buf.data(), 40000, &actual_, 1000), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(actual_, 16484u);
    EXPECT_EQ(Calls(USBDEVFS_SUBMITURB).size(), 2u);
    kernel_.calls.clear(), kernel_.lengths.clear(), kernel_.answers = {5000};
    buf.assign(buf.size(), 0xEE);
    ASSERT_EQ(USBTRBulkRead(ctx_.get(), buf.data(), 32, &actual_, 1000), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(actual_, 32u);
    EXPECT_EQ(buf[32], 0xEE);
    EXPECT_EQ(slots(0), USBTR_SYNC_SLOT_COUNT);
}

TEST_F(Request, TimeoutsDiscardAndCollectAndOrphanedSlotsWaitForTheirReap)
{
    std::vector<uint8_t> buf(64, 0xEE);
    kernel_.failNext[USBDEVFS_SUBMITURB] = EPIPE; // refused at once, the slot stays free
    EXPECT_EQ(USBTRBulkRead(ctx_.get(), buf.data(), 64, &actual_, 5), USBTR_STATUS_COMM_ERROR);
    kernel_.answers = {-1};
    EXPECT_EQ(USBTRBulkRead(ctx_.get(), buf.data(), 64, &actual_, 5), USBTR_STATUS_TIMEOUT);
    EXPECT_EQ(actual_, 0u);
    ASSERT_EQ(Calls(USBDEVFS_DISCARDURB).size(), 1u);
    EXPECT_EQ(Calls(USBDEVFS_DISCARDURB)[0], Calls(USBDEVFS_SUBMITURB)[0]);
    EXPECT_TRUE(kernel_.inflight.empty() && kernel_.completed.empty()) << "the discarded URB was collected";
    EXPECT_EQ(slots(0), USBTR_SYNC_SLOT_COUNT);

    // A kernel that keeps discarded URBs: each call gives up on its slot after a while.
    kernel_.calls.clear(), kernel_.lengths.clear(), kernel_.answers = {-1, -1, -1, -1};
    kernel_.discardKeepsInFlight = true;
    for (uint32_t i = 0; i < USBTR_SYNC_SLOT_COUNT; i++)
        EXPECT_EQ(USBTRBulkRead(ctx_.get(), buf.data(), 64, &actual_, 5), USBTR_STATUS_TIMEOUT);
    EXPECT_EQ(slots(2), USBTR_SYNC_SLOT_COUNT);
    EXPECT_EQ(USBTRBulkRead(ctx_.get(), buf.data(), 64, &actual_, 5), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(Calls(USBDEVFS_SUBMITURB).size(), 4u) << "no slot, no submission";
    kernel_.discardKeepsInFlight = false;
    for (uint32_t i = 0; i < USBTR_SYNC_SLOT_COUNT; i++)
        CompleteFirstInFlight(64);
    EXPECT_EQ(buf, std::vector<uint8_t>(64, 0xEE)) << "a returned call's buffer was written";
    ASSERT_EQ(USBTRBulkRead(ctx_.get(), buf.data(), 64, &actual_, 1000), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(slots(0), USBTR_SYNC_SLOT_COUNT) << "the reap collected the orphans";
    EXPECT_TRUE(kernel_.completed.empty());
}

TEST_F(Request, AReapByAnotherThreadAndAWaitWithoutEnd)
{
    USBTR_REQUEST x, y;
    uint8_t bx[8], by[8];
    kernel_.answers = {-1, -1};
    USBTRPrepareRequest(ctx_.get(), &x, 0x83, 0x80, USB_TRANSFER_TYPE_BULK, bx, sizeof(bx));
    USBTRPrepareRequest(ctx_.get(), &y, 0x83, 0x80, USB_TRANSFER_TYPE_BULK, by, sizeof(by));
    ASSERT_EQ(USBTRSubmitRequest(ctx_.get(), &x), USBTR_STATUS_SUCCESS);
    ASSERT_EQ(USBTRSubmitRequest(ctx_.get(), &y), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBTRRequestMark(&x), nullptr) << "in flight: no mark";
    // B waits for y without end; x completes first, so B's reap hands out x and marks it.
    std::atomic<int32_t> statusB{-1};
    std::thread b([&] { statusB = USBTRPollReapThisRequest(ctx_.get(), &y, USBTR_TIMEOUT_INFINITE); });
    CompleteFirstInFlight(8);
    const std::pair<unsigned long, void *> reapOfX = {USBDEVFS_REAPURBNDELAY, &x};
    ASSERT_TRUE(WaitFor([&] { return std::count(kernel_.calls.begin(), kernel_.calls.end(), reapOfX) == 1; }));
    EXPECT_EQ(USBTRPollReapThisRequest(ctx_.get(), &x, 100), USBTR_STATUS_SUCCESS) << "found done, not reaped";
    EXPECT_EQ(USBTRRequestMark(&x), &x);
    EXPECT_EQ(statusB.load(), -1) << "B still waits for y";
    CompleteFirstInFlight(8);
    b.join();
    EXPECT_EQ(statusB.load(), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(y.actual_length, 8);

    EXPECT_EQ(USBTRDiscardRequest(ctx_.get(), &y), USBTR_STATUS_SUCCESS) << "discard of a completed one";
    kernel_.failNext[USBDEVFS_DISCARDURB] = EIO;
    EXPECT_EQ(USBTRDiscardRequest(ctx_.get(), &y), USBTR_STATUS_COMM_ERROR);
}

// A descriptor poll() can tell about but that never signals, as when another
// thread reaped the completion: a waiter asleep in poll() still sees its mark
// (with an infinite time-out, a wait bounded only by the signal never ends),
// first in bounded sleeps, then, with the wake-up descriptor of an opened
// context, in one sleep without end that only the reaper's wake-up ends.
TEST_F(Request, AWaiterInPollSeesAMarkSetByAnotherThread)
{
    const int efd = eventfd(0, EFD_CLOEXEC);
    const uint64_t full = 0xfffffffffffffffeULL; // an eventfd at this count is never writable
    ASSERT_EQ(write(efd, &full, sizeof(full)), ssize_t(sizeof(full)));
    gFd = ctx_->fdDevice = efd;
    kernel_.answers = {-1, -1};
    for (const bool bWake : {false, true}) {
        if (bWake) {
            USBTROpenWake(ctx_.get());
            std::lock_guard<std::mutex> l(kernel_.m);
            kernel_.calls.clear();
        }
        USBTR_REQUEST req;
        uint8_t data[8];
        USBTRPrepareRequest(ctx_.get(), &req, 0x83, 0x80, USB_TRANSFER_TYPE_BULK, data, sizeof(data));
        EXPECT_EQ(USBTRSubmitRequest(ctx_.get(), &req), USBTR_STATUS_SUCCESS);
        std::thread other([&] {
            WaitFor([&] {
                return std::any_of(kernel_.calls.begin(), kernel_.calls.end(),
                                   [](const auto &c) { return c.first == USBDEVFS_REAPURBNDELAY; });
            });
            CompleteFirstInFlight(8);
            USBTRTryReapThisRequest(ctx_.get(), nullptr); // reaps and marks it
        });
        EXPECT_EQ(USBTRPollReapThisRequest(ctx_.get(), &req, USBTR_TIMEOUT_INFINITE), USBTR_STATUS_SUCCESS);
        other.join();
    }
    USBTRCloseWake(ctx_.get());
    gFd = 0x5A5A;
    close(efd);
}

TEST_F(Request, InterruptReadsCancelShortAndWithoutEndpoint)
{
    kernel_.answers = {-1, 31};
    std::vector<uint8_t> buf(32);
    std::atomic<int32_t> status{-1};
    std::thread reader([&] { status = USBTRInterruptRead(ctx_.get(), buf.data(), buf.size()); });
    // Polling for it: the request is published by then (a cancel before that is lost).
    ASSERT_TRUE(WaitFor([&] { return !kernel_.calls.empty() && kernel_.calls.back().first == USBDEVFS_REAPURBNDELAY; }));
    auto *u = static_cast<usbdevfs_urb *>(Calls(USBDEVFS_SUBMITURB)[0]);
    EXPECT_EQ(u->type, USBDEVFS_URB_TYPE_INTERRUPT);
    EXPECT_EQ(u->endpoint, 0x82);
    EXPECT_EQ(USBTRCancel(ctx_.get(), 0x3), USBTR_STATUS_SUCCESS) << "other flags leave it alone";
    EXPECT_EQ(Calls(USBDEVFS_DISCARDURB).size(), 0u);
    EXPECT_EQ(USBTRCancel(ctx_.get(), USBTR_CANCEL_INT_READ), USBTR_STATUS_SUCCESS);
    reader.join();
    EXPECT_EQ(status.load(), USBTR_STATUS_PARTIAL_TRANSFER);
    ASSERT_EQ(Calls(USBDEVFS_DISCARDURB).size(), 1u);
    EXPECT_EQ(Calls(USBDEVFS_DISCARDURB)[0], u);
    EXPECT_EQ(ctx_->pIntReadRequest, nullptr) << "the published request is withdrawn";
    EXPECT_EQ(USBTRCancel(ctx_.get(), USBTR_CANCEL_INT_READ), USBTR_STATUS_SUCCESS) << "nothing in flight";
    EXPECT_EQ(Calls(USBDEVFS_DISCARDURB).size(), 1u);
    EXPECT_EQ(USBTRInterruptRead(ctx_.get(), buf.data(), buf.size()), USBTR_STATUS_PARTIAL_TRANSFER) << "one short";
    EXPECT_EQ(USBTRInterruptRead(ctx_.get(), buf.data(), buf.size()), USBTR_STATUS_SUCCESS);
    ctx_->iBulkReadEP = ctx_->iIntReadEP = 0;
    EXPECT_EQ(USBTRBulkRead(ctx_.get(), buf.data(), 8, &actual_, 100), USBTR_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(USBTRInterruptRead(ctx_.get(), buf.data(), 8), USBTR_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(Calls(USBDEVFS_SUBMITURB).size(), 3u);
}

} // namespace
