// Exposure controller: per-frame pixel statistics and the white value.
//
// Exposure_controller_base owns the two samplers (histogram and
// context-sensitive) and the copy of the active exposure settings. For each
// frame the sensor calls sample_reset(width, height), set_sample_image(image),
// sample_pixels(rows_ready) once per strip of rows received, and sample_wv()
// at the end of the frame; the engine trait turns the white value (0-255)
// into new exposure and gain.
//
// The settings' mode selects the statistics: below 2 (fixed exposure) nothing
// is sampled and the white value is 0; 2 uses the histogram sampler and
// answers the grey level at the target percentile; 3 and above use the
// context-sensitive sampler and answer the mean brightness of the edge pairs
// (the mean of all pairs when fewer than 10 edge pairs were found), held to
// 1..255. The exposure method selects the grid: 0 uniform, 1 centre, any
// other value centre-weighted.
//
// Exposure_controller<Trait> adds the three microsecond-to-rows converters
// of its engine trait, following the fixed, maximum and starting exposure of
// the settings copy; bind() gives them the trait. Because the converters
// point into the controller's own settings, controllers are not copyable.
//
// One controller exists for the driver's life (created at start-up with its
// trait). It is not locked itself: the frame path and the settings changes
// (the settings are replaced whole between frames) run under the sensor's
// monitor. The frame path allocates nothing.
#ifndef VQX_LIB_EXPOSURE_CONTROLLER_H
#define VQX_LIB_EXPOSURE_CONTROLLER_H

#include "Auto_exposure_accumulator.h"
#include "Context_sensitive_accumulator.h"
#include "Exposure_converter.h"
#include "Exposure_settings.h"
#include "Pixel_sampler.h"

class Exposure_controller_base {
public:
    using Cs_accumulator = Context_sensitive_accumulator<Context_sensitive_watch_noop>;
    using Cs_sampler = Pixel_sampler<Cs_accumulator, Pix_watch_noop>;
    using Ae_sampler = Pixel_sampler<Auto_exposure_accumulator, Pix_watch_noop>;

    Exposure_controller_base() = default;
    Exposure_controller_base(const Exposure_controller_base&) = delete;
    Exposure_controller_base& operator=(const Exposure_controller_base&) = delete;
    virtual ~Exposure_controller_base();

    /// Starts a frame of @p width x @p height on the mode's sampler.
    virtual void sample_reset(unsigned width, unsigned height);
    /// Samples the rows that arrived since the last call.
    virtual void sample_pixels(unsigned rows_ready);
    /// The frame's white value (0 in the fixed modes).
    virtual unsigned sample_wv();

    /// Stores the frame's image into the mode's sampler (after sample_reset);
    /// the fixed modes store nothing.
    void set_sample_image(const unsigned char* image);

    /// Rows of the fixed, longest and starting exposure settings, converted
    /// by the engine's row rule.
    virtual unsigned fixed_rows() = 0;
    virtual unsigned max_rows() = 0;
    virtual unsigned start_rows() = 0;

    Cs_sampler cs_sampler;
    Ae_sampler ae_sampler;
    Exposure_settings settings;

protected:
    /// Evaluates the context-sensitive statistics into the white value.
    unsigned context_sensitive_white_value();
};

template <class Trait>
class Exposure_controller : public Exposure_controller_base {
public:
    Exposure_controller()
        : fixed_exposure(&settings.fixed_exposure),
          max_exposure(&settings.max_exposure),
          start_exposure(&settings.start_exposure)
    {
    }

    /// Gives the converters the trait that converts for them.
    void bind(Trait* trait)
    {
        fixed_exposure.p_sensor = trait;
        max_exposure.p_sensor = trait;
        start_exposure.p_sensor = trait;
    }

    unsigned fixed_rows() override { return fixed_exposure.current_rows(); }
    unsigned max_rows() override { return max_exposure.current_rows(); }
    unsigned start_rows() override { return start_exposure.current_rows(); }

    Exposure_converter<Trait> fixed_exposure; ///< follows settings.fixed_exposure
    Exposure_converter<Trait> max_exposure;   ///< follows settings.max_exposure
    Exposure_converter<Trait> start_exposure; ///< follows settings.start_exposure
};

#endif // VQX_LIB_EXPOSURE_CONTROLLER_H
