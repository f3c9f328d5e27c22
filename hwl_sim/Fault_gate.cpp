// Fault_gate.cpp: the firing rule of the injected faults.
#include "Fault_gate.h"

namespace vqxsim {
namespace {

uint64_t name_hash(const char* name)
{
    uint64_t h = 1469598103934665603ULL;  // FNV-1a
    for (; *name; ++name)
        h = (h ^ static_cast<unsigned char>(*name)) * 1099511628211ULL;
    return h;
}

}  // namespace

Fault_gate::Fault_gate(const Trigger& trigger, uint64_t seed, const char* name)
    : trigger(trigger), seed(seed ^ name_hash(name)), random(this->seed)
{
}

void Fault_gate::retarget(const Trigger& t)
{
    if (t.kind == trigger.kind && t.n == trigger.n && t.probability == trigger.probability)
        return;
    trigger = t;
    count = fires = 0;
    random.seed(seed);
}

bool Fault_gate::next()
{
    ++count;
    bool fire = false;
    switch (trigger.kind) {
    case Trigger::Kind::never: break;
    case Trigger::Kind::nth: fire = count == trigger.n; break;
    case Trigger::Kind::from_nth: fire = count >= trigger.n; break;
    case Trigger::Kind::every_nth: fire = trigger.n != 0 && count % trigger.n == 0; break;
    case Trigger::Kind::always: fire = true; break;
    case Trigger::Kind::probability:
        fire = std::uniform_real_distribution<double>(0.0, 1.0)(random) < trigger.probability;
        break;
    }
    fires += fire ? 1 : 0;
    return fire;
}

}  // namespace vqxsim
