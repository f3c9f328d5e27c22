// vqxscan_image: brightness statistics and PNG output.
#include "vqxscan_image.h"

#include <png.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace vqxscan {

Brightness measure_brightness(const uint8_t* pixels, unsigned width, unsigned height)
{
    Brightness b;
    const uint64_t total = static_cast<uint64_t>(width) * height;
    if (!pixels || total == 0)
        return b;
    uint64_t histogram[256] = {};
    for (uint64_t i = 0; i < total; ++i)
        ++histogram[pixels[i]];

    uint64_t sum = 0;
    for (unsigned level = 0; level < 256; ++level)
        sum += histogram[level] * level;
    b.mean = static_cast<double>(sum) / static_cast<double>(total);

    b.min = 0;
    while (b.min < 255 && histogram[b.min] == 0)
        ++b.min;
    b.max = 255;
    while (b.max > 0 && histogram[b.max] == 0)
        --b.max;

    const uint64_t wanted = (total * 97 + 99) / 100;  // at least 97 %
    uint64_t seen = 0;
    for (unsigned level = 0; level < 256; ++level) {
        seen += histogram[level];
        if (seen >= wanted) {
            b.p97 = level;
            break;
        }
    }
    return b;
}

namespace {

struct File_closer {
    FILE* f;
    ~File_closer() { if (f) std::fclose(f); }
};

} // namespace

bool save_png(const std::string& path, const uint8_t* pixels, unsigned width, unsigned height,
              std::string* error)
{
    File_closer file{std::fopen(path.c_str(), "wb")};
    if (!file.f) {
        *error = path + ": " + std::strerror(errno);
        return false;
    }
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!png || !info) {
        png_destroy_write_struct(&png, nullptr);
        *error = path + ": out of memory";
        return false;
    }
    // libpng reports failures by longjmp; nothing with a destructor lives
    // between here and the end of the writes.
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        *error = path + ": PNG write failed";
        return false;
    }
    png_init_io(png, file.f);
    png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (unsigned row = 0; row < height; ++row)
        png_write_row(png, const_cast<png_bytep>(pixels + static_cast<size_t>(row) * width));
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    if (std::fflush(file.f) != 0) {
        *error = path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

} // namespace vqxscan
