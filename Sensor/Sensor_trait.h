// Sensor_trait: one engine family's answer to the driver's generic requests.
//
// A subclass turns power, scanning, triggers, exposure and gain, lights and
// buffer capture into register writes and hardware-layer calls. Start-up
// builds exactly one trait and keeps it for the driver's lifetime. The
// driver calls a trait only with the sensor's monitor held (or during
// start-up and teardown); the trait has no lock of its own.
//
// The base holds what every engine shares:
//  - the exposure skeleton: the fixed modes (0, 1) program the fixed
//    setting; the automatic modes start from the starting setting and step
//    the contrast (exposure x gain) by the frame's white value, then split
//    it into rows and gain. An engine supplies its gain unit, its split and,
//    where it has one, its own step;
//  - the control history (Control_history), fed by the engine's declared
//    control delays and its frame counter, which answers what a delivered
//    frame was taken with;
//  - what the trait was built with (Trait_context).
//
// The virtual operations 1 to 31 are called by the driver; an engine adds
// its own after them.
#ifndef VQX_SENSOR_TRAIT_H
#define VQX_SENSOR_TRAIT_H

#include <cstddef>
#include <cstdint>

#include "Control_history.h"
#include "Exposure_settings.h"
#include "IHwl.h"
#include "Register_access.h"
#include "VQXScanInterface.h"

class Exposure_controller_base;
class Monitor_base;

/// What a trait uses from the driver, given when it is built.
struct Trait_context {
    /// The engine's exposure controller: settings and row conversions.
    Exposure_controller_base* exposure = nullptr;
    /// The driver's configuration record; start-up fills it after the
    /// trait is built, so a trait reads it when it needs it.
    const IHwl::Config* config = nullptr;
    /// The sensor's monitor: the lock the driver calls the trait under and
    /// the scheduler of the trait's alarms.
    Monitor_base* monitor = nullptr;
};

class Sensor_trait {
public:
    // Size-prefixed description of the engine's image. A caller sets `size`
    // to the size of its own record; get_capabilities fills at most that
    // many bytes and reports how many it filled. Every engine here has one
    // geometry (width2/height2 = width/height) and `flag` 1.
    struct Capabilities {
        uint64_t size;    // in: bytes of the caller's record; out: bytes filled
        uint32_t width;   // pixels (bytes) per row
        uint32_t height;  // rows
        uint32_t width2;  // second width, = width
        uint32_t height2; // second height, = height
        uint32_t flag;    // 1
    };

    typedef void (*Frame_callback)(int buffer, void* context);
    typedef void (*Stop_callback)(void* context);

    virtual ~Sensor_trait();

    Sensor_trait(const Sensor_trait&) = delete;
    Sensor_trait& operator=(const Sensor_trait&) = delete;

    /*  1 */ virtual bool open_session();
    /*  2 */ virtual void close_session();
    /*  3 */ virtual void power_on();
    /*  4 */ virtual void power_off();
    /*  5 */ virtual void sleep();
    // The hardware layer's StartScanning, then initialize_scanning(), whose
    // result becomes the scanning-initialised flag.
    /*  6 */ virtual bool start_scanning();
    /*  7 */ virtual bool initialize_scanning() = 0;
    // deinitialize_scanning(), flag cleared, the hardware layer's
    // StopScanning. True only when deinitialisation succeeded and
    // StopScanning answered false: the callers expect the layer's answer
    // inverted.
    /*  8 */ virtual bool stop_scanning();
    /*  9 */ virtual bool deinitialize_scanning() = 0;
    /* 10 */ virtual void trigger_once() = 0;  // exposes one frame
    /* 11 */ virtual void trigger_on() = 0;    // continuous frames
    // Arms the capture of the next frame into @p buffer; true when armed.
    /* 12 */ virtual bool init_capture(const IHwl::Image_buffer_pointers* buffer) = 0;
    /* 13 */ virtual void start_snapshot();
    /* 14 */ virtual void trigger_off() = 0;   // stops frames
    // Programs the starting setting (automatic modes) or the fixed one;
    // @p contrast receives exposure x gain. False without a controller.
    /* 15 */ virtual bool set_starting_exposure_gain(unsigned int& contrast);
    // Automatic modes: starts from @p exposure (the contrast the last scan
    // ended at), split as by update_contrast; 0 and the fixed modes behave
    // like the one-argument form.
    /* 16 */ virtual bool set_starting_exposure_gain(unsigned int exposure, unsigned int& contrast);
    // Steps the contrast by the white value of a frame taken at @p contrast
    // and programs it; the fixed modes program the fixed setting.
    /* 17 */ virtual bool update_contrast(unsigned int white, unsigned int contrast,
                                          unsigned int& new_contrast);
    /* 18 */ virtual bool change_lights(const _tagVQX_SCANNER_LIGHTING& lighting) = 0;
    // Clears caps.size bytes, copies min(caps.size, 32) bytes of the
    // engine's record and sets caps.size to the number copied (left alone
    // when the record is too short to hold it).
    /* 19 */ virtual void get_capabilities(Capabilities& caps);
    /* 20 */ virtual IHwl::Image_buffer_pointers* get_image_buffers(uint64_t& count);
    /* 21 */ virtual bool register_frame_notifications(Frame_callback callback, void* context);
    // What the frame being delivered was taken with (no side effects).
    /* 22 */ virtual unsigned int current_contrast();
    /* 23 */ virtual unsigned int current_exposure();
    /* 24 */ virtual unsigned int current_gain();
    // Once per sensor frame at its programming point: moves the control
    // history to the frame's period.
    /* 25 */ virtual void exposure_frame();
    /* 26 */ virtual bool update_properties(VQX_SCANENGINE_PROPERTIES_EX& properties);
    /* 27 */ virtual void update_exposure_settings(Exposure_settings& settings);
    /* 28 */ virtual void release_buffer(int buffer);
    /* 29 */ virtual bool request_stop_scanning(Stop_callback callback, void* context);
    // No frame arrived in time; @p tries_left is 2, 1, 0 on successive
    // stalls. True asks the driver to wait once more. The base restarts the
    // trigger (trigger_off, trigger_on).
    /* 30 */ virtual bool check_stall(int8_t tries_left);
    // Milliseconds the engine may take to deliver the first frame after a
    // trigger.
    /* 31 */ virtual unsigned int GetMaxResumeTime();

    // Right before the sensor reads what a delivered frame was taken with:
    // an engine with a frame counter credits frames the driver did not see
    // between the programming point and the delivery (a frame lost by the
    // transfer leaves its buffer to the next one).
    virtual void frame_delivering();

    bool is_scanning_initialised() const { return scanning_initialised; }
    const Capabilities& own_capabilities() const { return capabilities; }

protected:
    /// Exposure rows and gain in the engine's units.
    struct Exposure_point {
        unsigned rows;
        unsigned gain;
    };
    /// How the engine's gain relates to the settings' gain: engine gain =
    /// (setting + divisor / 2) / divisor, at least `floor`; the automatic
    /// split uses at most the settings' gain `split_ceiling`.
    struct Gain_unit {
        unsigned divisor;
        unsigned floor;
        unsigned split_ceiling;
    };
    /// An engine's fixed properties, as data.
    struct Properties {
        /// Frames from a write to the frame it shapes; {0, 0} for an engine
        /// that keeps no history (it reads back what a frame was taken with).
        Control_history::Delays delays;
        Gain_unit gain_unit;
        /// How the hardware layer counts register transfers.
        Register_layout layout;
        /// The page select register of a paged map.
        Register page_select;
    };
    /// An engine that keeps no history and leaves registers to its layer.
    static constexpr Properties layer_programmed{{0, 0}, {1, 0, ~0u}, Register_burst::sixteen_bit, reg8(0)};

    /// Binds the hardware layer and fills the capabilities from its scan
    /// geometry.
    Sensor_trait(IHwl& hwl, const Trait_context& context, const Properties& properties);

    // Exposure skeleton hooks.
    /// Writes @p point; an engine with a history records there what the
    /// registers now hold.
    virtual bool program(const Exposure_point& point);
    /// Writes the starting point of a scan (by default as program()).
    virtual bool program_start(const Exposure_point& point) { return program(point); }
    /// The contrast step of the automatic modes (by default the shared one).
    virtual unsigned step(unsigned white, unsigned contrast);
    /// Splits an automatic contrast into rows and gain: by default the
    /// engine gain of the settings' maximum, the rest in rows up to
    /// row_limit().
    virtual Exposure_point split(unsigned contrast);
    /// Longest automatic exposure in rows.
    virtual unsigned row_limit();

    /// The settings' gain @p gain in engine units.
    unsigned engine_gain(unsigned gain) const;
    Exposure_point fixed_point();
    Exposure_point start_point();
    /// Programs @p point (program_start() when @p start) and reports in
    /// @p contrast what the engine now holds: the history's record, or the
    /// point asked for when the engine keeps no history.
    bool apply(const Exposure_point& point, unsigned& contrast, bool start = false);
    const Exposure_settings& settings() const;
    bool automatic() const;

    /// Declares the engine's frame counter; exposure_frame then credits the
    /// frames it counts.
    void count_frames_by(Register counter)
    {
        frame_counter = counter;
        has_counter = true;
    }
    /// Reads the frame counter (unread without one).
    Control_history::Count read_frame_counter();
    /// While the history runs on a readable counter: moves it to the frame
    /// the sensor is in now (before a write, so the values are credited to
    /// the frame of the write).
    void follow_frame_counter();

    /// For a trait whose own end-of-frame callback stands between the
    /// hardware layer and the client's: called from its destructor, it
    /// registers the client's callback with the hardware layer directly, so
    /// a late frame never runs the trait's callback on freed memory.
    void withdraw_own_frame_callback(Frame_callback client, void* context);

    IHwl& hwl;
    const Trait_context context;
    Exposure_controller_base* const controller;
    Register_access registers;
    Control_history controls;
    bool scanning_initialised = false;
    Capabilities capabilities{sizeof(Capabilities), 0, 0, 0, 0, 0};

private:
    const Gain_unit gain_unit;
    const bool tracks_controls;
    Register frame_counter = reg16(0);
    bool has_counter = false;
};

static_assert(sizeof(Sensor_trait::Capabilities) == 32, "Capabilities is 32 bytes");
static_assert(offsetof(Sensor_trait::Capabilities, width) == 8, "width at 8");
static_assert(offsetof(Sensor_trait::Capabilities, flag) == 24, "flag at 24");

#endif
