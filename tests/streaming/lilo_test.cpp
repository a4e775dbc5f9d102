// Frame slot queues on a bare context: order, removal, and refusal of
// indexes and states that would reach past the per-slot arrays.
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

#include "lnx/transport/usbtr.h"

namespace {

struct ContextDeleter {
    void operator()(USBTR_CONTEXT *p) const { free(p); }
};
using ContextPtr = std::unique_ptr<USBTR_CONTEXT, ContextDeleter>;

ContextPtr MakeContext(uint64_t nFrames)
{
    auto *p = static_cast<USBTR_CONTEXT *>(calloc(1, sizeof(USBTR_CONTEXT)));
    p->dwMagic = USBTR_CTX_MAGIC;
    p->nFrameCount = nFrames;
    for (auto &s : p->aImageStates)
        s = USBVD_IMAGE_NO_STATE;
    return ContextPtr(p);
}

std::vector<int> Queue(const USBTR_CONTEXT *p, uint8_t aState)
{
    std::vector<int> v;
    for (uint64_t i = 0; i < p->aLilo[aState].nLength; i++)
        v.push_back(p->aLilo[aState].aIndexes[i]);
    return v;
}

// Bytes of the context that the queue operations may touch, plus their
// neighbours on both sides.
std::vector<uint8_t> Snapshot(const USBTR_CONTEXT *p)
{
    auto *b = reinterpret_cast<const uint8_t *>(p);
    size_t from = offsetof(USBTR_CONTEXT, nFrameCount);
    size_t to = offsetof(USBTR_CONTEXT, aSyncSlotLock);
    return std::vector<uint8_t>(b + from, b + to);
}

TEST(Lilo, GetIsFirstInFirstOutAndEmptyGivesMinusOne)
{
    auto ctx = MakeContext(3);
    for (uint8_t i = 0; i < 3; i++)
        LILOPut(ctx.get(), USBVD_IMAGE_STATE_FREE, i);
    EXPECT_EQ(Queue(ctx.get(), USBVD_IMAGE_STATE_FREE), (std::vector<int>{0, 1, 2}));
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(ctx->aImageStates[i], USBVD_IMAGE_STATE_FREE);
        EXPECT_EQ(LILOGet(ctx.get(), USBVD_IMAGE_STATE_FREE), i);
        EXPECT_EQ(ctx->aImageStates[i], USBVD_IMAGE_NO_STATE);
    }
    EXPECT_EQ(LILOGet(ctx.get(), USBVD_IMAGE_STATE_FREE), -1);
    EXPECT_EQ(LILOGet(ctx.get(), USBVD_IMAGE_STATE_FREE) & 0xFF, 0xFF);

    auto ready = MakeContext(4);
    LILOPut(ready.get(), USBVD_IMAGE_STATE_READY, 2);
    LILOPut(ready.get(), USBVD_IMAGE_STATE_READY, 0);
    LILOPut(ready.get(), USBVD_IMAGE_STATE_READY, 3);
    EXPECT_EQ(ready->aImageStates[2], USBVD_IMAGE_STATE_READY);
    EXPECT_EQ(ready->aImageStates[1], USBVD_IMAGE_NO_STATE);
    EXPECT_EQ(LILOGet(ready.get(), USBVD_IMAGE_STATE_READY), 2);
    LILOPut(ready.get(), USBVD_IMAGE_STATE_READY, 1); // joins behind 0, 3
    EXPECT_EQ(LILOGet(ready.get(), USBVD_IMAGE_STATE_READY), 0);
    EXPECT_EQ(LILOGet(ready.get(), USBVD_IMAGE_STATE_READY), 3);
    EXPECT_EQ(LILOGet(ready.get(), USBVD_IMAGE_STATE_READY), 1);
    EXPECT_EQ(LILOGet(ready.get(), USBVD_IMAGE_STATE_READY), -1);
    // The other queues were never touched.
    EXPECT_EQ(ready->aLilo[USBVD_IMAGE_STATE_FREE].nLength, 0u);
    EXPECT_EQ(ready->aLilo[USBVD_IMAGE_STATE_IN_USE].nLength, 0u);
}

TEST(Lilo, FindAndRemoveMovesTheLastEntryIntoTheHole)
{
    struct Case {
        uint8_t nRemove;
        std::vector<int> aAfter;
    };
    for (const Case &c : {Case{2, {1, 3}}, Case{1, {3, 2}}, Case{3, {1, 2}}}) {
        auto ctx = MakeContext(4);
        for (uint8_t i : {1, 2, 3})
            LILOPut(ctx.get(), USBVD_IMAGE_STATE_IN_USE, i);
        EXPECT_TRUE(LILOFindAndRemove(ctx.get(), USBVD_IMAGE_STATE_IN_USE, c.nRemove));
        EXPECT_EQ(Queue(ctx.get(), USBVD_IMAGE_STATE_IN_USE), c.aAfter) << "removing " << int(c.nRemove);
        EXPECT_EQ(ctx->aImageStates[c.nRemove], USBVD_IMAGE_NO_STATE);
    }

    auto one = MakeContext(1);
    LILOPut(one.get(), USBVD_IMAGE_STATE_IN_USE, 0);
    EXPECT_TRUE(LILOFindAndRemove(one.get(), USBVD_IMAGE_STATE_IN_USE, 0));
    EXPECT_EQ(one->aLilo[USBVD_IMAGE_STATE_IN_USE].nLength, 0u);
    EXPECT_FALSE(LILOFindAndRemove(one.get(), USBVD_IMAGE_STATE_IN_USE, 0)); // second time: not there
}

TEST(Lilo, FindAndRemoveOfASlotInAnotherQueueLeavesThatQueue)
{
    auto ctx = MakeContext(4);
    LILOPut(ctx.get(), USBVD_IMAGE_STATE_READY, 1);
    LILOPut(ctx.get(), USBVD_IMAGE_STATE_IN_USE, 2);
    EXPECT_FALSE(LILOFindAndRemove(ctx.get(), USBVD_IMAGE_STATE_IN_USE, 1));
    EXPECT_EQ(Queue(ctx.get(), USBVD_IMAGE_STATE_READY), (std::vector<int>{1}));
    EXPECT_EQ(Queue(ctx.get(), USBVD_IMAGE_STATE_IN_USE), (std::vector<int>{2}));
    EXPECT_EQ(ctx->aImageStates[1], USBVD_IMAGE_NO_STATE);
}

TEST(Lilo, SingleSlotCyclesThroughAllStates)
{
    auto ctx = MakeContext(1);
    LILOPut(ctx.get(), USBVD_IMAGE_STATE_FREE, 0);
    ASSERT_EQ(LILOGet(ctx.get(), USBVD_IMAGE_STATE_FREE), 0);
    EXPECT_EQ(LILOGet(ctx.get(), USBVD_IMAGE_STATE_FREE), -1);
    LILOPut(ctx.get(), USBVD_IMAGE_STATE_READY, 0);
    ASSERT_EQ(LILOGet(ctx.get(), USBVD_IMAGE_STATE_READY), 0);
    LILOPut(ctx.get(), USBVD_IMAGE_STATE_IN_USE, 0);
    EXPECT_TRUE(LILOFindAndRemove(ctx.get(), USBVD_IMAGE_STATE_IN_USE, 0));
    LILOPut(ctx.get(), USBVD_IMAGE_STATE_FREE, 0);
    EXPECT_EQ(Queue(ctx.get(), USBVD_IMAGE_STATE_FREE), (std::vector<int>{0}));
    EXPECT_EQ(ctx->aImageStates[0], USBVD_IMAGE_STATE_FREE);
}

TEST(Lilo, FullQueueRefusesTheEntry)
{
    auto ctx = MakeContext(2);
    LILOPut(ctx.get(), USBVD_IMAGE_STATE_READY, 0);
    LILOPut(ctx.get(), USBVD_IMAGE_STATE_READY, 1);
    ctx->aImageStates[1] = USBVD_IMAGE_NO_STATE; // as if it had left by some wrong path
    LILOPut(ctx.get(), USBVD_IMAGE_STATE_READY, 1);
    EXPECT_EQ(Queue(ctx.get(), USBVD_IMAGE_STATE_READY), (std::vector<int>{0, 1}));
}

TEST(Lilo, OutOfRangeIndexesAndStatesTouchNothing)
{
    auto ctx = MakeContext(2);
    LILOPut(ctx.get(), USBVD_IMAGE_STATE_FREE, 0);
    LILOPut(ctx.get(), USBVD_IMAGE_STATE_READY, 1);
    const auto before = Snapshot(ctx.get());

    // Index beyond the stream's slot count, beyond the pool, and 0xFF.
    for (uint8_t idx : {2, 3, 4, 7, 0xFF}) {
        LILOPut(ctx.get(), USBVD_IMAGE_STATE_FREE, idx);
        EXPECT_FALSE(LILOFindAndRemove(ctx.get(), USBVD_IMAGE_STATE_FREE, idx));
        EXPECT_EQ(Snapshot(ctx.get()), before) << "index " << int(idx);
    }
    // States without a queue.
    for (uint8_t st : {uint8_t(USBVD_IMAGE_STATE_MAX), uint8_t(4), uint8_t(USBVD_IMAGE_NO_STATE)}) {
        LILOPut(ctx.get(), st, 0);
        EXPECT_EQ(LILOGet(ctx.get(), st), -1);
        EXPECT_FALSE(LILOFindAndRemove(ctx.get(), st, 0));
        EXPECT_EQ(Snapshot(ctx.get()), before) << "state " << int(st);
    }
    // A slot count beyond the pool does not open up indexes past it.
    ctx->nFrameCount = 200;
    const auto wide = Snapshot(ctx.get());
    LILOPut(ctx.get(), USBVD_IMAGE_STATE_IN_USE, 100);
    EXPECT_FALSE(LILOFindAndRemove(ctx.get(), USBVD_IMAGE_STATE_IN_USE, 100));
    EXPECT_EQ(Snapshot(ctx.get()), wide);
}

TEST(Lilo, DamagedLengthHandsOutNothing)
{
    auto ctx = MakeContext(4);
    ctx->aLilo[USBVD_IMAGE_STATE_READY].nLength = 9; // past the array
    const auto before = Snapshot(ctx.get());
    EXPECT_EQ(LILOGet(ctx.get(), USBVD_IMAGE_STATE_READY), -1);
    EXPECT_EQ(Snapshot(ctx.get()), before);
}

} // namespace
