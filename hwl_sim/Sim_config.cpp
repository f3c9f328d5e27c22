// Sim_config.cpp: reading the simulator's configuration from text: fault
// triggers, the fault list and the VQXSIM_* environment variables.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "Simulator.h"

namespace vqxsim {
namespace {

bool parse_unsigned(const std::string& text, uint64_t& out)
{
    if (text.empty() || text[0] == '-' || text[0] == '+')
        return false;
    char* end = nullptr;
    errno = 0;
    unsigned long long v = std::strtoull(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0')
        return false;
    out = v;
    return true;
}

bool parse_double(const std::string& text, double& out)
{
    if (text.empty())
        return false;
    char* end = nullptr;
    errno = 0;
    double v = std::strtod(text.c_str(), &end);
    if (errno != 0 || *end != '\0' || !(v == v))
        return false;
    out = v;
    return true;
}

template <class T>
bool parse_ranged(const std::string& text, T& out, uint64_t low, uint64_t high)
{
    uint64_t v = 0;
    if (!parse_unsigned(text, v) || v < low || v > high)
        return false;
    out = static_cast<T>(v);
    return true;
}

bool parse_ranged_double(const std::string& text, double& out, double low, double high)
{
    double v = 0.0;
    if (!parse_double(text, v) || v < low || v > high)
        return false;
    out = v;
    return true;
}

std::vector<std::string> split(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find(separator, start);
        if (end == std::string::npos)
            end = text.size();
        parts.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

bool equals_nocase(const std::string& a, const char* b)
{
    return strcasecmp(a.c_str(), b) == 0;
}

bool bad(std::string* error, const std::string& what)
{
    if (error)
        *error = what;
    return false;
}

// A whole number from -4 to 4, with or without a leading minus.
bool parse_offset(const std::string& text, int& out)
{
    const bool negative = !text.empty() && text[0] == '-';
    unsigned magnitude = 0;
    if (!parse_ranged(negative ? text.substr(1) : text, magnitude, 0, 4))
        return false;
    out = negative ? -int(magnitude) : int(magnitude);
    return true;
}

// One environment variable: its name and how it is read into a Config.
struct Variable {
    const char* name;
    const char* expected;
    bool (*apply)(const std::string& value, Config& c, std::string* detail);
};

bool apply_scene(const std::string& v, Config& c, std::string*)
{
    if (equals_nocase(v, "barcode")) {
        c.scene = Scene_kind::barcode;
    } else if (equals_nocase(v, "ramp")) {
        c.scene = Scene_kind::ramp;
    } else if (equals_nocase(v, "flat")) {
        c.scene = Scene_kind::flat;
    } else if (v.size() > 5 && equals_nocase(v.substr(0, 5), "flat:")) {
        c.scene = Scene_kind::flat;
        return parse_ranged(v.substr(5), c.flat_level, 0, 255);
    } else {
        c.scene = Scene_kind::image_file;
        c.image_file = v;
    }
    return !v.empty();
}

bool apply_format(const std::string& v, Config& c, std::string*)
{
    if (equals_nocase(v, "Code128"))
        c.format = Barcode_format::code128;
    else if (equals_nocase(v, "QRCode"))
        c.format = Barcode_format::qr_code;
    else
        return false;
    return true;
}

bool apply_render(const std::string& v, Config& c, std::string*)
{
    if (equals_nocase(v, "full"))
        c.render = Render_mode::full;
    else if (equals_nocase(v, "fast"))
        c.render = Render_mode::fast;
    else if (equals_nocase(v, "none"))
        c.render = Render_mode::none;
    else
        return false;
    return true;
}

bool apply_revision(const std::string& v, Config& c, std::string*)
{
    std::vector<std::string> parts = split(v, ',');
    if (parts.size() > 2 || !parse_ranged(parts[0], c.revision_low, 0, 255))
        return false;
    return parts.size() == 1 || parse_ranged(parts[1], c.revision_high, 0, 255);
}

bool apply_aimer_offset(const std::string& v, Config& c, std::string*)
{
    std::vector<std::string> parts = split(v, ',');
    if (parts.size() != 4)
        return false;
    for (int i = 0; i < 4; ++i)
        if (!parse_ranged(parts[i], c.aimer_offset[i], 0, 255))
            return false;
    return true;
}

const Variable kVariables[] = {
    {"VQXSIM_ENGINE", "an engine type", [](const std::string& v, Config& c, std::string*) {
         c.engine = v;
         return !v.empty();
     }},
    {"VQXSIM_FPS", "a number from 1 to 1000",
     [](const std::string& v, Config& c, std::string*) { return parse_ranged_double(v, c.fps, 1.0, 1000.0); }},
    {"VQXSIM_BUFFERS", "a number from 1 to 64",
     [](const std::string& v, Config& c, std::string*) { return parse_ranged(v, c.buffers, 1, 64); }},
    {"VQXSIM_LATENCY_OFFSET", "a whole number from -4 to 4",
     [](const std::string& v, Config& c, std::string*) { return parse_offset(v, c.latency_offset); }},
    {"VQXSIM_SCENE", "barcode, flat, flat:N (N from 0 to 255), ramp or a PGM/PNG file", apply_scene},
    {"VQXSIM_TEXT", "barcode text", [](const std::string& v, Config& c, std::string*) {
         c.text = v;
         return !v.empty();
     }},
    {"VQXSIM_FORMAT", "Code128 or QRCode", apply_format},
    {"VQXSIM_AMBIENT", "a number from 0 to 1000",
     [](const std::string& v, Config& c, std::string*) { return parse_ranged_double(v, c.ambient, 0.0, 1000.0); }},
    {"VQXSIM_ILLUMINATION", "a number from 0 to 1000",
     [](const std::string& v, Config& c, std::string*) {
         return parse_ranged_double(v, c.illumination, 0.0, 1000.0);
     }},
    {"VQXSIM_SCENE_SCALE", "a number greater than 0, at most 100",
     [](const std::string& v, Config& c, std::string*) {
         return parse_ranged_double(v, c.scene_scale, 0.0, 100.0) && c.scene_scale > 0.0;
     }},
    {"VQXSIM_RENDER", "full, fast or none", apply_render},
    {"VQXSIM_FAULTS", "a fault list", [](const std::string& v, Config& c, std::string* detail) {
         return c.faults.parse(v, detail);
     }},
    {"VQXSIM_SEED", "an unsigned number",
     [](const std::string& v, Config& c, std::string*) { return parse_unsigned(v, c.seed); }},
    {"VQXSIM_TRACE", "a file path", [](const std::string& v, Config& c, std::string*) {
         c.trace_file = v;
         return true;
     }},
    {"VQXSIM_VARIANT", "a number from 0 to 65535",
     [](const std::string& v, Config& c, std::string*) { return parse_ranged(v, c.variant, 0, 65535); }},
    {"VQXSIM_ORIENTATION", "0 or 180", [](const std::string& v, Config& c, std::string*) {
         return (v == "0" || v == "180") && parse_ranged(v, c.orientation, 0, 180);
     }},
    {"VQXSIM_CAPTURE_MODE", "a number from 0 to 7",
     [](const std::string& v, Config& c, std::string*) { return parse_ranged(v, c.capture_mode, 0, 7); }},
    {"VQXSIM_IMAGER_LINK", "an unsigned number (0 parallel, 1 one serial lane)",
     [](const std::string& v, Config& c, std::string*) { return parse_ranged(v, c.imager_link, 0, 0xFFFFFFFFu); }},
    {"VQXSIM_REGISTER_TABLE", "an unsigned number (42: the short table)",
     [](const std::string& v, Config& c, std::string*) { return parse_ranged(v, c.register_table, 0, 0xFFFFFFFFu); }},
    {"VQXSIM_COMMAND_MS", "a number from 0 to 1000",
     [](const std::string& v, Config& c, std::string*) { return parse_ranged(v, c.command_ms, 0, 1000); }},
    {"VQXSIM_BOOT_MS", "a number from 0 to 1000",
     [](const std::string& v, Config& c, std::string*) { return parse_ranged(v, c.boot_ms, 0, 1000); }},
    {"VQXSIM_PSOC", "0 or 1", [](const std::string& v, Config& c, std::string*) {
         c.psoc_fitted = v == "1";
         return v == "0" || v == "1";
     }},
    {"VQXSIM_ENGINE_ID", "a 32-bit number",
     [](const std::string& v, Config& c, std::string*) { return parse_ranged(v, c.engine_id, 0, 0xFFFFFFFFu); }},
    {"VQXSIM_SERIAL", "at most 10 characters", [](const std::string& v, Config& c, std::string*) {
         c.serial = v;
         return v.size() <= 10;
     }},
    {"VQXSIM_REVISION", "LOW or LOW,HIGH (0 to 255 each)", apply_revision},
    {"VQXSIM_AIMER_OFFSET", "four bytes a,b,c,d", apply_aimer_offset},
};

// Fault list entries.
struct Fault_key {
    const char* name;
    Trigger Faults::*trigger;
};

const Fault_key kTriggers[] = {
    {"drop", &Faults::drop},
    {"zero_handle", &Faults::zero_handle},
    {"duplicate", &Faults::duplicate},
    {"unknown_handle", &Faults::unknown_handle},
    {"storm", &Faults::storm},
    {"regfail_read", &Faults::regfail_read},
    {"regfail_write", &Faults::regfail_write},
    {"psocfail", &Faults::psocfail},
    {"command_hang", &Faults::command_hang},
    {"command_error", &Faults::command_error},
};

const char kTriggerForms[] =
    "N (the Nth event), N+ (the Nth and later), *N (every Nth), with N from 1; a probability from 0.0 "
    "to 1.0; or always (the same as no value)";

const char* const kFlags[] = {"never_confirm_stop", "hold_frames", "start_fail"};
bool Faults::* const kFlagFields[] = {&Faults::never_confirm_stop, &Faults::hold_frames, &Faults::start_fail};

// Parses one fault; on failure @p expected says what its value may be (empty:
// the name is unknown).
bool parse_fault(const std::string& key, const std::string& value, bool has_value, Faults& f,
                 std::string& expected)
{
    for (const Fault_key& k : kTriggers)
        if (key == k.name) {
            expected = kTriggerForms;
            return (f.*k.trigger).parse(has_value ? value : "always");
        }
    if (key == "stall_after") {
        expected = "a number of delivered frames from 1";
        return has_value && parse_unsigned(value, f.stall_after) && f.stall_after > 0;
    }
    if (key == "defer_stop" || key == "first_frame_delay") {
        expected = "milliseconds from 0 to 60000";
        return has_value && (key == "defer_stop" ? parse_ranged(value, f.defer_stop_ms, 0, 60000)
                                                 : parse_ranged(value, f.first_frame_delay_ms, 0, 60000));
    }
    for (size_t i = 0; i < sizeof kFlags / sizeof kFlags[0]; ++i)
        if (key == kFlags[i]) {
            expected = "no value";
            f.*kFlagFields[i] = true;
            return !has_value;
        }
    expected.clear();
    return false;
}

std::string fault_names()
{
    std::string names;
    for (const Fault_key& k : kTriggers)
        names += std::string(k.name) + "=T, ";
    names += "stall_after=N, defer_stop=MS, first_frame_delay=MS";
    for (const char* flag : kFlags)
        names += std::string(", ") + flag;
    return names;
}

}  // namespace

bool Trigger::parse(const std::string& text)
{
    Trigger t;
    uint64_t n = 0;
    if (text == "always" || text.empty()) {
        t = all();
    } else if (text.find('.') != std::string::npos) {
        double p = 0.0;
        if (!parse_double(text, p) || p < 0.0 || p > 1.0)
            return false;
        t = with_probability(p);
    } else if (text[0] == '*') {
        if (!parse_unsigned(text.substr(1), n) || n == 0)
            return false;
        t = every(n);
    } else if (text.back() == '+') {
        if (!parse_unsigned(text.substr(0, text.size() - 1), n) || n == 0)
            return false;
        t = from(n);
    } else {
        if (!parse_unsigned(text, n) || n == 0)
            return false;
        t = at(n);
    }
    *this = t;
    return true;
}

bool Faults::parse(const std::string& text, std::string* error)
{
    Faults parsed = *this;
    for (const std::string& item : split(text, ',')) {
        if (item.empty())
            continue;
        size_t eq = item.find('=');
        std::string key = item.substr(0, eq);
        std::string value = eq == std::string::npos ? std::string() : item.substr(eq + 1);
        std::string expected;
        if (!parse_fault(key, value, eq != std::string::npos, parsed, expected))
            return bad(error, "bad fault \"" + item + "\": " +
                                  (expected.empty() ? "the faults are " + fault_names()
                                                    : key + " takes " + expected));
    }
    *this = parsed;
    return true;
}

bool Config::from_environment(Config& out, std::string* error)
{
    Config c = out;
    for (const Variable& v : kVariables) {
        const char* value = std::getenv(v.name);
        if (!value)
            continue;
        std::string detail;
        if (!v.apply(value, c, &detail))
            return bad(error, std::string(v.name) + "=\"" + value + "\": expected " + v.expected +
                                  (detail.empty() ? "" : " (" + detail + ")"));
    }
    out = c;
    return true;
}

}  // namespace vqxsim
