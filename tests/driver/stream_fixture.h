// Test bed for the stream driver and the sensor: a Fake_hwl with three
// 8 x 12 frames (handles 101-103), a Fake_trait, a recording exposure
// controller, the real Sensor, Buffer_locker, Available_buffer,
// Progress_tracker and Stream_driver (built per test with its capture mode),
// wired into a private Scan_driver that the_scan_driver points at. dbg_output
// texts are collected by an Output_capture. TearDown stops a running scan
// and checks that every buffer the driver armed or received went back to the
// hardware layer.
#ifndef VQX_TESTS_STREAM_FIXTURE_H
#define VQX_TESTS_STREAM_FIXTURE_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Available_buffer.h"
#include "Buffer_locker.h"
#include "Exposure_controller.h"
#include "Fake_trait.h"
#include "Progress_tracker.h"
#include "Sensor.h"
#include "Sim_client.h"
#include "Stream_driver.h"
#include "test_scope.h"

// An exposure controller that records "sample_reset(w,h)",
// "sample_pixels(n)" and "sample_wv" and answers `white`; image_at_sample is
// the image the sampler of the exposure mode held at the last sample_pixels.
class Recording_controller : public Exposure_controller_base {
public:
    explicit Recording_controller(Call_log& calls) : log(calls) {}
    void sample_reset(unsigned w, unsigned h) override
    {
        log.record("sample_reset(%u,%u)", w, h);
        Exposure_controller_base::sample_reset(w, h);
    }
    void sample_pixels(unsigned rows) override
    {
        log.record("sample_pixels(%u)", rows);
        image_at_sample = settings.mode == 2 ? ae_sampler.image : cs_sampler.image;
    }
    unsigned sample_wv() override
    {
        log.record("sample_wv");
        return white;
    }
    unsigned fixed_rows() override { return 1; }
    unsigned max_rows() override { return 1; }
    unsigned start_rows() override { return 1; }
    Call_log& log;
    std::atomic<unsigned> white{100};
    std::atomic<const unsigned char*> image_at_sample{nullptr};
};

class Stream_test : public ::testing::Test {
protected:
    static constexpr unsigned int width = 8;
    static constexpr unsigned int height = 12;

    Stream_test() : trait((hwl.set_buffers(3, width, height), hwl)), controller(hwl.log) {}

    void SetUp() override
    {
        scope.reset(new Driver_scope);
        scope->wire(&controller, &sensor, &trait, &locker, &available, &tracker);
        lights.size = sizeof lights;
        lights.scanning_mode = 5;
    }

    void TearDown() override
    {
        if (stream) {
            stop_and_drain();
            expect_buffers_returned();
        }
        stream.reset();  // cancels its alarms before the_scan_driver changes
        scope.reset();
    }

    void make_stream(unsigned int mode)
    {
        stream.reset(new Stream_driver(&sensor, mode));
        scope->driver.stream_driver = stream.get();
        trait.register_frame_notifications(&IStream_driver::vsync_ist,
                                           static_cast<IStream_driver*>(stream.get()));
    }
    // Builds the stream driver and starts a scan; the log holds the start.
    void start(unsigned int mode, bool stop_after_image = false)
    {
        make_stream(mode);
        hwl.log.clear();
        ASSERT_TRUE(stream->start_scanning(lights, exposure, stop_after_image));
    }

    // The hardware's frame event for @p handle, marked in the log.
    void vsync(int handle)
    {
        hwl.log.record("vsync(%d)", handle);
        hwl.fire_vsync(handle);
    }
    // Overwrites frame @p index as the transfer hardware does.
    void fill(size_t index, unsigned char value)
    {
        for (size_t i = 0; i < size_t(width) * height; ++i)
            __atomic_store_n(hwl.frame(index) + i, value, __ATOMIC_RELAXED);
    }

    // The log since the last call, as one space-separated text; clears it.
    std::string calls()
    {
        std::string text;
        for (const auto& c : hwl.log.entries())
            text += (text.empty() ? "" : " ") + c;
        hwl.log.clear();
        return text;
    }
    bool wait_for_call(const std::string& entry, unsigned ms = 2000)
    {
        return sim_client::wait_until([&] { return hwl.log.count(entry) > 0; }, ms);
    }

    IStream_driver::Scan_state_t state() { return stream->scan_state(); }
    Stream_driver volatile& vstream() { return *stream; }
    Available_buffer volatile& vavailable() { return available; }
    Buffer_locker volatile& vlocker() { return locker; }
    Sensor volatile& vsensor() { return sensor; }
    ScanBufferInfo* record(size_t i) { return &locker.get_buffer_ary()[i]; }
    ScanBufferInfo* available_now() { return vavailable().peek_available(); }
    // Takes the waiting frame for the client (null when none waits).
    ScanBufferInfo* client_take()
    {
        return available_now() != nullptr ? vavailable().get_available(true) : nullptr;
    }
    bool client_unlock(ScanBufferInfo* info) { return vlocker().UnlockBuffer(info, ScanBufferInfo::CLIENT); }
    bool client_lock(size_t i) { return vlocker().LockBuffer(record(i), ScanBufferInfo::CLIENT); }

    // Stops a running scan and completes pending captures (a mode 6
    // snapshot fills the first buffer) until STOPPED.
    void stop_and_drain()
    {
        if (state() == IStream_driver::SCANNING)
            stream->stop_scanning();
        for (int i = 0; i < 3 && state() == IStream_driver::STOPPING; ++i) {
            ScanBufferInfo* filling = vstream().get_lock()->filling();
            if (vstream().get_lock()->get_pending_captures() > 0)
                vsync(filling != nullptr ? filling->pointers.handle : 101);
        }
        EXPECT_TRUE(stream->wait_for_stop_scanning(3000));
    }

    // Every record is free, and each handle armed or delivered was released
    // to the hardware layer after its last use.
    void expect_buffers_returned()
    {
        size_t n = 0;
        ScanBufferInfo* records = vlocker().get_buffer_ary(n);
        for (size_t i = 0; i < n; ++i)
            EXPECT_TRUE(records[i].lock_cnt == 0 && records[i].owner == ScanBufferInfo::NONE) << i;
        const std::vector<std::string> log = hwl.log.entries();
        for (const auto& b : hwl.buffers) {
            const std::string h = "(" + std::to_string(b.handle) + ")";
            long touched = -1, released = -1;
            for (size_t i = 0; i < log.size(); ++i) {
                if (log[i] == "init_capture" + h || log[i] == "vsync" + h)
                    touched = static_cast<long>(i);
                if (log[i] == "ReleaseBuffer" + h)
                    released = static_cast<long>(i);
            }
            EXPECT_GE(released, touched) << "handle " << b.handle << " not returned";
        }
    }

    Output_capture output;
    Fake_hwl hwl;
    Fake_trait trait;
    Recording_controller controller;
    Sensor sensor;
    Buffer_locker locker{&sensor};
    Available_buffer available{sensor.monitor_base()};
    Progress_tracker tracker;
    std::unique_ptr<Stream_driver> stream;
    std::unique_ptr<Driver_scope> scope;
    _tagVQX_SCANNER_LIGHTING lights{};
    Exposure_settings exposure;
};

#endif
