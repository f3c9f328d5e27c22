// Control_pipeline.cpp: see Control_pipeline.h.
#include "Control_pipeline.h"

namespace vqxsim {

void Control_pipeline::restart(const Frame_settings& now, unsigned frame_latency)
{
    latency = frame_latency == 0 ? 1 : frame_latency;
    stages.assign(latency - 1, now);
}

Frame_settings Control_pipeline::advance(const Frame_settings& now)
{
    // Before this push the stages hold frames k .. k+L-2; the snapshot taken
    // now (period k-1's writes included) is frame k+L-1's.
    stages.push_back(now);
    Frame_settings frame = stages.front();
    stages.pop_front();
    return frame;
}

}  // namespace vqxsim
