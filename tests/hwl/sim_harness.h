// sim_harness.h: helpers for the simulator tests: a step-mode instance, an
// AR0144 bring-up as the engine trait does it, and a vsync recorder.
#ifndef VQX_TESTS_SIM_HARNESS_H
#define VQX_TESTS_SIM_HARNESS_H

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <vector>

#include "Simulator.h"

namespace simtest {

/// Records the handles of vsync callbacks.
struct Vsync_log {
    std::mutex mutex;
    std::vector<int> handles;

    static void callback(int handle, void* context)
    {
        auto* log = static_cast<Vsync_log*>(context);
        std::lock_guard<std::mutex> hold(log->mutex);
        log->handles.push_back(handle);
    }
    std::vector<int> take()
    {
        std::lock_guard<std::mutex> hold(mutex);
        std::vector<int> h;
        h.swap(handles);
        return h;
    }
};

/// A step-mode configuration with the given fault list.
inline vqxsim::Config step_config(vqxsim::Render_mode render = vqxsim::Render_mode::fast, const char* faults = "")
{
    vqxsim::Config c;
    c.real_time = false;
    c.render = render;
    EXPECT_TRUE(c.faults.parse(faults, nullptr)) << faults;
    return c;
}

inline vqxsim::Config step_config(const char* faults) { return step_config(vqxsim::Render_mode::fast, faults); }

inline std::unique_ptr<vqxsim::Simulator> make_sim(const vqxsim::Config& c)
{
    std::string error;
    std::unique_ptr<vqxsim::Simulator> sim = vqxsim::Simulator::create(c, &error);
    EXPECT_TRUE(sim) << error;
    return sim;
}

inline IHwl::Image_buffer_pointers* buffers(IHwl& hwl)
{
    uint64_t n = 0;
    return hwl.GetImageBuffers(n);
}

inline bool write16(IHwl& hwl, unsigned address, uint16_t value) { return hwl.WriteReg(address, &value, 2); }

inline uint16_t read16(IHwl& hwl, unsigned address)
{
    uint16_t v = 0xDEAD;
    EXPECT_TRUE(hwl.ReadReg(address, &v, 2)) << std::hex << address;
    return v;
}

/// Supply, wake, PLL and exposure as the engine's table sets them, vsync
/// registration, transfer start and streaming.
inline void start_streaming(IHwl& hwl, Vsync_log& log, uint16_t rows = 50, uint16_t analog_gain = 0)
{
    ASSERT_TRUE(hwl.ImagerPowerOn());
    ASSERT_TRUE(hwl.ImagerPowerUp());
    uint16_t pll[] = {4, 2, 1, 0x4A};  // 0x302A, 0x302C, 0x302E, 0x3030: 74 MHz
    ASSERT_TRUE(hwl.WriteReg(0x302A, pll, sizeof pll));
    ASSERT_TRUE(write16(hwl, 0x300C, 1492));
    ASSERT_TRUE(write16(hwl, 0x3012, rows));
    ASSERT_TRUE(write16(hwl, 0x3014, 0));
    ASSERT_TRUE(write16(hwl, 0x3060, analog_gain));
    ASSERT_TRUE(hwl.RegisterVsyncNotification(&Vsync_log::callback, &log));
    ASSERT_TRUE(hwl.StartScanning());
    ASSERT_TRUE(write16(hwl, 0x301A, 0x30DC));
}

/// Arms buffer @p index and steps one frame; returns the frame's image.
inline const unsigned char* capture(vqxsim::Simulator& sim, unsigned index = 0)
{
    IHwl::Image_buffer_pointers* b = buffers(*sim.hwl());
    EXPECT_TRUE(sim.hwl()->InitCapture(b[index].handle));
    EXPECT_EQ(1u, sim.step(1));
    return b[index].image;
}

}  // namespace simtest

#endif
