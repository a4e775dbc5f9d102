// Fuzz target: the parse of the untrusted raw descriptors a device hands out
// through sysfs (device descriptor, then its configurations).  The parse sees
// exactly the input's bytes, in a record filled with garbage first.  Besides
// the sanitizers: the skip of foreign descriptors only moves forward within
// bounds; a success stays within its limits and within the input; a refusal
// keeps no interface array.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "lnx/transport/usbtr.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const uint8_t *p = data;
    int32_t n = int32_t(size);
    int32_t iStatus = USBTRSkipOtherDescriptors(&p, &n);
    if (p < data || n < 0 || p + n != data + size ||
        (iStatus == USBTR_STATUS_SUCCESS && n >= 4 && p[1] != 1 && p[1] != 2 && p[1] != 4 && p[1] != 5))
        abort(); // out of bounds, or stopped on a descriptor it should have passed over
    if (size < sizeof(USBTR_DEVICE_DESCRIPTOR))
        return 0;
    auto *pInfo = static_cast<USBTR_DEVICE_INFO *>(malloc(sizeof(USBTR_DEVICE_INFO)));
    memset(pInfo, 0x5C, sizeof(*pInfo));
    memcpy(&pInfo->aDeviceDescriptor, data, sizeof(USBTR_DEVICE_DESCRIPTOR));
    std::vector<uint8_t> rest(data + sizeof(USBTR_DEVICE_DESCRIPTOR), data + size);
    iStatus = USBTRParseConfigurations(pInfo, rest.empty() ? nullptr : rest.data(), int32_t(rest.size()));
    const uint32_t nConfigs = pInfo->aDeviceDescriptor.bNumConfigurations;
    size_t nTotal = 0;
    if (iStatus == USBTR_STATUS_SUCCESS && (nConfigs == 0 || nConfigs > USBTR_MAX_CONFIGS))
        abort();
    for (uint32_t c = 0; c < USBTR_MAX_CONFIGS; c++) {
        const USBTR_CONFIG &cfg = pInfo->aConfigs[c];
        if (iStatus != USBTR_STATUS_SUCCESS || c >= nConfigs) {
            if (iStatus != USBTR_STATUS_SUCCESS && cfg.pInterfaces != nullptr)
                abort(); // a refused device keeps nothing
            continue;
        }
        nTotal += cfg.wTotalLength;
        if (cfg.bNumInterfaces > USBTR_MAX_INTERFACES || (cfg.bNumInterfaces != 0) != (cfg.pInterfaces != nullptr))
            abort();
        for (uint32_t i = 0; i < cfg.bNumInterfaces; i++)
            if (cfg.pInterfaces[i].nAltSettings > USBTR_MAX_ALTSETTINGS)
                abort();
    }
    if (nTotal > rest.size() ||
        (iStatus != USBTR_STATUS_SUCCESS && iStatus != USBTR_STATUS_COMM_ERROR && iStatus != USBTR_STATUS_NO_MEMORY))
        abort(); // more bytes claimed than there were, or a status the parse never gives
    USBTRFreeConfigurations(pInfo);
    for (const USBTR_CONFIG &cfg : pInfo->aConfigs)
        if (cfg.pInterfaces != nullptr)
            abort();
    free(pInfo);
    return 0;
}
