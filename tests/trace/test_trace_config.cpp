/*
 * Trace configuration: the configuration file syntax, the environment
 * variables and where the output goes.
 */
#include <gtest/gtest.h>

#include <fstream>

#include "trace/dtraces.h"
#include "trace/dtraces_int.h"
#include "trace_child.h"

namespace {

/* Level of the usbtr region after configuration, reported by the child. */
int UsbtrLevel(const TraceSandbox &box, const std::vector<std::string> &env)
{
    std::string out = box.path("level");
    int rc = RunInChild(env, [&] {
        _DInitRegion(&_DRegion_usbtr);
        std::ofstream(out) << static_cast<int>(_DRegion_usbtr.bLevel);
    });
    EXPECT_EQ(0, rc);
    return std::stoi(ReadFile(out));
}

int LevelFromRegionFile(const std::string &content)
{
    TraceSandbox box;
    box.writeFile("home/.zttrace/ztuvc.cfg", content);
    return UsbtrLevel(box, {"HOME=" + box.home});
}

std::string CfgValue(const std::string &content, const std::string &key, unsigned length = 4096)
{
    TraceSandbox box;
    box.writeFile("cfg", content);
    std::vector<char> value(length, '#');
    CfgGetSetValue(box.path("cfg").c_str(), key.c_str(), value.data(), length, "DEFAULT");
    return value.data();
}

/* Target and region file chosen at initialisation, as "target|regionfile". */
std::string Destinations(const TraceSandbox &box, const std::vector<std::string> &env)
{
    std::string out = box.path("dest");
    int rc = RunInChild(env, [&] {
        _DInitRegion(&_DRegion_usbuvc);
        std::ofstream(out) << gDContext.szTarget << '|' << gDContext.szRegionConfigFile;
    });
    EXPECT_EQ(0, rc);
    return ReadFile(out);
}

} // namespace

TEST(TraceConfigFile, KeyAndValueVariants)
{
    EXPECT_EQ(3, LevelFromRegionFile("usbtr = d\n"));
    EXPECT_EQ(3, LevelFromRegionFile("usbtr=d\n"));
    EXPECT_EQ(3, LevelFromRegionFile("usbtr = debug\n"));
    EXPECT_EQ(3, LevelFromRegionFile("\"usbtr\" = \"d\"\n"));
    EXPECT_EQ(3, LevelFromRegionFile("   \tusbtr\t=\td\n"));
    EXPECT_EQ(5, LevelFromRegionFile("usbuvc = e\nusbtr = l\n"));
    EXPECT_EQ(0, LevelFromRegionFile("usbtr = n\n"));
    EXPECT_EQ(1, LevelFromRegionFile("usbtr = e\nusbtr = l\n")); /* first match wins */
}

TEST(TraceConfigFile, UnknownLettersPrefixesAndComments)
{
    EXPECT_EQ(0, LevelFromRegionFile("usbtr = x\n"));  /* not a level letter */
    EXPECT_EQ(0, LevelFromRegionFile("usbtr = D\n"));  /* letters are lower case */
    EXPECT_EQ(0, LevelFromRegionFile("usbtr =\n"));    /* empty value */
    EXPECT_EQ(2, LevelFromRegionFile(""));             /* no key: "w" */
    EXPECT_EQ(2, LevelFromRegionFile("usbtrx = l\n")); /* only a prefix of another key */
    EXPECT_EQ(2, LevelFromRegionFile("usbt = l\n"));
    EXPECT_EQ(2, LevelFromRegionFile("# usbtr = l\n"));
    EXPECT_EQ(2, LevelFromRegionFile("usbtr l\n")); /* no equals sign */
}

TEST(TraceConfigFile, LongLinesAreReadInPieces)
{
    /* The 255-character piece is one line, the rest another one. */
    std::string filler(255, 'z');
    EXPECT_EQ(5, LevelFromRegionFile(filler + "usbtr = l\n"));
    EXPECT_EQ(2, LevelFromRegionFile(std::string(254, 'z') + "usbtr = l\n"));
}

TEST(TraceConfigFile, OptionTargetQuotedAndUnquoted)
{
    EXPECT_EQ("/var/log/my traces/t.log", CfgValue("option_target = \"/var/log/my traces/t.log\" junk\n",
                                                   "option_target"));
    EXPECT_EQ("/var/log/plain  ", CfgValue("option_target = /var/log/plain  \n", "option_target"));
    EXPECT_EQ("/a\"b\r", CfgValue("option_target=/a\"b\r\n", "option_target"));
    EXPECT_EQ("/no/newline", CfgValue("option_target = /no/newline", "option_target"));
    EXPECT_EQ("DEFAULT", CfgValue("other = 1\n", "option_target"));
    EXPECT_EQ("/abc", CfgValue("option_target = /abcdef\n", "option_target", 5)); /* length - 1 kept */
    TraceSandbox box;
    char value[32] = "";
    CfgGetSetValue(box.path("missing.cfg").c_str(), "option_target", value, sizeof(value), "/tmp/traces.log");
    EXPECT_STREQ("/tmp/traces.log", value);
}

TEST(TraceEnvironment, ZttraceOnValues)
{
    TraceSandbox box;
    box.writeFile("home/.zttrace/ztuvc.cfg", "usbtr = l\n");
    std::string home = "HOME=" + box.home;
    EXPECT_EQ(0, UsbtrLevel(box, {home, "ZTTRACE_ON=0"}));
    EXPECT_EQ(4, UsbtrLevel(box, {home, "ZTTRACE_ON=1"})); /* overrides the file's l */
    EXPECT_EQ(4, UsbtrLevel(box, {home, "ZTTRACE_ON=5"}));
    EXPECT_EQ(0, UsbtrLevel(box, {home, "ZTTRACE_ON="}));
    EXPECT_EQ(0, UsbtrLevel(box, {home, "ZTTRACE_ON=yes"}));
    EXPECT_EQ(4, UsbtrLevel(box, {home, "ZTTRACE_ON= -3"}));
    EXPECT_EQ(4, UsbtrLevel(box, {home, "ZTTRACE_PATH=" + box.dir}));
    EXPECT_EQ(0, UsbtrLevel(box, {home, "ZTTRACE_PATH=" + box.dir, "ZTTRACE_ON=0"}));
}

TEST(TraceEnvironment, OutputDestinations)
{
    TraceSandbox box;
    EXPECT_EQ("/var/log/x/traces.log|", Destinations(box, {"ZTTRACE_PATH=/var/log/x", "ZTTRACE_ON=1"}));
    EXPECT_EQ("/tmp/traces.log|", Destinations(box, {"ZTTRACE_ON=1"}));
    /* HOME without .zttrace: defaults, /etc/zttrace never consulted. */
    EXPECT_EQ("/tmp/traces.log|" + box.home + "/.zttrace/ztuvc.cfg", Destinations(box, {"HOME=" + box.home}));
    box.writeFile("home/.zttrace/.zttrace.cfg", "option_target = \"" + box.dir + "/out file.log\"\n");
    EXPECT_EQ(box.dir + "/out file.log|" + box.home + "/.zttrace/ztuvc.cfg",
              Destinations(box, {"HOME=" + box.home}));
    /* HOME that is not a directory, or unset: the system-wide files. */
    box.writeFile("plainfile", "x");
    std::string etc = Destinations(box, {"HOME=" + box.path("plainfile")});
    EXPECT_TRUE(etc.ends_with("|/etc/zttrace/ztuvc.cfg")) << etc;
    EXPECT_TRUE(Destinations(box, {}).ends_with("|/etc/zttrace/ztuvc.cfg"));
}

TEST(TraceEnvironment, DefaultLevelsWriteOnlyFailuresAndWarnings)
{
    TraceSandbox box;
    box.writeFile("home/.zttrace/.zttrace.cfg", "option_target = " + box.dir + "/t.log\n");
    ASSERT_EQ(0, RunInChild({"HOME=" + box.home}, [&] {
                  DTRACE(_DRegion_usbuvc, 1, "one");
                  DTRACE(_DRegion_usbtr, 2, "two");
                  DTRACE(_DRegion_usbvd, 3, "three");
                  DTRACE(_DRegion_fpplat, 2, "four");
              }));
    std::vector<std::string> lines = ReadLines(box.path("t.log"));
    ASSERT_EQ(3u, lines.size());
    EXPECT_TRUE(lines[0].ends_with("|e|") == false);
    EXPECT_NE(std::string::npos, lines[0].find("|  usbuvc|"));
    EXPECT_TRUE(lines[0].ends_with("|one"));
    EXPECT_TRUE(lines[1].ends_with("|two"));
    EXPECT_NE(std::string::npos, lines[2].find("|  fpplat|"));
}
