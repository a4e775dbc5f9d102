// Frame hand-out, release, flush, formats and interval on a bare context
// (no reader, no grab thread): the grab state and the queues are set up by
// hand the way a running stream leaves them.
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

#include "lnx/platform/fpplat.h"
#include "lnx/transport/usbtr.h"

namespace {

struct ContextDeleter {
    void operator()(USBTR_CONTEXT *p) const
    {
        pthread_mutex_destroy(&p->aGrabLock);
        free(p);
    }
};
using ContextPtr = std::unique_ptr<USBTR_CONTEXT, ContextDeleter>;

// A context as open leaves it for reader row `iRow`, streaming with
// `nFrames` slots, all free.
ContextPtr MakeContext(int iRow = 0, uint64_t nFrames = 4)
{
    auto *p = static_cast<USBTR_CONTEXT *>(calloc(1, sizeof(USBTR_CONTEXT)));
    p->dwMagic = USBTR_CTX_MAGIC;
    pthread_mutex_init(&p->aGrabLock, nullptr);
    p->pVDDeviceInfo = &gDeviceTable[iRow].aVideoInfo;
    p->aImageFormatList.nCount = 1;
    p->dwFrameInterval = USBTRStreamingInterval(p->pVDDeviceInfo);
    p->nFrameCount = nFrames;
    for (uint8_t i = 0; i < USBVD_MAX_FRAMES; i++) {
        p->aImageStates[i] = USBVD_IMAGE_NO_STATE;
        if (i < nFrames)
            LILOPut(p, USBVD_IMAGE_STATE_FREE, i);
    }
    USBVDSetGrabState(p, USBVD_GRAB_STATE_RUNNING);
    return ContextPtr(p);
}

// What the grab thread does with a finished frame.
void Deliver(USBTR_CONTEXT *p, uint32_t dwStart)
{
    int32_t n = LILOGet(p, USBVD_IMAGE_STATE_FREE);
    ASSERT_GE(n, 0);
    p->aFrameStartTimes[n] = dwStart;
    LILOPut(p, USBVD_IMAGE_STATE_READY, (uint8_t)n);
}

std::vector<int> Queue(const USBTR_CONTEXT *p, uint8_t aState)
{
    std::vector<int> v;
    for (uint64_t i = 0; i < p->aLilo[aState].nLength; i++)
        v.push_back(p->aLilo[aState].aIndexes[i]);
    return v;
}

std::vector<uint8_t> QueueBytes(const USBTR_CONTEXT *p)
{
    auto *b = reinterpret_cast<const uint8_t *>(p);
    return std::vector<uint8_t>(b + offsetof(USBTR_CONTEXT, nFrameCount),
                                b + offsetof(USBTR_CONTEXT, aSyncSlotLock));
}

uint32_t Now()
{
    return FPPltGetTime() - gdwTimeStampBase;
}

TEST(HandOut, ReadyFramesComeOutInOrderWithTheirTrailer)
{
    for (int iRow = 0; iRow < (int)USBTR_READER_COUNT; iRow++) {
        auto ctx = MakeContext(iRow, 3);
        const uint32_t nImage = gDeviceTable[iRow].aVideoInfo.dwImageWidth *
                                gDeviceTable[iRow].aVideoInfo.dwImageHeight;
        uint32_t dwStart = Now();
        // Make slot 1 ready first, then slot 0: hand-out follows the queue.
        LILOFindAndRemove(ctx.get(), USBVD_IMAGE_STATE_FREE, 1);
        ctx->aFrameStartTimes[1] = dwStart;
        LILOPut(ctx.get(), USBVD_IMAGE_STATE_READY, 1);
        Deliver(ctx.get(), dwStart + 1);
        memset(ctx->aImages[1], 0xAB, nImage);

        void *pFrame = reinterpret_cast<void *>(0x1);
        ASSERT_EQ(USBVDGetFrame(ctx.get(), 1000, &pFrame), USBTR_STATUS_SUCCESS);
        ASSERT_EQ(pFrame, ctx->aImages[1]);
        const uint8_t *pBytes = static_cast<const uint8_t *>(pFrame);
        EXPECT_EQ(pBytes[nImage - 1], 0xAB) << "image bytes must be left alone";
        USBVD_TIME_STAMP aStamp;
        memcpy(&aStamp, pBytes + nImage, sizeof(aStamp));
        EXPECT_EQ(memcmp(aStamp.dwTMSignature, "TmSt", 4), 0);
        EXPECT_EQ(aStamp.dwTMFrameStart, dwStart);
        EXPECT_GE(aStamp.dwTMFrameReturned, dwStart);
        EXPECT_LE(aStamp.dwTMFrameReturned, Now());

        ASSERT_EQ(USBVDGetFrame(ctx.get(), 1000, &pFrame), USBTR_STATUS_SUCCESS);
        EXPECT_EQ(pFrame, ctx->aImages[0]);
        memcpy(&aStamp, static_cast<uint8_t *>(pFrame) + nImage, sizeof(aStamp));
        EXPECT_EQ(aStamp.dwTMFrameStart, dwStart + 1);

        EXPECT_EQ(Queue(ctx.get(), USBVD_IMAGE_STATE_IN_USE), (std::vector<int>{1, 0}));
        EXPECT_EQ(ctx->aImageStates[1], USBVD_IMAGE_STATE_IN_USE);
        EXPECT_EQ(Queue(ctx.get(), USBVD_IMAGE_STATE_READY), (std::vector<int>{}));
    }
}

TEST(HandOut, StatusWithoutARunningStreamComesAtOnce)
{
    auto ctx = MakeContext();
    Deliver(ctx.get(), Now()); // a frame left behind must not be handed out
    struct Case {
        uint32_t dwState, dwStatus;
        int32_t iExpected;
    };
    for (const Case &c : {Case{USBVD_GRAB_STATE_NOT_STARTED, 0, USBTR_STATUS_GENERAL_ERROR},
                          Case{USBVD_GRAB_STATE_STOPPED, USBTR_STATUS_STOPPED, USBTR_STATUS_STOPPED},
                          Case{USBVD_GRAB_STATE_STOPPED, USBTR_STATUS_TIMEOUT, USBTR_STATUS_TIMEOUT},
                          Case{USBVD_GRAB_STATE_STOPPED, 0, USBTR_STATUS_GENERAL_ERROR}}) {
        USBVDSetGrabState(ctx.get(), c.dwState);
        ctx->dwGrabStatus = c.dwStatus;
        void *pFrame = reinterpret_cast<void *>(0x1);
        uint32_t t0 = FPPltGetTime();
        EXPECT_EQ(USBVDGetFrame(ctx.get(), 60000, &pFrame), c.iExpected);
        EXPECT_LT(FPPltGetTime() - t0, 1000u);
        EXPECT_EQ(pFrame, nullptr);
    }
    EXPECT_EQ(Queue(ctx.get(), USBVD_IMAGE_STATE_READY), (std::vector<int>{0}));
}

TEST(HandOut, TimeoutAndDisconnection)
{
    auto ctx = MakeContext();
    void *pFrame = reinterpret_cast<void *>(0x1);
    uint32_t t0 = FPPltGetTime();
    EXPECT_EQ(USBVDGetFrame(ctx.get(), 0, &pFrame), USBTR_STATUS_TIMEOUT);
    EXPECT_LT(FPPltGetTime() - t0, 1000u);
    EXPECT_EQ(pFrame, nullptr);

    t0 = FPPltGetTime();
    EXPECT_EQ(USBVDGetFrame(ctx.get(), 200, &pFrame), USBTR_STATUS_TIMEOUT);
    uint32_t dwElapsed = FPPltGetTime() - t0;
    EXPECT_GE(dwElapsed, 200u);
    EXPECT_LT(dwElapsed, 2000u);

    Deliver(ctx.get(), Now());
    USBTRSetStatusFlag(ctx.get(), USBTR_SF_DISCONNECTED);
    EXPECT_EQ(USBVDGetFrame(ctx.get(), 1000, &pFrame), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(pFrame, nullptr);
    EXPECT_EQ(Queue(ctx.get(), USBVD_IMAGE_STATE_READY), (std::vector<int>{0}));
}

TEST(HandOut, NullFramePointerLosesNoFrame)
{
    auto ctx = MakeContext();
    Deliver(ctx.get(), Now());
    const auto before = QueueBytes(ctx.get());
    EXPECT_EQ(USBVDGetFrame(ctx.get(), 1000, nullptr), USBTR_STATUS_GENERAL_ERROR);
    EXPECT_EQ(QueueBytes(ctx.get()), before);
    EXPECT_EQ(USBVDGetFrame(nullptr, 1000, nullptr), USBTR_STATUS_INVALID_HANDLE);
}

TEST(HandOut, ReleaseReturnsTheSlotOnceAndRefusesOtherAddresses)
{
    auto ctx = MakeContext(0, 2);
    Deliver(ctx.get(), Now());
    Deliver(ctx.get(), Now());
    void *pA = nullptr, *pB = nullptr;
    ASSERT_EQ(USBVDGetFrame(ctx.get(), 1000, &pA), USBTR_STATUS_SUCCESS);
    ASSERT_EQ(USBVDGetFrame(ctx.get(), 1000, &pB), USBTR_STATUS_SUCCESS);
    ASSERT_EQ(Queue(ctx.get(), USBVD_IMAGE_STATE_FREE), (std::vector<int>{}));

    // Not slot addresses of this stream: reported, queues untouched.
    uint8_t *pBase = ctx->aImages[0];
    std::vector<void *> aBad = {nullptr, pBase + 1, pBase + USBVD_IMAGE_BUFFER_SIZE - 4,
                                pBase - USBVD_IMAGE_BUFFER_SIZE, ctx->aImages[2], ctx->aImages[3],
                                pBase + 4 * (size_t)USBVD_IMAGE_BUFFER_SIZE, &pA};
    const auto before = QueueBytes(ctx.get());
    for (void *p : aBad) {
        EXPECT_NE(USBVDReleaseFrame(ctx.get(), p), USBTR_STATUS_SUCCESS) << p;
        EXPECT_EQ(QueueBytes(ctx.get()), before) << p;
    }

    EXPECT_EQ(USBVDReleaseFrame(ctx.get(), pB), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(Queue(ctx.get(), USBVD_IMAGE_STATE_FREE), (std::vector<int>{1}));
    EXPECT_EQ(Queue(ctx.get(), USBVD_IMAGE_STATE_IN_USE), (std::vector<int>{0}));
    // A second release of the same frame queues nothing twice.
    EXPECT_EQ(USBVDReleaseFrame(ctx.get(), pB), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(Queue(ctx.get(), USBVD_IMAGE_STATE_FREE), (std::vector<int>{1}));
    EXPECT_EQ(USBVDReleaseFrame(ctx.get(), pA), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(Queue(ctx.get(), USBVD_IMAGE_STATE_FREE), (std::vector<int>{1, 0}));
    EXPECT_EQ(ctx->aImageStates[0], USBVD_IMAGE_STATE_FREE);

    EXPECT_EQ(USBVDReleaseFrame(nullptr, pA), USBTR_STATUS_INVALID_HANDLE);
}

TEST(HandOut, FlushFreesReadyFramesAndDropsTheNext)
{
    auto ctx = MakeContext(0, 4);
    Deliver(ctx.get(), Now()); // 0: handed out below, survives the flush
    Deliver(ctx.get(), Now()); // 1
    Deliver(ctx.get(), Now()); // 2
    void *pHeld = nullptr;
    ASSERT_EQ(USBVDGetFrame(ctx.get(), 1000, &pHeld), USBTR_STATUS_SUCCESS);
    ASSERT_EQ(pHeld, ctx->aImages[0]);

    EXPECT_EQ(USBVDFlush(ctx.get()), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(Queue(ctx.get(), USBVD_IMAGE_STATE_READY), (std::vector<int>{}));
    EXPECT_EQ(Queue(ctx.get(), USBVD_IMAGE_STATE_FREE), (std::vector<int>{3, 1, 2}));
    EXPECT_EQ(Queue(ctx.get(), USBVD_IMAGE_STATE_IN_USE), (std::vector<int>{0}));
    EXPECT_EQ(ctx->nFramesToDrop, 1u);
    EXPECT_EQ(USBVDReleaseFrame(ctx.get(), pHeld), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(Queue(ctx.get(), USBVD_IMAGE_STATE_FREE), (std::vector<int>{3, 1, 2, 0}));

    EXPECT_EQ(USBVDFlush(ctx.get()), USBTR_STATUS_SUCCESS); // nothing ready
    EXPECT_EQ(ctx->nFramesToDrop, 1u);
    ctx->nFramesToDrop = 3;
    EXPECT_EQ(USBVDFlush(ctx.get()), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(ctx->nFramesToDrop, 3u);
    EXPECT_EQ(USBVDFlush(nullptr), USBTR_STATUS_INVALID_HANDLE);
}

TEST(Capture, StartRefusesTooManySlotsAndOnlyFlushesWhileRunning)
{
    auto ctx = MakeContext(0, 2);
    Deliver(ctx.get(), Now());
    const auto before = QueueBytes(ctx.get());
    EXPECT_EQ(USBVDStartTransfer(ctx.get(), 5), USBTR_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(USBVDStartTransfer(ctx.get(), 0xFFFFFFFF), USBTR_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(QueueBytes(ctx.get()), before);

    // Running: a start only flushes and keeps the slot count.
    EXPECT_EQ(USBVDStartTransfer(ctx.get(), 4), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(ctx->nFrameCount, 2u);
    EXPECT_EQ(Queue(ctx.get(), USBVD_IMAGE_STATE_READY), (std::vector<int>{}));
    EXPECT_EQ(Queue(ctx.get(), USBVD_IMAGE_STATE_FREE), (std::vector<int>{1, 0}));
    EXPECT_EQ(ctx->nFramesToDrop, 1u);

    // Stop with no thread behind the state: returns at once.
    USBVDSetGrabState(ctx.get(), USBVD_GRAB_STATE_NOT_STARTED);
    EXPECT_EQ(USBVDStopTransfer(ctx.get(), 0), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBVDStopTransfer(ctx.get(), 1), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBVDStartTransfer(nullptr, 0), USBTR_STATUS_INVALID_HANDLE);
    EXPECT_EQ(USBVDStopTransfer(nullptr, 0), USBTR_STATUS_INVALID_HANDLE);

    // A disconnected reader does not start a thread.
    USBTRSetStatusFlag(ctx.get(), USBTR_SF_DISCONNECTED);
    EXPECT_EQ(USBVDStartTransfer(ctx.get(), 0), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(USBVDGrabState(ctx.get()), (uint32_t)USBVD_GRAB_STATE_NOT_STARTED);
}

TEST(Format, OneFormatSelectableByIndexZero)
{
    auto ctx = MakeContext(2);
    USBVD_IMAGE_FORMAT_LIST *pList = nullptr;
    EXPECT_EQ(USBVDListImageFormats(ctx.get(), &pList), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(pList, &ctx->aImageFormatList);
    EXPECT_EQ(USBVDListImageFormats(ctx.get(), nullptr), USBTR_STATUS_GENERAL_ERROR);

    EXPECT_EQ(USBVDSetImageFormat(ctx.get(), 0), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBVDSetImageFormat(ctx.get(), 1), USBTR_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(USBVDSetImageFormat(ctx.get(), 1ull << 32), USBTR_STATUS_INVALID_PARAMETER);
    uint64_t nIndex = 77;
    EXPECT_EQ(USBVDGetImageFormat(ctx.get(), &nIndex), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(nIndex, 0u);
    EXPECT_EQ(USBVDGetImageFormat(ctx.get(), nullptr), USBTR_STATUS_GENERAL_ERROR);
    EXPECT_EQ(USBVDGetImageFormat(nullptr, &nIndex), USBTR_STATUS_INVALID_HANDLE);
    EXPECT_EQ(USBVDSetImageFormat(nullptr, 0), USBTR_STATUS_INVALID_HANDLE);
    EXPECT_EQ(USBVDListImageFormats(nullptr, &pList), USBTR_STATUS_INVALID_HANDLE);
}

TEST(Format, IntervalIsClampedToTheReadersOwnAndSaturates)
{
    struct Case {
        int iRow;
        uint32_t dwMs, dwUnits, dwReadBack;
    };
    for (const Case &c : {
             Case{0, 10, 333333, 33},
             Case{0, 33, 333333, 33},
             Case{0, 34, 340000, 34},
             Case{0, 100, 1000000, 100},
             Case{0, 0, 333333, 33},
             Case{1, 10, 666666, 66},
             Case{1, 0, 666666, 66},
             Case{3, 100, 1000000, 100},
             Case{2, 429496, 4294960000u, 429496},
             // Too long for the 32-bit field: the longest representable one,
             // never a wrapped short interval.
             Case{2, 429497, 0xFFFFFFFFu, 429496},
             Case{0, 0xFFFFFFFFu, 0xFFFFFFFFu, 429496},
         }) {
        auto ctx = MakeContext(c.iRow);
        uint32_t dwMs = 0;
        EXPECT_EQ(USBVDGetFrameInterval(ctx.get(), &dwMs), USBTR_STATUS_SUCCESS);
        EXPECT_EQ(dwMs, c.iRow == 0 ? 33u : 66u);
        EXPECT_EQ(USBVDSetFrameInterval(ctx.get(), c.dwMs), USBTR_STATUS_SUCCESS);
        EXPECT_EQ(ctx->dwFrameInterval, c.dwUnits) << c.dwMs << " ms on row " << c.iRow;
        EXPECT_EQ(USBVDGetFrameInterval(ctx.get(), &dwMs), USBTR_STATUS_SUCCESS);
        EXPECT_EQ(dwMs, c.dwReadBack);
    }
    auto ctx = MakeContext(0);
    EXPECT_EQ(USBVDGetFrameInterval(ctx.get(), nullptr), USBTR_STATUS_GENERAL_ERROR);
    EXPECT_EQ(USBVDSetFrameInterval(nullptr, 100), USBTR_STATUS_INVALID_HANDLE);
    uint32_t dwMs = 5;
    EXPECT_EQ(USBVDGetFrameInterval(nullptr, &dwMs), USBTR_STATUS_INVALID_HANDLE);
    EXPECT_EQ(dwMs, 5u);
}

} // namespace
