/*
 * Process-wide transport state: the library context, the one-time
 * initialisation (usbfs root, kernel check, time base), the open-handle count
 * and the handle checks every operation starts with.
 */
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include "../../trace/dtraces.h"
#include "../platform/fpplat.h"
#include "usbtr.h"
#include "usbtr_holders.h"

uint32_t gdwTimeStampBase;
char gszUSBFSRoot[4096];
uint32_t gGlobalInitialised;

namespace {

constexpr const char *SYSFS_DEVICES = "/sys/bus/usb/devices";
constexpr const char *DEFAULT_USBFS_ROOT = "/dev/bus/usb";

uint64_t gnHandleCount;
pthread_mutex_t gUsbGlobalLock = PTHREAD_MUTEX_INITIALIZER;
/* The first candidate is the USB_DEVFS_PATH value, refreshed at each search. */
const char *pszPathsToCheck[3] = {nullptr, DEFAULT_USBFS_ROOT, "/proc/bus/usb"};

bool IsBusDirectoryName(const char *pszName)
{
    for (int i = 0; i < 3; i++)
        if (pszName[i] < '0' || pszName[i] > '9')
            return false;
    return pszName[3] == '\0';
}

/* A usbfs root holds one directory per bus, named by three digits. */
bool HoldsBusDirectory(const char *pszPath)
{
    DirHolder aDir(pszPath);
    if (aDir.pDir == nullptr)
        return false;
    while (const dirent *pEntry = readdir(aDir.pDir))
        if (IsBusDirectoryName(pEntry->d_name))
            return true;
    return false;
}

} // namespace

bool USBTRCheckContext(const USBTR_CONTEXT *pContext, const char *pszFile, int iLine)
{
    if (pContext == nullptr) {
        _DAssert("(pContext != ((void *)0))", pszFile, iLine);
    } else if (pContext->dwMagic != USBTR_CTX_MAGIC) {
        _DAssert("(pContext->dwMagic == 0x54425355)", pszFile, iLine);
    } else {
        return true;
    }
    _DError("USBTR_STATUS_INVALID_HANDLE", pszFile, iLine);
    return false;
}

bool USBTRCheckLibContext(const void *pLibCtx, bool bErrorRecord, const char *pszFile, int iLine)
{
    const USBTR_LIB_CONTEXT *pLib = static_cast<const USBTR_LIB_CONTEXT *>(pLibCtx);
    if (pLib == nullptr) {
        _DAssert("(pLibCtx != ((void *)0))", pszFile, iLine);
    } else if (pLib->dwMagic != USBTR_LIB_MAGIC) {
        _DAssert("(pLibCtx->dwMagic == 0x4C425355)", pszFile, iLine);
    } else {
        return true;
    }
    if (bErrorRecord)
        _DError("USBTR_STATUS_INVALID_HANDLE", pszFile, iLine);
    return false;
}

int32_t USBTRKernelSupported(const char *pszRelease)
{
    if (pszRelease == nullptr)
        return 0;
    int iMajor = 0, iMinor = 0, iPatch = 0;
    int nRead = sscanf(pszRelease, "%i.%i.%i", &iMajor, &iMinor, &iPatch);
    if (nRead >= 1 && iMajor > 2)
        return 1;
    if (nRead >= 2 && iMajor == 2 && iMinor > 6)
        return 1;
    if (nRead == 3 && iMajor == 2 && iMinor == 6 && iPatch >= 26)
        return 1;
    return 0;
}

int32_t USBTRFindRoot(void)
{
    struct stat aStat;
    if (stat(SYSFS_DEVICES, &aStat) != 0 || !S_ISDIR(aStat.st_mode))
        return 0;

    pszPathsToCheck[0] = getenv("USB_DEVFS_PATH");
    gszUSBFSRoot[0] = '\0';
    for (const char *pszCandidate : pszPathsToCheck) {
        if (pszCandidate == nullptr || !HoldsBusDirectory(pszCandidate))
            continue;
        snprintf(gszUSBFSRoot, sizeof(gszUSBFSRoot), "%s", pszCandidate);
        break;
    }
    if (gszUSBFSRoot[0] == '\0')
        snprintf(gszUSBFSRoot, sizeof(gszUSBFSRoot), "%s", DEFAULT_USBFS_ROOT);

    struct utsname aName;
    if (uname(&aName) != 0)
        return 0;
    if (USBTRKernelSupported(aName.release))
        return 1;
    DTRACE(_DRegion_usbtr, DTRACE_LEVEL_ERROR, "Unsupported kernel %s, upgrade at least to 2.6.26",
           aName.release);
    return 0;
}

int32_t USBTRInitialise(void)
{
    /* Set once under the lock and never cleared; read before taking it. */
    if (std::atomic_ref<uint32_t>(gGlobalInitialised).load(std::memory_order_acquire) != 0)
        return USBTR_STATUS_SUCCESS;
    if (pthread_mutex_lock(&gUsbGlobalLock) != 0) {
        DERROR("USBTR_STATUS_GENERAL_ERROR");
        return USBTR_STATUS_GENERAL_ERROR;
    }
    int32_t iStatus = USBTR_STATUS_SUCCESS;
    if (gGlobalInitialised == 0) {
        gnHandleCount = 0;
        if (!USBTRFindRoot()) {
            DERROR("USBTR_STATUS_GENERAL_ERROR");
            iStatus = USBTR_STATUS_GENERAL_ERROR;
        }
        gdwTimeStampBase = FPPltGetTime();
        std::atomic_ref<uint32_t>(gGlobalInitialised).store(1, std::memory_order_release);
    }
    pthread_mutex_unlock(&gUsbGlobalLock);
    return iStatus;
}

int32_t USBTRInit(void **phLibraryHandle, uint32_t dwFlags)
{
    DTRACE_ENTER(aCall, _DRegion_usbtr, DTRACE_LEVEL_TRACE, "%s(%p,%x)", static_cast<void *>(phLibraryHandle),
                 dwFlags);
    int32_t iStatus;
    if (phLibraryHandle == nullptr) {
        /* Nothing could receive the handle: refuse before allocating. */
        DASSERT(false, "phLibraryHandle");
        DERROR("USBTR_STATUS_GENERAL_ERROR");
        iStatus = USBTR_STATUS_GENERAL_ERROR;
    } else {
        USBTR_LIB_CONTEXT *pLib = static_cast<USBTR_LIB_CONTEXT *>(calloc(1, sizeof(USBTR_LIB_CONTEXT)));
        if (pLib == nullptr) {
            DERROR("USBTR_STATUS_NO_MEMORY");
            iStatus = USBTR_STATUS_NO_MEMORY;
        } else {
            iStatus = USBTRInitialise();
            pLib->dwMagic = USBTR_LIB_MAGIC;
            *phLibraryHandle = pLib;
        }
    }
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}

int32_t USBTRDone(void *pLibCtx)
{
    DTRACE_ENTER(aCall, _DRegion_usbtr, DTRACE_LEVEL_TRACE, "%s(%p)", pLibCtx);
    int32_t iStatus = USBTR_STATUS_INVALID_HANDLE;
    if (USBTRCheckLibContext(pLibCtx, false, __FILE__, __LINE__)) {
        USBTRChangeCheckHandleCount(0);
        free(pLibCtx);
        iStatus = USBTR_STATUS_SUCCESS;
    }
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}

void USBTRChangeCheckHandleCount(int32_t iDelta)
{
    DASSERT(pthread_mutex_lock(&gUsbGlobalLock) == 0, "(pthread_mutex_lock(&gUsbGlobalLock)) == 0");
    if (iDelta == 0) {
        DTRACE(_DRegion_usbtr, DTRACE_LEVEL_DEBUG, "Checking handle count (%d) to be 0",
               static_cast<int>(gnHandleCount));
        DASSERT(gnHandleCount == 0, "gnHandleCount == 0");
    } else if (iDelta == 1) {
        gnHandleCount++;
    } else if (iDelta == -1) {
        if (gnHandleCount == 0)
            DASSERT(false, "Handle count underrun");
        else
            gnHandleCount--;
    }
    DASSERT(pthread_mutex_unlock(&gUsbGlobalLock) == 0, "(pthread_mutex_unlock(&gUsbGlobalLock)) == 0");
}

uint64_t USBTRHandleCount(void)
{
    pthread_mutex_lock(&gUsbGlobalLock);
    uint64_t nCount = gnHandleCount;
    pthread_mutex_unlock(&gUsbGlobalLock);
    return nCount;
}
