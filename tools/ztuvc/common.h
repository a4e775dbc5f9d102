// What every command of the ztuvc tool shares: exit codes, messages, the
// options the command line gave, and the reader it works on.
#pragma once

#include <ztuvc.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

namespace ztuvc_tool {

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

extern const char* const kProg;

// "ztuvc: <message>" on stderr, after whatever stdout still holds.
[[gnu::format(printf, 1, 2)]] void errorf(const char* fmt, ...);

// A bad command line: the reason and where to read more; returns kExitUsage.
[[gnu::format(printf, 2, 3)]] int usageError(const std::string& command, const char* fmt, ...);

// What the command line gave one command; unset options stay empty.
struct Args {
    std::string command;
    std::vector<std::string> positional;
    std::optional<std::string> device, output, count, interval, slots, timeout;
    bool json = false;
    bool quiet = false;
};

// One command: its name, its --help text (the -d and -h lines are added when
// printed), what it does, and the options it takes besides -h.
struct Command {
    const char* name;
    const char* help;
    int (*run)(const Args&);
    void (*options)(CLI::App&, Args&);
};

extern const Command kListCommand, kInfoCommand;      // list_info.cpp
extern const Command kCaptureCommand;                 // capture.cpp
extern const Command kSensorCommand, kFingerCommand;  // registers.cpp
extern const Command kFlashCommand;                   // flash.cpp

// -d/--device N|NAME, for the commands that work on one reader.
void addDeviceOption(CLI::App& app, Args& a);

// Decimal or 0x-hexadecimal, no sign, no trailing characters.
std::optional<uint64_t> parseNumber(std::string_view s);

// A number option or argument within [lo, hi]; prints the reason otherwise.
bool numberArg(const Args& a, const char* what, const std::string& text, uint64_t lo, uint64_t hi,
               uint64_t& out);

// camera_init and enumeration / camera_cleanup around one command.
struct Library {
    Library();
    ~Library();
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
};

// An open camera, closed on scope exit.
struct OpenCamera {
    CAMERA_HANDLE h = nullptr;
    OpenCamera() = default;
    ~OpenCamera();
    OpenCamera(const OpenCamera&) = delete;
    OpenCamera& operator=(const OpenCamera&) = delete;
};

inline std::string str(const char* s) { return s != nullptr ? s : ""; }

// Opens the reader that -d names (the first without -d); on failure says why
// and returns the exit code.
int openSelected(const Args& a, OpenCamera& cam, uint32_t* indexOut = nullptr);

// The message and exit code of a failed call on an open camera.
int failedCall(int32_t rc, const char* what);

// The reader's format record and the raw grey image it describes.
struct Geometry {
    CAMERA_FORMAT format{};
    uint32_t width = 0, height = 0;
};
int queryGeometry(CAMERA_HANDLE h, Geometry& g);

}  // namespace ztuvc_tool
