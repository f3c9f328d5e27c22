// Scene.h: what the simulated engine looks at.
//
// A scene is a reflectance map at the sensor's resolution, one byte per
// pixel (0 black, 255 a perfect white), as seen by an upright engine. Kinds:
//   barcode     a Code 128 or QR Code symbol (generated with zxing-cpp) on a
//               white label (reflectance 0.9) over a darker background
//               (about 0.25, with a gentle vertical shading);
//   flat        one reflectance everywhere;
//   ramp        reflectance rising from 0 at the left to 255 at the right;
//   image_file  a PGM (P2 or P5, 8 or 16 bits) or PNG picture converted to
//               grey, scaled to fit and centred on the background.
// Scenes are immutable once built; Sim_core swaps them whole.
#ifndef VQXSIM_SCENE_H
#define VQXSIM_SCENE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Simulator.h"

namespace vqxsim {

struct Scene {
    unsigned width = 0;
    unsigned height = 0;
    std::vector<uint8_t> reflectance;  ///< width x height, row after row

    /// Builds the scene @p config asks for; null with a message on failure
    /// (unreadable file, text the symbology cannot encode).
    static std::shared_ptr<const Scene> build(const Config& config, unsigned width, unsigned height,
                                              std::string* error);
};

/// Grey image as read from a file, before fitting.
struct Grey_image {
    unsigned width = 0;
    unsigned height = 0;
    std::vector<uint8_t> pixels;
};

/// Reads a PGM (P2/P5) or PNG file; false with a message on failure.
bool read_grey_image(const std::string& path, Grey_image& out, std::string* error);

}  // namespace vqxsim

#endif
