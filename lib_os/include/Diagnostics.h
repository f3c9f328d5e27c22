// Diagnostics.h - debug output, assertion reports, in-memory log, hex dumps.
//
// Every part of the driver reports through these functions:
//
//  - dbg_output: formatted print to the platform log (tag "ScnDrv", info
//    priority). The log receives the caller's format and arguments directly,
//    so its line is not cut; callers end their formats with "\r\n".
//    With the stderr back end the text goes to stderr as one line
//    "I/ScnDrv: <text>" (a trailing "\r\n" of the text is trimmed).
//  - sd_assert_function / SD_ASSERT: prints "Assertion: ..." and returns.
//    A failed assertion never stops the process; callers carry on.
//  - sd_fatal: stops the process on purpose. Used only right after the alarm
//    heap's consistency checks have reported, where going on is impossible.
//  - dbg_log / dbg_log_dump: an in-memory text log (a linear 256 KiB block,
//    not a ring; text beyond it is dropped until the next dump) collected
//    while the driver runs and printed to standard output on request.
//    The log's lock is acquired and released in a deliberately unbalanced
//    pattern: after the first dbg_log, each dbg_log from a thread that does
//    not own the lock reports two "_owns()" assertions and never blocks, and
//    dbg_log_dump acquires the lock up to four times without releasing it,
//    so a dump from another thread after that waits for ever.
//    Decision: the appends themselves are serialised by a small internal
//    mutex that is held only for the cursor update and the copy of at most
//    256 bytes, so concurrent appends and dumps are free of data races
//    without changing any of the observable behaviour above.
//  - hex_dump: 16 bytes per line ("0000: 41 42 ... - AB..."), delivered to a
//    Lineout sink; hex_dump_msc formats each line and discards it.
//  - silent_trace: the driver's silent trace channel. Modules keep their
//    informational trace texts in the code and send them here; nothing is
//    formatted or output.
//
// Threading: dbg_output, sd_assert_function, hex_dump and silent_trace are
// reentrant. dbg_log and dbg_log_dump may be called from any thread.
#ifndef VQX_LIB_OS_DIAGNOSTICS_H
#define VQX_LIB_OS_DIAGNOSTICS_H

// Declares the exported dbg_output, dbg_log and dbg_log_dump (C linkage).
#include <VQXScanInterface.h>

#include <cstddef>

/// Prints "Assertion: <expr> @ <file> line @<line>\r\n" through dbg_output.
void sd_assert_function(const char* expr, const char* file, unsigned int line);

/// Reports through sd_assert_function when @p cond is false, then continues.
#define SD_ASSERT(cond, text, file, line)                                      \
    do {                                                                       \
        if (!(cond))                                                           \
            sd_assert_function((text), (file), (line));                        \
    } while (0)

/// Stops the process on purpose (a trap).
[[noreturn]] void sd_fatal();

/// The silent trace channel: accepts a trace text and outputs nothing.
inline void silent_trace(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
inline void silent_trace(const char*, ...) {}
/// False while the silent channel outputs nothing: code that prepares text
/// only for it (time stamps on the frame path) skips that work.
constexpr bool silent_trace_enabled = false;

/// Abstract sink that receives finished lines of text.
class Lineout {
public:
    virtual ~Lineout() = default;
    /// Receives one NUL-terminated line without a line terminator.
    virtual void line(const char* text) = 0;
};

/// Formats @p len bytes at @p data as hex dump lines into @p sink.
void hex_dump(Lineout& sink, void* data, size_t len);
/// Hex dump to the platform log, one dbg_output("%s\r\n") per line.
void hex_dump(void* data, size_t len);
/// Hex dump to the silent channel: each line is formatted and discarded.
void hex_dump_msc(void* data, size_t len);

/// Test and diagnostic hook: when set (non-null), receives the text of every
/// dbg_output message as formatted into the 257-character scratch buffer (so
/// cut at 256 characters), in addition to the normal log output. Pass null to
/// remove it. The hook may be called from any thread.
void set_dbg_output_hook(void (*hook)(const char* text));

#endif // VQX_LIB_OS_DIAGNOSTICS_H
