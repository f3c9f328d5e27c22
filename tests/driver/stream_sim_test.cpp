// The stream driver and sensor on the simulated engine (step mode) with the
// AR0144 trait: frames flow through client round trips, and after the stop
// every buffer is back with the hardware layer, none released twice.
#include <gtest/gtest.h>

#include <memory>

#include "AR0144_trait.h"
#include "Available_buffer.h"
#include "Buffer_locker.h"
#include "Exposure_controller.h"
#include "Progress_tracker.h"
#include "Scan_driver.h"
#include "Sensor.h"
#include "Simulator.h"
#include "Stream_driver.h"

TEST(Stream_sim, FramesFlowAndEveryBufferGoesBack)
{
    vqxsim::Config config;
    config.real_time = false;
    config.render = vqxsim::Render_mode::none;
    config.buffers = 3;
    std::string error;
    std::unique_ptr<vqxsim::Simulator> sim = vqxsim::Simulator::create(config, &error);
    ASSERT_TRUE(sim) << error;

    Scan_driver driver;
    Scan_driver* saved = the_scan_driver;
    the_scan_driver = &driver;
    driver.config.engine_variant = config.variant;
    driver.config.capture_mode = 0;
    {
        Sensor sensor;
        Exposure_controller<AR0144_trait> controller;
        AR0144_trait trait(*static_cast<IHwl_AR0144*>(sim->hwl()), &controller);
        controller.bind(&trait);
        Buffer_locker locker(&sensor);
        Available_buffer available(sensor.monitor_base());
        Progress_tracker tracker;
        driver.exposure_controller = &controller;
        driver.sensor = &sensor;
        driver.trait = &trait;
        driver.buffer_locker = &locker;
        driver.available_buffer = &available;
        driver.progress_tracker = &tracker;
        driver.capabilities.size = sizeof driver.capabilities;
        trait.get_capabilities(driver.capabilities);
        Stream_driver stream(&sensor, 0);
        driver.stream_driver = &stream;
        ASSERT_TRUE(trait.register_frame_notifications(&IStream_driver::vsync_ist,
                                                       static_cast<IStream_driver*>(&stream)));
        {
            auto lock = static_cast<Sensor volatile&>(sensor).get_lock();
            ASSERT_TRUE(trait.power_up_init());
        }

        _tagVQX_SCANNER_LIGHTING lights{};
        lights.size = sizeof lights;
        Exposure_settings exposure;
        trait.update_exposure_settings(exposure);
        ASSERT_TRUE(stream.start_scanning(lights, exposure, false));
        Available_buffer volatile& vavailable = available;
        Buffer_locker volatile& vlocker = locker;
        uint32_t last_number = 0;
        for (int i = 0; i < 10; ++i) {
            ASSERT_EQ(1u, sim->step(1)) << i;
            ScanBufferInfo* frame = vavailable.get_available(true);
            ASSERT_NE(nullptr, frame) << i;
            EXPECT_EQ(last_number + 1, frame->attributes.frame_number);
            last_number = frame->attributes.frame_number;
            EXPECT_TRUE(vlocker.UnlockBuffer(frame, ScanBufferInfo::CLIENT));
        }
        EXPECT_TRUE(stream.stop_scanning());
        EXPECT_EQ(IStream_driver::STOPPING, stream.scan_state());
        EXPECT_EQ(1u, sim->step(1));  // the capture armed by the last unlock ends the stop
        EXPECT_TRUE(stream.wait_for_stop_scanning(2000));
        EXPECT_EQ(IStream_driver::STOPPED, stream.scan_state());
        EXPECT_EQ(config.buffers, sim->buffers_in(vqxsim::Buffer_state::free));
        EXPECT_EQ(0u, sim->counters().bad_releases);
        EXPECT_EQ(0u, sim->counters().bad_captures);
        EXPECT_EQ(11u, sim->counters().frames_delivered);
        trait.register_frame_notifications(nullptr, nullptr);
        sim->shutdown();
    }
    the_scan_driver = saved;
    driver.exposure_controller = nullptr;  // the objects were local
    driver.sensor = nullptr;
    driver.trait = nullptr;
    driver.stream_driver = nullptr;
    driver.buffer_locker = nullptr;
    driver.available_buffer = nullptr;
    driver.progress_tracker = nullptr;
}
