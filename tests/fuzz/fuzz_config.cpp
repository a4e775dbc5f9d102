// Fuzz target: the reader of the trace configuration files (CfgGetSetValue).
// The input is [key choice][buffer length][file contents]; the file is read
// through a path, as the library reads ~/.zttrace/*.cfg.  The value buffer is
// a heap block of exactly the given length, so any write past it shows.
// The value must come back terminated, and be either a piece of the file or
// (a prefix of) the default.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include "trace/dtraces.h"

namespace {

const char* const kKeys[] = {"option_target", "usbtr", "usbvd", "usbuvc", "fpplat", "u", "", "option_target_x"};
const char kDefault[] = "/tmp/traces.log";

int ConfigFd()
{
    static int fd = [] {
        int f = memfd_create("ztuvc-fuzz-cfg", 0);
        if (f < 0)
            abort();
        return f;
    }();
    return fd;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    setenv("ZTTRACE_ON", "0", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    const char* pszKey = kKeys[data[0] % (sizeof(kKeys) / sizeof(kKeys[0]))];
    const unsigned nLength = data[1];
    const uint8_t* pFile = data + 2;
    const size_t nFile = size - 2;

    int fd = ConfigFd();
    if (ftruncate(fd, 0) != 0 || pwrite(fd, pFile, nFile, 0) != ssize_t(nFile))
        abort();
    char szPath[64];
    snprintf(szPath, sizeof(szPath), "/proc/self/fd/%d", fd);

    char* pszValue = static_cast<char*>(malloc(nLength == 0 ? 1 : nLength));
    if (nLength != 0)
        memset(pszValue, 'Z', nLength);
    CfgGetSetValue(szPath, pszKey, nLength == 0 ? pszValue + 1 : pszValue, nLength, kDefault);

    if (nLength != 0) {
        const void* pEnd = memchr(pszValue, '\0', nLength);
        if (pEnd == nullptr)
            abort();  // not terminated within its buffer
        const size_t n = size_t(static_cast<const char*>(pEnd) - pszValue);
        const bool bDefault = n <= strlen(kDefault) && memcmp(pszValue, kDefault, n) == 0;
        const bool bFromFile =
            n == 0 || memmem(pFile, nFile, pszValue, n) != nullptr;
        if (!bDefault && !bFromFile)
            abort();  // a value that is neither in the file nor the default
        if (memchr(pszValue, '\n', n) != nullptr)
            abort();  // a value runs into the next line
    }
    free(pszValue);
    return 0;
}
