// Renderer.cpp: the pixel physics of the simulated engine.
#include "Renderer.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace vqxsim {
namespace {

constexpr size_t kNoiseSize = size_t(1) << 20;
constexpr double kNoiseSigma = 1.5;

// The aimer pattern as fractions of the frame's height and width: a bar
// (8 rows over 512 columns at 1280 x 800) and a centre spot (24 x 24).
constexpr double kAimerBarHeight = 0.01;
constexpr double kAimerBarWidth = 0.4;
constexpr double kAimerSpotHeight = 0.03;
constexpr double kAimerSpotWidth = 3.0 / 160.0;

// xorshift64*: cheap and reproducible.
uint64_t next_random(uint64_t& state)
{
    state ^= state >> 12;
    state ^= state << 25;
    state ^= state >> 27;
    return state * 0x2545F4914F6CDD1DULL;
}

}  // namespace

bool Render_params::operator==(const Render_params& o) const
{
    return light == o.light && aimer_light == o.aimer_light && exposure_us == o.exposure_us && gain == o.gain &&
           vflip == o.vflip && hflip == o.hflip && mode == o.mode;
}

Renderer::Renderer(unsigned width, unsigned height, uint64_t seed) : width(width), height(height), noise(kNoiseSize)
{
    // Sum of four uniform 16-bit numbers: close enough to a Gaussian for
    // sensor noise. Its deviation is 65536 x sqrt(4/12); scaled in 1/65536.
    uint64_t state = seed * 0x9E3779B97F4A7C15ULL + 0x1234567;
    const int64_t scale = std::llround(kNoiseSigma / (65536.0 * std::sqrt(4.0 / 12.0)) * 65536.0 * 65536.0);
    for (int8_t& n : noise) {
        uint64_t r = next_random(state);
        int64_t sum = int64_t(r & 0xFFFF) + int64_t((r >> 16) & 0xFFFF) + int64_t((r >> 32) & 0xFFFF) +
                      int64_t(r >> 48) - 2 * 65535;
        n = static_cast<int8_t>(sum * scale / (int64_t(65536) * 65536));
    }
    // The aimer pattern, centred and sized in fractions of the frame so that
    // it is the same share of every frame size; at least a pixel each way.
    auto extent = [](unsigned size, double fraction) {
        return std::clamp(static_cast<unsigned>(std::lround(size * fraction)), 1u, size);
    };
    auto centred = [](unsigned size, unsigned part) { return (size - part) / 2; };
    const unsigned bar_rows = extent(height, kAimerBarHeight);
    const unsigned bar_cols = extent(width, kAimerBarWidth);
    const unsigned bar_x0 = centred(width, bar_cols);
    const unsigned spot_rows = extent(height, kAimerSpotHeight);
    const unsigned spot_cols = extent(width, kAimerSpotWidth);
    const unsigned spot_x0 = centred(width, spot_cols);
    aimer.reserve(bar_rows + spot_rows);
    for (unsigned r = centred(height, bar_rows); r < centred(height, bar_rows) + bar_rows; ++r)
        aimer.push_back({r, bar_x0, bar_x0 + bar_cols});
    for (unsigned r = centred(height, spot_rows); r < centred(height, spot_rows) + spot_rows; ++r)
        aimer.push_back({r, spot_x0, spot_x0 + spot_cols});
}

void Renderer::build_lut(int32_t* lut, double light, const Render_params& p) const
{
    double per_step = light * p.exposure_us * p.gain * calibration / 255.0;
    for (int r = 0; r < 256; ++r) {
        double v = r * per_step + dark_level;
        lut[r] = static_cast<int32_t>(std::min(v, 1023.0) + 0.5);
    }
}

void Renderer::render_row(const uint8_t* src, uint8_t* dst, const int32_t* lut, unsigned x0, unsigned x1,
                          const Render_params& p, size_t noise_index, int32_t noise_scale) const
{
    const size_t mask = kNoiseSize - 1;
    for (unsigned x = x0; x < x1; ++x) {
        unsigned sx = p.hflip ? width - 1 - x : x;
        int32_t v = lut[src[sx]];
        if (noise_scale != 0)
            v += noise[(noise_index + x) & mask] * noise_scale / 256;
        dst[x] = static_cast<uint8_t>(std::clamp(v, 0, 255));
    }
}

void Renderer::render(const std::shared_ptr<const Scene>& scene, const Render_params& p, uint8_t* out)
{
    if (p.mode == Render_mode::none) {
        std::memset(out, 128, size_t(width) * height);
        have_last = false;
        return;
    }
    if (p.mode == Render_mode::fast && have_last && p == last && scene == last_scene)
        return;
    int32_t lut[256];
    int32_t lut_aimer[256];
    build_lut(lut, p.light, p);
    build_lut(lut_aimer, p.light + p.aimer_light, p);
    int32_t noise_scale = p.mode == Render_mode::full
                              ? static_cast<int32_t>(std::min(p.gain * 256.0, 65536.0) + 0.5)
                              : 0;
    for (unsigned y = 0; y < height; ++y) {
        unsigned sy = p.vflip ? height - 1 - y : y;
        render_row(&scene->reflectance[size_t(sy) * width], out + size_t(y) * width, lut, 0, width, p,
                   p.noise_offset + size_t(y) * width, noise_scale);
    }
    if (p.aimer_light > 0.0) {
        for (const Span& s : aimer) {
            unsigned y = p.vflip ? height - 1 - s.row : s.row;
            unsigned x0 = p.hflip ? width - s.x1 : s.x0;
            unsigned x1 = p.hflip ? width - s.x0 : s.x1;
            render_row(&scene->reflectance[size_t(s.row) * width], out + size_t(y) * width, lut_aimer, x0, x1, p,
                       p.noise_offset + size_t(y) * width, noise_scale);
        }
    }
    have_last = p.mode == Render_mode::fast;
    last = p;
    last_scene = scene;
}

}  // namespace vqxsim
