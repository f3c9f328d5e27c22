// vqxscan_sim: run-time lookup of the simulator's frame information.
#include "vqxscan_sim.h"

#include <dlfcn.h>

#include "vqxsim_c.h"

namespace vqxscan {

namespace {
typedef decltype(&::vqxsim_frame_info) Frame_info_fn;
} // namespace

Sim_frame_source::Sim_frame_source() : function(dlsym(RTLD_DEFAULT, "vqxsim_frame_info")) {}

bool Sim_frame_source::frame_info(const void* image, Sim_frame_info& out) const
{
    if (!function)
        return false;
    struct vqxsim_frame_info info;
    if (reinterpret_cast<Frame_info_fn>(function)(image, &info) != 0)
        return false;
    out.exposure_us = info.exposure_us;
    out.gain = info.gain;
    out.rows = info.rows;
    out.sensor_frame = info.frame_number;
    return true;
}

} // namespace vqxscan
