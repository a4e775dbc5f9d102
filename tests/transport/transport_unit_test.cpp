// The supported reader table, identity and kernel checks, device names and
// handle checks; the descriptor parse on byte arrays, each in a heap block of
// exactly its size (an over-read shows under ASan, an interface array left
// behind under LSan).
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "descblob.h"
#include "lnx/transport/usbtr.h"

using namespace descblob;

namespace {

TEST(TransportTable, RowsIdentityAndStreamingBlockOfEachReader)
{
    const struct {
        uint16_t pid;
        const char *name;
        uint32_t w, h;
        uint8_t frameIndex;
        uint32_t interval, maxFrame;
    } rows[] = {{0x000B, "Tessary 10 Fingerprint Reader", 640, 480, 5, 333333, 307200},
                {0x000C, "Tessary 20 Fingerprint Reader", 1296, 808, 1, 666666, 1310720},
                {0x000D, "Tessary 30 Fingerprint Reader", 1280, 1024, 1, 666666, 1310720},
                {0x000E, "Tessary 40 Fingerprint Reader", 1280, 1024, 1, 666666, 1310720}};
    auto le32 = [](const uint8_t *p) { return uint32_t(p[0] | p[1] << 8 | p[2] << 16 | uint32_t(p[3]) << 24); };
    ASSERT_EQ(USBTR_READER_COUNT, 4u);
    for (uint32_t i = 0; i < USBTR_READER_COUNT; i++) {
        const USBTR_READER &r = gDeviceTable[i];
        const uint8_t *sc = r.aVideoInfo.aStreamingControl;
        SCOPED_TRACE(rows[i].name);
        EXPECT_EQ(r.wVid, USBTR_READER_VENDOR_ID);
        EXPECT_EQ(r.wPid, rows[i].pid);
        EXPECT_STREQ(r.pszModelName, rows[i].name);
        EXPECT_EQ(r.aVideoInfo.dwImageWidth, rows[i].w);
        EXPECT_EQ(r.aVideoInfo.dwImageHeight, rows[i].h);
        // bmHint 1, format 1, the frame, the interval, zeros, the sizes.
        EXPECT_EQ(Bytes(sc, sc + 4), (Bytes{1, 0, 1, rows[i].frameIndex}));
        EXPECT_EQ(le32(sc + 4), rows[i].interval);
        EXPECT_EQ(Bytes(sc + 8, sc + 18), Bytes(10, 0));
        EXPECT_EQ(le32(sc + 18), rows[i].maxFrame);
        EXPECT_EQ(le32(sc + 22), 3072u);
        EXPECT_EQ(USBTRStreamingInterval(&r.aVideoInfo), rows[i].interval);
        for (uint16_t rev : {0x0000, 0x0100, 0xFFFF}) { // whatever the release
            const USBTR_IDENTITY id = {USBTR_READER_VENDOR_ID, r.wPid, rev};
            const char *name = nullptr;
            const USBTR_VIDEO_INFO *video = nullptr;
            EXPECT_EQ(USBTRIdentifyDevice(&id, &name, &video), 2);
            EXPECT_EQ(name, r.pszModelName);
            EXPECT_EQ(video, &r.aVideoInfo);
        }
    }
    const USBTR_VIDEO_INFO sentinel = {};
    const USBTR_IDENTITY others[] = {{USBTR_READER_VENDOR_ID, 0x000F, 0x0100},
                                     {USBTR_READER_VENDOR_ID, 0x000A, 0x0100},
                                     {USBTR_READER_VENDOR_ID, 0x0000, 0x0000},
                                     {0x046D, 0x000C, 0x0100},
                                     {uint16_t(USBTR_READER_VENDOR_ID + 1), 0x000D, 0x0100}};
    for (const USBTR_IDENTITY &id : others) {
        const char *name = "stale";
        const USBTR_VIDEO_INFO *video = &sentinel;
        EXPECT_EQ(USBTRIdentifyDevice(&id, &name, &video), 0) << id.wVid << ":" << id.wPid;
        EXPECT_EQ(name, nullptr);
        EXPECT_EQ(video, &sentinel) << "left untouched";
    }
    EXPECT_EQ(USBTRIdentifyDevice(nullptr, nullptr, nullptr), 0);
}

TEST(TransportTable, KernelReleasesFrom2626AreSupported)
{
    for (const char *r : {"2.6.25-generic", "2.6", "2", "2.6.25", "2.4.37", "1.99.99", "", "linux", "2.6.026",
                          "0x2.0x6.0x19"})
        EXPECT_EQ(USBTRKernelSupported(r), 0) << r;
    EXPECT_EQ(USBTRKernelSupported(nullptr), 0);
    for (const char *r : {"2.6.26", "2.6.32-5-amd64", "2.7", "3", "4.15.0-generic", "10.1", "6.1.0-18-amd64",
                          "0x2.0x6.0x1a", "02.06.032", "010.1"})
        EXPECT_EQ(USBTRKernelSupported(r), 1) << r;
}

TEST(TransportTable, DeviceNameIsVidPidRevBusSysfsName)
{
    auto info = std::make_unique<USBTR_DEVICE_INFO>();
    info->aDeviceDescriptor.idVendor = USBTR_READER_VENDOR_ID;
    info->aDeviceDescriptor.idProduct = 0xABCD;
    info->aDeviceDescriptor.bcdDevice = 0xF00D;
    strcpy(info->szBusNum, "012");
    strcpy(info->szSysfsName, "12-3.4.1");
    char name[256];
    memset(name, 'x', sizeof(name));
    USBTRCreateDeviceName(info.get(), name);
    EXPECT_STREQ(name, "3a5c_abcd_f00d_012_12-3.4.1");
    const std::string longest(sizeof(info->szSysfsName) - 1, 'n');
    strcpy(info->szSysfsName, longest.c_str());
    USBTRCreateDeviceName(info.get(), name);
    EXPECT_EQ(std::string(name), "3a5c_abcd_f00d_012_" + longest);
}

TEST(TransportTable, BadHandlesAreRefusedBeforeAnythingIsTouched)
{
    auto bad = std::make_unique<USBTR_CONTEXT>();
    bad->dwMagic = USBTR_LIB_MAGIC;
    bad->fdDevice = -1;
    USBTR_LIB_CONTEXT lib = {USBTR_CTX_MAGIC};
    EXPECT_FALSE(USBTRCheckLibContext(nullptr, true, __FILE__, __LINE__));
    EXPECT_FALSE(USBTRCheckLibContext(&lib, true, __FILE__, __LINE__));
    uint8_t buf[16];
    uint64_t actual = 99;
    USBTR_IDENTITY id = {1, 2, 3};
    for (USBTR_CONTEXT *ctx : {static_cast<USBTR_CONTEXT *>(nullptr), bad.get()}) {
        EXPECT_FALSE(USBTR_CHECK_CONTEXT(ctx));
        EXPECT_EQ(USBTRClose(ctx), USBTR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(USBTRControlTransferEx(ctx, 0xA1, 0x81, 0, 0, buf, sizeof(buf), 100), USBTR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(USBTRReadRegisters(ctx, 0, buf, sizeof(buf)), USBTR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(USBTRWriteRegisters(ctx, 0, buf, sizeof(buf)), USBTR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(USBTRBulkRead(ctx, buf, sizeof(buf), &actual, 100), USBTR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(USBTRInterruptRead(ctx, buf, sizeof(buf)), USBTR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(USBTRCancel(ctx, USBTR_CANCEL_INT_READ), USBTR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(USBTRDeviceInfo(ctx, &id), USBTR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(USBTRSetInterfaceAlt(ctx, 1, 0), USBTR_STATUS_INVALID_HANDLE);
    }
    EXPECT_EQ(id.wVid, 1);
    EXPECT_EQ(bad->dwMagic, USBTR_LIB_MAGIC) << "a refused close frees nothing";
    USBTR_DEVICE_LIST *list = nullptr;
    USBTR_CONTEXT *handle = nullptr;
    EXPECT_EQ(USBTREnumerate(&lib, nullptr, &list), USBTR_STATUS_INVALID_HANDLE);
    EXPECT_EQ(USBTROpen(&lib, nullptr, 0, &handle), USBTR_STATUS_INVALID_HANDLE);
    EXPECT_EQ(USBTRDone(&lib), USBTR_STATUS_INVALID_HANDLE);
    EXPECT_EQ(USBTRDone(nullptr), USBTR_STATUS_INVALID_HANDLE);
    EXPECT_TRUE(list == nullptr && handle == nullptr);
    lib.dwMagic = USBTR_LIB_MAGIC;
    EXPECT_TRUE(USBTRCheckLibContext(&lib, false, __FILE__, __LINE__));
    EXPECT_EQ(USBTRInit(nullptr, 0), USBTR_STATUS_GENERAL_ERROR); /* null outputs, before allocating */
    EXPECT_EQ(USBTROpen(&lib, nullptr, 0, nullptr), USBTR_STATUS_GENERAL_ERROR);
    EXPECT_EQ(USBTREnumerate(&lib, nullptr, nullptr), USBTR_STATUS_GENERAL_ERROR);
}

// ---- descriptor parse -------------------------------------------------------

struct Parsed {
    std::unique_ptr<USBTR_DEVICE_INFO> info = std::make_unique<USBTR_DEVICE_INFO>();
    int32_t status;
    Parsed(const Bytes &configs, uint8_t nConfigs = 1)
    {
        info->aDeviceDescriptor.bNumConfigurations = nConfigs;
        std::unique_ptr<uint8_t[]> exact(new uint8_t[configs.size() + !configs.size()]);
        std::copy(configs.begin(), configs.end(), exact.get());
        status = USBTRParseConfigurations(info.get(), exact.get(), int32_t(configs.size()));
    }
    ~Parsed() { USBTRFreeConfigurations(info.get()); }
    const USBTR_CONFIG &config(int i = 0) const { return info->aConfigs[i]; }
    bool keepsNothing() const
    {
        for (const USBTR_CONFIG &c : info->aConfigs)
            if (c.pInterfaces != nullptr)
                return false;
        return true;
    }
};

TEST(TransportDescriptors, AReadersLayoutAndItsEndpoints)
{
    Parsed p(cat({uvcConfig(), config(1, cat({interface(0, 0, 2), endpoint(0x83, 0x01, 0x0200, 9),
                                                  endpoint(0x84, 0x02, 0x0040, 10)}), 2)}),
             2);
    ASSERT_EQ(p.status, USBTR_STATUS_SUCCESS);
    const USBTR_CONFIG &c = p.config();
    EXPECT_EQ(Bytes({c.bLength, c.bDescriptorType, uint8_t(c.wTotalLength), c.bNumInterfaces, c.bConfigurationValue,
                     c.bmAttributes, c.bMaxPower}),
              Bytes({9, 2, uint8_t(uvcConfig().size()), 2, 1, 0x80, 0xFA}));
    ASSERT_EQ(c.pInterfaces[0].nAltSettings, 1u) << "the next interface is not an alternate setting";
    const USBTR_ALTSETTING &control = c.pInterfaces[0].aAltSettings[0];
    EXPECT_EQ(control.bNumEndpoints, 1);
    const USBTR_ENDPOINT &irq = control.aEndpoints[0];
    EXPECT_EQ(Bytes({irq.bLength, irq.bDescriptorType, irq.bEndpointAddress, irq.bmAttributes, irq.bInterval,
                     irq.bRefresh, irq.bSynchAddress}),
              Bytes({7, 5, 0x82, 0x03, 1, 0, 0}));
    EXPECT_EQ(irq.wMaxPacketSize, 16);
    ASSERT_EQ(c.pInterfaces[1].nAltSettings, 2u);
    EXPECT_EQ(c.pInterfaces[1].aAltSettings[0].bNumEndpoints, 0);
    const USBTR_ALTSETTING &active = c.pInterfaces[1].aAltSettings[1];
    EXPECT_EQ(Bytes({active.bInterfaceNumber, active.bAlternateSetting, active.bNumEndpoints}), Bytes({1, 1, 1}));
    EXPECT_EQ(active.aEndpoints[0].bEndpointAddress, 0x81);
    EXPECT_EQ(active.aEndpoints[0].wMaxPacketSize, 0x0C00);
    // The second configuration: optional endpoint fields follow the length.
    const USBTR_ALTSETTING &alt = p.config(1).pInterfaces[0].aAltSettings[0];
    EXPECT_EQ(p.config(1).bConfigurationValue, 2);
    EXPECT_EQ(Bytes({alt.aEndpoints[0].bRefresh, alt.aEndpoints[0].bSynchAddress}), Bytes({0xA7, 0xA8}));
    EXPECT_EQ(Bytes({alt.aEndpoints[1].bEndpointAddress, alt.aEndpoints[1].bLength}), Bytes({0x84, 10}));
    EXPECT_EQ(p.config(2).bLength, 0) << "nothing beyond bNumConfigurations";
}

// Limits: 32 interfaces, 32 endpoints, 128 alternate settings; one more is refused.
TEST(TransportDescriptors, LimitsAndMalformedLayouts)
{
    auto interfaces = [](int n) {
        Bytes b;
        for (int i = 0; i < n; i++)
            b = cat({b, interface(uint8_t(i), 0, 0)});
        return config(uint8_t(n), b);
    };
    auto endpoints = [](int n) {
        Bytes b = interface(0, 0, uint8_t(n));
        for (int e = 0; e < n; e++)
            b = cat({b, endpoint(uint8_t(0x80 + e), 0x02, 64)});
        return config(1, b);
    };
    auto alts = [](int n) {
        Bytes b = interface(0, 0, 0);
        for (int a = 0; a < n; a++)
            b = cat({b, interface(1, uint8_t(a), a != 0, 2), a ? endpoint(0x81, 0x05, 0x0C00) : Bytes{}});
        return config(2, b);
    };
    EXPECT_EQ(Parsed(interfaces(32)).config().pInterfaces[31].aAltSettings[0].bInterfaceNumber, 31);
    EXPECT_EQ(Parsed(endpoints(32)).config().pInterfaces[0].aAltSettings[0].aEndpoints[31].bEndpointAddress, 0x9F);
    EXPECT_EQ(Parsed(alts(128)).config().pInterfaces[1].aAltSettings[127].aEndpoints[0].bEndpointAddress, 0x81);
    EXPECT_EQ(Parsed(config(3, cat({interface(0, 0, 0), interface(1, 0, 0)}))).config().pInterfaces[2].nAltSettings,
              0u) << "an interface without room keeps no setting";
    EXPECT_TRUE(Parsed(config(0, {})).keepsNothing());

    Bytes overlong = uvcConfig(), tooShort = uvcConfig(), shortHeader = uvcConfig();
    overlong[2]++, tooShort[2] = 5, tooShort[3] = 0, shortHeader[0] = 8;
    Bytes shortItf = interface(0, 0, 0);
    shortItf[0] = 8;
    const struct {
        const char *what;
        Bytes blob;
        uint8_t nConfigs = 1;
    } cases[] = {
        {"wTotalLength one beyond the data", overlong},
        {"wTotalLength below bLength", tooShort},
        {"configuration bLength 8", shortHeader},
        {"33 interfaces", interfaces(33)},
        {"33 endpoints", endpoints(33)},
        {"129 alternate settings", alts(129)},
        {"endpoint bLength 6", config(1, cat({interface(0, 0, 1), endpoint(0x82, 0x03, 16, 6)}))},
        {"endpoint missing", config(1, interface(0, 0, 1))},
        {"endpoint beyond the end", config(1, cat({interface(0, 0, 1), {40, 5, 0x81, 2, 64, 0, 0}}))},
        {"interface where an endpoint belongs", config(1, cat({interface(0, 0, 2), endpoint(0x81, 2, 64),
                                                              other(0x24, 9), interface(0, 1, 0)}))},
        {"interface bLength 8", config(1, cat({shortItf, {0, 0, 0, 0}}))},
        {"class descriptor bLength 0", config(1, cat({interface(0, 0, 0), {0, 0x24, 1, 1}, interface(1, 0, 0)}))},
        {"class descriptor bLength 1", config(1, cat({interface(0, 0, 0), {1, 0x24, 1, 1}, interface(1, 0, 0)}))},
        {"class descriptor beyond the end", config(1, cat({{200, 0x24, 1, 1, 1}, interface(0, 0, 0)}))},
        {"8 bytes", {9, 2, 8, 0, 1, 1, 0, 0x80}},
        {"no bytes", {}},
        {"no configuration declared", uvcConfig(), 0},
        {"nine configurations declared", uvcConfig(), 9},
        {"second configuration missing", uvcConfig(), 2},
        {"second configuration malformed", cat({uvcConfig(), endpoints(33)}), 2},
    };
    for (const auto &k : cases) {
        Parsed p(k.blob, k.nConfigs);
        EXPECT_EQ(p.status, USBTR_STATUS_COMM_ERROR) << k.what;
        EXPECT_TRUE(p.keepsNothing()) << k.what;
    }
    // Cut at every length: refused with the declared total intact; with the
    // total patched to the cut, whatever the outcome, nothing escapes the bytes.
    const Bytes full = uvcConfig();
    for (size_t n = 0; n < full.size(); n++) {
        Bytes cut(full.begin(), full.begin() + long(n));
        EXPECT_EQ(Parsed(cut).status, USBTR_STATUS_COMM_ERROR) << n;
        if (n >= 9) {
            cut[2] = uint8_t(n), cut[3] = uint8_t(n >> 8);
            Parsed q(cut);
            EXPECT_TRUE(q.status == USBTR_STATUS_SUCCESS ? q.config().pInterfaces != nullptr : q.keepsNothing());
        }
    }
}

TEST(TransportDescriptors, SkipPassesOverForeignDescriptorsOnly)
{
    auto skip = [](const Bytes &b, int32_t *remaining) {
        std::unique_ptr<uint8_t[]> exact(new uint8_t[b.size()]);
        std::copy(b.begin(), b.end(), exact.get());
        const uint8_t *p = exact.get();
        *remaining = int32_t(b.size());
        const int32_t st = USBTRSkipOtherDescriptors(&p, remaining);
        return st == USBTR_STATUS_SUCCESS ? p - exact.get() : -1;
    };
    int32_t n = 0;
    for (uint8_t stop : {1, 2, 4, 5}) {
        EXPECT_EQ(skip(cat({other(0x24, 13), other(0x25, 5), {8, 11, 0, 2, 0, 0, 0, 0}, other(0x0F, 4),
                            other(stop, 9)}), &n),
                  30) << int(stop);
        EXPECT_EQ(n, 9);
    }
    EXPECT_EQ(skip(interface(0, 0, 0), &n), 0);
    for (int tail = 0; tail < 4; tail++) { // fewer than four bytes end the skip
        EXPECT_EQ(skip(cat({other(0x24, 6), Bytes(size_t(tail), 0xFF)}), &n), 6);
        EXPECT_EQ(n, tail);
    }
    EXPECT_EQ(skip({0, 0x24, 0, 0, 0, 0}, &n), -1);
    EXPECT_EQ(skip({1, 0x24, 0, 0, 0, 0}, &n), -1);
    EXPECT_EQ(skip({7, 0x24, 0, 0, 0, 0}, &n), -1);
    EXPECT_EQ(skip({6, 0x24, 0, 0, 0, 0}, &n), 6);
}

} // namespace
