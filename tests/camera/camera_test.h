// Shared fixture of the camera interface tests: a simulated testbed, the
// library initialised, and helpers to find a reader's handle, read the
// trace file and look at the wire.
#pragma once

#include "simtest.h"
#include "ztuvc.h"

#include <dirent.h>
#include <linux/usbdevice_fs.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <map>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace camtest {

using Clock = std::chrono::steady_clock;

inline long msSince(Clock::time_point t0)
{
    return long(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count());
}

// Every handle in registry order.
inline std::vector<CAMERA_HANDLE> registry()
{
    std::vector<CAMERA_HANDLE> v;
    const uint32_t n = camera_device_count();
    for (uint32_t i = 0; i < n; ++i)
        v.push_back(camera_get_by_index(i));
    return v;
}

// The registry handle whose name is the reader's, or null.
inline CAMERA_HANDLE handleOf(const sim::Reader& r)
{
    for (CAMERA_HANDLE h : registry()) {
        const char* name = camera_get_filename(h);
        if (name != nullptr && r.cameraName() == name)
            return h;
    }
    return nullptr;
}

// Device directories in the order discovery reads them (readdir order),
// which is the order of the transport's list.
inline std::vector<std::string> discoveryOrder()
{
    std::vector<std::string> v;
    DIR* d = opendir("/sys/bus/usb/devices");
    if (d == nullptr)
        return v;
    while (dirent* e = readdir(d)) {
        std::string n = e->d_name;
        if (!n.empty() && isdigit(static_cast<unsigned char>(n[0])) && n.find(':') == std::string::npos)
            v.push_back(n);
    }
    closedir(d);
    return v;
}

// The readers' camera names in discovery order.
inline std::vector<std::string> expectedOrder(const std::vector<sim::Reader*>& readers)
{
    std::map<std::string, std::string> bySysfs;
    for (auto* r : readers)
        bySysfs[r->sysfsName()] = r->cameraName();
    std::vector<std::string> v;
    for (auto& s : discoveryOrder())
        if (bySysfs.count(s))
            v.push_back(bySysfs[s]);
    return v;
}

inline std::vector<std::string> registryNames()
{
    std::vector<std::string> v;
    for (CAMERA_HANDLE h : registry()) {
        const char* n = camera_get_filename(h);
        v.push_back(n ? n : "<null>");
    }
    return v;
}

// Descriptors of this process open on a usbfs node (umockdev's own sockets
// come and go asynchronously, so the plain count is not a measure).
inline size_t nodeFds()
{
    size_t n = 0;
    for (auto& s : sim::openFds())
        n += s.find("bus/usb/") != std::string::npos;
    return n;
}

inline std::string ptr(const void* p)
{
    char b[64];
    snprintf(b, sizeof b, "%p", p);
    return b;
}

inline std::string hexBytes(const std::vector<uint8_t>& v)
{
    std::string s;
    char b[4];
    for (uint8_t x : v) {
        snprintf(b, sizeof b, "%02x ", x);
        s += b;
    }
    return s;
}

// One record of the trace file, split at its header fields.
struct TraceRecord {
    std::string region;  // "usbuvc"
    char level = '?';    // letter of "newdtl"
    int indent = 0;      // blanks before the text
    std::string text;    // after the indentation, prefix included
};

// Reads the records of a trace file (continuation lines of dumps have no
// header and are returned with region "" and the whole line as text).
inline std::vector<TraceRecord> readTrace(const std::string& path)
{
    std::vector<TraceRecord> v;
    std::ifstream f(path);
    std::string line;
    while (std::getline(f, line)) {
        TraceRecord r;
        size_t pos = 0;
        std::vector<std::string> fields;
        for (int i = 0; i < 8; ++i) {
            size_t bar = line.find('|', pos);
            if (bar == std::string::npos)
                break;
            fields.push_back(line.substr(pos, bar - pos));
            pos = bar + 1;
        }
        if (fields.size() != 8) {
            r.text = line;
            v.push_back(r);
            continue;
        }
        r.region = fields[1].substr(fields[1].find_first_not_of(' '));
        r.level = fields[4].size() == 1 ? fields[4][0] : '?';
        std::string rest = line.substr(pos);
        size_t first = rest.find_first_not_of(' ');
        r.indent = int(first == std::string::npos ? rest.size() : first);
        r.text = first == std::string::npos ? "" : rest.substr(first);
        v.push_back(r);
    }
    return v;
}

// Sends this process's trace records (all regions at level 4) to a fresh
// directory.  Must run before the first library call of the process: the
// trace facility reads its environment once.
class TraceCapture {
public:
    TraceCapture()
    {
        const char* tmp = getenv("TMPDIR");
        std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/camtrace.XXXXXX";
        std::vector<char> b(templ.begin(), templ.end());
        b.push_back('\0');
        if (mkdtemp(b.data()) != nullptr)
            dir_ = b.data();
        setenv("ZTTRACE_PATH", dir_.c_str(), 1);
        unsetenv("ZTTRACE_ON");
    }
    ~TraceCapture()
    {
        std::remove(path().c_str());
        rmdir(dir_.c_str());
    }
    bool ok() const { return !dir_.empty(); }
    std::string path() const { return dir_ + "/traces.log"; }
    std::vector<TraceRecord> records() const { return readTrace(path()); }
    // Records of region usbuvc whose text equals `text`.
    std::vector<TraceRecord> find(const std::string& text) const
    {
        std::vector<TraceRecord> v;
        for (auto& r : records())
            if (r.region == "usbuvc" && r.text == text)
                v.push_back(r);
        return v;
    }

private:
    std::string dir_;
};

// Control transfers logged by the simulator, as seen on the wire.
inline std::vector<sim::IoctlRecord> controls(const sim::Reader& r)
{
    return r.controlTransfers();
}

// Fixture: testbed; init() after the first reader is plugged (the transport
// looks for the usbfs root once, at its first initialisation, and the
// simulated sysfs exists only once a device does).  TearDown closes what the
// test opened and undoes init().
class CameraTest : public sim::SimTest {
protected:
    explicit CameraTest(unsigned watchdogSeconds = 60) : sim::SimTest(watchdogSeconds) {}
    void TearDown() override
    {
        for (CAMERA_HANDLE h : opened_)
            camera_close(h);  // harmless on a closed or deleted camera
        if (inited_)
            camera_cleanup();
        sim::SimTest::TearDown();
    }
    void init()
    {
        if (!inited_)
            camera_init();
        inited_ = true;
    }
    // init() and one enumeration.
    void enumerate()
    {
        init();
        camera_device_enumerate(nullptr, 0);
    }
    // Opens and remembers the handle so that TearDown closes it.
    int32_t open(CAMERA_HANDLE h)
    {
        int32_t r = camera_open(h);
        if (r == 0)
            opened_.push_back(h);
        return r;
    }
    // Enumerates, finds the reader and opens it.
    CAMERA_HANDLE openReader(const sim::Reader& r)
    {
        enumerate();
        CAMERA_HANDLE h = handleOf(r);
        EXPECT_NE(h, nullptr) << r.cameraName();
        EXPECT_EQ(open(h), 0);
        return h;
    }
    std::vector<CAMERA_HANDLE> opened_;
    bool inited_ = false;
};

}  // namespace camtest
