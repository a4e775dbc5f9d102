// Shared by the commands: messages, numbers, and finding and opening the
// reader a command works on.
#include "common.h"

#include <CLI/App.hpp>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace ztuvc_tool {

const char* const kProg = "ztuvc";

namespace {
// "ztuvc: <message>" on stderr, after whatever stdout still holds.
void vmessage(const char* fmt, va_list ap) {
    std::fflush(stdout);
    std::fprintf(stderr, "%s: ", kProg);
    std::vfprintf(stderr, fmt, ap);
}
}  // namespace

void errorf(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vmessage(fmt, ap);
    va_end(ap);
    std::fputc('\n', stderr);
}

int usageError(const std::string& command, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vmessage(fmt, ap);
    va_end(ap);
    std::fprintf(stderr, "\nTry '%s %s--help' for more information.\n", kProg,
                 command.empty() ? "" : (command + " ").c_str());
    return kExitUsage;
}

void addDeviceOption(CLI::App& app, Args& a) { app.add_option("-d,--device", a.device); }

std::optional<uint64_t> parseNumber(std::string_view s) {
    int base = 10;
    if (s.size() > 1 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
        base = 16;
        s.remove_prefix(2);
    }
    uint64_t v = 0;
    // from_chars takes no sign for an unsigned type and fails on overflow.
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v, base);
    if (s.empty() || ec != std::errc() || end != s.data() + s.size()) return std::nullopt;
    return v;
}

bool numberArg(const Args& a, const char* what, const std::string& text, uint64_t lo, uint64_t hi,
               uint64_t& out) {
    auto v = parseNumber(text);
    if (!v) {
        usageError(a.command, "%s: '%s' is not a number (decimal or 0x hex)", what, text.c_str());
        return false;
    }
    if (*v < lo || *v > hi) {
        usageError(a.command, "%s: %s is out of range (%llu..%llu)", what, text.c_str(),
                   static_cast<unsigned long long>(lo), static_cast<unsigned long long>(hi));
        return false;
    }
    out = *v;
    return true;
}

Library::Library() {
    camera_init();
    camera_device_enumerate(nullptr, 0);
}

Library::~Library() { camera_cleanup(); }

OpenCamera::~OpenCamera() {
    if (h != nullptr) camera_close(h);
}

namespace {

// Finds the reader that -d names (index, camera name or serial number); the
// first reader without -d.
int selectReader(const Args& a, CAMERA_HANDLE& h, uint32_t& index) {
    uint32_t n = camera_device_count();
    if (n == 0) {
        errorf("no reader found (is it plugged in? 'lsusb -d 3a5c:' lists it)");
        return kExitNoReader;
    }
    if (!a.device) {
        index = 0;
        h = camera_get_by_index(0);
        return h != nullptr ? kExitOk : kExitNoReader;
    }
    const std::string& want = *a.device;
    // An index first; then a name or serial number (which may look numeric).
    auto num = parseNumber(want);
    if (num && *num < n && (h = camera_get_by_index(uint32_t(*num))) != nullptr) {
        index = uint32_t(*num);
        return kExitOk;
    }
    for (uint32_t i = 0; i < n && !want.empty(); ++i) {
        CAMERA_HANDLE c = camera_get_by_index(i);
        if (c != nullptr && (str(camera_get_filename(c)) == want || str(camera_get_serialnumber(c)) == want)) {
            h = c;
            index = i;
            return kExitOk;
        }
    }
    errorf("no reader matches '%s' (%u attached; see '%s list')", want.c_str(), n, kProg);
    return kExitNoReader;
}

std::string readSmallFile(const std::string& path) {
    std::string s;
    FILE* f = std::fopen(path.c_str(), "r");
    if (f == nullptr) return s;
    char buf[64];
    size_t n = std::fread(buf, 1, sizeof buf - 1, f);
    std::fclose(f);
    s.assign(buf, n);
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
    return s;
}

// The usbfs node of a camera, from its name "vvvv_pppp_rrrr_BUS_SYSNAME".
std::string nodeOf(const std::string& cameraName) {
    size_t pos = 0;
    for (int k = 0; k < 4 && pos != std::string::npos; ++k) {
        pos = cameraName.find('_', pos);
        if (pos != std::string::npos) ++pos;
    }
    if (pos == std::string::npos || pos >= cameraName.size()) return {};
    std::string sysName = cameraName.substr(pos);
    if (sysName.find('/') != std::string::npos) return {};
    std::string dir = "/sys/bus/usb/devices/" + sysName + "/";
    auto bus = parseNumber(readSmallFile(dir + "busnum"));
    auto dev = parseNumber(readSmallFile(dir + "devnum"));
    if (!bus || !dev || *bus > 999 || *dev > 999) return {};
    const char* root = std::getenv("USB_DEVFS_PATH");
    char node[512];
    std::snprintf(node, sizeof node, "%s/%03u/%03u", root != nullptr && *root != '\0' ? root : "/dev/bus/usb",
                  unsigned(*bus), unsigned(*dev));
    return node;
}

// camera_open only says "cannot open"; find out why so the user learns what
// to do about it.
int explainOpenFailure(CAMERA_HANDLE h) {
    std::string name = str(camera_get_filename(h));
    std::string node = nodeOf(name);
    if (node.empty()) {
        errorf("cannot open reader %s: it is gone", name.c_str());
        return kExitNoReader;
    }
    int fd = ::open(node.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        int e = errno;
        if (e == EACCES || e == EPERM) {
            errorf("cannot open reader %s: permission denied on %s\n"
                   "  hint: install the udev rule 60-ztuvc.rules (into /etc/udev/rules.d or\n"
                   "  /usr/lib/udev/rules.d), run 'udevadm control --reload' and re-plug the reader;\n"
                   "  it grants the logged-in user access to the reader's device node",
                   name.c_str(), node.c_str());
            return kExitCannotOpen;
        }
        if (e == ENOENT || e == ENODEV || e == ENXIO) {
            errorf("cannot open reader %s: it is gone (%s)", name.c_str(), std::strerror(e));
            return kExitNoReader;
        }
        errorf("cannot open reader %s: %s: %s", name.c_str(), node.c_str(), std::strerror(e));
        return kExitCannotOpen;
    }
    bool busy = ::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    ::close(fd);
    if (busy) {
        errorf("cannot open reader %s: it is busy (another program has it open)\n"
               "  hint: 'fuser -v %s' shows which one",
               name.c_str(), node.c_str());
    } else {
        errorf("cannot open reader %s (%s)\n"
               "  hint: check that the udev rule 60-ztuvc.rules is installed and that\n"
               "  you may read and write %s",
               name.c_str(), node.c_str(), node.c_str());
    }
    return kExitCannotOpen;
}

}  // namespace

int openSelected(const Args& a, OpenCamera& cam, uint32_t* indexOut) {
    CAMERA_HANDLE h = nullptr;
    uint32_t index = 0;
    if (int rc = selectReader(a, h, index); rc != kExitOk) return rc;
    if (camera_open(h) != 0) return explainOpenFailure(h);
    cam.h = h;
    if (indexOut != nullptr) *indexOut = index;
    return kExitOk;
}

int failedCall(int32_t rc, const char* what) {
    if (rc == CAMERA_ERR_NO_DEVICE) {
        errorf("%s failed: the reader is gone", what);
        return kExitGone;
    }
    if (rc == CAMERA_ERR_TIMEOUT) {
        errorf("%s timed out", what);
        return kExitTimeout;
    }
    errorf("%s failed (the reader did not answer; unplugged?)", what);
    return kExitFailure;
}

// The raw image is width x height grey bytes; the YUYV record describes the
// same bytes with half the lines at two bytes a pixel.
int queryGeometry(CAMERA_HANDLE h, Geometry& g) {
    int32_t rc = camera_set_format(h, &g.format);
    if (rc != 0) return failedCall(rc, "selecting the image format");
    if (g.format.dwWidth == 0 || g.format.dwImageSize == 0 || g.format.dwImageSize % g.format.dwWidth != 0) {
        errorf("the reader reports an unusable image format (%u x %u, %u bytes)", g.format.dwWidth,
               g.format.dwHeight, g.format.dwImageSize);
        return kExitFailure;
    }
    g.width = g.format.dwWidth;
    g.height = g.format.dwImageSize / g.format.dwWidth;
    return kExitOk;
}

}  // namespace ztuvc_tool
