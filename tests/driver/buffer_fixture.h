// Test bed for the buffer objects: a Fake_hwl with three 4 x 10 frames, a
// Fake_trait, a real Sensor (whose monitor every buffer object shares), a
// fake stream driver recording buffer_free and reporting a settable stall,
// and the Buffer_locker / Available_buffer / Progress_tracker under test,
// all wired into a private Scan_driver that the_scan_driver points at for
// the test. Assertion reports are collected by an Output_capture.
#ifndef VQX_TESTS_BUFFER_FIXTURE_H
#define VQX_TESTS_BUFFER_FIXTURE_H

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>

#include "Available_buffer.h"
#include "Buffer_locker.h"
#include "Fake_trait.h"
#include "IStream_driver.h"
#include "Progress_tracker.h"
#include "Sensor.h"
#include "test_scope.h"

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

class Buffer_test : public ::testing::Test {
protected:
    static constexpr unsigned int width = 4;
    static constexpr unsigned int height = 10;

    Buffer_test() : trait((hwl.set_buffers(3, width, height), hwl)) {}

    void SetUp() override
    {
        scope.reset(new Driver_scope);
        scope->wire(nullptr, &sensor, &trait, &locker, &available, &tracker);
        driver().stream_driver = &stream;
        vlocker().load_image_buffers();
        hwl.log.clear();
    }

    void TearDown() override { scope.reset(); }

    Buffer_locker volatile& vlocker() { return locker; }
    Available_buffer volatile& vavailable() { return available; }
    ScanBufferInfo* record(size_t i) { return &locker.get_buffer_ary()[i]; }
    std::string released(size_t i) { return "ReleaseBuffer(" + std::to_string(101 + i) + ")"; }
    // Locks (or unlocks) every record for the client.
    void client_all(bool lock)
    {
        for (size_t i = 0; i < 3; ++i)
            ASSERT_TRUE(lock ? vlocker().LockBuffer(record(i), ScanBufferInfo::CLIENT)
                             : vlocker().UnlockBuffer(record(i), ScanBufferInfo::CLIENT)) << i;
    }
    // Lock count and owner of a record, e.g. "2 SCANDRIVER".
    static std::string held(const ScanBufferInfo* r)
    {
        static const char* const owners[] = {"NONE", "SCANDRIVER", "CLIENT"};
        return std::to_string(r->lock_cnt) + " " + (r->owner <= 2 ? owners[r->owner] : "?");
    }

    Output_capture assertions;
    Fake_hwl hwl;
    Fake_trait trait;
    Sensor sensor;
    Fake_stream_driver stream;
    Buffer_locker locker{&sensor};
    Available_buffer available{sensor.monitor_base()};
    Progress_tracker tracker;
    std::unique_ptr<Driver_scope> scope;
    Scan_driver& driver() { return scope->driver; }
};

#endif
