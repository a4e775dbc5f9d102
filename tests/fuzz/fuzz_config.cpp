// Fuzz target: the trace configuration reader (CfgGetSetValue), reading the
// file through a path as the library reads ~/.zttrace/*.cfg.  Input: [key
// choice][buffer length][file].  The value buffer is a heap block of exactly
// that length; the value must come back terminated within it, on one line,
// and be a piece of the file or (a prefix of) the default.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

#include "trace/dtraces.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const char *const kKeys[] = {"option_target", "usbtr", "usbvd",  "usbuvc",
                                        "fpplat",        "u",     "",       "option_target_x"};
    static const char kDefault[] = "/tmp/traces.log";
    static const int fd = memfd_create("ztuvc-fuzz-cfg", 0);
    if (size < 2)
        return 0;
    const unsigned nLength = data[1];
    const size_t nFile = size - 2;
    if (fd < 0 || ftruncate(fd, 0) != 0 || pwrite(fd, data + 2, nFile, 0) != ssize_t(nFile))
        abort();
    char szPath[64];
    snprintf(szPath, sizeof(szPath), "/proc/self/fd/%d", fd);
    char *pszValue = static_cast<char *>(malloc(nLength + 1)) + 1; // nothing may go before the value
    memset(pszValue, 'Z', nLength);
    CfgGetSetValue(szPath, kKeys[data[0] % 8], pszValue, nLength, kDefault);
    const char *pEnd = static_cast<const char *>(memchr(pszValue, '\0', nLength));
    const size_t n = pEnd ? size_t(pEnd - pszValue) : 0;
    if (nLength != 0 && (pEnd == nullptr || memchr(pszValue, '\n', n) != nullptr))
        abort(); // not terminated within its buffer, or runs into the next line
    if (n != 0 && memmem(data + 2, nFile, pszValue, n) == nullptr &&
        !(n <= strlen(kDefault) && memcmp(pszValue, kDefault, n) == 0))
        abort(); // neither in the file nor the default
    free(pszValue - 1);
    return 0;
}
