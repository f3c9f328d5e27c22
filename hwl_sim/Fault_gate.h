// Fault_gate.h: decides, event by event, whether an injected fault fires.
//
// One gate per fault. next() counts one event (a frame that fills a buffer,
// a ReadReg call, ...) and answers whether the fault fires on it, following
// the fault's Trigger. Probabilities come from the gate's own generator,
// seeded from the instance seed and the fault's name, so that adding one
// fault does not change when another fires.
//
// Used under Sim_core's lock; not thread-safe itself.
#ifndef VQXSIM_FAULT_GATE_H
#define VQXSIM_FAULT_GATE_H

#include <cstdint>
#include <random>

#include "Simulator.h"

namespace vqxsim {

class Fault_gate {
public:
    Fault_gate(const Trigger& trigger, uint64_t seed, const char* name);

    /// Counts one event; true when the fault fires on it.
    bool next();
    /// Fires by @p trigger from now on; a trigger different from the one
    /// in use starts counting anew.
    void retarget(const Trigger& trigger);
    uint64_t events() const { return count; }
    uint64_t fired() const { return fires; }

private:
    Trigger trigger;
    uint64_t seed;
    uint64_t count = 0;
    uint64_t fires = 0;
    std::mt19937_64 random;
};

}  // namespace vqxsim

#endif
