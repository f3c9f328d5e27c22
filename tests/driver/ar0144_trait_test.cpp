// AR0144_trait on the simulated AR0144 of the X7710 engine: what the
// end-to-end harness cannot reach. Power states and what a power-up
// programs, idle lights, the exposure history held against the frames the
// sensor really took (repeated, skipped and overtaken frame events), the
// stall recovery branches, the gain codes and the standby alarm.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "AR0144_trait.h"
#include "Diagnostics.h"
#include "Exposure_controller.h"
#include "Register_burst.h"
#include "Sensor.h"
#include "Simulator.h"
#include "Synchronization.h"
#include "monitor.h"

namespace {

constexpr unsigned kModeSelect = 0x301C, kReset = 0x301A;

// The trait with what the driver gives it: its controller, a configuration
// record (the configuration word @p word = variant | orientation << 16) and
// a monitor, @p sensor's or the rig's own.
struct Rig {
    explicit Rig(uint32_t word = 1, uint32_t capture_mode = 0, Sensor* sensor = nullptr, bool psoc = true)
        : config{sizeof(IHwl::Config), capture_mode, word, 1, 42}, sim(make(psoc)),
          hwl(*static_cast<IHwl_AR0144*>(sim->hwl())),
          trait(hwl, Trait_context{&controller, &config, sensor ? &sensor->monitor_base() : &monitor})
    {
        controller.bind(&trait);
    }
    ~Rig() { sim->shutdown(); }
    static std::unique_ptr<vqxsim::Simulator> make(bool psoc)
    {
        vqxsim::Config config;
        config.engine = "X7710";
        config.psoc_fitted = psoc;
        config.real_time = false;
        config.render = vqxsim::Render_mode::none;
        std::string error;
        auto made = vqxsim::Simulator::create(config, &error);
        EXPECT_NE(nullptr, made) << error;
        return made;
    }
    // Register writes the sensor received since the last call.
    uint64_t writes()
    {
        const uint64_t now = sim->calls("WriteReg"), since = now - seen;
        seen = now;
        return since;
    }
    // Arms every buffer and starts the transfer; each delivered buffer is
    // armed again at once, so that step() always has one to fill.
    void run_transfer()
    {
        uint64_t count = 0;
        IHwl::Image_buffer_pointers* buffers = hwl.GetImageBuffers(count);
        hwl.RegisterVsyncNotification([](int handle, void* layer) { static_cast<IHwl*>(layer)->InitCapture(handle); },
                                      &hwl);
        for (uint64_t i = 0; i < count; ++i)
            hwl.InitCapture(buffers[i].handle);
        EXPECT_TRUE(hwl.StartScanning());
    }

    IHwl::Config config;
    Monitor_base monitor;  // outlives the trait, whose destructor cancels its alarms
    std::unique_ptr<vqxsim::Simulator> sim;
    IHwl_AR0144& hwl;
    Exposure_controller<AR0144_trait> controller;
    AR0144_trait trait;
    uint64_t seen = 0;
};

std::vector<std::string> captured;
void capture(const char* text) { captured.push_back(text); }

TEST(AR0144_trait, PowerUpStatesFailuresAndIdleLights)
{
    Rig rig;
    EXPECT_TRUE(rig.sim->supplied());  // the constructor powers up
    EXPECT_FALSE(rig.sim->standby());
    EXPECT_EQ(rig.trait.get_power_state(), AR0144_trait::POWER_READY);

    // Standby keeps what was programmed before it; power off loses it and
    // the next power-up programs the starting exposure and gain.
    struct Row { bool off; uint16_t gain_code, setting, rows; };
    for (const Row& r : {Row{false, 0x20, 508, 300}, Row{true, 0x0D, 508, 100}}) {
        SCOPED_TRACE(r.off ? "from off" : "from standby");
        rig.trait.set_exposure_gain(300, 1024);
        if (r.off)
            rig.trait.power_down();
        else
            rig.trait.sleep();
        EXPECT_EQ(rig.sim->supplied(), !r.off);
        EXPECT_TRUE(rig.sim->standby());
        EXPECT_EQ(rig.trait.get_power_state(), r.off ? AR0144_trait::POWER_OFF : AR0144_trait::POWER_STANDBY);
        EXPECT_TRUE(rig.trait.power_up_init());
        EXPECT_TRUE(rig.sim->supplied());
        EXPECT_FALSE(rig.sim->standby());
        EXPECT_EQ(rig.sim->reg(0x3060), r.gain_code);
        EXPECT_EQ(rig.sim->reg(0x3270), r.setting);
        EXPECT_EQ(rig.sim->reg(0x3012), r.rows);
        EXPECT_EQ(rig.sim->reg(0x3014), 10);
    }

    // Idle illumination: the sensor streams; idle aimer: it is left stopped.
    // Both when the lights change between scans and after a power-up.
    _tagVQX_SCANNER_LIGHTING lights{28, 5, 1, 0, 100, 100, 0};
    for (uint32_t idle : {2u, 1u}) {
        lights.idle_mode = idle;
        rig.trait.change_lights(lights);
        EXPECT_EQ(rig.sim->streaming(), idle == 2);
        EXPECT_TRUE(rig.trait.power_up_init());
        EXPECT_EQ(rig.sim->streaming(), idle == 2);
        EXPECT_EQ(rig.sim->light_register() & 3, idle);
    }

    // The variant's table sets the output interface (0x31AE: 0x0201 and
    // 0x0202 serial with one and two lanes, 0x0200 parallel); an engine
    // mounted upside down reads out rotated (flip and mirror).
    struct Mount { uint32_t variant, orientation, interface; };
    for (const Mount m : {Mount{1, 0, 0x0201}, Mount{2, 180, 0x0202}, Mount{0, 0, 0x0200}, Mount{3, 180, 0x0200}}) {
        Rig mounted(m.variant | m.orientation << 16);
        ASSERT_TRUE(mounted.trait.power_up_init());
        EXPECT_EQ(mounted.sim->reg(0x3040) & 0xC000, m.orientation ? 0xC000 : 0) << m.variant;
        EXPECT_EQ(mounted.sim->reg(0x31AE), m.interface) << m.variant;
    }

    // A table walk writes its rows and nothing past them.
    const Register_pair table[] = {{0x3100, 1}, {0x3102, 2}, {0x3110, 3}, {0x3112, 0xBEEF}};
    Register_burst burst(rig.hwl);
    EXPECT_TRUE(burst.write(table, 3));
    EXPECT_EQ(rig.sim->reg(0x3110), 3);
    EXPECT_EQ(rig.sim->reg(0x3112), 0) << "the row past the table";

    rig.sim->update_faults([](vqxsim::Faults& f) { f.psocfail = vqxsim::Trigger::all(); });  // the sensor reset fails
    rig.writes();
    EXPECT_FALSE(rig.trait.power_up_init());
    EXPECT_EQ(rig.writes(), 0u);  // nothing written to a sensor that was not reset
    rig.sim->update_faults([](vqxsim::Faults& f) {
        f.psocfail = {};
        f.regfail_write = vqxsim::Trigger::all();
    });
    EXPECT_FALSE(rig.trait.power_up_init());
    EXPECT_EQ(rig.writes(), 1u);  // a failed burst ends the table
}

TEST(AR0144_trait, StreamingAndTheExposureHistory)
{
    // The exposure and gain the trait reports for the frame just delivered
    // must be those the simulated sensor took it with, also when a frame
    // event comes twice, when the driver misses a frame, and when the next
    // frame ends between a frame event and the write that follows it.
    struct Point {
        unsigned frames_before;   // sensor frames before the frame event
        unsigned frames_between;  // sensor frames between the event and the write
        bool retrigger;           // trigger_on again (already streaming)
    };
    const Point points[] = {{1, 0, false}, {1, 0, false}, {1, 0, false}, {0, 0, false}, {1, 0, true},
                            {2, 1, false}, {1, 0, false}, {1, 0, false}, {1, 0, false}};
    for (uint32_t mode : {0u, 3u}) {
        SCOPED_TRACE("capture mode " + std::to_string(mode));
        Rig rig(1, mode);
        if (mode == 0) {
            ASSERT_TRUE(rig.trait.power_up_init());
            rig.trait.set_exposure_gain(50, 512);  // programmed before streaming: applies at once
        } else {  // the starting values a power-up from off programs apply at once
            rig.trait.set_exposure_gain(300, 1024);
            rig.trait.power_down();
            ASSERT_TRUE(rig.trait.power_up_init());
        }
        rig.run_transfer();
        rig.trait.trigger_on();
        EXPECT_TRUE(rig.sim->streaming());
        EXPECT_EQ(rig.trait.get_power_state(), AR0144_trait::POWER_STREAMING);
        unsigned k = 0;
        for (const Point& p : points) {
            SCOPED_TRACE("point " + std::to_string(k));
            ASSERT_EQ(rig.sim->step(p.frames_before), p.frames_before);
            rig.trait.exposure_frame();
            rig.trait.frame_delivering();  // as the sensor does before reading the attributes
            const vqxsim::Frame_record taken = rig.sim->frames().back();
            EXPECT_EQ(rig.trait.current_exposure(), taken.rows);
            EXPECT_NEAR(rig.trait.current_gain(), taken.analog_gain * 256, 1);
            EXPECT_EQ(rig.trait.current_contrast(), rig.trait.current_exposure() * rig.trait.current_gain());
            ASSERT_EQ(rig.sim->step(p.frames_between), p.frames_between);
            rig.trait.set_exposure_gain(60 + 10 * k, 512u << (k % 3));
            if (p.retrigger)
                rig.trait.trigger_on();
            ++k;
        }
        rig.trait.trigger_off();
        EXPECT_FALSE(rig.sim->streaming());
        EXPECT_EQ(rig.trait.get_power_state(), AR0144_trait::POWER_READY);
    }

    // The reset register's stream and stop values of the serial and the
    // parallel interface.
    for (uint32_t word : {0u, 1u}) {
        Rig rig(word);
        rig.trait.trigger_on();
        EXPECT_EQ(rig.sim->reg(kReset), word ? 0x085C : 0x30DC);
        rig.trait.trigger_off();
        EXPECT_EQ(rig.sim->reg(kReset), word ? 0x0858 : 0x30D8);
    }

    // trigger_once fails on its mode-select read: nothing is written.
    Rig failing;
    failing.sim->update_faults([](vqxsim::Faults& f) { f.regfail_read = vqxsim::Trigger::all(); });
    failing.writes();
    failing.trait.trigger_once();
    EXPECT_EQ(failing.writes(), 0u);
    EXPECT_FALSE(failing.trait.start_streaming());
    failing.sim->update_faults([](vqxsim::Faults& f) { f.regfail_read = {}; });
    failing.trait.trigger_once();  // streams for its window, then the monitor's alarm stops it
    for (int i = 0; i < 200 && !failing.trait.get_once_alarm().complete(); ++i)
        Synchroniztion_internal::MT_Delay(5);
    EXPECT_FALSE(failing.sim->streaming());
    EXPECT_EQ(failing.sim->reg(kModeSelect), 0);
    EXPECT_EQ(failing.trait.get_power_state(), AR0144_trait::POWER_READY);
}

TEST(AR0144_trait, CheckStallBranches)
{
    set_dbg_output_hook(capture);
    Rig rig(1);
    rig.trait.trigger_on();  // streaming, but no table: the PLL is not locked
    rig.writes();
    captured.clear();
    EXPECT_TRUE(rig.trait.check_stall(2));  // keep waiting
    EXPECT_EQ(rig.writes(), 0u);
    EXPECT_EQ(captured, std::vector<std::string>{"Stall2: Status = 0x00 frames = 0\n"});

    rig.trait.trigger_off();  // the sensor reports standby: streaming restarted
    EXPECT_TRUE(rig.trait.check_stall(1));
    EXPECT_TRUE(rig.sim->streaming());

    ASSERT_TRUE(rig.trait.power_up_init());  // the PLL locks
    rig.trait.trigger_on();
    rig.writes();
    captured.clear();
    const uint64_t starts = rig.sim->calls("StartScanning");
    EXPECT_TRUE(rig.trait.check_stall(1));  // not the last try: restart, then stream
    EXPECT_EQ(rig.writes(), 2u);
    EXPECT_EQ(rig.sim->calls("StartScanning"), starts);
    EXPECT_TRUE(rig.sim->streaming());
    EXPECT_EQ(captured.at(1), "Stall1: datapath_status = 0x0000\n");

    // The last try restarts the transfer path first.
    const char* const transfer[] = {"RequestStopScanning", "StopScanning", "StartScanning"};
    std::vector<uint64_t> before;
    for (const char* op : transfer)
        before.push_back(rig.sim->calls(op));
    EXPECT_TRUE(rig.trait.check_stall(0));
    for (size_t i = 0; i < before.size(); ++i)
        EXPECT_EQ(rig.sim->calls(transfer[i]), before[i] + 1) << transfer[i];
    EXPECT_EQ(rig.writes(), 2u);
    EXPECT_TRUE(rig.sim->transfer_started());
    rig.sim->update_faults([](vqxsim::Faults& f) { f.start_fail = true; });
    EXPECT_FALSE(rig.trait.check_stall(0));
    EXPECT_EQ(rig.writes(), 0u);

    Rig parallel(0);
    ASSERT_TRUE(parallel.trait.power_up_init());
    parallel.trait.trigger_on();
    EXPECT_TRUE(parallel.trait.check_stall(0));
    EXPECT_EQ(parallel.sim->reg(kReset), 0x30DC);
    parallel.sim->update_faults([](vqxsim::Faults& f) { f.regfail_read = vqxsim::Trigger::all(); });
    EXPECT_FALSE(parallel.trait.check_stall(2));
    set_dbg_output_hook(nullptr);
}

TEST(AR0144_trait, GainCodesRoundTrip)
{
    unsigned previous = 0;
    for (uint16_t code = AR0144_trait::min_gain_code; code <= AR0144_trait::max_gain_code; ++code) {
        const unsigned gain = AR0144_trait::gain_of_code(code);
        EXPECT_GT(gain, previous) << std::hex << code;
        EXPECT_EQ(AR0144_trait::code_of_gain(gain), code);
        EXPECT_EQ(AR0144_trait::code_of_gain(gain + 1), code);  // never above the request
        previous = gain;
    }
    EXPECT_EQ(AR0144_trait::gain_of_code(0x0D), 431u);  // 1.68x
    EXPECT_EQ(AR0144_trait::gain_of_code(0x20), 1024u);
    EXPECT_EQ(AR0144_trait::code_of_gain(1023), 0x1F);
    EXPECT_EQ(AR0144_trait::code_of_gain(0), 0x0D);
    EXPECT_EQ(AR0144_trait::code_of_gain(1u << 30), 0x4F);
}

TEST(AR0144_trait, StandbyCompletesOnTheSensorTimer)
{
    Sensor sensor;
    Rig rig(1, 0, &sensor);
    _tagVQX_SCANNER_LIGHTING lights{28, 5, 2, 0, 100, 100, 0};  // idle illumination
    rig.trait.change_lights(lights);
    {
        auto lock = sensor.get_lock();
        rig.trait.trigger_on();
        rig.trait.trigger_off();
        EXPECT_TRUE(rig.trait.deinitialize_scanning());
        EXPECT_EQ(rig.trait.get_alarm().expire_time(), rig.trait.get_reference_time() + 24);
    }
    for (int i = 0; i < 200 && !rig.trait.get_alarm().complete(); ++i)
        Synchroniztion_internal::MT_Delay(5);
    EXPECT_TRUE(rig.sim->streaming());  // the idle illumination keeps it streaming
    EXPECT_EQ(rig.sim->light_register() & 3, 2u);

    {
        auto lock = sensor.get_lock();
        rig.trait.trigger_off();
        rig.trait.deinitialize_scanning();
        // A new scan cancels the standby (and, the register set never having
        // been loaded here, loads it first).
        EXPECT_TRUE(rig.trait.initialize_scanning());
        rig.writes();
        EXPECT_TRUE(rig.trait.initialize_scanning());  // loaded and ready: nothing to do
    }
    Synchroniztion_internal::MT_Delay(40);
    EXPECT_EQ(rig.writes(), 0u);  // the cancelled standby wrote nothing

    // Sleep and power-down cancel the standby still to come.
    for (void (AR0144_trait::*down)() : {&AR0144_trait::sleep, &AR0144_trait::power_down}) {
        {
            auto lock = sensor.get_lock();
            rig.trait.deinitialize_scanning();
            (rig.trait.*down)();
        }
        Synchroniztion_internal::MT_Delay(40);
        EXPECT_EQ(rig.writes(), 0u);
        EXPECT_TRUE(rig.sim->standby());
    }
}

TEST(AR0144_trait, LightsFollowTheScanState)
{
    Rig rig;
    _tagVQX_SCANNER_LIGHTING lights{28, 5, 8, 0, 100, 77, 3};
    EXPECT_TRUE(rig.trait.change_lights(lights));  // idle: aimer (mode 8), no boost
    EXPECT_EQ(rig.sim->light_register(), 1u);
    EXPECT_EQ(rig.sim->illum_config(), 77u);
    ASSERT_TRUE(rig.trait.start_scanning());  // scanning: aimer and illumination, boost 2
    EXPECT_TRUE(rig.trait.change_lights(lights));
    EXPECT_EQ(rig.sim->light_register(), 3u | (2u << 2));
    rig.trait.sleep();
    lights.idle_mode = 7;  // illumination only
    EXPECT_TRUE(rig.trait.change_lights(lights));  // asleep: held
    rig.trait.power_up_init();  // the PSoC shows the held idle lights
    EXPECT_EQ(rig.sim->light_register() & 3u, 2u);
    lights.idle_mode = 8;

    Rig bare(1, 0, nullptr, false);  // no PSoC: the hardware layer's lights follow the code
    bare.trait.sleep();
    EXPECT_TRUE(bare.trait.change_lights(lights));  // asleep: remembered only
    EXPECT_FALSE(bare.sim->aimer());
    EXPECT_NE(bare.sim->illum_config(), 77u);
    bare.trait.power_up_init();  // the stored aimer operation follows the idle code
    EXPECT_TRUE(bare.sim->aimer());
    lights.idle_mode = 7;
    bare.trait.change_lights(lights);
    EXPECT_FALSE(bare.sim->aimer());
    EXPECT_TRUE(bare.sim->illumination());
}

} // namespace
