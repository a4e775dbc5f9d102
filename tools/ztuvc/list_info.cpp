// ztuvc list, ztuvc info: who is attached, and what a reader says about
// itself; as text or as JSON for scripts.
#include "common.h"

#include <CLI/App.hpp>
#include <nlohmann/json.hpp>

#include <cstdio>

namespace ztuvc_tool {
namespace {

// Keys in the order the tool has always printed them.
using Json = nlohmann::ordered_json;

struct Identity {
    uint32_t index = 0;
    std::string name, product, manufacturer, serial;
    int32_t vid = -1, pid = -1, rev = -1;
};

Identity identityOf(CAMERA_HANDLE h, uint32_t index) {
    Identity id;
    id.index = index;
    id.name = str(camera_get_filename(h));
    id.vid = camera_get_vid(h);
    id.pid = camera_get_pid(h);
    id.rev = camera_get_revision(h);
    id.product = str(camera_get_product_name(h));
    id.manufacturer = str(camera_get_manufacturer_name(h));
    id.serial = str(camera_get_serialnumber(h));
    return id;
}

// Four hex digits as a string; null when the reader did not say.
Json hex4(int32_t v) {
    if (v < 0) return nullptr;
    char buf[16];
    std::snprintf(buf, sizeof buf, "%04x", unsigned(v));
    return buf;
}

Json identityJson(const Identity& id) {
    return Json{{"index", id.index},     {"name", id.name},       {"vendor_id", hex4(id.vid)},
                {"product_id", hex4(id.pid)}, {"revision", hex4(id.rev)}, {"product", id.product},
                {"manufacturer", id.manufacturer}, {"serial", id.serial}};
}

// An object on one line as `{"key": value, ...}`: easy to read and to grep,
// which neither of the library's own layouts is. Strings the reader sent
// that are not UTF-8 come out with U+FFFD instead of breaking the document.
std::string oneLine(const Json& object) {
    std::string s = "{";
    for (const auto& [key, value] : object.items()) {
        if (s.size() > 1) s += ", ";
        s += Json(key).dump() + ": " + value.dump(-1, ' ', false, Json::error_handler_t::replace);
    }
    return s + "}";
}

void printIdentity(const Identity& id) {
    std::printf("reader %u: %s\n", id.index, id.name.c_str());
    std::printf("  id:           %04x:%04x rev %04x\n", unsigned(id.vid), unsigned(id.pid), unsigned(id.rev));
    std::printf("  product:      %s\n", id.product.c_str());
    std::printf("  manufacturer: %s\n", id.manufacturer.c_str());
    std::printf("  serial:       %s\n", id.serial.c_str());
}

std::string fourcc(uint32_t v) {
    std::string s;
    for (int i = 0; i < 4; ++i) {
        char c = char(v >> (8 * i));
        s += (c >= 32 && c < 127) ? c : '?';
    }
    return s;
}

int cmdList(const Args& a) {
    if (!a.positional.empty())
        return usageError(a.command, "unexpected argument '%s'", a.positional[0].c_str());
    Library lib;
    uint32_t n = camera_device_count();
    std::vector<Identity> ids;
    for (uint32_t i = 0; i < n; ++i) {
        CAMERA_HANDLE h = camera_get_by_index(i);
        if (h != nullptr) ids.push_back(identityOf(h, i));
    }
    if (a.json) {
        // One reader a line.
        std::printf("[");
        for (size_t i = 0; i < ids.size(); ++i)
            std::printf("%s\n  %s", i == 0 ? "" : ",", oneLine(identityJson(ids[i])).c_str());
        std::printf("%s]\n", ids.empty() ? "" : "\n");
    } else {
        for (const auto& id : ids) printIdentity(id);
    }
    if (ids.empty()) {
        if (!a.json) errorf("no reader found");
        return kExitNoReader;
    }
    return kExitOk;
}

int cmdInfo(const Args& a) {
    if (!a.positional.empty())
        return usageError(a.command, "unexpected argument '%s'", a.positional[0].c_str());
    Library lib;
    OpenCamera cam;
    uint32_t index = 0;
    if (int rc = openSelected(a, cam, &index); rc != kExitOk) return rc;
    Identity id = identityOf(cam.h, index);
    Geometry g;
    if (int rc = queryGeometry(cam.h, g); rc != kExitOk) return rc;
    uint32_t interval = 0;
    if (int32_t rc = camera_get_frame_interval(cam.h, &interval); rc != 0)
        return failedCall(rc, "reading the frame interval");
    if (a.json) {
        Json j = identityJson(id);
        j["fourcc"] = fourcc(g.format.dwFourCC);
        j["format_width"] = g.format.dwWidth;
        j["format_height"] = g.format.dwHeight;
        j["image_size"] = g.format.dwImageSize;
        j["width"] = g.width;
        j["height"] = g.height;
        j["frame_interval_ms"] = interval;
        std::printf("%s\n", oneLine(j).c_str());
        return kExitOk;
    }
    double fps = interval != 0 ? 1000.0 / interval : 0.0;
    printIdentity(id);
    std::printf("  format:       %s %u x %u, %u bytes\n", fourcc(g.format.dwFourCC).c_str(), g.format.dwWidth,
                g.format.dwHeight, g.format.dwImageSize);
    std::printf("  image:        %u x %u, 8-bit grey\n", g.width, g.height);
    std::printf("  interval:     %u ms (%.1f frames/s)\n", interval, fps);
    return kExitOk;
}

void jsonOption(CLI::App& app, Args& a) { app.add_flag("--json", a.json)->disable_flag_override(); }

}  // namespace

const Command kListCommand{
    "list",
    "Usage: ztuvc list [--json]\n"
    "Lists the attached readers: index, name, vendor:product, revision, product,\n"
    "manufacturer and serial number.  Exits with 3 when there is none.\n"
    "  --json     one JSON array on stdout, for scripts\n",
    cmdList,
    jsonOption,
};

const Command kInfoCommand{
    "info",
    "Usage: ztuvc info [-d N|NAME] [--json]\n"
    "Opens a reader and shows its identity, image format and frame interval.\n",
    cmdInfo,
    [](CLI::App& app, Args& a) {
        addDeviceOption(app, a);
        jsonOption(app, a);
    },
};

}  // namespace ztuvc_tool
