// vqxscan: scans one barcode through the library's C interface.
//
// Opens a session (on whatever hardware layer libLmoKil.so provides: the
// simulator unless a real one is installed), sets the lights, starts
// scanning, pulls frames with VQXSI_GetNewScan and decodes each with
// zxing-cpp until a barcode is read, a frame limit is reached or the time-out
// passes. Every frame is given back; scanning is stopped and the session
// closed on every path. Per frame it prints the brightness computed from the
// pixels and the exposure and gain the driver reports for the frame (its
// image attributes, in engine units), on any hardware layer.
//
// Options that configure the simulator are handed to it through its VQXSIM_*
// environment variables, set before the first open and checked first with
// the simulator's own parser (a bad value is a bad command line). --set
// applies exposure tags, named as in the driver's tag table, through
// VQXSI_SetExposureSettings before scanning starts.
//
// Frames are numbered by the driver (the frame number of their image
// attributes) on the console, in the JSON summary, in saved file names and
// in the exposure log alike.
//
// --exposure-log FILE writes, for tuning engineers, a first line "# " with
// key=value words (engine, capture_mode, scene, scene_scale: the simulated
// engine's, "unknown" elsewhere; exposure_mode; target, gap, percentile:
// the driver's), then one CSV row per frame:
//   frame        the driver's frame number (image attributes)
//   time_ms      when the client received it, from the start of scanning
//   white_value  the white value the driver measured (image attributes)
//   p97          the 97th percentile of the frame's pixels
//   exposure, gain            as the driver reports them (engine units:
//                             rows and 1/256 for the AR0144)
//   sensor_rows, sensor_gain  as the simulated sensor really used them
//                             (empty on real hardware)
//   sensor_frame the simulated sensor's frame number (a gap larger than the
//                driver's is frames the sensor made that the driver never
//                saw: no buffer armed, or dropped by the transfer)
//   kept         1 for a frame the client received; 0 for a frame number the
//                driver used but the client never saw (held back for
//                missing the exposure target, or replaced by a newer frame
//                before the client asked); such rows carry the number only.
//   sensor_us    the simulated sensor's exposure in microseconds (empty on
//                real hardware)
#include <VQXScanInterface.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <strings.h>
#include <sys/stat.h>
#include <vector>

#include "vqxscan_attributes.h"
#include "vqxscan_decode.h"
#include "vqxscan_image.h"
#include "vqxscan_json.h"
#include "vqxscan_settings.h"
#include "vqxscan_sim.h"

namespace {

using Clock = std::chrono::steady_clock;

// Exit codes (also listed by --help).
enum Exit_code {
    EXIT_DECODED = 0,
    EXIT_NOT_DECODED = 1,
    EXIT_USAGE = 2,
    EXIT_NO_ENGINE = 3,
    EXIT_START_FAILED = 4,
    EXIT_SAVE_FAILED = 5,
    EXIT_STALLED = 6,
    EXIT_CAPTURE_MODE = 7,
};

// A VQXSI_GetNewScan that answers NULL faster than this did not wait for a
// frame: the stream never started (the driver answers at once), whereas a
// stall is declared only after the engine's resume time (150 ms or more).
constexpr double kAtOnceMs = 100.0;

const char usage_text[] =
    "Usage: vqxscan [options]\n"
    "Scans one barcode with the scan engine and prints what was read.\n"
    "\n"
    "Options:\n"
    "  --frames N          stop after N frames (default 0: no limit)\n"
    "  --timeout MS        stop when no barcode was read after MS ms (default 5000;\n"
    "                      0: no time limit, allowed only with --frames N)\n"
    "  --lights MODE       lights while scanning: off, aimer, illumination, both,\n"
    "                      or a lights mode number 0-8 (default: the session's, 5)\n"
    "  --exposure-mode N   0/1 fixed, 2 histogram, 3 context-sensitive (default 2)\n"
    "  --set NAME=VALUE    set the exposure tag NAME (ES_TARGET_VALUE, ES_FIXED_EXP_US,\n"
    "                      ES_MAX_GAIN_256, ...; see VQXScanInterface.h) before\n"
    "                      scanning; repeatable, applied in order\n"
    "  --sleep-timeout MS  the engine's sleep time-out (default: left as it is)\n"
    "  --save DIR          save every frame as DIR/frame_NNNN.png\n"
    "  --exposure-log FILE write one CSV row per frame: driver and sensor\n"
    "                      exposure and gain, white value, 97th percentile\n"
    "  --continue          keep scanning after a barcode is read, until --frames\n"
    "                      or --timeout (for exposure logs)\n"
    "  --json              print a JSON summary instead of text\n"
    "  --help              print this text\n"
    "\n"
    "Simulated engine (set before the session opens; ignored by real hardware):\n"
    "  --engine TYPE       engine type the simulator reports (default X7710)\n"
    "  --text TEXT         contents of the simulated barcode (not empty; code128:\n"
    "                      ASCII characters 32 to 126 only)\n"
    "  --format FORMAT     code128 or qrcode\n"
    "  --scene SCENE       barcode, flat, flat:N (reflectance N/255, N 0-255), ramp,\n"
    "                      or a PGM or PNG image in front of the engine\n"
    "  --scene-scale X     scene reflectance factor, more than 0 and at most 100\n"
    "                      (e.g. 0.0625 for a scene 16 times darker)\n"
    "  --capture-mode N    the engine's capture mode, 0-7 (default 3)\n"
    "  --fault NAME[=ARG]  a simulator fault (VQXSIM_FAULTS), e.g. stall_after=20,\n"
    "                      drop=5, start_fail; repeatable, added to VQXSIM_FAULTS\n"
    "\n"
    "Exit codes:\n"
    "  0  a barcode was read\n"
    "  1  no barcode was read before the time-out or the frame limit\n"
    "  2  bad command line or bad VQXSIM_* setting\n"
    "  3  no session could be opened (no hardware layer or an unsupported\n"
    "     engine; the debug log says which)\n"
    "  4  scanning did not start (the driver refused to start or answered at\n"
    "     once without a frame)\n"
    "  5  a frame or the exposure log could not be saved\n"
    "  6  the engine stopped delivering frames (a stall) before a barcode was read\n"
    "  7  the simulated engine's capture mode cannot capture (capture mode 1)\n"
    "A barcode read is exit 0 even when the stream stalls later (--continue).\n";

struct Options {
    unsigned frames = 0;
    unsigned timeout_ms = 5000;
    bool set_lights = false;
    uint32_t lights_mode = 0;
    bool set_exposure_mode = false;
    uint32_t exposure_mode = 2;
    bool set_sleep_timeout = false;
    uint32_t sleep_timeout_ms = 0;
    std::string save_dir;
    std::string exposure_log;
    bool keep_going = false;
    bool json = false;
    std::vector<vqxscan::Tag_value> tags;
    std::string engine, text, format, scene, scene_scale, capture_mode, faults;
};

struct Frame_report {
    unsigned number = 0;
    bool has_attributes = false;
    VQX_IMAGE_ATTRIBUTES attributes{};  ///< the driver's, through the session
    double time_ms = 0.0;
    vqxscan::Brightness brightness;
    bool has_sim_info = false;
    vqxscan::Sim_frame_info sim;  ///< the simulated sensor's truth (log only)
};

struct Report {
    unsigned width = 0, height = 0;
    std::vector<Frame_report> frames;
    vqxscan::Decoded decoded;
    double decode_ms = 0.0;
    double total_ms = 0.0;
    std::string error;
    std::string log_header;  ///< the exposure log's first line, after "# "
};

bool parse_unsigned(const char* text, uint32_t& out)
{
    if (!text || *text < '0' || *text > '9')
        return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = std::strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0' || v > 0xFFFFFFFFull || text[0] == '-')
        return false;
    out = static_cast<uint32_t>(v);
    return true;
}

bool parse_lights(const std::string& text, uint32_t& mode)
{
    struct Name { const char* name; uint32_t mode; };
    static const Name names[] = {{"off", VQX_LIGHTS_OFF}, {"aimer", VQX_LIGHTS_AIMER},
                                 {"illumination", VQX_LIGHTS_ILLUMINATION},
                                 {"both", VQX_LIGHTS_AIMER_ILLUMINATION}};
    for (const Name& n : names)
        if (text == n.name) {
            mode = n.mode;
            return true;
        }
    return parse_unsigned(text.c_str(), mode) && mode <= 8;
}

// Returns -1 when the options are usable, else the exit code.
int parse_options(int argc, char** argv, Options& o)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](const char*& out) {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "vqxscan: %s needs a value\n", arg.c_str());
                return false;
            }
            out = argv[++i];
            return true;
        };
        auto number = [&](uint32_t& out, uint32_t high = 0xFFFFFFFFu) {
            const char* v = nullptr;
            if (!value(v))
                return false;
            if (!parse_unsigned(v, out) || out > high) {
                std::fprintf(stderr, "vqxscan: %s: '%s' is not a whole number from 0 to %u\n", arg.c_str(),
                             v, high);
                return false;
            }
            return true;
        };
        const char* v = nullptr;
        uint32_t n = 0;
        if (arg == "--help" || arg == "-h") {
            std::fputs(usage_text, stdout);
            std::exit(EXIT_DECODED);
        } else if (arg == "--json") {
            o.json = true;
        } else if (arg == "--frames") {
            if (!number(n))
                return EXIT_USAGE;
            o.frames = n;
        } else if (arg == "--timeout") {
            if (!number(n))
                return EXIT_USAGE;
            o.timeout_ms = n;
        } else if (arg == "--exposure-mode") {
            if (!number(o.exposure_mode, 3))
                return EXIT_USAGE;
            o.set_exposure_mode = true;
        } else if (arg == "--sleep-timeout") {
            if (!number(o.sleep_timeout_ms))
                return EXIT_USAGE;
            o.set_sleep_timeout = true;
        } else if (arg == "--lights") {
            if (!value(v))
                return EXIT_USAGE;
            if (!parse_lights(v, o.lights_mode)) {
                std::fprintf(stderr, "vqxscan: --lights: '%s' is not off, aimer, illumination, both or 0-8\n", v);
                return EXIT_USAGE;
            }
            o.set_lights = true;
        } else if (arg == "--save" || arg == "--exposure-log") {
            if (!value(v))
                return EXIT_USAGE;
            (arg == "--save" ? o.save_dir : o.exposure_log) = v;
        } else if (arg == "--set") {
            if (!value(v))
                return EXIT_USAGE;
            vqxscan::Tag_value t;
            std::string error;
            if (!vqxscan::parse_tag_value(v, t, error)) {
                std::fprintf(stderr, "vqxscan: --set %s: %s\n", v, error.c_str());
                return EXIT_USAGE;
            }
            o.tags.push_back(t);
        } else if (arg == "--fault") {
            if (!value(v))
                return EXIT_USAGE;
            std::string error;
            if (!vqxscan::check_fault(v, error)) {
                std::fprintf(stderr, "vqxscan: --fault %s: %s\n", v, error.c_str());
                return EXIT_USAGE;
            }
            o.faults += (o.faults.empty() ? "" : ",") + std::string(v);
        } else if (arg == "--continue") {
            o.keep_going = true;
        } else if (arg == "--engine" || arg == "--text" || arg == "--format" || arg == "--scene" ||
                   arg == "--scene-scale" || arg == "--capture-mode") {
            if (!value(v))
                return EXIT_USAGE;
            std::string& field = arg == "--engine" ? o.engine
                                 : arg == "--text"  ? o.text
                                 : arg == "--format" ? o.format
                                 : arg == "--scene" ? o.scene
                                 : arg == "--scene-scale" ? o.scene_scale
                                                          : o.capture_mode;
            if (!*v) {
                std::fprintf(stderr, "vqxscan: %s needs a value that is not empty\n", arg.c_str());
                return EXIT_USAGE;
            }
            field = v;
        } else {
            std::fprintf(stderr, "vqxscan: unknown option '%s' (see --help)\n", arg.c_str());
            return EXIT_USAGE;
        }
    }
    if (!o.format.empty() && o.format != "code128" && o.format != "qrcode") {
        std::fprintf(stderr, "vqxscan: --format: '%s' is not code128 or qrcode\n", o.format.c_str());
        return EXIT_USAGE;
    }
    const char* env_format = std::getenv(vqxscan::Sim_environment().format);
    const bool qr_code = o.format == "qrcode" ||
                         (o.format.empty() && env_format && strcasecmp(env_format, "qrcode") == 0);
    if (!qr_code)
        for (const unsigned char c : o.text)
            if (c < 32 || c > 126) {
                std::fprintf(stderr,
                             "vqxscan: --text: code128 takes ASCII characters 32 to 126 only; use --format "
                             "qrcode for other text\n");
                return EXIT_USAGE;
            }
    if (o.timeout_ms == 0 && o.frames == 0) {
        std::fprintf(stderr, "vqxscan: --timeout 0 (no time limit) needs --frames N\n");
        return EXIT_USAGE;
    }
    return -1;
}

bool prepare_save_dir(const std::string& dir)
{
    if (mkdir(dir.c_str(), 0777) == 0 || errno == EEXIST) {
        struct stat st;
        if (stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
            return true;
        errno = ENOTDIR;
    }
    std::fprintf(stderr, "vqxscan: --save %s: %s\n", dir.c_str(), std::strerror(errno));
    return false;
}

double ms_since(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Writes the exposure log (see the file comment); false with a message.
bool write_exposure_log(const std::string& path, const Report& r)
{
    FILE* out = std::fopen(path.c_str(), "w");
    if (!out) {
        std::fprintf(stderr, "vqxscan: --exposure-log %s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    std::fprintf(out, "# %s\n", r.log_header.c_str());
    std::fprintf(out, "frame,time_ms,white_value,p97,exposure,gain,sensor_rows,sensor_gain,sensor_frame,kept,"
                      "sensor_us\n");
    uint32_t last = 0;
    for (const Frame_report& f : r.frames) {
        const VQX_IMAGE_ATTRIBUTES& a = f.attributes;
        for (uint32_t n = last + 1; last != 0 && n < a.frame_number; ++n)
            std::fprintf(out, "%u,,,,,,,,,0,\n", n);
        last = a.frame_number;
        std::fprintf(out, "%u,%.2f,%u,%u,%u,%u,", a.frame_number, f.time_ms, a.white_value, f.brightness.p97,
                     a.exposure, a.gain);
        if (f.has_sim_info)
            std::fprintf(out, "%u,%.4f,%llu,1,%.1f\n", f.sim.rows, f.sim.gain,
                         static_cast<unsigned long long>(f.sim.sensor_frame), f.sim.exposure_us);
        else
            std::fprintf(out, ",,,1,\n");
    }
    const bool ok = std::fclose(out) == 0;
    if (!ok)
        std::fprintf(stderr, "vqxscan: --exposure-log %s: %s\n", path.c_str(), std::strerror(errno));
    return ok;
}

void print_text(const Report& r)
{
    for (const Frame_report& f : r.frames) {
        std::printf("frame %u at %.1f ms: mean %.1f, p97 %u", f.number, f.time_ms, f.brightness.mean,
                    f.brightness.p97);
        if (f.has_attributes)
            std::printf(", exposure %u, gain %u", f.attributes.exposure, f.attributes.gain);
        std::printf("\n");
    }
    if (r.decoded.found)
        std::printf("decoded %s: %s\n", r.decoded.format.c_str(), r.decoded.text.c_str());
    else
        std::printf("no barcode read\n");
    std::printf("frames: %zu (%ux%u)\n", r.frames.size(), r.width, r.height);
    if (r.decoded.found)
        std::printf("time to decode: %.1f ms\n", r.decode_ms);
    std::printf("total time: %.1f ms\n", r.total_ms);
}

void print_json(const Report& r)
{
    vqxscan::Json_writer j;
    j.begin_object();
    j.key("decoded").value(r.decoded.found);
    if (r.decoded.found) {
        j.key("text").value(r.decoded.text);
        j.key("format").value(r.decoded.format);
        j.key("time_to_decode_ms").value(r.decode_ms);
    }
    j.key("frame_count").value(static_cast<double>(r.frames.size()));
    j.key("width").value(static_cast<double>(r.width));
    j.key("height").value(static_cast<double>(r.height));
    j.key("total_ms").value(r.total_ms);
    if (!r.error.empty())
        j.key("error").value(r.error);
    j.key("frames").begin_array();
    for (const Frame_report& f : r.frames) {
        j.begin_object();
        j.key("frame").value(static_cast<double>(f.number));
        j.key("time_ms").value(f.time_ms);
        j.key("mean").value(f.brightness.mean);
        j.key("p97").value(static_cast<double>(f.brightness.p97));
        if (f.has_attributes) {
            j.key("exposure").value(static_cast<double>(f.attributes.exposure));
            j.key("gain").value(static_cast<double>(f.attributes.gain));
        }
        j.end_object();
    }
    j.end_array();
    j.end_object();
    std::printf("%s\n", j.str().c_str());
}

// Pulls frames until a barcode is read, the limit or the time-out; returns
// the exit code. Every frame pulled is given back.
// The exit code and message for a NULL from VQXSI_GetNewScan that took
// @p wait_ms, after @p frames frames; @p sim_capture_mode is the simulated
// engine's capture mode, or -1 on another hardware layer.
int no_frame(size_t frames, double wait_ms, long sim_capture_mode, std::string& error)
{
    if (frames == 0 && sim_capture_mode == 1) {
        error = "the simulated engine's capture mode 1 cannot capture (choose 0, 2-7 with --capture-mode)";
        return EXIT_CAPTURE_MODE;
    }
    if (frames == 0 && wait_ms < kAtOnceMs) {
        error = "scanning did not start: the driver answered at once without a frame (the hardware "
                "layer's start failed, or the engine's capture mode cannot capture; see the debug log)";
        return EXIT_START_FAILED;
    }
    char text[128];
    std::snprintf(text, sizeof text, "the engine stopped delivering frames after %zu frames (a stall)", frames);
    error = text;
    return EXIT_STALLED;
}

int scan(VQXSI_HANDLE h, const Options& o, long sim_capture_mode, Report& r)
{
    const Clock::time_point start = Clock::now();
    if (!VQXSI_StartScanning(h)) {
        r.error = "scanning did not start: the driver refused to start it";
        return EXIT_START_FAILED;
    }
    vqxscan::Sim_frame_source sim;
    int code = EXIT_NOT_DECODED;
    double last_progress = 0.0;
    for (;;) {
        const Clock::time_point asked = Clock::now();
        void* frame = VQXSI_GetNewScan(h);
        if (!frame) {
            const int failed = no_frame(r.frames.size(), ms_since(asked), sim_capture_mode, r.error);
            if (!r.decoded.found)  // a barcode read stays read
                code = failed;
            break;
        }
        const uint8_t* pixels = static_cast<const uint8_t*>(frame);
        Frame_report f;
        f.time_ms = ms_since(start);
        f.brightness = vqxscan::measure_brightness(pixels, r.width, r.height);
        f.has_sim_info = sim.frame_info(pixels, f.sim);
        f.attributes.size = sizeof f.attributes;
        f.has_attributes = vqxscan::frame_attributes(h, frame, f.attributes);
        // The driver's frame number; the count only where the driver gives none.
        f.number = f.has_attributes ? f.attributes.frame_number : static_cast<unsigned>(r.frames.size() + 1);
        bool saved = true;
        if (!o.save_dir.empty()) {
            char name[32];
            std::snprintf(name, sizeof name, "/frame_%04u.png", f.number);
            std::string error;
            saved = vqxscan::save_png(o.save_dir + name, pixels, r.width, r.height, &error);
            if (!saved)
                r.error = error;
        }
        const vqxscan::Decoded d = saved ? vqxscan::decode_frame(pixels, r.width, r.height) : vqxscan::Decoded();
        VQXSI_UnlockBuffer(h, frame);
        r.frames.push_back(f);

        if (!saved) {
            code = EXIT_SAVE_FAILED;
            break;
        }
        if (d.found && !r.decoded.found) {
            r.decoded = d;
            r.decode_ms = ms_since(start);
            code = EXIT_DECODED;
            if (!o.keep_going)
                break;
        }
        const double elapsed = ms_since(start);
        if ((o.frames && r.frames.size() >= o.frames) || (o.timeout_ms && elapsed >= o.timeout_ms))
            break;
        if (!r.decoded.found && elapsed - last_progress >= 1000.0) {
            last_progress = elapsed;
            std::fprintf(stderr, "vqxscan: %zu frames in %.1f s, no barcode yet\n", r.frames.size(),
                         elapsed / 1000.0);
        }
    }
    VQXSI_StopScanning(h);
    r.total_ms = ms_since(start);
    return code;
}

void set_sim_environment(const Options& o)
{
    const vqxscan::Sim_environment env;
    if (!o.engine.empty())
        setenv(env.engine, o.engine.c_str(), 1);
    if (!o.text.empty())
        setenv(env.text, o.text.c_str(), 1);
    if (!o.format.empty())
        setenv(env.format, o.format == "qrcode" ? env.format_qrcode : env.format_code128, 1);
    if (!o.scene.empty())
        setenv(env.scene, o.scene.c_str(), 1);
    if (!o.scene_scale.empty())
        setenv(env.scene_scale, o.scene_scale.c_str(), 1);
    if (!o.capture_mode.empty())
        setenv(env.capture_mode, o.capture_mode.c_str(), 1);
    if (!o.faults.empty()) {
        const char* before = std::getenv(env.faults);
        const std::string list = before && *before ? std::string(before) + "," + o.faults : o.faults;
        setenv(env.faults, list.c_str(), 1);
    }
}

// The exposure log's first line: the engine and scene (on the simulator) and
// the exposure mode and target the driver scanned with, as key=value words.
std::string log_header(VQXSI_HANDLE h, const Options& o, const vqxscan::Sim_settings* sim)
{
    uint32_t pairs[] = {ES_TARGET_VALUE, 0, ES_TARGET_ACCEPT_GAP, 0, ES_TARGET_PERCENTILE, 0};
    VQXSI_GetExposureSettings(h, pairs, sizeof pairs);
    char text[512];
    std::snprintf(text, sizeof text, "engine=%s capture_mode=%s scene=%s scene_scale=%g exposure_mode=%u "
                  "target=%u gap=%u percentile=%u",
                  sim ? sim->engine.c_str() : "unknown",
                  sim ? std::to_string(sim->capture_mode).c_str() : "unknown",
                  sim ? sim->scene.c_str() : "unknown", sim ? sim->scene_scale : 0.0,
                  o.set_exposure_mode ? o.exposure_mode : unsigned(VQX_EXPOSURE_HISTOGRAM), pairs[1], pairs[3],
                  pairs[5]);
    return text;
}

// The option that set a simulator variable, for messages.
const char* option_of(const std::string& message)
{
    const vqxscan::Sim_environment env;
    const std::pair<const char*, const char*> options[] = {
        {env.engine, "--engine"}, {env.text, "--text"}, {env.format, "--format"},
        {env.scene_scale, "--scene-scale"}, {env.scene, "--scene"}, {env.capture_mode, "--capture-mode"},
        {env.faults, "--fault"}};
    for (const auto& p : options)
        if (message.compare(0, std::strlen(p.first) + 1, std::string(p.first) + "=") == 0)
            return p.second;
    return nullptr;
}

} // namespace

int main(int argc, char** argv)
{
    Options o;
    const int bad = parse_options(argc, argv, o);
    if (bad >= 0)
        return bad;
    if (!o.save_dir.empty() && !prepare_save_dir(o.save_dir))
        return EXIT_SAVE_FAILED;
    set_sim_environment(o);
    vqxscan::Sim_settings sim_settings;
    std::string error;
    if (!vqxscan::check_sim_environment(sim_settings, error)) {
        const char* option = option_of(error);
        std::fprintf(stderr, "vqxscan: %s%s%s\n", option ? option : "", option ? ": " : "", error.c_str());
        return EXIT_USAGE;
    }

    VQXSI_HANDLE h = VQXSI_OpenSessionWithScanEngine();
    if (!h) {
        std::fprintf(stderr,
                     "vqxscan: no session with the scan engine could be opened (no hardware layer or an "
                     "unsupported engine type; see the debug log)\n");
        return EXIT_NO_ENGINE;
    }

    Report r;
    VQX_SCANENGINE_PROPERTIES_EX properties;
    VQXSI_GetScanEnginePropertiesEx(h, &properties, sizeof properties);
    r.width = properties.image_width;
    r.height = properties.image_height;

    if (o.set_lights) {
        VQX_SCANNER_LIGHTING lights;
        lights.size = sizeof lights;
        VQXSI_GetLights(h, &lights);
        lights.scanning_mode = o.lights_mode;
        VQXSI_SetLights(h, &lights);
    }
    if (o.set_exposure_mode)
        VQXSI_SetExposureMode(h, o.exposure_mode);
    if (o.set_sleep_timeout)
        VQXSI_SetSleepTimeout(h, o.sleep_timeout_ms);
    std::vector<uint32_t> pairs;
    for (const vqxscan::Tag_value& t : o.tags) {
        if (t.ignored)
            std::fprintf(stderr, "vqxscan: --set %s: the driver accepts this tag and ignores it\n", t.name.c_str());
        pairs.push_back(t.tag);
        pairs.push_back(t.value);
    }
    if (!pairs.empty())
        VQXSI_SetExposureSettings(h, pairs.data(), static_cast<uint32_t>(pairs.size() * sizeof pairs[0]));

    // The simulated engine's capture mode, when the simulator is the layer.
    const bool on_sim = vqxscan::Sim_frame_source().present();
    const long sim_capture_mode = on_sim ? long(sim_settings.capture_mode) : -1;
    r.log_header = log_header(h, o, on_sim ? &sim_settings : nullptr);
    const int code = scan(h, o, sim_capture_mode, r);
    VQXSI_CloseSessionWithScanEngine(h);

    if (!o.exposure_log.empty() && !write_exposure_log(o.exposure_log, r))
        return EXIT_SAVE_FAILED;
    if (o.json)
        print_json(r);
    else
        print_text(r);
    std::fflush(stdout);  // the summary first, then why the scan ended
    if (!r.error.empty())
        std::fprintf(stderr, "vqxscan: %s\n", r.error.c_str());
    return code;
}
