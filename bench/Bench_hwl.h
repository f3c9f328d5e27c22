// Bench_hwl: a minimal AR0144 hardware layer for the driver benchmarks.
//
// It models only what the driver needs to run and nothing that costs time:
// a plain register file (writes stored, reads return them), a PSoC register
// file, power and lights switches that just answer true, and the capture
// buffers, which hold a scanned scene (make_frames). A frame is "filled" the
// moment it is delivered: the benchmark measures the driver, not a sensor.
//
// Frames are delivered in one of two ways:
//   - by the caller: next_armed() waits for a buffer the driver armed and
//     takes it, deliver() makes its vsync callback on the calling thread
//     (which plays the hardware layer's thread and must hold no driver lock);
//   - by a pump thread (start_pump): every armed buffer is delivered at
//     once, as fast as the driver arms them, the thread giving its CPU up
//     after each frame as a hardware layer's thread sleeping between
//     frames does (paced: only once the client took the previous frame).
//
// Threading: every operation may be called from any thread; the object's
// mutex is never held while a driver callback runs.
#ifndef VQX_BENCH_HWL_H
#define VQX_BENCH_HWL_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "IHwl.h"

namespace bench {

/// A scanned scene, @p buffers times over: dark bars on a light, slightly
/// noisy background. The cost of sampling a frame depends on its content
/// (a uniform frame piles every pixel into one histogram bin, the slowest
/// case), so the benchmarks sample what a scan engine sees.
inline std::vector<uint8_t> make_frames(unsigned w, unsigned h, unsigned buffers = 1)
{
    std::vector<uint8_t> img(size_t(w) * h * buffers);
    uint32_t x = 1;
    for (unsigned r = 0; r < h; ++r)
        for (unsigned c = 0; c < w; ++c) {
            x = x * 1664525u + 1013904223u;
            const unsigned base = (c / 6) % 3 == 0 ? 40 : 190;
            img[size_t(r) * w + c] = uint8_t(base + (x >> 28));
        }
    for (unsigned b = 1; b < buffers; ++b)
        std::memcpy(img.data() + size_t(b) * w * h, img.data(), size_t(w) * h);
    return img;
}

class Bench_hwl : public IHwl_AR0144 {
public:
    Bench_hwl(unsigned width, unsigned height, unsigned buffers, unsigned capture_mode = 0)
        : w(width), h(height), mode(capture_mode), memory(make_frames(width, height, buffers)),
          regs(65536, 0)
    {
        for (unsigned i = 0; i < buffers; ++i) {
            Image_buffer_pointers p{};
            p.image = p.capture = memory.data() + size_t(i) * width * height;
            p.handle = int(0x2001 + i);
            pointers.push_back(p);
        }
        std::memset(psoc, 0, sizeof psoc);
    }
    ~Bench_hwl() override { stop_pump(); }

    Bench_hwl(const Bench_hwl&) = delete;
    Bench_hwl& operator=(const Bench_hwl&) = delete;

    /// Waits up to @p ms for an armed buffer and takes it; 0 on time-out.
    int next_armed(unsigned ms = 2000)
    {
        std::unique_lock<std::mutex> lock(mutex);
        if (!armed_cv.wait_for(lock, std::chrono::milliseconds(ms), [this] { return n_armed != 0; }))
            return 0;
        int handle = armed[first_armed];
        first_armed = (first_armed + 1) % kRing;
        --n_armed;
        return handle;
    }

    /// Waits up to @p ms until the client took every delivered frame.
    bool wait_taken(unsigned ms)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return armed_cv.wait_for(lock, std::chrono::milliseconds(ms),
                                 [this] { return taken_count >= delivered_count; });
    }

    /// The vsync callback for @p handle, on the calling thread.
    void deliver(int handle)
    {
        Vsync_callback cb;
        void* ctx;
        {
            std::lock_guard<std::mutex> hold(mutex);
            cb = vsync;
            ctx = context;
        }
        {
            std::lock_guard<std::mutex> hold(mutex);
            ++delivered_count;
        }
        if (cb)
            cb(handle, ctx);
    }

    /// Delivers every armed buffer at once from a thread of its own. Paced:
    /// a frame is delivered only once the client took the previous one
    /// (frame_taken), so one frame is in flight at a time, as in a bare
    /// two-thread hand-off. Unpaced, frames come as fast as buffers are
    /// armed, and frames the client has not taken yet are replaced.
    void start_pump(bool paced = false)
    {
        pump_quit = false;
        reset_taken();
        pump = std::thread([this, paced] {
            while (!pump_quit) {
                if (paced && !wait_taken(20))
                    continue;
                int handle = next_armed(20);
                if (!handle)
                    continue;
                deliver(handle);
                // A hardware layer's thread sleeps between frames; this one
                // never would, so it gives its CPU up after each frame, or a
                // client sharing that CPU would only run when the
                // scheduler takes the CPU from it.
                if (!paced)
                    std::this_thread::yield();
            }
        });
    }

    /// Frames delivered so far count as taken (an earlier run's frames that
    /// no client took do not hold the next run back).
    void reset_taken()
    {
        std::lock_guard<std::mutex> hold(mutex);
        taken_count = delivered_count;
    }

    /// The client took a frame (paced pump).
    void frame_taken()
    {
        {
            std::lock_guard<std::mutex> hold(mutex);
            ++taken_count;
        }
        armed_cv.notify_one();
    }

    void stop_pump()
    {
        pump_quit = true;
        if (pump.joinable())
            pump.join();
    }

    /// Sensor power-ups (PSoC sensor resets before a register table load).
    unsigned power_ups() const { return power_up_count; }
    /// Vsync callbacks made so far (frames the "sensor" delivered).
    uint64_t frames_delivered() const { return delivered_count; }

    // IHwl ------------------------------------------------------------------
    bool IsPsocSupported() override { return true; }
    bool WriteIIC_PSOC(unsigned char a, unsigned char* d, unsigned int n) override
    {
        if (a == 55 && n == 1 && d && d[0] == 1)
            ++power_up_count;
        for (unsigned i = 0; i < n && a + i < sizeof psoc; ++i)
            psoc[a + i] = d[i];
        return true;
    }
    bool ReadIIC_PSOC(unsigned char a, unsigned char* d, unsigned int n) override
    {
        for (unsigned i = 0; i < n; ++i)
            d[i] = a + i < sizeof psoc ? psoc[a + i] : 0;
        return true;
    }
    Image_buffer_pointers* GetImageBuffers(uint64_t& count) override
    {
        count = pointers.size();
        return pointers.data();
    }
    void ReleaseBuffer(int handle) override
    {
        // A buffer taken back before it filled is no longer armed.
        std::lock_guard<std::mutex> hold(mutex);
        unsigned kept = 0;
        for (unsigned i = 0; i < n_armed; ++i) {
            int h = armed[(first_armed + i) % kRing];
            if (h != handle)
                armed[(first_armed + kept++) % kRing] = h;
        }
        n_armed = kept;
    }
    bool RegisterVsyncNotification(Vsync_callback cb, void* ctx) override
    {
        std::lock_guard<std::mutex> hold(mutex);
        vsync = cb;
        context = ctx;
        return true;
    }
    unsigned int GetScanHeight() override { return h; }
    unsigned int GetScanWidth() override { return w; }
    bool ImagerPowerUp() override { return true; }
    bool ImagerPowerDown() override { return true; }
    bool ImagerPowerOn() override { return true; }
    bool ImagerPowerOff() override { return true; }
    bool InitCapture(int handle) override
    {
        {
            std::lock_guard<std::mutex> hold(mutex);
            if (n_armed == kRing)
                return false;
            armed[(first_armed + n_armed++) % kRing] = handle;
        }
        armed_cv.notify_one();
        return true;
    }
    bool ResetTransferHardware() override { return true; }
    bool AimOn() override { return true; }
    bool AimOff() override { return true; }
    bool IllumConfig(unsigned int) override { return true; }
    bool IllumOn() override { return true; }
    bool IllumOff() override { return true; }
    bool WriteReg(unsigned int address, uint16_t* values, uint64_t length) override
    {
        if (!values)
            return false;
        if (length == 1) {
            regs[address & 0xFFFF] = values[0] & 0xFF;
            return true;
        }
        for (uint64_t i = 0; i < length / 2; ++i)
            regs[(address + 2 * i) & 0xFFFF] = values[i];
        return true;
    }
    bool ReadReg(unsigned int address, uint16_t* values, uint64_t length) override
    {
        if (!values)
            return false;
        if (length == 1) {
            values[0] = regs[address & 0xFFFF] & 0xFF;
            return true;
        }
        for (uint64_t i = 0; i < length / 2; ++i)
            values[i] = regs[(address + 2 * i) & 0xFFFF];
        return true;
    }
    void GetConfig(Config* config) override
    {
        if (config && config->size >= 12)
            config->capture_mode = mode;
        if (config && config->size >= 16)
            config->engine_variant = 1;
    }
    bool StartScanning() override
    {
        std::lock_guard<std::mutex> hold(mutex);
        n_armed = 0;
        return true;
    }
    bool StopScanning() override { return true; }

private:
    const unsigned w, h, mode;
    std::vector<unsigned char> memory;
    std::vector<Image_buffer_pointers> pointers;
    std::vector<uint16_t> regs;  // guarded by the driver's monitor (its only caller)
    unsigned char psoc[256];     // likewise
    std::atomic<unsigned> power_up_count{0};
    std::atomic<uint64_t> delivered_count{0};  // written under mutex
    uint64_t taken_count = 0;                   // guarded by mutex

    std::mutex mutex;
    std::condition_variable armed_cv;
    // Armed buffers in arming order (a ring: arming allocates nothing).
    static constexpr unsigned kRing = 64;
    int armed[kRing] = {};
    unsigned first_armed = 0, n_armed = 0;
    Vsync_callback vsync = nullptr;
    void* context = nullptr;

    std::atomic<bool> pump_quit{false};
    std::thread pump;
};

} // namespace bench

#endif
