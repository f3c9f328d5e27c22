// vqxscan_sim: what vqxscan knows about the simulated scan engine.
//
// The simulator is configured through environment variables read when the
// hardware layer is first created, and it exports a C function,
// vqxsim_frame_info, that tells the exposure and gain a delivered frame was
// really taken with. vqxscan looks that function up at run time
// (dlsym(RTLD_DEFAULT, ...)), so it runs unchanged on a real hardware layer,
// where the lookup finds nothing and the per-frame line shows brightness
// only.
#ifndef VQXSCAN_SIM_H
#define VQXSCAN_SIM_H

#include <cstdint>

namespace vqxscan {

/// The simulator's environment variables and the values vqxscan gives them.
struct Sim_environment {
    const char* engine = "VQXSIM_ENGINE";
    const char* text = "VQXSIM_TEXT";
    const char* format = "VQXSIM_FORMAT";
    const char* format_code128 = "code128";
    const char* format_qrcode = "qrcode";
    const char* scene = "VQXSIM_SCENE";  ///< barcode, flat, ramp, or an image file
    const char* scene_scale = "VQXSIM_SCENE_SCALE";
    const char* capture_mode = "VQXSIM_CAPTURE_MODE";
    const char* faults = "VQXSIM_FAULTS";
};

struct Sim_frame_info {
    double exposure_us = 0.0;
    double gain = 0.0;  ///< total gain, 1.0 = unity
    uint32_t rows = 0;  ///< coarse integration rows the sensor used
    uint64_t sensor_frame = 0;  ///< the sensor's frame number, 1 for the first
};

/// Looks the simulator's frame information up, if the simulator is there.
class Sim_frame_source {
public:
    Sim_frame_source();
    /// Fills @p out for the frame whose pixels are at @p image; false when
    /// the hardware layer is not the simulator or the frame is unknown to it.
    bool frame_info(const void* image, Sim_frame_info& out) const;
    /// True when the hardware layer is the simulator.
    bool present() const { return function != nullptr; }

private:
    void* function = nullptr;
};

} // namespace vqxscan

#endif
