// Control_pipeline.cpp: see Control_pipeline.h.
#include "Control_pipeline.h"

#include <algorithm>

namespace vqxsim {

void Control_pipeline::restart(const Frame_settings& now, unsigned latency, unsigned gain)
{
    exposure_latency = std::max(latency, 1u);
    gain_latency = std::max(gain, 1u);
    snapshots.assign(std::max(exposure_latency, gain_latency) - 1, now);
}

Frame_settings Control_pipeline::advance(const Frame_settings& now)
{
    // After this push the snapshots are those taken at the starts of frames
    // k-D+1 .. k (D the larger latency); the one taken at the start of frame
    // k-L+1 holds period k-L's writes, which shape frame k.
    snapshots.push_back(now);
    const size_t depth = snapshots.size();
    Frame_settings frame = snapshots[depth - exposure_latency];
    const Frame_settings& gain = snapshots[depth - gain_latency];
    frame.analog_gain = gain.analog_gain;
    frame.digital_gain = gain.digital_gain;
    frame.analog_code = gain.analog_code;
    frame.digital_code = gain.digital_code;
    snapshots.pop_front();
    return frame;
}

}  // namespace vqxsim
