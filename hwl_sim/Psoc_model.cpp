// Psoc_model.cpp: register image and transfers of the simulated PSoC.
#include "Psoc_model.h"

#include <algorithm>
#include <cstring>

namespace vqxsim {

Psoc_model::Psoc_model(const Config& config)
{
    for (int i = 0; i < 4; ++i)
        regs[i] = static_cast<uint8_t>(config.engine_id >> (24 - 8 * i));
    std::string serial = config.serial;
    serial.resize(10, ' ');
    std::memcpy(&regs[0x04], serial.data(), 10);
    std::memcpy(&regs[0x1A], config.aimer_offset, 4);
    regs[0x38] = config.revision_low;
    regs[0x39] = config.revision_high;
}

bool Psoc_model::valid(unsigned address, const void* data, unsigned count)
{
    return address < size && count <= size - address && (data != nullptr || count == 0);
}

bool Psoc_model::write(unsigned address, const uint8_t* data, unsigned count)
{
    const bool reset = sensor_reset(address, count) && data != nullptr;
    if (!reset && !valid(address, data, count))
        return false;
    Psoc_write record;
    record.address = static_cast<uint8_t>(address);
    record.bytes.assign(data, data + count);
    for (unsigned i = 0; i < count && !reset; ++i)
        regs[address + i] = address + i == command ? 0 : data[i];
    history.push_back(std::move(record));
    if (history.size() > 1024)
        history.pop_front();
    return true;
}

bool Psoc_model::read(unsigned address, uint8_t* data, unsigned count) const
{
    if (!valid(address, data, count))
        return false;
    std::copy_n(&regs[address], count, data);
    return true;
}

}  // namespace vqxsim
