// Test bed for the buffer objects: a Fake_hwl with three 4 x 10 frames, a
// Fake_trait, a real Sensor (whose monitor every buffer object shares), a
// fake stream driver recording buffer_free and reporting a settable stall,
// and the Buffer_locker / Available_buffer / Progress_tracker under test,
// all wired into a private Scan_driver that the_scan_driver points at for
// the test. Assertion reports are collected through the dbg_output hook.
#ifndef VQX_TESTS_BUFFER_FIXTURE_H
#define VQX_TESTS_BUFFER_FIXTURE_H

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "Available_buffer.h"
#include "Buffer_locker.h"
#include "Diagnostics.h"
#include "Fake_trait.h"
#include "IStream_driver.h"
#include "Progress_tracker.h"
#include "Scan_driver.h"
#include "Sensor.h"

class Fake_stream_driver : public IStream_driver {
public:
    Fake_stream_driver() : IStream_driver(0) {}
    Scan_state_t scan_state() const override { return SCANNING; }
    bool wait_for_stop_scanning(unsigned int) override { return true; }
    bool start_scanning(const _tagVQX_SCANNER_LIGHTING&, const Exposure_settings&, bool) override
    {
        return true;
    }
    bool stop_scanning() override { return true; }
    void buffer_free() override { ++buffer_free_calls; }
    void vsync_ist(int) override {}
    bool stalled() const override { return is_stalled; }

    std::atomic<int> buffer_free_calls{0};
    std::atomic<bool> is_stalled{false};
};

// Collects the texts of assertion reports made while it exists.
class Assertion_capture {
public:
    Assertion_capture() { set_dbg_output_hook(&hook); }
    ~Assertion_capture() { set_dbg_output_hook(nullptr); }
    static std::vector<std::string> take()
    {
        std::lock_guard<std::mutex> lock(mutex());
        std::vector<std::string> out;
        out.swap(texts());
        return out;
    }

private:
    static void hook(const char* text)
    {
        std::lock_guard<std::mutex> lock(mutex());
        if (std::string(text).compare(0, 10, "Assertion:") == 0)
            texts().push_back(text);
    }
    static std::mutex& mutex() { static std::mutex m; return m; }
    static std::vector<std::string>& texts() { static std::vector<std::string> t; return t; }
};

class Buffer_test : public ::testing::Test {
protected:
    static constexpr unsigned int width = 4;
    static constexpr unsigned int height = 10;

    Buffer_test() : trait((hwl.set_buffers(3, width, height), hwl)) {}

    void SetUp() override
    {
        Assertion_capture::take();
        saved = the_scan_driver;
        driver.sensor = &sensor;
        driver.trait = &trait;
        driver.stream_driver = &stream;
        driver.buffer_locker = &locker;
        driver.available_buffer = &available;
        driver.progress_tracker = &tracker;
        driver.capabilities.size = sizeof(driver.capabilities);
        trait.get_capabilities(driver.capabilities);
        the_scan_driver = &driver;
        vlocker().load_image_buffers();
        hwl.log.clear();
    }

    void TearDown() override
    {
        the_scan_driver = saved;
        // The objects belong to the fixture, not to the Scan_driver.
        driver.sensor = nullptr;
        driver.trait = nullptr;
        driver.stream_driver = nullptr;
        driver.buffer_locker = nullptr;
        driver.available_buffer = nullptr;
        driver.progress_tracker = nullptr;
    }

    Buffer_locker volatile& vlocker() { return locker; }
    Available_buffer volatile& vavailable() { return available; }
    ScanBufferInfo* record(size_t i) { return &locker.get_buffer_ary()[i]; }
    std::string released(size_t i) { return "ReleaseBuffer(" + std::to_string(101 + i) + ")"; }

    Assertion_capture assertions;
    Fake_hwl hwl;
    Fake_trait trait;
    Sensor sensor;
    Fake_stream_driver stream;
    Buffer_locker locker{&sensor};
    Available_buffer available{sensor.monitor_base()};
    Progress_tracker tracker;
    Scan_driver driver;
    Scan_driver* saved = nullptr;
};

#endif
