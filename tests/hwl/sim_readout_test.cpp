// Progressive readout: a frame reaches its buffer strip by strip before its
// vsync, in row order, so a reader polling row markers (as the driver does
// in capture modes 1-3) sees it grow, and the rows it counts as written are
// really there. A buffer taken back during the readout loses the frame and
// is written no further.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "Simulator.h"
#include "sim_harness.h"

using namespace simtest;

namespace {

// The bytes FF 00 FF 00 as one word.
const uint32_t kMarker = [] {
    const unsigned char bytes[4] = {0xFF, 0x00, 0xFF, 0x00};
    uint32_t w;
    std::memcpy(&w, bytes, sizeof w);
    return w;
}();

bool intact(const unsigned char* p)
{
    return __atomic_load_n(reinterpret_cast<const uint32_t*>(p), __ATOMIC_ACQUIRE) == kMarker;
}

// Plants a marker at the start of every fourth row and in the frame's last
// 4 bytes, as the driver does.
void plant_markers(unsigned char* buf, size_t width, size_t height)
{
    for (size_t r = 0; r < height; r += 4)
        __atomic_store_n(reinterpret_cast<uint32_t*>(buf + r * width), kMarker, __ATOMIC_RELAXED);
    __atomic_store_n(reinterpret_cast<uint32_t*>(buf + width * height - 4), kMarker, __ATOMIC_RELAXED);
}

// Rows surely written: those before the first marker still intact, less one
// checkpoint; all of them once the end marker is gone too (acquire loads of
// the same 4-byte words the transfer writes).
size_t rows_written(const unsigned char* buf, size_t width, size_t height)
{
    size_t r = 0;
    for (; r < height; r += 4)
        if (intact(buf + r * width))
            return r >= 4 ? r - 4 : 0;
    return intact(buf + width * height - 4) ? r - 4 : height;
}

// Polls a buffer until the vsync flag is set; records each new progress
// value seen before it and checks, with plain reads, that rows counted as
// written hold the frame's pixels.
struct Poller {
    const unsigned char* buf;
    size_t width, height;
    unsigned char fill;  // the buffer's content before the frame
    std::atomic<bool>* vsync_seen;
    std::vector<size_t> progress;
    size_t stale_rows = 0;

    void run()
    {
        auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!vsync_seen->load(std::memory_order_acquire) && std::chrono::steady_clock::now() < give_up) {
            size_t rows = rows_written(buf, width, height);
            if (rows > 0 && (progress.empty() || rows != progress.back())) {
                progress.push_back(rows);
                for (size_t r = 0; r < rows; ++r)
                    stale_rows += buf[r * width + width - 1] == fill;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    }
};

struct Vsync_flag {
    std::atomic<bool> seen{false};
    std::atomic<int> count{0};
    static void callback(int handle, void* self)
    {
        auto* f = static_cast<Vsync_flag*>(self);
        if (handle != 0) {
            f->count.fetch_add(1);
            f->seen.store(true, std::memory_order_release);
        }
    }
};

}  // namespace

TEST(SimReadout, FrameAppearsStripByStripBeforeItsVsync)
{
    for (bool real_time : {false, true}) {
        SCOPED_TRACE(real_time ? "real time" : "step mode");
        vqxsim::Config c = step_config(vqxsim::Render_mode::none);
        c.real_time = real_time;
        c.fps = 30;
        auto sim = make_sim(c);
        IHwl& hwl = *sim->hwl();
        const size_t width = hwl.GetScanWidth(), height = hwl.GetScanHeight();
        IHwl::Image_buffer_pointers* b = buffers(hwl);
        std::memset(b[0].image, 0x5A, width * height);
        plant_markers(b[0].capture, width, height);

        Vsync_log unused;
        start_streaming(hwl, unused);
        Vsync_flag flag;
        ASSERT_TRUE(hwl.RegisterVsyncNotification(&Vsync_flag::callback, &flag));
        Poller poller{b[0].image, width, height, 0x5A, &flag.seen, {}, 0};
        std::thread reader(&Poller::run, &poller);
        ASSERT_TRUE(hwl.InitCapture(b[0].handle));
        EXPECT_EQ(1u, sim->step(1, 2000));
        reader.join();

        ASSERT_EQ(1, flag.count.load());
        EXPECT_GE(poller.progress.size(), 3u) << "partial frames seen before the vsync";
        for (size_t i = 1; i < poller.progress.size(); ++i)
            EXPECT_LT(poller.progress[i - 1], poller.progress[i]) << "rows arrive in order";
        EXPECT_EQ(0u, poller.stale_rows) << "a row counted as written holds the frame";
        EXPECT_EQ(height, rows_written(b[0].image, width, height));
        EXPECT_EQ(128, b[0].image[width * height - 1]);
        sim->shutdown();
    }
}

TEST(SimReadout, BufferTakenBackDuringReadoutLosesTheFrame)
{
    auto sim = make_sim(step_config(vqxsim::Render_mode::none));
    IHwl& hwl = *sim->hwl();
    const size_t width = hwl.GetScanWidth(), height = hwl.GetScanHeight();
    IHwl::Image_buffer_pointers* b = buffers(hwl);
    plant_markers(b[0].capture, width, height);
    Vsync_log log;
    start_streaming(hwl, log);
    ASSERT_TRUE(hwl.InitCapture(b[0].handle));

    std::atomic<unsigned> produced{99};
    std::thread stepper([&] { produced = sim->step(1, 300); });
    auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (rows_written(b[0].image, width, height) == 0 && std::chrono::steady_clock::now() < give_up)
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    hwl.ReleaseBuffer(b[0].handle);
    const size_t rows_at_release = rows_written(b[0].image, width, height);
    stepper.join();

    EXPECT_GT(rows_at_release, 0u);
    EXPECT_LT(rows_at_release, height / 2) << "released early in the readout";
    EXPECT_EQ(0u, produced.load()) << "no frame: the only armed buffer was taken back";
    EXPECT_TRUE(log.take().empty()) << "no vsync for a lost frame";
    EXPECT_LT(rows_written(b[0].image, width, height), height / 2) << "nothing written after the release";
    EXPECT_EQ(1u, sim->counters().frames_missed);
    EXPECT_EQ(0u, sim->counters().frames_filled);
    EXPECT_TRUE(sim->frames().empty());
    EXPECT_EQ(vqxsim::Buffer_state::free, sim->buffer_state(b[0].handle));
}
