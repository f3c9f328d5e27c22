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
// Threading: any thread may use a handle. Lock order: the body's monitor,
// then the sensor's monitor. Copying and destroying a handle enter the body's
// monitor only.
#ifndef VQX_SCAN_SESSION_H
#define VQX_SCAN_SESSION_H

#include <VQXScanInterface.h>

#include "Exposure_settings.h"

class Scan_session_body;

/// Safe-bool helper: a pointer to a member of this class converts to a truth
/// value but to nothing else, and cannot be compared across classes.
template <class T>
class a_bool {
public:
    typedef void (a_bool::*type)() const;
    void non_comparible_test() const {}
};

class Scan_session {
public:
    typedef a_bool<Scan_session>::type bool_type;

    /// An uninitialised handle.
    Scan_session() = default;
    /// Shares the body of @p other (an uninitialised copy when it has none).
    Scan_session(const Scan_session& other);
    /// Shares the body of @p other; the old body loses one reference.
    Scan_session& operator=(const Scan_session& other);
    /// Drops this handle's reference; destroys the body at the last one.
    virtual ~Scan_session();

    /// True when the handle has a body.
    virtual operator bool_type() const;

    virtual void* Get_single_frame();
    virtual bool Start_scanning(bool stop_after_image);
    virtual bool Stop_scanning();
    virtual unsigned int Get_scan_count();
    virtual void* Get_new_frame();
    virtual bool Is_frame_available() const;
    virtual bool Unlock_buffer(void* buffer);
    virtual bool Lock_buffer(void* buffer);
    virtual bool Get_image_attributes(void* buffer, _tagImageAttributes* attributes) const;
    virtual bool Set_lights(const _tagVQX_SCANNER_LIGHTING& lights);
    virtual bool Get_lights(_tagVQX_SCANNER_LIGHTING& lights) const;
    virtual bool Set_exposure(const Exposure_settings& settings);
    virtual bool Get_exposure(Exposure_settings& settings) const;
    virtual const VQX_SCANENGINE_PROPERTIES_EX* Get_properties() const;
    virtual bool Scan_lock();
    virtual bool Scan_unlock();
    virtual unsigned int Get_scan_lock_count() const;
    virtual bool Set_active(bool active, bool close);
    virtual void Set_power_state(bool on);
    virtual bool Set_sleep_timeout(unsigned int ms);
    virtual bool Get_sleep_timeout(unsigned int& ms);

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
