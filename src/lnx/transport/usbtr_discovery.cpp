/*
 * Discovery: walk /sys/bus/usb/devices, verify each device against the table
 * of supported readers, parse its descriptors and hand out device records.
 * Nothing is opened or sent to a device here.
 */
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include "../../trace/dtraces.h"
#include "usbtr.h"
#include "usbtr_holders.h"

namespace {

constexpr const char *SYSFS_DEVICES = "/sys/bus/usb/devices";
constexpr int32_t DEVICE_NUMBER_READ_SIZE = 16;
constexpr int32_t STRING_FIELD_SIZE = 128;
constexpr int32_t TABLE_GROWTH = 8;
constexpr size_t DEVICE_NAME_SIZE = 256;

int32_t StatusFromSysfsErrno(int iErrno)
{
    return iErrno == EPERM ? USBTR_STATUS_ACCESS_DENIED : USBTR_STATUS_NO_DEVICE;
}

bool IsSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

/* Devices are named by bus and port path (1-1.2); root hubs (usb1) and
 * interfaces (1-1:1.0) are not devices of interest. */
bool IsDeviceEntry(const char *pszName)
{
    return pszName[0] >= '0' && pszName[0] <= '9' && strchr(pszName, ':') == nullptr;
}

/* Copies at most nSize - 1 characters and always terminates. */
void CopyString(char *pszDest, size_t nSize, const char *pszSource)
{
    size_t nLength = strnlen(pszSource, nSize - 1);
    memcpy(pszDest, pszSource, nLength);
    pszDest[nLength] = '\0';
}

/* Appends a heap copy of pInfo, growing the pointer array by TABLE_GROWTH. */
int32_t AppendRecord(USBTR_DEVICE_INFO ***pppTable, int32_t *piCount, const USBTR_DEVICE_INFO *pInfo)
{
    if (*piCount % TABLE_GROWTH == 0) {
        size_t nNew = static_cast<size_t>(*piCount) + TABLE_GROWTH;
        void *pGrown = realloc(*pppTable, nNew * sizeof(USBTR_DEVICE_INFO *));
        if (pGrown == nullptr)
            return USBTR_STATUS_NO_MEMORY;
        *pppTable = static_cast<USBTR_DEVICE_INFO **>(pGrown);
    }
    USBTR_DEVICE_INFO *pCopy = static_cast<USBTR_DEVICE_INFO *>(malloc(sizeof(USBTR_DEVICE_INFO)));
    if (pCopy == nullptr)
        return USBTR_STATUS_NO_MEMORY;
    memcpy(pCopy, pInfo, sizeof(USBTR_DEVICE_INFO));
    (*pppTable)[(*piCount)++] = pCopy;
    return USBTR_STATUS_SUCCESS;
}

} // namespace

int32_t USBTRReadDevice(const char *pszBusName, const char *pszDeviceName, void *pBuffer, int32_t *pnLength,
                        uint32_t bTrim)
{
    if (pszBusName == nullptr || pszDeviceName == nullptr || pBuffer == nullptr || pnLength == nullptr ||
        *pnLength <= 0) {
        DASSERT(false, "pszBusName && pszDeviceName && pBuffer && pnLength");
        return USBTR_STATUS_GENERAL_ERROR;
    }
    char szPath[4096];
    snprintf(szPath, sizeof(szPath), "%s/%s/%s", SYSFS_DEVICES, pszBusName, pszDeviceName);

    FdHolder aFile(open(szPath, O_RDONLY | O_CLOEXEC));
    if (aFile.fd < 0) {
        int iErrno = errno;
        DTRACE(_DRegion_usbtr, DTRACE_LEVEL_ERROR, "open(%s) --> %s", szPath, strerror(iErrno));
        return StatusFromSysfsErrno(iErrno);
    }
    ssize_t nRead = read(aFile.fd, pBuffer, static_cast<size_t>(*pnLength));
    if (nRead < 0) {
        int iErrno = errno;
        DTRACE(_DRegion_usbtr, DTRACE_LEVEL_ERROR, "read(%s)-> %s", szPath, strerror(iErrno));
        return StatusFromSysfsErrno(iErrno);
    }
    if (!bTrim) {
        *pnLength = static_cast<int32_t>(nRead);
        return USBTR_STATUS_SUCCESS;
    }
    /* Drop the newline that ends every sysfs value, then trailing blanks. */
    char *pszText = static_cast<char *>(pBuffer);
    ssize_t nText = nRead > 0 ? nRead - 1 : 0;
    while (nText > 0 && IsSpace(pszText[nText - 1]))
        nText--;
    pszText[nText] = '\0';
    *pnLength = static_cast<int32_t>(nText + 1);
    return USBTR_STATUS_SUCCESS;
}

int32_t USBTRLoadDeviceNumber(const char *pszBusName, const char *pszAttribute, char *pszOut)
{
    char szValue[DEVICE_NUMBER_READ_SIZE];
    int32_t nLength = DEVICE_NUMBER_READ_SIZE;
    int32_t iStatus = USBTRReadDevice(pszBusName, pszAttribute, szValue, &nLength, 0);
    if (iStatus != USBTR_STATUS_SUCCESS)
        return iStatus;
    DASSERT(nLength > 0, "iDataRead");
    szValue[nLength < DEVICE_NUMBER_READ_SIZE - 1 ? nLength : DEVICE_NUMBER_READ_SIZE - 1] = '\0';
    int iNumber = 0;
    if (sscanf(szValue, "%i", &iNumber) != 1) {
        DERROR("USBTR_STATUS_COMM_ERROR");
        return USBTR_STATUS_COMM_ERROR;
    }
    /* usbfs names are three digits; a longer number keeps its first three. */
    char szNumber[16];
    snprintf(szNumber, sizeof(szNumber), "%03u", static_cast<unsigned>(iNumber));
    memcpy(pszOut, szNumber, 3);
    pszOut[3] = '\0';
    return USBTR_STATUS_SUCCESS;
}

void USBTRCreateDeviceName(const USBTR_DEVICE_INFO *pDevInfo, char *pszOut)
{
    snprintf(pszOut, DEVICE_NAME_SIZE, "%04x_%04x_%04x_%s_%s", pDevInfo->aDeviceDescriptor.idVendor,
             pDevInfo->aDeviceDescriptor.idProduct, pDevInfo->aDeviceDescriptor.bcdDevice, pDevInfo->szBusNum,
             pDevInfo->szSysfsName);
}

void USBTRFreeDevices(USBTR_DEVICE_INFO **ppTable, int32_t iCount)
{
    if (ppTable == nullptr) {
        DASSERT(iCount == 0, "iDeviceCount == 0");
        return;
    }
    for (int32_t i = iCount - 1; i >= 0; i--) {
        DASSERT(ppTable[i] != nullptr, "pInfo");
        USBTRFreeConfigurations(ppTable[i]);
        free(ppTable[i]);
    }
    free(ppTable);
}

int32_t USBTRVerifyAndFillDeviceInfo(USBTR_DEVICE_INFO *pDevInfo, const USBTR_DEVICE_DESCRIPTION *pRequest,
                                     uint32_t *pbVerified)
{
    DTRACE_ENTER(aCall, _DRegion_usbtr, DTRACE_LEVEL_LOUD, "%s(%p,%p,%p)", static_cast<void *>(pDevInfo),
                 static_cast<const void *>(pRequest), static_cast<void *>(pbVerified));
    *pbVerified = 0;
    int32_t iStatus = USBTR_STATUS_SUCCESS;

    uint8_t aDescriptors[USBTR_DESCRIPTORS_BUFFER_SIZE];
    int32_t nRead = sizeof(aDescriptors);
    bool bReadable =
        USBTRReadDevice(pDevInfo->szSysfsName, "descriptors", aDescriptors, &nRead, 0) == USBTR_STATUS_SUCCESS;
    if (bReadable) {
        iStatus = USBTRLoadDeviceNumber(pDevInfo->szSysfsName, "busnum", pDevInfo->szBusNum);
        if (iStatus == USBTR_STATUS_SUCCESS)
            iStatus = USBTRLoadDeviceNumber(pDevInfo->szSysfsName, "devnum", pDevInfo->szDevNum);
    }

    bool bAccept = bReadable && iStatus == USBTR_STATUS_SUCCESS;
    const int32_t nDescriptor = sizeof(USBTR_DEVICE_DESCRIPTOR);
    if (bAccept && nRead < nDescriptor) {
        DERROR("0");
        bAccept = false;
    }
    const USBTR_DEVICE_DESCRIPTOR *pDesc = &pDevInfo->aDeviceDescriptor;
    if (bAccept) {
        memcpy(&pDevInfo->aDeviceDescriptor, aDescriptors, nDescriptor);
        if (pRequest != nullptr && ((pRequest->wVid != 0 && pRequest->wVid != pDesc->idVendor) ||
                                    (pRequest->wPid != 0 && pRequest->wPid != pDesc->idProduct)))
            bAccept = false;
    }
    if (bAccept) {
        const USBTR_IDENTITY aIdentity = {pDesc->idVendor, pDesc->idProduct, pDesc->bcdDevice};
        if (!USBTRIdentifyDevice(&aIdentity, nullptr, nullptr))
            bAccept = false;
    }
    if (bAccept && (pDesc->bNumConfigurations < 1 || pDesc->bNumConfigurations > USBTR_MAX_CONFIGS)) {
        DERROR("0");
        bAccept = false;
    }
    if (bAccept &&
        USBTRParseConfigurations(pDevInfo, aDescriptors + nDescriptor, nRead - nDescriptor) != USBTR_STATUS_SUCCESS)
        bAccept = false;

    if (bAccept) {
        *pbVerified = 1;
        pDevInfo->dwState = USBTR_DEVINFO_VERIFIED;
        struct {
            const char *pszAttribute;
            char *pszField;
        } const aStrings[] = {{"manufacturer", pDevInfo->szManufacturer},
                              {"product", pDevInfo->szProduct},
                              {"serial", pDevInfo->szSerialNumber}};
        for (const auto &aString : aStrings) {
            int32_t nLength = STRING_FIELD_SIZE;
            if (USBTRReadDevice(pDevInfo->szSysfsName, aString.pszAttribute, aString.pszField, &nLength, 1) !=
                USBTR_STATUS_SUCCESS)
                aString.pszField[0] = '\0';
        }
    }
    DTRACE_EXIT(aCall, "%s() --> %d, %d", iStatus, static_cast<int>(*pbVerified));
    return iStatus;
}

int32_t USBTRInternalEnumerate(const USBTR_DEVICE_DESCRIPTION *pRequest, USBTR_DEVICE_INFO ***pppDeviceInfoTable,
                               int32_t *piDeviceCount, int32_t *piFilteredDeviceCount,
                               USBTR_DEVICE_INFO **ppFirstValidDevice)
{
    *pppDeviceInfoTable = nullptr;
    *piDeviceCount = 0;
    *piFilteredDeviceCount = 0;
    if (ppFirstValidDevice != nullptr)
        *ppFirstValidDevice = nullptr;

    int32_t iStatus = USBTRInitialise();
    if (iStatus != USBTR_STATUS_SUCCESS)
        return iStatus;

    USBTR_DEVICE_INFO **ppTable = nullptr;
    int32_t iCount = 0;
    {
        DirHolder aDir(SYSFS_DEVICES);
        if (aDir.pDir == nullptr) {
            DTRACE(_DRegion_usbtr, DTRACE_LEVEL_ERROR, "Unable to opendir(/sys/bus/usb/devices): %s",
                   strerror(errno));
            DERROR("USBTR_STATUS_GENERAL_ERROR");
            return USBTR_STATUS_GENERAL_ERROR;
        }
        while (const dirent *pEntry = readdir(aDir.pDir)) {
            if (!IsDeviceEntry(pEntry->d_name))
                continue;
            DTRACE(_DRegion_usbtr, DTRACE_LEVEL_TRACE, "Found device %s", pEntry->d_name);

            USBTR_DEVICE_INFO aInfo;
            memset(&aInfo, 0, sizeof(aInfo));
            CopyString(aInfo.szSysfsName, sizeof(aInfo.szSysfsName), pEntry->d_name);
            uint32_t bVerified = 0;
            iStatus = USBTRVerifyAndFillDeviceInfo(&aInfo, pRequest, &bVerified);
            if (iStatus != USBTR_STATUS_SUCCESS) {
                USBTRFreeConfigurations(&aInfo);
                break;
            }
            if (!bVerified)
                continue;
            DTRACE(_DRegion_usbtr, DTRACE_LEVEL_TRACE, "Verified device %s", pEntry->d_name);
            iStatus = AppendRecord(&ppTable, &iCount, &aInfo);
            if (iStatus != USBTR_STATUS_SUCCESS) {
                DERROR("USBTR_STATUS_NO_MEMORY");
                USBTRFreeConfigurations(&aInfo);
                break;
            }
        }
    }
    if (iStatus != USBTR_STATUS_SUCCESS) {
        USBTRFreeDevices(ppTable, iCount);
        return iStatus;
    }

    const bool bByName = pRequest != nullptr && pRequest->szDeviceName[0] != '\0';
    USBTR_DEVICE_INFO *pFirst = nullptr;
    int32_t iSelected = 0;
    for (int32_t i = 0; i < iCount; i++) {
        USBTR_DEVICE_INFO *pInfo = ppTable[i];
        if (pInfo->dwState != USBTR_DEVINFO_VERIFIED)
            continue;
        if (bByName) {
            char szName[DEVICE_NAME_SIZE];
            USBTRCreateDeviceName(pInfo, szName);
            if (strncmp(szName, pRequest->szDeviceName, DEVICE_NAME_SIZE) != 0)
                continue;
            DASSERT(pFirst == nullptr, "*ppFirstValidDevice == NULL");
        }
        pInfo->dwState = USBTR_DEVINFO_SELECTED;
        iSelected++;
        if (pFirst == nullptr)
            pFirst = pInfo;
        if (bByName)
            break;
    }
    *pppDeviceInfoTable = ppTable;
    *piDeviceCount = iCount;
    *piFilteredDeviceCount = iSelected;
    if (ppFirstValidDevice != nullptr)
        *ppFirstValidDevice = pFirst;
    return USBTR_STATUS_SUCCESS;
}

int32_t USBTREnumerate(void *pLibCtx, const USBTR_DEVICE_DESCRIPTION *pRequest, USBTR_DEVICE_LIST **ppDeviceList)
{
    DTRACE_ENTER(aCall, _DRegion_usbtr, DTRACE_LEVEL_DEBUG, "%s(%p,%p,%p)", pLibCtx,
                 static_cast<const void *>(pRequest), static_cast<void *>(ppDeviceList));
    int32_t iStatus = USBTR_STATUS_SUCCESS;
    int32_t iListed = 0;
    USBTR_DEVICE_INFO **ppTable = nullptr;
    int32_t iCount = 0;
    int32_t iSelected = 0;

    if (!USBTRCheckLibContext(pLibCtx, true, __FILE__, __LINE__)) {
        iStatus = USBTR_STATUS_INVALID_HANDLE;
    } else if (ppDeviceList == nullptr) {
        DASSERT(false, "ppDeviceList");
        DERROR("USBTR_STATUS_GENERAL_ERROR");
        iStatus = USBTR_STATUS_GENERAL_ERROR;
    } else {
        iStatus = USBTRInternalEnumerate(pRequest, &ppTable, &iCount, &iSelected, nullptr);
    }
    if (iStatus == USBTR_STATUS_SUCCESS) {
        size_t nSize = sizeof(USBTR_DEVICE_LIST) + static_cast<size_t>(iSelected) * sizeof(USBTR_DEVICE_DESCRIPTION);
        USBTR_DEVICE_LIST *pList = static_cast<USBTR_DEVICE_LIST *>(calloc(1, nSize));
        *ppDeviceList = pList;
        if (pList == nullptr) {
            DERROR("USBTR_STATUS_NO_MEMORY");
            iStatus = USBTR_STATUS_NO_MEMORY;
        } else {
            pList->nCount = static_cast<uint64_t>(iSelected);
            for (int32_t i = 0; i < iCount; i++) {
                const USBTR_DEVICE_INFO *pInfo = ppTable[i];
                if (pInfo->dwState != USBTR_DEVINFO_SELECTED)
                    continue;
                if (iListed >= iSelected) {
                    DASSERT(false, "iTgtDevIndex < iRealDeviceCount");
                    break;
                }
                USBTR_DEVICE_DESCRIPTION *pOut = &pList->aDevices[iListed++];
                const USBTR_DEVICE_DESCRIPTOR *pDesc = &pInfo->aDeviceDescriptor;
                pOut->wVid = pDesc->idVendor;
                pOut->wPid = pDesc->idProduct;
                pOut->wRev = pDesc->bcdDevice;
                memcpy(pOut->szManufacturer, pInfo->szManufacturer, sizeof(pOut->szManufacturer));
                memcpy(pOut->szSerialNumber, pInfo->szSerialNumber, sizeof(pOut->szSerialNumber));
                const char *pszDescription = pInfo->szProduct;
                if (pszDescription[0] == '\0') {
                    const USBTR_IDENTITY aIdentity = {pOut->wVid, pOut->wPid, pOut->wRev};
                    USBTRIdentifyDevice(&aIdentity, &pszDescription, nullptr);
                    DASSERT(pszDescription != nullptr, "pszDescription");
                }
                if (pszDescription != nullptr)
                    CopyString(pOut->szDescription, sizeof(pOut->szDescription), pszDescription);
                USBTRCreateDeviceName(pInfo, pOut->szDeviceName);
            }
        }
    }
    USBTRFreeDevices(ppTable, iCount);
    DTRACE_EXIT(aCall, "%s() --> %d,%d devices", iStatus, static_cast<int>(iListed));
    return iStatus;
}

int32_t USBTRDeviceInfo(USBTR_CONTEXT *pContext, USBTR_IDENTITY *pDeviceInfo)
{
    DTRACE_ENTER(aCall, _DRegion_usbtr, DTRACE_LEVEL_TRACE, "%s(%p,%p)", static_cast<void *>(pContext),
                 static_cast<void *>(pDeviceInfo));
    int32_t iStatus = USBTR_STATUS_SUCCESS;
    if (pDeviceInfo == nullptr) {
        DASSERT(false, "pDeviceInfo");
        iStatus = USBTR_STATUS_GENERAL_ERROR;
    } else if (!USBTR_CHECK_CONTEXT(pContext)) {
        iStatus = USBTR_STATUS_INVALID_HANDLE;
    } else {
        DASSERT(pContext->aDeviceInfo.wVid != 0, "pContext->aDeviceInfo.wVid");
        DASSERT(pContext->aDeviceInfo.wPid != 0, "pContext->aDeviceInfo.wPid");
        *pDeviceInfo = pContext->aDeviceInfo;
    }
    DTRACE_EXIT(aCall, "%s() --> %d", iStatus);
    return iStatus;
}
