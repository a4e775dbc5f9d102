// Trace records of the camera interface: region, level, entry and exit
// texts, nesting, plain records and the flash dump, read back from the
// trace file (ZTTRACE_PATH: every region at level 4).
#include "camera_test.h"

#include <cctype>
#include <cstring>

using namespace camtest;
using sim::Model;

namespace {

// Matches `text` against `pattern`, in which "{ptr}" stands for a pointer
// as %p prints it ("0x" and hex digits, or "(nil)"), "{dur}" for a duration
// "s.mmm", and everything else is literal.
bool matches(const char* t, const char* p)
{
    if (*p == '\0')
        return *t == '\0';
    if (strncmp(p, "{ptr}", 5) == 0) {
        if (strncmp(t, "(nil)", 5) == 0 && matches(t + 5, p + 5))
            return true;
        if (strncmp(t, "0x", 2) != 0 || !isxdigit(static_cast<unsigned char>(t[2])))
            return false;
        const char* e = t + 2;
        while (isxdigit(static_cast<unsigned char>(*e)))
            ++e;
        return matches(e, p + 5);
    }
    if (strncmp(p, "{dur}", 5) == 0) {
        const char* e = t;
        while (isdigit(static_cast<unsigned char>(*e)))
            ++e;
        if (e == t || e[0] != '.' || !isdigit(static_cast<unsigned char>(e[1])) ||
            !isdigit(static_cast<unsigned char>(e[2])) || !isdigit(static_cast<unsigned char>(e[3])))
            return false;
        return matches(e + 4, p + 5);
    }
    return *t == *p && matches(t + 1, p + 1);
}

class Trace : public CameraTest {
protected:
    TraceCapture trace_;  // before any library call of this process

    // Index of the first usbuvc record at or after `from` whose text matches.
    long findRecord(const std::vector<TraceRecord>& recs, const std::string& pattern, size_t from = 0)
    {
        for (size_t i = from; i < recs.size(); ++i)
            if (recs[i].region == "usbuvc" && matches(recs[i].text.c_str(), pattern.c_str()))
                return long(i);
        return -1;
    }
    // Checks an entry/exit pair: same level and indentation, exit after entry.
    // Returns the exit's index.
    long expectCall(const std::vector<TraceRecord>& recs, const std::string& entry,
                    const std::string& exit, char level, size_t from = 0)
    {
        long e = findRecord(recs, "==> " + entry, from);
        EXPECT_GE(e, 0) << "no entry record " << entry;
        if (e < 0)
            return -1;
        long x = findRecord(recs, "<== ({dur}) " + exit, size_t(e) + 1);
        EXPECT_GE(x, 0) << "no exit record " << exit;
        if (x < 0)
            return -1;
        EXPECT_EQ(recs[size_t(e)].level, level) << entry;
        EXPECT_EQ(recs[size_t(x)].level, level) << exit;
        EXPECT_EQ(recs[size_t(e)].indent, recs[size_t(x)].indent) << entry;
        return x;
    }
};

}  // namespace

TEST_F(Trace, RegistryAndOpenRecords)
{
    ASSERT_TRUE(trace_.ok());
    sim::DeviceOptions o;
    o.bcdDevice = 0x8123;
    auto& r = addReader(Model::T30, o);
    init();
    camera_device_enumerate(reinterpret_cast<void*>(0x1234), 7);
    CAMERA_HANDLE h = camera_get_by_index(0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(camera_get_by_index(0xFFFFFFFFu), nullptr);
    EXPECT_EQ(camera_get_by_vid_pid(0x3A5C, 13), nullptr);
    EXPECT_EQ(camera_device_count(), 1u);
    EXPECT_EQ(open(h), 0);
    EXPECT_EQ(camera_open(h), CAMERA_ERR_FAILURE);
    EXPECT_EQ(camera_get_revision(h), 0x8123);
    EXPECT_EQ(camera_get_vid(h), 0x3A5C);
    EXPECT_NE(camera_get_filename(h), nullptr);
    EXPECT_EQ(camera_get_serialnumber(nullptr), nullptr);
    camera_close(h);

    const auto recs = trace_.records();
    const std::string H = ptr(h);
    expectCall(recs, "camera_init()", "camera_init() -->", 'd');
    expectCall(recs, "camera_device_enumerate(0x1234,7)", "camera_device_enumerate() -->", 'd');
    expectCall(recs, "camera_get_by_index(0)", "camera_get_by_index() --> " + H, 'd');
    expectCall(recs, "camera_get_by_index(-1)", "camera_get_by_index() --> (nil)", 'd');
    // Not implemented: level 1.
    expectCall(recs, "camera_get_by_vid_pid(14940,13)", "camera_get_by_vid_pid() --> (nil)", 'e');
    long x = expectCall(recs, "camera_open(" + H + ")", "camera_open() --> 0", 'd');
    ASSERT_GE(x, 0);
    expectCall(recs, "camera_open(" + H + ")", "camera_open() --> -1", 'd', size_t(x) + 1);
    // The record shows the id as a signed 16-bit number.
    expectCall(recs, "camera_get_revision(" + H + ")", "camera_get_revision() --> -32477", 'd');
    expectCall(recs, "camera_get_vid(" + H + ")", "camera_get_vid() --> 14940", 'd');
    expectCall(recs, "camera_get_filename(" + H + ")",
               "camera_get_filename() --> " + r.cameraName(), 'd');
    expectCall(recs, "camera_get_serialnumber((nil))", "camera_get_serialnumber() --> NULL", 'd');
    expectCall(recs, "camera_close(" + H + ")", "camera_close() -->", 'd');

    // The transport's records of the open nest inside camera_open's.
    long e = findRecord(recs, "==> camera_open(" + ptr(h) + ")");
    ASSERT_GE(e, 0);
    bool nested = false;
    for (size_t i = size_t(e) + 1; i < recs.size() && recs[i].text.rfind("<== ", 0) != 0; ++i)
        if (recs[i].region == "usbtr" && recs[i].indent > recs[size_t(e)].indent)
            nested = true;
    EXPECT_TRUE(nested) << "transport records inside camera_open must be indented deeper";

    // camera_device_count writes nothing.
    for (auto& rec : recs)
        EXPECT_EQ(rec.text.find("camera_device_count"), std::string::npos) << rec.text;
}

TEST_F(Trace, ExtensionUnitRecordsAndFlashDump)
{
    ASSERT_TRUE(trace_.ok());
    auto& r = addReader(Model::T10);
    CAMERA_HANDLE h = openReader(r);
    r.setReg(0x1234, 90);
    EXPECT_EQ(camera_xu_sensor_read(h, 0x1234), 90);
    EXPECT_EQ(camera_xu_sensor_write(h, 0x1234, 0x1FF), 0);
    EXPECT_EQ(camera_xu_set_finger(h, -5), 0);
    uint8_t buf[20];
    EXPECT_EQ(camera_xu_flash_read(h, 0x100, 20, buf), 0);
    EXPECT_EQ(camera_xu_set_leds(h, 3), 0);

    const auto recs = trace_.records();
    const std::string H = ptr(h);
    long x = expectCall(recs, "camera_xu_sensor_read(" + H + ",1234)",
                        "camera_xu_sensor_read() --> 90", 'd');
    ASSERT_GE(x, 0);
    // sensor_read nests one step deeper, between the outer entry and exit.
    long outer = findRecord(recs, "==> camera_xu_sensor_read(" + H + ",1234)");
    long inner = findRecord(recs, "==> sensor_read(" + H + ",1234,{ptr},1)", size_t(outer));
    ASSERT_GE(inner, 0);
    EXPECT_LT(inner, x);
    EXPECT_EQ(recs[size_t(inner)].indent, recs[size_t(outer)].indent + 1);
    EXPECT_EQ(recs[size_t(inner)].level, 'd');
    long innerExit = findRecord(recs, "<== ({dur}) sensor_read() --> 0", size_t(inner));
    EXPECT_GE(innerExit, 0);
    EXPECT_LT(innerExit, x);

    expectCall(recs, "camera_xu_sensor_write(" + H + ",1234,511)",
               "camera_xu_sensor_write() --> 0", 'd');
    expectCall(recs, "camera_xu_set_finger(" + H + ",-5)", "camera_xu_set_finger() --> 0", 'd');
    // The finger write goes through the locking sensor write, nested.
    long finger = findRecord(recs, "==> camera_xu_set_finger(" + H + ",-5)");
    long fw = findRecord(recs, "==> camera_xu_sensor_write(" + H + ",f000,-5)", size_t(finger));
    ASSERT_GE(fw, 0);
    EXPECT_EQ(recs[size_t(fw)].indent, recs[size_t(finger)].indent + 1);

    const std::string B = ptr(buf);
    long fx = expectCall(recs, "camera_xu_flash_read(" + H + ",100,20," + B + ")",
                         "camera_xu_flash_read() --> 0", 'd');
    ASSERT_GE(fx, 0);
    long dump = findRecord(recs, "camera_xu_flash_read: read data: " + B + ", 20 bytes, full dump follows");
    ASSERT_GE(dump, 0);
    EXPECT_EQ(recs[size_t(dump)].level, 't');
    EXPECT_LT(dump, fx);
    ASSERT_LT(size_t(dump) + 1, recs.size());
    std::string hex;
    char b[4];
    for (int i = 0; i < 20; ++i) {
        snprintf(b, sizeof b, "%02x,", sim::flashByte(0x100 + uint32_t(i)));
        hex += b;
    }
    EXPECT_EQ(recs[size_t(dump) + 1].region, "");
    EXPECT_EQ(recs[size_t(dump) + 1].text, hex);

    expectCall(recs, "camera_xu_set_leds(" + H + ")", "camera_xu_set_leds() --> 0", 'e');
}

TEST_F(Trace, FormatIntervalCaptureAndNotFoundRecords)
{
    ASSERT_TRUE(trace_.ok());
    auto& r = addReader(Model::T30);
    CAMERA_HANDLE h = openReader(r);
    CAMERA_FORMAT f;
    EXPECT_EQ(camera_set_format(h, &f), 0);
    EXPECT_EQ(camera_get_format(h, &f), CAMERA_ERR_FAILURE);
    uint32_t ms = 0;
    EXPECT_EQ(camera_get_frame_interval(h, &ms), 0);
    ms = 100;
    EXPECT_EQ(camera_set_frame_interval(h, &ms), 0);
    EXPECT_EQ(camera_set_frame_interval(h, nullptr), CAMERA_ERR_FAILURE);
    void* frame = nullptr;
    EXPECT_EQ(camera_get_image(h, 0, &frame), CAMERA_ERR_FAILURE);
    CAMERA_HANDLE forged = reinterpret_cast<CAMERA_HANDLE>(uintptr_t(0x2000));
    EXPECT_EQ(camera_flush(forged), CAMERA_ERR_NO_DEVICE);

    const auto recs = trace_.records();
    const std::string H = ptr(h), F = ptr(&f);
    long x = expectCall(recs, "camera_set_format(" + H + "," + F + ")", "camera_set_format() --> 0", 'd');
    long plain = findRecord(recs, "camera_set_format(format:1280 x 512,1310720,1448695129, 0 )");
    ASSERT_GE(plain, 0);
    EXPECT_EQ(recs[size_t(plain)].level, 'd');
    EXPECT_LT(plain, x);
    expectCall(recs, "camera_get_format(" + H + "," + F + ")",
               "camera_get_format() --> CAMERA_ERR_FAILURE", 'e');
    expectCall(recs, "camera_get_frame_interval(" + H + ",{ptr})",
               "camera_get_frame_interval() --> 0,66", 'd');
    expectCall(recs, "camera_set_frame_interval(" + H + ",{ptr})",
               "camera_set_frame_interval() --> 0,100", 'd');
    expectCall(recs, "camera_set_frame_interval(" + H + ",(nil))",
               "camera_set_frame_interval() --> -1,0", 'd');
    expectCall(recs, "camera_get_image(" + H + ")", "camera_get_image() --> -1", 'd');
    expectCall(recs, "camera_flush(0x2000)", "camera_flush() --> -2", 'd');
    auto nf = trace_.find("ListFind(): item 0x2000 not found");
    ASSERT_EQ(nf.size(), 1u);
    EXPECT_EQ(nf[0].level, 'w');
}
