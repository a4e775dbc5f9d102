#include "trace_child.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

TraceSandbox::TraceSandbox()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "ztuvc-trace-XXXXXX").string();
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    dir = mkdtemp(buf.data());
    home = dir + "/home";
    std::filesystem::create_directories(home);
}

TraceSandbox::~TraceSandbox()
{
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
}

void TraceSandbox::writeFile(const std::string &relPath, const std::string &content) const
{
    std::filesystem::path p = std::filesystem::path(dir) / relPath;
    std::filesystem::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary) << content;
}

int RunInChild(const std::vector<std::string> &env, const std::function<void()> &body)
{
    pid_t pid = fork();
    if (pid == 0) {
        unsetenv("ZTTRACE_ON");
        unsetenv("ZTTRACE_PATH");
        unsetenv("HOME");
        for (const std::string &e : env) {
            size_t eq = e.find('=');
            if (eq == std::string::npos)
                unsetenv(e.c_str());
            else
                setenv(e.substr(0, eq).c_str(), e.substr(eq + 1).c_str(), 1);
        }
        body();
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string ReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<std::string> ReadLines(const std::string &path)
{
    std::vector<std::string> lines;
    std::istringstream in(ReadFile(path));
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}
