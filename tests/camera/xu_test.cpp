// The extension unit protocol on the wire: sensor register read and write,
// the finger register, and flash reads in 8-byte exchanges, with the
// simulator's control transfer log as the witness.
#include "camera_test.h"

#include <cstring>

using namespace camtest;
using sim::ControlMatch;
using sim::Model;
using sim::When;

namespace {

using Bytes = std::vector<uint8_t>;

Bytes readBlock(uint8_t count, uint16_t address)
{
    Bytes b(11, 0);
    b[0] = count;
    b[1] = uint8_t(address >> 8);
    b[2] = uint8_t(address);
    return b;
}

class Xu : public CameraTest {
protected:
    void SetUp() override
    {
        CameraTest::SetUp();
        r_ = &addReader(Model::T30);
        h_ = openReader(*r_);
        r_->clearLog();
    }
    sim::Reader& r() { return *r_; }

    // Checks one read exchange (SET_CUR then GET_CUR) at log positions i, i+1.
    void expectReadExchange(const std::vector<sim::IoctlRecord>& log, size_t i, uint8_t selector,
                            uint8_t count, uint16_t address)
    {
        ASSERT_GT(log.size(), i + 1);
        const auto& set = log[i];
        EXPECT_EQ(set.bRequestType, 0x21);
        EXPECT_EQ(set.bRequest, 0x01);
        EXPECT_EQ(set.wValue, selector << 8);
        EXPECT_EQ(set.wIndex, 0x0600);
        EXPECT_EQ(set.wLength, 11);
        EXPECT_EQ(set.timeout, 2000u);
        EXPECT_EQ(hexBytes(set.dataOut), hexBytes(readBlock(count, address)))
            << "exchange at log " << i;
        const auto& get = log[i + 1];
        EXPECT_EQ(get.bRequestType, 0xA1);
        EXPECT_EQ(get.bRequest, 0x81);
        EXPECT_EQ(get.wValue, selector << 8);
        EXPECT_EQ(get.wIndex, 0x0600);
        EXPECT_EQ(get.wLength, 11);
        EXPECT_EQ(get.timeout, 2000u);
    }

    sim::Reader* r_ = nullptr;
    CAMERA_HANDLE h_ = nullptr;
};

}  // namespace

TEST_F(Xu, SensorReadSendsTheBlockThenFetchesByteThree)
{
    r().setReg(0x1234, 0x5A);
    r().setReg(0x1235, 0x66);  // a neighbour that must not leak in
    auto t0 = Clock::now();
    EXPECT_EQ(camera_xu_sensor_read(h_, 0x1234), 0x5A);
    EXPECT_GE(msSince(t0), 1) << "the reader needs a pause between request and reply";
    auto log = controls(r());
    ASSERT_EQ(log.size(), 2u);
    expectReadExchange(log, 0, 7, 1, 0x1234);
    EXPECT_EQ(log[1].dataIn.size(), 11u);
}

TEST_F(Xu, SensorReadReturnsFullByteRangeAndOnlyLow16AddressBits)
{
    r().setReg(0x00FF, 0xFF);
    r().setReg(0x0000, 0x00);
    r().setReg(0x2345, 0x80);
    EXPECT_EQ(camera_xu_sensor_read(h_, 0x00FF), 255) << "0xFF is a value, not a failure";
    EXPECT_EQ(camera_xu_sensor_read(h_, 0x0000), 0);
    EXPECT_EQ(camera_xu_sensor_read(h_, 0xABC12345u), 0x80);
    auto log = controls(r());
    ASSERT_EQ(log.size(), 6u);
    expectReadExchange(log, 4, 7, 1, 0x2345);
}

TEST_F(Xu, SensorReadFailuresAreFailureAndStopTheExchange)
{
    r().setReg(0x0010, 0x10);
    // A stalled request: no reply is fetched.
    r().stallControl(ControlMatch::xuSet(7));
    EXPECT_EQ(camera_xu_sensor_read(h_, 0x0010), CAMERA_ERR_FAILURE);
    EXPECT_EQ(controls(r()).size(), 1u);

    // A stalled reply.
    r().clearLog();
    r().stallControl(ControlMatch::xuGet(7));
    EXPECT_EQ(camera_xu_sensor_read(h_, 0x0010), CAMERA_ERR_FAILURE);
    EXPECT_EQ(controls(r()).size(), 2u);

    // A short reply (10 of 11 bytes).
    r().shortControl(ControlMatch::xuGet(7), 10);
    EXPECT_EQ(camera_xu_sensor_read(h_, 0x0010), CAMERA_ERR_FAILURE);

    // A device timeout.
    r().failControl(ControlMatch::xuGet(7), ETIMEDOUT);
    EXPECT_EQ(camera_xu_sensor_read(h_, 0x0010), CAMERA_ERR_FAILURE);

    // And the camera still works afterwards.
    EXPECT_EQ(camera_xu_sensor_read(h_, 0x0010), 0x10);
}

TEST_F(Xu, SensorWriteSendsOneBlockWithTheLowByte)
{
    EXPECT_EQ(camera_xu_sensor_write(h_, 0x1234, 0x1FF), 0);
    auto log = controls(r());
    ASSERT_EQ(log.size(), 1u) << "a write fetches no reply";
    EXPECT_EQ(log[0].bRequestType, 0x21);
    EXPECT_EQ(log[0].bRequest, 0x01);
    EXPECT_EQ(log[0].wValue, 0x0700);
    EXPECT_EQ(log[0].wIndex, 0x0600);
    EXPECT_EQ(log[0].wLength, 11);
    EXPECT_EQ(log[0].timeout, 1000u);
    EXPECT_EQ(hexBytes(log[0].dataOut), hexBytes({0x81, 0x12, 0x34, 0xFF, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(r().reg(0x1234), 0xFF);

    EXPECT_EQ(camera_xu_sensor_write(h_, 0x7F0055AAu, -2), 0);  // 0xFFFFFFFE: low byte 0xFE
    EXPECT_EQ(r().reg(0x55AA), 0xFE);

    r().stallControl(ControlMatch::xuSet(7));
    EXPECT_EQ(camera_xu_sensor_write(h_, 0x1234, 0x01), CAMERA_ERR_FAILURE);
    EXPECT_EQ(r().reg(0x1234), 0xFF);
}

TEST_F(Xu, FingerRegisterIsF000BothWays)
{
    r().setReg(0xF000, 0xC3);
    EXPECT_EQ(camera_xu_get_finger(h_), 0xC3);
    EXPECT_EQ(camera_xu_set_finger(h_, 0x01), 0);
    EXPECT_EQ(r().reg(0xF000), 0x01);
    auto log = controls(r());
    ASSERT_EQ(log.size(), 3u);
    expectReadExchange(log, 0, 7, 1, 0xF000);
    EXPECT_EQ(hexBytes(log[2].dataOut), hexBytes({0x81, 0xF0, 0x00, 0x01, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(log[2].timeout, 1000u);

    r().stallControl(ControlMatch::xuGet(7));
    EXPECT_EQ(camera_xu_get_finger(h_), CAMERA_ERR_FAILURE);
}

TEST_F(Xu, FlashReadsInChunksOfEight)
{
    struct Case {
        uint32_t address;
        int32_t length;
        std::vector<uint8_t> chunks;
    };
    const Case cases[] = {
        {0x0100, 8, {8}},
        {0x0200, 9, {8, 1}},
        {0x0300, 20, {8, 8, 4}},
        {0x0007, 1, {1}},
    };
    for (const Case& c : cases) {
        r().clearLog();
        std::vector<uint8_t> buf(size_t(c.length) + 8, 0xEE);
        ASSERT_EQ(camera_xu_flash_read(h_, c.address, c.length, buf.data()), 0) << c.length;
        auto log = controls(r());
        ASSERT_EQ(log.size(), 2 * c.chunks.size()) << c.length << " bytes";
        uint32_t a = c.address;
        for (size_t i = 0; i < c.chunks.size(); ++i) {
            expectReadExchange(log, 2 * i, 3, c.chunks[i], uint16_t(a));
            a += c.chunks[i];
        }
        for (int32_t i = 0; i < c.length; ++i)
            ASSERT_EQ(buf[size_t(i)], sim::flashByte(c.address + uint32_t(i))) << "byte " << i;
        for (size_t i = size_t(c.length); i < buf.size(); ++i)
            ASSERT_EQ(buf[i], 0xEE) << "written past the length at " << i;
    }
}

TEST_F(Xu, FlashAddressAdvancesIn32BitsAndOnlyLow16AreSent)
{
    std::vector<uint8_t> buf(24, 0);
    ASSERT_EQ(camera_xu_flash_read(h_, 0x1FFF8u, 24, buf.data()), 0);
    auto log = controls(r());
    ASSERT_EQ(log.size(), 6u);
    expectReadExchange(log, 0, 3, 8, 0xFFF8);
    expectReadExchange(log, 2, 3, 8, 0x0000);
    expectReadExchange(log, 4, 3, 8, 0x0008);
}

TEST_F(Xu, FlashFailureOnSecondChunkKeepsTheFirst)
{
    std::vector<uint8_t> buf(20, 0xEE);
    r().stallControl(ControlMatch::flashRead(), When::nth(2));
    EXPECT_EQ(camera_xu_flash_read(h_, 0x0400, 20, buf.data()), CAMERA_ERR_FAILURE);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(buf[size_t(i)], sim::flashByte(0x0400 + uint32_t(i))) << i;
    for (int i = 8; i < 20; ++i)
        EXPECT_EQ(buf[size_t(i)], 0xEE) << i;
    EXPECT_EQ(controls(r()).size(), 4u) << "no exchange after the failed one";

    // The request of the second chunk failing: its reply is not fetched.
    r().clearLog();
    r().stallControl(ControlMatch::xuSet(3), When::nth(2));
    EXPECT_EQ(camera_xu_flash_read(h_, 0x0400, 20, buf.data()), CAMERA_ERR_FAILURE);
    EXPECT_EQ(controls(r()).size(), 3u);

    // A short reply.
    r().shortControl(ControlMatch::flashRead(), 9);
    EXPECT_EQ(camera_xu_flash_read(h_, 0x0400, 8, buf.data()), CAMERA_ERR_FAILURE);
}

TEST_F(Xu, FlashRefusesBadArgumentsWithoutTransfer)
{
    uint8_t buf[8];
    memset(buf, 0xEE, sizeof buf);
    EXPECT_EQ(camera_xu_flash_read(h_, 0, 0, buf), CAMERA_ERR_FAILURE);
    EXPECT_EQ(camera_xu_flash_read(h_, 0, -1, buf), CAMERA_ERR_FAILURE);
    EXPECT_EQ(camera_xu_flash_read(h_, 0, INT32_MIN, buf), CAMERA_ERR_FAILURE);
    EXPECT_EQ(camera_xu_flash_read(h_, 0, 8, nullptr), CAMERA_ERR_FAILURE);
    EXPECT_TRUE(controls(r()).empty());
    for (uint8_t b : buf)
        EXPECT_EQ(b, 0xEE);
}

// Each exchange pauses at least 1 ms between request and reply.
TEST_F(Xu, LongFlashReadPausesInEveryExchange)
{
    std::vector<uint8_t> buf(64 * 8);
    auto t0 = Clock::now();
    ASSERT_EQ(camera_xu_flash_read(h_, 0x1000, int32_t(buf.size()), buf.data()), 0);
    EXPECT_GE(msSince(t0), 64);
    EXPECT_EQ(controls(r()).size(), 128u);
    for (size_t i = 0; i < buf.size(); ++i)
        ASSERT_EQ(buf[i], sim::flashByte(0x1000 + uint32_t(i))) << i;
}

TEST_F(Xu, UnpluggedReaderFails)
{
    r().unplug();
    EXPECT_EQ(camera_xu_sensor_read(h_, 0x10), CAMERA_ERR_FAILURE);
    EXPECT_EQ(camera_xu_sensor_write(h_, 0x10, 1), CAMERA_ERR_FAILURE);
    uint8_t buf[8];
    EXPECT_EQ(camera_xu_flash_read(h_, 0, 8, buf), CAMERA_ERR_FAILURE);
}

TEST_F(Xu, ControlsTheReadersLackSucceedAtOnce)
{
    auto t0 = Clock::now();
    EXPECT_EQ(camera_wait_for_button(h_, 10000), 0);
    EXPECT_EQ(camera_wait_for_button(nullptr, 0xFFFFFFFFu), 0);
    EXPECT_LT(msSince(t0), 1000);
    int32_t v = 1234;
    EXPECT_EQ(camera_button_state(h_, &v), 0);
    EXPECT_EQ(camera_xu_get_flip(h_, &v), 0);
    EXPECT_EQ(camera_xu_get_mirror(h_, &v), 0);
    EXPECT_EQ(camera_get_control(h_, 1, &v), 0);
    EXPECT_EQ(v, 1234);
    EXPECT_EQ(camera_xu_set_flip(h_, 1), 0);
    EXPECT_EQ(camera_xu_set_mirror(h_, 1), 0);
    EXPECT_EQ(camera_xu_set_leds_mode(h_, 1), 0);
    EXPECT_EQ(camera_xu_set_leds(h_, 3), 0);
    EXPECT_EQ(camera_set_control(h_, 1, 1), 0);
    EXPECT_TRUE(controls(r()).empty()) << "nothing may reach the device";
}
