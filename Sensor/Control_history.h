// Control_history: which exposure and gain each sensor frame was taken with.
//
// A value written in frame k's period (from the start of frame k's readout
// to the start of frame k+1's, where the driver's programming point lies)
// shapes frame k + delay. The history keeps one entry a sensor frame for
// each control: entry 0 is what the current period programs, entry i what
// the registers held at the end of the period i frames back. Each engine
// declares its delays; this is the one place that turns them into "frame k
// was taken with".
//
// frame() moves to the next period: by one frame for an engine without a
// frame counter, by the frames the counter says the sensor made since the
// last look for one with a counter, so frames the driver never saw keep the
// credit exact and a second look within one frame moves nothing. Each move
// records what the frame of the new period was taken with; delivered()
// reads that record and changes nothing.
//
// Owned by its trait, used under the sensor's monitor. No allocation after
// construction.
#ifndef VQX_CONTROL_HISTORY_H
#define VQX_CONTROL_HISTORY_H

#include <cstdint>

#include "history_queue.h"

class Control_history {
public:
    /// Frames from the period in which each control is written to the frame
    /// it shapes.
    struct Delays {
        unsigned exposure;
        unsigned gain;
    };
    /// Exposure and gain in the engine's own units.
    struct Setting {
        unsigned exposure;
        unsigned gain;
        unsigned contrast() const { return exposure * gain; }
    };
    /// A reading of the sensor's frame counter (16 bits, wraps).
    struct Count {
        bool read;       ///< the register was read
        uint16_t value;
    };

    explicit Control_history(Delays delays);
    Control_history(const Control_history&) = delete;
    Control_history& operator=(const Control_history&) = delete;

    /// Stream start: every frame to come was taken with what the registers
    /// hold now. @p count starts the frame counter (unread: none).
    void restart(Count count = Count{false, 0});
    /// Stream stop: the sensor makes no frames until the next restart.
    void halt() { streaming = false; }
    /// Moves to the period of the next frame event (no counter).
    void frame() { step(1); }
    /// Moves by the frames the counter made since the last look (one when
    /// this or the last reading failed).
    void frame(Count count);
    /// The values the current period programs.
    void program(unsigned exposure, unsigned gain);

    /// What the registers hold after this period's writes.
    Setting programmed() const { return {exposures.newest(), gains.newest()}; }
    /// What the frame of the current period was taken with (as of the last
    /// move).
    Setting delivered() const { return last_delivered; }
    /// Between restart() and halt().
    bool running() const { return streaming; }
    /// The last counter look read the register.
    bool counting() const { return counted; }

private:
    void step(unsigned frames);

    const Delays delays;
    const unsigned depth;
    history_queue<unsigned> exposures;
    history_queue<unsigned> gains;
    Setting last_delivered{1, 1};
    uint16_t last_count = 0;
    bool counted = false;
    bool streaming = false;
};

#endif // VQX_CONTROL_HISTORY_H
