/*
 * Trace configuration: the process-wide context, its one-time
 * initialisation from the environment or the configuration files, the
 * regions and their level test.
 */
#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

#include "../lnx/platform/fpplat.h"
#include "dtraces_int.h"

DTRACE_CONTEXT gDContext = {PTHREAD_MUTEX_INITIALIZER, 0, {}, {}, 0, 0, 0, {}, {}};
static uint32_t gDContextInited = 0;

const char gLevels[] = "newdtl";

DTRACE_REGION _DRegion_usbuvc = {"usbuvc", 0, 0};
DTRACE_REGION _DRegion_usbtr = {"usbtr", 0, 0};
DTRACE_REGION _DRegion_usbvd = {"usbvd", 0, 0};
DTRACE_REGION _DRegion_fpplat = {"fpplat", 0, 0};
/* Never configured: assertion and error records stay silent. */
DTRACE_REGION gAssertRegion = {"Assert", 0, 1};

namespace {

constexpr uint8_t FORCED_LEVEL_ON = DTRACE_LEVEL_TRACE;
constexpr const char *DEFAULT_TARGET = "/tmp/traces.log";
constexpr const char *MODULE_NAME = "ztuvc";

/* Copies at most nLength - 1 characters and always terminates. */
void CopyBounded(char *pszOut, unsigned nLength, const char *pszIn, size_t nIn)
{
    if (nLength == 0)
        return;
    size_t n = nIn < nLength - 1 ? nIn : nLength - 1;
    memcpy(pszOut, pszIn, n);
    pszOut[n] = '\0';
}

/* Position just after "key<blanks>=" or "\"key\"<blanks>=", or null. */
const char *MatchKey(const char *p, const char *pszKey)
{
    size_t nKey = strlen(pszKey);
    if (*p == '"') {
        if (strncmp(p + 1, pszKey, nKey) != 0 || p[1 + nKey] != '"')
            return nullptr;
        p += nKey + 2;
    } else {
        if (strncmp(p, pszKey, nKey) != 0)
            return nullptr;
        p += nKey;
    }
    while (*p == ' ' || *p == '\t')
        p++;
    return *p == '=' ? p + 1 : nullptr;
}

bool IsDirectory(const char *pszPath)
{
    struct stat aStat;
    return pszPath != nullptr && stat(pszPath, &aStat) == 0 && S_ISDIR(aStat.st_mode);
}

/* Decimal reading of ZTTRACE_ON: blanks and sign allowed, no digits is 0. */
int32_t DecimalValue(const char *pszValue)
{
    return static_cast<int32_t>(strtoll(pszValue, nullptr, 10));
}

} // namespace

void CfgGetSetValue(const char *pszPath, const char *pszKey, char *pszValue, unsigned nLength,
                    const char *pszDefault)
{
    FILE *pFile = fopen(pszPath, "re");
    if (pFile != nullptr) {
        char szLine[256];
        while (fgets(szLine, sizeof(szLine), pFile) != nullptr) {
            const char *p = szLine;
            while (isspace(static_cast<unsigned char>(*p)))
                p++;
            p = MatchKey(p, pszKey);
            if (p == nullptr)
                continue;
            while (*p == ' ' || *p == '\t')
                p++;
            const char *pEnd;
            if (*p == '"') {
                p++;
                pEnd = p + strcspn(p, "\"\n");
            } else {
                pEnd = p + strcspn(p, "\n");
            }
            CopyBounded(pszValue, nLength, p, static_cast<size_t>(pEnd - p));
            fclose(pFile);
            return;
        }
        fclose(pFile);
    }
    CopyBounded(pszValue, nLength, pszDefault, strlen(pszDefault));
}

void Init(void)
{
    /* Fast path once initialised; the flag is published after the context. */
    if (std::atomic_ref<uint32_t>(gDContextInited).load(std::memory_order_acquire))
        return;
    pthread_mutex_lock(&gDContext.aLock);
    if (gDContextInited) {
        pthread_mutex_unlock(&gDContext.aLock);
        return;
    }
    const char *pszHome = getenv("HOME");
    const char *pszOn = getenv("ZTTRACE_ON");
    const char *pszPath = getenv("ZTTRACE_PATH");

    snprintf(gDContext.szModuleName, sizeof(gDContext.szModuleName), "%s", MODULE_NAME);
    gDContext.dwTimeBase = FPPltGetTime();

    if (pszOn != nullptr || pszPath != nullptr) {
        gDContext.bForcedLevel = (pszOn != nullptr && DecimalValue(pszOn) == 0) ? 0 : FORCED_LEVEL_ON;
        if (pszPath != nullptr)
            snprintf(gDContext.szTarget, sizeof(gDContext.szTarget), "%s/traces.log", pszPath);
        else
            snprintf(gDContext.szTarget, sizeof(gDContext.szTarget), "%s", DEFAULT_TARGET);
        gDContext.bForced = 1;
    } else if (IsDirectory(pszHome)) {
        char szCommon[DTRACE_PATH_SIZE];
        snprintf(gDContext.szRegionConfigFile, sizeof(gDContext.szRegionConfigFile), "%s/.zttrace/%s.cfg",
                 pszHome, MODULE_NAME);
        snprintf(szCommon, sizeof(szCommon), "%s/.zttrace/.zttrace.cfg", pszHome);
        CfgGetSetValue(szCommon, "option_target", gDContext.szTarget, DTRACE_PATH_SIZE, DEFAULT_TARGET);
    } else {
        snprintf(gDContext.szRegionConfigFile, sizeof(gDContext.szRegionConfigFile), "/etc/zttrace/%s.cfg",
                 MODULE_NAME);
        CfgGetSetValue("/etc/zttrace/.zttrace.cfg", "option_target", gDContext.szTarget, DTRACE_PATH_SIZE,
                       DEFAULT_TARGET);
    }
    std::atomic_ref<uint32_t>(gDContextInited).store(1, std::memory_order_release);
    pthread_mutex_unlock(&gDContext.aLock);
}

void _DInitRegion(DTRACE_REGION *pRegion)
{
    Init();
    if (std::atomic_ref<uint8_t>(pRegion->bInitialised).load(std::memory_order_acquire) ||
        pRegion == &gAssertRegion)
        return;
    pthread_mutex_lock(&gDContext.aLock);
    uint8_t bLevel = std::atomic_ref<uint8_t>(pRegion->bLevel).load(std::memory_order_relaxed);
    if (gDContext.bForced) {
        bLevel = gDContext.bForcedLevel;
    } else {
        char szValue[2];
        CfgGetSetValue(gDContext.szRegionConfigFile, pRegion->pszName, szValue, sizeof(szValue), "w");
        const char *pLetter = szValue[0] != '\0' ? strchr(gLevels, szValue[0]) : nullptr;
        if (pLetter != nullptr)
            bLevel = static_cast<uint8_t>(pLetter - gLevels);
    }
    std::atomic_ref<uint8_t>(pRegion->bLevel).store(bLevel, std::memory_order_relaxed);
    std::atomic_ref<uint8_t>(pRegion->bInitialised).store(1, std::memory_order_release);
    pthread_mutex_unlock(&gDContext.aLock);
}

uint32_t _DIsTraceEnabled(DTRACE_REGION *pRegion, uint8_t nLevel)
{
    _DInitRegion(pRegion);
    return std::atomic_ref<uint8_t>(pRegion->bLevel).load(std::memory_order_relaxed) >= nLevel ? 1 : 0;
}

uint32_t _DShouldTrace(DTRACE_REGION *pRegion, uint8_t nLevel, const char *pszFile, int iLine,
                       const char *pszPrefix)
{
    if (!_DIsTraceEnabled(pRegion, nLevel))
        return 0;
    pthread_mutex_lock(&gDContext.aLock);
    DTraceStartRecord(pRegion->pszName, nLevel, pszFile, iLine, pszPrefix);
    return 1;
}
