// Sensor_model.cpp: the register file transfers and the engine model table.
#include "Sensor_model.h"

namespace vqxsim {

void Register_file::store(unsigned address, const uint16_t* values, uint64_t length)
{
    if (length == 1) {
        set_byte(address, static_cast<uint8_t>(values[0]));
        return;
    }
    for (uint64_t i = 0; i < length / 2; ++i)
        set_word(address + static_cast<unsigned>(2 * i), values[i]);
}

void Register_file::load(unsigned address, uint16_t* values, uint64_t length) const
{
    if (length == 1) {
        values[0] = byte(address);
        return;
    }
    for (uint64_t i = 0; i < length / 2; ++i)
        values[i] = word(address + static_cast<unsigned>(2 * i));
}

namespace {

struct Model_entry {
    const char* engine;
    std::unique_ptr<Sensor_model> (*make)(const Config&);
};

// Engine types with a model. Other engine types are refused until their
// models are written.
const Model_entry kModels[] = {
    {"X7710", make_model_AR0144},
    {"X5501", make_model_MT9M114},
    {"X5503", make_model_MT9M114},
    {"MT9V022", make_model_MT9V022},
    {"RILO", make_model_Hi704A},
    {"KELP", make_model_Kelp},
    {"APTINA", make_model_Aptina},
};

}  // namespace

std::unique_ptr<Sensor_model> make_sensor_model(const Config& config, std::string* error)
{
    const std::string& engine = config.engine;
    std::string known;
    for (const Model_entry& entry : kModels) {
        if (engine == entry.engine)
            return entry.make(config);
        known += known.empty() ? entry.engine : std::string(", ") + entry.engine;
    }
    if (error)
        *error = "engine type \"" + engine + "\" is not simulated (simulated engine types: " + known + ")";
    return nullptr;
}

}  // namespace vqxsim
