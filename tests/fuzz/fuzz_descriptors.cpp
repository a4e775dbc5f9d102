// Fuzz target: the parse of the raw descriptors a device hands out through
// sysfs ("descriptors": the device descriptor, then its configurations).
// The bytes come from the device and are untrusted.  The input is the whole
// file; the parse sees exactly its bytes (no slack for an over-read to hide
// in).  Besides the sanitizers: a failed parse keeps no interface array, a
// successful one stays within its limits and within the input, and the
// skip of foreign descriptors only ever moves forward, within bounds.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "lnx/transport/usbtr.h"

namespace {

void CheckSkip(const uint8_t* data, size_t size)
{
    const uint8_t* p = data;
    int32_t n = int32_t(size);
    int32_t iStatus = USBTRSkipOtherDescriptors(&p, &n);
    if (p < data || p > data + size || n < 0 || p + n != data + size)
        abort();
    if (iStatus == USBTR_STATUS_SUCCESS && n >= 4 && p[1] != 1 && p[1] != 2 && p[1] != 4 && p[1] != 5)
        abort();  // it stopped on a descriptor it should have passed over
    if (iStatus != USBTR_STATUS_SUCCESS && iStatus != USBTR_STATUS_COMM_ERROR)
        abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    setenv("ZTTRACE_ON", "0", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    CheckSkip(data, size);

    const size_t nDevice = sizeof(USBTR_DEVICE_DESCRIPTOR);
    if (size < nDevice)
        return 0;
    // Heap record, as discovery keeps them; filled with garbage first so that
    // the parse must not rely on a zeroed record.
    auto* pInfo = static_cast<USBTR_DEVICE_INFO*>(malloc(sizeof(USBTR_DEVICE_INFO)));
    memset(pInfo, 0x5C, sizeof(*pInfo));
    memcpy(&pInfo->aDeviceDescriptor, data, nDevice);
    // The rest exactly as large as the file's rest.
    std::vector<uint8_t> rest(data + nDevice, data + size);
    const uint8_t* pRest = rest.empty() ? nullptr : rest.data();
    int32_t iStatus = USBTRParseConfigurations(pInfo, pRest, int32_t(rest.size()));

    if (iStatus == USBTR_STATUS_SUCCESS) {
        const uint32_t nConfigs = pInfo->aDeviceDescriptor.bNumConfigurations;
        if (nConfigs == 0 || nConfigs > USBTR_MAX_CONFIGS)
            abort();
        size_t nTotal = 0;
        for (uint32_t c = 0; c < nConfigs; c++) {
            const USBTR_CONFIG& cfg = pInfo->aConfigs[c];
            nTotal += cfg.wTotalLength;
            if (cfg.bNumInterfaces > USBTR_MAX_INTERFACES)
                abort();
            if ((cfg.bNumInterfaces != 0) != (cfg.pInterfaces != nullptr))
                abort();
            for (uint32_t i = 0; i < cfg.bNumInterfaces; i++) {
                const USBTR_INTERFACE& itf = cfg.pInterfaces[i];
                // bNumEndpoints is kept as the device declared it (a setting
                // ended by a device or configuration descriptor has none
                // parsed); its users bound it by USBTR_MAX_ENDPOINTS.
                if (itf.nAltSettings > USBTR_MAX_ALTSETTINGS)
                    abort();
            }
        }
        if (nTotal > rest.size())
            abort();  // configurations claimed more bytes than there were
    } else {
        if (iStatus != USBTR_STATUS_COMM_ERROR && iStatus != USBTR_STATUS_NO_MEMORY)
            abort();
        for (const USBTR_CONFIG& cfg : pInfo->aConfigs)
            if (cfg.pInterfaces != nullptr)
                abort();  // a rejected device keeps nothing
    }
    USBTRFreeConfigurations(pInfo);
    for (const USBTR_CONFIG& cfg : pInfo->aConfigs)
        if (cfg.pInterfaces != nullptr)
            abort();
    free(pInfo);
    return 0;
}
