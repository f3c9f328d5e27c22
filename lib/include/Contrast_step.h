// shared_contrast_step: the wanted contrast for the next frames.
//
// Contrast is exposure rows times gain. The Rilo, MT9V022, Aptina and Kelp
// traits call this from update_contrast (automatic modes) and then split the
// result into rows and gain by their own rule. The white value is held at
// no less than a quarter of the target, so one step raises the contrast at
// most four-fold; the downward step is not limited. 32-bit unsigned
// arithmetic, truncating; the result is at least 1.
//
// Pure function; reentrant.
#ifndef VQX_LIB_CONTRAST_STEP_H
#define VQX_LIB_CONTRAST_STEP_H

#include "Exposure_settings.h"

inline unsigned shared_contrast_step(unsigned white, unsigned contrast, const Exposure_settings& settings)
{
    const unsigned target = settings.target_value;
    unsigned w = white;
    if (w <= target / 4)
        w = target / 4 > 1 ? target / 4 : 1;
    const unsigned c = w != 0 ? contrast * target / w : 0;
    return c != 0 ? c : 1;
}

#endif // VQX_LIB_CONTRAST_STEP_H
