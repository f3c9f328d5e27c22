// Lights: an engine's aimer and illumination.
//
// A light code has bit 0 for the aimer and bit 1 for the illumination
// (Psoc::get_lights_mode of a lighting mode). With a PSoC driving the lights
// the hardware layer's aimer and illumination are switched off and the code
// goes into the PSoC's light control register, with the boost level on an
// engine that boosts; without one the hardware layer's AimOn/AimOff and
// IllumOn/IllumOff follow the code.
//
// change_lights answers by one rule on every engine: true when the lighting
// was taken, that is shown now, or held because the engine cannot show it
// now (asleep, off, or not scanning on an engine that lights only while
// scanning) and shown when it can; false only when showing it failed.
//
// Owned by its trait, used under the sensor's monitor.
#ifndef VQX_LIGHTS_H
#define VQX_LIGHTS_H

#include <cstdint>

#include "IHwl.h"
#include "Psoc.h"

class Lights {
public:
    static constexpr uint8_t AIMER = 1;
    static constexpr uint8_t ILLUMINATION = 2;

    /// @p psoc: the PSoC that drives the lights (not owned), or null when
    /// the hardware layer does. @p boosts: the engine sets the PSoC's boost.
    Lights(IHwl& hwl, Psoc* psoc, bool boosts = false) : hwl(hwl), psoc(psoc), boosts(boosts) {}

    /// Shows @p code (with @p boost where the engine boosts). True when
    /// every switch succeeded.
    bool show(uint8_t code, uint8_t boost = 0);
    /// Switches the hardware layer's aimer and illumination off.
    void off();
    /// From now on the lights go through @p psoc (null: the hardware
    /// layer), for an engine that learns only at power-up whether one is
    /// fitted.
    void drive_by(Psoc* driver) { psoc = driver; }
    /// The lights go through a PSoC.
    bool by_psoc() const { return psoc != nullptr; }
    /// The answer of change_lights for a lighting held until it can be shown.
    static bool held() { return true; }

private:
    IHwl& hwl;
    Psoc* psoc;
    const bool boosts;
};

#endif // VQX_LIGHTS_H
