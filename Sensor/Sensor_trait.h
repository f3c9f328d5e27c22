// Sensor_trait: the per-engine strategy behind the stream driver and the
// sensor.
//
// One subclass per engine family turns the driver's generic requests (power,
// start and stop of scanning, triggering, exposure and gain, lights, capture
// of one buffer) into register writes and hardware-layer calls. Start-up
// builds exactly one trait and keeps it for the driver's lifetime.
//
// The order of the virtual operations below is fixed (slots 1 to 31 after the
// destructor); an engine trait adds its own operations after slot 31 only.
// Operations without "= 0" carry the base behaviour every engine shares.
//
// State kept by the base: the hardware layer (a reference, not owned), the
// scanning-initialised flag (true after a successful start_scanning, false
// again after stop_scanning), a second flag whose use is engine specific
// (cleared at construction), and the engine's Capabilities record.
//
// Threading: the driver calls a trait only with the sensor's monitor held (or
// during start-up/teardown), so the trait needs no locking of its own.
#ifndef VQX_SENSOR_TRAIT_H
#define VQX_SENSOR_TRAIT_H

#include <cstddef>
#include <cstdint>

#include "Exposure_settings.h"
#include "IHwl.h"
#include "VQXScanInterface.h"

class Sensor_trait {
public:
    // Size-prefixed description of the engine's image. A caller sets `size`
    // to the size of its own record (which may be older/smaller or
    // newer/larger than this one); get_capabilities fills at most that many
    // bytes and reports how many it filled.
    //
    // `width2`/`height2` describe a second image geometry; every engine built
    // here has one geometry, so they equal width/height. `flag` is 1 for
    // every engine built here (a record filled by an engine trait, as opposed
    // to a zeroed one).
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
    // Starts the hardware layer's scanning, then initialize_scanning(); the
    // latter's result becomes the scanning-initialised flag.
    /*  6 */ virtual bool start_scanning();
    /*  7 */ virtual bool initialize_scanning() = 0;
    // deinitialize_scanning(), flag cleared, hardware layer StopScanning().
    // True only when deinitialisation succeeded AND StopScanning returned
    // false: the hardware layer's answer is inverted on purpose, so with a
    // hardware layer whose StopScanning succeeds this reports false. Callers
    // depend on this and it must not be "fixed".
    /*  8 */ virtual bool stop_scanning();
    /*  9 */ virtual bool deinitialize_scanning() = 0;
    // Start exposure of a single frame.
    /* 10 */ virtual void trigger_once() = 0;
    // Start continuous frames.
    /* 11 */ virtual void trigger_on() = 0;
    // Arm the capture of the next frame into @p buffer; true when armed.
    /* 12 */ virtual bool init_capture(const IHwl::Image_buffer_pointers* buffer) = 0;
    /* 13 */ virtual void start_snapshot();
    // Stop frames.
    /* 14 */ virtual void trigger_off() = 0;
    /* 15 */ virtual bool set_starting_exposure_gain(unsigned int& contrast) = 0;
    // Ignores @p exposure and behaves exactly like the one-argument form.
    /* 16 */ virtual bool set_starting_exposure_gain(unsigned int exposure, unsigned int& contrast);
    /* 17 */ virtual bool update_contrast(unsigned int white, unsigned int contrast,
                                          unsigned int& new_contrast) = 0;
    /* 18 */ virtual bool change_lights(const _tagVQX_SCANNER_LIGHTING& lighting) = 0;
    // Copies the engine's record into the caller's: clears caps.size bytes,
    // copies min(caps.size, 32) bytes (size field included) and sets
    // caps.size to the number copied. The caller's storage must really be
    // caps.size bytes long. Every engine shares this copy. A record shorter
    // than the size field itself (size < 8) receives the copied bytes only;
    // its size field is not rewritten.
    /* 19 */ virtual void get_capabilities(Capabilities& caps);
    /* 20 */ virtual IHwl::Image_buffer_pointers* get_image_buffers(uint64_t& count) = 0;
    /* 21 */ virtual bool register_frame_notifications(Frame_callback callback, void* context) = 0;
    /* 22 */ virtual unsigned int current_contrast() = 0;
    /* 23 */ virtual unsigned int current_exposure() = 0;
    /* 24 */ virtual unsigned int current_gain() = 0;
    // Called by the stream driver once per frame.
    /* 25 */ virtual void exposure_frame();
    /* 26 */ virtual bool update_properties(VQX_SCANENGINE_PROPERTIES_EX& properties) = 0;
    /* 27 */ virtual void update_exposure_settings(Exposure_settings& settings);
    /* 28 */ virtual void release_buffer(int buffer);
    /* 29 */ virtual bool request_stop_scanning(Stop_callback callback, void* context);
    // No frame arrived in time; @p tries_left is 2, 1, 0 on successive
    // stalls. True asks the driver to wait once more. The base restarts the
    // trigger (trigger_off, trigger_on) and returns true.
    /* 30 */ virtual bool check_stall(int8_t tries_left);
    // Milliseconds the engine may take to deliver the first frame after a
    // trigger.
    /* 31 */ virtual unsigned int GetMaxResumeTime();

    bool is_scanning_initialised() const { return scanning_initialised; }
    const Capabilities& own_capabilities() const { return capabilities; }

protected:
    // Binds the hardware layer and fills the capabilities from its scan
    // geometry (GetScanWidth, GetScanHeight; second pair equal; flag 1),
    // which is what every engine trait built here wants.
    explicit Sensor_trait(IHwl& hwl);

    // For a trait whose own end-of-frame callback stands between the
    // hardware layer and the client's callback: called from its destructor,
    // it registers the client's callback with the hardware layer directly,
    // so that a frame arriving after the trait is gone never runs the
    // trait's callback on freed memory. At driver teardown the client's
    // callback is the driver's ignore-frames function.
    void withdraw_own_frame_callback(Frame_callback client, void* context);

    IHwl& hwl;
    bool scanning_initialised = false;
    bool second_flag = false;
    Capabilities capabilities{sizeof(Capabilities), 0, 0, 0, 0, 0};
};

static_assert(sizeof(Sensor_trait::Capabilities) == 32, "Capabilities is 32 bytes");
static_assert(offsetof(Sensor_trait::Capabilities, width) == 8, "width at 8");
static_assert(offsetof(Sensor_trait::Capabilities, flag) == 24, "flag at 24");

#endif
