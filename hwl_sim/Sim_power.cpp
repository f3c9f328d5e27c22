// Sim_power.cpp: the sensor's supply and standby, the aimer and the
// illumination, the PSoC, and sensor register access through the model.
//
// The sensor's registers answer only while it is supplied; switching the
// supply on or off returns them to their power-on values.
#include "Sim_core.h"

#include <cstdio>

namespace vqxsim {
namespace {

// Trace text of a PSoC transfer's bytes (at most 16 shown).
std::string hex_bytes(const unsigned char* data, unsigned count)
{
    std::string text = "[";
    char item[8];
    for (unsigned i = 0; data && i < count && i < 16; ++i) {
        std::snprintf(item, sizeof item, i ? " %02X" : "%02X", data[i]);
        text += item;
    }
    return text + (count > 16 ? " ...]" : "]");
}

// Trace text of a register transfer's words (at most 8 shown).
std::string hex_words(const uint16_t* values, uint64_t length)
{
    if (!values)
        return "null";
    std::string text = "[";
    char item[12];
    uint64_t n = length == 1 ? 1 : length / 2;
    for (uint64_t i = 0; i < n && i < 8; ++i) {
        std::snprintf(item, sizeof item, i ? " 0x%04X" : "0x%04X", values[i]);
        text += item;
    }
    return text + (n > 8 ? " ...]" : "]");
}

}  // namespace

// ---------------------------------------------------------------------------
// PSoC
// ---------------------------------------------------------------------------

bool Sim_core::IsPsocSupported()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("IsPsocSupported");
    trace.line("IsPsocSupported() = %d", cfg.psoc_fitted);
    return cfg.psoc_fitted;
}

// A write to the PSoC's sensor reset line resets a supplied sensor. The
// reset restarts the sensor's output: during a stall restart it ends the
// stall, as a write to the streaming control does on a sensor that has one.
bool Sim_core::WriteIIC_PSOC(unsigned char address, unsigned char* data, unsigned int count)
{
    std::lock_guard<std::mutex> hold(mutex);
    note("WriteIIC_PSOC");
    bool ok = cfg.psoc_fitted && !psoc_gate.next() && psoc_model.write(address, data, count);
    if (!ok)
        ++this->count.psoc_failures;
    if (ok && is_supplied && Psoc_model::sensor_reset(address, count)) {
        model->set_supply(true);  // the sensor's registers return to their power-on values
        stream_restarted = is_stalled && stall_recovering;
        clear_restarted_stall();
    }
    trace.line("WriteIIC_PSOC(0x%02X, %s, %u) = %d", address, hex_bytes(data, count).c_str(), count, ok);
    state_changed();
    return ok;
}

bool Sim_core::ReadIIC_PSOC(unsigned char address, unsigned char* data, unsigned int count)
{
    std::lock_guard<std::mutex> hold(mutex);
    note("ReadIIC_PSOC");
    bool ok = cfg.psoc_fitted && !psoc_gate.next() && psoc_model.read(address, data, count);
    if (!ok)
        ++this->count.psoc_failures;
    trace.line("ReadIIC_PSOC(0x%02X, %u) = %d %s", address, count, ok, ok ? hex_bytes(data, count).c_str() : "");
    return ok;
}

// ---------------------------------------------------------------------------
// Power and lights
// ---------------------------------------------------------------------------

bool Sim_core::ImagerPowerOn()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("ImagerPowerOn");
    if (!is_supplied) {
        is_supplied = true;
        model->set_supply(true);
    }
    trace.line("ImagerPowerOn() = 1");
    state_changed();
    return true;
}

// Switching the supply off also turns the PSoC's light control off and
// clears a stall.
bool Sim_core::ImagerPowerOff()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("ImagerPowerOff");
    if (is_supplied) {
        is_supplied = false;
        model->set_supply(false);
        psoc_model.set_reg(Psoc_model::light_control, 0);
        clear_stall();
    }
    trace.line("ImagerPowerOff() = 1");
    state_changed();
    return true;
}

bool Sim_core::ImagerPowerUp()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("ImagerPowerUp");
    is_standby = false;
    model->set_standby(false);
    trace.line("ImagerPowerUp() = 1");
    state_changed();
    return true;
}

bool Sim_core::ImagerPowerDown()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("ImagerPowerDown");
    is_standby = true;
    model->set_standby(true);
    trace.line("ImagerPowerDown() = 1");
    state_changed();
    return true;
}

bool Sim_core::AimOn()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("AimOn");
    aim_on = true;
    trace.line("AimOn() = 1");
    return true;
}

bool Sim_core::AimOff()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("AimOff");
    aim_on = false;
    trace.line("AimOff() = 1");
    return true;
}

bool Sim_core::IllumConfig(unsigned int config)
{
    std::lock_guard<std::mutex> hold(mutex);
    note("IllumConfig");
    illum_cfg = config;
    trace.line("IllumConfig(%u) = 1", config);
    return true;
}

bool Sim_core::IllumOn()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("IllumOn");
    illum_on = true;
    trace.line("IllumOn() = 1");
    return true;
}

bool Sim_core::IllumOff()
{
    std::lock_guard<std::mutex> hold(mutex);
    note("IllumOff");
    illum_on = false;
    trace.line("IllumOff() = 1");
    return true;
}

// ---------------------------------------------------------------------------
// Sensor registers
// ---------------------------------------------------------------------------

// State may change through the operation (exposure, lights), so frames are
// re-checked afterwards.
unsigned Sim_core::engine_operation(const char* name, const std::function<unsigned(Sensor_model&)>& op)
{
    std::lock_guard<std::mutex> hold(mutex);
    note(name);
    const unsigned result = is_supplied ? op(*model) : 0;
    trace.line("%s() = %u", name, result);
    state_changed();
    return result;
}

// Firmware actions due by now are carried out first, so that the write
// meets the sensor's present state. During a stall restart a write to the
// streaming control is what clears the stall (clear_restarted_stall).
bool Sim_core::WriteReg(unsigned int address, uint16_t* values, uint64_t length)
{
    std::lock_guard<std::mutex> hold(mutex);
    note("WriteReg");
    bool injected = write_gate.next();
    if (is_supplied)
        model->run_until(Clock::now());
    count.standby_accesses += is_supplied && is_standby;
    bool ok = !injected && is_supplied && values != nullptr && model->write(address, values, length);
    if (!ok)
        ++count.register_write_failures;
    if (ok && is_stalled && stall_recovering && model->is_stream_control(address, length))
        stream_restarted = true;
    clear_restarted_stall();
    trace.line("WriteReg(0x%04X, %s, %llu) = %d%s", address, hex_words(values, length).c_str(),
               static_cast<unsigned long long>(length), ok, injected ? " (injected failure)" : "");
    state_changed();
    return ok;
}

// Firmware actions due by now are carried out first, so that the read sees
// their results.
bool Sim_core::ReadReg(unsigned int address, uint16_t* values, uint64_t length)
{
    std::lock_guard<std::mutex> hold(mutex);
    note("ReadReg");
    bool injected = read_gate.next();
    count.standby_accesses += is_supplied && is_standby;
    if (is_supplied) {
        model->run_until(Clock::now());
        clear_restarted_stall();
        state_changed();
    }
    bool ok = !injected && is_supplied && values != nullptr && model->read(address, values, length);
    if (!ok)
        ++count.register_read_failures;
    trace.line("ReadReg(0x%04X, %llu) = %d %s%s", address, static_cast<unsigned long long>(length), ok,
               ok ? hex_words(values, length).c_str() : "", injected ? " (injected failure)" : "");
    return ok;
}

}  // namespace vqxsim
