// Sim_frame_thread.cpp: the frame thread: when frames are due, the sensor
// frame, the render, the readout into the buffer in strips, and the vsync.
//
// The thread holds the lock except while it waits, renders, pauses between
// strips or runs a callback.
#include "Sim_core.h"

#include <algorithm>
#include <cstring>

namespace vqxsim {
namespace {

constexpr size_t kHistorySize = 4096;  // frames kept for frames(); older ones drop off
constexpr double kJitter = 0.02;        // +-2% of the frame period
constexpr int kStormFactor = 10;        // a storm frame comes this many times sooner

// Readout: the transfer hardware writes a frame into its buffer in strips
// spread over the frame's readout time, the vsync comes after the last one.
// In real time the readout takes this share of the frame period; in step
// mode each strip after the first follows a short real pause
// (Config::strip_pause_us), so that a driver polling the buffer every
// millisecond sees the frame progress.
constexpr unsigned kStrips = 16;
constexpr double kReadoutShare = 0.8;

// Row stores of the transfer hardware. The driver polls buffer memory while
// it is being written (row markers, exposure sampling of the rows already
// written), so the writes are atomic and ordered: the first 4-byte word of
// every row and the last word of the frame are release stores, the rest of
// the row relaxed stores before the next row's release store. A driver that
// sees a row's first word overwritten with an acquire load of that same
// 4-byte word may then read every earlier row with plain loads. The words
// the driver plants markers in are written with exactly its access size;
// the others use 8-byte stores where aligned, which on the platforms we
// build for compile to plain stores.
void store_word_release(uint8_t* dst, const uint8_t* src)
{
    if (reinterpret_cast<uintptr_t>(dst) % alignof(uint32_t) == 0) {
        uint32_t word;
        std::memcpy(&word, src, sizeof word);
        __atomic_store_n(reinterpret_cast<uint32_t*>(dst), word, __ATOMIC_RELEASE);
        return;
    }
    for (size_t i = 0; i < sizeof(uint32_t); ++i)
        __atomic_store_n(dst + i, src[i], __ATOMIC_RELEASE);
}

void store_relaxed(uint8_t* dst, const uint8_t* src, size_t n)
{
    size_t i = 0;
    for (; i < n && reinterpret_cast<uintptr_t>(dst + i) % alignof(uint64_t) != 0; ++i)
        __atomic_store_n(dst + i, src[i], __ATOMIC_RELAXED);
    for (; i + sizeof(uint64_t) <= n; i += sizeof(uint64_t)) {
        uint64_t word;
        std::memcpy(&word, src + i, sizeof word);
        __atomic_store_n(reinterpret_cast<uint64_t*>(dst + i), word, __ATOMIC_RELAXED);
    }
    for (; i < n; ++i)
        __atomic_store_n(dst + i, src[i], __ATOMIC_RELAXED);
}

// Writes rows [first, end) of a frame of @p rows rows of @p width bytes.
void publish_rows(uint8_t* dst, const uint8_t* src, size_t width, size_t rows, size_t first, size_t end)
{
    const size_t word = sizeof(uint32_t);
    const size_t frame_end = width * rows;
    for (size_t r = first; r < end; ++r) {
        size_t at = r * width;
        size_t row_end = r + 1 == rows && frame_end >= at + 2 * word ? frame_end - word : (r + 1) * width;
        if (width >= word) {
            store_word_release(dst + at, src + at);
            at += word;
        }
        store_relaxed(dst + at, src + at, row_end - at);
        if (row_end != (r + 1) * width)
            store_word_release(dst + row_end, src + row_end);
    }
}

}  // namespace

// ---------------------------------------------------------------------------
// Pacing
// ---------------------------------------------------------------------------

// The sensor makes frames: supplied, out of standby, not stalled, streaming.
bool Sim_core::sensor_running() const
{
    return is_supplied && !is_standby && !is_stalled && model->streaming();
}

// Called after every change that may start or stop frames. When the sensor
// starts running, the control pipeline starts from the registers and the
// first frame is due after Faults::first_frame_delay_ms.
void Sim_core::state_changed()
{
    bool now_running = sensor_running();
    if (now_running && !running) {
        // Config::latency_offset shifts both of the model's latencies alike.
        const auto shifted = [this](unsigned latency) {
            return unsigned(std::max(1, int(latency) + cfg.latency_offset));
        };
        pipeline.restart(model->controls(), shifted(model->frame_latency()), shifted(model->gain_latency()));
        Clock::time_point now = Clock::now();
        first_frame_at = now + std::chrono::milliseconds(faults.first_frame_delay_ms);
        next_frame = first_frame_at + std::chrono::microseconds(int64_t(1e6 / cfg.fps));
    }
    running = now_running;
    wake.notify_all();
}

// The next frame period: the configured rate's, or the last exposure when
// that is longer, jittered; a storm frame's is much shorter.
Sim_core::Clock::duration Sim_core::frame_period(bool storm)
{
    double us = std::max(1e6 / cfg.fps, last_exposure_us);
    us *= 1.0 + kJitter * std::uniform_real_distribution<double>(-1.0, 1.0)(random);
    if (storm)
        us /= kStormFactor;
    return std::chrono::microseconds(int64_t(us));
}

// Step mode: a frame can be made now (running, past the first-frame delay,
// a buffer to take it).
bool Sim_core::frame_possible(Clock::time_point now) const
{
    return running && now >= first_frame_at && pick_target() >= 0;
}

// When the frame thread must look again: the sensor firmware's next event,
// a deferred stop's deadline, the next real-time frame, or the end of the
// first-frame delay when step frames wait for it.
Sim_core::Clock::time_point Sim_core::next_wake() const
{
    Clock::time_point t = Clock::time_point::max();
    if (is_supplied)
        t = model->next_event();
    if (stop_pending)
        t = std::min(t, stop_deadline);
    if (running && cfg.real_time)
        t = std::min(t, next_frame);
    if (running && !cfg.real_time && steps_wanted > 0 && Clock::now() < first_frame_at)
        t = std::min(t, first_frame_at);
    return t;
}

// The frame thread. In this order of priority: the sensor firmware's due
// events, a deferred stop that is due, a real-time frame that is due (its
// period drawn now, the schedule caught up when late), a step frame; else it
// sleeps until the next of these or until woken by a change.
void Sim_core::run()
{
    std::unique_lock<std::mutex> lock(mutex);
    while (!quit) {
        Clock::time_point now = Clock::now();
        if (is_supplied && now >= model->next_event()) {
            model->run_until(now);
            clear_restarted_stall();
            state_changed();
        } else if (stop_pending && now >= stop_deadline) {
            confirm_stop(lock);
        } else if (cfg.real_time && running && now >= next_frame) {
            bool storm = storm_gate.next();
            Clock::duration period = frame_period(storm);
            next_frame += period;
            if (next_frame < now)
                next_frame = now + period;
            if (now >= first_frame_at)
                produce_frame(lock, false, period);
        } else if (!cfg.real_time && steps_wanted > 0 && frame_possible(now)) {
            produce_frame(lock, true, Clock::duration::zero());
        } else {
            Clock::time_point t = next_wake();
            if (t == Clock::time_point::max())
                wake.wait(lock);
            else
                wake.wait_until(lock, t);
        }
    }
}

// ---------------------------------------------------------------------------
// Render parameters and readout
// ---------------------------------------------------------------------------

// What the renderer needs for a frame taken with @p f: the light on the
// scene (ambient plus illumination, from the driver's switch or the PSoC's
// light control with its boost level), the aimer, exposure and gain, the
// read-out flips combined with the engine's mounting, and a noise offset.
Render_params Sim_core::render_params(const Frame_settings& f) const
{
    Render_params p;
    uint8_t light = psoc_model.reg(Psoc_model::light_control);
    double boost = 1.0 + 0.25 * ((light >> 2) & 7);
    bool lit = illum_on || (light & 2) != 0;
    bool aiming = aim_on || (light & 1) != 0;
    const double signal = scene_scale * model->sensitivity();
    p.light = (ambient + (lit ? cfg.illumination * boost : 0.0)) * signal;
    p.aimer_light = aiming ? cfg.aimer_light * signal : 0.0;
    p.exposure_us = f.exposure_us;
    p.gain = f.analog_gain * f.digital_gain;
    bool rotated = cfg.orientation == 180;
    p.vflip = f.vflip != rotated;
    p.hflip = f.hflip != rotated;
    p.noise_offset = uint32_t(random() & 0xFFFFF);
    p.mode = cfg.render;
    return p;
}

// The readout may go on writing buffer @p index: it is still armed, or,
// where the transfer fills free buffers itself, not delivered.
bool Sim_core::still_ours(int index) const
{
    Buffer_state state = buffers[index].state;
    return self_filling() ? state != Buffer_state::delivered : state == Buffer_state::armed;
}

// Waits, lock released, until @p t; a deferred stop that falls due meanwhile
// is confirmed on the way. The lock is let go even when @p t has passed, so
// that a readout running late still lets other callers in between strips.
void Sim_core::pause_until(std::unique_lock<std::mutex>& lock, Clock::time_point t)
{
    if (Clock::now() >= t) {
        lock.unlock();
        std::this_thread::yield();
        lock.lock();
        return;
    }
    for (Clock::time_point now = Clock::now(); !quit && now < t; now = Clock::now()) {
        if (stop_pending && now >= stop_deadline) {
            confirm_stop(lock);
            continue;
        }
        wake.wait_until(lock, stop_pending ? std::min(t, stop_deadline) : t);
    }
}

// Writes the rendered frame into buffer @p index strip by strip, lock held
// while a strip is written and released in between. Real time: strip k is
// due at @p begin + k x @p spacing (a late strip follows at once). Step
// mode: each strip follows the previous one after a real pause of
// @p spacing. False when the buffer was taken back (or the instance shut
// down) before the last strip: the rest of the frame is not written.
bool Sim_core::read_out(std::unique_lock<std::mutex>& lock, int index, Clock::time_point begin,
                        Clock::duration spacing)
{
    const size_t width = model->width();
    const size_t height = model->height();
    uint8_t* dst = memory.data() + size_t(index) * frame.size();
    for (unsigned k = 0; k < kStrips; ++k) {
        if (k > 0)
            pause_until(lock, cfg.real_time ? begin + k * spacing : Clock::now() + spacing);
        if (quit || !still_ours(index))
            return false;
        publish_rows(dst, frame.data(), width, height, height * k / kStrips, height * (k + 1) / kStrips);
    }
    return true;
}

// ---------------------------------------------------------------------------
// One frame
// ---------------------------------------------------------------------------

// One frame period: the sensor makes a frame and, when a buffer is there for
// it, the frame is rendered (lock released), read out into the buffer and
// announced. Entered and left with the lock held.
void Sim_core::produce_frame(std::unique_lock<std::mutex>& lock, bool step_frame, Clock::duration period)
{
    const Clock::time_point tick = Clock::now();
    if (stall_now())
        return;
    const int index = pick_target();
    const Frame_settings settings = sensor_frame();
    if (index < 0) {
        ++count.frames_missed;
        return;
    }
    Frame_job job = begin_job(index, settings, step_frame, period);

    lock.unlock();
    renderer.render(job.view, job.params, frame.data());
    lock.lock();

    if (!fill_buffer(lock, job, tick))
        return;
    file_frame(job);
    announce_frame(lock, settle_frame(job), job);
}

// The sensor makes its next frame with the controls the pipeline latched.
Frame_settings Sim_core::sensor_frame()
{
    Frame_settings settings = pipeline.advance(model->controls());
    model->begin_frame(settings);
    state_changed();  // a sensor may stop by itself after a frame (single frame)
    ++count.sensor_frames;
    ++frame_number;
    last_exposure_us = settings.exposure_us;
    return settings;
}

// Buffer @p index takes the frame: step accounting, this frame's fault
// draws, a snapshot used up (capture mode 6), the render's parameters and
// the frame's record.
Sim_core::Frame_job Sim_core::begin_job(int index, const Frame_settings& settings, bool step_frame,
                                        Clock::duration period)
{
    Frame_job job;
    job.index = index;
    job.step = step_frame;
    job.period = period;
    if (step_frame) {
        --steps_wanted;
        ++steps_begun;
    }
    job.drop = drop_gate.next();
    job.zero = zero_gate.next();
    job.twice = duplicate_gate.next();
    job.unknown = unknown_gate.next();
    if (cfg.capture_mode == 6)
        --snapshots;
    job.params = render_params(settings);
    job.view = scene;

    Frame_record& record = job.record;
    record.number = frame_number;
    record.frame_count = settings.frame_count;
    record.handle = pointers[index].handle;
    record.delivered = !job.drop;
    record_controls(settings, record);
    record.illumination = illum_on || (psoc_model.reg(Psoc_model::light_control) & 2) != 0;
    record.aimer = job.params.aimer_light > 0.0;
    return job;
}

// Reads the rendered frame out into its buffer (read_out). Real time: the
// readout starts when the frame is ready (at once after the frame's @p tick,
// unless the render ran long) and its last strip comes the readout share of
// the period later; a long render must not squeeze the strips into one
// burst, which would hide the frame's progress from a reader polling the
// buffer. Step mode: the strips follow the render with short pauses. False
// when the buffer was taken back meanwhile: the frame is lost and a step
// frame is owed again.
bool Sim_core::fill_buffer(std::unique_lock<std::mutex>& lock, const Frame_job& job, Clock::time_point tick)
{
    const Clock::duration spacing = job.step
        ? std::chrono::duration_cast<Clock::duration>(std::chrono::microseconds(cfg.strip_pause_us))
        : std::chrono::duration_cast<Clock::duration>(job.period * kReadoutShare / (kStrips - 1));
    const Clock::time_point readout_begin = job.step ? tick : std::max(tick, Clock::now());
    if (read_out(lock, job.index, readout_begin, spacing))
        return true;
    ++count.frames_missed;
    if (job.step) {
        ++steps_wanted;
        --steps_begun;
    }
    return false;
}

// The frame is in its buffer: its record goes with the buffer and into the
// history, stamped with the time it was filled and its frame period.
void Sim_core::file_frame(Frame_job& job)
{
    ++count.frames_filled;
    last_filled = job.index;
    job.record.time_us = elapsed_us();
    job.record.period_us = uint64_t(std::chrono::duration_cast<std::chrono::microseconds>(job.period).count());
    Buffer& buffer = buffers[job.index];
    buffer.has_frame = true;
    buffer.frame = job.record;
    history.push_back(job.record);
    if (history.size() > kHistorySize)
        history.pop_front();
}

// Calls the vsync callback for each of @p events with the lock released
// (inside the event guard when there are several, so that a test can hold
// them together), then tells step() callers the frame is done.
void Sim_core::announce_frame(std::unique_lock<std::mutex>& lock, const std::vector<int>& events, const Frame_job& job)
{
    IHwl::Vsync_callback callback = vsync;
    void* context = vsync_context;
    if (callback)
        count.vsyncs += events.size();
    const std::function<void(const std::function<void()>&)> guard = events.size() > 1 ? event_guard : nullptr;
    const uint64_t number = job.record.number;

    lock.unlock();
    const auto announce = [&] {
        for (int handle : events) {
            trace.line("vsync(0x%X) frame %llu", unsigned(handle), static_cast<unsigned long long>(number));
            if (callback)
                callback(handle, context);
        }
    };
    if (guard)
        guard(announce);
    else
        announce();
    lock.lock();
    if (job.step)
        ++steps_done;
    step_done.notify_all();
}

}  // namespace vqxsim
