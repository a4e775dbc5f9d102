/*
 * Diagnostic trace facility: regions, levels, records and data dumps.
 *
 * A trace statement first asks _DShouldTrace(); only when that admits the
 * record is any text formatted, and the caller then finishes the record with
 * _DDoTrace() (optionally after _DAddToMessage()).  The DTRACE* macros below
 * wrap that sequence so that a disabled statement costs one level test.
 */
#ifndef ZTUVC_DTRACES_H
#define ZTUVC_DTRACES_H

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

extern DTRACE_REGION _DRegion_usbuvc;
extern DTRACE_REGION _DRegion_usbtr;
extern DTRACE_REGION _DRegion_usbvd;
extern DTRACE_REGION _DRegion_fpplat;
extern DTRACE_REGION gAssertRegion;

/* Configuration reader: value of pszKey in file pszPath, or pszDefault. */
void CfgGetSetValue(const char *pszPath, const char *pszKey, char *pszValue, unsigned nLength,
                    const char *pszDefault);

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
    DTRACE_REGION *pRegion = nullptr;
    const char *pszFile = nullptr;
    const char *pszName = nullptr;
    uint32_t dwStart = 0;
    uint8_t nLevel = 0;
    bool bOpen = false;
    bool bTimed = false; /* entry written: the exit will be too */
    ~DTRACE_CALL();
};

void _DTraceEnter(DTRACE_CALL *pCall, DTRACE_REGION *pRegion, uint8_t nLevel, const char *pszFile,
                  int iLine, const char *pszName, const char *pszFormat, ...)
    __attribute__((format(printf, 7, 8)));
void _DTraceExit(DTRACE_CALL *pCall, int iLine, const char *pszFormat, ...)
    __attribute__((format(printf, 3, 4)));

/* DTRACE_ENTER(call, region, level, "%s(%p,%u)", a, b): name comes from __func__. */
#define DTRACE_ENTER(call, region, level, fmt, ...)                                                \
    DTRACE_CALL call;                                                                              \
    _DTraceEnter(&call, &(region), (level), __FILE__, __LINE__, __func__, fmt, __func__,           \
                 ##__VA_ARGS__)
/* Same, for functions whose records bear another name than their own. */
#define DTRACE_ENTER_AS(call, region, level, name, fmt, ...)                                       \
    DTRACE_CALL call;                                                                              \
    _DTraceEnter(&call, &(region), (level), __FILE__, __LINE__, (name), fmt, (name), ##__VA_ARGS__)
/* DTRACE_EXIT(call, "%s() --> %d", result). */
#define DTRACE_EXIT(call, fmt, ...) _DTraceExit(&(call), __LINE__, fmt, (call).pszName, ##__VA_ARGS__)

/* A plain record in a region: DTRACE(_DRegion_usbtr, 3, "Found %d endpoints", n). */
#define DTRACE(region, level, fmt, ...)                                                            \
    _DTracePlain(&(region), (level), __FILE__, __LINE__, fmt, ##__VA_ARGS__)

/* Consistency check that only reports: DASSERT(p != nullptr, "pContext"). */
#define DASSERT(cond, text)                                                                        \
    do {                                                                                           \
        if (!(cond))                                                                               \
            _DAssert((text), __FILE__, __LINE__);                                                  \
    } while (0)
#define DFORCED_ASSERT() _DAssert(nullptr, __FILE__, __LINE__)
#define DERROR(text) _DError((text), __FILE__, __LINE__)

#endif
