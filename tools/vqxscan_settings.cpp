// vqxscan_settings: see vqxscan_settings.h.
#include "vqxscan_settings.h"

#include <cerrno>
#include <cstdlib>
#include <strings.h>

#include "Exposure_tags.h"
#include "Simulator.h"

namespace vqxscan {

namespace {

// Tags whose values have a meaning only within a range: grey levels and a
// percentile. Every other tag takes any unsigned 32-bit value.
struct Tag_range {
    const char* name;
    uint32_t high;
};
const Tag_range tag_ranges[] = {
    {"ES_TARGET_VALUE", 255},
    {"ES_TARGET_PERCENTILE", 100},
    {"ES_TARGET_ACCEPT_GAP", 255},
    {"ES_SPECULAR_SAT", 255},
};

uint32_t tag_high(const char* name)
{
    for (const Tag_range& r : tag_ranges)
        if (strcasecmp(r.name, name) == 0)
            return r.high;
    return 0xFFFFFFFFu;
}

} // namespace

bool parse_tag_value(const std::string& text, Tag_value& out, std::string& error)
{
    const size_t eq = text.find('=');
    const std::string name = text.substr(0, eq);
    const tag_entry_t* entry = nullptr;
    for (unsigned long i = 0; i < exposure_tag_count; ++i)
        if (strcasecmp(exposure_tag_table[i].name, name.c_str()) == 0)
            entry = &exposure_tag_table[i];
    if (!entry) {
        error = "'" + name + "' is not an exposure tag; the tags are";
        for (unsigned long i = 0; i < exposure_tag_count; ++i)
            error += std::string(i ? ", " : " ") + exposure_tag_table[i].name;
        return false;
    }
    const uint32_t high = tag_high(entry->name);
    const std::string value = eq == std::string::npos ? std::string() : text.substr(eq + 1);
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = std::strtoull(value.c_str(), &end, 10);
    if (value.empty() || value[0] < '0' || value[0] > '9' || *end != '\0' || errno != 0 || v > high) {
        error = std::string(entry->name) + " takes a whole number from 0 to " + std::to_string(high) +
                ", not '" + value + "'";
        return false;
    }
    out.name = entry->name;
    out.tag = entry->tag;
    out.value = static_cast<uint32_t>(v);
    out.ignored = entry->ignored;
    return true;
}

bool check_fault(const std::string& text, std::string& error)
{
    vqxsim::Faults faults;
    if (text.empty() || text[0] == '=') {
        error = "a fault needs a name";
        return false;
    }
    return faults.parse(text, &error);
}

bool check_sim_environment(Sim_settings& out, std::string& error)
{
    vqxsim::Config config;
    config.capture_mode = 3;  // what the simulator reports when its variable is not set
    if (!vqxsim::Config::from_environment(config, &error))
        return false;
    const char* scene = std::getenv("VQXSIM_SCENE");
    out.engine = config.engine;
    out.capture_mode = config.capture_mode;
    out.scene = scene ? scene : "barcode";
    out.scene_scale = config.scene_scale;
    return true;
}

} // namespace vqxscan
