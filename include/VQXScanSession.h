/*
 * VQXScanSession.h - the session a VQXSI_HANDLE points to, for C++ clients.
 *
 * A handle from VQXSI_OpenSessionWithScanEngine is the address of the
 * driver's session object, whose class is an interface of virtual
 * operations in a fixed slot order. This header declares that interface as
 * VQXSI_Session, the type VQXSI_HANDLE already points to, so a C++ client
 * calls an operation through the handle itself: the call goes through the
 * object's table of virtual operations and links no symbol of the library
 * beyond the VQXSI_* functions.
 *
 *     #include <VQXScanSession.h>
 *
 *     void* frame = VQXSI_GetNewScan(h);
 *     VQX_IMAGE_ATTRIBUTES a = {};
 *     a.size = sizeof a;
 *     if (frame && h->Get_image_attributes(frame, &a))
 *         use(a.exposure, a.gain, a.white_value, a.frame_number);
 *     VQXSI_UnlockBuffer(h, frame);
 *
 * Get_image_attributes is the one operation for clients; the other slots
 * are the driver's own and private here (the C functions reach them). The
 * slot order is part of the library's binary interface: the driver's
 * session class derives from this one and overrides every slot.
 *
 * Unlike the C functions, a call through the handle is not checked: the
 * handle must be an open session, and stay open for the whole call (no
 * VQXSI_CloseSessionWithScanEngine of it in another thread meanwhile). A NULL,
 * closed or never-opened handle is undefined behaviour here. For a checked
 * call use VQXSI_GetImageAttributes (VQXScanAttributes.h, the static
 * library VQXScanAttributes), which refuses such handles with EINVAL.
 */
#ifndef VQX_SCAN_SESSION_PUBLIC_H
#define VQX_SCAN_SESSION_PUBLIC_H

#ifndef __cplusplus
#error "VQXScanSession.h is for C++; C clients use VQXScanAttributes.h"
#endif

#include <VQXScanInterface.h>

/* The driver's exposure parameter set (named by two private slots only;
   clients reach it through the ES_* tags). */
struct Exposure_settings;

struct VQXSI_Session {
    /* The slots in declaration order, which is the order of the table of
       virtual operations; access labels do not change it. */
protected:
    /* Safe-bool type of the driver's validity test. */
    typedef void (VQXSI_Session::*bool_type)() const;
    void bool_true() const {}

    VQXSI_Session() = default;
    /* Not destroyed by clients: VQXSI_CloseSessionWithScanEngine does it. */
    virtual ~VQXSI_Session() = default;

private:
    virtual operator bool_type() const = 0;
    virtual void* Get_single_frame() = 0;
    virtual bool Start_scanning(bool stop_after_image) = 0;
    virtual bool Stop_scanning() = 0;
    virtual unsigned int Get_scan_count() = 0;
    virtual void* Get_new_frame() = 0;
    virtual bool Is_frame_available() const = 0;
    virtual bool Unlock_buffer(void* buffer) = 0;
    virtual bool Lock_buffer(void* buffer) = 0;

public:
    /*
     * Fills the image attributes of a frame this session's client holds
     * (from VQXSI_GetNewScan or VQXSI_GetSingleFrame, not yet given back):
     * the exposure and gain the frame was taken with (engine units), its
     * white value and running frame number (see VQX_IMAGE_ATTRIBUTES).
     *
     * attributes: the caller sets attributes->size; min(size, 40) bytes are
     *             copied and size is set to that number.
     * Result: true; false when `frame` is not one of the driver's frame
     * buffers or `attributes` is NULL (errno unchanged). A frame already
     * given back may carry a later frame's attributes.
     * Blocks: no longer than the session's call in progress.
     */
    virtual bool Get_image_attributes(void* frame, VQX_IMAGE_ATTRIBUTES* attributes) const = 0;

private:
    virtual bool Set_lights(const VQX_SCANNER_LIGHTING& lights) = 0;
    virtual bool Get_lights(VQX_SCANNER_LIGHTING& lights) const = 0;
    virtual bool Set_exposure(const Exposure_settings& settings) = 0;
    virtual bool Get_exposure(Exposure_settings& settings) const = 0;
    virtual const VQX_SCANENGINE_PROPERTIES_EX* Get_properties() const = 0;
    virtual bool Scan_lock() = 0;
    virtual bool Scan_unlock() = 0;
    virtual unsigned int Get_scan_lock_count() const = 0;
    virtual bool Set_active(bool active, bool close) = 0;
    virtual void Set_power_state(bool on) = 0;
    virtual bool Set_sleep_timeout(unsigned int ms) = 0;
    virtual bool Get_sleep_timeout(unsigned int& ms) = 0;
};

#endif /* VQX_SCAN_SESSION_PUBLIC_H */
