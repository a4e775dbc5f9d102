// Discovery end to end: sysfs of the simulated testbed walked by the
// transport, names, strings, filters, failures, and the usbfs root.
#include <algorithm>
#include <set>
#include <sys/stat.h>

#include "transport_e2e.h"

using namespace sim;
using transport_e2e::TransportE2E;

namespace {

std::set<std::string> names(const std::vector<USBTR_DEVICE_DESCRIPTION> &list)
{
    std::set<std::string> s;
    for (const auto &d : list)
        s.insert(d.szDeviceName);
    return s;
}

using Discovery = TransportE2E;

TEST_F(Discovery, NoSupportedReaderGivesAnEmptyList)
{
    testbed().addUnsupported(0x046D, 0xC077);
    testbed().addUnsupported(USBTR_READER_VENDOR_ID, 0x000F); // the vendor, but not a reader
    int32_t st = -1;
    auto list = enumerate(&st);
    EXPECT_EQ(st, USBTR_STATUS_SUCCESS);
    EXPECT_TRUE(list.empty());
    EXPECT_NE(traces().find("<== "), std::string::npos);
    EXPECT_EQ(traceCount("USBTREnumerate() --> 0,0 devices"), 1u);
}

TEST_F(Discovery, OneReaderIsDescribedCompletely)
{
    Reader &r = addReader(Model::T30);
    int32_t st = -1;
    auto list = enumerate(&st);
    ASSERT_EQ(st, USBTR_STATUS_SUCCESS);
    ASSERT_EQ(list.size(), 1u);
    const USBTR_DEVICE_DESCRIPTION &d = list[0];
    EXPECT_EQ(d.wVid, USBTR_READER_VENDOR_ID);
    EXPECT_EQ(d.wPid, 0x000D);
    EXPECT_EQ(d.wRev, 0x0100);
    char expected[256];
    snprintf(expected, sizeof(expected), "%04x_%04x_%04x_%03u_%s", r.vendorId(), r.productId(), r.bcdDevice(),
             r.busnum(), r.sysfsName().c_str());
    EXPECT_STREQ(d.szDeviceName, expected);
    EXPECT_EQ(std::string(d.szDeviceName), r.cameraName());
    EXPECT_STREQ(d.szManufacturer, "Tessary Biometrics");
    EXPECT_STREQ(d.szDescription, "Tessary 30 Fingerprint Reader");
    EXPECT_EQ(std::string(d.szSerialNumber), r.serial());
    EXPECT_EQ(traceCount("Found device " + r.sysfsName()), 1u);
    EXPECT_EQ(traceCount("Verified device " + r.sysfsName()), 1u);
    // Root hubs and interface entries are not devices.
    EXPECT_EQ(traceCount("Found device usb"), 0u);
    EXPECT_EQ(traceCount("Found device " + r.sysfsName() + ":"), 0u);
    EXPECT_EQ(traceCount("USBTREnumerate() --> 0,1 devices"), 1u);
    EXPECT_EQ(r.log().size(), 0u) << "discovery sends nothing to a device";
}

TEST_F(Discovery, SupportedReadersAreKeptBesideUnsupportedAndMalformedDevices)
{
    Reader &a = addReader(Model::T10);
    Reader &b = addReader(Model::T20);
    testbed().addUnsupported(0x046D, 0xC077);

    DeviceOptions truncated;
    truncated.descriptors = readerDescriptors(Model::T30);
    truncated.descriptors->resize(truncated.descriptors->size() - 10); // wTotalLength beyond the data
    addReader(Model::T30, truncated);

    DeviceOptions badEndpoint;
    badEndpoint.descriptors = readerDescriptors(Model::T30);
    auto &bytes = *badEndpoint.descriptors;
    for (size_t i = 18; i + 1 < bytes.size(); i += bytes[i]) {
        if (bytes[i + 1] == 5) {
            bytes[i] = 6; // endpoint descriptor of length 6
            break;
        }
        if (bytes[i] == 0)
            break;
    }
    addReader(Model::T30, badEndpoint);

    DeviceOptions noConfig;
    noConfig.descriptors = readerDescriptors(Model::T30);
    (*noConfig.descriptors)[17] = 0; // bNumConfigurations 0
    addReader(Model::T30, noConfig);

    DeviceOptions tiny;
    tiny.descriptors = readerDescriptors(Model::T30);
    tiny.descriptors->resize(17); // not even a whole device descriptor
    addReader(Model::T30, tiny);

    DeviceOptions unreadable;
    unreadable.unreadableAttributes = {"descriptors"};
    addReader(Model::T40, unreadable);

    Reader &c = addReader(Model::T40);

    int32_t st = -1;
    auto list = enumerate(&st);
    ASSERT_EQ(st, USBTR_STATUS_SUCCESS);
    EXPECT_EQ(names(list), (std::set<std::string>{a.cameraName(), b.cameraName(), c.cameraName()}));
    EXPECT_GE(traceCount("read("), 1u) << "the unreadable descriptors file is reported";
}

TEST_F(Discovery, TheTableGrowsPastEightAndSixteenReaders)
{
    std::set<std::string> expected;
    for (int i = 0; i < 17; i++)
        expected.insert(addReader(Model(i % 4)).cameraName());
    int32_t st = -1;
    auto list = enumerate(&st);
    ASSERT_EQ(st, USBTR_STATUS_SUCCESS);
    EXPECT_EQ(list.size(), 17u);
    EXPECT_EQ(names(list), expected);
}

TEST_F(Discovery, StringsAreTrimmedAndTheModelNameStandsInForAMissingProduct)
{
    DeviceOptions named;
    named.product = std::string("Reader");
    named.manufacturer = std::string("abc \t");
    named.serial = std::string("  S/N 42  ");
    Reader &r1 = addReader(Model::T10, named);

    DeviceOptions noProduct;
    noProduct.product = std::nullopt;
    noProduct.serial = std::nullopt;
    noProduct.manufacturer = std::nullopt;
    Reader &r2 = addReader(Model::T20, noProduct);

    DeviceOptions blank;
    blank.rawAttributes = {{"product", "  \n"}, {"manufacturer", "\n"}, {"serial", ""}};
    Reader &r3 = addReader(Model::T40, blank);

    // The last byte read always goes (it is the newline of a sysfs value);
    // a value longer than the field keeps what fits.
    const std::string longSerial(200, 'x');
    DeviceOptions odd;
    odd.rawAttributes = {{"product", "Reader X"}, {"manufacturer", "M \t\n"}, {"serial", longSerial + "\n"}};
    Reader &r4 = addReader(Model::T30, odd);

    int32_t st = -1;
    auto list = enumerate(&st);
    ASSERT_EQ(st, USBTR_STATUS_SUCCESS);
    ASSERT_EQ(list.size(), 4u);
    for (const auto &d : list) {
        std::string name = d.szDeviceName;
        if (name == r4.cameraName()) {
            EXPECT_STREQ(d.szDescription, "Reader");
            EXPECT_STREQ(d.szManufacturer, "M");
            EXPECT_EQ(std::string(d.szSerialNumber), std::string(127, 'x'));
        } else if (name == r1.cameraName()) {
            EXPECT_STREQ(d.szDescription, "Reader");
            EXPECT_STREQ(d.szManufacturer, "abc");
            EXPECT_STREQ(d.szSerialNumber, "  S/N 42");
        } else if (name == r2.cameraName()) {
            EXPECT_STREQ(d.szDescription, "Tessary 20 Fingerprint Reader");
            EXPECT_STREQ(d.szManufacturer, "");
            EXPECT_STREQ(d.szSerialNumber, "");
        } else {
            EXPECT_EQ(name, r3.cameraName());
            EXPECT_STREQ(d.szDescription, "Tessary 40 Fingerprint Reader");
            EXPECT_STREQ(d.szManufacturer, "");
            EXPECT_STREQ(d.szSerialNumber, "");
        }
    }
    EXPECT_GE(traceCount("open("), 3u) << "missing string files are reported";
}

struct BadNumber {
    const char *attribute;
    bool unreadable;
    const char *contents;
    int32_t status;
};

class DiscoveryBadNumbers : public TransportE2E, public ::testing::WithParamInterface<BadNumber> {};

// A bus or device number that cannot be read or holds no number ends the
// whole walk, also for a device that would not have been kept.
TEST_P(DiscoveryBadNumbers, EndTheWholeWalkWithTheMappedStatus)
{
    const BadNumber &p = GetParam();
    addReader(Model::T10);
    DeviceOptions o;
    o.vendorId = 0x046D;
    o.productId = 0xC077;
    o.descriptors = otherDeviceDescriptors(0x046D, 0xC077);
    if (p.unreadable)
        o.unreadableAttributes = {p.attribute};
    else
        o.rawAttributes = {{p.attribute, p.contents}};
    testbed().addDevice(o);
    addReader(Model::T20);
    int32_t st = -1;
    auto list = enumerate(&st);
    EXPECT_EQ(st, p.status);
    EXPECT_TRUE(list.empty());

    USBTR_DEVICE_INFO **table = reinterpret_cast<USBTR_DEVICE_INFO **>(0x1);
    int32_t count = -1, filtered = -1;
    USBTR_DEVICE_INFO *first = reinterpret_cast<USBTR_DEVICE_INFO *>(0x1);
    EXPECT_EQ(USBTRInternalEnumerate(nullptr, &table, &count, &filtered, &first), p.status);
    EXPECT_EQ(table, nullptr);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(filtered, 0);
    EXPECT_EQ(first, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Cases, DiscoveryBadNumbers,
                         ::testing::Values(BadNumber{"busnum", true, "", USBTR_STATUS_NO_DEVICE},
                                           BadNumber{"devnum", true, "", USBTR_STATUS_NO_DEVICE},
                                           BadNumber{"busnum", false, "abc\n", USBTR_STATUS_COMM_ERROR},
                                           BadNumber{"devnum", false, "\n", USBTR_STATUS_COMM_ERROR}));

TEST_F(Discovery, NumbersAreReadAsIntegersAndPrintedWithThreeDigits)
{
    DeviceOptions o;
    o.rawAttributes = {{"busnum", "0x10\n"}, {"devnum", "  7\n"}};
    Reader &r = addReader(Model::T10, o);
    USBTR_DEVICE_INFO **table = nullptr;
    int32_t count = 0, filtered = 0;
    USBTR_DEVICE_INFO *first = nullptr;
    ASSERT_EQ(USBTRInternalEnumerate(nullptr, &table, &count, &filtered, &first), USBTR_STATUS_SUCCESS);
    ASSERT_EQ(count, 1);
    EXPECT_EQ(first, table[0]);
    EXPECT_STREQ(first->szBusNum, "016");
    EXPECT_STREQ(first->szDevNum, "007");
    EXPECT_EQ(std::string(first->szSysfsName), r.sysfsName());
    EXPECT_EQ(first->dwState, USBTR_DEVINFO_SELECTED);
    EXPECT_EQ(first->aConfigs[0].bNumInterfaces, 2);
    ASSERT_NE(first->aConfigs[0].pInterfaces, nullptr);
    EXPECT_EQ(first->aConfigs[0].pInterfaces[1].nAltSettings, 2u);
    EXPECT_EQ(first->aConfigs[0].pInterfaces[1].aAltSettings[1].aEndpoints[0].bEndpointAddress, kIsoEndpoint);
    USBTRFreeDevices(table, count);
}

TEST_F(Discovery, RequestsFilterByProductAndSelectByName)
{
    Reader &a = addReader(Model::T30);
    Reader &b = addReader(Model::T30);
    Reader &c = addReader(Model::T20);
    ASSERT_NE(a.cameraName(), b.cameraName());

    USBTR_DEVICE_DESCRIPTION byPid = {};
    byPid.wPid = 0x000C;
    int32_t st = -1;
    auto list = enumerate(&st, &byPid);
    ASSERT_EQ(st, USBTR_STATUS_SUCCESS);
    EXPECT_EQ(names(list), (std::set<std::string>{c.cameraName()}));

    USBTR_DEVICE_DESCRIPTION otherVendor = {};
    otherVendor.wVid = 0x046D;
    EXPECT_TRUE(enumerate(&st, &otherVendor).empty());
    EXPECT_EQ(st, USBTR_STATUS_SUCCESS);

    USBTR_DEVICE_DESCRIPTION second = requestByName(b.cameraName());
    list = enumerate(&st, &second);
    ASSERT_EQ(st, USBTR_STATUS_SUCCESS);
    EXPECT_EQ(names(list), (std::set<std::string>{b.cameraName()}));

    USBTR_DEVICE_INFO **table = nullptr;
    int32_t count = 0, filtered = 0;
    USBTR_DEVICE_INFO *first = nullptr;
    ASSERT_EQ(USBTRInternalEnumerate(&second, &table, &count, &filtered, &first), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(filtered, 1);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(std::string(first->szSysfsName), b.sysfsName());
    USBTRFreeDevices(table, count);

    USBTR_DEVICE_DESCRIPTION nobody = requestByName("3a5c_000d_0100_001_9-9");
    EXPECT_TRUE(enumerate(&st, &nobody).empty());
    EXPECT_EQ(st, USBTR_STATUS_SUCCESS);
}

// ---- the usbfs root ------------------------------------------------------------

class DiscoveryRoot : public TransportE2E {
protected:
    std::string makeDir(const std::vector<std::string> &entries)
    {
        std::string d = traceDir_ + "/root-XXXXXX";
        EXPECT_NE(mkdtemp(d.data()), nullptr);
        for (const auto &e : entries)
            EXPECT_EQ(mkdir((d + "/" + e).c_str(), 0755), 0);
        return d;
    }
};

TEST_F(DiscoveryRoot, AnEnvironmentRootWithABusDirectoryWins)
{
    addReader(Model::T10);
    std::string d = makeDir({"1", "001"});
    setenv("USB_DEVFS_PATH", d.c_str(), 1);
    lib();
    EXPECT_EQ(std::string(gszUSBFSRoot), d);
    // A second initialisation does not search again.
    setenv("USB_DEVFS_PATH", "/nonexistent", 1);
    void *second = nullptr;
    EXPECT_EQ(USBTRInit(&second, 0), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(std::string(gszUSBFSRoot), d);
    EXPECT_EQ(USBTRDone(second), USBTR_STATUS_SUCCESS);
    unsetenv("USB_DEVFS_PATH");
}

TEST_F(DiscoveryRoot, AnEnvironmentRootWithoutBusDirectoriesFallsBack)
{
    Reader &r = addReader(Model::T10);
    std::string d = makeDir({"1", "0001", "00a", "abc"});
    setenv("USB_DEVFS_PATH", d.c_str(), 1);
    lib();
    EXPECT_STREQ(gszUSBFSRoot, "/dev/bus/usb");
    unsetenv("USB_DEVFS_PATH");
    // The fallback root reaches the simulated node.
    USBTR_CONTEXT *ctx = nullptr;
    ASSERT_EQ(USBTROpen(lib(), nullptr, 0, &ctx), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(r.resetCount(), 1u);
    EXPECT_EQ(USBTRClose(ctx), USBTR_STATUS_SUCCESS);
}

TEST_F(DiscoveryRoot, AMissingEnvironmentRootFallsBack)
{
    addReader(Model::T10);
    setenv("USB_DEVFS_PATH", (traceDir_ + "/missing").c_str(), 1);
    lib();
    EXPECT_STREQ(gszUSBFSRoot, "/dev/bus/usb");
    unsetenv("USB_DEVFS_PATH");
}

} // namespace

namespace {

// Without any USB device there is no sysfs device directory: the first
// initialisation fails but still hands out a valid handle, later ones succeed
// without searching again, and a walk reports the missing directory.
TEST_F(Discovery, AFailedFirstInitialisationIsNotRepeated)
{
    struct stat st;
    if (stat("/sys/bus/usb/devices", &st) == 0)
        GTEST_SKIP() << "this testbed shows a sysfs device directory without devices";
    void *first = nullptr;
    EXPECT_EQ(USBTRInit(&first, 0), USBTR_STATUS_GENERAL_ERROR);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(gGlobalInitialised, 1u);
    void *second = nullptr;
    EXPECT_EQ(USBTRInit(&second, 0), USBTR_STATUS_SUCCESS);
    USBTR_DEVICE_LIST *list = reinterpret_cast<USBTR_DEVICE_LIST *>(0x1);
    EXPECT_EQ(USBTREnumerate(first, nullptr, &list), USBTR_STATUS_GENERAL_ERROR);
    EXPECT_EQ(list, reinterpret_cast<USBTR_DEVICE_LIST *>(0x1));
    EXPECT_EQ(traceCount("Unable to opendir(/sys/bus/usb/devices): "), 1u);
    EXPECT_EQ(USBTRDone(first), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBTRDone(second), USBTR_STATUS_SUCCESS);
}

} // namespace
