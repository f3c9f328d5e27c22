// The stream driver, sensor and AR0144 trait on the simulated engine in
// capture mode 3: the start-of-frame polling sees each frame being read out,
// arms the next buffer before the frame's vsync, and so the scan streams on
// its own while the client takes no frame, in step mode and in real time.
// The polling reads buffer memory while the simulator writes it: under
// ThreadSanitizer this test must stay clean.
#include <gtest/gtest.h>

#include <atomic>
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

namespace {

constexpr unsigned kMode = 3;

// Stands between the simulator and the stream driver's vsync entry and
// notes, for every frame, whether another buffer is armed once the driver
// has handled the vsync. In mode 3 only the inter-frame point arms a
// capture while the client stays away, and it must have come before the
// vsync: afterwards the frame is no longer tracked. (Looking before the
// driver's vsync_ist would race with an inter-frame step still holding the
// monitor, which vsync_ist waits for.)
struct Vsync_probe {
    vqxsim::Simulator* sim = nullptr;
    IStream_driver* stream = nullptr;
    std::atomic<unsigned> frames{0};
    std::atomic<unsigned> next_armed{0};

    static void callback(int handle, void* context)
    {
        auto* p = static_cast<Vsync_probe*>(context);
        IStream_driver::vsync_ist(handle, p->stream);
        if (handle != 0) {
            p->frames.fetch_add(1);
            if (p->sim->buffers_in(vqxsim::Buffer_state::armed) > 0)
                p->next_armed.fetch_add(1);
        }
    }
};

// Makes a local driver object the global one for the rig's lifetime; the
// local objects it points to are not its own.
struct Global_driver {
    Scan_driver& driver;
    Scan_driver* saved;
    explicit Global_driver(Scan_driver& d) : driver(d), saved(the_scan_driver) { the_scan_driver = &d; }
    ~Global_driver()
    {
        the_scan_driver = saved;
        driver.exposure_controller = nullptr;
        driver.sensor = nullptr;
        driver.trait = nullptr;
        driver.stream_driver = nullptr;
        driver.buffer_locker = nullptr;
        driver.available_buffer = nullptr;
        driver.progress_tracker = nullptr;
    }
};

// The driver's object graph on one simulator instance, mode 3.
class Mode3_rig {
public:
    explicit Mode3_rig(vqxsim::Simulator& s)
        : sim(s), global(driver), trait(*static_cast<IHwl_AR0144*>(s.hwl()), &controller), locker(&sensor),
          available(sensor.monitor_base())
    {
        driver.config.engine_variant = s.config().variant;
        driver.config.capture_mode = kMode;
        controller.bind(&trait);
        driver.exposure_controller = &controller;
        driver.sensor = &sensor;
        driver.trait = &trait;
        driver.buffer_locker = &locker;
        driver.available_buffer = &available;
        driver.progress_tracker = &tracker;
        driver.capabilities.size = sizeof driver.capabilities;
        trait.get_capabilities(driver.capabilities);
        stream.reset(new Stream_driver(&sensor, kMode));
        driver.stream_driver = stream.get();
        probe.sim = &sim;
        probe.stream = stream.get();
    }

    ~Mode3_rig()
    {
        trait.register_frame_notifications(nullptr, nullptr);
        sim.shutdown();
        stream.reset();
    }

    bool start()
    {
        if (!trait.register_frame_notifications(&Vsync_probe::callback, &probe))
            return false;
        {
            auto lock = static_cast<Sensor volatile&>(sensor).get_lock();
            if (!trait.power_up_init())
                return false;
        }
        _tagVQX_SCANNER_LIGHTING lights{};
        lights.size = sizeof lights;
        Exposure_settings exposure;
        trait.update_exposure_settings(exposure);
        return stream->start_scanning(lights, exposure, false);
    }

    ScanBufferInfo* take() { return static_cast<Available_buffer volatile&>(available).get_available(true); }
    bool give_back(ScanBufferInfo* info)
    {
        return static_cast<Buffer_locker volatile&>(locker).UnlockBuffer(info, ScanBufferInfo::CLIENT);
    }

    vqxsim::Simulator& sim;
    Scan_driver driver;
    Global_driver global;
    Sensor sensor;
    Exposure_controller<AR0144_trait> controller;
    AR0144_trait trait;
    Buffer_locker locker;
    Available_buffer available;
    Progress_tracker tracker;
    std::unique_ptr<Stream_driver> stream;
    Vsync_probe probe;
};

// Step mode renders the scene (the inter-frame exposure step sees real
// pixels); real time renders a constant frame at 30 frames a second. Both
// leave the 1 ms polling a window of several milliseconds between the
// two-thirds point and the vsync (step mode: 2 ms between strips), so that
// sanitizer builds on a loaded machine still meet it.
std::unique_ptr<vqxsim::Simulator> make_sim(bool real_time)
{
    vqxsim::Config config;
    config.real_time = real_time;
    config.strip_pause_us = 2000;
    config.render = real_time ? vqxsim::Render_mode::none : vqxsim::Render_mode::fast;
    config.fps = 30;
    config.buffers = 3;
    config.capture_mode = kMode;
    std::string error;
    std::unique_ptr<vqxsim::Simulator> sim = vqxsim::Simulator::create(config, &error);
    EXPECT_TRUE(sim) << error;
    return sim;
}

}  // namespace

TEST(Stream_mode3_sim, StreamsWithoutTheClientAndArmsTheNextBufferBeforeEachVsync)
{
    std::unique_ptr<vqxsim::Simulator> sim = make_sim(false);
    ASSERT_TRUE(sim);
    Mode3_rig rig(*sim);
    ASSERT_TRUE(rig.start());

    // The client takes nothing: every frame needs a capture armed by the
    // inter-frame point of the frame before it (step mode makes a frame
    // only into an armed buffer). The unread frame is recycled each time.
    const unsigned kFrames = 12;
    for (unsigned i = 0; i < kFrames; ++i)
        ASSERT_EQ(1u, sim->step(1, 2000)) << "frame " << i + 1;
    EXPECT_EQ(kFrames, rig.probe.frames.load());
    EXPECT_EQ(kFrames, rig.probe.next_armed.load()) << "next buffer armed before every vsync";
    EXPECT_EQ(kFrames, sim->counters().frames_delivered);
    EXPECT_EQ(0u, sim->counters().frames_missed);
    EXPECT_FALSE(rig.stream->stalled());

    // The client now gets the newest frame, then takes each one in turn.
    ScanBufferInfo* newest = rig.take();
    ASSERT_NE(nullptr, newest);
    EXPECT_EQ(kFrames, newest->attributes.frame_number);
    EXPECT_EQ(sim->frames().back().handle, newest->pointers.handle);
    EXPECT_TRUE(rig.give_back(newest));
    for (unsigned i = 1; i <= 5; ++i) {
        ASSERT_EQ(1u, sim->step(1, 2000)) << i;
        ScanBufferInfo* frame = rig.take();
        ASSERT_NE(nullptr, frame) << i;
        EXPECT_EQ(kFrames + i, frame->attributes.frame_number);
        EXPECT_TRUE(rig.give_back(frame));
    }
    EXPECT_EQ(kFrames + 5, rig.probe.next_armed.load());

    // Stop: the capture armed at the last inter-frame point completes it,
    // and every buffer goes back to the hardware layer exactly once.
    EXPECT_TRUE(rig.stream->stop_scanning());
    EXPECT_EQ(IStream_driver::STOPPING, rig.stream->scan_state());
    EXPECT_EQ(1u, sim->step(1, 2000));
    EXPECT_TRUE(rig.stream->wait_for_stop_scanning(2000));
    EXPECT_EQ(3u, sim->buffers_in(vqxsim::Buffer_state::free));
    EXPECT_EQ(0u, sim->counters().bad_releases);
    EXPECT_EQ(0u, sim->counters().bad_captures);
}

TEST(Stream_mode3_sim, RealTimeStreamKeepsGoingWithoutTheClient)
{
    std::unique_ptr<vqxsim::Simulator> sim = make_sim(true);
    ASSERT_TRUE(sim);
    Mode3_rig rig(*sim);
    ASSERT_TRUE(rig.start());

    // No client at all: the frames keep coming only because each one arms
    // the next capture at its inter-frame point.
    EXPECT_EQ(8u, sim->step(8, 3000));
    EXPECT_GE(rig.probe.next_armed.load(), 7u);
    EXPECT_FALSE(rig.stream->stalled());
    ScanBufferInfo* frame = rig.take();
    ASSERT_NE(nullptr, frame);
    EXPECT_GE(frame->attributes.frame_number, 8u);
    EXPECT_TRUE(rig.give_back(frame));

    EXPECT_TRUE(rig.stream->stop_scanning());
    EXPECT_TRUE(rig.stream->wait_for_stop_scanning(2000));
    EXPECT_EQ(IStream_driver::STOPPED, rig.stream->scan_state());
    EXPECT_EQ(3u, sim->buffers_in(vqxsim::Buffer_state::free));
    EXPECT_EQ(0u, sim->counters().bad_releases);
}
