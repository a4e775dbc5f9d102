// Configuration descriptor parse and the skip of foreign descriptors, on byte
// arrays.  Every blob is copied into a heap block of exactly its size, so an
// out-of-bounds read shows under ASan; interface arrays left behind show
// under LSan.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>

#include "descblob.h"
#include "lnx/transport/usbtr.h"

using namespace descblob;

namespace {

struct Parsed {
    std::unique_ptr<USBTR_DEVICE_INFO> info{new USBTR_DEVICE_INFO()};
    int32_t status = -1;
    ~Parsed() { USBTRFreeConfigurations(info.get()); }
};

// Parses `configs` (the bytes after the device descriptor) for a device that
// declares nConfigs configurations.
std::unique_ptr<Parsed> parse(const Bytes &configs, uint8_t nConfigs = 1)
{
    auto p = std::make_unique<Parsed>();
    p->info->aDeviceDescriptor.bNumConfigurations = nConfigs;
    std::unique_ptr<uint8_t[]> exact(new uint8_t[configs.size() ? configs.size() : 1]);
    if (!configs.empty())
        memcpy(exact.get(), configs.data(), configs.size());
    p->status = USBTRParseConfigurations(p->info.get(), exact.get(), int32_t(configs.size()));
    return p;
}

void expectNothingAllocated(const USBTR_DEVICE_INFO &info)
{
    for (const USBTR_CONFIG &c : info.aConfigs)
        EXPECT_EQ(c.pInterfaces, nullptr);
}

// The UVC layout with interface 1 alt 1 replaced by n alternate settings.
Bytes configWithAlts(unsigned nAlts)
{
    Bytes c = configHeader(2);
    append(c, interface(0, 0, 0));
    for (unsigned a = 0; a < nAlts; a++) {
        append(c, interface(1, uint8_t(a), a == 0 ? 0 : 1, 2));
        if (a != 0)
            append(c, endpoint(0x81, 0x05, 0x0C00, 1));
    }
    finishConfig(c);
    return c;
}

TEST(TransportDescriptors, UvcLayoutGivesTwoInterfacesWithTheIsoEndpointInAlt1)
{
    auto p = parse(uvcConfig());
    ASSERT_EQ(p->status, USBTR_STATUS_SUCCESS);
    const USBTR_CONFIG &c = p->info->aConfigs[0];
    EXPECT_EQ(c.bLength, 9);
    EXPECT_EQ(c.bDescriptorType, 2);
    EXPECT_EQ(c.wTotalLength, uvcConfig().size());
    EXPECT_EQ(c.bNumInterfaces, 2);
    EXPECT_EQ(c.bConfigurationValue, 1);
    EXPECT_EQ(c.bmAttributes, 0x80);
    EXPECT_EQ(c.bMaxPower, 0xFA);
    ASSERT_NE(c.pInterfaces, nullptr);

    const USBTR_INTERFACE &i0 = c.pInterfaces[0];
    ASSERT_EQ(i0.nAltSettings, 1u);
    EXPECT_EQ(i0.aAltSettings[0].bInterfaceNumber, 0);
    EXPECT_EQ(i0.aAltSettings[0].bNumEndpoints, 1);
    EXPECT_EQ(i0.aAltSettings[0].bInterfaceSubClass, 1);
    const USBTR_ENDPOINT &irq = i0.aAltSettings[0].aEndpoints[0];
    EXPECT_EQ(irq.bLength, 7);
    EXPECT_EQ(irq.bDescriptorType, 5);
    EXPECT_EQ(irq.bEndpointAddress, 0x82);
    EXPECT_EQ(irq.bmAttributes, 0x03);
    EXPECT_EQ(irq.wMaxPacketSize, 16);
    EXPECT_EQ(irq.bInterval, 6);
    EXPECT_EQ(irq.bRefresh, 0);
    EXPECT_EQ(irq.bSynchAddress, 0);

    const USBTR_INTERFACE &i1 = c.pInterfaces[1];
    ASSERT_EQ(i1.nAltSettings, 2u);
    EXPECT_EQ(i1.aAltSettings[0].bAlternateSetting, 0);
    EXPECT_EQ(i1.aAltSettings[0].bNumEndpoints, 0);
    EXPECT_EQ(i1.aAltSettings[0].aEndpoints[0].bLength, 0) << "alt 0 keeps no endpoint";
    EXPECT_EQ(i1.aAltSettings[1].bInterfaceNumber, 1);
    EXPECT_EQ(i1.aAltSettings[1].bAlternateSetting, 1);
    ASSERT_EQ(i1.aAltSettings[1].bNumEndpoints, 1);
    const USBTR_ENDPOINT &iso = i1.aAltSettings[1].aEndpoints[0];
    EXPECT_EQ(iso.bEndpointAddress, 0x81);
    EXPECT_EQ(iso.bmAttributes, 0x05);
    EXPECT_EQ(iso.wMaxPacketSize, 0x0C00);
    EXPECT_EQ(iso.bInterval, 1);

    // Entries beyond bNumConfigurations stay zero.
    for (uint32_t k = 1; k < USBTR_MAX_CONFIGS; k++)
        EXPECT_EQ(p->info->aConfigs[k].bLength, 0);
}

TEST(TransportDescriptors, EndpointOptionalFieldsFollowItsLength)
{
    Bytes c = configHeader(1);
    append(c, interface(0, 0, 3));
    append(c, endpoint(0x81, 0x01, 0x0200, 1, 9));  // audio-style: refresh and synch address
    append(c, endpoint(0x82, 0x01, 0x0200, 1, 8));  // refresh only
    append(c, endpoint(0x83, 0x02, 0x0040, 0, 10)); // longer than 9: extra byte passed over
    finishConfig(c);
    auto p = parse(c);
    ASSERT_EQ(p->status, USBTR_STATUS_SUCCESS);
    const USBTR_ALTSETTING &alt = p->info->aConfigs[0].pInterfaces[0].aAltSettings[0];
    EXPECT_EQ(alt.aEndpoints[0].bRefresh, 0xA7);
    EXPECT_EQ(alt.aEndpoints[0].bSynchAddress, 0xA8);
    EXPECT_EQ(alt.aEndpoints[1].bRefresh, 0xA7);
    EXPECT_EQ(alt.aEndpoints[1].bSynchAddress, 0);
    EXPECT_EQ(alt.aEndpoints[2].bEndpointAddress, 0x83);
    EXPECT_EQ(alt.aEndpoints[2].bLength, 10);
}

TEST(TransportDescriptors, InterfaceWithoutRoomKeepsNoAlternateSetting)
{
    // Three interfaces declared, two present: the third has no budget left.
    Bytes c = configHeader(3);
    append(c, interface(0, 0, 0));
    append(c, interface(1, 0, 0));
    finishConfig(c);
    auto p = parse(c);
    ASSERT_EQ(p->status, USBTR_STATUS_SUCCESS);
    EXPECT_EQ(p->info->aConfigs[0].pInterfaces[0].nAltSettings, 1u);
    EXPECT_EQ(p->info->aConfigs[0].pInterfaces[1].nAltSettings, 1u);
    EXPECT_EQ(p->info->aConfigs[0].pInterfaces[2].nAltSettings, 0u);
}

TEST(TransportDescriptors, ZeroInterfacesAllocatesNothing)
{
    Bytes c = configHeader(0);
    finishConfig(c);
    auto p = parse(c);
    EXPECT_EQ(p->status, USBTR_STATUS_SUCCESS);
    EXPECT_EQ(p->info->aConfigs[0].bNumInterfaces, 0);
    expectNothingAllocated(*p->info);
}

TEST(TransportDescriptors, TwoConfigurationsAreParsedOneAfterTheOther)
{
    Bytes both = uvcConfig();
    Bytes second = configHeader(1, 2);
    append(second, interface(0, 0, 1));
    append(second, endpoint(0x83, 0x02, 512, 0));
    finishConfig(second);
    append(both, second);
    auto p = parse(both, 2);
    ASSERT_EQ(p->status, USBTR_STATUS_SUCCESS);
    EXPECT_EQ(p->info->aConfigs[0].bNumInterfaces, 2);
    EXPECT_EQ(p->info->aConfigs[1].bConfigurationValue, 2);
    EXPECT_EQ(p->info->aConfigs[1].pInterfaces[0].aAltSettings[0].aEndpoints[0].bEndpointAddress, 0x83);
}

// Each case is a well-formed UVC layout with one defect; all must be refused
// and leave no interface array behind.
TEST(TransportDescriptors, MalformedConfigurationsAreRefusedAndReleased)
{
    struct Case {
        const char *what;
        Bytes blob;
        uint8_t nConfigs = 1;
    };
    std::vector<Case> cases;

    {
        Bytes c = uvcConfig();
        c[2] = uint8_t(c.size() + 1); // wTotalLength one beyond the data
        cases.push_back({"wTotalLength beyond data", c});
    }
    {
        Bytes c = uvcConfig();
        c[0] = 8;
        cases.push_back({"configuration bLength 8", c});
    }
    {
        Bytes c = configHeader(33);
        for (int i = 0; i < 33; i++)
            append(c, interface(uint8_t(i), 0, 0));
        finishConfig(c);
        cases.push_back({"33 interfaces", c});
    }
    {
        Bytes c = configHeader(1);
        append(c, interface(0, 0, 33));
        for (int e = 0; e < 33; e++)
            append(c, endpoint(uint8_t(0x81 + e % 15), 0x02, 64, 0));
        finishConfig(c);
        cases.push_back({"33 endpoints", c});
    }
    {
        Bytes c = configHeader(2);
        append(c, interface(0, 0, 1));
        append(c, endpoint(0x82, 0x03, 16, 6, 6));
        append(c, interface(1, 0, 0));
        finishConfig(c);
        cases.push_back({"endpoint bLength 6", c});
    }
    {
        Bytes c = configHeader(1);
        append(c, interface(0, 0, 2));
        append(c, endpoint(0x81, 0x02, 64, 0));
        append(c, other(0x24, 9)); // passed over
        append(c, interface(0, 1, 0)); // stands where the second endpoint belongs
        finishConfig(c);
        cases.push_back({"descriptor type other than endpoint", c});
    }
    {
        Bytes c = configHeader(1);
        append(c, interface(0, 0, 1));
        Bytes ep = endpoint(0x81, 0x02, 64, 0);
        ep[0] = 40; // longer than the rest of the configuration
        append(c, ep);
        finishConfig(c);
        cases.push_back({"endpoint bLength beyond budget", c});
    }
    {
        Bytes c = configHeader(1);
        Bytes itf = interface(0, 0, 0);
        itf[0] = 8;
        append(c, itf);
        append(c, Bytes{0, 0, 0, 0});
        finishConfig(c);
        cases.push_back({"interface bLength 8", c});
    }
    {
        Bytes c = configHeader(1);
        append(c, interface(0, 0, 1));
        finishConfig(c);
        cases.push_back({"endpoint missing at the end", c});
    }
    for (uint8_t len : {0, 1}) {
        Bytes c = configHeader(2);
        append(c, interface(0, 0, 0));
        append(c, other(0x24, 13));
        Bytes bad = other(0x24, 13);
        bad[0] = len;
        append(c, bad);
        append(c, interface(1, 0, 0));
        finishConfig(c);
        cases.push_back({len == 0 ? "class descriptor bLength 0" : "class descriptor bLength 1", c});
    }
    {
        Bytes c = configHeader(1);
        append(c, other(0x24, 5));
        Bytes bad = other(0x24, 5);
        bad[0] = 200;
        append(c, bad);
        append(c, interface(0, 0, 0));
        finishConfig(c);
        cases.push_back({"class descriptor longer than the rest", c});
    }
    {
        Bytes c = uvcConfig();
        c[2] = 5;
        c[3] = 0; // wTotalLength shorter than the descriptor itself
        cases.push_back({"wTotalLength below bLength", c});
    }
    cases.push_back({"129 alternate settings", configWithAlts(129)});
    cases.push_back({"only 8 bytes", Bytes{9, 2, 8, 0, 1, 1, 0, 0x80}});
    cases.push_back({"no bytes at all", Bytes{}});
    cases.push_back({"zero configurations declared", uvcConfig(), 0});
    cases.push_back({"nine configurations declared", uvcConfig(), 9});
    {
        Bytes both = uvcConfig();
        Bytes second = configHeader(1, 2);
        append(second, interface(0, 0, 1));
        append(second, endpoint(0x83, 0x02, 512, 0, 6));
        finishConfig(second);
        append(both, second);
        cases.push_back({"second of two configurations malformed", both, 2});
    }
    {
        Bytes c = uvcConfig();
        cases.push_back({"second configuration missing", c, 2});
    }

    for (const Case &k : cases) {
        SCOPED_TRACE(k.what);
        auto p = parse(k.blob, k.nConfigs);
        EXPECT_EQ(p->status, USBTR_STATUS_COMM_ERROR);
        expectNothingAllocated(*p->info);
    }
}

TEST(TransportDescriptors, AlternateSettingLimitIs128)
{
    auto ok = parse(configWithAlts(128));
    ASSERT_EQ(ok->status, USBTR_STATUS_SUCCESS);
    const USBTR_INTERFACE &i1 = ok->info->aConfigs[0].pInterfaces[1];
    EXPECT_EQ(i1.nAltSettings, 128u);
    EXPECT_EQ(i1.aAltSettings[127].bAlternateSetting, 127);
    EXPECT_EQ(i1.aAltSettings[127].aEndpoints[0].bEndpointAddress, 0x81);

    auto bad = parse(configWithAlts(129));
    EXPECT_EQ(bad->status, USBTR_STATUS_COMM_ERROR);
}

TEST(TransportDescriptors, EndpointLimitIs32)
{
    Bytes c = configHeader(1);
    append(c, interface(0, 0, 32));
    for (int e = 0; e < 32; e++)
        append(c, endpoint(uint8_t(0x80 + e), 0x02, 64, 0));
    finishConfig(c);
    auto p = parse(c);
    ASSERT_EQ(p->status, USBTR_STATUS_SUCCESS);
    EXPECT_EQ(p->info->aConfigs[0].pInterfaces[0].aAltSettings[0].aEndpoints[31].bEndpointAddress, 0x80 + 31);
}

TEST(TransportDescriptors, InterfaceLimitIs32)
{
    Bytes c = configHeader(32);
    for (int i = 0; i < 32; i++)
        append(c, interface(uint8_t(i), 0, 0));
    finishConfig(c);
    auto p = parse(c);
    ASSERT_EQ(p->status, USBTR_STATUS_SUCCESS);
    EXPECT_EQ(p->info->aConfigs[0].pInterfaces[31].aAltSettings[0].bInterfaceNumber, 31);
}

// Cut a valid blob at every length: with the declared total intact the parse
// refuses it; with the total patched to the cut it walks into the broken
// structure and must stay inside the bytes it was given.
TEST(TransportDescriptors, TruncationAtEveryOffsetStaysInBounds)
{
    const Bytes full = uvcConfig();
    for (size_t n = 0; n < full.size(); n++) {
        SCOPED_TRACE(n);
        Bytes cut(full.begin(), full.begin() + long(n));
        auto p = parse(cut);
        EXPECT_EQ(p->status, USBTR_STATUS_COMM_ERROR);
        expectNothingAllocated(*p->info);

        if (n >= 9) {
            Bytes patched = cut;
            patched[2] = uint8_t(n);
            patched[3] = uint8_t(n >> 8);
            auto q = parse(patched);
            if (q->status != USBTR_STATUS_SUCCESS)
                expectNothingAllocated(*q->info);
            else
                EXPECT_NE(q->info->aConfigs[0].pInterfaces, nullptr);
        }
    }
    EXPECT_EQ(parse(full)->status, USBTR_STATUS_SUCCESS);
}

// Random byte corruption of valid layouts: never a crash, never a read
// outside the blob, and a refusal always releases what it allocated.
TEST(TransportDescriptors, CorruptedBlobsNeverEscapeTheirBytes)
{
    std::mt19937 rng(12345);
    Bytes twoConfigs = uvcConfig();
    append(twoConfigs, uvcConfig());
    const Bytes seeds[] = {uvcConfig(), twoConfigs, configWithAlts(5)};
    unsigned refused = 0, accepted = 0;
    for (int iter = 0; iter < 4000; iter++) {
        Bytes b = seeds[iter % 3];
        int flips = 1 + int(rng() % 4);
        for (int f = 0; f < flips; f++)
            b[rng() % b.size()] = uint8_t(rng());
        if (rng() % 4 == 0)
            b.resize(rng() % b.size());
        auto p = parse(b, iter % 3 == 1 ? 2 : 1);
        if (p->status == USBTR_STATUS_SUCCESS) {
            accepted++;
            for (const USBTR_CONFIG &c : p->info->aConfigs) {
                if (!c.pInterfaces)
                    continue;
                for (int i = 0; i < c.bNumInterfaces; i++)
                    EXPECT_LE(c.pInterfaces[i].nAltSettings, USBTR_MAX_ALTSETTINGS);
            }
        } else {
            refused++;
            EXPECT_EQ(p->status, USBTR_STATUS_COMM_ERROR);
            expectNothingAllocated(*p->info);
        }
    }
    // Both outcomes must have been exercised for the run to mean anything.
    EXPECT_GT(refused, 100u);
    EXPECT_GT(accepted, 100u);
}

// ---- USBTRSkipOtherDescriptors --------------------------------------------

struct SkipResult {
    int32_t status;
    ptrdiff_t advanced;
    int32_t remaining;
};

SkipResult skip(const Bytes &b)
{
    std::unique_ptr<uint8_t[]> exact(new uint8_t[b.size() ? b.size() : 1]);
    if (!b.empty())
        memcpy(exact.get(), b.data(), b.size());
    const uint8_t *p = exact.get();
    int32_t n = int32_t(b.size());
    int32_t st = USBTRSkipOtherDescriptors(&p, &n);
    return {st, p - exact.get(), n};
}

TEST(TransportSkipDescriptors, PassesOverForeignTypesAndStopsAtStandardOnes)
{
    for (uint8_t stop : {1, 2, 4, 5}) {
        SCOPED_TRACE(int(stop));
        Bytes b = other(0x24, 13);
        append(b, other(0x25, 5));
        append(b, iad(0, 2));
        append(b, other(0x0F, 4));
        append(b, other(stop, 9));
        SkipResult r = skip(b);
        EXPECT_EQ(r.status, USBTR_STATUS_SUCCESS);
        EXPECT_EQ(r.advanced, 13 + 5 + 8 + 4);
        EXPECT_EQ(r.remaining, 9);
    }
    // Standard descriptor first: nothing moves.
    SkipResult r = skip(interface(0, 0, 0));
    EXPECT_EQ(r.status, USBTR_STATUS_SUCCESS);
    EXPECT_EQ(r.advanced, 0);
}

TEST(TransportSkipDescriptors, FewerThanFourBytesEndTheSkip)
{
    for (size_t tail = 0; tail < 4; tail++) {
        Bytes b = other(0x24, 6);
        b.resize(6 + tail, 0xFF);
        SkipResult r = skip(b);
        EXPECT_EQ(r.status, USBTR_STATUS_SUCCESS);
        EXPECT_EQ(r.advanced, 6);
        EXPECT_EQ(r.remaining, int32_t(tail));
    }
}

TEST(TransportSkipDescriptors, BadLengthsAreErrors)
{
    for (uint8_t len : {0, 1}) {
        Bytes b = {len, 0x24, 0, 0, 0, 0};
        EXPECT_EQ(skip(b).status, USBTR_STATUS_COMM_ERROR) << int(len);
    }
    Bytes tooLong = {7, 0x24, 0, 0, 0, 0};
    EXPECT_EQ(skip(tooLong).status, USBTR_STATUS_COMM_ERROR);
    Bytes exact = {6, 0x24, 0, 0, 0, 0};
    SkipResult r = skip(exact);
    EXPECT_EQ(r.status, USBTR_STATUS_SUCCESS);
    EXPECT_EQ(r.remaining, 0);
}

} // namespace
