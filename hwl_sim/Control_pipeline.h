// Control_pipeline.h: the frame latency of a simulated sensor's controls.
//
// An image sensor latches its exposure and gain registers some frames ahead
// of the frame they shape. The framework models this once for every engine
// model: a model only declares its latencies (Sensor_model::frame_latency
// for the exposure, Sensor_model::gain_latency for the gain) and reports
// what its registers hold now (Sensor_model::controls).
//
// Frame periods: sensor frame k's period runs from the start of its readout
// to the start of frame k+1's readout. A control write made during frame
// k's period shapes frame k + L, whether it came while frame k was read
// out, in frame k's vsync callback or between frames. The pipeline takes a
// snapshot of the registers at the start of every frame's readout (the
// snapshot taken at the start of frame k+1 holds every write of period k)
// and hands its exposure part out L - 1 frames later, its gain part
// L_gain - 1 frames later. When streaming (re)starts, what the registers
// hold applies at once: the pipeline is filled with it.
//
// Threads: none of its own; Sim_core calls it with its lock held. The deque
// never holds more than the larger latency's entries, so after the first
// frames it allocates nothing.
#ifndef VQXSIM_CONTROL_PIPELINE_H
#define VQXSIM_CONTROL_PIPELINE_H

#include <deque>

#include "Sensor_model.h"

namespace vqxsim {

class Control_pipeline {
public:
    /// Streaming starts with @p now in the registers, exposure latency
    /// @p latency and gain latency @p gain_latency (each taken as 1 when 0).
    void restart(const Frame_settings& now, unsigned latency, unsigned gain_latency);
    /// A frame's readout starts: returns the controls this frame was taken
    /// with and latches @p now for the frames to come.
    Frame_settings advance(const Frame_settings& now);

private:
    std::deque<Frame_settings> snapshots;  ///< oldest first; back() is the newest
    unsigned exposure_latency = 1;
    unsigned gain_latency = 1;
};

}  // namespace vqxsim

#endif
