// Helpers of the tool tests: run a program as a child process with its output
// in files, and read back the images it wrote.
#pragma once

#include <png.h>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace tooltest {

struct Result {
    int exitCode = -1;  // 128 + signal when killed
    std::string out, err;
    bool timedOut = false;
};

inline std::string readFile(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

// A fresh directory under TMPDIR (the test run's own), removed by the caller
// only on success, so that failures leave the evidence.
inline std::string makeTempDir(const char* tag) {
    const char* tmp = std::getenv("TMPDIR");
    std::string templ = std::string(tmp != nullptr && *tmp ? tmp : "/tmp") + "/" + tag + "-XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) return {};
    return buf.data();
}

// A child process with stdout/stderr in files.
class Child {
public:
    Child(const std::vector<std::string>& argv, const std::string& dir) {
        outPath_ = dir + "/stdout";
        errPath_ = dir + "/stderr";
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&fa, 1, outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&fa, 2, errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        spawnError_ = posix_spawn(&pid_, args[0], &fa, nullptr, args.data(), environ);
        posix_spawn_file_actions_destroy(&fa);
        if (spawnError_ != 0) pid_ = -1;
    }
    ~Child() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    bool running() const { return pid_ > 0; }
    void signal(int sig) {
        if (pid_ > 0) kill(pid_, sig);
    }
    int spawnError() const { return spawnError_; }

    // Waits for the exit; kills the child after `timeout`.
    Result wait(std::chrono::milliseconds timeout = std::chrono::milliseconds(60000)) {
        Result r;
        if (pid_ <= 0) {
            r.err = std::string("spawn failed: ") + std::strerror(spawnError_);
            return r;
        }
        auto deadline = std::chrono::steady_clock::now() + timeout;
        int status = 0;
        for (;;) {
            pid_t p = waitpid(pid_, &status, WNOHANG);
            if (p == pid_) break;
            if (std::chrono::steady_clock::now() > deadline) {
                kill(pid_, SIGKILL);
                waitpid(pid_, &status, 0);
                r.timedOut = true;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        pid_ = -1;
        if (WIFEXITED(status)) r.exitCode = WEXITSTATUS(status);
        else if (WIFSIGNALED(status)) r.exitCode = 128 + WTERMSIG(status);
        r.out = readFile(outPath_);
        r.err = readFile(errPath_);
        return r;
    }

private:
    pid_t pid_ = -1;
    int spawnError_ = 0;
    std::string outPath_, errPath_;
};

inline Result run(const std::vector<std::string>& argv, const std::string& dir,
                  std::chrono::milliseconds timeout = std::chrono::milliseconds(60000)) {
    Child c(argv, dir);
    return c.wait(timeout);
}

// Runs a program with a terminal as stdout and stderr; collects everything
// it wrote there. Returns the exit code (-1 when it had to be killed).
inline int runOnTerminal(const std::vector<std::string>& argv, std::string& out,
                         std::chrono::milliseconds timeout = std::chrono::milliseconds(60000)) {
    int master = -1, slave = -1;
    if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) return -1;
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&fa, slave, 1);
    posix_spawn_file_actions_adddup2(&fa, slave, 2);
    posix_spawn_file_actions_addclose(&fa, master);
    posix_spawn_file_actions_addclose(&fa, slave);
    pid_t pid = -1;
    int err = posix_spawn(&pid, args[0], &fa, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    ::close(slave);
    if (err != 0) {
        ::close(master);
        return -1;
    }
    auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    bool exited = false;
    char buf[4096];
    for (;;) {
        pollfd p{master, POLLIN, 0};
        if (poll(&p, 1, 10) > 0) {
            ssize_t n = ::read(master, buf, sizeof buf);
            if (n > 0) {
                out.append(buf, size_t(n));
                continue;
            }
            if (exited) break;  // EIO: the terminal's last writer is gone
        } else if (exited) {
            break;
        }
        if (!exited && waitpid(pid, &status, WNOHANG) == pid) exited = true;
        if (!exited && std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            ::close(master);
            return -1;
        }
    }
    ::close(master);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

struct Image {
    uint32_t width = 0, height = 0;
    std::vector<uint8_t> pixels;
    std::string error;
};

// An 8-bit grey PNG, decoded with libpng.
inline Image readPng(const std::string& path) {
    Image img;
    png_image pi;
    std::memset(&pi, 0, sizeof pi);
    pi.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&pi, path.c_str())) {
        img.error = pi.message;
        return img;
    }
    // The file's own format, so that nothing is converted on the way.
    if (pi.format != PNG_FORMAT_GRAY) {
        img.error = "not an 8-bit grey PNG (format " + std::to_string(pi.format) + ")";
        png_image_free(&pi);
        return img;
    }
    img.width = pi.width;
    img.height = pi.height;
    img.pixels.resize(PNG_IMAGE_SIZE(pi));
    if (!png_image_finish_read(&pi, nullptr, img.pixels.data(), 0, nullptr)) {
        img.error = pi.message;
        img.pixels.clear();
    }
    png_image_free(&pi);
    return img;
}

// A binary PGM ("P5 w h 255" with single whitespace separators, as written).
inline Image readPgm(const std::string& path) {
    Image img;
    std::string s = readFile(path);
    unsigned w = 0, h = 0, max = 0;
    int consumed = 0;
    if (std::sscanf(s.c_str(), "P5\n%u %u\n%u\n%n", &w, &h, &max, &consumed) != 3 || consumed == 0 ||
        max != 255) {
        img.error = "bad PGM header";
        return img;
    }
    if (s.size() != size_t(consumed) + size_t(w) * h) {
        img.error = "PGM size " + std::to_string(s.size()) + " for " + std::to_string(w) + " x " +
                    std::to_string(h);
        return img;
    }
    img.width = w;
    img.height = h;
    img.pixels.assign(s.begin() + consumed, s.end());
    return img;
}

inline bool fileExists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

inline int countLinesStartingWith(const std::string& text, const std::string& prefix) {
    int n = 0;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        if (line.rfind(prefix, 0) == 0) ++n;
    return n;
}

}  // namespace tooltest
