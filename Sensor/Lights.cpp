// Lights: see Lights.h.
#include "Lights.h"

bool Lights::show(uint8_t code, uint8_t boost)
{
    if (psoc) {
        off();
        const bool mode_ok = psoc->set_lights_mode(code);
        if (!boosts)
            return mode_ok;
        const bool boost_ok = psoc->set_boost(boost, boost != 0);
        return mode_ok && boost_ok;
    }
    const bool aim_ok = (code & AIMER) ? hwl.AimOn() : hwl.AimOff();
    const bool illum_ok = (code & ILLUMINATION) ? hwl.IllumOn() : hwl.IllumOff();
    return aim_ok && illum_ok;
}

void Lights::off()
{
    hwl.AimOff();
    hwl.IllumOff();
}
