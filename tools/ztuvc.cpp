// ztuvc — command-line access to fingerprint readers through libztuvc.
//
// Uses nothing but the public header and the shared library, like any
// application would.
#include "image_io.h"

#include <ztuvc.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

using namespace ztuvc_tool;

namespace {

// Exit codes; documented in ztuvc(1).
enum Exit : int {
    kExitOk = 0,
    kExitFailure = 1,    // an operation on the reader failed
    kExitUsage = 2,      // bad command line
    kExitNoReader = 3,   // no reader attached, or none matches -d
    kExitCannotOpen = 4, // busy in another process, or no permission
    kExitTimeout = 5,    // no frame within the time-out
    kExitGone = 6,       // reader unplugged, or the stream failed
    kExitOutput = 7,     // an output file cannot be written
    kExitInterrupted = 130,
};

const char* gProg = "ztuvc";

[[gnu::format(printf, 1, 2)]] void errorf(const char* fmt, ...) {
    std::fflush(stdout);
    std::fprintf(stderr, "%s: ", gProg);
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(stderr, fmt, ap);
    va_end(ap);
    std::fputc('\n', stderr);
}

int usageError(const char* command, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
int usageError(const char* command, const char* fmt, ...) {
    std::fflush(stdout);
    std::fprintf(stderr, "%s: ", gProg);
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(stderr, fmt, ap);
    va_end(ap);
    std::fprintf(stderr, "\nTry '%s %s--help' for more information.\n", gProg,
                 command != nullptr ? (std::string(command) + " ").c_str() : "");
    return kExitUsage;
}

// ------------------------------------------------------------ arguments

// Decimal or 0x-hexadecimal, no sign, no trailing characters.
std::optional<uint64_t> parseNumber(const char* s) {
    if (s == nullptr || *s == '\0') return std::nullopt;
    int base = 10;
    const char* p = s;
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        base = 16;
        p += 2;
    }
    if (*p == '\0') return std::nullopt;
    uint64_t v = 0;
    for (; *p != '\0'; ++p) {
        int d;
        if (*p >= '0' && *p <= '9')
            d = *p - '0';
        else if (base == 16 && *p >= 'a' && *p <= 'f')
            d = *p - 'a' + 10;
        else if (base == 16 && *p >= 'A' && *p <= 'F')
            d = *p - 'A' + 10;
        else
            return std::nullopt;
        if (v > (UINT64_MAX - uint64_t(d)) / uint64_t(base)) return std::nullopt;
        v = v * uint64_t(base) + uint64_t(d);
    }
    return v;
}

// Options of one command: the parser fills these as it meets them.
struct Args {
    const char* command = nullptr;
    std::vector<const char*> positional;
    const char* device = nullptr;  // -d
    const char* output = nullptr;  // -o
    const char* count = nullptr;   // -n
    const char* interval = nullptr;
    const char* slots = nullptr;
    const char* timeout = nullptr;
    bool json = false;
    bool help = false;
    bool quiet = false;
};

// Which options a command takes.
struct OptionSet {
    bool device, output, count, interval, slots, timeout, json, quiet;
};

// Parses argv[first..] for `command`. Returns kExitOk or kExitUsage (after
// printing the reason).
int parseArgs(int argc, char** argv, int first, const OptionSet& allowed, Args& a) {
    bool endOfOptions = false;
    for (int i = first; i < argc; ++i) {
        const char* arg = argv[i];
        if (endOfOptions || arg[0] != '-' || arg[1] == '\0' || (arg[1] >= '0' && arg[1] <= '9')) {
            a.positional.push_back(arg);
            continue;
        }
        std::string name = arg;
        const char* inlineValue = nullptr;
        if (name.rfind("--", 0) == 0) {
            size_t eq = name.find('=');
            if (eq != std::string::npos) {
                inlineValue = arg + eq + 1;
                name.resize(eq);
            }
        } else if (name.size() > 2) {
            // -d3, -ofile, -n5
            inlineValue = arg + 2;
            name.resize(2);
        }
        auto value = [&](const char*& slot) -> bool {
            if (inlineValue != nullptr) {
                slot = inlineValue;
                return true;
            }
            if (i + 1 >= argc) return false;
            slot = argv[++i];
            return true;
        };
        auto flag = [&](bool& slot) -> bool {
            if (inlineValue != nullptr) return false;
            slot = true;
            return true;
        };
        bool known = true, ok = true;
        if (name == "--") {
            endOfOptions = true;
        } else if (name == "-h" || name == "--help") {
            ok = flag(a.help);
        } else if ((name == "-d" || name == "--device") && allowed.device) {
            ok = value(a.device);
        } else if ((name == "-o" || name == "--output") && allowed.output) {
            ok = value(a.output);
        } else if ((name == "-n" || name == "--count") && allowed.count) {
            ok = value(a.count);
        } else if (name == "--interval" && allowed.interval) {
            ok = value(a.interval);
        } else if (name == "--slots" && allowed.slots) {
            ok = value(a.slots);
        } else if (name == "--timeout" && allowed.timeout) {
            ok = value(a.timeout);
        } else if (name == "--json" && allowed.json) {
            ok = flag(a.json);
        } else if ((name == "-q" || name == "--quiet") && allowed.quiet) {
            ok = flag(a.quiet);
        } else {
            known = false;
        }
        if (!known) return usageError(a.command, "unknown option '%s'", name.c_str());
        if (!ok)
            return usageError(a.command, inlineValue != nullptr ? "option '%s' takes no value"
                                                                : "option '%s' needs a value",
                              name.c_str());
    }
    return kExitOk;
}

// A number option or argument within [lo, hi]; prints the reason otherwise.
bool numberArg(const Args& a, const char* what, const char* text, uint64_t lo, uint64_t hi,
               uint64_t& out) {
    auto v = parseNumber(text);
    if (!v) {
        usageError(a.command, "%s: '%s' is not a number (decimal or 0x hex)", what, text);
        return false;
    }
    if (*v < lo || *v > hi) {
        usageError(a.command, "%s: %s is out of range (%llu..%llu)", what, text,
                   static_cast<unsigned long long>(lo), static_cast<unsigned long long>(hi));
        return false;
    }
    out = *v;
    return true;
}

// ------------------------------------------------------------ library

// camera_init / camera_cleanup around one command.
struct Library {
    Library() {
        camera_init();
        camera_device_enumerate(nullptr, 0);
    }
    ~Library() { camera_cleanup(); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
};

std::string str(const char* s) { return s != nullptr ? s : ""; }

struct Identity {
    uint32_t index = 0;
    std::string name, product, manufacturer, serial;
    int32_t vid = -1, pid = -1, rev = -1;
};

Identity identityOf(CAMERA_HANDLE h, uint32_t index) {
    Identity id;
    id.index = index;
    id.name = str(camera_get_filename(h));
    id.vid = camera_get_vid(h);
    id.pid = camera_get_pid(h);
    id.rev = camera_get_revision(h);
    id.product = str(camera_get_product_name(h));
    id.manufacturer = str(camera_get_manufacturer_name(h));
    id.serial = str(camera_get_serialnumber(h));
    return id;
}

// Finds the reader that -d names (index, camera name or serial number); the
// first reader without -d.
int selectReader(const Args& a, CAMERA_HANDLE& h, uint32_t& index) {
    uint32_t n = camera_device_count();
    if (n == 0) {
        errorf("no reader found (is it plugged in? 'lsusb -d 3a5c:' lists it)");
        return kExitNoReader;
    }
    if (a.device == nullptr) {
        index = 0;
        h = camera_get_by_index(0);
        return h != nullptr ? kExitOk : kExitNoReader;
    }
    // An index first; then a name or serial number (which may look numeric).
    auto num = parseNumber(a.device);
    if (num && *num < n && (h = camera_get_by_index(uint32_t(*num))) != nullptr) {
        index = uint32_t(*num);
        return kExitOk;
    }
    for (uint32_t i = 0; i < n && *a.device != '\0'; ++i) {
        CAMERA_HANDLE c = camera_get_by_index(i);
        if (c != nullptr && (str(camera_get_filename(c)) == a.device || str(camera_get_serialnumber(c)) == a.device)) {
            h = c;
            index = i;
            return kExitOk;
        }
    }
    errorf("no reader matches '%s' (%u attached; see '%s list')", a.device, n, gProg);
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
    auto bus = parseNumber(readSmallFile(dir + "busnum").c_str());
    auto dev = parseNumber(readSmallFile(dir + "devnum").c_str());
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

// An open camera, closed on scope exit.
struct OpenCamera {
    CAMERA_HANDLE h = nullptr;
    ~OpenCamera() {
        if (h != nullptr) camera_close(h);
    }
};

int openSelected(const Args& a, OpenCamera& cam, uint32_t* indexOut = nullptr) {
    CAMERA_HANDLE h = nullptr;
    uint32_t index = 0;
    if (int rc = selectReader(a, h, index); rc != kExitOk) return rc;
    if (camera_open(h) != 0) return explainOpenFailure(h);
    cam.h = h;
    if (indexOut != nullptr) *indexOut = index;
    return kExitOk;
}

// Result of an extension-unit or other call on an open camera.
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

// ------------------------------------------------------------ JSON

std::string jsonString(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20) {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
            } else {
                out += char(c);
            }
        }
    }
    return out + "\"";
}

std::string hex4(int32_t v) {
    char buf[16];
    if (v < 0) return "null";
    std::snprintf(buf, sizeof buf, "\"%04x\"", unsigned(v));
    return buf;
}

std::string identityJson(const Identity& id) {
    return "{\"index\": " + std::to_string(id.index) + ", \"name\": " + jsonString(id.name) +
           ", \"vendor_id\": " + hex4(id.vid) + ", \"product_id\": " + hex4(id.pid) +
           ", \"revision\": " + hex4(id.rev) + ", \"product\": " + jsonString(id.product) +
           ", \"manufacturer\": " + jsonString(id.manufacturer) + ", \"serial\": " + jsonString(id.serial) +
           "}";
}

void printIdentity(const Identity& id) {
    std::printf("reader %u: %s\n", id.index, id.name.c_str());
    std::printf("  id:           %04x:%04x rev %04x\n", unsigned(id.vid), unsigned(id.pid), unsigned(id.rev));
    std::printf("  product:      %s\n", id.product.c_str());
    std::printf("  manufacturer: %s\n", id.manufacturer.c_str());
    std::printf("  serial:       %s\n", id.serial.c_str());
}

// ------------------------------------------------------------ commands

const char kMainHelp[] =
    "Usage: ztuvc COMMAND [OPTIONS] [ARGS]\n"
    "Fingerprint readers through libztuvc.\n"
    "\n"
    "Commands:\n"
    "  list                         list the attached readers\n"
    "  info                         identity, image format and frame interval\n"
    "  capture                      capture frames into PNG or PGM files\n"
    "  sensor read ADDR             read a sensor register\n"
    "  sensor write ADDR VALUE      write a sensor register\n"
    "  finger [VALUE]               read or set the finger register\n"
    "  flash read ADDR LEN          read flash memory (hex dump, or -o FILE)\n"
    "\n"
    "Numbers are decimal or 0x hexadecimal.  'ztuvc COMMAND --help' describes a\n"
    "command.  Exit codes: 0 ok, 1 operation failed, 2 bad arguments, 3 no reader,\n"
    "4 reader busy or no permission, 5 time-out, 6 reader gone or stream failed,\n"
    "7 output file error, 130 interrupted.  See ztuvc(1).\n";

const char kListHelp[] =
    "Usage: ztuvc list [--json]\n"
    "Lists the attached readers: index, name, vendor:product, revision, product,\n"
    "manufacturer and serial number.  Exits with 3 when there is none.\n"
    "  --json     one JSON array on stdout, for scripts\n";

const char kDeviceHelp[] =
    "  -d, --device N|NAME   the reader: index, name or serial number (default 0)\n";

const char kInfoHelp[] =
    "Usage: ztuvc info [-d N|NAME] [--json]\n"
    "Opens a reader and shows its identity, image format and frame interval.\n";

const char kCaptureHelp[] =
    "Usage: ztuvc capture [-d N|NAME] [-n COUNT] [-o PATTERN] [--interval MS]\n"
    "                     [--slots N] [--timeout MS] [-q]\n"
    "Captures COUNT frames (default 1) and writes each as an 8-bit grey image.\n"
    "  -o, --output PATTERN  printf-style file name with one integer conversion for\n"
    "                        the frame index (default frame-%03d.png); the extension\n"
    "                        .png or .pgm chooses the format\n"
    "  -n, --count COUNT     frames to capture (1..1000000)\n"
    "      --interval MS     request a frame interval (raised to the reader's shortest)\n"
    "      --slots N         frame slots of the library (1..4, default 4)\n"
    "      --timeout MS      wait per frame (default 1000; the library adds 1500)\n"
    "  -q, --quiet           only the summary\n";

const char kSensorHelp[] =
    "Usage: ztuvc sensor read [-d N|NAME] ADDR\n"
    "       ztuvc sensor write [-d N|NAME] ADDR VALUE\n"
    "Reads or writes one byte of the sensor register file (ADDR 0..0xffff,\n"
    "VALUE 0..0xff).  'read' prints the value as 0x hex.\n";

const char kFingerHelp[] =
    "Usage: ztuvc finger [-d N|NAME] [VALUE]\n"
    "Prints the finger register, or sets it to VALUE (0..0xff).\n";

const char kFlashHelp[] =
    "Usage: ztuvc flash read [-d N|NAME] ADDR LEN [-o FILE]\n"
    "Reads LEN bytes (1..16777216) of flash from ADDR; prints a hex dump, or\n"
    "writes the raw bytes to FILE with -o.\n";

void printHelp(const char* text, bool device) {
    std::fputs(text, stdout);
    if (device) std::fputs(kDeviceHelp, stdout);
    std::fputs("  -h, --help            this help\n", stdout);
}

int cmdList(const Args& a) {
    if (!a.positional.empty()) return usageError(a.command, "unexpected argument '%s'", a.positional[0]);
    Library lib;
    uint32_t n = camera_device_count();
    std::vector<Identity> ids;
    for (uint32_t i = 0; i < n; ++i) {
        CAMERA_HANDLE h = camera_get_by_index(i);
        if (h != nullptr) ids.push_back(identityOf(h, i));
    }
    if (a.json) {
        std::printf("[");
        for (size_t i = 0; i < ids.size(); ++i)
            std::printf("%s\n  %s", i == 0 ? "" : ",", identityJson(ids[i]).c_str());
        std::printf("%s]\n", ids.empty() ? "" : "\n");
    } else {
        for (const auto& id : ids) printIdentity(id);
    }
    if (ids.empty()) {
        if (!a.json) errorf("no reader found");
        return kExitNoReader;
    }
    return kExitOk;
}

struct Geometry {
    CAMERA_FORMAT format{};
    uint32_t width = 0, height = 0;
};

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

std::string fourcc(uint32_t v) {
    std::string s;
    for (int i = 0; i < 4; ++i) {
        char c = char(v >> (8 * i));
        s += (c >= 32 && c < 127) ? c : '?';
    }
    return s;
}

int cmdInfo(const Args& a) {
    if (!a.positional.empty()) return usageError(a.command, "unexpected argument '%s'", a.positional[0]);
    Library lib;
    OpenCamera cam;
    uint32_t index = 0;
    if (int rc = openSelected(a, cam, &index); rc != kExitOk) return rc;
    Identity id = identityOf(cam.h, index);
    Geometry g;
    if (int rc = queryGeometry(cam.h, g); rc != kExitOk) return rc;
    uint32_t interval = 0;
    if (int32_t rc = camera_get_frame_interval(cam.h, &interval); rc != 0)
        return failedCall(rc, "reading the frame interval");
    double fps = interval != 0 ? 1000.0 / interval : 0.0;
    if (a.json) {
        std::string j = identityJson(id);
        j.pop_back();
        std::printf("%s, \"fourcc\": %s, \"format_width\": %u, \"format_height\": %u, \"image_size\": %u, "
                    "\"width\": %u, \"height\": %u, \"frame_interval_ms\": %u}\n",
                    j.c_str(), jsonString(fourcc(g.format.dwFourCC)).c_str(), g.format.dwWidth,
                    g.format.dwHeight, g.format.dwImageSize, g.width, g.height, interval);
        return kExitOk;
    }
    printIdentity(id);
    std::printf("  format:       %s %u x %u, %u bytes\n", fourcc(g.format.dwFourCC).c_str(), g.format.dwWidth,
                g.format.dwHeight, g.format.dwImageSize);
    std::printf("  image:        %u x %u, 8-bit grey\n", g.width, g.height);
    std::printf("  interval:     %u ms (%.1f frames/s)\n", interval, fps);
    return kExitOk;
}

// A printf-style pattern with at most one integer conversion; anything else
// would let the pattern read arguments that are not there.
bool checkPattern(const std::string& p, int& conversions, std::string& why) {
    conversions = 0;
    for (size_t i = 0; i < p.size(); ++i) {
        if (p[i] != '%') continue;
        if (i + 1 < p.size() && p[i + 1] == '%') {
            ++i;
            continue;
        }
        size_t j = i + 1;
        while (j < p.size() && std::strchr("-0 +#", p[j]) != nullptr) ++j;
        while (j < p.size() && p[j] >= '0' && p[j] <= '9') ++j;
        if (j >= p.size() || std::strchr("diuxX", p[j]) == nullptr) {
            why = "only integer conversions (%d, %03d, %x, ...) and %% are allowed";
            return false;
        }
        if (j - i > 6) {
            why = "conversion too wide";
            return false;
        }
        ++conversions;
        i = j;
    }
    if (conversions > 1) {
        why = "more than one conversion";
        return false;
    }
    return true;
}

std::string formatName(const std::string& pattern, int conversions, uint32_t index) {
    if (conversions == 0) return pattern;
    // The pattern was checked: one integer conversion, of an int.
    int n = std::snprintf(nullptr, 0, pattern.c_str(), int(index));
    std::string s(size_t(n) + 1, '\0');
    std::snprintf(s.data(), s.size(), pattern.c_str(), int(index));
    s.resize(size_t(n));
    return s;
}

volatile std::sig_atomic_t gInterrupted = 0;
void onSignal(int) { gInterrupted = 1; }

void drawProgress(uint32_t done, uint32_t total) {
    const int width = 30;
    int filled = total != 0 ? int(uint64_t(done) * width / total) : width;
    std::printf("\r[");
    for (int i = 0; i < width; ++i) std::putchar(i < filled ? '#' : '.');
    std::printf("] %u/%u", done, total);
    std::fflush(stdout);
}

void clearProgress() { std::printf("\r\033[K"); }

int cmdCapture(const Args& a) {
    if (!a.positional.empty()) return usageError(a.command, "unexpected argument '%s'", a.positional[0]);
    uint64_t count = 1, slots = 0, timeout = 1000, interval = 0;
    if (a.count != nullptr && !numberArg(a, "-n", a.count, 1, 1000000, count)) return kExitUsage;
    if (a.slots != nullptr && !numberArg(a, "--slots", a.slots, 1, 4, slots)) return kExitUsage;
    if (a.timeout != nullptr && !numberArg(a, "--timeout", a.timeout, 0, 3600000, timeout)) return kExitUsage;
    if (a.interval != nullptr && !numberArg(a, "--interval", a.interval, 1, 3600000, interval))
        return kExitUsage;
    std::string pattern = a.output != nullptr ? a.output : "frame-%03d.png";
    int conversions = 0;
    std::string why;
    if (!checkPattern(pattern, conversions, why))
        return usageError(a.command, "bad output pattern '%s': %s", pattern.c_str(), why.c_str());
    if (conversions == 0 && count > 1)
        return usageError(a.command, "output pattern '%s' needs a conversion such as %%03d for %llu frames",
                          pattern.c_str(), static_cast<unsigned long long>(count));
    ImageKind kind = imageKindOf(pattern);
    if (kind == ImageKind::Unknown)
        return usageError(a.command, "output '%s': the extension must be .png or .pgm", pattern.c_str());

    Library lib;
    OpenCamera cam;
    if (int rc = openSelected(a, cam); rc != kExitOk) return rc;
    Geometry g;
    if (int rc = queryGeometry(cam.h, g); rc != kExitOk) return rc;
    uint32_t effective = 0;
    if (interval != 0) {
        effective = uint32_t(interval);
        if (int32_t rc = camera_set_frame_interval(cam.h, &effective); rc != 0)
            return failedCall(rc, "setting the frame interval");
    } else if (int32_t rc = camera_get_frame_interval(cam.h, &effective); rc != 0) {
        return failedCall(rc, "reading the frame interval");
    }

    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    const bool tty = isatty(STDOUT_FILENO) == 1 && !a.quiet;
    const size_t imageBytes = size_t(g.width) * g.height;
    std::vector<uint8_t> image(imageBytes);

    auto t0 = std::chrono::steady_clock::now();
    if (int32_t rc = camera_start_capture(cam.h, uint32_t(slots)); rc != 0) {
        if (rc == CAMERA_ERR_NO_DEVICE) {
            errorf("cannot start capture: the reader is gone");
        } else {
            errorf("cannot start capture: the reader sends no video (unplugged, or stuck?)");
        }
        return kExitGone;
    }
    if (!a.quiet)
        std::printf("capturing %llu frame%s of %u x %u at %u ms intervals\n",
                    static_cast<unsigned long long>(count), count == 1 ? "" : "s", g.width, g.height,
                    effective);

    int result = kExitOk;
    uint32_t got = 0, dropped = 0, badTrailers = 0;
    uint32_t firstStart = 0, lastStart = 0, maxLatency = 0;
    uint64_t latencySum = 0;
    for (uint32_t i = 0; i < count; ++i) {
        if (gInterrupted) {
            result = kExitInterrupted;
            break;
        }
        void* frame = nullptr;
        int32_t rc = camera_get_image(cam.h, uint32_t(timeout), &frame);
        if (rc != 0 || frame == nullptr) {
            if (tty) clearProgress();
            if (gInterrupted && rc == CAMERA_ERR_TIMEOUT) {
                result = kExitInterrupted;
            } else if (rc == CAMERA_ERR_TIMEOUT) {
                errorf("timed out waiting for frame %u (%llu ms + 1500 ms); the reader stopped sending",
                       i, static_cast<unsigned long long>(timeout));
                result = kExitTimeout;
            } else {
                errorf("the stream failed at frame %u: the reader is gone or stopped (unplugged?)", i);
                result = kExitGone;
            }
            break;
        }
        const auto* bytes = static_cast<const uint8_t*>(frame);
        CAMERA_TIME_STAMP ts;
        std::memcpy(&ts, bytes + imageBytes, sizeof ts);
        std::memcpy(image.data(), bytes, imageBytes);
        camera_put_image(cam.h, frame);

        bool trailerOk = std::memcmp(ts.szSignature, "TmSt", 4) == 0;
        if (!trailerOk) ++badTrailers;
        uint32_t latency = ts.dwFrameReturned - ts.dwFrameStart;
        if (got == 0) {
            firstStart = ts.dwFrameStart;
        } else if (effective != 0) {
            // A gap of more than 1.5 intervals between frame starts means
            // frames were lost on the way.
            uint32_t gap = ts.dwFrameStart - lastStart;
            if (gap > effective + effective / 2) dropped += (gap + effective / 2) / effective - 1;
        }
        lastStart = ts.dwFrameStart;
        latencySum += latency;
        maxLatency = std::max(maxLatency, latency);
        ++got;

        std::string path = formatName(pattern, conversions, i);
        std::string err;
        if (!writeGreyImage(path, kind, image.data(), g.width, g.height, err)) {
            if (tty) clearProgress();
            errorf("cannot write %s: %s", path.c_str(), err.c_str());
            result = kExitOutput;
            break;
        }
        if (!a.quiet) {
            if (tty) clearProgress();
            std::printf("frame %u: %zu bytes, start %u ms, out %u ms, latency %u ms%s -> %s\n", i, imageBytes,
                        ts.dwFrameStart, ts.dwFrameReturned, latency, trailerOk ? "" : " (bad trailer)",
                        path.c_str());
            if (tty) drawProgress(i + 1, uint32_t(count));
        }
    }
    if (tty && got > 0) clearProgress();
    camera_stop_capture(cam.h);
    double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();

    if (got > 0) {
        uint32_t span = lastStart - firstStart;
        double fps = got > 1 && span > 0 ? (got - 1) * 1000.0 / span : 0.0;
        std::printf("%u frame%s in %.2f s: %.1f frames/s, %u dropped, latency mean %.1f ms, max %u ms\n", got,
                    got == 1 ? "" : "s", elapsed, fps, dropped, double(latencySum) / got, maxLatency);
        if (badTrailers != 0) std::printf("warning: %u frame(s) without a time-stamp trailer\n", badTrailers);
    }
    if (result == kExitInterrupted) errorf("interrupted");
    return result;
}

// The address and value arguments of sensor/finger.
int cmdSensor(const Args& a) {
    if (a.positional.empty()) return usageError(a.command, "missing 'read' or 'write'");
    std::string op = a.positional[0];
    uint64_t addr = 0, value = 0;
    if (op == "read") {
        if (a.positional.size() != 2) return usageError(a.command, "usage: sensor read ADDR");
        if (!numberArg(a, "ADDR", a.positional[1], 0, 0xFFFF, addr)) return kExitUsage;
    } else if (op == "write") {
        if (a.positional.size() != 3) return usageError(a.command, "usage: sensor write ADDR VALUE");
        if (!numberArg(a, "ADDR", a.positional[1], 0, 0xFFFF, addr)) return kExitUsage;
        if (!numberArg(a, "VALUE", a.positional[2], 0, 0xFF, value)) return kExitUsage;
    } else {
        return usageError(a.command, "unknown operation '%s' (read or write)", op.c_str());
    }
    Library lib;
    OpenCamera cam;
    if (int rc = openSelected(a, cam); rc != kExitOk) return rc;
    if (op == "read") {
        int32_t v = camera_xu_sensor_read(cam.h, uint32_t(addr));
        if (v < 0) return failedCall(v, "reading the sensor register");
        std::printf("0x%02x\n", unsigned(v));
        return kExitOk;
    }
    int32_t rc = camera_xu_sensor_write(cam.h, uint32_t(addr), int32_t(value));
    return rc == 0 ? kExitOk : failedCall(rc, "writing the sensor register");
}

int cmdFinger(const Args& a) {
    uint64_t value = 0;
    if (a.positional.size() > 1) return usageError(a.command, "unexpected argument '%s'", a.positional[1]);
    bool set = a.positional.size() == 1;
    if (set && !numberArg(a, "VALUE", a.positional[0], 0, 0xFF, value)) return kExitUsage;
    Library lib;
    OpenCamera cam;
    if (int rc = openSelected(a, cam); rc != kExitOk) return rc;
    if (set) {
        int32_t rc = camera_xu_set_finger(cam.h, int32_t(value));
        return rc == 0 ? kExitOk : failedCall(rc, "setting the finger register");
    }
    int32_t v = camera_xu_get_finger(cam.h);
    if (v < 0) return failedCall(v, "reading the finger register");
    std::printf("0x%02x\n", unsigned(v));
    return kExitOk;
}

void hexDump(uint32_t base, const uint8_t* p, size_t n) {
    for (size_t off = 0; off < n; off += 16) {
        std::printf("%08x ", unsigned(base + off));
        for (size_t k = 0; k < 16; ++k) {
            if (k == 8) std::putchar(' ');
            if (off + k < n)
                std::printf(" %02x", p[off + k]);
            else
                std::printf("   ");
        }
        std::printf("  |");
        for (size_t k = 0; k < 16 && off + k < n; ++k) {
            uint8_t c = p[off + k];
            std::putchar(c >= 32 && c < 127 ? char(c) : '.');
        }
        std::printf("|\n");
    }
}

int cmdFlash(const Args& a) {
    if (a.positional.empty() || std::strcmp(a.positional[0], "read") != 0)
        return usageError(a.command, "usage: flash read ADDR LEN [-o FILE]");
    if (a.positional.size() != 3) return usageError(a.command, "usage: flash read ADDR LEN [-o FILE]");
    uint64_t addr = 0, len = 0;
    if (!numberArg(a, "ADDR", a.positional[1], 0, 0xFFFFFFFF, addr)) return kExitUsage;
    if (!numberArg(a, "LEN", a.positional[2], 1, 16u << 20, len)) return kExitUsage;
    Library lib;
    OpenCamera cam;
    if (int rc = openSelected(a, cam); rc != kExitOk) return rc;
    std::vector<uint8_t> buf(len);
    int32_t rc = camera_xu_flash_read(cam.h, uint32_t(addr), int32_t(len), buf.data());
    if (rc != 0) return failedCall(rc, "reading flash");
    if (a.output == nullptr) {
        hexDump(uint32_t(addr), buf.data(), buf.size());
        return kExitOk;
    }
    FILE* f = std::fopen(a.output, "wb");
    bool ok = f != nullptr && std::fwrite(buf.data(), 1, buf.size(), f) == buf.size();
    int e = errno;
    if (f != nullptr && std::fclose(f) != 0 && ok) {
        ok = false;
        e = errno;
    }
    if (!ok) {
        errorf("cannot write %s: %s", a.output, std::strerror(e));
        return kExitOutput;
    }
    return kExitOk;
}

struct Command {
    const char* name;
    int (*run)(const Args&);
    const char* help;
    OptionSet options;
};

const Command kCommands[] = {
    {"list", cmdList, kListHelp, {false, false, false, false, false, false, true, false}},
    {"info", cmdInfo, kInfoHelp, {true, false, false, false, false, false, true, false}},
    {"capture", cmdCapture, kCaptureHelp, {true, true, true, true, true, true, false, true}},
    {"sensor", cmdSensor, kSensorHelp, {true, false, false, false, false, false, false, false}},
    {"finger", cmdFinger, kFingerHelp, {true, false, false, false, false, false, false, false}},
    {"flash", cmdFlash, kFlashHelp, {true, true, false, false, false, false, false, false}},
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs(kMainHelp, stderr);
        return kExitUsage;
    }
    std::string first = argv[1];
    if (first == "-h" || first == "--help" || first == "help") {
        std::fputs(kMainHelp, stdout);
        return kExitOk;
    }
    if (first == "--version") {
        std::printf("ztuvc 3.0.0\n");
        return kExitOk;
    }
    for (const Command& c : kCommands) {
        if (first != c.name) continue;
        Args a;
        a.command = c.name;
        if (int rc = parseArgs(argc, argv, 2, c.options, a); rc != kExitOk) return rc;
        if (a.help) {
            printHelp(c.help, c.options.device);
            return kExitOk;
        }
        int rc = c.run(a);
        std::fflush(stdout);
        return rc;
    }
    return usageError(nullptr, "unknown command '%s'", first.c_str());
}
