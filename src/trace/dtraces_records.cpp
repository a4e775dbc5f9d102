/*
 * Trace records: composition under the trace lock, per-thread indentation,
 * output, assertion/error records, data dumps and the entry/exit helper.
 */
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/time.h>
#include <unistd.h>

#include "../lnx/platform/fpplat.h"
#include "dtraces_int.h"

namespace {

constexpr uint32_t DUMP_BYTES_PER_LINE = 32;

/* Appends formatted text, cut to what the record can still hold. */
void AddToMessageV(const char *pszFormat, va_list aArgs)
{
    int iRoom = DTRACE_MESSAGE_MAX - gDContext.iMessageLength;
    if (iRoom <= 0)
        return;
    int n = vsnprintf(gDContext.szMessage + gDContext.iMessageLength, static_cast<size_t>(iRoom) + 1,
                      pszFormat, aArgs);
    if (n > 0)
        gDContext.iMessageLength += n < iRoom ? n : iRoom;
}

void AddToMessage(const char *pszFormat, ...) __attribute__((format(printf, 1, 2)));
void AddToMessage(const char *pszFormat, ...)
{
    va_list aArgs;
    va_start(aArgs, pszFormat);
    AddToMessageV(pszFormat, aArgs);
    va_end(aArgs);
}

/* Appends the last text, writes the record and releases the trace lock. */
void FinishRecordV(const char *pszFormat, va_list aArgs)
{
    AddToMessageV(pszFormat, aArgs);
    _DOutput();
    pthread_mutex_unlock(&gDContext.aLock);
}

void AddBlanks(intptr_t iCount)
{
    while (iCount-- > 0 && gDContext.iMessageLength < DTRACE_MESSAGE_MAX)
        gDContext.szMessage[gDContext.iMessageLength++] = ' ';
    gDContext.szMessage[gDContext.iMessageLength] = '\0';
}

bool WriteTo(const char *pszPath)
{
    FILE *pFile = fopen(pszPath, "a+e");
    if (pFile == nullptr)
        return false;
    fwrite(gDContext.szMessage, 1, static_cast<size_t>(gDContext.iMessageLength), pFile);
    fclose(pFile);
    return true;
}

/* Writes one record line of the assert region (always admitted or not as a whole). */
void AssertRecord(const char *pszWhat, const char *pszText, const char *pszFile, int iLine)
{
    Init();
    if (_DShouldTrace(&gAssertRegion, DTRACE_LEVEL_ERROR, pszFile, iLine, nullptr))
        _DDoTrace("%s: %s", pszWhat, pszText);
}

} // namespace

constinit thread_local intptr_t gDIndentDepth = 0;

void DTraceStartRecord(const char *pszRegionName, uint8_t nLevel, const char *pszFile, int iLine,
                       const char *pszPrefix)
{
    uint32_t dwElapsed = FPPltGetTime() - gDContext.dwTimeBase;
    intptr_t iDepth = gDIndentDepth;

    struct timeval aNow;
    gettimeofday(&aNow, nullptr);
    time_t aSeconds = aNow.tv_sec;
    struct tm aLocal;
    char szTime[32] = "";
    if (localtime_r(&aSeconds, &aLocal) != nullptr)
        strftime(szTime, sizeof(szTime), "%H:%M:%S", &aLocal);

    const char *pszBase = pszFile != nullptr ? strrchr(pszFile, '/') : nullptr;
    pszBase = pszBase != nullptr ? pszBase + 1 : (pszFile != nullptr ? pszFile : "");
    char cLevel = nLevel <= 5 ? gLevels[nLevel] : '?';

    gDContext.iMessageLength = 0;
    gDContext.szMessage[0] = '\0';
    AddToMessage("%8s|%8s|%8s|%4i|%c|%04x:%04x|%6d.%03d|%8s.%03u|", gDContext.szModuleName, pszRegionName,
                 pszBase, iLine, cLevel, static_cast<unsigned>(getpid()),
                 static_cast<unsigned>(static_cast<uint32_t>(pthread_self())),
                 static_cast<int>(dwElapsed / 1000), static_cast<int>(dwElapsed % 1000), szTime,
                 static_cast<unsigned>(aNow.tv_usec / 1000));
    if (iDepth > 0)
        AddBlanks(iDepth);
    if (pszPrefix != nullptr)
        AddToMessage("%s", pszPrefix);
}

void _DAddToMessage(const char *pszFormat, ...)
{
    va_list aArgs;
    va_start(aArgs, pszFormat);
    AddToMessageV(pszFormat, aArgs);
    va_end(aArgs);
}

void _DDoTrace(const char *pszFormat, ...)
{
    va_list aArgs;
    va_start(aArgs, pszFormat);
    FinishRecordV(pszFormat, aArgs);
    va_end(aArgs);
}

void _DOutput(void)
{
    gDContext.szMessage[gDContext.iMessageLength++] = '\n';
    gDContext.szMessage[gDContext.iMessageLength] = '\0';
    if (gDContext.szTarget[0] == '\0' || !WriteTo(gDContext.szTarget))
        WriteTo("/dev/tty12"); /* last resort; the record is lost if this fails too */
    gDContext.iMessageLength = 0;
    gDContext.szMessage[0] = '\0';
}

void _DTraceIncIndentLevel(void)
{
    Init();
    gDIndentDepth++;
}

void _DTraceDecIndentLevel(void)
{
    Init();
    gDIndentDepth--;
}

void _DAssert(const char *pszExpression, const char *pszFile, int iLine)
{
    AssertRecord("Assert", pszExpression != nullptr ? pszExpression : "Forced assert", pszFile, iLine);
}

void _DError(const char *pszText, const char *pszFile, int iLine)
{
    AssertRecord("Error", pszText != nullptr ? pszText : "", pszFile, iLine);
}

void _DDataDump(DTRACE_REGION *pRegion, uint8_t nLevel, const char *pszFile, int iLine, const char *pszText,
                const void *pData, uint32_t nSize, uint32_t bFull)
{
    Init();
    if (!_DShouldTrace(pRegion, nLevel, pszFile, iLine, pszText))
        return;
    const uint8_t *pBytes = static_cast<const uint8_t *>(pData);
    if (!bFull) {
        AddToMessage(": %p, %u bytes: ", pData, nSize);
        uint32_t nShown = nSize < DUMP_BYTES_PER_LINE ? nSize : DUMP_BYTES_PER_LINE;
        for (uint32_t i = 0; i < nShown; i++)
            AddToMessage("%02x,", pBytes[i]);
        if (nSize > DUMP_BYTES_PER_LINE)
            AddToMessage("...");
        _DOutput();
    } else {
        AddToMessage(": %p, %u bytes, full dump follows", pData, nSize);
        _DOutput();
        for (uint32_t nDone = 0; nDone < nSize; nDone += DUMP_BYTES_PER_LINE) {
            uint32_t nLine = nSize - nDone < DUMP_BYTES_PER_LINE ? nSize - nDone : DUMP_BYTES_PER_LINE;
            for (uint32_t i = 0; i < nLine; i++)
                AddToMessage("%02x,", pBytes[nDone + i]);
            _DOutput();
        }
    }
    pthread_mutex_unlock(&gDContext.aLock);
}

void _DTracePlain(DTRACE_REGION *pRegion, uint8_t nLevel, const char *pszFile, int iLine,
                  const char *pszFormat, ...)
{
    if (!_DShouldTrace(pRegion, nLevel, pszFile, iLine, nullptr))
        return;
    va_list aArgs;
    va_start(aArgs, pszFormat);
    FinishRecordV(pszFormat, aArgs);
    va_end(aArgs);
}

void _DTraceEnter(DTRACE_CALL *pCall, DTRACE_REGION *pRegion, uint8_t nLevel, const char *pszFile, int iLine,
                  const char *pszName, const char *pszFormat, ...)
{
    pCall->pRegion = pRegion;
    pCall->nLevel = nLevel;
    pCall->pszFile = pszFile;
    pCall->pszName = pszName;
    /* A region's level never changes once configured: when the entry is not
     * written, neither is the exit, and the clock need not be read. */
    pCall->bTimed = _DShouldTrace(pRegion, nLevel, pszFile, iLine, "==> ") != 0;
    if (pCall->bTimed) {
        va_list aArgs;
        va_start(aArgs, pszFormat);
        FinishRecordV(pszFormat, aArgs);
        va_end(aArgs);
        pCall->dwStart = FPPltGetTime();
    }
    _DTraceIncIndentLevel();
    pCall->bOpen = true;
}

void _DTraceExit(DTRACE_CALL *pCall, int iLine, const char *pszFormat, ...)
{
    if (!pCall->bOpen)
        return;
    _DTraceDecIndentLevel();
    pCall->bOpen = false;
    if (!pCall->bTimed)
        return;
    uint32_t dwDuration = FPPltGetTime() - pCall->dwStart;
    if (_DShouldTrace(pCall->pRegion, pCall->nLevel, pCall->pszFile, iLine, "<== ")) {
        AddToMessage("(%d.%03d) ", static_cast<int>(dwDuration / 1000), static_cast<int>(dwDuration % 1000));
        va_list aArgs;
        va_start(aArgs, pszFormat);
        FinishRecordV(pszFormat, aArgs);
        va_end(aArgs);
    }
}
