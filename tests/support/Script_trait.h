// Script_trait: a Fake_trait with scriptable timing and stall answers that
// also records "exposure_frame", "check_stall(n)", "power_on", "power_off",
// "sleep", "start_snapshot" and the two-argument starting exposure
// ("set_starting_exposure_gain(c)"). GetMaxResumeTime is resume_ms (large
// by default, so no stall alarm disturbs an exact call sequence). Armed
// captures and snapshots are queued for an Engine_thread; a deferred stop's
// callback is kept for the test or the engine to confirm.
//
// Script_controller records "sample_reset(w,h)", "sample_pixels(n)",
// "sample_wv" and answers `white`; image_at_sample is the image the
// sampler of the exposure mode held at the last sample_pixels.
//
// Engine_thread plays the transfer hardware: it fills each armed buffer in
// arming order (relaxed atomic stores, as the hardware writes while the
// driver polls), waits up to 20 ms for the driver to arm the next one, and
// fires the vsync unless the transfer was stopped meanwhile. It confirms
// deferred stops after 2 ms.
#ifndef VQX_TESTS_SCRIPT_TRAIT_H
#define VQX_TESTS_SCRIPT_TRAIT_H

#include <atomic>
#include <chrono>
#include <deque>
#include <mutex>
#include <thread>

#include "Exposure_controller.h"
#include "Fake_trait.h"
#include "monitor.h"

class Script_trait : public Fake_trait {
public:
    explicit Script_trait(Fake_hwl& fake) : Fake_trait(fake) {}

    bool init_capture(const IHwl::Image_buffer_pointers* buffer) override
    {
        const bool armed = Fake_trait::init_capture(buffer);
        if (armed)
            queue(buffer->handle);
        return armed;
    }
    void start_snapshot() override
    {
        log.record("start_snapshot");
        queue(fake_hwl.buffers[0].handle);
    }
    bool request_stop_scanning(Stop_callback callback, void* context) override
    {
        const bool at_once = Sensor_trait::request_stop_scanning(callback, context);
        std::lock_guard<std::mutex> lock(mutex);
        pending_stop = at_once ? nullptr : callback;
        pending_stop_context = context;
        return at_once;
    }
    // The callback of a deferred stop not yet confirmed (taken once).
    Stop_callback take_pending_stop(void*& context)
    {
        std::lock_guard<std::mutex> lock(mutex);
        context = pending_stop_context;
        Stop_callback callback = pending_stop;
        pending_stop = nullptr;
        return callback;
    }
    bool set_starting_exposure_gain(unsigned int exposure, unsigned int& contrast) override
    {
        log.record("set_starting_exposure_gain(%u)", exposure);
        return Sensor_trait::set_starting_exposure_gain(exposure, contrast);
    }
    using Fake_trait::set_starting_exposure_gain;
    bool deinitialize_scanning() override  // stopping the transfer forgets armed captures
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            armed.clear();
        }
        ++generation;
        return Fake_trait::deinitialize_scanning();
    }
    bool check_stall(int8_t tries_left) override
    {
        log.record("check_stall(%d)", tries_left);
        return check_stall_result && Sensor_trait::check_stall(tries_left);
    }
    void exposure_frame() override { log.record("exposure_frame"); }
    unsigned int GetMaxResumeTime() override { return resume_ms; }
    void power_on() override { log.record("power_on"); }
    void power_off() override { log.record("power_off"); }
    void sleep() override { log.record("sleep"); }

    // Next armed handle, 0 when none.
    int take_armed()
    {
        std::lock_guard<std::mutex> lock(mutex);
        const int handle = armed.empty() ? 0 : armed.front();
        if (handle != 0)
            armed.pop_front();
        return handle;
    }
    bool has_armed()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return !armed.empty();
    }

    std::atomic<unsigned int> resume_ms{60000};
    std::atomic<bool> check_stall_result{true};
    std::atomic<unsigned> generation{0};  // transfer stops so far

private:
    void queue(int handle)
    {
        std::lock_guard<std::mutex> lock(mutex);
        armed.push_back(handle);
    }
    std::mutex mutex;
    std::deque<int> armed;
    Stop_callback pending_stop = nullptr;
    void* pending_stop_context = nullptr;
};

class Script_controller : public Exposure_controller_base {
public:
    explicit Script_controller(Call_log& calls) : log(calls) {}
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
    Call_log& log;
    std::atomic<unsigned> white{100};
    std::atomic<const unsigned char*> image_at_sample{nullptr};
};

class Engine_thread {
public:
    // @p driver_lock is the sensor's monitor: a frame starts only after the
    // arming call that queued its buffer has returned.
    Engine_thread(Fake_hwl& fake, Script_trait& script, Monitor_base& driver_lock)
        : hwl(fake), trait(script), monitor(driver_lock), thread([this] { run(); }) {}
    ~Engine_thread() { stop(); }
    void stop()
    {
        running = false;
        if (thread.joinable())
            thread.join();
    }

private:
    void run()
    {
        for (unsigned char value = 1; running; ++value) {
            void* context = nullptr;
            if (Sensor_trait::Stop_callback confirm = trait.take_pending_stop(context)) {
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
                confirm(context);
            }
            const int handle = trait.take_armed();
            if (handle == 0) {
                std::this_thread::sleep_for(std::chrono::microseconds(300));
                continue;
            }
            monitor.enter(Synchroniztion_internal::MT_INFINITE);
            const unsigned generation = trait.generation;
            monitor.leave();
            for (auto& b : hwl.buffers)
                for (size_t i = 0; b.handle == handle && i < size_t(hwl.width) * hwl.height; ++i)
                    __atomic_store_n(b.capture + i, value, __ATOMIC_RELAXED);
            for (int i = 0; i < 20 && !trait.has_armed(); ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            // Frame end: "stopped meanwhile?" and the callback are one step.
            monitor.enter(Synchroniztion_internal::MT_INFINITE);
            if (generation == trait.generation)
                hwl.fire_vsync(handle);
            monitor.leave();
        }
    }

    Fake_hwl& hwl;
    Script_trait& trait;
    Monitor_base& monitor;
    std::atomic<bool> running{true};
    std::thread thread;
};

#endif
