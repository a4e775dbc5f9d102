// ztuvc sensor, ztuvc finger: one byte of the sensor's register file.
#include "common.h"

#include <CLI/App.hpp>

#include <cstdio>

namespace ztuvc_tool {
namespace {

int cmdSensor(const Args& a) {
    if (a.positional.empty()) return usageError(a.command, "missing 'read' or 'write'");
    const std::string& op = a.positional[0];
    uint64_t addr = 0, value = 0;
    if (op == "read") {
        if (a.positional.size() != 2) return usageError(a.command, "usage: sensor read ADDR");
        if (!numberArg(a, "ADDR", a.positional[1], 0, 0xFFFF, addr)) return kExitUsage;
    } else if (op == "write") {
        if (a.positional.size() != 3) return usageError(a.command, "usage: sensor write ADDR VALUE");
        if (!numberArg(a, "ADDR", a.positional[1], 0, 0xFFFF, addr)) return kExitUsage;
        if (!numberArg(a, "VALUE", a.positional[2], 0, 0xFF, value)) return kExitUsage;
    } else {
        return usageError(a.command, "unknown operation '%s' (read or write)", op.c_str());
    }
    Library lib;
    OpenCamera cam;
    if (int rc = openSelected(a, cam); rc != kExitOk) return rc;
    if (op == "read") {
        int32_t v = camera_xu_sensor_read(cam.h, uint32_t(addr));
        if (v < 0) return failedCall(v, "reading the sensor register");
        std::printf("0x%02x\n", unsigned(v));
        return kExitOk;
    }
    int32_t rc = camera_xu_sensor_write(cam.h, uint32_t(addr), int32_t(value));
    return rc == 0 ? kExitOk : failedCall(rc, "writing the sensor register");
}

int cmdFinger(const Args& a) {
    uint64_t value = 0;
    if (a.positional.size() > 1)
        return usageError(a.command, "unexpected argument '%s'", a.positional[1].c_str());
    bool set = a.positional.size() == 1;
    if (set && !numberArg(a, "VALUE", a.positional[0], 0, 0xFF, value)) return kExitUsage;
    Library lib;
    OpenCamera cam;
    if (int rc = openSelected(a, cam); rc != kExitOk) return rc;
    if (set) {
        int32_t rc = camera_xu_set_finger(cam.h, int32_t(value));
        return rc == 0 ? kExitOk : failedCall(rc, "setting the finger register");
    }
    int32_t v = camera_xu_get_finger(cam.h);
    if (v < 0) return failedCall(v, "reading the finger register");
    std::printf("0x%02x\n", unsigned(v));
    return kExitOk;
}

}  // namespace

const Command kSensorCommand{
    "sensor",
    "Usage: ztuvc sensor read [-d N|NAME] ADDR\n"
    "       ztuvc sensor write [-d N|NAME] ADDR VALUE\n"
    "Reads or writes one byte of the sensor register file (ADDR 0..0xffff,\n"
    "VALUE 0..0xff).  'read' prints the value as 0x hex.\n",
    cmdSensor,
    addDeviceOption,
};

const Command kFingerCommand{
    "finger",
    "Usage: ztuvc finger [-d N|NAME] [VALUE]\n"
    "Prints the finger register, or sets it to VALUE (0..0xff).\n",
    cmdFinger,
    addDeviceOption,
};

}  // namespace ztuvc_tool
