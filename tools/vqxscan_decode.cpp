// vqxscan_decode: zxing-cpp on a borrowed frame (no copy).
#include "vqxscan_decode.h"

// Text results as UTF-8 std::string.
#define ZX_USE_UTF8 1

#include <ZXing/BarcodeFormat.h>
#include <ZXing/DecodeHints.h>
#include <ZXing/ImageView.h>
#include <ZXing/ReadBarcode.h>

namespace vqxscan {

Decoded decode_frame(const uint8_t* pixels, unsigned width, unsigned height)
{
    Decoded d;
    if (!pixels || width == 0 || height == 0)
        return d;
    ZXing::ImageView view(pixels, static_cast<int>(width), static_cast<int>(height), ZXing::ImageFormat::Lum);
    ZXing::DecodeHints hints;
    hints.setTryHarder(true);
    const ZXing::Result result = ZXing::ReadBarcode(view, hints);
    if (!result.isValid())
        return d;
    d.found = true;
    d.text = result.text();
    d.format = ZXing::ToString(result.format());
    return d;
}

} // namespace vqxscan
