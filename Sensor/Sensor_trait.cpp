// Sensor_trait: base behaviours shared by every engine trait.
#include "Sensor_trait.h"

#include <algorithm>
#include <cstring>

#include "Contrast_step.h"
#include "Exposure_controller.h"

Sensor_trait::Sensor_trait(IHwl& hwl_, const Trait_context& context_, const Properties& properties)
    : hwl(hwl_),
      context(context_),
      controller(context_.exposure),
      registers(hwl_, properties.layout, properties.page_select),
      controls(properties.delays),
      gain_unit(properties.gain_unit),
      tracks_controls(properties.delays.exposure != 0 || properties.delays.gain != 0)
{
    capabilities.width = hwl.GetScanWidth();
    capabilities.height = hwl.GetScanHeight();
    capabilities.width2 = capabilities.width;
    capabilities.height2 = capabilities.height;
    capabilities.flag = 1;
}

Sensor_trait::~Sensor_trait() {}

bool Sensor_trait::open_session() { return hwl.OpenSession(); }

void Sensor_trait::close_session() { hwl.CloseSession(); }

void Sensor_trait::power_on() {}

void Sensor_trait::power_off() {}

void Sensor_trait::sleep() {}

bool Sensor_trait::start_scanning()
{
    if (!hwl.StartScanning())
        return false;
    scanning_initialised = initialize_scanning();
    return scanning_initialised;
}

bool Sensor_trait::stop_scanning()
{
    bool deinitialised = deinitialize_scanning();
    scanning_initialised = false;
    bool hwl_stopped = hwl.StopScanning();
    // Inverted: success needs the hardware layer to answer false.
    return deinitialised && !hwl_stopped;
}

void Sensor_trait::start_snapshot() { hwl.StartSnapshot(); }

void Sensor_trait::get_capabilities(Capabilities& caps)
{
    // The caller's record may be shorter or longer than ours; its size field
    // says how many bytes of storage it has.
    size_t n = static_cast<size_t>(caps.size);
    size_t copied = std::min(n, sizeof(Capabilities));
    unsigned char* out = reinterpret_cast<unsigned char*>(&caps);
    std::memset(out, 0, n);
    std::memcpy(out, &capabilities, copied);
    // A caller too short to hold the size field gets only the bytes copied.
    if (n >= sizeof(caps.size))
        caps.size = copied;
}

IHwl::Image_buffer_pointers* Sensor_trait::get_image_buffers(uint64_t& count)
{
    return hwl.GetImageBuffers(count);
}

bool Sensor_trait::register_frame_notifications(Frame_callback callback, void* context_)
{
    return hwl.RegisterVsyncNotification(callback, context_);
}

void Sensor_trait::withdraw_own_frame_callback(Frame_callback client, void* context_)
{
    if (client)
        hwl.RegisterVsyncNotification(client, context_);
}

bool Sensor_trait::update_properties(VQX_SCANENGINE_PROPERTIES_EX&) { return true; }

void Sensor_trait::update_exposure_settings(Exposure_settings& settings_) { (void)settings_; }

void Sensor_trait::release_buffer(int buffer) { hwl.ReleaseBuffer(buffer); }

bool Sensor_trait::request_stop_scanning(Stop_callback callback, void* context_)
{
    return hwl.RequestStopScanning(callback, context_);
}

bool Sensor_trait::check_stall(int8_t tries_left)
{
    (void)tries_left;
    trigger_off();
    trigger_on();
    return true;
}

unsigned int Sensor_trait::GetMaxResumeTime() { return 100; }

// ---------------------------------------------------------------------------
// What a frame was taken with
// ---------------------------------------------------------------------------

Control_history::Count Sensor_trait::read_frame_counter()
{
    uint16_t count = 0;
    const bool read = has_counter && registers.read(frame_counter, count);
    return {read, count};
}

void Sensor_trait::follow_frame_counter()
{
    if (has_counter && controls.running() && controls.counting())
        controls.frame(read_frame_counter());
}

void Sensor_trait::exposure_frame()
{
    if (has_counter)
        controls.frame(read_frame_counter());
    else
        controls.frame();
}

void Sensor_trait::frame_delivering() { follow_frame_counter(); }

unsigned int Sensor_trait::current_contrast() { return controls.delivered().contrast(); }

unsigned int Sensor_trait::current_exposure() { return controls.delivered().exposure; }

unsigned int Sensor_trait::current_gain() { return controls.delivered().gain; }

// ---------------------------------------------------------------------------
// Exposure skeleton
// ---------------------------------------------------------------------------

const Exposure_settings& Sensor_trait::settings() const { return controller->settings; }

bool Sensor_trait::automatic() const { return controller->settings.mode >= 2; }

unsigned Sensor_trait::engine_gain(unsigned gain) const
{
    const unsigned g = (gain + gain_unit.divisor / 2) / gain_unit.divisor;
    return std::max(g, gain_unit.floor);
}

Sensor_trait::Exposure_point Sensor_trait::fixed_point()
{
    return {controller->fixed_rows(), engine_gain(settings().fixed_gain)};
}

Sensor_trait::Exposure_point Sensor_trait::start_point()
{
    const Exposure_settings& s = settings();
    return {std::min(controller->start_rows(), controller->max_rows()), engine_gain(std::min(s.start_gain, s.max_gain))};
}

unsigned Sensor_trait::row_limit() { return controller->max_rows(); }

unsigned Sensor_trait::step(unsigned white, unsigned contrast)
{
    return shared_contrast_step(white, contrast, settings());
}

Sensor_trait::Exposure_point Sensor_trait::split(unsigned contrast)
{
    const unsigned gain = engine_gain(std::min(settings().max_gain, gain_unit.split_ceiling));
    const unsigned rows = gain != 0 ? contrast / gain : 0;
    return {rows == 0 ? 1 : std::min(rows, row_limit()), gain};
}

bool Sensor_trait::program(const Exposure_point&) { return false; }

bool Sensor_trait::apply(const Exposure_point& point, unsigned& contrast, bool start)
{
    const bool ok = start ? program_start(point) : program(point);
    contrast = tracks_controls ? controls.programmed().contrast() : point.rows * point.gain;
    return ok;
}

bool Sensor_trait::set_starting_exposure_gain(unsigned int& contrast)
{
    if (!controller)
        return false;
    return apply(automatic() ? start_point() : fixed_point(), contrast, true);
}

bool Sensor_trait::set_starting_exposure_gain(unsigned int exposure, unsigned int& contrast)
{
    if (!controller)
        return false;
    if (!automatic() || exposure == 0)
        return set_starting_exposure_gain(contrast);
    return apply(split(exposure), contrast, true);
}

bool Sensor_trait::update_contrast(unsigned int white, unsigned int contrast, unsigned int& new_contrast)
{
    if (!controller)
        return false;
    return apply(automatic() ? split(step(white, contrast)) : fixed_point(), new_contrast);
}
