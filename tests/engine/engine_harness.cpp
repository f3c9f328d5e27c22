// The engine harness: auto exposure and frame truth for every engine type,
// end to end through the C interface on the simulated engine in real time.
//
// Each case is one test in its own process (ctest runs every test of this
// program alone), because the capture mode, the scene and the faults are
// fixed when the driver first starts. A client opens a session, starts
// scanning and pulls frames; for every frame it holds what the driver says
// (the image attributes) against what the simulated sensor really did (its
// frame record) and against the pixels themselves. It reads the attributes
// as any C++ client does, through the installed session declaration
// (VQXScanSession.h), so the truth cases prove that path:
//   - truth: the exposure rows and gain in the attributes are those the
//     sensor used for that frame, with and without dropped and duplicated
//     frame events; with the sensor's latencies one frame longer or shorter
//     (mode 3) the same check must find wrong frames, or it could not fail;
//   - convergence: from 1/16, 1 and 16 times the scene's reflectance, on
//     the barcode and on a flat field, with each sampling method, the
//     frames' 97th percentile settles within target +- gap by frame 30 and
//     stays there (the exact figures: tools/exposure_table.py);
//   - fixed exposure mode programs the fixed exposure and gain; the
//     context-sensitive mode holds a steady exposure.
// Every buffer is back with the hardware layer and the lights are off after
// the session closes.
//
// A new engine adds a row to kEngines (its engine type, the unit of its
// gain attribute and how its sensor rounds gains, the capture modes it
// supports, the frame event faults its exposure credit survives).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <VQXScanInterface.h>
#include <VQXScanSession.h>

#include "Sim_client.h"
#include "Simulator.h"
#include "vqxsim_c.h"

namespace {

using sim_client::Session;
using sim_client::wait_until;

struct Engine {
    const char* type;
    double gain_unit;             ///< attribute gain of 1x
    /// How far the gain attribute (what the trait asked for) may lie above
    /// the gain the sensor applied: this share of it, or this many units,
    /// whichever is more (0, 0: the attribute is the applied gain).
    double gain_share;
    double gain_units;
    bool exposure_in_us;          ///< exposure attribute in microseconds, not rows
    double fixed_gain_512;        ///< the sensor gain (x) an ES_FIXED_GAIN of 512 programs
    std::vector<unsigned> modes;  ///< streaming capture modes
    /// Frame event faults the trait's exposure credit survives.
    const char* event_faults;
    /// The engine has a full register table in a file: its truth case also
    /// runs with it.
    bool full_table_case;
    /// Scan with the illumination only: on a 640 or 752 x 480 frame the
    /// aimer pattern passes 3% of the samples taken from the first two
    /// thirds of a frame (capture modes 1 to 3), and the 97th percentile
    /// is the aimer's (documented).
    bool aimer_off;
    /// Exposure of the first frame of the first scan (microseconds): the
    /// engine's starting exposure as its sensor makes it.
    double start_us;
    /// Scenes ("scene x scale") the engine cannot bring into the window
    /// (documented in the README): there the loop must come to rest at the
    /// setting nearest to it (the same exposure and gain for the last 10
    /// frames) and the stream must live.
    std::vector<std::string> out_of_reach;
};

// Events the driver refuses (no buffer, unknown buffer) leave every trait's
// credit exact. Traits that step their histories once per frame event, with
// no frame counter to follow (X5501, X5503, MT9V022), lose a frame of
// credit to a frame whose event is lost or to a late second event taken
// for a new frame (documented); the AR0144 and the Kelp follow their frame
// counters and the Rilo reads its exposure back from the sensor.
const Engine kEngines[] = {
    {"X7710", 256.0, 0.0, 0.0, false, 2.0, {0, 2, 3, 4, 5, 6, 7}, "drop=*7,duplicate=*5,zero_handle=*11,unknown_handle=*13", false, false, 500.0, {}},
    // The MT9M114's gain register keeps a 6-bit mantissa of gain / 8; the
    // X5501 takes ES_FIXED_GAIN in its own 1/512 unit.
    {"X5501", 512.0, 1.0 / 32, 8.0, false, 1.0, {0, 2, 3, 4, 5}, "zero_handle=*5,unknown_handle=*7", true, false, 3000.0, {}},
    {"X5503", 512.0, 1.0 / 32, 8.0, false, 1.0, {0, 2, 3, 4, 5}, "zero_handle=*5,unknown_handle=*7", true, false, 3000.0, {}},
    // MT9V022: automatic exposure at a fixed 2x in rows of 35 us; a flat
    // field 16 times brighter lies between 1 row (too dark) and 2 rows,
    // from which the truncating split steps back to 1.
    {"MT9V022", 16.0, 0.0, 0.0, false, 2.0, {0, 2, 3, 4, 5}, "zero_handle=*5,unknown_handle=*7", false, true,
     9024.0, {"flat x16"}},
    // Kelp: the project's own engine, with a frame counter like the AR0144's.
    {"KELP", 256.0, 0.0, 0.0, false, 2.0, {0, 2, 3, 4, 5, 6, 7}, "drop=*7,duplicate=*5,zero_handle=*11,unknown_handle=*13", false, false, 515.0, {}},
    // Rilo: 200 us to 8.9 ms at a fixed 2x, a 45-fold range.
    {"RILO", 256.0, 0.0, 0.0, true, 2.0, {0, 2, 3, 4, 5}, "drop=*7,duplicate=*5", false, true,
     500.0, {"barcode x16", "flat x1/16", "flat x16"}},
};

/// True when @p sensor_gain (a multiple of 1x) is the gain the attribute
/// @p attribute asked for, as @p e's sensor applies it.
bool same_gain(const Engine& e, double attribute, double sensor_gain)
{
    const double applied = sensor_gain * e.gain_unit;
    const double slack = std::max(attribute * e.gain_share, e.gain_units) + 0.5;
    return applied <= attribute + 0.5 && applied >= attribute - slack;
}

enum class Check { truth, converge, fixed, context };

struct Case {
    Check check;
    const Engine* engine;
    unsigned mode;
    std::string scene = "barcode";  ///< barcode or flat
    double scale = 1.0;
    unsigned method = 2;            ///< ES_EXPOSURE_METHOD
    std::string faults;             ///< simulator fault list
    bool full_table = false;        ///< the engine's full register table, from its file
    int latency = 0;                ///< vqxsim::Config::latency_offset

    std::string name() const
    {
        static const char* const checks[] = {"Truth", "Converge", "Fixed", "Context"};
        std::string n = std::string(engine->type) + "_" + checks[int(check)] + "_mode" + std::to_string(mode);
        if (check == Check::converge) {
            n += "_" + scene + "_x" + (scale < 1 ? "1_16" : std::to_string(int(scale))) + "_method" +
                 std::to_string(method);
        }
        if (!faults.empty())
            n += "_faults";
        if (full_table)
            n += "_full_table";
        if (latency != 0)
            n += latency > 0 ? "_latency_plus1" : "_latency_minus1";
        return n;
    }
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.name(); }

std::vector<Case> all_cases()
{
    std::vector<Case> cases;
    for (const Engine& e : kEngines) {
        for (unsigned mode : e.modes) {
            Case c{Check::truth, &e, mode, "barcode", 1.0, 2, ""};
            cases.push_back(c);
            c.faults = e.event_faults;
            cases.push_back(c);
            c.faults.clear();
            for (int latency : {1, -1})  // the Rilo's latency of 1 has none shorter
                if (mode == 3 && (latency > 0 || std::string(e.type) != "RILO"))
                    cases.push_back(Case{Check::truth, &e, mode, "barcode", 1.0, 2, "", false, latency});
            if (e.full_table_case && mode == 3) {
                c.full_table = true;
                cases.push_back(c);
                c.full_table = false;
            }
            for (const char* scene : {"barcode", "flat"}) {
                for (double scale : {1.0 / 16, 1.0, 16.0}) {
                    c.check = Check::converge;
                    c.scene = scene;
                    c.scale = scale;
                    cases.push_back(c);
                }
            }
            c.scene = "barcode";
            c.scale = 1.0 / 16;
            for (unsigned method : {0u, 1u}) {  // method 2 is the default above
                c.method = method;
                cases.push_back(c);
            }
            c.method = 2;
            c.check = Check::fixed;
            cases.push_back(c);
            c.check = Check::context;
            cases.push_back(c);
        }
    }
    return cases;
}

/// One frame as the client saw it and as the sensor made it.
struct Frame {
    VQX_IMAGE_ATTRIBUTES attributes{};
    struct vqxsim_frame_info sensor{};
    bool known = false;  ///< the simulator knew the frame
    unsigned p97 = 0;    ///< 97th percentile of the pixels
};

unsigned percentile97(const unsigned char* p, size_t n)
{
    unsigned hist[256] = {};
    for (size_t i = 0; i < n; i += 7)
        ++hist[p[i]];
    const size_t total = (n + 6) / 7;
    size_t sum = 0;
    for (unsigned v = 0; v < 256; ++v) {
        sum += hist[v];
        if (sum * 100 >= total * 97)
            return v;
    }
    return 255;
}

uint32_t setting(VQXSI_HANDLE h, uint32_t tag)
{
    uint32_t pair[2] = {tag, 0};
    VQXSI_GetExposureSettings(h, pair, sizeof pair);
    return pair[1];
}

class EngineHarness : public testing::TestWithParam<Case> {
protected:
    void SetUp() override
    {
        const std::string first = sim_client::first_case(GetParam().name());
        if (first != GetParam().name())
            GTEST_SKIP() << "run each case in its own process (ctest does): the driver started with " << first;
        const Case& c = GetParam();
        vqxsim::Config config;
        config.engine = c.engine->type;
        config.fps = 120.0;
        config.buffers = 4;
        config.render = vqxsim::Render_mode::fast;
        config.capture_mode = c.mode;
        config.scene = c.scene == "flat" ? vqxsim::Scene_kind::flat : vqxsim::Scene_kind::barcode;
        config.flat_level = 128;
        config.scene_scale = c.scale;
        config.latency_offset = c.latency;
        // The simulated engines' register tables.
        setenv("VQX_REGISTER_TABLE_DIR", VQX_TABLE_SOURCE_DIR, 1);
        if (c.full_table)
            config.register_table = 0;  // anything but the short table
        std::string error;
        ASSERT_TRUE(config.faults.parse(c.faults, &error)) << error;
        sim = sim_client::kept_simulator(config);
    }
    void TearDown() override
    {
        if (sim) {
            EXPECT_TRUE(wait_until([this] { return sim->buffers_in(vqxsim::Buffer_state::delivered) == 0; }, 2000))
                << "buffers not given back to the hardware layer";
            // The session's idle lights are off: after the scan the aimer
            // and the illumination go out.
            EXPECT_TRUE(wait_until([this] { return !sim->aimer() && !sim->illumination(); }, 2000))
                << "lights left on after the scan";
            sim->shutdown();
        }
    }

    /// Opens a session set up for the case, scans @p count frames and closes.
    std::vector<Frame> scan(unsigned count, const std::vector<uint32_t>& tags = {}, uint32_t exposure_mode = 2)
    {
        const Case& c = GetParam();
        std::vector<Frame> frames;
        Session s;
        EXPECT_NE(nullptr, static_cast<VQXSI_HANDLE>(s));
        if (!s)
            return frames;
        if (c.scene == "flat" || c.method < 2 || c.engine->aimer_off) {
            // With the aimer on, the aimer pattern is the brightest 3% of a
            // uniform scene's samples, and all that the centre method samples
            // of the barcode: it sets the white value. Light the scene evenly.
            VQX_SCANNER_LIGHTING lights{};
            lights.size = sizeof lights;
            VQXSI_GetLights(s, &lights);
            lights.scanning_mode = VQX_LIGHTS_ILLUMINATION;
            VQXSI_SetLights(s, &lights);
        }
        std::vector<uint32_t> pairs = {ES_EXPOSURE_METHOD, c.method};
        pairs.insert(pairs.end(), tags.begin(), tags.end());
        VQXSI_SetExposureSettings(s, pairs.data(), uint32_t(pairs.size() * sizeof(uint32_t)));
        VQXSI_SetExposureMode(s, exposure_mode);
        target = setting(s, ES_TARGET_VALUE);
        gap = setting(s, ES_TARGET_ACCEPT_GAP);
        VQX_SCANENGINE_PROPERTIES_EX p;
        VQXSI_GetScanEnginePropertiesEx(s, &p, sizeof p);
        const size_t bytes = size_t(p.image_width) * p.image_height;
        EXPECT_EQ(1, VQXSI_StartScanning(s));
        for (unsigned i = 0; i < count; ++i) {
            void* image = VQXSI_GetNewScan(s);
            EXPECT_NE(nullptr, image) << "the stream died after " << i << " frames";
            if (!image)
                break;
            Frame f;
            f.attributes.size = sizeof f.attributes;
            static_cast<VQXSI_HANDLE>(s)->Get_image_attributes(image, &f.attributes);  // as a C++ client
            f.known = vqxsim_frame_info(image, &f.sensor) == 0;
            f.p97 = percentile97(static_cast<const unsigned char*>(image), bytes);
            EXPECT_EQ(1, VQXSI_UnlockBuffer(s, image));
            frames.push_back(f);
            if (i == 0)
                first_table_row = sim->reg(0x001E);
        }
        EXPECT_EQ(1, VQXSI_StopScanning(s));
        return frames;
    }

    /// Index of the first frame from which every frame is within target +-
    /// gap, or frames.size() when the last one is not.
    size_t settled(const std::vector<Frame>& frames) const
    {
        size_t first = frames.size();
        for (size_t i = 0; i < frames.size(); ++i) {
            const bool inside = std::abs(int(frames[i].p97) - int(target)) <= int(gap);
            if (!inside)
                first = frames.size();
            else if (first == frames.size())
                first = i;
        }
        return first;
    }

    std::string trace(const std::vector<Frame>& frames) const
    {
        std::string t;
        char line[160];
        for (const Frame& f : frames) {
            std::snprintf(line, sizeof line, "frame %u: p97 %u white %u | driver %u rows x %u | sensor %u rows x %.3f\n",
                          f.attributes.frame_number, f.p97, f.attributes.white_value, f.attributes.exposure,
                          f.attributes.gain, f.sensor.rows, double(f.sensor.gain));
            t += line;
        }
        return t;
    }

    void expect_truth(const std::vector<Frame>& frames) const
    {
        const Engine& e = *GetParam().engine;
        unsigned wrong = 0;
        for (const Frame& f : frames) {
            ASSERT_TRUE(f.known) << "the simulator does not know frame " << f.attributes.frame_number;
            const bool same_exposure = e.exposure_in_us
                                           ? std::fabs(f.attributes.exposure - double(f.sensor.exposure_us)) <= 1.0
                                           : f.attributes.exposure == f.sensor.rows;
            const bool same = same_exposure && same_gain(e, f.attributes.gain, f.sensor.gain);
            wrong += same ? 0 : 1;
        }
        // A sensor whose latency is a frame off must show in wrong frames.
        EXPECT_EQ(GetParam().latency != 0, wrong > 0)
            << wrong << " frames whose attributes differ from what the sensor used:\n" << trace(frames);
    }

    vqxsim::Simulator* sim = nullptr;
    uint32_t target = 0, gap = 0;
    uint16_t first_table_row = 0;  ///< register 0x001E while streaming
};

TEST_P(EngineHarness, Run)
{
    const Case& c = GetParam();
    switch (c.check) {
    case Check::truth: {
        const std::vector<Frame> frames = scan(40);
        expect_truth(frames);
        ASSERT_FALSE(frames.empty());
        if (c.latency == 0) {  // an engine that programs its start after streaming starts sees it a frame late
            EXPECT_NEAR(c.engine->start_us, frames.front().sensor.exposure_us, c.engine->start_us / 20)
                << "the first frame is not taken with the engine's starting exposure";
        }
        if (c.full_table) {  // the file's first row reached the sensor
            EXPECT_EQ(0x0777, first_table_row);
        }
        // Every fault of the list really fired.
        const vqxsim::Counters n = sim->counters();
        const std::pair<const char*, uint64_t> fired[] = {
            {"drop", n.frames_dropped},
            {"duplicate", n.duplicate_events},
            {"zero_handle", n.zero_handle_events},
            {"unknown_handle", n.unknown_handle_events},
        };
        for (const auto& f : fired) {
            if (c.faults.find(f.first) != std::string::npos) {
                EXPECT_GT(f.second, 0u) << f.first;
            }
        }
        break;
    }
    case Check::converge: {
        const std::vector<Frame> frames = scan(40);
        expect_truth(frames);
        const std::string scene = c.scene + (c.scale < 1 ? " x1/16" : c.scale > 1 ? " x16" : " x1");
        const auto& reach = c.engine->out_of_reach;
        if (std::find(reach.begin(), reach.end(), scene) != reach.end()) {
            ASSERT_EQ(40u, frames.size());
            for (size_t i = frames.size() - 10; i < frames.size(); ++i) {
                EXPECT_EQ(frames.back().sensor.rows, frames[i].sensor.rows) << trace(frames);
                EXPECT_EQ(frames.back().sensor.gain, frames[i].sensor.gain) << trace(frames);
            }
            break;
        }
        const size_t at = settled(frames);
        ASSERT_LT(at, frames.size()) << "never settled within " << target << " +- " << gap << ":\n" << trace(frames);
        EXPECT_LE(frames[at].attributes.frame_number, 30u) << trace(frames);
        break;
    }
    case Check::fixed: {
        // 2000 us and a fixed gain of 512 (2x in 1/256 units; the X5501
        // takes the number in its own unit): the sensor's exposure within
        // one row, its gain what 512 programs.
        // From the fifth frame: an engine may start from what its sensor
        // holds (MT9V022) and program the fixed values with its first
        // update.
        const std::vector<Frame> frames = scan(10, {ES_FIXED_EXP_US, 2000, ES_FIXED_GAIN_256, 512}, 0);
        expect_truth(frames);
        ASSERT_EQ(10u, frames.size());
        for (const Frame& f : std::vector<Frame>(frames.begin() + 4, frames.end())) {
            EXPECT_NEAR(2000.0, f.sensor.exposure_us, 25.0);
            EXPECT_NEAR(c.engine->fixed_gain_512, f.sensor.gain, c.engine->fixed_gain_512 / 32) << "sensor gain";
        }
        break;
    }
    case Check::context: {
        // The context-sensitive white value: no growing oscillation. Over
        // the last 16 frames the contrast stays within a factor of 1.5.
        const std::vector<Frame> frames = scan(40, {}, 3);
        expect_truth(frames);
        ASSERT_GE(frames.size(), 20u);
        double lo = 1e300, hi = 0;
        for (size_t i = frames.size() - 16; i < frames.size(); ++i) {
            const double contrast = double(frames[i].sensor.rows) * frames[i].sensor.gain;
            lo = std::min(lo, contrast);
            hi = std::max(hi, contrast);
        }
        EXPECT_LE(hi, lo * 1.5) << trace(frames);
        break;
    }
    }
}

INSTANTIATE_TEST_SUITE_P(Engines, EngineHarness, testing::ValuesIn(all_cases()),
                         [](const testing::TestParamInfo<Case>& info) { return info.param.name(); });

}  // namespace
