// Slot queues and frame release on a bare context: the refusals a running
// stream never shows (full queue, out-of-range index, foreign addresses, a
// second release) and the format index.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <vector>

#include "lnx/transport/usbtr.h"

namespace {

struct Context {
    USBTR_CONTEXT* p = static_cast<USBTR_CONTEXT*>(calloc(1, sizeof(USBTR_CONTEXT)));
    explicit Context(uint64_t nFrames) {
        p->dwMagic = USBTR_CTX_MAGIC;
        pthread_mutex_init(&p->aGrabLock, nullptr);
        p->nFrameCount = nFrames;
        p->aImageFormatList.nCount = 1;
        for (auto& s : p->aImageStates) s = USBVD_IMAGE_NO_STATE;
    }
    ~Context() { pthread_mutex_destroy(&p->aGrabLock); free(p); }
    std::vector<int> queue(uint8_t st) const {
        return std::vector<int>(p->aLilo[st].aIndexes, p->aLilo[st].aIndexes + p->aLilo[st].nLength);
    }
};

TEST(Slots, QueuesKeepOrderAndRefuseWhatDoesNotFit)
{
    Context c(4);
    for (uint8_t i : {1, 2, 3, 0, 4, 0xFF}) LILOPut(c.p, USBVD_IMAGE_STATE_IN_USE, i);  // 4, 0xFF: no such slot
    EXPECT_EQ(c.queue(USBVD_IMAGE_STATE_IN_USE), (std::vector<int>{1, 2, 3, 0}));
    EXPECT_TRUE(LILOFindAndRemove(c.p, USBVD_IMAGE_STATE_IN_USE, 1));  // the last entry fills the hole
    EXPECT_EQ(c.queue(USBVD_IMAGE_STATE_IN_USE), (std::vector<int>{0, 2, 3}));
    EXPECT_EQ(c.p->aImageStates[1], USBVD_IMAGE_NO_STATE);
    EXPECT_FALSE(LILOFindAndRemove(c.p, USBVD_IMAGE_STATE_IN_USE, 1));
    EXPECT_FALSE(LILOFindAndRemove(c.p, USBVD_IMAGE_STATE_READY, 2)) << "in another queue";
    EXPECT_EQ(LILOGet(c.p, USBVD_IMAGE_STATE_IN_USE), 0);
    EXPECT_EQ(LILOGet(c.p, USBVD_IMAGE_STATE_IN_USE), 2);
    EXPECT_EQ(c.queue(USBVD_IMAGE_STATE_IN_USE), (std::vector<int>{3}));
    EXPECT_EQ(LILOGet(c.p, USBVD_IMAGE_STATE_FREE), -1);
    Context two(2);
    for (uint8_t i : {0, 1, 2}) LILOPut(two.p, USBVD_IMAGE_STATE_FREE, i);  // 2: the stream's slot count
    EXPECT_EQ(two.p->aImageStates[2], USBVD_IMAGE_NO_STATE) << "index 2 is beyond two slots";
    two.p->aImageStates[1] = USBVD_IMAGE_NO_STATE;  // as if it had left by a wrong path
    LILOPut(two.p, USBVD_IMAGE_STATE_FREE, 1);
    EXPECT_EQ(two.queue(USBVD_IMAGE_STATE_FREE), (std::vector<int>{0, 1})) << "a full queue takes no more";

    EXPECT_EQ(USBVDSetImageFormat(c.p, 0), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBVDSetImageFormat(c.p, 1), USBTR_STATUS_INVALID_PARAMETER) << "one format: index 0 only";
}

TEST(Slots, ReleaseTakesOnlyAFrameInUseOnce)
{
    Context c(2);
    LILOPut(c.p, USBVD_IMAGE_STATE_IN_USE, 0);
    LILOPut(c.p, USBVD_IMAGE_STATE_IN_USE, 1);
    uint8_t* base = c.p->aImages[0];
    for (void* bad : {(void*)nullptr, (void*)(base + 1), (void*)(base + USBVD_IMAGE_BUFFER_SIZE - 4),
                      (void*)c.p->aImages[2], (void*)(base - USBVD_IMAGE_BUFFER_SIZE)})
        EXPECT_NE(USBVDReleaseFrame(c.p, bad), USBTR_STATUS_SUCCESS) << bad;
    EXPECT_TRUE(c.queue(USBVD_IMAGE_STATE_FREE).empty());
    EXPECT_EQ(USBVDReleaseFrame(c.p, c.p->aImages[1]), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBVDReleaseFrame(c.p, c.p->aImages[1]), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(c.queue(USBVD_IMAGE_STATE_FREE), (std::vector<int>{1})) << "released twice, queued once";
    EXPECT_EQ(c.queue(USBVD_IMAGE_STATE_IN_USE), (std::vector<int>{0}));
}

}  // namespace
