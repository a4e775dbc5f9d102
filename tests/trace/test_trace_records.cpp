/*
 * Trace records: the header byte for byte, indentation, cutting, output
 * fallback, data dumps, the entry/exit helper and concurrent writers.
 */
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <pthread.h>
#include <regex>
#include <thread>
#include <unistd.h>

#include "trace/dtraces.h"
#include "trace_child.h"

namespace {

/* Parsed fields of one record line. */
struct Record {
    std::string module, region, file, level, pid, tid, text;
    int line = 0;
    int seconds = 0;
    int millis = 0;
    std::string timeOfDay;
};

bool ParseRecord(const std::string &s, Record &r)
{
    static const std::regex re(R"(^(.{8})\|(.{8})\|(.{8,})\|(.{4,})\|(.)\|([0-9a-f]{4,}):([0-9a-f]{4,})\|)"
                               R"(( *[0-9]{1,})\.([0-9]{3})\|([0-9]{2}:[0-9]{2}:[0-9]{2})\.([0-9]{3})\|(.*)$)");
    std::smatch m;
    if (!std::regex_match(s, m, re))
        return false;
    r.module = m[1];
    r.region = m[2];
    r.file = m[3];
    r.line = std::stoi(m[4]);
    r.level = m[5];
    r.pid = m[6];
    r.tid = m[7];
    r.seconds = std::stoi(m[8]);
    r.millis = std::stoi(m[9]);
    r.timeOfDay = m[10];
    r.text = m[12];
    return true;
}

std::string Hex(unsigned v)
{
    char buf[16];
    snprintf(buf, sizeof(buf), "%04x", v);
    return buf;
}

} // namespace

TEST(TraceRecord, HeaderMatchesLayoutFieldByField)
{
    TraceSandbox box;
    ASSERT_EQ(0, RunInChild({"ZTTRACE_PATH=" + box.dir}, [&] {
                  std::ofstream(box.path("ids")) << Hex(getpid()) << ':'
                                                 << Hex(static_cast<uint32_t>(pthread_self()));
                  _DTraceIncIndentLevel();
                  _DTraceIncIndentLevel();
                  _DTracePlain(&_DRegion_usbtr, 3, "/src/lnx/transport/usbtr", 977,
                               "Checking handle count (%d) to be 0", 0);
                  DTRACE(_DRegion_usbtr, 3, "here");
              }));
    std::vector<std::string> lines = ReadLines(box.path("traces.log"));
    ASSERT_EQ(2u, lines.size());
    /* Everything but the two clock fields is known exactly. */
    std::string ids = ReadFile(box.path("ids"));
    std::string expected = "   ztuvc|   usbtr|   usbtr| 977|d|" + ids + "|     0.@@@|@@:@@:@@.@@@|  Checking handle count (0) to be 0";
    ASSERT_EQ(expected.size(), lines[0].size()) << lines[0];
    for (size_t i = 0; i < expected.size(); i++) {
        if (expected[i] == '@')
            EXPECT_TRUE(isdigit(static_cast<unsigned char>(lines[0][i]))) << i << ": " << lines[0];
        else
            EXPECT_EQ(expected[i], lines[0][i]) << i << ": " << lines[0];
    }
    Record r;
    ASSERT_TRUE(ParseRecord(lines[1], r)) << lines[1];
    EXPECT_EQ("test_trace_records.cpp", r.file); /* base name; wider than 8, not cut */
    EXPECT_EQ("  here", r.text);
}

TEST(TraceRecord, ElapsedTimeAndTimeOfDay)
{
    TraceSandbox box;
    ASSERT_EQ(0, RunInChild({"ZTTRACE_PATH=" + box.dir}, [&] {
                  DTRACE(_DRegion_usbuvc, 1, "first");
                  usleep(1100 * 1000);
                  DTRACE(_DRegion_usbuvc, 1, "second");
              }));
    std::vector<std::string> lines = ReadLines(box.path("traces.log"));
    ASSERT_EQ(2u, lines.size());
    Record a, b;
    ASSERT_TRUE(ParseRecord(lines[0], a));
    ASSERT_TRUE(ParseRecord(lines[1], b));
    int elapsed = (b.seconds * 1000 + b.millis) - (a.seconds * 1000 + a.millis);
    EXPECT_GE(elapsed, 1100);
    EXPECT_LT(elapsed, 5000);
    EXPECT_EQ("e", a.level);
    /* Six-wide seconds field, right-aligned. */
    EXPECT_NE(std::string::npos, lines[1].find("|     1.") );
}

TEST(TraceRecord, LongTextIsCutAndStillEndsWithNewline)
{
    TraceSandbox box;
    std::string big(5000, 'x');
    ASSERT_EQ(0, RunInChild({"ZTTRACE_PATH=" + box.dir}, [&] {
                  DTRACE(_DRegion_usbtr, 1, "%s", big.c_str());
                  DTRACE(_DRegion_usbtr, 1, "next");
              }));
    std::string all = ReadFile(box.path("traces.log"));
    size_t nl = all.find('\n');
    ASSERT_NE(std::string::npos, nl);
    EXPECT_EQ(2046u, nl); /* 2046 characters before the newline */
    std::vector<std::string> lines = ReadLines(box.path("traces.log"));
    ASSERT_EQ(2u, lines.size());
    Record r;
    ASSERT_TRUE(ParseRecord(lines[1], r));
    EXPECT_EQ("next", r.text);
}

TEST(TraceRecord, UnwritableTargetDoesNotStopTheCaller)
{
    TraceSandbox box;
    std::string missing = box.dir + "/no/such/dir";
    ASSERT_EQ(0, RunInChild({"ZTTRACE_PATH=" + missing}, [&] {
                  for (int i = 0; i < 3; i++)
                      DTRACE(_DRegion_usbtr, 1, "record %d", i);
                  std::ofstream(box.path("done")) << "yes";
              }));
    EXPECT_EQ("yes", ReadFile(box.path("done")));
    EXPECT_FALSE(std::ifstream(missing + "/traces.log").good());
}

TEST(TraceRecord, IndentationIsPerThreadAndNeverNegative)
{
    TraceSandbox box;
    ASSERT_EQ(0, RunInChild({"ZTTRACE_PATH=" + box.dir}, [&] {
                  _DTraceDecIndentLevel();
                  _DTraceDecIndentLevel();
                  DTRACE(_DRegion_usbtr, 1, "minus2");
                  _DTraceIncIndentLevel();
                  DTRACE(_DRegion_usbtr, 1, "minus1");
                  _DTraceIncIndentLevel();
                  _DTraceIncIndentLevel();
                  DTRACE(_DRegion_usbtr, 1, "plus1");
                  std::thread([] { DTRACE(_DRegion_usbtr, 1, "other"); }).join();
              }));
    std::vector<std::string> lines = ReadLines(box.path("traces.log"));
    ASSERT_EQ(4u, lines.size());
    std::vector<std::string> texts;
    for (const std::string &l : lines) {
        Record r;
        ASSERT_TRUE(ParseRecord(l, r)) << l;
        texts.push_back(r.text);
    }
    EXPECT_EQ("minus2", texts[0]);
    EXPECT_EQ("minus1", texts[1]);
    EXPECT_EQ(" plus1", texts[2]);
    EXPECT_EQ("other", texts[3]);
}

TEST(TraceRecord, ConcurrentWritersNeverInterleave)
{
    TraceSandbox box;
    constexpr int kThreads = 4;
    constexpr int kRecords = 300;
    ASSERT_EQ(0, RunInChild({"ZTTRACE_PATH=" + box.dir}, [&] {
                  std::vector<std::thread> threads;
                  for (int t = 0; t < kThreads; t++)
                      threads.emplace_back([t] {
                          std::string payload(100 + t * 37, static_cast<char>('a' + t));
                          for (int i = 0; i < kRecords; i++) {
                              if (_DShouldTrace(&_DRegion_usbvd, 1, __FILE__, __LINE__, "T")) {
                                  _DAddToMessage("%d:", t);
                                  _DDoTrace("%d:%s", i, payload.c_str());
                              }
                          }
                      });
                  for (std::thread &th : threads)
                      th.join();
              }));
    std::vector<std::string> lines = ReadLines(box.path("traces.log"));
    ASSERT_EQ(static_cast<size_t>(kThreads * kRecords), lines.size());
    std::vector<int> next(kThreads, 0);
    for (const std::string &l : lines) {
        Record r;
        ASSERT_TRUE(ParseRecord(l, r)) << l;
        int t = 0, i = 0, n = 0;
        ASSERT_EQ(2, sscanf(r.text.c_str(), "T%d:%d:%n", &t, &i, &n)) << r.text;
        ASSERT_GE(t, 0);
        ASSERT_LT(t, kThreads);
        EXPECT_EQ(next[t], i); /* each thread's records in its own order */
        next[t] = i + 1;
        EXPECT_EQ(std::string(100 + t * 37, static_cast<char>('a' + t)), r.text.substr(n));
    }
}

TEST(TraceRecord, DataDumpShortAndFullForms)
{
    TraceSandbox box;
    uint8_t data[70];
    for (int i = 0; i < 70; i++)
        data[i] = static_cast<uint8_t>(i * 7);
    ASSERT_EQ(0, RunInChild({"ZTTRACE_PATH=" + box.dir}, [&] {
                  _DDataDump(&_DRegion_usbuvc, 1, __FILE__, __LINE__, "zero", data, 0, 0);
                  _DDataDump(&_DRegion_usbuvc, 1, __FILE__, __LINE__, "thirtytwo", data, 32, 0);
                  _DDataDump(&_DRegion_usbuvc, 1, __FILE__, __LINE__, "forty", data, 40, 0);
                  _DDataDump(&_DRegion_usbuvc, 1, __FILE__, __LINE__, "full", data, 70, 1);
                  _DDataDump(&_DRegion_usbuvc, 5, __FILE__, __LINE__, "hidden", data, 70, 1);
              }));
    std::vector<std::string> lines = ReadLines(box.path("traces.log"));
    ASSERT_EQ(7u, lines.size());
    auto hexList = [&](int from, int count) {
        std::string s;
        char b[8];
        for (int i = from; i < from + count; i++) {
            snprintf(b, sizeof(b), "%02x,", data[i]);
            s += b;
        }
        return s;
    };
    Record r;
    ASSERT_TRUE(ParseRecord(lines[0], r));
    EXPECT_TRUE(std::regex_match(r.text, std::regex(R"(zero: 0x[0-9a-f]+, 0 bytes: )"))) << r.text;
    ASSERT_TRUE(ParseRecord(lines[1], r));
    EXPECT_TRUE(r.text.ends_with(", 32 bytes: " + hexList(0, 32))) << r.text;
    ASSERT_TRUE(ParseRecord(lines[2], r));
    EXPECT_TRUE(r.text.ends_with(", 40 bytes: " + hexList(0, 32) + "...")) << r.text;
    ASSERT_TRUE(ParseRecord(lines[3], r));
    EXPECT_TRUE(r.text.starts_with("full: 0x")) << r.text;
    EXPECT_TRUE(r.text.ends_with(", 70 bytes, full dump follows")) << r.text;
    /* Continuation lines carry no header. */
    EXPECT_EQ(hexList(0, 32), lines[4]);
    EXPECT_EQ(hexList(32, 32), lines[5]);
    EXPECT_EQ(hexList(64, 6), lines[6]);
}

TEST(TraceRecord, AssertionsAndErrorsStaySilent)
{
    TraceSandbox box;
    ASSERT_EQ(0, RunInChild({"ZTTRACE_PATH=" + box.dir}, [&] {
                  _DAssert(nullptr, __FILE__, __LINE__);
                  _DAssert("pContext", __FILE__, __LINE__);
                  _DError("USBTR_STATUS_COMM_ERROR", __FILE__, __LINE__);
                  DTRACE(_DRegion_usbtr, 1, "after");
              }));
    std::vector<std::string> lines = ReadLines(box.path("traces.log"));
    ASSERT_EQ(1u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("|after"));
}

namespace {
int TracedFunction(int iValue)
{
    DTRACE_ENTER(call, _DRegion_usbtr, 3, "%s(%d)", iValue);
    DTRACE(_DRegion_usbtr, 3, "inside");
    usleep(20 * 1000);
    int result = iValue * 2;
    DTRACE_EXIT(call, "%s() --> %d", result);
    return result;
}

int EarlyReturn(bool bLeave)
{
    DTRACE_ENTER(call, _DRegion_usbtr, 3, "%s()");
    if (bLeave)
        return -1; /* no exit record: the helper still restores the indentation */
    DTRACE_EXIT(call, "%s() --> %d", 0);
    return 0;
}
} // namespace

TEST(TraceCall, EntryExitRecordsWithDurationAndIndentation)
{
    TraceSandbox box;
    ASSERT_EQ(0, RunInChild({"ZTTRACE_PATH=" + box.dir}, [&] {
                  TracedFunction(21);
                  EarlyReturn(true);
                  DTRACE(_DRegion_usbtr, 3, "level zero");
              }));
    std::vector<std::string> lines = ReadLines(box.path("traces.log"));
    ASSERT_EQ(5u, lines.size());
    Record r;
    ASSERT_TRUE(ParseRecord(lines[0], r));
    EXPECT_EQ("==> TracedFunction(21)", r.text);
    ASSERT_TRUE(ParseRecord(lines[1], r));
    EXPECT_EQ(" inside", r.text);
    ASSERT_TRUE(ParseRecord(lines[2], r));
    EXPECT_TRUE(std::regex_match(r.text, std::regex(R"(<== \(0\.0[2-9][0-9]\) TracedFunction\(\) --> 42)")))
        << r.text;
    ASSERT_TRUE(ParseRecord(lines[3], r));
    EXPECT_EQ("==> EarlyReturn()", r.text);
    ASSERT_TRUE(ParseRecord(lines[4], r));
    EXPECT_EQ("level zero", r.text);
}

TEST(TraceCall, NothingIsFormattedBelowTheLevel)
{
    TraceSandbox box;
    /* An argument that would crash if it were ever formatted. */
    const char *poison = reinterpret_cast<const char *>(static_cast<uintptr_t>(16));
    ASSERT_EQ(0, RunInChild({"ZTTRACE_ON=0"}, [&] {
                  DTRACE_ENTER(call, _DRegion_usbtr, 1, "%s(%s)", poison);
                  DTRACE(_DRegion_usbtr, 1, "%s", poison);
                  _DDataDump(&_DRegion_usbtr, 1, __FILE__, __LINE__, "x", poison, 64, 1);
                  DTRACE_EXIT(call, "%s() --> %s", poison);
              }));
}
