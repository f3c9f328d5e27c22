// Scan_session_body_vqxos: the session body of this driver.
//
// Keeps one client's lights, exposure settings and engine properties, counts
// its starts of scanning and its scan locks, and turns them into requests on
// the driver's shared objects: the power state manager (open, scanning and
// sleep-hold counts), the sensor (lights and exposure changes), the buffer
// locker (client buffer locks) and the available-buffer hand-off (frames).
//
// Created by Scan_session::open_session; destroyed when the last handle goes,
// which stops any scan the client left running, gives back every buffer the
// client still holds and closes the client's use of the engine.
//
// Threading: every operation runs with the body's monitor held (the caller's
// Session_lock; nested entry by the owner is allowed). Operations that reach
// the driver's shared objects take the sensor's monitor after it.
#ifndef VQX_SCAN_VQXOS_H
#define VQX_SCAN_VQXOS_H

#include <cstdint>

#include "Scan_session_body.h"

class Scan_session_body_vqxos : public Scan_session_body {
public:
    Scan_session_body_vqxos();
    ~Scan_session_body_vqxos() override;

    void* Get_single_frame() override;
    bool Start_scanning(bool stop_after_image) override;
    bool Stop_scanning() override;
    bool Stop_scanning(bool wait) override;
    unsigned int Get_scan_count() override;
    void* Get_new_frame() override;
    bool Is_frame_available() const override;
    bool Unlock_buffer(void* buffer) override;
    bool Lock_buffer(void* buffer) override;
    bool Get_image_attributes(void* buffer, _tagImageAttributes* attributes) const override;
    bool Set_lights(const _tagVQX_SCANNER_LIGHTING& lights) override;
    bool Get_lights(_tagVQX_SCANNER_LIGHTING& lights) const override;
    bool Set_exposure(const Exposure_settings& settings) override;
    bool Get_exposure(Exposure_settings& settings) const override;
    const VQX_SCANENGINE_PROPERTIES_EX* Get_properties() const override;
    bool Scan_lock() override;
    bool Scan_unlock() override;
    unsigned int Get_scan_lock_count() const override;
    bool Set_active(bool active, bool close) override;
    void Set_power_state(bool on) override;
    bool Set_sleep_timeout(unsigned int ms) override;
    bool Get_sleep_timeout(unsigned int& ms) override;

private:
    enum : uint8_t {
        FLAG_CLOSING = 0x01,  ///< the destructor runs
        FLAG_RESERVED = 0x02, ///< cleared at construction, not used
    };

    uint64_t lock_cnt = 0;                       ///< scan locks held
    /// This client's copy; buffer_count is filled in by Get_properties once
    /// the engine has streamed (mutable for that).
    mutable VQX_SCANENGINE_PROPERTIES_EX properties{};
    // Frame number at the first start of scanning; kept for diagnostics.
    uint32_t frame_mark = 0;
    uint32_t reserved = 0;
    uint32_t scan_count = 0;                     ///< starts not yet stopped
    uint8_t flags = 0;
    bool active = false;                         ///< counted as open
    _tagVQX_SCANNER_LIGHTING lights{};
    Exposure_settings exposure{};
};

#endif
