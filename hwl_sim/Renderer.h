// Renderer.h: turns a scene and a frame's exposure into 8-bit pixels.
//
// pixel = saturate(reflectance x light x exposure_us x gain x calibration
//                  + dark level + noise x gain)
// where light = ambient + illumination (when on), times the scene scale, and
// the aimer adds its light inside its pattern when on. The aimer lights a
// fixed part of the field of view, so the pattern is sized in fractions of
// the frame: a horizontal bar 1% of the height tall over the middle 40% of
// the width, and a centre spot 3/160 of the width wide and 3% of the height
// tall (at 1280 x 800: 8 rows and 24 x 24 pixels; at 640 x 480: 5 rows and
// 12 x 14 pixels). Its row spans are built once, in the constructor.
// Calibration: with the illumination on (light 1.0 plus the
// default ambient 0.1) the default barcode label (reflectance 0.9) comes out
// at about 120 after 1 ms at unity gain. Noise is Gaussian (sigma 1.5
// counts at unity gain) from a table built from the seed, read at a random
// offset each frame, so frames are reproducible under a seed.
//
// Render modes: full (the above), fast (no noise; the previous frame is kept
// when nothing changed), none (constant mid-grey).
//
// Used by Sim_core's frame thread only; not thread-safe.
#ifndef VQXSIM_RENDERER_H
#define VQXSIM_RENDERER_H

#include <cstdint>
#include <memory>
#include <vector>

#include "Scene.h"
#include "Simulator.h"

namespace vqxsim {

struct Render_params {
    double light = 0.0;        ///< ambient + illumination, times the scene scale
    double aimer_light = 0.0;  ///< extra light in the aimer pattern (0: aimer off)
    double exposure_us = 0.0;
    double gain = 1.0;
    bool vflip = false;        ///< output rows bottom to top
    bool hflip = false;        ///< output columns right to left
    uint32_t noise_offset = 0;
    Render_mode mode = Render_mode::full;

    bool operator==(const Render_params& o) const;
};

class Renderer {
public:
    static constexpr double calibration = 0.114;  ///< counts per (light x us) at reflectance 1
    static constexpr int dark_level = 4;

    Renderer(unsigned width, unsigned height, uint64_t seed);

    /// Renders into @p out (width x height bytes).
    void render(const std::shared_ptr<const Scene>& scene, const Render_params& params, uint8_t* out);

private:
    struct Span {
        unsigned row, x0, x1;  ///< scene row, columns [x0, x1)
    };

    void build_lut(int32_t* lut, double light, const Render_params& p) const;
    void render_row(const uint8_t* src, uint8_t* dst, const int32_t* lut, unsigned x0, unsigned x1,
                    const Render_params& p, size_t noise_index, int32_t noise_scale) const;

    unsigned width;
    unsigned height;
    std::vector<int8_t> noise;  ///< 2^20 samples
    std::vector<Span> aimer;  ///< the aimer pattern, row by row
    // Last frame of the fast mode.
    bool have_last = false;
    Render_params last;
    std::shared_ptr<const Scene> last_scene;
};

}  // namespace vqxsim

#endif
