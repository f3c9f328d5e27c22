// Simulator.cpp: the public handle over Sim_core.
#include "Simulator.h"

#include "Sim_core.h"

namespace vqxsim {

std::unique_ptr<Simulator> Simulator::create(const Config& config, std::string* error)
{
    std::unique_ptr<Sim_core> core = Sim_core::create(config, error);
    if (!core)
        return nullptr;
    return std::unique_ptr<Simulator>(new Simulator(std::move(core)));
}

Simulator::Simulator(std::unique_ptr<Sim_core> core) : core(std::move(core)) {}
Simulator::~Simulator() = default;

IHwl* Simulator::hwl() { return core->hwl(); }
const Config& Simulator::config() const { return core->config(); }
unsigned Simulator::step(unsigned frames, unsigned timeout_ms) { return core->step(frames, timeout_ms); }
void Simulator::shutdown() { core->shutdown(); }

uint16_t Simulator::reg(unsigned address) const { return core->reg(address); }
bool Simulator::supplied() const { return core->supplied(); }
bool Simulator::standby() const { return core->standby(); }
bool Simulator::streaming() const { return core->streaming(); }
bool Simulator::transfer_started() const { return core->transfer_started(); }
bool Simulator::stalled() const { return core->stalled(); }
bool Simulator::aimer() const { return core->aimer(); }
bool Simulator::illumination() const { return core->illumination(); }
unsigned Simulator::illum_config() const { return core->illum_config(); }

uint8_t Simulator::psoc(unsigned address) const { return core->psoc(address); }
uint8_t Simulator::light_register() const { return core->psoc(Psoc_model::light_control); }
std::vector<Psoc_write> Simulator::psoc_writes() const { return core->psoc_writes(); }

std::vector<Buffer_state> Simulator::buffer_states() const { return core->buffer_states(); }
Buffer_state Simulator::buffer_state(int handle) const { return core->buffer_state(handle); }
unsigned Simulator::buffers_in(Buffer_state state) const
{
    unsigned n = 0;
    for (Buffer_state s : core->buffer_states())
        n += s == state ? 1 : 0;
    return n;
}
Counters Simulator::counters() const { return core->counters(); }
std::vector<Frame_record> Simulator::frames() const { return core->frames(); }
Frame_record Simulator::controls() const { return core->controls(); }
uint64_t Simulator::calls(const std::string& operation) const { return core->calls(operation); }

bool Simulator::buffer_at(const void* address, Buffer_view* out) const { return core->buffer_at(address, out); }
std::vector<unsigned char*> Simulator::buffer_images() const { return core->buffer_images(); }

void Simulator::set_ambient(double ambient) { core->set_ambient(ambient); }
void Simulator::set_scene_scale(double scale) { core->set_scene_scale(scale); }

Faults Simulator::faults() const { return core->faults_now(); }
void Simulator::update_faults(const std::function<void(Faults&)>& change) { core->update_faults(change); }
unsigned Simulator::release_held_frames() { return core->release_held_frames(); }
unsigned Simulator::lose_held_frames() { return core->lose_held_frames(); }
unsigned Simulator::confirm_stop_now(bool also_never) { return core->confirm_stop_now(also_never); }
bool Simulator::stop_pending() const { return core->stop_pending_now(); }
void Simulator::set_event_guard(std::function<void(const std::function<void()>&)> guard)
{
    core->set_event_guard(std::move(guard));
}

}  // namespace vqxsim
