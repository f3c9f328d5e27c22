// Driver start-up entry points (defined in Scan_driver.cpp).
//
// Initialize_scan_driver builds the process-wide driver on first use and
// reports whether it is up; a failed start-up is retried by the next call.
// Initialize_scan_driver_runonce is the build itself. Both keep C++ linkage
// and are exported from the shared library.
#ifndef VQX_SCAN_DRIVER_INIT_H
#define VQX_SCAN_DRIVER_INIT_H

#define VQX_EXPORT_CXX __attribute__((visibility("default")))

/// Builds the driver once per process (serialised by a start-up mutex).
/// @p arg is handed to the hardware layer's InitHWLayer unchanged (always
/// null from the session layer). True when the driver is up.
VQX_EXPORT_CXX bool Initialize_scan_driver(void* arg);

/// Builds the driver's object graph; false (with nothing built that later
/// code could reach) when no hardware layer or no supported engine is found.
VQX_EXPORT_CXX bool Initialize_scan_driver_runonce(void* arg);

#endif
