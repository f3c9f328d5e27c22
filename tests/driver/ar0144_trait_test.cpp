// AR0144_trait against a recording hardware layer.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "AR0144_trait.h"
#include "Diagnostics.h"
#include "Exposure_controller.h"
#include "Sensor.h"
#include "Synchronization.h"
#include "test_scope.h"

namespace {

// Recording AR0144 hardware layer: a register map and a PSoC, every call
// recorded, failures of named operations or registers on request.
// Thread-safe (the trait's standby alarm runs on a timer thread).
struct Hwl_call {
    std::string op;
    unsigned address;              // register, PSoC address, handle or argument
    std::vector<uint16_t> values;  // the values written
};
using Writes = std::vector<std::pair<unsigned, std::vector<uint16_t>>>;

class Recording_hwl : public IHwl_AR0144 {
public:
    unsigned width = 1280, height = 800;
    bool psoc_fitted = true;
    unsigned char psoc[256] = {};
    std::map<unsigned, uint16_t> regs;
    std::set<unsigned> fail_read, fail_write;  // register addresses
    std::set<std::string> fail_ops;            // operation names

    std::vector<Hwl_call> log() { std::lock_guard<std::mutex> g(m); return calls; }
    void clear() { std::lock_guard<std::mutex> g(m); calls.clear(); }
    unsigned char psoc_byte(unsigned a) { std::lock_guard<std::mutex> g(m); return psoc[a]; }
    Writes writes()  // the WriteReg calls
    {
        Writes w;
        for (const Hwl_call& c : log())
            if (c.op == "WriteReg")
                w.push_back({c.address, c.values});
        return w;
    }
    size_t count(const std::string& op)
    {
        const std::vector<Hwl_call> l = log();
        return size_t(std::count_if(l.begin(), l.end(), [&](const Hwl_call& c) { return c.op == op; }));
    }

    bool IsPsocSupported() override { return psoc_fitted; }
    bool WriteIIC_PSOC(unsigned char a, unsigned char* d, unsigned int n) override
    {
        return op("WriteIIC_PSOC", a, {d, d + n}) && copy(psoc + a, d, n);
    }
    bool ReadIIC_PSOC(unsigned char a, unsigned char* d, unsigned int n) override
    {
        return op("ReadIIC_PSOC", a) && copy(d, psoc + a, n);
    }
    Image_buffer_pointers* GetImageBuffers(uint64_t& count) override { count = 0; return nullptr; }
    bool RegisterVsyncNotification(Vsync_callback, void*) override { return true; }
    unsigned int GetScanHeight() override { return height; }
    unsigned int GetScanWidth() override { return width; }
    bool ImagerPowerUp() override { return op("ImagerPowerUp"); }
    bool ImagerPowerDown() override { return op("ImagerPowerDown"); }
    bool ImagerPowerOn() override { return op("ImagerPowerOn"); }
    bool ImagerPowerOff() override { return op("ImagerPowerOff"); }
    bool InitCapture(int buffer) override { return op("InitCapture", unsigned(buffer)); }
    bool ResetTransferHardware() override { return op("ResetTransferHardware"); }
    bool AimOn() override { return op("AimOn"); }
    bool AimOff() override { return op("AimOff"); }
    bool IllumConfig(unsigned int c) override { return op("IllumConfig", c); }
    bool IllumOn() override { return op("IllumOn"); }
    bool IllumOff() override { return op("IllumOff"); }
    bool StartScanning() override { return op("StartScanning"); }
    bool StopScanning() override { return op("StopScanning"); }
    bool RequestStopScanning(Stop_callback, void*) override { return op("RequestStopScanning"); }
    bool WriteReg(unsigned int a, uint16_t* v, uint64_t len) override
    {
        const size_t n = len == 1 ? 1 : len / 2;
        if (!op("WriteReg", a, {v, v + n}) || fail_write.count(a))
            return false;
        std::lock_guard<std::mutex> g(m);
        for (size_t i = 0; i < n; ++i)
            regs[a + 2 * i] = v[i];
        return true;
    }
    bool ReadReg(unsigned int a, uint16_t* v, uint64_t len) override
    {
        if (!op("ReadReg", a) || fail_read.count(a))
            return false;
        std::lock_guard<std::mutex> g(m);
        for (size_t i = 0; i < (len == 1 ? 1 : len / 2); ++i)
            v[i] = regs[a + 2 * i];
        return true;
    }

private:
    // Records the call; false when the test asked this operation to fail.
    bool op(const char* name, unsigned address = 0, std::vector<uint16_t> values = {})
    {
        std::lock_guard<std::mutex> g(m);
        calls.push_back({name, address, std::move(values)});
        return !fail_ops.count(name);
    }
    bool copy(unsigned char* to, const unsigned char* from, unsigned n)
    {
        std::lock_guard<std::mutex> g(m);
        std::memcpy(to, from, n);
        return true;
    }
    std::mutex m;
    std::vector<Hwl_call> calls;
};


const Writes shadows = {{0x3060, {13}}, {0x3270, {508}}, {0x3012, {100, 10}}};

// The last @p n writes (all of them when fewer).
Writes tail(const Writes& w, size_t n) { return Writes(w.end() - std::min(n, w.size()), w.end()); }
using Write = Writes::value_type;

struct Rig {
    explicit Rig(uint32_t word = 1, uint32_t capture_mode = 0, Sensor* sensor = nullptr)
        : scope(word, capture_mode, sensor), trait(hwl, &controller)
    {
        controller.bind(&trait);
    }
    // The writes of a power_up_init that must succeed.
    Writes power_up()
    {
        hwl.clear();
        EXPECT_TRUE(trait.power_up_init());
        return hwl.writes();
    }
    Driver_scope scope;
    Recording_hwl hwl;
    Exposure_controller<AR0144_trait> controller;
    AR0144_trait trait;
};

std::vector<std::string> captured;
void capture(const char* text) { captured.push_back(text); }

TEST(AR0144_trait, PowerUpStatesFailuresAndIdleLights)
{
    Rig rig;
    EXPECT_EQ(rig.hwl.count("ImagerPowerOn"), 1u);  // constructor powers up
    EXPECT_EQ(rig.hwl.count("ImagerPowerUp"), 1u);
    EXPECT_EQ(rig.trait.get_power_state(), AR0144_trait::POWER_READY);

    rig.trait.set_exposure_gain(300, 1024);
    rig.trait.sleep();
    EXPECT_EQ(rig.trait.get_power_state(), AR0144_trait::POWER_STANDBY);
    Writes w = rig.power_up();  // standby: power up, shadows kept
    EXPECT_EQ(rig.hwl.count("ImagerPowerOn"), 0u);
    EXPECT_EQ(rig.hwl.count("ImagerPowerUp"), 1u);
    EXPECT_EQ(tail(w, 3).front(), (Write{0x3060, {0x20}}));
    EXPECT_EQ(w.back(), (Write{0x3012, {300, 10}}));

    rig.trait.power_down();
    EXPECT_EQ(rig.trait.get_power_state(), AR0144_trait::POWER_OFF);
    EXPECT_EQ(tail(rig.power_up(), 3), shadows);  // off: power on and up, shadows reset
    EXPECT_EQ(rig.hwl.count("ImagerPowerOn"), 1u);
    EXPECT_EQ(rig.hwl.count("ImagerPowerUp"), 1u);

    // Idle aimer: mode select pulses; idle illumination: left streaming.
    _tagVQX_SCANNER_LIGHTING lights{28, 5, 1, 0, 100, 100, 0};
    for (uint32_t idle : {1u, 2u}) {
        lights.idle_mode = idle;
        rig.trait.change_lights(lights);
        const Writes pulse = {{0x301C, {1}}, {0x301C, {0}}}, on = {{0x301C, {1}}};
        EXPECT_EQ(tail(rig.power_up(), idle == 1 ? 2 : 1), idle == 1 ? pulse : on);
        EXPECT_EQ(rig.hwl.psoc[0x32] & 3, idle);
    }

    rig.hwl.fail_ops.insert("WriteIIC_PSOC");  // the sensor reset fails: no register write
    rig.hwl.clear();
    EXPECT_FALSE(rig.trait.power_up_init());
    EXPECT_TRUE(rig.hwl.writes().empty());
    rig.hwl.fail_ops.clear();
    rig.hwl.fail_write.insert(0x3F00);  // a failed burst ends the walk
    rig.hwl.clear();
    EXPECT_FALSE(rig.trait.power_up_init());
    EXPECT_EQ(rig.hwl.writes().back().first, 0x3F00u);
}

TEST(AR0144_trait, StreamingAndTheExposureHistory)
{
    // A frame is taken with what the registers held at the end of the frame
    // period two sensor frames before its own. The sensor's frame counter,
    // read at each programming point, names the period; the counter below
    // repeats once (a second call for one frame), skips one (a frame the
    // driver never saw) and moves on once between a programming point and
    // its write (the next frame began while the update was computed). The
    // expectation comes from that rule alone.
    for (uint32_t mode : {0u, 3u}) {
        Rig rig(1, mode);
        std::map<unsigned, unsigned> written;  // period -> rows written in it
        rig.hwl.regs[0x303A] = 7;
        rig.trait.set_exposure_gain(50, 512);
        written[0] = 50;  // in the registers when streaming starts: applies at once
        rig.trait.trigger_on();
        EXPECT_EQ(rig.hwl.writes().back(), (Write{0x301A, {0x085C}}));
        EXPECT_EQ(rig.trait.get_power_state(), AR0144_trait::POWER_STREAMING);
        rig.hwl.regs[0x301C] = 1;  // the sensor reports streaming
        const std::pair<unsigned, unsigned> points[] = {{8, 8},   {9, 9},   {10, 10}, {10, 10}, {11, 11},
                                                        {13, 14}, {15, 15}, {16, 16}, {17, 17}};
        for (const auto& point : points) {
            unsigned count = point.first;
            SCOPED_TRACE(count);
            rig.hwl.regs[0x303A] = static_cast<uint16_t>(count);
            rig.trait.exposure_frame();
            unsigned expected = 0;
            for (const auto& w : written)
                if (w.first + 2 <= count)
                    expected = w.second;
            EXPECT_EQ(rig.trait.current_exposure(), expected);
            EXPECT_EQ(rig.trait.current_gain(), 512u);
            EXPECT_EQ(rig.trait.current_contrast(), expected * 512);
            count = point.second;
            rig.hwl.regs[0x303A] = static_cast<uint16_t>(count);
            written[count] = 100 + count + (written.count(count) ? 100 : 0);
            rig.trait.set_exposure_gain(written[count], 512);
            if (count == 11)
                rig.trait.trigger_on();  // already streaming: history kept
        }
        rig.trait.trigger_off();
        const Writes stop = {{0x301A, {0x0858}}, {0x301C, {0}}};
        EXPECT_EQ(tail(rig.hwl.writes(), 2), stop);
        EXPECT_EQ(rig.trait.get_power_state(), AR0144_trait::POWER_READY);
    }

    Rig parallel(0);
    parallel.trait.trigger_on();
    EXPECT_EQ(parallel.hwl.writes().back(), (Write{0x301A, {0x30DC}}));

    // trigger_on fails on its mode-select read: nothing written, and
    // trigger_once issues no stop.
    Rig failing;
    failing.hwl.fail_read.insert(0x301C);
    failing.hwl.clear();
    failing.trait.trigger_once();
    EXPECT_TRUE(failing.hwl.writes().empty());
    EXPECT_FALSE(failing.trait.start_streaming());
    failing.hwl.fail_read.clear();
    failing.trait.trigger_once();
    const Writes once = {{0x301A, {0x085C}}, {0x301A, {0x0858}}, {0x301C, {0}}};
    EXPECT_EQ(failing.hwl.writes(), once);
}

TEST(AR0144_trait, CheckStallBranches)
{
    set_dbg_output_hook(capture);
    Rig rig(1);
    auto& r = rig.hwl.regs;
    r[0x303A] = 7; r[0x306A] = 0x100;

    r[0x303C] = 0x05;  // neither standby nor PLL locked: keep waiting
    rig.hwl.clear();
    captured.clear();
    EXPECT_TRUE(rig.trait.check_stall(2));
    EXPECT_EQ(rig.hwl.count("ReadReg"), rig.hwl.log().size());
    EXPECT_EQ(captured, std::vector<std::string>{"Stall2: Status = 0x05 frames = 7\n"});

    r[0x303C] = 0x0A;  // standby: streaming restarted
    rig.hwl.clear();
    EXPECT_TRUE(rig.trait.check_stall(1));
    EXPECT_EQ(rig.hwl.writes(), (Writes{{0x301A, {0x085C}}}));

    r[0x303C] = 0x08;  // PLL locked, not the last try: streaming value twice
    rig.hwl.clear();
    captured.clear();
    EXPECT_TRUE(rig.trait.check_stall(1));
    EXPECT_EQ(rig.hwl.count("StartScanning"), 0u);
    EXPECT_EQ(rig.hwl.writes(), (Writes{{0x301A, {0x185C}}, {0x301A, {0x085C}}}));
    EXPECT_EQ(captured.at(1), "Stall1: datapath_status = 0x0100\n");

    rig.hwl.clear();  // last try: the transfer path is restarted first
    EXPECT_TRUE(rig.trait.check_stall(0));
    std::vector<std::string> ops;
    for (const Hwl_call& c : rig.hwl.log())
        if (c.op != "ReadReg")
            ops.push_back(c.op);
    EXPECT_EQ(ops, (std::vector<std::string>{"RequestStopScanning", "StopScanning", "StartScanning",
                                             "WriteReg", "WriteReg"}));
    rig.hwl.fail_ops.insert("StartScanning");
    rig.hwl.clear();
    EXPECT_FALSE(rig.trait.check_stall(0));
    EXPECT_TRUE(rig.hwl.writes().empty());

    Rig parallel(0);
    parallel.hwl.regs[0x303C] = 0x08;
    parallel.hwl.clear();
    EXPECT_TRUE(parallel.trait.check_stall(0));
    EXPECT_EQ(parallel.hwl.writes(), (Writes{{0x301A, {0x30DC}}, {0x301A, {0x30DC}}}));
    parallel.hwl.fail_read.insert(0x303C);
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
        rig.hwl.clear();
        EXPECT_TRUE(rig.trait.deinitialize_scanning());
        EXPECT_EQ(rig.trait.get_alarm().expire_time(), rig.trait.get_reference_time() + 24);
    }
    for (int i = 0; i < 200 && !rig.trait.get_alarm().complete(); ++i)
        Synchroniztion_internal::MT_Delay(5);
    EXPECT_EQ(rig.hwl.writes().at(0), (Write{0x301A, {0x185C}}));  // keeps streaming
    EXPECT_EQ(rig.hwl.psoc_byte(0x32) & 3, 2);

    {
        auto lock = sensor.get_lock();
        rig.trait.trigger_off();
        rig.hwl.clear();
        rig.trait.deinitialize_scanning();
        // A new scan cancels the standby (and, the register set never having
        // been loaded here, loads it first).
        EXPECT_TRUE(rig.trait.initialize_scanning());
        rig.hwl.clear();
    }
    Synchroniztion_internal::MT_Delay(40);
    EXPECT_TRUE(rig.hwl.writes().empty());
}

TEST(AR0144_trait, LightsFollowTheScanState)
{
    Rig rig;
    _tagVQX_SCANNER_LIGHTING lights{28, 5, 8, 0, 100, 77, 3};
    rig.hwl.clear();
    EXPECT_TRUE(rig.trait.change_lights(lights));  // idle: aimer (mode 8), no boost
    EXPECT_EQ(rig.hwl.psoc_byte(0x32), 1);
    EXPECT_EQ(rig.hwl.log().at(0).op, "IllumConfig");
    EXPECT_EQ(rig.hwl.log().at(0).address, 77u);
    ASSERT_TRUE(rig.trait.start_scanning());  // scanning: aimer and illumination, boost 2
    EXPECT_TRUE(rig.trait.change_lights(lights));
    EXPECT_EQ(rig.hwl.psoc_byte(0x32), 3 | (2 << 2));

    Recording_hwl bare;  // no PSoC: the hardware layer's lights follow the code
    bare.psoc_fitted = false;
    AR0144_trait trait(bare, nullptr);
    trait.sleep();
    bare.clear();
    EXPECT_TRUE(trait.change_lights(lights));  // asleep: remembered only
    EXPECT_TRUE(bare.log().empty());
    bare.fail_ops.insert("WriteIIC_PSOC");
    trait.power_up_init();  // the stored aimer operation follows the idle code
    EXPECT_EQ(bare.count("AimOn"), 1u);
    lights.idle_mode = 7;
    bare.clear();
    trait.change_lights(lights);
    EXPECT_EQ(bare.count("AimOff") + bare.count("IllumOn"), 2u);
}

} // namespace
