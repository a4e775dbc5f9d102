// The transport end to end against simulated readers: discovery through
// sysfs, open and close on the wire, control transfers and registers, and a
// reader that goes away.  Every case runs in its own process (ctest does):
// the transport's process-wide state is set up once.
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sys/stat.h>

#include "lnx/transport/usbtr.h"
#include "simtest.h"

using namespace sim;
using Bytes = std::vector<uint8_t>;

namespace {

class Transport : public SimTest {
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        traceDir_ = std::string(getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp") + "/transport-XXXXXX";
        ASSERT_NE(mkdtemp(traceDir_.data()), nullptr);
        setenv("ZTTRACE_PATH", traceDir_.c_str(), 1); // before the first library call
    }
    void TearDown() override
    {
        EXPECT_TRUE(ctx_ == nullptr || USBTRClose(ctx_) == USBTR_STATUS_SUCCESS);
        EXPECT_TRUE(lib_ == nullptr || USBTRDone(lib_) == USBTR_STATUS_SUCCESS);
        SimTest::TearDown();
        std::filesystem::remove_all(traceDir_);
    }
    void *lib()
    {
        EXPECT_TRUE(lib_ != nullptr || USBTRInit(&lib_, 0) == USBTR_STATUS_SUCCESS);
        return lib_;
    }
    size_t traceCount(const std::string &text) const
    {
        std::ifstream f(traceDir_ + "/traces.log");
        const std::string all{std::istreambuf_iterator<char>(f), {}};
        size_t n = 0;
        for (size_t pos = all.find(text); pos != std::string::npos; pos = all.find(text, pos + 1))
            n++;
        return n;
    }
    // What an enumeration for this request lists; it must succeed.
    std::vector<USBTR_DEVICE_DESCRIPTION> enumerate(const USBTR_DEVICE_DESCRIPTION *pRequest = nullptr)
    {
        USBTR_DEVICE_LIST *list = nullptr;
        EXPECT_EQ(USBTREnumerate(lib(), pRequest, &list), USBTR_STATUS_SUCCESS);
        std::vector<USBTR_DEVICE_DESCRIPTION> out(list->aDevices, list->aDevices + list->nCount);
        free(list);
        return out;
    }
    std::set<std::string> names(const USBTR_DEVICE_DESCRIPTION &request)
    {
        std::set<std::string> out;
        for (const USBTR_DEVICE_DESCRIPTION &d : enumerate(&request))
            out.insert(d.szDeviceName);
        return out;
    }
    static USBTR_DEVICE_DESCRIPTION byName(const std::string &name)
    {
        USBTR_DEVICE_DESCRIPTION r = {};
        snprintf(r.szDeviceName, sizeof(r.szDeviceName), "%s", name.c_str());
        return r;
    }
    // Device nodes and sysfs files the library holds open.
    static size_t deviceFds()
    {
        size_t n = 0;
        for (const std::string &link : openFds())
            n += link.find("/bus/usb/") != std::string::npos || link.find("/sys/") != std::string::npos;
        return n;
    }
    std::string traceDir_;
    void *lib_ = nullptr;
    USBTR_CONTEXT *ctx_ = nullptr;
};

TEST_F(Transport, DiscoveryKeepsReadersWithTheirStringsBesideOtherDevices)
{
    testbed().addUnsupported(0x046D, 0x000D);                 // a reader's product id, another vendor
    testbed().addUnsupported(USBTR_READER_VENDOR_ID, 0x000F); // the vendor, but not a reader
    Reader &plain = addReader(Model::T30);
    DeviceOptions o;
    o.product = "Reader", o.manufacturer = "abc \t", o.serial = "  S/N 42  ";
    Reader &named = addReader(Model::T10, o);
    o = {}, o.product = o.manufacturer = o.serial = std::nullopt;
    Reader &bare = addReader(Model::T20, o);
    o = {}, o.rawAttributes = {{"product", "Reader X"}, {"manufacturer", "M \t\n"}, {"serial", std::string(200, 'x')}};
    Reader &raw = addReader(Model::T40, o); // the last byte read always goes: it is a value's newline
    for (int defect = 0; defect < 4; defect++) {
        o = {}, o.descriptors = readerDescriptors(Model::T30);
        if (defect == 0)
            o.descriptors->resize(o.descriptors->size() - 10); // wTotalLength beyond the data
        else if (defect == 1)
            (*o.descriptors)[17] = 0; // no configuration
        else if (defect == 2)
            o.descriptors->resize(17); // not even a device descriptor
        else
            o.unreadableAttributes = {"descriptors"};
        addReader(Model::T30, o);
    }
    const std::vector<USBTR_DEVICE_DESCRIPTION> found = enumerate();
    ASSERT_EQ(found.size(), 4u);
    const std::map<std::string, std::vector<std::string>> expected = {
        {plain.cameraName(), {"3a5c:000d:0100", "Tessary 30 Fingerprint Reader", "Tessary Biometrics", plain.serial()}},
        {named.cameraName(), {"3a5c:000b:0100", "Reader", "abc", "  S/N 42"}},
        {bare.cameraName(), {"3a5c:000c:0100", "Tessary 20 Fingerprint Reader", "", ""}},
        {raw.cameraName(), {"3a5c:000e:0100", "Reader", "M", std::string(127, 'x')}}};
    for (const USBTR_DEVICE_DESCRIPTION &d : found) {
        char ids[16];
        snprintf(ids, sizeof(ids), "%04x:%04x:%04x", d.wVid, d.wPid, d.wRev);
        ASSERT_EQ(expected.count(d.szDeviceName), 1u) << d.szDeviceName;
        EXPECT_EQ(std::vector<std::string>({ids, d.szDescription, d.szManufacturer, d.szSerialNumber}),
                  expected.at(d.szDeviceName));
    }
    EXPECT_EQ(traceCount("Verified device " + plain.sysfsName()), 1u);
    EXPECT_EQ(traceCount("Found device usb"), 0u) << "root hubs are not devices";
    EXPECT_EQ(traceCount("USBTREnumerate() --> 0,4 devices"), 1u);
    EXPECT_EQ(plain.log().size(), 0u) << "discovery sends nothing to a device";
}

TEST_F(Transport, DiscoveryReadsNumbersFiltersByProductAndSelectsByName)
{
    DeviceOptions o;
    o.rawAttributes = {{"busnum", "0x10\n"}, {"devnum", "  7\n"}};
    Reader &a = addReader(Model::T30, o);
    Reader &b = addReader(Model::T30), &c = addReader(Model::T20);
    for (int i = 0; i < 15; i++) // the table grows past sixteen entries
        addReader(Model::T10);
    USBTR_DEVICE_INFO **table = nullptr, *first = nullptr;
    int32_t count = 0, filtered = 0;
    const USBTR_DEVICE_DESCRIPTION request = byName(b.cameraName());
    ASSERT_EQ(USBTRInternalEnumerate(&request, &table, &count, &filtered, &first), USBTR_STATUS_SUCCESS);
    EXPECT_TRUE(count == 18 && filtered == 1 && first->szSysfsName == b.sysfsName());
    auto *pA = *std::find_if(table, table + count, [&](auto *d) { return d->szSysfsName == a.sysfsName(); });
    EXPECT_EQ(std::string(pA->szBusNum) + "/" + pA->szDevNum, "016/007");
    EXPECT_EQ(pA->aConfigs[0].pInterfaces[1].aAltSettings[1].aEndpoints[0].bEndpointAddress, kIsoEndpoint);
    USBTRFreeDevices(table, count);
    EXPECT_EQ(enumerate().size(), 18u);
    EXPECT_EQ(names(request), std::set<std::string>{b.cameraName()});
    USBTR_DEVICE_DESCRIPTION product = {}, vendor = {};
    product.wPid = 0x000C, vendor.wVid = 0x046D;
    EXPECT_EQ(names(product), std::set<std::string>{c.cameraName()});
    EXPECT_TRUE(names(vendor).empty() && names(byName("3a5c_000d_0100_001_9-9")).empty());
}

// A bus number that cannot be read ends the whole walk, for any device.
TEST_F(Transport, AnUnreadableBusNumberEndsTheWalk)
{
    addReader(Model::T10);
    DeviceOptions o;
    o.vendorId = 0x046D, o.productId = 0xC077, o.descriptors = otherDeviceDescriptors(0x046D, 0xC077);
    o.unreadableAttributes = {"busnum"};
    testbed().addDevice(o);
    USBTR_DEVICE_LIST *list = nullptr;
    EXPECT_EQ(USBTREnumerate(lib(), nullptr, &list), USBTR_STATUS_NO_DEVICE);
    EXPECT_EQ(list, nullptr);
}

TEST_F(Transport, AnEnvironmentRootWithABusDirectoryIsTheUsbfsRoot)
{
    addReader(Model::T10);
    const std::string root = traceDir_ + "/root";
    ASSERT_TRUE(std::filesystem::create_directories(root + "/001"));
    setenv("USB_DEVFS_PATH", root.c_str(), 1);
    lib();
    EXPECT_EQ(std::string(gszUSBFSRoot), root);
    setenv("USB_DEVFS_PATH", "/nonexistent", 1);
    void *second = nullptr;
    EXPECT_EQ(USBTRInit(&second, 0), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(std::string(gszUSBFSRoot), root) << "searched once";
    EXPECT_EQ(USBTRDone(second), USBTR_STATUS_SUCCESS);
    unsetenv("USB_DEVFS_PATH");
}

// Without any USB device there is no sysfs device directory: the first
// initialisation fails but hands out a handle, later ones do not search again.
TEST_F(Transport, AFailedFirstInitialisationIsNotRepeated)
{
    struct stat st;
    if (stat("/sys/bus/usb/devices", &st) == 0)
        GTEST_SKIP() << "this testbed shows a sysfs device directory without devices";
    void *second = nullptr;
    EXPECT_EQ(USBTRInit(&lib_, 0), USBTR_STATUS_GENERAL_ERROR);
    ASSERT_NE(lib_, nullptr);
    EXPECT_EQ(USBTRInit(&second, 0), USBTR_STATUS_SUCCESS);
    USBTR_DEVICE_LIST *list = nullptr;
    EXPECT_EQ(USBTREnumerate(lib_, nullptr, &list), USBTR_STATUS_GENERAL_ERROR);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(traceCount("Unable to opendir(/sys/bus/usb/devices): "), 1u);
    EXPECT_EQ(USBTRDone(second), USBTR_STATUS_SUCCESS);
}

TEST_F(Transport, OpenByNameSendsTheSequenceFillsTheContextAndCloseReleasesAll)
{
    Reader &a = addReader(Model::T30), &b = addReader(Model::T30), &c = addReader(Model::T10);
    USBTR_DEVICE_DESCRIPTION request = byName(b.cameraName());
    ASSERT_EQ(USBTROpen(lib(), &request, 0, &ctx_), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(a.log().size(), 0u);
    std::vector<std::string> sequence;
    for (const IoctlRecord &r : b.log())
        sequence.push_back(r.name + " " + std::to_string(r.interface) + " " + std::to_string(r.err));
    EXPECT_EQ(sequence, std::vector<std::string>({"IOCTL 0 61", "RESET 0 0", "SETCONFIGURATION 1 0",
                                                  "CLAIMINTERFACE 1 0", "SETINTERFACE 1 0"}));
    EXPECT_EQ(b.log()[0].innerCode, int(USBDEVFS_DISCONNECT));
    EXPECT_TRUE(b.interfaceClaimed(1));
    EXPECT_EQ(b.currentAltSetting(1), 0);
    EXPECT_EQ(USBTRHandleCount(), 1u);
    EXPECT_EQ(deviceFds(), 1u);
    EXPECT_FALSE(testbed().holdLock(b).held()) << "the node is locked while open";
    EXPECT_EQ(ctx_->iIsoReadEP, kIsoEndpoint);
    EXPECT_EQ(ctx_->pVDDeviceInfo, &gDeviceTable[2].aVideoInfo);
    const USBVD_IMAGE_FORMAT &f = ctx_->aImageFormatList.aFormats[0];
    EXPECT_EQ(std::vector<uint64_t>({ctx_->aImageFormatList.nCount, f.dwWidth, f.dwHeight, f.dwImageSize}),
              std::vector<uint64_t>({1, 1280, 512, 1280 * 1024}));
    EXPECT_EQ(memcmp(&f.dwFourCC, "YUYV", 4), 0);
    EXPECT_EQ(ctx_->dwFrameInterval, 666666u);
    USBTR_IDENTITY id = {};
    EXPECT_EQ(USBTRDeviceInfo(ctx_, &id), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(std::vector<int>({id.wVid, id.wPid, id.wRev}), std::vector<int>({0x3A5C, 0x000D, 0x0100}));
    EXPECT_EQ(traceCount("Found ISO IN EP at 0x81"), 1u);
    EXPECT_EQ(USBTRClose(std::exchange(ctx_, nullptr)), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBTRHandleCount(), 0u);
    EXPECT_EQ(deviceFds(), 0u);
    EXPECT_TRUE(testbed().holdLock(b).held()) << "the lock is released at close";

    request = byName(c.cameraName()); // the small reader, its own format
    ASSERT_EQ(USBTROpen(lib(), &request, 0, &ctx_), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(ctx_->aImageFormatList.aFormats[0].dwHeight, 240u);
    EXPECT_EQ(traceCount("Frame interval is 333333 (30 fps)"), 1u);
    USBTR_CONTEXT *none = nullptr;
    request = byName("3a5c_000d_0100_001_7-7");
    EXPECT_EQ(USBTROpen(lib(), &request, 0, &none), USBTR_STATUS_NO_DEVICE);
    request = {}, request.wPid = 0x000E;
    EXPECT_EQ(USBTROpen(lib(), &request, 0, &none), USBTR_STATUS_NO_DEVICE);
    EXPECT_EQ(none, nullptr);
}

TEST_F(Transport, AReaderHeldElsewhereIsBusyAtOnceAndUntouched)
{
    Reader &r = addReader(Model::T40);
    LockHolder other = testbed().holdLockInChild(r);
    ASSERT_TRUE(other.held());
    EXPECT_EQ(USBTROpen(lib(), nullptr, 0, &ctx_), USBTR_STATUS_DEVICE_BUSY);
    EXPECT_EQ(r.resetCount(), 0u);
    EXPECT_EQ(deviceFds(), 0u);
    other.release();
    ASSERT_EQ(USBTROpen(lib(), nullptr, 0, &ctx_), USBTR_STATUS_SUCCESS);
    USBTR_CONTEXT *second = nullptr;
    EXPECT_EQ(USBTROpen(lib(), nullptr, 0, &second), USBTR_STATUS_DEVICE_BUSY) << "also from this process";
    EXPECT_EQ(USBTRHandleCount(), 1u);
    void *extra = nullptr; // closing a library context with a handle open is reported, not refused
    ASSERT_EQ(USBTRInit(&extra, 0), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBTRDone(extra), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(traceCount("Checking handle count (1) to be 0"), 1u);
}

class OpenFaults : public Transport, public ::testing::WithParamInterface<std::tuple<unsigned long, int, int32_t>> {};

// Whatever step fails, the open stops there and leaves no descriptor, lock or handle.
TEST_P(OpenFaults, LeaveNothingBehind)
{
    const auto [request, err, status] = GetParam();
    Reader &r = addReader(Model::T30);
    r.failIoctl(request, err, When::always());
    EXPECT_EQ(USBTROpen(lib(), nullptr, 0, &ctx_), status);
    EXPECT_EQ(deviceFds(), 0u);
    EXPECT_EQ(USBTRHandleCount(), 0u);
    EXPECT_TRUE(testbed().holdLock(r).held());
    ASSERT_FALSE(r.log().empty());
    EXPECT_EQ(r.log().back().request, request);
}

INSTANTIATE_TEST_SUITE_P(Steps, OpenFaults,
                         ::testing::Values(std::make_tuple(USBDEVFS_RESET, EPERM, USBTR_STATUS_ACCESS_DENIED),
                                           std::make_tuple(USBDEVFS_SETCONFIGURATION, EBUSY, USBTR_STATUS_COMM_ERROR),
                                           std::make_tuple(USBDEVFS_SETINTERFACE, EAGAIN, USBTR_STATUS_TIMEOUT)));

TEST_F(Transport, ControlTransfersAndRegistersOnTheWire)
{
    Reader &r = addReader(Model::T30);
    ASSERT_EQ(USBTROpen(lib(), nullptr, 0, &ctx_), USBTR_STATUS_SUCCESS);
    r.clearLog();
    r.setReg(0x1234, 0xA5);
    uint8_t ask[11] = {0x02, 0x12, 0x34}, reply[11] = {};
    ASSERT_EQ(USBTRControlTransferEx(ctx_, 0x21, 0x01, 0x0700, 0x0600, ask, 11, 1000), USBTR_STATUS_SUCCESS);
    ASSERT_EQ(USBTRControlTransferEx(ctx_, 0xA1, 0x81, 0x0700, 0x0600, reply, 11, 2000), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(reply[3], 0xA5);
    const uint8_t values[3] = {0x11, 0x22, 0x33};
    ASSERT_EQ(USBTRWriteRegisters(ctx_, 0x2000, values, 3), USBTR_STATUS_SUCCESS);
    ASSERT_EQ(USBTRReadRegisters(ctx_, 0x1FFF, reply, 4), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(Bytes(reply, reply + 4), Bytes({r.reg(0x1FFF), 0x11, 0x22, 0x33}));
    EXPECT_EQ(USBTRWriteRegisters(ctx_, 0x2000, nullptr, 0), USBTR_STATUS_SUCCESS);
    std::vector<uint8_t> big(70000, 0xEE);
    EXPECT_EQ(USBTRReadRegisters(ctx_, 0, big.data(), big.size()), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(big[70000 % 65536], 0xEE) << "nothing beyond the setup's length is written";
    std::vector<std::vector<unsigned>> setups;
    for (const IoctlRecord &c : r.controlTransfers())
        setups.push_back({c.bRequestType, c.bRequest, c.wValue, c.wIndex, c.wLength, c.timeout});
    EXPECT_EQ(setups, std::vector<std::vector<unsigned>>({{0x21, 0x01, 0x0700, 0x0600, 11, 1000},
                                                          {0xA1, 0x81, 0x0700, 0x0600, 11, 2000},
                                                          {0x40, 12, 0x2000, 0, 3, 1000},
                                                          {0xC0, 12, 0x1FFF, 0, 4, 1000},
                                                          {0x40, 12, 0x2000, 0, 0, 1000},
                                                          {0xC0, 12, 0, 0, 70000 % 65536, 1000}}));
    EXPECT_EQ(r.controlTransfers()[0].dataOut, Bytes(ask, ask + 11));
    EXPECT_EQ(r.controlTransfers()[2].dataOut, Bytes(values, values + 3));
    EXPECT_EQ(USBTRSetInterfaceAlt(ctx_, 1, 1), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(r.currentAltSetting(1), 1);
    EXPECT_EQ(USBTRSetInterfaceAlt(ctx_, 1, 5), USBTR_STATUS_COMM_ERROR);
}

TEST_F(Transport, ShortStalledAndUnpluggedTransfers)
{
    Reader &r = addReader(Model::T30);
    ASSERT_EQ(USBTROpen(lib(), nullptr, 0, &ctx_), USBTR_STATUS_SUCCESS);
    uint8_t reply[11];
    r.shortControl(ControlMatch::xuGet(), 8);
    EXPECT_EQ(USBTRControlTransferEx(ctx_, 0xA1, 0x81, 0x0700, 0x0600, reply, 11, 1000),
              USBTR_STATUS_PARTIAL_TRANSFER);
    r.shortControl(ControlMatch{0xC0, 12, -1, -1}, 8);
    EXPECT_EQ(USBTRReadRegisters(ctx_, 0x10, reply, 11), USBTR_STATUS_COMM_ERROR) << "short is an error here";
    r.stallControl(ControlMatch::any());
    EXPECT_EQ(USBTRReadRegisters(ctx_, 0x10, reply, 11), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(traceCount("ioctl(0) failed: Broken pipe"), 1u);
    EXPECT_EQ(USBTRReadRegisters(ctx_, 0x10, reply, 11), USBTR_STATUS_SUCCESS) << "only that transfer failed";

    r.unplugOnControl(ControlMatch::any());
    EXPECT_EQ(USBTRReadRegisters(ctx_, 0x10, reply, 11), USBTR_STATUS_COMM_ERROR);
    const size_t ioctls = r.log().size();
    EXPECT_EQ(USBTRControlTransferEx(ctx_, 0xA1, 0x81, 0x0700, 0x0600, reply, 11, 1000), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(USBTRSetInterfaceAlt(ctx_, 1, 1), USBTR_STATUS_COMM_ERROR);
    EXPECT_EQ(r.log().size(), ioctls) << "no system call once disconnected";
    EXPECT_EQ(traceCount("Device disconnected"), 1u);
    EXPECT_EQ(traceCount("IOCtlEx(IOCTL_USB_CONTROL) failed, status = 8"), 3u);
    EXPECT_EQ(USBTRStatusFlags(ctx_) & (USBTR_SF_EX_LOCKED | USBTR_SF_DISCONNECTED), USBTR_SF_DISCONNECTED);
    EXPECT_EQ(USBTRClose(std::exchange(ctx_, nullptr)), USBTR_STATUS_SUCCESS);
    EXPECT_EQ(USBTRHandleCount(), 0u);
    EXPECT_EQ(deviceFds(), 0u);
}

} // namespace
