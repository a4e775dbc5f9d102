/*
 * Diagnostic trace facility: regions, levels, records and data dumps.
 *
 * A trace statement first asks _DShouldTrace(); only when that admits the
 * record is any text formatted, and the caller then finishes the record with
 * _DDoTrace() (optionally after _DAddToMessage()).  The DTRACE* macros below
 * wrap that sequence so that a disabled statement costs one level test, made
 * inline, and evaluates none of its arguments.
 */
#ifndef ZTUVC_DTRACES_H
#define ZTUVC_DTRACES_H

#include <atomic>
#include <cstdint>

/* One writable record per region; bLevel/bInitialised are written once under
 * the trace lock and read without it (through atomic accesses). */
struct DTRACE_REGION {
    const char *pszName;
    uint8_t bLevel;
    uint8_t bInitialised;
};

/* Levels, named by the letters of "newdtl" in configuration files. */
enum : uint8_t {
    DTRACE_LEVEL_NONE = 0,
    DTRACE_LEVEL_ERROR = 1,
    DTRACE_LEVEL_WARNING = 2,
    DTRACE_LEVEL_DEBUG = 3,
    DTRACE_LEVEL_TRACE = 4,
    DTRACE_LEVEL_LOUD = 5,
};

/* Hidden: every statement reads its region directly, not through the GOT. */
#define DTRACE_HIDDEN __attribute__((visibility("hidden")))
extern DTRACE_REGION _DRegion_usbuvc DTRACE_HIDDEN;
extern DTRACE_REGION _DRegion_usbtr DTRACE_HIDDEN;
extern DTRACE_REGION _DRegion_usbvd DTRACE_HIDDEN;
extern DTRACE_REGION _DRegion_fpplat DTRACE_HIDDEN;
extern DTRACE_REGION gAssertRegion DTRACE_HIDDEN;

/* Configuration reader: value of pszKey in file pszPath, or pszDefault. */
void CfgGetSetValue(const char *pszPath, const char *pszKey, char *pszValue, unsigned nLength,
                    const char *pszDefault);

/* The calling thread's indentation depth; it starts at 0 in every thread.
 * Initial-exec: one load relative to the thread pointer, no lookup call. */
extern constinit thread_local intptr_t gDIndentDepth DTRACE_HIDDEN __attribute__((tls_model("initial-exec")));

/* The level test at the statement: false only when the region is configured
 * and its level is below nLevel.  An unconfigured region answers true, so the
 * out-of-line test configures it and decides.  The level is written once,
 * before the flag is published, and never changes afterwards. */
inline bool _DMayTrace(DTRACE_REGION *pRegion, uint8_t nLevel)
{
    return __builtin_expect(!std::atomic_ref<uint8_t>(pRegion->bInitialised).load(std::memory_order_acquire) ||
                                std::atomic_ref<uint8_t>(pRegion->bLevel).load(std::memory_order_relaxed) >= nLevel,
                            0);
}

void _DInitRegion(DTRACE_REGION *pRegion);
uint32_t _DShouldTrace(DTRACE_REGION *pRegion, uint8_t nLevel, const char *pszFile, int iLine,
                       const char *pszPrefix);
uint32_t _DIsTraceEnabled(DTRACE_REGION *pRegion, uint8_t nLevel);
void _DAddToMessage(const char *pszFormat, ...) __attribute__((format(printf, 1, 2)));
void _DDoTrace(const char *pszFormat, ...) __attribute__((format(printf, 1, 2)));
void _DOutput(void);
void _DTraceIncIndentLevel(void);
void _DTraceDecIndentLevel(void);
void _DAssert(const char *pszExpression, const char *pszFile, int iLine);
void _DError(const char *pszText, const char *pszFile, int iLine);
void _DDataDump(DTRACE_REGION *pRegion, uint8_t nLevel, const char *pszFile, int iLine,
                const char *pszText, const void *pData, uint32_t nSize, uint32_t bFull);

/* One plain record (no prefix): formats only when the level is admitted. */
void _DTracePlain(DTRACE_REGION *pRegion, uint8_t nLevel, const char *pszFile, int iLine,
                  const char *pszFormat, ...) __attribute__((format(printf, 5, 6)));

/*
 * Entry/exit convention of a traced function.  DTRACE_ENTER writes the entry
 * record "==> " (the function name is the first %s of the format), notes the
 * start time and indents; DTRACE_EXIT un-indents and writes "<== (s.mmm) "
 * followed by the exit format (again with the name as first %s).  If a path
 * leaves without DTRACE_EXIT, the destructor still restores the indentation.
 */
struct DTRACE_CALL {
    DTRACE_REGION *pRegion;
    const char *pszFile;
    const char *pszName;
    uint32_t dwStart;
    uint8_t nLevel;
    bool bOpen;
    bool bTimed; /* entry written: the exit will be too */
    ~DTRACE_CALL()
    {
        /* A path that returned without its exit record still gives back its indentation. */
        if (bOpen)
            gDIndentDepth--;
    }
};

void _DTraceEnter(DTRACE_CALL *pCall, DTRACE_REGION *pRegion, uint8_t nLevel, const char *pszFile,
                  int iLine, const char *pszName, const char *pszFormat, ...)
    __attribute__((format(printf, 7, 8)));
void _DTraceExit(DTRACE_CALL *pCall, int iLine, const char *pszFormat, ...)
    __attribute__((format(printf, 3, 4)));

/* Entry and exit whose records are not written: only the indentation moves. */
inline void _DTraceEnterQuiet(DTRACE_CALL *pCall)
{
    gDIndentDepth++;
    pCall->bTimed = false;
    pCall->bOpen = true;
}
inline void _DTraceExitQuiet(DTRACE_CALL *pCall)
{
    if (pCall->bOpen) {
        gDIndentDepth--;
        pCall->bOpen = false;
    }
}

/* DTRACE_ENTER(call, region, level, "%s(%p,%u)", a, b): name comes from __func__. */
#define DTRACE_ENTER(call, region, level, fmt, ...)                                                \
    DTRACE_CALL call;                                                                              \
    if (_DMayTrace(&(region), (level)))                                                            \
        _DTraceEnter(&call, &(region), (level), __FILE__, __LINE__, __func__, fmt, __func__,       \
                     ##__VA_ARGS__);                                                               \
    else                                                                                           \
        _DTraceEnterQuiet(&call)
/* Same, for functions whose records bear another name than their own. */
#define DTRACE_ENTER_AS(call, region, level, name, fmt, ...)                                       \
    DTRACE_CALL call;                                                                              \
    if (_DMayTrace(&(region), (level)))                                                            \
        _DTraceEnter(&call, &(region), (level), __FILE__, __LINE__, (name), fmt, (name),           \
                     ##__VA_ARGS__);                                                               \
    else                                                                                           \
        _DTraceEnterQuiet(&call)
/* DTRACE_EXIT(call, "%s() --> %d", result): the arguments are evaluated only
 * when the entry was written (the region's level never changes). */
#define DTRACE_EXIT(call, fmt, ...)                                                                \
    do {                                                                                           \
        if (__builtin_expect((call).bTimed, 0))                                                    \
            _DTraceExit(&(call), __LINE__, fmt, (call).pszName, ##__VA_ARGS__);                    \
        else                                                                                       \
            _DTraceExitQuiet(&(call));                                                             \
    } while (0)

/* A plain record in a region: DTRACE(_DRegion_usbtr, 3, "Found %d endpoints", n). */
#define DTRACE(region, level, fmt, ...)                                                            \
    do {                                                                                           \
        if (_DMayTrace(&(region), (level)))                                                        \
            _DTracePlain(&(region), (level), __FILE__, __LINE__, fmt, ##__VA_ARGS__);              \
    } while (0)

/* Consistency check that only reports: DASSERT(p != nullptr, "pContext"). */
#define DASSERT(cond, text)                                                                        \
    do {                                                                                           \
        if (!(cond))                                                                               \
            _DAssert((text), __FILE__, __LINE__);                                                  \
    } while (0)
#define DFORCED_ASSERT() _DAssert(nullptr, __FILE__, __LINE__)
#define DERROR(text) _DError((text), __FILE__, __LINE__)

#endif
