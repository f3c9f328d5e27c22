// vqxscan_decode: barcode decoding of one 8-bit grey frame with zxing-cpp.
#ifndef VQXSCAN_DECODE_H
#define VQXSCAN_DECODE_H

#include <cstdint>
#include <string>

namespace vqxscan {

struct Decoded {
    bool found = false;
    std::string text;    ///< UTF-8
    std::string format;  ///< e.g. "Code128", "QRCode"
};

/// Decodes the first barcode of any supported format in the frame.
Decoded decode_frame(const uint8_t* pixels, unsigned width, unsigned height);

} // namespace vqxscan

#endif
