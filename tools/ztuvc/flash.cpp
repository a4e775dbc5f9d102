// ztuvc flash read: the reader's flash memory, as a hex dump or raw into a
// file.
#include "common.h"

#include <CLI/App.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace ztuvc_tool {
namespace {

void hexDump(uint32_t base, const uint8_t* p, size_t n) {
    for (size_t off = 0; off < n; off += 16) {
        std::printf("%08x ", unsigned(base + off));
        for (size_t k = 0; k < 16; ++k) {
            if (k == 8) std::putchar(' ');
            if (off + k < n)
                std::printf(" %02x", p[off + k]);
            else
                std::printf("   ");
        }
        std::printf("  |");
        for (size_t k = 0; k < 16 && off + k < n; ++k) {
            uint8_t c = p[off + k];
            std::putchar(c >= 32 && c < 127 ? char(c) : '.');
        }
        std::printf("|\n");
    }
}

int cmdFlash(const Args& a) {
    if (a.positional.empty() || a.positional[0] != "read")
        return usageError(a.command, "usage: flash read ADDR LEN [-o FILE]");
    if (a.positional.size() != 3) return usageError(a.command, "usage: flash read ADDR LEN [-o FILE]");
    uint64_t addr = 0, len = 0;
    if (!numberArg(a, "ADDR", a.positional[1], 0, 0xFFFFFFFF, addr)) return kExitUsage;
    if (!numberArg(a, "LEN", a.positional[2], 1, 16u << 20, len)) return kExitUsage;
    Library lib;
    OpenCamera cam;
    if (int rc = openSelected(a, cam); rc != kExitOk) return rc;
    std::vector<uint8_t> buf(len);
    int32_t rc = camera_xu_flash_read(cam.h, uint32_t(addr), int32_t(len), buf.data());
    if (rc != 0) return failedCall(rc, "reading flash");
    if (!a.output) {
        hexDump(uint32_t(addr), buf.data(), buf.size());
        return kExitOk;
    }
    FILE* f = std::fopen(a.output->c_str(), "wb");
    bool ok = f != nullptr && std::fwrite(buf.data(), 1, buf.size(), f) == buf.size();
    int e = errno;
    if (f != nullptr && std::fclose(f) != 0 && ok) {
        ok = false;
        e = errno;
    }
    if (!ok) {
        errorf("cannot write %s: %s", a.output->c_str(), std::strerror(e));
        return kExitOutput;
    }
    return kExitOk;
}

}  // namespace

const Command kFlashCommand{
    "flash",
    "Usage: ztuvc flash read [-d N|NAME] ADDR LEN [-o FILE]\n"
    "Reads LEN bytes (1..16777216) of flash from ADDR; prints a hex dump, or\n"
    "writes the raw bytes to FILE with -o.\n",
    cmdFlash,
    [](CLI::App& app, Args& a) {
        addDeviceOption(app, a);
        app.add_option("-o,--output", a.output);
    },
};

}  // namespace ztuvc_tool
