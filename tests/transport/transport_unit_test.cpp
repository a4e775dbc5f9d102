// The supported reader table, identity and kernel checks, device names and
// handle checks; the descriptor parse on byte arrays, each in a heap block of
// exactly its size (an over-read shows under ASan, an interface array left
// behind under LSan).
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "lnx/transport/usbtr.h"

namespace {

// Raw USB descriptor blobs as sysfs "descriptors" holds them.

using Bytes = std::vector<uint8_t>;

inline Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes b;
    for (const Bytes &p : parts)
        b.insert(b.end(), p.begin(), p.end());
    return b;
}

inline Bytes interface(uint8_t number, uint8_t alt, uint8_t nEndpoints, uint8_t subClass = 1)
{
    return {9, 4, number, alt, nEndpoints, 0x0E, subClass, 0, 0};
}

// Optional bytes past 7: bRefresh 0xA7, bSynchAddress 0xA8, then padding.
inline Bytes endpoint(uint8_t address, uint8_t attributes, uint16_t maxPacket, uint8_t length = 7)
{
    Bytes b = {length, 5, address, attributes, uint8_t(maxPacket), uint8_t(maxPacket >> 8), 1};
    for (uint8_t i = 7; i < length; i++)
        b.push_back(uint8_t(0xA0 + i));
    return b;
}

// A class descriptor (or any other); length at least 2.
inline Bytes other(uint8_t type, uint8_t length)
{
    Bytes b(length, 0x11);
    b[0] = length, b[1] = type;
    return b;
}

// A configuration header for nInterfaces followed by body, wTotalLength set.
inline Bytes config(uint8_t nInterfaces, const Bytes &body, uint8_t value = 1)
{
    Bytes c = cat({{9, 2, 0, 0, nInterfaces, value, 0, 0x80, 0xFA}, body});
    c[2] = uint8_t(c.size()), c[3] = uint8_t(c.size() >> 8);
    return c;
}

// A reader's video class layout: IAD; interface 0 (control) with class
// descriptors, an interrupt IN endpoint and its class descriptor; interface
// 1 alt 0 (streaming) with format and frame descriptors; alt 1 with the iso IN endpoint.
inline Bytes uvcConfig()
{
    return config(2, cat({{8, 11, 0, 2, 0x0E, 3, 0, 0}, interface(0, 0, 1), other(0x24, 13), other(0x24, 26),
                          endpoint(0x82, 0x03, 16), other(0x25, 5), interface(1, 0, 0, 2), other(0x24, 14),
                          other(0x24, 27), other(0x24, 30), interface(1, 1, 1, 2), endpoint(0x81, 0x05, 0x0C00)}));
}

TEST(TransportTable, EachReaderIsIdentifiedWhateverItsReleaseAndOnlyIt)
{
    for (const USBTR_READER &r : gDeviceTable) {
        const USBTR_IDENTITY id = {USBTR_READER_VENDOR_ID, r.wPid, 0xFFFF};
        const char *name = nullptr;
        const USBTR_VIDEO_INFO *video = nullptr;
        EXPECT_EQ(USBTRIdentifyDevice(&id, &name, &video), 2);
        EXPECT_TRUE(name == r.pszModelName && video == &r.aVideoInfo);
        const USBTR_IDENTITY other = {uint16_t(USBTR_READER_VENDOR_ID + 1), r.wPid, 0x0100};
        EXPECT_EQ(USBTRIdentifyDevice(&other, &name, nullptr), 0);
        EXPECT_EQ(name, nullptr);
    }
    const USBTR_IDENTITY unknown = {USBTR_READER_VENDOR_ID, 0x000F, 0x0100};
    EXPECT_EQ(USBTRIdentifyDevice(&unknown, nullptr, nullptr), 0);
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
}

TEST(TransportTable, BadHandlesAreRefusedBeforeAnythingIsTouched)
{
    auto bad = std::make_unique<USBTR_CONTEXT>();
    bad->dwMagic = USBTR_LIB_MAGIC;
    uint8_t buf[16];
    for (USBTR_CONTEXT *ctx : {static_cast<USBTR_CONTEXT *>(nullptr), bad.get()}) {
        EXPECT_EQ(USBTRClose(ctx), USBTR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(USBTRControlTransferEx(ctx, 0xA1, 0x81, 0, 0, buf, sizeof(buf), 100), USBTR_STATUS_INVALID_HANDLE);
        EXPECT_EQ(USBTRCancel(ctx, USBTR_CANCEL_INT_READ), USBTR_STATUS_INVALID_HANDLE);
    }
    EXPECT_EQ(bad->dwMagic, USBTR_LIB_MAGIC) << "a refused close frees nothing";
    USBTR_LIB_CONTEXT lib = {USBTR_CTX_MAGIC};
    EXPECT_FALSE(USBTRCheckLibContext(&lib, true, __FILE__, __LINE__));
    EXPECT_EQ(USBTRDone(&lib), USBTR_STATUS_INVALID_HANDLE);
    lib.dwMagic = USBTR_LIB_MAGIC;
    EXPECT_TRUE(USBTRCheckLibContext(&lib, false, __FILE__, __LINE__));
    EXPECT_EQ(USBTRInit(nullptr, 0), USBTR_STATUS_GENERAL_ERROR); // no output: refused before allocating
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
        return std::all_of(info->aConfigs, info->aConfigs + USBTR_MAX_CONFIGS, [](auto &c) { return !c.pInterfaces; });
    }
};

TEST(TransportDescriptors, AReadersLayoutAndItsEndpoints)
{
    Parsed p(cat({uvcConfig(), config(1, cat({interface(0, 0, 1), endpoint(0x83, 0x01, 0x0200, 9)}), 2)}), 2);
    ASSERT_EQ(p.status, USBTR_STATUS_SUCCESS);
    const USBTR_CONFIG &c = p.config();
    EXPECT_EQ(Bytes({c.bLength, uint8_t(c.wTotalLength), c.bNumInterfaces, c.bConfigurationValue, c.bMaxPower}),
              Bytes({9, uint8_t(uvcConfig().size()), 2, 1, 0xFA}));
    ASSERT_EQ(c.pInterfaces[0].nAltSettings, 1u) << "the next interface is not an alternate setting";
    const USBTR_ENDPOINT &irq = c.pInterfaces[0].aAltSettings[0].aEndpoints[0];
    EXPECT_EQ(Bytes({irq.bLength, irq.bEndpointAddress, irq.bmAttributes, irq.bRefresh}), Bytes({7, 0x82, 3, 0}));
    ASSERT_EQ(c.pInterfaces[1].nAltSettings, 2u);
    const USBTR_ENDPOINT &iso = c.pInterfaces[1].aAltSettings[1].aEndpoints[0];
    EXPECT_EQ(std::vector<int>({iso.bEndpointAddress, iso.wMaxPacketSize, irq.wMaxPacketSize}),
              std::vector<int>({0x81, 0x0C00, 16}));
    const USBTR_ENDPOINT &audio = p.config(1).pInterfaces[0].aAltSettings[0].aEndpoints[0];
    EXPECT_EQ(Bytes({audio.bRefresh, audio.bSynchAddress}), Bytes({0xA7, 0xA8})) << "fields past 7 bytes";
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
    EXPECT_TRUE(Parsed(config(0, {})).keepsNothing());
    EXPECT_EQ(Parsed(config(2, interface(0, 0, 0))).config().pInterfaces[1].nAltSettings, 0u) << "no room left";

    Bytes overlong = uvcConfig(), tooShort = uvcConfig();
    overlong[2]++, tooShort[2] = 5, tooShort[3] = 0;
    const struct {
        const char *what;
        Bytes blob;
        uint8_t nConfigs = 1;
    } cases[] = {
        {"wTotalLength one beyond the data", overlong},
        {"wTotalLength below bLength", tooShort},
        {"33 interfaces", interfaces(33)},
        {"33 endpoints", endpoints(33)},
        {"129 alternate settings", alts(129)},
        {"endpoint bLength 6", config(1, cat({interface(0, 0, 1), endpoint(0x82, 0x03, 16, 6)}))},
        {"endpoint missing", config(1, interface(0, 0, 1))},
        {"endpoint beyond the end", config(1, cat({interface(0, 0, 1), {40, 5, 0x81, 2, 64, 0, 0}}))},
        {"class descriptor bLength 0", config(1, cat({interface(0, 0, 0), {0, 0x24, 1, 1}, interface(1, 0, 0)}))},
        {"descriptor of one byte", config(1, cat({{1}, interface(0, 0, 0)}))},
        {"8 bytes", {9, 2, 8, 0, 1, 1, 0, 0x80}},
        {"no configuration declared", uvcConfig(), 0},
        {"second configuration malformed", cat({uvcConfig(), endpoints(33)}), 2},
    };
    for (const auto &k : cases) {
        Parsed p(k.blob, k.nConfigs);
        EXPECT_EQ(p.status, USBTR_STATUS_COMM_ERROR) << k.what;
        EXPECT_TRUE(p.keepsNothing()) << k.what;
    }
}

} // namespace
