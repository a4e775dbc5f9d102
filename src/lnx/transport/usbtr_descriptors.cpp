/*
 * Parse of the raw configuration descriptors that sysfs hands out.  The data
 * comes from the device and is untrusted: every read is bounded by the bytes
 * that remain, every count by the fixed size of the record that receives it.
 */
#include <cstdlib>
#include <cstring>

#include "../../trace/dtraces.h"
#include "usbtr.h"

namespace {

constexpr uint8_t DESC_DEVICE = 1;
constexpr uint8_t DESC_CONFIGURATION = 2;
constexpr uint8_t DESC_INTERFACE = 4;
constexpr uint8_t DESC_ENDPOINT = 5;

constexpr int32_t CONFIG_DESC_SIZE = 9;
constexpr int32_t INTERFACE_DESC_SIZE = 9;
constexpr int32_t ENDPOINT_DESC_MIN_SIZE = 7;

/* Cursor over one configuration: the pointer and the bytes left behind it. */
struct Cursor {
    const uint8_t *p;
    int32_t n;
};

int32_t CommError(void)
{
    DERROR("USBTR_STATUS_COMM_ERROR");
    return USBTR_STATUS_COMM_ERROR;
}

int32_t ParseEndpoints(USBTR_ALTSETTING *pAlt, Cursor &c)
{
    /* A device or configuration descriptor ends the interface: no endpoints. */
    if (c.n > 1 && (c.p[1] == DESC_DEVICE || c.p[1] == DESC_CONFIGURATION))
        return USBTR_STATUS_SUCCESS;
    if (pAlt->bNumEndpoints > USBTR_MAX_ENDPOINTS)
        return CommError();
    for (uint32_t e = 0; e < pAlt->bNumEndpoints; e++) {
        if (c.n < 2 || c.p[0] > c.n || c.p[1] != DESC_ENDPOINT || c.p[0] < ENDPOINT_DESC_MIN_SIZE)
            return CommError();
        const uint8_t bLength = c.p[0];
        USBTR_ENDPOINT *pEp = &pAlt->aEndpoints[e];
        pEp->bLength = bLength;
        pEp->bDescriptorType = c.p[1];
        pEp->bEndpointAddress = c.p[2];
        pEp->bmAttributes = c.p[3];
        pEp->wMaxPacketSize = static_cast<uint16_t>(c.p[4] | (c.p[5] << 8));
        pEp->bInterval = c.p[6];
        pEp->bRefresh = bLength >= 8 ? c.p[7] : 0;
        pEp->bSynchAddress = bLength >= 9 ? c.p[8] : 0;
        c.p += bLength;
        c.n -= bLength;
        if (USBTRSkipOtherDescriptors(&c.p, &c.n) != USBTR_STATUS_SUCCESS)
            return USBTR_STATUS_COMM_ERROR;
    }
    return USBTR_STATUS_SUCCESS;
}

/* One interface: its alternate settings follow each other while the next
 * interface descriptor carries a non-zero bAlternateSetting. */
int32_t ParseInterface(USBTR_INTERFACE *pInterface, Cursor &c, const uint8_t *pConfigEnd)
{
    if (USBTRSkipOtherDescriptors(&c.p, &c.n) != USBTR_STATUS_SUCCESS)
        return USBTR_STATUS_COMM_ERROR;
    pInterface->nAltSettings = 0;
    while (c.n > 8) {
        if (pInterface->nAltSettings >= USBTR_MAX_ALTSETTINGS)
            return CommError();
        const uint8_t bLength = c.p[0];
        if (bLength < INTERFACE_DESC_SIZE || bLength > c.n)
            return CommError();
        USBTR_ALTSETTING *pAlt = &pInterface->aAltSettings[pInterface->nAltSettings];
        pAlt->bLength = c.p[0];
        pAlt->bDescriptorType = c.p[1];
        pAlt->bInterfaceNumber = c.p[2];
        pAlt->bAlternateSetting = c.p[3];
        pAlt->bNumEndpoints = c.p[4];
        pAlt->bInterfaceClass = c.p[5];
        pAlt->bInterfaceSubClass = c.p[6];
        pAlt->bInterfaceProtocol = c.p[7];
        pAlt->iInterface = c.p[8];
        c.p += bLength;
        c.n -= bLength;
        if (USBTRSkipOtherDescriptors(&c.p, &c.n) != USBTR_STATUS_SUCCESS)
            return USBTR_STATUS_COMM_ERROR;
        if (ParseEndpoints(pAlt, c) != USBTR_STATUS_SUCCESS)
            return USBTR_STATUS_COMM_ERROR;
        pInterface->nAltSettings++;
        if (c.n <= 8) {
            DASSERT(c.n >= 0, "iCfgDescriptorSize >= 0");
            break;
        }
        if (c.p[1] != DESC_INTERFACE || c.p[3] == 0)
            break;
    }
    DASSERT(c.p <= pConfigEnd, "*ppDataPtr >= pDataPtr");
    return USBTR_STATUS_SUCCESS;
}

} // namespace

int32_t USBTRSkipOtherDescriptors(const uint8_t **ppDataPtr, int32_t *pnDataLength)
{
    const uint8_t *p = *ppDataPtr;
    int32_t n = *pnDataLength;
    int32_t iStatus = USBTR_STATUS_SUCCESS;
    while (n >= 4) {
        const uint8_t bLength = p[0];
        if (bLength < 2 || bLength > n) {
            iStatus = CommError();
            break;
        }
        const uint8_t bType = p[1];
        if (bType == DESC_DEVICE || bType == DESC_CONFIGURATION || bType == DESC_INTERFACE ||
            bType == DESC_ENDPOINT)
            break;
        p += bLength;
        n -= bLength;
    }
    *ppDataPtr = p;
    *pnDataLength = n;
    return iStatus;
}

void USBTRFreeConfigurations(USBTR_DEVICE_INFO *pDevInfo)
{
    if (pDevInfo == nullptr)
        return;
    for (USBTR_CONFIG &aConfig : pDevInfo->aConfigs) {
        free(aConfig.pInterfaces);
        aConfig.pInterfaces = nullptr;
    }
}

int32_t USBTRParseConfigurations(USBTR_DEVICE_INFO *pDevInfo, const uint8_t *pData, int32_t nDataLength)
{
    if (pDevInfo == nullptr)
        return USBTR_STATUS_GENERAL_ERROR;
    /* The record is expected fresh: drop whatever a previous parse left. */
    memset(pDevInfo->aConfigs, 0, sizeof(pDevInfo->aConfigs));

    const uint32_t nConfigs = pDevInfo->aDeviceDescriptor.bNumConfigurations;
    if (nConfigs == 0 || nConfigs > USBTR_MAX_CONFIGS)
        return CommError();
    if (pData == nullptr && nDataLength > 0)
        return CommError();

    const uint8_t *pConfigStart = pData;
    int32_t nRemaining = nDataLength < 0 ? 0 : nDataLength;
    int32_t iStatus = USBTR_STATUS_SUCCESS;
    for (uint32_t c = 0; c < nConfigs && iStatus == USBTR_STATUS_SUCCESS; c++) {
        if (nRemaining <= 8) {
            iStatus = CommError();
            break;
        }
        USBTR_CONFIG *pConfig = &pDevInfo->aConfigs[c];
        const uint8_t *d = pConfigStart;
        pConfig->bLength = d[0];
        pConfig->bDescriptorType = d[1];
        pConfig->wTotalLength = static_cast<uint16_t>(d[2] | (d[3] << 8));
        pConfig->bNumInterfaces = d[4];
        pConfig->bConfigurationValue = d[5];
        pConfig->iConfiguration = d[6];
        pConfig->bmAttributes = d[7];
        pConfig->bMaxPower = d[8];
        /* A total shorter than the descriptor itself would leave a negative budget. */
        if (pConfig->bLength < CONFIG_DESC_SIZE || pConfig->wTotalLength > nRemaining ||
            pConfig->bNumInterfaces > USBTR_MAX_INTERFACES || pConfig->wTotalLength < pConfig->bLength) {
            iStatus = CommError();
            break;
        }
        Cursor aCursor = {pConfigStart + pConfig->bLength, pConfig->wTotalLength - pConfig->bLength};
        const uint8_t *pConfigEnd = pConfigStart + pConfig->wTotalLength;
        nRemaining -= pConfig->wTotalLength;

        if (pConfig->bNumInterfaces > 0) {
            pConfig->pInterfaces =
                static_cast<USBTR_INTERFACE *>(calloc(pConfig->bNumInterfaces, sizeof(USBTR_INTERFACE)));
            if (pConfig->pInterfaces == nullptr) {
                DERROR("USBTR_STATUS_NO_MEMORY");
                iStatus = USBTR_STATUS_NO_MEMORY;
                break;
            }
        }
        for (uint32_t i = 0; i < pConfig->bNumInterfaces; i++) {
            iStatus = ParseInterface(&pConfig->pInterfaces[i], aCursor, pConfigEnd);
            if (iStatus != USBTR_STATUS_SUCCESS)
                break;
        }
        pConfigStart = pConfigEnd;
    }
    if (iStatus != USBTR_STATUS_SUCCESS)
        USBTRFreeConfigurations(pDevInfo);
    return iStatus;
}
