// Scan_driver: the process-wide driver object, its start-up and teardown.
//
// Start-up (Initialize_scan_driver) runs on the first session open, under a
// start-up mutex and an "initialised" flag: a failed start-up is retried by
// the next open, a successful one is never repeated. It asks the hardware
// layer library for its interface (InitHWLayer), reads the engine type, and
// builds the engine's trio (logging decorator over the hardware layer,
// exposure controller, sensor trait) from the engine table, then the engine
// independent objects in a fixed order: sensor, buffer locker, hardware
// configuration, stream driver, power state manager, available-buffer
// hand-off, capabilities, progress tracker, the condition event pool, and
// last the frame notifications, once every object a frame touches exists.
//
// Engine table: the engine type text is matched exactly (case-sensitive)
// against seven rows in a fixed order. The AR0144 engine ("X7710"), the
// MT9M114 engines ("X5501", "X5503"), the MT9V022, Rilo, Kelp and Aptina
// engines have traits in this build (the Aptina trait delivers no frames:
// see Aptina_trait.h). Decision: a text matching no row, and an engine
// whose builder refuses (a register table file missing or malformed: the
// X5501's full table, the Rilo's initial table) fail
// start-up before anything is built: a log line names the engine type or
// the reason, the open that triggered start-up returns null, and the next
// open tries again. Nothing half-built is left where later code could reach
// it.
//
// The AR0144 trait takes the engine variant and image orientation from the
// configuration word at offset 12 of IHwl::Config, which start-up reads with
// GetConfig after the trait is built; the trait reads it from the driver's
// config when it loads the sensor's registers (at power-up), so the value
// from GetConfig is the one in force.
//
// Teardown: the static Scan_driver object is destroyed at library unload. Its
// destructor first points the hardware layer's frame notifications at a
// function that ignores them (a late frame must not reach destroyed objects),
// then destroys, each only if present: stream driver, buffer locker,
// available buffer, progress tracker, state manager, exposure controller,
// trait, the logging decorator, sensor (the sensor's monitor is the lock the
// others share, so it goes last). The hardware layer object itself is never
// destroyed by the driver.
//
// Threading: start-up runs on the opening thread under the library's open
// mutex and the start-up mutex; frame notifications may arrive on the
// hardware layer's thread from the last step on.
#include "Scan_driver.h"

#include <pthread.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "AR0144_trait.h"
#include "Aptina_trait.h"
#include "Available_buffer.h"
#include "Buffer_locker.h"
#include "Diagnostics.h"
#include "Exposure_controller.h"
#include "Hwl_logging.h"
#include "IStream_driver.h"
#include "Kelp_trait.h"
#include "MT9V022_trait.h"
#include "Progress_tracker.h"
#include "Rilo_trait.h"
#include "Scan_driver_init.h"
#include "Sensor.h"
#include "State_manager.h"
#include "Stream_driver.h"
#include "X5501_Exposure_controller.h"
#include "X5501_tables.h"
#include "X5501_trait.h"
#include "monitor.h"

namespace {

Scan_driver the_scan_driver_object;

// Frames that arrive after teardown started are dropped.
void ignore_frame(int, void*) {}

// Builds the engine's decorator, exposure controller and trait into
// @p driver; false when this build has no trait for the engine.
typedef bool (*Engine_builder)(IHwl& hwl, Scan_driver& driver);

bool build_ar0144(IHwl& hwl, Scan_driver& driver)
{
    // The engine type "X7710" is reported only by an IHwl_AR0144.
    auto* decorator = new Hwl_logging_AR0144(static_cast<IHwl_AR0144*>(&hwl));
    auto* controller = new Exposure_controller<AR0144_trait>();
    auto* trait = new AR0144_trait(*decorator, controller);
    controller->bind(trait);
    driver.hwl_decorator = decorator;
    driver.exposure_controller = controller;
    driver.trait = trait;
    return true;
}

// "X5501" and "X5503". The register table the configuration selects must be
// at hand before anything is built: the full table is device data read from
// a file, and a missing or malformed file refuses the engine (the reason,
// with the file's path, goes to the platform log) instead of streaming a
// half-configured sensor. The configuration is read here for that choice
// only; start-up reads it again into the driver's record in its usual place.
bool build_x5501(IHwl& hwl, Scan_driver& driver)
{
    IHwl::Config config = driver.config;
    hwl.GetConfig(&config);
    std::vector<Register_pair> full_table;
    if (config.register_table != x5501_short_table_select) {
        std::string error;
        if (!x5501_full_table.load(full_table, error)) {
            dbg_output("Scan driver not started: %s\r\n", error.c_str());
            return false;
        }
    }
    // The engine types "X5501" and "X5503" are reported only by an IHwl_x5501.
    auto* decorator = new Hwl_logging_x5501(static_cast<IHwl_x5501*>(&hwl));
    auto* controller = new X5501_Exposure_controller<X5501_trait>();
    auto* trait = new X5501_trait(*decorator, controller, std::move(full_table));
    controller->bind(trait);
    driver.hwl_decorator = decorator;
    driver.exposure_controller = controller;
    driver.trait = trait;
    return true;
}

bool build_aptina(IHwl& hwl, Scan_driver& driver)
{
    // The engine type "APTINA" is reported only by an IHwl_aptina.
    auto* decorator = new Hwl_logging_aptina(static_cast<IHwl_aptina*>(&hwl));
    auto* controller = new Exposure_controller<Aptina_trait>();
    auto* trait = new Aptina_trait(*decorator, controller);
    controller->bind(trait);
    driver.hwl_decorator = decorator;
    driver.exposure_controller = controller;
    driver.trait = trait;
    return true;
}

bool build_kelp(IHwl& hwl, Scan_driver& driver)
{
    // The engine type "KELP" is reported only by an IHwl_kelp.
    auto* decorator = new Hwl_logging_kelp(static_cast<IHwl_kelp*>(&hwl));
    auto* controller = new Exposure_controller<Kelp_trait>();
    auto* trait = new Kelp_trait(*decorator, controller);
    controller->bind(trait);
    driver.hwl_decorator = decorator;
    driver.exposure_controller = controller;
    driver.trait = trait;
    return true;
}

bool build_mt9v022(IHwl& hwl, Scan_driver& driver)
{
    // The engine type "MT9V022" is reported only by an IHwl_MT9V022.
    auto* decorator = new Hwl_logging_MT9V022(static_cast<IHwl_MT9V022*>(&hwl));
    auto* controller = new Exposure_controller<MT9V022_trait>();
    auto* trait = new MT9V022_trait(*decorator, controller);
    controller->bind(trait);
    driver.hwl_decorator = decorator;
    driver.exposure_controller = controller;
    driver.trait = trait;
    return true;
}

// "RILO": the Hi704A's initial register table is device data, read from its
// file before anything is built (refused like the X5501's full table).
bool build_rilo(IHwl& hwl, Scan_driver& driver)
{
    std::vector<Register_pair> table;
    std::string error;
    if (!rilo_init_table.load(table, error)) {
        dbg_output("Scan driver not started: %s\r\n", error.c_str());
        return false;
    }
    auto* decorator = new Hwl_logging_rilo(static_cast<IHwl_rilo*>(&hwl));
    auto* controller = new Exposure_controller<Rilo_trait>();
    auto* trait = new Rilo_trait(*decorator, controller, std::move(table));
    controller->bind(trait);
    driver.hwl_decorator = decorator;
    driver.exposure_controller = controller;
    driver.trait = trait;
    return true;
}

struct Engine_row {
    const char* engine_type;
    Engine_builder build;  // false: the engine refused to start (reported)
};

const Engine_row engine_table[] = {
    {"KELP", build_kelp},
    {"RILO", build_rilo},
    {"APTINA", build_aptina},
    {"MT9V022", build_mt9v022},
    {"X7710", build_ar0144},
    {"X5501", build_x5501},
    {"X5503", build_x5501},
};

const Engine_row* find_engine(const char* engine_type)
{
    for (const Engine_row& row : engine_table)
        if (std::strcmp(row.engine_type, engine_type) == 0)
            return &row;
    return nullptr;
}

pthread_mutex_t startup_mutex = PTHREAD_MUTEX_INITIALIZER;
bool initialised = false;  // guarded by startup_mutex

template <class T>
void destroy(T*& p)
{
    delete p;
    p = nullptr;
}

} // namespace

Scan_driver* the_scan_driver = &the_scan_driver_object;

Scan_driver::~Scan_driver()
{
    // No vsync reaches the stream driver from here on. Every alarm runs on
    // the sensor monitor's timer and calls into the parts destroyed below (a
    // sleep alarm may be waiting for a stop the hardware has not confirmed):
    // end that thread before any of them goes.
    if (trait && stream_driver)
        trait->register_frame_notifications(ignore_frame, nullptr);
    if (sensor)
        sensor->monitor_base().end_alarms();
    destroy(stream_driver);
    destroy(buffer_locker);
    destroy(available_buffer);
    destroy(progress_tracker);
    destroy(state_manager);
    destroy(exposure_controller);
    destroy(trait);
    destroy(hwl_decorator);
    destroy(sensor);
}

bool Initialize_scan_driver(void* arg)
{
    pthread_mutex_lock(&startup_mutex);
    if (!initialised)
        initialised = Initialize_scan_driver_runonce(arg);
    const bool up = initialised;
    pthread_mutex_unlock(&startup_mutex);
    return up;
}

bool Initialize_scan_driver_runonce(void* arg)
{
    IHwl* hwl = InitHWLayer(arg);
    if (!hwl)
        return false;

    const char* engine_type = hwl->EngineType();
    if (!engine_type)
        engine_type = "";
    silent_trace("engine_type is %s", engine_type);

    Scan_driver& d = *the_scan_driver;
    const Engine_row* engine = find_engine(engine_type);
    if (!engine) {
        dbg_output("Scan driver not started: unknown engine type \"%s\"\r\n", engine_type);
        return false;
    }
    if (!engine->build(*hwl, d))
        return false;
    d.sensor = new Sensor();

    d.buffer_locker = new Buffer_locker(d.sensor);
    hwl->GetConfig(&d.config);
    d.stream_driver = new Stream_driver(d.sensor, d.config.capture_mode);
    d.state_manager = new State_manager();
    d.available_buffer = new Available_buffer(d.sensor->monitor_base());
    d.capabilities.size = sizeof(Sensor_trait::Capabilities);
    d.trait->get_capabilities(d.capabilities);
    d.progress_tracker = new Progress_tracker();
    get_the_condition_event_pool();
    d.trait->register_frame_notifications(IStream_driver::vsync_ist, d.stream_driver);
    return true;
}
