// Writing 8-bit grey images as PNG or PGM, chosen by the file name.
#pragma once

#include <cstdint>
#include <string>

namespace ztuvc_tool {

enum class ImageKind { Png, Pgm, Unknown };

// ".png" / ".pgm" (any case) at the end of the name.
ImageKind imageKindOf(const std::string& path);

// Writes width x height grey pixels; on failure returns false and puts a
// human-readable reason into `error`.
bool writeGreyImage(const std::string& path, ImageKind kind, const uint8_t* pixels, uint32_t width,
                    uint32_t height, std::string& error);

}  // namespace ztuvc_tool
