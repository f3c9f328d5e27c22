// vqxscan_settings: the exposure settings and simulator faults vqxscan takes
// on its command line, read with the driver's own tag table and the
// simulator's own fault parser so that the names and forms are theirs.
#ifndef VQXSCAN_SETTINGS_H
#define VQXSCAN_SETTINGS_H

#include <cstdint>
#include <string>
#include <vector>

namespace vqxscan {

/// One --set NAME=VALUE: an exposure tag and its value.
struct Tag_value {
    std::string name;
    uint32_t tag = 0;
    uint32_t value = 0;
    bool ignored = false;  ///< a tag the driver accepts and ignores
};

/// Reads NAME=VALUE, NAME one of the driver's exposure tag names (ES_...;
/// case does not matter). False with a message naming the tags or the
/// allowed range.
bool parse_tag_value(const std::string& text, Tag_value& out, std::string& error);

/// Checks one --fault NAME[=ARG] (or a comma list) with the simulator's
/// parser; false with its message.
bool check_fault(const std::string& text, std::string& error);

/// What the simulated engine will be, as read from the environment.
struct Sim_settings {
    std::string engine;
    uint32_t capture_mode = 0;
    std::string scene;  ///< as given (barcode when not set)
    double scene_scale = 1.0;
};

/// Checks the VQXSIM_* environment as the simulator will read it and fills
/// @p out. False with the simulator's message naming the variable.
bool check_sim_environment(Sim_settings& out, std::string& error);

} // namespace vqxscan

#endif
