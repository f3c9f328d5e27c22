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
// A trait is built with the sensor's monitor (its lock and its alarms) and
// the driver's configuration record. Start-up fills that record with
// GetConfig after the trait is built, so a trait reads it when it needs it
// (the AR0144's engine variant and orientation, at power-up), and the value
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

// Builds one engine: its logging decorator over @p hwl (whose engine type
// names a hardware layer of class Layer), its exposure controller, and the
// trait with what it uses: the controller, the driver's configuration
// record and the sensor's monitor.
template <class Layer, class Decorator, class Controller, class Trait, class... Extra>
bool install(IHwl& hwl, Scan_driver& driver, Extra&&... extra)
{
    auto* decorator = new Decorator(static_cast<Layer*>(&hwl));
    auto* controller = new Controller();
    const Trait_context context{controller, &driver.config, &driver.sensor->monitor_base()};
    auto* trait = new Trait(*decorator, context, std::forward<Extra>(extra)...);
    controller->bind(trait);
    driver.hwl_decorator = decorator;
    driver.exposure_controller = controller;
    driver.trait = trait;
    return true;
}

// "X7710" is reported only by an IHwl_AR0144.
bool build_ar0144(IHwl& hwl, Scan_driver& driver)
{
    return install<IHwl_AR0144, Hwl_logging_AR0144, Exposure_controller<AR0144_trait>, AR0144_trait>(hwl, driver);
}

// "X5501" and "X5503", reported only by an IHwl_x5501. The register table the
// configuration selects must be at hand before anything is built: the full
// table is device data read from a file, and a missing or malformed file
// refuses the engine (the reason, with the file's path, goes to the platform
// log) instead of streaming a half-configured sensor. The configuration is
// read here for that choice only; start-up reads it again into the driver's
// record in its usual place.
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
    return install<IHwl_x5501, Hwl_logging_x5501, X5501_Exposure_controller<X5501_trait>, X5501_trait>(
        hwl, driver, std::move(full_table));
}

// "APTINA" is reported only by an IHwl_aptina.
bool build_aptina(IHwl& hwl, Scan_driver& driver)
{
    return install<IHwl_aptina, Hwl_logging_aptina, Exposure_controller<Aptina_trait>, Aptina_trait>(hwl, driver);
}

// "KELP" is reported only by an IHwl_kelp.
bool build_kelp(IHwl& hwl, Scan_driver& driver)
{
    return install<IHwl_kelp, Hwl_logging_kelp, Exposure_controller<Kelp_trait>, Kelp_trait>(hwl, driver);
}

// "MT9V022" is reported only by an IHwl_MT9V022.
bool build_mt9v022(IHwl& hwl, Scan_driver& driver)
{
    return install<IHwl_MT9V022, Hwl_logging_MT9V022, Exposure_controller<MT9V022_trait>, MT9V022_trait>(hwl,
                                                                                                         driver);
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
    return install<IHwl_rilo, Hwl_logging_rilo, Exposure_controller<Rilo_trait>, Rilo_trait>(hwl, driver,
                                                                                         std::move(table));
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
    // The sensor's monitor comes first: the trait is built with it.
    d.sensor = new Sensor();
    if (!engine->build(*hwl, d)) {
        destroy(d.sensor);
        return false;
    }

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
