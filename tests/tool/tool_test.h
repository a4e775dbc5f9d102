// The tool tests' helpers: a program run as a child with its output in files,
// and the images it wrote read back (PNG through libpng).
#pragma once

#include <fcntl.h>
#include <png.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include <gtest/gtest.h>

extern char** environ;

namespace tooltest {

struct Result {
    int code = -1;  // 128 + signal when killed
    std::string out, err;
};

inline std::string readFile(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(f)), {});
}
inline bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }
inline bool waitFile(const std::string& path) {  // one the child writes, bounded
    for (int i = 0; i < 4000 && !exists(path); i++) usleep(5000);
    return exists(path);
}
inline std::string tempDir() {
    std::string d = std::string(getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp") + "/tool-XXXXXX";
    return mkdtemp(d.data()) ? d : "";
}

// `program argv...` as a child with stdout and stderr in files of `dir`.
class Child {
public:
    Child(const char* program, std::vector<std::string> argv, std::string dir) : dir_(std::move(dir)) {
        argv.insert(argv.begin(), program);
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&fa, 1, (dir_ + "/stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&fa, 2, (dir_ + "/stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (posix_spawn(&pid_, args[0], &fa, nullptr, args.data(), environ) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&fa);
    }
    ~Child() { wait(); }
    void signal(int sig) { syscall(SYS_tgkill, pid_, pid_, sig); }  // to the main thread, not to any thread
    Result wait() {  // bounded by the case's watchdog or ctest's time limit
        int status = 0;
        if (pid_ <= 0 || waitpid(std::exchange(pid_, -1), &status, 0) < 0) return {};
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), readFile(dir_ + "/stdout"),
                readFile(dir_ + "/stderr")};
    }
private:
    pid_t pid_ = -1;
    std::string dir_;
};

// The 8-bit grey pixels of a PNG or binary PGM file, empty if it is not one.
inline std::vector<uint8_t> readImage(const std::string& path, uint32_t* width = nullptr) {
    std::vector<uint8_t> px;
    png_image pi{};
    pi.version = PNG_IMAGE_VERSION;
    std::string s = readFile(path);
    int at = 0;
    if (png_image_begin_read_from_memory(&pi, s.data(), s.size()) && pi.format == PNG_FORMAT_GRAY) {
        px.resize(PNG_IMAGE_SIZE(pi));
        if (!png_image_finish_read(&pi, nullptr, px.data(), 0, nullptr)) px.clear();
    } else if (sscanf(s.c_str(), "P5\n%u %u\n255\n%n", &pi.width, &pi.height, &at) == 2 && at > 0) {
        px.assign(s.begin() + at, s.end());
    }
    png_image_free(&pi);
    if (width != nullptr) *width = pi.width;
    return px;
}

}  // namespace tooltest
