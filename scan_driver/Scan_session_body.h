// Scan_session_body: the shared, reference-counted part of a session.
//
// Abstract base of the session bodies (the one concrete body is
// Scan_session_body_vqxos). It is a Scan_session whose body pointer points at
// itself, and a monitor: every operation runs with this monitor held by the
// caller's Session_lock, and the monitor admits nested entry by its owner.
// `ref_cnt` counts the handles that share the body; it is only changed with
// the monitor held, and the body is destroyed when it falls to 0.
//
// Threading: see Scan_session. The body's monitor is always taken before the
// sensor's monitor.
#ifndef VQX_SCAN_SESSION_BODY_H
#define VQX_SCAN_SESSION_BODY_H

#include <cstdint>

#include "Diagnostics.h"
#include "monitor.h"
#include "scan_session.h"

class Scan_session_body : public Scan_session, public Monitor<Scan_session_body> {
public:
    Scan_session_body() { body = this; }

    ~Scan_session_body() override
    {
        SD_ASSERT(ref_cnt == 0, "ref_cnt == 0", "jni/../scan_session.h", 137);
        // The base handle must not try to release this body again.
        body = nullptr;
    }

    using Scan_session::Stop_scanning;
    /// Ends one start of scanning; @p wait waits for the stream to stop on
    /// the last one.
    virtual bool Stop_scanning(bool wait) = 0;

    /// Number of handles sharing this body.
    uint64_t ref_cnt = 0;
};

#endif
