#include "image_io.h"

#include <png.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <strings.h>

namespace ztuvc_tool {

ImageKind imageKindOf(const std::string& path) {
    auto endsWith = [&](const char* ext) {
        size_t n = std::strlen(ext);
        return path.size() > n && strcasecmp(path.c_str() + path.size() - n, ext) == 0;
    };
    if (endsWith(".png")) return ImageKind::Png;
    if (endsWith(".pgm")) return ImageKind::Pgm;
    return ImageKind::Unknown;
}

namespace {

struct PngError {
    char text[256];
};

void pngErrorFn(png_structp png, png_const_charp msg) {
    auto* e = static_cast<PngError*>(png_get_error_ptr(png));
    std::snprintf(e->text, sizeof e->text, "%s", msg);
    png_longjmp(png, 1);
}

void pngWarningFn(png_structp, png_const_charp) {}

// Kept free of C++ objects with destructors: libpng reports errors by
// longjmp, which must not skip any.
bool writePng(FILE* f, const uint8_t* pixels, uint32_t width, uint32_t height, PngError* err) {
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, err, pngErrorFn, pngWarningFn);
    if (png == nullptr) {
        std::snprintf(err->text, sizeof err->text, "out of memory");
        return false;
    }
    png_infop info = png_create_info_struct(png);
    if (info == nullptr) {
        png_destroy_write_struct(&png, nullptr);
        std::snprintf(err->text, sizeof err->text, "out of memory");
        return false;
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_init_io(png, f);
    // Fast compression: capture keeps up with the reader's frame rate.
    png_set_compression_level(png, 1);
    png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (uint32_t y = 0; y < height; ++y)
        png_write_row(png, const_cast<png_bytep>(pixels + size_t(y) * width));
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return true;
}

}  // namespace

bool writeGreyImage(const std::string& path, ImageKind kind, const uint8_t* pixels, uint32_t width,
                    uint32_t height, std::string& error) {
    if (kind == ImageKind::Unknown) {
        error = "unknown image type (use .png or .pgm)";
        return false;
    }
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) {
        error = std::strerror(errno);
        return false;
    }
    bool ok;
    if (kind == ImageKind::Png) {
        PngError err{};
        ok = writePng(f, pixels, width, height, &err);
        if (!ok) error = err.text;
    } else {
        size_t n = size_t(width) * height;
        ok = std::fprintf(f, "P5\n%u %u\n255\n", width, height) > 0 && std::fwrite(pixels, 1, n, f) == n;
        if (!ok) error = std::strerror(errno);
    }
    if (std::fclose(f) != 0 && ok) {
        ok = false;
        error = std::strerror(errno);
    }
    if (!ok) std::remove(path.c_str());
    return ok;
}

}  // namespace ztuvc_tool
