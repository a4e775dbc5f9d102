// ztuvc-sim — runs a command against simulated fingerprint readers.
//
//   ztuvc-sim [--model 10|20|30|40] [--readers N] [--pattern] [-q] -- COMMAND [ARGS...]
//
// This process creates umockdev's testbed and the readers and answers their
// usbfs ioctls; the command runs as a child under umockdev's preload, so an
// unmodified program (ztuvc, an application) sees real-looking readers in
// sysfs and /dev/bus/usb. The readers stream at their frame rate. SIGUSR1
// unplugs them all (the command's own unplug tests send it to its parent).
#include "simreader.h"

#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

extern char** environ;

namespace {

constexpr int kExitUsage = 2;
constexpr int kExitSpawn = 127;
constexpr const char* kPreload = "libumockdev-preload.so.0";

const char kHelp[] =
    "Usage: ztuvc-sim [--model 10|20|30|40] [--readers N] [--pattern] [-q] -- COMMAND [ARGS...]\n"
    "Runs COMMAND with simulated fingerprint readers attached (umockdev), streaming\n"
    "at the model's frame rate, and exits with the command's exit code.\n"
    "  --model M     reader model: 10 (640 x 480), 20 (1296 x 808), 30 or 40\n"
    "                (1280 x 1024); default 30\n"
    "  --readers N   number of readers, 0..8 (default 1)\n"
    "  --pattern     stream the test pattern (frame number in bytes 0..3) instead\n"
    "                of fingerprint-like images\n"
    "  -q, --quiet   no banner on stderr\n"
    "SIGUSR1 to this process unplugs every reader; other signals go to COMMAND.\n"
    "Example: ztuvc-sim --model 30 -- ztuvc capture -n 5\n";

// Signals meant for the command, and SIGUSR1 (unplug): blocked in every
// thread of this process (set before the simulator starts its threads) and
// taken synchronously.
sigset_t forwardedSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1}) sigaddset(&set, sig);
    return set;
}

int usage(const char* fmt, const char* arg) {
    std::fprintf(stderr, "ztuvc-sim: ");
    std::fprintf(stderr, fmt, arg);
    std::fprintf(stderr, "\nTry 'ztuvc-sim --help'.\n");
    return kExitUsage;
}

// Decimal only: model numbers and counts.
bool parseSmall(const char* s, unsigned& out) {
    if (s == nullptr || *s == '\0') return false;
    char* end = nullptr;
    errno = 0;
    unsigned long v = std::strtoul(s, &end, 10);
    if (errno != 0 || *end != '\0' || s[0] == '-' || v > 1000) return false;
    out = unsigned(v);
    return true;
}

// The testbed serves the preloaded child through umockdev's socket; run
// under the preload ourselves too, as the simulator expects.
void ensurePreload(char** argv) {
    if (sim::underUmockdevPreload()) return;
    const char* old = std::getenv("LD_PRELOAD");
    std::string v = kPreload;
    if (old != nullptr && *old != '\0') v = v + ":" + old;
    setenv("LD_PRELOAD", v.c_str(), 1);
    execv("/proc/self/exe", argv);
    std::fprintf(stderr, "ztuvc-sim: cannot restart under umockdev's preload: %s\n", std::strerror(errno));
    std::exit(kExitSpawn);
}

}  // namespace

int main(int argc, char** argv) {
    unsigned modelNumber = 30, readers = 1;
    bool pattern = false, quiet = false;
    int cmd = -1;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--") {
            cmd = i + 1;
            break;
        }
        if (a == "-h" || a == "--help") {
            std::fputs(kHelp, stdout);
            return 0;
        }
        if (a == "--pattern") {
            pattern = true;
        } else if (a == "-q" || a == "--quiet") {
            quiet = true;
        } else if (a == "--model" || a == "--readers") {
            if (i + 1 >= argc) return usage("option '%s' needs a value", argv[i]);
            unsigned v = 0;
            if (!parseSmall(argv[++i], v)) return usage("bad number '%s'", argv[i]);
            (a == "--model" ? modelNumber : readers) = v;
        } else if (a[0] != '-') {
            cmd = i;  // the command may follow the options without "--"
            break;
        } else {
            return usage("unknown option '%s'", argv[i]);
        }
    }
    if (cmd < 0 || cmd >= argc) return usage("%s", "no command given");
    sim::Model model;
    switch (modelNumber) {
    case 10: model = sim::Model::T10; break;
    case 20: model = sim::Model::T20; break;
    case 30: model = sim::Model::T30; break;
    case 40: model = sim::Model::T40; break;
    default: return usage("unknown model '%s' (10, 20, 30 or 40)", std::to_string(modelNumber).c_str());
    }
    if (readers > 8) return usage("--readers %s: at most 8", std::to_string(readers).c_str());

    ensurePreload(argv);
    // Fewer timer wake-up delays in umockdev's round trips.
    prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);

    int status = 0;
    pid_t pid = -1;
    const sigset_t forwarded = forwardedSignals();
    sigset_t previous;
    pthread_sigmask(SIG_BLOCK, &forwarded, &previous);
    {
        sim::Testbed testbed;
        const sim::ModelInfo& mi = sim::modelInfo(model);
        for (unsigned r = 0; r < readers; ++r) {
            sim::Reader& reader = testbed.addReader(model);
            reader.setImageMode(pattern ? sim::ImageMode::Pattern : sim::ImageMode::Fingerprint);
            reader.startPaced();
        }
        if (!quiet)
            std::fprintf(stderr, "ztuvc-sim: %u simulated %s%s (%u x %u, %.1f frames/s)\n", readers, mi.name,
                         readers == 1 ? "" : "s", mi.width, mi.height, 1e7 / mi.frameInterval);

        // The command starts with the signal mask this process had.
        posix_spawnattr_t attr;
        posix_spawnattr_init(&attr);
        posix_spawnattr_setsigmask(&attr, &previous);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK);
        pid_t child = -1;
        int err = posix_spawnp(&child, argv[cmd], nullptr, &attr, argv + cmd, environ);
        posix_spawnattr_destroy(&attr);
        if (err != 0) {
            std::fprintf(stderr, "ztuvc-sim: cannot run '%s': %s\n", argv[cmd], std::strerror(err));
            return kExitSpawn;
        }
        // Signals go to the command, which decides; this process stays to
        // serve the readers until the command has exited.
        for (;;) {
            pid = waitpid(child, &status, WNOHANG);
            if (pid != 0 && !(pid < 0 && errno == EINTR)) break;
            const struct timespec tick = {0, 20 * 1000 * 1000};
            int sig = sigtimedwait(&forwarded, nullptr, &tick);
            if (sig == SIGUSR1) {
                for (sim::Reader* r : testbed.devices())
                    if (r->plugged()) r->unplug();
            } else if (sig > 0) {
                kill(child, sig);
            }
        }
        for (sim::Reader* r : testbed.devices()) r->stopPaced();
    }
    if (pid < 0) return kExitSpawn;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return 1;
}
