// X5501_Exposure_controller<Trait>: the X5501 engine's exposure statistics.
//
// Instead of the sampling grids it takes one fixed window at the centre of
// the frame: 50 rows from height/2 - 100 in steps of 4 and 51 columns from
// width/2 - 100 to width/2 + 100 in steps of 4, single pixels, 2550 samples.
// The window is sampled in one pass as soon as more than height/2 + 100 rows
// are in memory. The white value is the grey level at which the count of the
// brightest samples reaches (100 - target percentile) percent; a frame
// without samples gives 255, and a walk past bin 0 gives 0xFFFFFFFF.
//
// Width and height are those last given to the mode's sampler, and the image
// is the one stored into it (set_sample_image). In the fixed modes nothing is
// sampled. A null image is reported ("ptr != NULL") and the frame is left
// unsampled. A frame too small to hold the window (height below 200 or width
// below 201) is left unsampled, so no read leaves the frame.
//
// sample_wv() does not look at the mode: in the fixed modes it answers 255
// (no samples), which the trait ignores there.
//
// Same ownership and threading as Exposure_controller (sensor's monitor).
#ifndef VQX_LIB_X5501_EXPOSURE_CONTROLLER_H
#define VQX_LIB_X5501_EXPOSURE_CONTROLLER_H

#include <cstdint>
#include <cstring>

#include "Diagnostics.h"
#include "Exposure_controller.h"

template <class Trait>
class X5501_Exposure_controller : public Exposure_controller<Trait> {
public:
    static constexpr unsigned window_rows = 50;
    static constexpr unsigned window_columns = 51;
    static constexpr unsigned window_step = 4;

    void sample_reset(unsigned width, unsigned height) override
    {
        n_samples = 0;
        std::memset(histogram, 0, sizeof histogram);
        Exposure_controller<Trait>::sample_reset(width, height);
    }

    void sample_pixels(unsigned rows_ready) override
    {
        const Exposure_settings& s = this->settings;
        if (s.mode < 2)
            return;
        const bool histogram_mode = s.mode == 2;
        const unsigned width = histogram_mode ? this->ae_sampler.width : this->cs_sampler.width;
        const unsigned height = histogram_mode ? this->ae_sampler.height : this->cs_sampler.height;
        if (rows_ready <= height / 2 + 100 || n_samples != 0)
            return;
        std::memset(histogram, 0, sizeof histogram);
        const unsigned char* ptr = histogram_mode ? this->ae_sampler.image : this->cs_sampler.image;
        if (ptr == nullptr) {
            sd_assert_function("ptr != NULL", "jni/../../Sensor/X5501_trait", 67);
            return;
        }
        if (height < 200 || width < 201)
            return;

        const unsigned first_row = height / 2 - 100;
        const unsigned first_column = width / 2 - 100;
        for (unsigned i = 0; i < window_rows; ++i) {
            const unsigned char* p = ptr + size_t(first_row + i * window_step) * width + first_column;
            for (unsigned j = 0; j < window_columns; ++j)
                ++histogram[p[j * window_step]];
            n_samples += window_columns;
        }
    }

    unsigned sample_wv() override
    {
        const unsigned need = ((100 - this->settings.target_percentile) * n_samples + 50) / 100;
        int32_t sum = 0;
        for (int bin = 255; bin >= 0; --bin) {
            sum = static_cast<int32_t>(static_cast<uint32_t>(sum) + histogram[bin]);
            if (sum >= static_cast<int32_t>(need))
                return static_cast<unsigned>(bin);
        }
        return 0xFFFFFFFFu;
    }

    unsigned histogram[256] = {}; ///< single-pixel counts of the window
    unsigned n_samples = 0;       ///< samples taken; non-zero once the frame is sampled
};

#endif // VQX_LIB_X5501_EXPOSURE_CONTROLLER_H
