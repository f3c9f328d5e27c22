// Shared by the driver tests: Driver_scope points the_scan_driver at a
// private Scan_driver (optionally with a configuration word variant |
// orientation << 16 and a capture mode) and, on leaving, restores it and
// forgets the objects wired in, which belong to the test.
#ifndef VQX_TESTS_DRIVER_TEST_SCOPE_H
#define VQX_TESTS_DRIVER_TEST_SCOPE_H

#include "Output_capture.h"
#include "Scan_driver.h"

class Driver_scope {
public:
    Driver_scope() : saved(the_scan_driver) { the_scan_driver = &driver; }
    explicit Driver_scope(uint32_t engine_word, uint32_t capture_mode = 0, Sensor* sensor = nullptr) : Driver_scope()
    {
        driver.config.engine_variant = engine_word;
        driver.config.capture_mode = capture_mode;
        driver.sensor = sensor;
    }
    ~Driver_scope()
    {
        the_scan_driver = saved;
        driver.exposure_controller = nullptr;
        driver.sensor = nullptr;
        driver.trait = nullptr;
        driver.stream_driver = nullptr;
        driver.buffer_locker = nullptr;
        driver.available_buffer = nullptr;
        driver.progress_tracker = nullptr;
        driver.state_manager = nullptr;
    }
    // Wires the objects of a test bed and takes the trait's capabilities.
    void wire(Exposure_controller_base* controller, Sensor* sensor, Sensor_trait* trait, Buffer_locker* locker,
              Available_buffer* available, Progress_tracker* tracker)
    {
        driver.exposure_controller = controller;
        driver.sensor = sensor;
        driver.trait = trait;
        driver.buffer_locker = locker;
        driver.available_buffer = available;
        driver.progress_tracker = tracker;
        driver.capabilities.size = sizeof driver.capabilities;
        trait->get_capabilities(driver.capabilities);
    }
    Scan_driver driver;

private:
    Scan_driver* saved;
};

#endif
