// Frame_counter: sensor frames between two looks at a frame counter.
//
// Traits whose sensor counts its frames (AR0144, Kelp) step their exposure
// histories by the frames the sensor really made between two programming
// points, so frames the driver never saw (no buffer armed, an event lost)
// keep the credit exact and a second look within one frame steps nothing.
// The counter register is 16 bits and wraps.
//
// Owned by its trait, used under the sensor's monitor.
#ifndef VQX_FRAME_COUNTER_H
#define VQX_FRAME_COUNTER_H

#include <algorithm>
#include <cstdint>

class Frame_counter {
public:
    /// Starts counting from @p count (@p counted: the register was read).
    void restart(bool counted, uint16_t count)
    {
        known = counted;
        last = count;
    }
    /// Frames since the last look, at most @p limit; 1 when this or the
    /// last reading failed.
    unsigned since(bool counted, uint16_t count, unsigned limit)
    {
        unsigned frames = 1;
        if (counted && known)
            frames = std::min<unsigned>(static_cast<uint16_t>(count - last), limit);
        restart(counted, count);
        return frames;
    }
    /// The last look read the register.
    bool counting() const { return known; }

private:
    uint16_t last = 0;
    bool known = false;
};

#endif // VQX_FRAME_COUNTER_H
