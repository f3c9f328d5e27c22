// Control_history: see Control_history.h.
#include "Control_history.h"

#include <algorithm>

Control_history::Control_history(Delays delays_)
    : delays(delays_),
      depth(std::max(delays_.exposure, delays_.gain) + 1),
      exposures(depth),
      gains(depth)
{
}

void Control_history::step(unsigned frames)
{
    for (unsigned i = 0; i < frames; ++i) {
        exposures.advance();
        gains.advance();
    }
    last_delivered = {exposures.at(static_cast<int>(delays.exposure)), gains.at(static_cast<int>(delays.gain))};
}

void Control_history::restart(Count count)
{
    for (unsigned i = 0; i < depth; ++i) {
        exposures.advance();
        gains.advance();
    }
    counted = count.read;
    last_count = count.value;
    streaming = true;
}

void Control_history::frame(Count count)
{
    unsigned frames = 1;
    if (count.read && counted)
        frames = std::min<unsigned>(static_cast<uint16_t>(count.value - last_count), depth);
    counted = count.read;
    last_count = count.value;
    step(frames);
}

void Control_history::program(unsigned exposure, unsigned gain)
{
    exposures.newest() = exposure;
    gains.newest() = gain;
}
