// Exposure_controller_base: mode dispatch and the context-sensitive
// evaluation; see Exposure_controller.h.
#include "Exposure_controller.h"

namespace {

// Runs the grid the exposure method names on @p sampler.
template <class Sampler>
void sample_by_method(Sampler& sampler, uint32_t method, unsigned rows_ready)
{
    switch (method) {
    case 0:
        sampler.uniform_sample(rows_ready);
        break;
    case 1:
        sampler.center_sample(rows_ready);
        break;
    default:
        sampler.center_weight_sample(rows_ready);
        break;
    }
}

// Edge pairs needed for the edge-mean white value.
constexpr uint32_t min_edge_pairs = 10;

} // namespace

Exposure_controller_base::~Exposure_controller_base() = default;

void Exposure_controller_base::sample_reset(unsigned width, unsigned height)
{
    if (settings.mode < 2)
        return;
    if (settings.mode == 2)
        ae_sampler.reset(width, height);
    else
        cs_sampler.reset(width, height);
}

void Exposure_controller_base::set_sample_image(const unsigned char* image)
{
    if (settings.mode < 2)
        return;
    if (settings.mode == 2)
        ae_sampler.image = image;
    else
        cs_sampler.image = image;
}

void Exposure_controller_base::sample_pixels(unsigned rows_ready)
{
    if (settings.mode < 2)
        return;
    if (settings.mode == 2)
        sample_by_method(ae_sampler, settings.exposure_method, rows_ready);
    else
        sample_by_method(cs_sampler, settings.exposure_method, rows_ready);
}

unsigned Exposure_controller_base::sample_wv()
{
    if (settings.mode < 2)
        return 0;
    if (settings.mode == 2)
        return ae_sampler.accumulator.get_white_value(settings);
    return context_sensitive_white_value();
}

// A pair is an edge pair when its difference lies strictly above a fifth of
// the way from the smallest to the largest difference of the frame. With
// enough edge pairs the white value is their mean brightness, so that the
// exposure follows the printed marks rather than the background; otherwise
// it is the mean of all pairs.
unsigned Exposure_controller_base::context_sensitive_white_value()
{
    Cs_accumulator& acc = cs_sampler.accumulator;
    if (acc.fresh == 0)
        return acc.white_value;
    const uint32_t n = acc.n_buffered;
    if (n == 0) {
        acc.white_value = 0;
        acc.edge_strength = 0;
        acc.edge_count = 0;
        return 0;
    }

    const uint32_t threshold = acc.min_delta + (acc.max_delta - acc.min_delta) / 5;
    uint32_t sum_differences = 0;
    uint32_t sum_means = 0;
    uint32_t count = 0;
    // Branch-free: whether a pair is an edge is data, not control flow.
    for (uint32_t i = 0; i < n; ++i) {
        const uint32_t d = acc.delta_buffer[i];
        const uint32_t edge = 0u - static_cast<uint32_t>(d > threshold);
        sum_differences += d & edge;
        sum_means += acc.mean_buffer[i] & edge;
        count -= edge;
    }
    acc.edge_count = count;

    uint32_t white;
    if (count >= min_edge_pairs) {
        acc.edge_strength = static_cast<uint32_t>(sum_differences * 100.0 / count);
        white = sum_means / count;
    } else {
        uint32_t sum_all_means = 0;
        for (uint32_t i = 0; i < n; ++i)
            sum_all_means += acc.mean_buffer[i];
        white = sum_all_means / n;
        acc.edge_strength = static_cast<uint32_t>(sum_differences * 10.0);
    }

    if (white == 0)
        white = 1;
    else if (white > 255)
        white = 255;
    acc.white_value = white;
    acc.fresh = 1;
    return white;
}
