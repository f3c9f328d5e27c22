// Scan_session: the handle a client holds between open and close.
//
// A handle is small: a pointer to a reference-counted body
// (Scan_session_body) that keeps the client's lights, exposure settings,
// engine properties and its counts of scan starts and scan locks. Handles
// copy by sharing the body; the body goes when its last handle goes. The
// exported C functions receive a Scan_session* as their opaque handle.
//
// Every operation of the handle takes a Session_lock on the body (its
// monitor, waited for without limit) and forwards to the body's operation of
// the same name. A handle without a body is "uninitialised": its operations
// report "Attempt to use an uninitialzed session", set errno to 1 and return
// 0, false or null.
//
// The body is itself a Scan_session whose body pointer points at itself, so
// that the body's own operations can be called through the same interface.
//
// The virtual operations are those of VQXSI_Session (VQXScanSession.h, the
// installed declaration C++ clients call through the handle), in its slot
// order: Scan_session derives from it, overrides every slot and declares no
// virtual operation of its own, so its table of virtual operations is the
// public one and the handle's address is the VQXSI_Session's.
//
// Threading: any thread may use a handle. Lock order: the body's monitor,
// then the sensor's monitor. Copying and destroying a handle enter the body's
// monitor only.
#ifndef VQX_SCAN_SESSION_H
#define VQX_SCAN_SESSION_H

#include <VQXScanInterface.h>
#include <VQXScanSession.h>

#include <type_traits>

#include "Exposure_settings.h"

class Scan_session_body;

class Scan_session : public VQXSI_Session {
public:
    /// Safe-bool: converts to a truth value but to nothing else.
    using VQXSI_Session::bool_type;

    /// An uninitialised handle.
    Scan_session() = default;
    /// Shares the body of @p other (an uninitialised copy when it has none).
    Scan_session(const Scan_session& other);
    /// Shares the body of @p other; the old body loses one reference.
    Scan_session& operator=(const Scan_session& other);
    /// Drops this handle's reference; destroys the body at the last one.
    ~Scan_session() override;

    /// True when the handle has a body.
    operator bool_type() const override;

    void* Get_single_frame() override;
    bool Start_scanning(bool stop_after_image) override;
    bool Stop_scanning() override;
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

    /// Starts the driver if needed and opens a new session; null on failure.
    static Scan_session* open_session();

    /// Drops this handle's body (the handle becomes uninitialised).
    void release();

    /// True when the handle has a body; otherwise reports the misuse, sets
    /// errno to 1 and returns false.
    bool check_session() const;

protected:
    Scan_session_body* body = nullptr;

    friend class Session_lock;
};

// The public declaration adds no data: a handle's object is its table
// pointer and its body pointer, and the handle is its VQXSI_Session.
static_assert(sizeof(VQXSI_Session) == sizeof(void*), "VQXSI_Session holds the table pointer only");
static_assert(sizeof(Scan_session) == 2 * sizeof(void*), "a handle is a table pointer and a body pointer");
static_assert(std::is_base_of<VQXSI_Session, Scan_session>::value, "the handle is a VQXSI_Session");

/// Stack guard over a session's body monitor. Holds nothing (and reports)
/// when the session is uninitialised.
class Session_lock {
public:
    explicit Session_lock(const Scan_session& session);
    ~Session_lock();
    Session_lock(const Session_lock&) = delete;
    Session_lock& operator=(const Session_lock&) = delete;

    /// The locked body, or null.
    Scan_session_body* get() const { return p_body; }
    Scan_session_body* operator->() const { return p_body; }
    explicit operator bool() const { return p_body != nullptr; }

private:
    Scan_session_body* p_body = nullptr;
};

#endif
