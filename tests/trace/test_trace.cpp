/*
 * The trace facility: configuration, where records go, the records.  It
 * initialises once per process, so every case runs its body in a forked
 * child with its own environment and directory, and checks what it wrote.
 */
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "trace/dtraces.h"
#include "trace/dtraces_int.h"

namespace {

namespace fs = std::filesystem;

struct Sandbox {
    std::string dir = fs::temp_directory_path() / "ztuvc-trace-XXXXXX";
    std::string home = std::string(mkdtemp(dir.data())) + "/home";
    Sandbox() { fs::create_directories(home + "/.zttrace"); }
    ~Sandbox() { fs::remove_all(dir); }
    std::string path(const std::string &name) const { return dir + "/" + name; }
    void write(const std::string &name, const std::string &content) const { std::ofstream(path(name)) << content; }
    std::string read(const std::string &name) const
    {
        return std::string(std::istreambuf_iterator<char>(std::ifstream(path(name)).rdbuf()), {});
    }
    std::vector<std::string> lines(const std::string &name = "traces.log") const
    {
        std::vector<std::string> out;
        std::istringstream in(read(name));
        for (std::string l; std::getline(in, l);)
            out.push_back(l);
        return out;
    }
    /* Runs body in a child with no trace variables but env ("K=V"); 0 = it ran through. */
    int run(const std::vector<std::string> &env, const std::function<void()> &body) const
    {
        pid_t pid = fork();
        if (pid == 0) {
            for (const char *v : {"ZTTRACE_ON", "ZTTRACE_PATH", "HOME"})
                unsetenv(v);
            for (const std::string &e : env)
                setenv(e.substr(0, e.find('=')).c_str(), e.substr(e.find('=') + 1).c_str(), 1);
            body();
            _exit(0);
        }
        int status = -1;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
};

/* The text of a record: what follows the eighth '|'. */
std::string Text(const std::string &line)
{
    size_t p = 0;
    for (int i = 0; i < 8 && p != std::string::npos; i++)
        p = line.find('|', p + 1);
    return p == std::string::npos ? "<no record: " + line + ">" : line.substr(p + 1);
}

/* Level of the usbtr region with this region file in HOME, plus env. */
int UsbtrLevel(const std::string &regionFile, std::vector<std::string> env = {})
{
    Sandbox box;
    box.write("home/.zttrace/ztuvc.cfg", regionFile);
    env.push_back("HOME=" + box.home);
    EXPECT_EQ(0, box.run(env, [&] {
        _DInitRegion(&_DRegion_usbtr);
        std::ofstream(box.path("level")) << int(_DRegion_usbtr.bLevel);
    }));
    return std::stoi(box.read("level"));
}

} // namespace

TEST(TraceConfig, RegionLevelsFromTheFileAndTheEnvironment)
{
    /* First match wins; no key: "w"; a line is read in pieces of 255 characters. */
    const std::pair<std::string, int> files[] = {
        {"usbtr = d\n", 3},  {"usbtr=debug\n", 3}, {"\"usbtr\" = \"d\"\n", 3}, {" \tusbtr\t=\tt\n", 4},
        {"usbtr = n\n", 0},  {"usbtr = e\nusbtr = l\n", 1}, {"usbuvc = e\nusbtr = l\n", 5}, {"usbtr = x\n", 0},
        {"usbtr = D\n", 0},  {"usbtr =\n", 0},  {"", 2}, {"usbtrx = l\n", 2}, {"usbt = l\n", 2}, {"# usbtr = l\n", 2},
        {"usbtr l\n", 2}, {std::string(255, 'z') + "usbtr = l\n", 5}, {std::string(254, 'z') + "usbtr = l\n", 2}};
    for (const auto &[file, level] : files)
        EXPECT_EQ(level, UsbtrLevel(file)) << file;
    const std::pair<const char *, int> ons[] = {{"ZTTRACE_ON=0", 0}, {"ZTTRACE_ON=1", 4}, {"ZTTRACE_ON=5", 4},
                                                {"ZTTRACE_ON=", 0},  {"ZTTRACE_ON=yes", 0}, {"ZTTRACE_ON= -3", 4},
                                                {"ZTTRACE_PATH=/x", 4}};
    for (const auto &[env, level] : ons)
        EXPECT_EQ(level, UsbtrLevel("usbtr = l\n", {env})) << env; /* the variables override the file */
    EXPECT_EQ(0, UsbtrLevel("usbtr = l\n", {"ZTTRACE_PATH=/x", "ZTTRACE_ON=0"}));
}

TEST(TraceConfig, OutputDestinationsAndDefaultLevels)
{
    Sandbox box;
    auto where = [&](const std::vector<std::string> &env) {
        EXPECT_EQ(0, box.run(env, [&] {
            _DInitRegion(&_DRegion_usbuvc);
            std::ofstream(box.path("dest")) << gDContext.szTarget << '|' << gDContext.szRegionConfigFile;
        }));
        return box.read("dest");
    };
    const std::string home = "HOME=" + box.home, cfg = "|" + box.home + "/.zttrace/ztuvc.cfg";
    EXPECT_EQ("/var/log/x/traces.log|", where({"ZTTRACE_PATH=/var/log/x", "ZTTRACE_ON=1"}));
    EXPECT_EQ("/tmp/traces.log" + cfg, where({home})); /* /etc/zttrace is not consulted */
    box.write("home/.zttrace/.zttrace.cfg", "option_target = \"" + box.dir + "/out file.log\" junk\n");
    EXPECT_EQ(box.dir + "/out file.log" + cfg, where({home})); /* quoted: up to the closing quote */
    /* HOME not a directory, or unset: the system-wide files. */
    EXPECT_TRUE(where({"HOME=" + box.path("home/.zttrace/.zttrace.cfg")}).ends_with("|/etc/zttrace/ztuvc.cfg"));
    EXPECT_TRUE(where({}).ends_with("|/etc/zttrace/ztuvc.cfg"));

    /* Without configuration only failures and warnings (levels 1 and 2) are written. */
    ASSERT_EQ(0, box.run({home}, [] {
        DTRACE(_DRegion_usbuvc, 1, "one");
        DTRACE(_DRegion_usbtr, 2, "two");
        DTRACE(_DRegion_usbvd, 3, "three");
        DTRACE(_DRegion_fpplat, 2, "four");
    }));
    const auto lines = box.lines("out file.log");
    ASSERT_EQ(3u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("|  usbuvc|"));
    EXPECT_EQ("two", Text(lines[1]));
    EXPECT_TRUE(lines[2].find("|  fpplat|") != std::string::npos && Text(lines[2]) == "four") << lines[2];
}

namespace {
int Traced(int iValue, bool bLeaveEarly)
{
    DTRACE_ENTER(call, _DRegion_usbtr, 3, "%s(%d)", iValue);
    if (bLeaveEarly)
        return -1; /* no exit record; the indentation is still restored */
    usleep(20 * 1000);
    DTRACE_EXIT(call, "%s() --> %d", iValue * 2);
    return iValue * 2;
}
} // namespace

TEST(TraceRecord, LayoutIndentationCuttingDumpsCallsAndConcurrentWriters)
{
    Sandbox box;
    uint8_t data[40];
    for (int i = 0; i < 40; i++)
        data[i] = uint8_t(i * 7 + 1);
    ASSERT_EQ(0, box.run({"ZTTRACE_PATH=" + box.dir}, [&] {
        char ids[32];
        snprintf(ids, sizeof(ids), "%04x:%04x", unsigned(getpid()), unsigned(pthread_self()));
        std::ofstream(box.path("ids")) << ids;
        _DTraceDecIndentLevel();
        DTRACE(_DRegion_usbtr, 1, "below zero");
        for (int i = 0; i < 3; i++)
            _DTraceIncIndentLevel();
        _DTracePlain(&_DRegion_usbtr, 3, "/src/lnx/transport/usbtr", 977, "Checking handle count (%d) to be 0", 0);
        DTRACE(_DRegion_usbtr, 1, "here");
        std::thread([] { DTRACE(_DRegion_usbtr, 1, "other thread"); }).join();
        _DTraceDecIndentLevel();
        _DTraceDecIndentLevel();
        DTRACE(_DRegion_usbtr, 1, "%s", std::string(5000, 'x').c_str());
        _DAssert(nullptr, __FILE__, __LINE__); /* assertions and errors write nothing */
        _DError("USBTR_STATUS_COMM_ERROR", __FILE__, __LINE__);
        _DDataDump(&_DRegion_usbuvc, 1, __FILE__, __LINE__, "forty", data, 40, 0);
        _DDataDump(&_DRegion_usbuvc, 1, __FILE__, __LINE__, "full", data, 40, 1);
        _DDataDump(&_DRegion_usbuvc, 5, __FILE__, __LINE__, "hidden", data, 40, 1);
        Traced(21, false);
        Traced(5, true);
        DTRACE(_DRegion_usbtr, 3, "level zero");
    }));
    const auto lines = box.lines();
    ASSERT_EQ(13u, lines.size());
    EXPECT_EQ("below zero", Text(lines[0])); /* no indentation below zero */
    /* Everything but the two clock fields is known exactly. */
    const std::string expected = "   ztuvc|   usbtr|   usbtr| 977|d|" + box.read("ids") +
                                 "|     0.@@@|@@:@@:@@.@@@|  Checking handle count (0) to be 0";
    ASSERT_EQ(expected.size(), lines[1].size()) << lines[1];
    for (size_t i = 0; i < expected.size(); i++)
        EXPECT_TRUE(expected[i] == '@' ? isdigit(lines[1][i]) : expected[i] == lines[1][i]) << i << ": " << lines[1];
    EXPECT_NE(std::string::npos, lines[2].find("|test_trace.cpp|")); /* base name, not cut to 8 */
    EXPECT_NE(std::string::npos, lines[2].find("|e|"));
    EXPECT_EQ("  here", Text(lines[2]));
    EXPECT_EQ("other thread", Text(lines[3])); /* indentation is per thread */
    EXPECT_EQ(2046u, lines[4].size());        /* cut, and still ended by its newline */
    const std::string hex = "01,08,0f,16,1d,24,2b,32,39,40,47,4e,55,5c,63,6a,71,78,7f,86,8d,94,9b,a2,a9,b0,b7,be,"
                            "c5,cc,d3,da,e1,e8,ef,f6,fd,04,0b,12,";
    EXPECT_TRUE(Text(lines[5]).starts_with("forty: 0x")) << lines[5];
    EXPECT_TRUE(Text(lines[5]).ends_with(", 40 bytes: " + hex.substr(0, 96) + "...")) << lines[5];
    EXPECT_TRUE(Text(lines[6]).starts_with("full: 0x") && Text(lines[6]).ends_with(", 40 bytes, full dump follows"));
    EXPECT_EQ(hex.substr(0, 96), lines[7]); /* continuation lines carry no header */
    EXPECT_EQ(hex.substr(96), lines[8]);
    EXPECT_EQ("==> Traced(21)", Text(lines[9]));
    double seconds = 0; /* the call's duration, "s.mmm" */
    char rest[32] = "";
    EXPECT_EQ(2, sscanf(Text(lines[10]).c_str(), "<== (%lf) %31[^\n]", &seconds, rest)) << lines[10];
    EXPECT_TRUE(seconds >= 0.02 && Text(lines[10])[Text(lines[10]).find(')') - 4] == '.') << lines[10];
    EXPECT_STREQ("Traced() --> 42", rest);
    EXPECT_EQ("==> Traced(5)", Text(lines[11]));
    EXPECT_EQ("level zero", Text(lines[12]));

    /* A target that cannot be written does not stop the caller; nothing below the level is formatted. */
    const char *poison = reinterpret_cast<const char *>(uintptr_t(16));
    ASSERT_EQ(0, box.run({"ZTTRACE_PATH=" + box.dir + "/no/such/dir"}, [&] {
        DTRACE(_DRegion_usbtr, 1, "lost");
        DTRACE_ENTER(call, _DRegion_usbtr, 5, "%s(%s)", poison);
        DTRACE(_DRegion_usbtr, 5, "%s", poison);
        _DDataDump(&_DRegion_usbtr, 5, __FILE__, __LINE__, "x", poison, 64, 1);
        DTRACE_EXIT(call, "%s() --> %s", poison);
        std::ofstream(box.path("done")) << "yes";
    }));
    EXPECT_EQ("yes", box.read("done"));

    /* Concurrent writers: whole records, each thread's in its own order. */
    fs::remove(box.path("traces.log"));
    ASSERT_EQ(0, box.run({"ZTTRACE_PATH=" + box.dir}, [] {
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; t++)
            threads.emplace_back([t] {
                for (int i = 0; i < 300; i++) {
                    if (_DShouldTrace(&_DRegion_usbvd, 1, __FILE__, __LINE__, "T")) {
                        _DAddToMessage("%d:", t);
                        _DDoTrace("%d:%s", i, std::string(100 + t * 37, char('a' + t)).c_str());
                    }
                }
            });
        for (std::thread &th : threads)
            th.join();
    }));
    ASSERT_EQ(1200u, box.lines().size());
    std::vector<int> next(4, 0);
    for (const std::string &l : box.lines()) {
        int t = -1, i = -1, n = 0;
        ASSERT_EQ(2, sscanf(Text(l).c_str(), "T%d:%d:%n", &t, &i, &n)) << l;
        ASSERT_TRUE(t >= 0 && t < 4 && next[t]++ == i) << l;
        EXPECT_EQ(std::string(100 + t * 37, char('a' + t)), Text(l).substr(n));
    }
}
