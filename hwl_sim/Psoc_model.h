// Psoc_model.h: the simulated PSoC companion controller.
//
// 80 byte registers reached by I2C transfers that start at an address and
// move any count of bytes within the 80:
//   0x00-0x03 engine id (big-endian)   0x04-0x0D serial number (10 characters)
//   0x1A-0x1D aimer offset             0x32 light control: bit 0 aimer,
//   0x38 revision low, 0x39 high                 bit 1 illumination, bits 2-4 boost
// Address 0x37 is a command register (the engines write 1 there to reset the
// sensor at power-up): writes are accepted and recorded, reads give 0.
// Address 0x82 is the sensor reset line of the MT9V022 engines: a one-byte
// write there is accepted and recorded (sensor_reset() tells Sim_core to
// reset the sensor); it has no register.
// Every write is kept in a history (the latest 1024).
//
// Used by Sim_core under its lock; not thread-safe itself.
#ifndef VQXSIM_PSOC_MODEL_H
#define VQXSIM_PSOC_MODEL_H

#include <cstdint>
#include <deque>
#include <vector>

#include "Simulator.h"

namespace vqxsim {

class Psoc_model {
public:
    static constexpr unsigned size = 80;
    static constexpr unsigned light_control = 0x32;
    static constexpr unsigned command = 0x37;
    static constexpr unsigned sensor_reset_address = 0x82;
    /// True when a write to @p address of @p count bytes resets the sensor.
    static bool sensor_reset(unsigned address, unsigned count)
    { return address == sensor_reset_address && count == 1; }

    explicit Psoc_model(const Config& config);

    /// False for a null pointer with a non-zero count or a range past 80.
    bool write(unsigned address, const uint8_t* data, unsigned count);
    bool read(unsigned address, uint8_t* data, unsigned count) const;

    uint8_t reg(unsigned address) const { return address < size ? regs[address] : 0; }
    void set_reg(unsigned address, uint8_t value) { if (address < size) regs[address] = value; }
    std::vector<Psoc_write> writes() const { return {history.begin(), history.end()}; }

private:
    static bool valid(unsigned address, const void* data, unsigned count);

    uint8_t regs[size] = {};
    std::deque<Psoc_write> history;
};

}  // namespace vqxsim

#endif
