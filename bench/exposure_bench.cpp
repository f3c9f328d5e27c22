// Exposure statistics per frame: sampling in strips plus the white value,
// for each frame size, sampling pattern and controller mode.
//
// One iteration is one frame: sample_reset, the image pointer, sample_pixels
// once per 32-row strip and once with the full height, then sample_wv. The
// per-frame budget is well under 10 us at 1280x800.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "Bench_hwl.h"
#include "Exposure_controller.h"
#include "Exposure_rules.h"
#include "X5501_Exposure_controller.h"

namespace {

struct Bench_trait {
    static uint32_t exposure_rows(const Bench_trait&, uint32_t us) { return rows_x5501(us); }
};

struct Size {
    unsigned w, h;
};
constexpr Size sizes[] = {{640, 480}, {752, 480}, {1280, 800}};

void frame(Exposure_controller_base& c, const uint8_t* img, unsigned w, unsigned h)
{
    c.sample_reset(w, h);
    c.set_sample_image(img);
    for (unsigned rows = 32; rows < h; rows += 32)
        c.sample_pixels(rows);
    c.sample_pixels(h);
    benchmark::DoNotOptimize(c.sample_wv());
}

// Arguments: size index, exposure mode, exposure method.
template <class Controller>
void BM_frame(benchmark::State& state)
{
    const Size sz = sizes[state.range(0)];
    const std::vector<uint8_t> img = bench::make_frames(sz.w, sz.h);
    auto c = std::make_unique<Controller>();
    c->settings.mode = static_cast<uint32_t>(state.range(1));
    c->settings.exposure_method = static_cast<uint32_t>(state.range(2));
    for (auto _ : state)
        frame(*c, img.data(), sz.w, sz.h);
    state.SetLabel(std::to_string(sz.w) + "x" + std::to_string(sz.h) + " mode " +
                   std::to_string(state.range(1)) + " method " + std::to_string(state.range(2)));
}

void histogram_and_context_args(benchmark::internal::Benchmark* b)
{
    for (int size = 0; size < 3; ++size)
        for (int mode : {2, 3})
            for (int method : {0, 1, 2})
                b->Args({size, mode, method});
}

void x5501_args(benchmark::internal::Benchmark* b)
{
    for (int size = 0; size < 3; ++size)
        b->Args({size, 2, 2});
}

} // namespace

BENCHMARK_TEMPLATE(BM_frame, Exposure_controller<Bench_trait>)->Apply(histogram_and_context_args);
BENCHMARK_TEMPLATE(BM_frame, X5501_Exposure_controller<Bench_trait>)->Apply(x5501_args);

BENCHMARK_MAIN();
