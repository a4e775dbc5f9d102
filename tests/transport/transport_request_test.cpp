// Request engine against an in-process fake of usbfs: this binary defines
// ioctl() itself, so every ioctl the transport makes on the fake descriptor
// lands here, where each test decides when URBs complete and with how many
// bytes.  This reaches what the simulated reader cannot do (bulk URBs,
// late completions, a kernel that keeps a discarded URB) deterministically.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "lnx/platform/fpplat.h"
#include "lnx/transport/usbtr.h"
#include "../usbfs_standin.h"

namespace fake {

int kFd = 0x5A5A; // not a descriptor of this process (one test points it at an eventfd)

struct Call {
    unsigned long request;
    void *urb; // SUBMIT/DISCARD: the URB; REAP: the URB handed out (or null)
    int bufferLength;
    std::thread::id thread;
    int result;
};

// What happens to a URB when it is submitted.
enum class OnSubmit { Complete, StayInFlight };

struct Kernel {
    std::mutex m;
    std::condition_variable cv;
    std::deque<usbdevfs_urb *> inflight, completed;
    std::vector<Call> calls;
    // Per submission (in order), the bytes the device answers; beyond the
    // list: the full buffer.  -1 = stays in flight.
    std::vector<int> answers;
    size_t submitted = 0;
    uint32_t streamOffset = 0; // pattern position of the next byte the device sends
    bool discardKeepsInFlight = false;
    std::map<unsigned long, std::deque<int>> failNext; // request -> errnos for its next calls
    bool reapWithoutUrb = false;

    void reset()
    {
        std::lock_guard<std::mutex> l(m);
        inflight.clear();
        completed.clear();
        calls.clear();
        answers.clear();
        submitted = 0;
        streamOffset = 0;
        discardKeepsInFlight = false;
        failNext.clear();
        reapWithoutUrb = false;
    }
};

Kernel &kernel()
{
    static Kernel k;
    return k;
}

uint8_t pattern(uint32_t offset)
{
    return uint8_t((offset * 7u) ^ (offset >> 8));
}

// Under the lock: the device answers n bytes into the URB and it completes.
void completeLocked(Kernel &k, usbdevfs_urb *u, int n)
{
    if (n > u->buffer_length)
        n = u->buffer_length;
    for (int i = 0; i < n; i++)
        static_cast<uint8_t *>(u->buffer)[i] = pattern(k.streamOffset + uint32_t(i));
    k.streamOffset += uint32_t(n);
    u->actual_length = n;
    u->status = 0;
    k.completed.push_back(u);
    k.cv.notify_all();
}

// Completes the URB still in flight at `index` (order of submission).
void completeInFlight(size_t index, int n)
{
    Kernel &k = kernel();
    std::lock_guard<std::mutex> l(k.m);
    ASSERT_LT(index, k.inflight.size());
    usbdevfs_urb *u = k.inflight[index];
    k.inflight.erase(k.inflight.begin() + long(index));
    completeLocked(k, u, n);
}

size_t count(unsigned long request)
{
    Kernel &k = kernel();
    std::lock_guard<std::mutex> l(k.m);
    size_t n = 0;
    for (const Call &c : k.calls)
        n += c.request == request;
    return n;
}

std::vector<Call> calls(unsigned long request)
{
    Kernel &k = kernel();
    std::lock_guard<std::mutex> l(k.m);
    std::vector<Call> out;
    for (const Call &c : k.calls)
        if (c.request == request)
            out.push_back(c);
    return out;
}

bool waitFor(const std::function<bool()> &pred, int ms = 3000)
{
    Kernel &k = kernel();
    std::unique_lock<std::mutex> l(k.m);
    return k.cv.wait_for(l, std::chrono::milliseconds(ms), pred);
}

int handle(unsigned long request, void *arg)
{
    Kernel &k = kernel();
    std::lock_guard<std::mutex> l(k.m);
    Call call{request, nullptr, 0, std::this_thread::get_id(), 0};
    auto finish = [&](int result, int err) {
        call.result = result;
        k.calls.push_back(call);
        k.cv.notify_all();
        errno = err;
        return result;
    };
    auto it = k.failNext.find(request);
    if (it != k.failNext.end() && !it->second.empty()) {
        int err = it->second.front();
        it->second.pop_front();
        return finish(-1, err);
    }
    switch (request) {
    case USBDEVFS_SUBMITURB: {
        auto *u = static_cast<usbdevfs_urb *>(arg);
        call.urb = u;
        call.bufferLength = u->buffer_length;
        int answer = k.submitted < k.answers.size() ? k.answers[k.submitted] : u->buffer_length;
        k.submitted++;
        if (answer < 0)
            k.inflight.push_back(u);
        else
            completeLocked(k, u, answer);
        return finish(0, 0);
    }
    case USBDEVFS_DISCARDURB: {
        auto *u = static_cast<usbdevfs_urb *>(arg);
        call.urb = u;
        for (auto i = k.inflight.begin(); i != k.inflight.end(); ++i) {
            if (*i != u)
                continue;
            if (!k.discardKeepsInFlight) {
                k.inflight.erase(i);
                u->status = -ENOENT;
                u->actual_length = 0;
                k.completed.push_back(u);
            }
            return finish(0, 0);
        }
        return finish(-1, EINVAL); // not in flight: already completed
    }
    case USBDEVFS_REAPURBNDELAY: {
        if (k.reapWithoutUrb) {
            *static_cast<void **>(arg) = nullptr;
            return finish(0, 0);
        }
        if (k.completed.empty())
            return finish(-1, EAGAIN);
        usbdevfs_urb *u = k.completed.front();
        k.completed.pop_front();
        call.urb = u;
        *static_cast<void **>(arg) = u;
        return finish(0, 0);
    }
    default:
        return finish(0, 0);
    }
}

} // namespace fake

ZTUVC_USBFS_STANDIN(fake::kFd, fake::handle)

namespace {

struct ContextDeleter {
    void operator()(USBTR_CONTEXT *p) const
    {
        pthread_mutex_destroy(&p->aIntReadLock);
        pthread_mutex_destroy(&p->aSyncSlotLock);
        free(p);
    }
};
using ContextPtr = std::unique_ptr<USBTR_CONTEXT, ContextDeleter>;

// An open-looking context on the fake descriptor with a bulk and an
// interrupt IN endpoint.
ContextPtr makeContext()
{
    fake::kernel().reset();
    auto *p = static_cast<USBTR_CONTEXT *>(calloc(1, sizeof(USBTR_CONTEXT)));
    p->dwMagic = USBTR_CTX_MAGIC;
    p->fdDevice = fake::kFd;
    p->iBulkReadEP = 0x83;
    p->iIntReadEP = 0x82;
    p->iIsoReadEP = 0x81;
    pthread_mutex_init(&p->aIntReadLock, nullptr);
    pthread_mutex_init(&p->aSyncSlotLock, nullptr);
    return ContextPtr(p);
}

std::vector<int> submitLengths()
{
    std::vector<int> out;
    for (const fake::Call &c : fake::calls(USBDEVFS_SUBMITURB))
        out.push_back(c.bufferLength);
    return out;
}

bool insideContext(const USBTR_CONTEXT *ctx, const void *p)
{
    auto *b = reinterpret_cast<const uint8_t *>(ctx);
    auto *q = static_cast<const uint8_t *>(p);
    return q >= b && q < b + sizeof(USBTR_CONTEXT);
}

uint32_t slotsInState(USBTR_CONTEXT *ctx, uint32_t state)
{
    pthread_mutex_lock(&ctx->aSyncSlotLock);
    uint32_t n = 0;
    for (const USBTR_SYNC_SLOT &s : ctx->aSyncSlots)
        n += s.dwBusy == state;
    pthread_mutex_unlock(&ctx->aSyncSlotLock);
    return n;
}

TEST(TransportRequest, BulkReadIsCutIntoPiecesAndReassembledInOrder)
{
    ContextPtr ctx = makeContext();
    std::vector<uint8_t> buf(40000 + 16, 0xEE);
    uint64_t actual = 0;
    ASSERT_EQ(USBTRBulkRead(ctx.get(), buf.data(), 40000, &actual, 1000), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(actual, 40000u);
    EXPECT_EQ(submitLengths(), (std::vector<int>{16384, 16384, 7232}));
    for (const fake::Call &c : fake::calls(USBDEVFS_SUBMITURB)) {
        auto *u = static_cast<usbdevfs_urb *>(c.urb);
        EXPECT_TRUE(insideContext(ctx.get(), u)) << "request records live in the context";
        EXPECT_TRUE(insideContext(ctx.get(), u->buffer)) << "the kernel writes into a context buffer";
        EXPECT_EQ(u->type, USBDEVFS_URB_TYPE_BULK);
        EXPECT_EQ(u->endpoint, 0x83);
    }
    for (uint32_t i = 0; i < 40000; i++)
        ASSERT_EQ(buf[i], fake::pattern(i)) << "byte " << i;
    for (uint32_t i = 40000; i < buf.size(); i++)
        ASSERT_EQ(buf[i], 0xEE) << "written past the end at " << i;
    EXPECT_EQ(slotsInState(ctx.get(), 0), USBTR_SYNC_SLOT_COUNT);
}

TEST(TransportRequest, AShortPieceEndsTheReadSuccessfully)
{
    ContextPtr ctx = makeContext();
    fake::kernel().answers = {16384, 100};
    std::vector<uint8_t> buf(40000, 0xEE);
    uint64_t actual = 0;
    ASSERT_EQ(USBTRBulkRead(ctx.get(), buf.data(), 40000, &actual, 1000), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(actual, 16484u);
    EXPECT_EQ(submitLengths(), (std::vector<int>{16384, 16384}));
    for (uint32_t i = 0; i < 16484; i++)
        ASSERT_EQ(buf[i], fake::pattern(i)) << "byte " << i;
    EXPECT_EQ(buf[16484], 0xEE);

    // A read that fits one piece exactly needs one request.
    fake::kernel().reset();
    ASSERT_EQ(USBTRBulkRead(ctx.get(), buf.data(), 16384, &actual, 1000), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(actual, 16384u);
    EXPECT_EQ(submitLengths(), (std::vector<int>{16384}));
}

TEST(TransportRequest, AnOverlongCompletionNeverOverrunsTheCallersBuffer)
{
    ContextPtr ctx = makeContext();
    // The device claims more than the piece: only the piece is handed out.
    fake::kernel().answers = {-1};
    std::vector<uint8_t> buf(64, 0xEE);
    uint64_t actual = 0;
    std::thread t([&] {
        ASSERT_TRUE(fake::waitFor([] { return fake::kernel().inflight.size() == 1; }));
        std::lock_guard<std::mutex> l(fake::kernel().m);
        usbdevfs_urb *u = fake::kernel().inflight.front();
        fake::kernel().inflight.clear();
        u->actual_length = 5000; // lies
        fake::kernel().completed.push_back(u);
    });
    EXPECT_EQ(USBTRBulkRead(ctx.get(), buf.data(), 32, &actual, 2000), USBTR_STATUS_SUCCESS);
    t.join();
    EXPECT_EQ(actual, 32u);
    EXPECT_EQ(buf[32], 0xEE);
}

TEST(TransportRequest, PollTimeoutDiscardsAndCollectsTheRequest)
{
    ContextPtr ctx = makeContext();
    fake::kernel().answers = {-1};
    std::vector<uint8_t> buf(100, 0xEE);
    uint64_t actual = 77;
    uint32_t t0 = FPPltGetTime();
    EXPECT_EQ(USBTRBulkRead(ctx.get(), buf.data(), buf.size(), &actual, 5), USBTR_STATUS_TIMEOUT);
    uint32_t elapsed = FPPltGetTime() - t0;
    EXPECT_GE(elapsed, 5u);
    EXPECT_LT(elapsed, 900u) << "a discard that completes at once is collected at once";
    EXPECT_EQ(actual, 0u);
    auto discards = fake::calls(USBDEVFS_DISCARDURB);
    auto submits = fake::calls(USBDEVFS_SUBMITURB);
    ASSERT_EQ(discards.size(), 1u);
    EXPECT_EQ(discards[0].urb, submits[0].urb);
    EXPECT_TRUE(fake::kernel().inflight.empty() && fake::kernel().completed.empty())
        << "nothing of the call stays known to the kernel";
    EXPECT_EQ(slotsInState(ctx.get(), 0), USBTR_SYNC_SLOT_COUNT);
    EXPECT_EQ(buf[0], 0xEE);
}

TEST(TransportRequest, PollWithInfiniteTimeoutWaitsForTheCompletion)
{
    ContextPtr ctx = makeContext();
    USBTR_REQUEST req;
    uint8_t data[8];
    USBTRPrepareRequest(ctx.get(), &req, 0x83, 0x80, USB_TRANSFER_TYPE_BULK, data, sizeof(data));
    fake::kernel().answers = {-1};
    ASSERT_EQ(USBTRSubmitRequest(ctx.get(), &req), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBTRRequestMark(&req), nullptr) << "in flight: no mark";
    std::atomic<bool> completed{false};
    std::thread late([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
        completed = true;
        fake::completeInFlight(0, 8);
    });
    EXPECT_EQ(USBTRPollReapThisRequest(ctx.get(), &req, USBTR_TIMEOUT_INFINITE), USBTR_STATUS_SUCCESS);
    EXPECT_TRUE(completed.load()) << "returned before the request completed";
    late.join();
    EXPECT_EQ(USBTRRequestMark(&req), &req) << "the mark is the record's own address";
    EXPECT_EQ(req.actual_length, 8);
}

TEST(TransportRequest, ARequestReapedByAnotherThreadCountsAsCompleted)
{
    ContextPtr ctx = makeContext();
    USBTR_REQUEST x, y;
    uint8_t bx[8], by[8];
    fake::kernel().answers = {-1, -1};
    USBTRPrepareRequest(ctx.get(), &x, 0x83, 0x80, USB_TRANSFER_TYPE_BULK, bx, sizeof(bx));
    USBTRPrepareRequest(ctx.get(), &y, 0x83, 0x80, USB_TRANSFER_TYPE_BULK, by, sizeof(by));
    ASSERT_EQ(USBTRSubmitRequest(ctx.get(), &x), USBTR_STATUS_SUCCESS);
    ASSERT_EQ(USBTRSubmitRequest(ctx.get(), &y), USBTR_STATUS_SUCCESS);

    // B waits for y; x completes first, so B's reap hands out x and marks it.
    std::atomic<int32_t> statusB{-1};
    std::thread::id idB;
    std::thread b([&] { statusB = USBTRPollReapThisRequest(ctx.get(), &y, 3000); });
    idB = b.get_id();
    fake::completeInFlight(0, 8);
    ASSERT_TRUE(fake::waitFor([&] {
        for (const fake::Call &c : fake::kernel().calls)
            if (c.request == USBDEVFS_REAPURBNDELAY && c.urb == &x)
                return true;
        return false;
    }));
    // A now finds x done although its own reap gets nothing.
    EXPECT_EQ(USBTRPollReapThisRequest(ctx.get(), &x, 100), USBTR_STATUS_SUCCESS);
    for (const fake::Call &c : fake::calls(USBDEVFS_REAPURBNDELAY)) {
        if (c.urb == &x) {
            EXPECT_EQ(c.thread, idB) << "x was reaped by B only";
        }
    }
    EXPECT_EQ(USBTRRequestMark(&x), &x);
    EXPECT_EQ(statusB.load(), -1) << "B still waits for y";
    fake::completeInFlight(0, 8);
    b.join();
    EXPECT_EQ(statusB.load(), USBTR_STATUS_SUCCESS);
}

// On a descriptor that poll() can tell about but that never signals (as when
// another thread has reaped the completion), a waiter sleeping in poll()
// still sees its request marked: with an infinite time-out a wait bounded
// only by the completion signal would never end.
TEST(TransportRequest, AWaiterInPollSeesAMarkSetByAnotherThread)
{
    int efd = eventfd(0, EFD_CLOEXEC);
    uint64_t full = 0xfffffffffffffffeULL; // an eventfd at this count is never writable
    ASSERT_EQ(write(efd, &full, sizeof(full)), ssize_t(sizeof(full)));
    const int kNoDescriptor = fake::kFd;
    fake::kFd = efd; // the fake's descriptor becomes pollable
    ContextPtr ctx = makeContext();
    USBTR_REQUEST req;
    uint8_t data[8];
    USBTRPrepareRequest(ctx.get(), &req, 0x83, 0x80, USB_TRANSFER_TYPE_BULK, data, sizeof(data));
    fake::kernel().answers = {-1};
    EXPECT_EQ(USBTRSubmitRequest(ctx.get(), &req), USBTR_STATUS_SUCCESS);
    std::thread other([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        fake::completeInFlight(0, 8);
        USBTRTryReapThisRequest(ctx.get(), nullptr); // reaps and marks it
    });
    EXPECT_EQ(USBTRPollReapThisRequest(ctx.get(), &req, USBTR_TIMEOUT_INFINITE), USBTR_STATUS_SUCCESS);
    other.join();
    fake::kFd = kNoDescriptor;
    close(efd);
}

TEST(TransportRequest, DiscardOfACompletedRequestSucceeds)
{
    ContextPtr ctx = makeContext();
    USBTR_REQUEST req;
    uint8_t data[8];
    USBTRPrepareRequest(ctx.get(), &req, 0x83, 0x80, USB_TRANSFER_TYPE_BULK, data, sizeof(data));
    ASSERT_EQ(USBTRSubmitRequest(ctx.get(), &req), USBTR_STATUS_SUCCESS); // completes at once
    EXPECT_EQ(USBTRDiscardRequest(ctx.get(), &req), USBTR_STATUS_SUCCESS);
    auto d = fake::calls(USBDEVFS_DISCARDURB);
    ASSERT_EQ(d.size(), 1u);
    EXPECT_EQ(d[0].result, -1) << "the kernel answered EINVAL";
    EXPECT_EQ(USBTRPollReapThisRequest(ctx.get(), &req, 100), USBTR_STATUS_SUCCESS);

    // Any other discard failure is reported.
    fake::kernel().failNext[USBDEVFS_DISCARDURB] = {EIO};
    EXPECT_EQ(USBTRDiscardRequest(ctx.get(), &req), USBTR_STATUS_COMM_ERROR);
}

TEST(TransportRequest, ErrnoIsMappedWhereTheIoctlIsMade)
{
    ContextPtr ctx = makeContext();
    struct {
        int err;
        int32_t status;
    } const map[] = {{EAGAIN, USBTR_STATUS_TIMEOUT},       {EPERM, USBTR_STATUS_ACCESS_DENIED},
                     {EACCES, USBTR_STATUS_ACCESS_DENIED}, {EPIPE, USBTR_STATUS_COMM_ERROR},
                     {ETIMEDOUT, USBTR_STATUS_COMM_ERROR}, {EPROTO, USBTR_STATUS_COMM_ERROR}};
    for (const auto &m : map) {
        fake::kernel().failNext[USBDEVFS_RESET] = {m.err};
        EXPECT_EQ(USBTRIOCtlEx(ctx.get(), USBDEVFS_RESET, nullptr, nullptr), m.status) << m.err;
        EXPECT_EQ(USBTRStatusFlags(ctx.get()) & USBTR_SF_DISCONNECTED, 0u) << "only ENODEV disconnects";
    }
    int64_t result = -5;
    EXPECT_EQ(USBTRIOCtlEx(ctx.get(), USBDEVFS_RESET, nullptr, &result), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(result, 0);

    // A failed submit returns at once and keeps the slot free.
    fake::kernel().failNext[USBDEVFS_SUBMITURB] = {EPIPE};
    uint8_t buf[16];
    uint64_t actual = 9;
    EXPECT_EQ(USBTRBulkRead(ctx.get(), buf, sizeof(buf), &actual, 100), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(actual, 0u);
    EXPECT_EQ(fake::count(USBDEVFS_DISCARDURB), 0u);
    EXPECT_EQ(slotsInState(ctx.get(), 0), USBTR_SYNC_SLOT_COUNT);
}

TEST(TransportRequest, ENODEVDisconnectsOnceAndLaterCallsNeverReachTheKernel)
{
    ContextPtr ctx = makeContext();
    USBTRSetStatusFlag(ctx.get(), USBTR_SF_EX_LOCKED);
    fake::kernel().failNext[USBDEVFS_CONTROL] = {ENODEV};
    uint8_t data[11];
    EXPECT_EQ(USBTRControlTransferEx(ctx.get(), 0xA1, 0x81, 0x0100, 0x0600, data, 11, 1000),
              USBTR_STATUS_COMM_ERROR);
    EXPECT_NE(USBTRStatusFlags(ctx.get()) & USBTR_SF_DISCONNECTED, 0u);
    EXPECT_EQ(USBTRStatusFlags(ctx.get()) & USBTR_SF_EX_LOCKED, 0u) << "the advisory lock is dropped";
    size_t before = fake::kernel().calls.size();
    uint64_t actual = 0;
    EXPECT_EQ(USBTRControlTransferEx(ctx.get(), 0xA1, 0x81, 0x0100, 0x0600, data, 11, 1000),
              USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(USBTRReadRegisters(ctx.get(), 0, data, 4), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(USBTRBulkRead(ctx.get(), data, 4, &actual, 100), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(USBTRSetInterfaceAlt(ctx.get(), 1, 1), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(fake::kernel().calls.size(), before) << "no ioctl after the disconnection";
}

TEST(TransportRequest, AReapWithoutARequestIsAGeneralError)
{
    ContextPtr ctx = makeContext();
    USBTR_REQUEST req;
    uint8_t data[8];
    fake::kernel().answers = {-1};
    USBTRPrepareRequest(ctx.get(), &req, 0x83, 0x80, USB_TRANSFER_TYPE_BULK, data, sizeof(data));
    ASSERT_EQ(USBTRSubmitRequest(ctx.get(), &req), USBTR_STATUS_SUCCESS);
    fake::kernel().reapWithoutUrb = true;
    EXPECT_EQ(USBTRPollReapThisRequest(ctx.get(), &req, 1000), USBTR_STATUS_GENERAL_ERROR);
    fake::kernel().reapWithoutUrb = false;
    fake::completeInFlight(0, 0);
    EXPECT_EQ(USBTRPollReapThisRequest(ctx.get(), &req, 1000), USBTR_STATUS_SUCCESS);
}

// A discarded request the kernel does not give back within 1000 ms stays with
// its slot; the caller's buffer is never written after the call returned, and
// the slot is reused only once a later reap has collected the request.
TEST(TransportRequest, UncollectedRequestsOrphanTheirSlotUntilReaped)
{
    ContextPtr ctx = makeContext();
    fake::kernel().discardKeepsInFlight = true;
    fake::kernel().answers = {-1, -1, -1, -1};
    std::vector<std::vector<uint8_t>> bufs(USBTR_SYNC_SLOT_COUNT, std::vector<uint8_t>(64, 0xEE));
    uint64_t actual = 0;
    for (uint32_t i = 0; i < USBTR_SYNC_SLOT_COUNT; i++) {
        uint32_t t0 = FPPltGetTime();
        EXPECT_EQ(USBTRBulkRead(ctx.get(), bufs[i].data(), 64, &actual, 5), USBTR_STATUS_TIMEOUT);
        uint32_t elapsed = FPPltGetTime() - t0;
        EXPECT_GE(elapsed, 1000u) << "the discarded request was waited for";
        EXPECT_LT(elapsed, 3000u);
    }
    EXPECT_EQ(slotsInState(ctx.get(), 2), USBTR_SYNC_SLOT_COUNT);
    EXPECT_EQ(fake::kernel().inflight.size(), USBTR_SYNC_SLOT_COUNT);

    // Every slot is orphaned: the next transfer is refused without a submission.
    std::vector<uint8_t> more(64, 0xEE);
    size_t submits = fake::count(USBDEVFS_SUBMITURB);
    EXPECT_EQ(USBTRBulkRead(ctx.get(), more.data(), 64, &actual, 5), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(fake::count(USBDEVFS_SUBMITURB), submits);

    // The kernel finally completes the orphans, writing their (context) buffers.
    fake::kernel().discardKeepsInFlight = false;
    for (uint32_t i = 0; i < USBTR_SYNC_SLOT_COUNT; i++)
        fake::completeInFlight(0, 64);
    for (const auto &b : bufs)
        for (uint8_t v : b)
            ASSERT_EQ(v, 0xEE) << "a returned call's buffer was written";

    // The next transfer collects them (marks them) and reuses a slot.
    fake::kernel().answers.clear();
    fake::kernel().submitted = 0;
    ASSERT_EQ(USBTRBulkRead(ctx.get(), more.data(), 64, &actual, 1000), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(actual, 64u);
    EXPECT_EQ(slotsInState(ctx.get(), 0), USBTR_SYNC_SLOT_COUNT);
    EXPECT_TRUE(fake::kernel().completed.empty());
}

TEST(TransportRequest, CancelEndsAnInterruptReadInFlight)
{
    ContextPtr ctx = makeContext();
    fake::kernel().answers = {-1};
    std::vector<uint8_t> buf(32, 0xEE);
    std::atomic<int32_t> status{-1};
    std::thread reader([&] { status = USBTRInterruptRead(ctx.get(), buf.data(), buf.size()); });
    ASSERT_TRUE(fake::waitFor([] { return fake::kernel().inflight.size() == 1; }));
    auto submits = fake::calls(USBDEVFS_SUBMITURB);
    ASSERT_EQ(submits.size(), 1u);
    EXPECT_EQ(static_cast<usbdevfs_urb *>(submits[0].urb)->type, USBDEVFS_URB_TYPE_INTERRUPT);
    EXPECT_EQ(static_cast<usbdevfs_urb *>(submits[0].urb)->endpoint, 0x82);

    // Flags without USBTR_CANCEL_INT_READ leave it alone.
    EXPECT_EQ(USBTRCancel(ctx.get(), 0), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBTRCancel(ctx.get(), 0x3), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(fake::count(USBDEVFS_DISCARDURB), 0u);
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(status.load(), -1);

    EXPECT_EQ(USBTRCancel(ctx.get(), USBTR_CANCEL_INT_READ), USBTR_STATUS_SUCCESS);
    reader.join();
    EXPECT_EQ(status.load(), USBTR_STATUS_PARTIAL_TRANSFER);
    auto discards = fake::calls(USBDEVFS_DISCARDURB);
    ASSERT_EQ(discards.size(), 1u);
    EXPECT_EQ(discards[0].urb, submits[0].urb);
    EXPECT_EQ(ctx->pIntReadRequest, nullptr) << "the published request is withdrawn";

    // Nothing in flight: cancel does nothing and succeeds.
    EXPECT_EQ(USBTRCancel(ctx.get(), USBTR_CANCEL_INT_READ), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(fake::count(USBDEVFS_DISCARDURB), 1u);

    // A complete interrupt read succeeds.
    fake::kernel().answers.clear();
    fake::kernel().submitted = 0;
    EXPECT_EQ(USBTRInterruptRead(ctx.get(), buf.data(), buf.size()), USBTR_STATUS_SUCCESS);
}

TEST(TransportRequest, ReadsWithoutTheirEndpointAreNotSupported)
{
    ContextPtr ctx = makeContext();
    ctx->iBulkReadEP = 0;
    ctx->iIntReadEP = 0;
    uint8_t buf[8];
    uint64_t actual = 3;
    EXPECT_EQ(USBTRBulkRead(ctx.get(), buf, sizeof(buf), &actual, 100), USBTR_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(USBTRInterruptRead(ctx.get(), buf, sizeof(buf)), USBTR_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(fake::count(USBDEVFS_SUBMITURB), 0u);
}

TEST(TransportRequest, ControlTransferFillsTheKernelRecordAndChecksTheLength)
{
    ContextPtr ctx = makeContext();
    uint8_t data[16] = {};
    // The fake answers 0 bytes to every control request.
    EXPECT_EQ(USBTRControlTransferEx(ctx.get(), 0x21, 0x01, 0x0200, 1, nullptr, 0, 1000), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBTRControlTransferEx(ctx.get(), 0xA1, 0x81, 0x0100, 0x0600, data, 11, 2000),
              USBTR_STATUS_PARTIAL_TRANSFER);
    EXPECT_EQ(USBTRReadRegisters(ctx.get(), 0x1234, data, 11), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(USBTRWriteRegisters(ctx.get(), 0x1234, data, 0), USBTR_STATUS_SUCCESS);
}

} // namespace
