// vqxscan_image: what vqxscan does with one 8-bit grey frame besides
// decoding it: brightness statistics computed from the pixels, and saving it
// as a PNG file.
#ifndef VQXSCAN_IMAGE_H
#define VQXSCAN_IMAGE_H

#include <cstdint>
#include <string>

namespace vqxscan {

struct Brightness {
    double mean = 0.0;        ///< mean grey level, 0-255
    unsigned p97 = 0;         ///< 97th percentile grey level
    unsigned min = 0, max = 0;
};

/// Statistics of @p width x @p height bytes at @p pixels (histogram based:
/// the percentile is the smallest level with at least 97 % of the pixels at
/// or below it).
Brightness measure_brightness(const uint8_t* pixels, unsigned width, unsigned height);

/// Writes the frame as an 8-bit grey PNG. False with a reason in @p error.
bool save_png(const std::string& path, const uint8_t* pixels, unsigned width, unsigned height,
              std::string* error);

} // namespace vqxscan

#endif
