// Scan_driver: the driver's object graph.
//
// One process-wide object, reached through the global pointer
// `the_scan_driver`, built lazily by Initialize_scan_driver on the first
// session open. Every driver object reaches its peers through these fields.
// Fields are listed in the order start-up builds them; pointers are owning
// (the destructor tears them down in its own order, see Scan_driver.cpp).
// At process exit with sessions still open, the destructor first stops
// vsyncs and ends the alarm thread; an alarm waiting for a stop the
// engine never confirms holds the exit up to that wait's 2 s bound.
//
// Unit tests may build their own Scan_driver with fakes and point
// `the_scan_driver` at it for the duration of a test.
#ifndef VQX_SCAN_DRIVER_H
#define VQX_SCAN_DRIVER_H

#include "IHwl.h"
#include "Sensor_trait.h"

class Exposure_controller_base;
class Sensor;
class IStream_driver;
class Buffer_locker;
class State_manager;
class Available_buffer;
class Progress_tracker;

struct Scan_driver {
    Exposure_controller_base* exposure_controller = nullptr;
    Sensor* sensor = nullptr;
    Sensor_trait* trait = nullptr;
    Sensor_trait::Capabilities capabilities{};
    IStream_driver* stream_driver = nullptr;  // the Stream_driver
    Buffer_locker* buffer_locker = nullptr;
    State_manager* state_manager = nullptr;
    Available_buffer* available_buffer = nullptr;
    Progress_tracker* progress_tracker = nullptr;
    // Defaults stand where the hardware layer's GetConfig leaves a field alone.
    IHwl::Config config{24, 3, 0, 1, 42};
    // The logging decorator over the hardware layer (owned; the hardware
    // layer object itself is never destroyed by the driver).
    IHwl* hwl_decorator = nullptr;

    Scan_driver() = default;
    Scan_driver(const Scan_driver&) = delete;
    Scan_driver& operator=(const Scan_driver&) = delete;
    ~Scan_driver();
};

// The process-wide driver; points at a static Scan_driver by default.
extern Scan_driver* the_scan_driver;

#endif
