// Diagnostics.cpp - debug output, assertion reports, in-memory log, hex dumps.
//
// See Diagnostics.h for the behaviour and the decisions taken.
#include "Diagnostics.h"

#include "Synchronization.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>

#if defined(VQX_LOG_ANDROID)
#include <android/log.h>
#endif

using namespace Synchroniztion_internal;

namespace {

constexpr size_t scratch_size = 257;          // 256 characters plus NUL
constexpr size_t log_text_size = 0x40000;     // 262,144 bytes of text
constexpr size_t log_block_size = log_text_size + 1;

std::atomic<void (*)(const char*)> dbg_output_hook{nullptr};

// Formats into a scratch buffer of scratch_size, cut at 256 characters.
// Returns the length the full text would have had.
int format_scratch(char* scratch, const char* format, va_list args)
{
    const int full = vsnprintf(scratch, scratch_size, format, args);
    scratch[scratch_size - 1] = '\0';
    return full;
}

#if defined(VQX_LOG_STDERR)
// One stderr line per message, without the caller's line terminator.
void write_stderr_line(const char* text)
{
    size_t len = std::strlen(text);
    while (len > 0 && (text[len - 1] == '\n' || text[len - 1] == '\r'))
        --len;
    std::fprintf(stderr, "I/ScnDrv: %.*s\n", static_cast<int>(len), text);
}
#endif

// ---------------------------------------------------------------------------
// In-memory log
// ---------------------------------------------------------------------------

// Process-wide state of the in-memory log, created on first use and never
// destroyed (threads may still log while the process exits).
//
// `lock` is the log's public lock with its unbalanced acquire/release
// pattern. `append` only makes the pointer updates and the copy well defined:
// it is never held while waiting on `lock` or while printing.
struct Debug_log {
    std::mutex append;
    char* start = nullptr;
    char* cursor = nullptr;
    std::atomic<MT_Mutex_struct*> lock{nullptr};
};

Debug_log& debug_log()
{
    static Debug_log* const log = new Debug_log;
    return *log;
}

// First use (or first use after a failed allocation): a new lock, taken
// twice by the caller, and a new block.
void debug_log_begin(Debug_log& log)
{
    std::lock_guard<std::mutex> guard(log.append);
    if (log.start != nullptr)
        return;
    auto* lock = new (std::nothrow) MT_Mutex_struct(false);
    log.lock.store(lock);
    char* block = static_cast<char*>(std::malloc(log_block_size));
    if (lock != nullptr) {
        lock->wait(MT_INFINITE);
        lock->wait(MT_INFINITE);
    }
    log.start = block;
    log.cursor = block;
}

void release_log_lock(Debug_log& log)
{
    if (MT_Mutex_struct* lock = log.lock.load())
        lock->release();
}

void acquire_log_lock(Debug_log& log)
{
    if (MT_Mutex_struct* lock = log.lock.load())
        lock->wait(MT_INFINITE);
}

void debug_log_append(Debug_log& log, const char* text, size_t n)
{
    std::lock_guard<std::mutex> guard(log.append);
    if (log.start == nullptr)
        return;  // the block could not be allocated: the text is dropped
    const uint32_t used = static_cast<uint32_t>(log.cursor - log.start);
    const uint32_t room = static_cast<uint32_t>(log_text_size) - used;
    const size_t count = n < room ? n : room;
    std::memcpy(log.cursor, text, count);
    log.cursor += count;
}

bool debug_log_empty(Debug_log& log)
{
    std::lock_guard<std::mutex> guard(log.append);
    return log.start == nullptr || log.cursor == log.start;
}

// Prints [text, end) in pieces that end after a newline or after 256
// characters, whichever comes first.
void print_pieces(const char* text, const char* end)
{
    char piece[scratch_size];
    while (text < end) {
        size_t n = 0;
        while (text < end && n < scratch_size - 1) {
            const char c = *text++;
            piece[n++] = c;
            if (c == '\n')
                break;
        }
        piece[n] = '\0';
        std::printf("%s", piece);
    }
}

// ---------------------------------------------------------------------------
// Hex dump
// ---------------------------------------------------------------------------

constexpr size_t hex_bytes_per_line = 16;
// Offset (5 or more), hex column (51), " - " and the character column (17).
constexpr size_t hex_line_size = 96;

size_t append_hex_column(char* out, const unsigned char* run, size_t count)
{
    size_t pos = 0;
    for (size_t i = 0; i < hex_bytes_per_line; ++i) {
        if (i < count)
            pos += std::snprintf(out + pos, 4, " %02X", run[i]);
        else
            pos += std::snprintf(out + pos, 4, "   ");
        if (i == 3 || i == 7 || i == 11)
            out[pos++] = ' ';
    }
    return pos;
}

size_t append_char_column(char* out, const unsigned char* run, size_t count)
{
    size_t pos = 0;
    out[pos++] = ' ';
    out[pos++] = '-';
    out[pos++] = ' ';
    for (size_t j = 0; j < count; ++j) {
        if (j == 8)
            out[pos++] = ' ';
        const unsigned char c = run[j];
        out[pos++] = (c >= 0x20 && c <= 0x7E) ? static_cast<char>(c) : '.';
    }
    return pos;
}

// Sink of hex_dump(void*, size_t): the platform log.
class Dbg_lineout : public Lineout {
public:
    void line(const char* text) override { dbg_output("%s\r\n", text); }
};

// Sink of hex_dump_msc: the silent channel.
class Msc_lineout : public Lineout {
public:
    void line(const char* text) override { silent_trace("%s", text); }
};

} // namespace

// ---------------------------------------------------------------------------
// Exported functions
// ---------------------------------------------------------------------------

extern "C" void dbg_output(const char* format, ...)
{
    char scratch[scratch_size];
    va_list args;
    va_start(args, format);
    va_list scratch_args;
    va_copy(scratch_args, args);
    const int full = format_scratch(scratch, format, scratch_args);
    va_end(scratch_args);

    if (auto hook = dbg_output_hook.load(std::memory_order_acquire))
        hook(scratch);

#if defined(VQX_LOG_ANDROID)
    (void)full;
    __android_log_vprint(ANDROID_LOG_INFO, "ScnDrv", format, args);
#elif defined(VQX_LOG_STDERR)
    // Like the platform log, the line is not cut at 256 characters.
    if (full >= static_cast<int>(scratch_size)) {
        std::string text(static_cast<size_t>(full) + 1, '\0');
        vsnprintf(&text[0], text.size(), format, args);
        write_stderr_line(text.c_str());
    } else {
        write_stderr_line(scratch);
    }
#else
    (void)full;
#endif
    va_end(args);
}

extern "C" void dbg_log(const char* format, ...)
{
    Debug_log& log = debug_log();
    debug_log_begin(log);

    char scratch[scratch_size];
    va_list args;
    va_start(args, format);
    format_scratch(scratch, format, args);
    va_end(args);
    const size_t n = std::strlen(scratch);

    release_log_lock(log);
    debug_log_append(log, scratch, n);
    release_log_lock(log);
}

extern "C" void dbg_log_dump(void)
{
    Debug_log& log = debug_log();
    acquire_log_lock(log);
    if (debug_log_empty(log))
        return;

    acquire_log_lock(log);
    char* block = static_cast<char*>(std::malloc(log_block_size));
    acquire_log_lock(log);
    char* old_start;
    char* old_cursor;
    {
        std::lock_guard<std::mutex> guard(log.append);
        old_start = log.start;
        old_cursor = log.cursor;
        log.start = block;
        log.cursor = block;
    }
    acquire_log_lock(log);

    print_pieces(old_start, old_cursor);
    std::free(old_start);
}

// ---------------------------------------------------------------------------
// Assertions, fatal stop, hook
// ---------------------------------------------------------------------------

void sd_assert_function(const char* expr, const char* file, unsigned int line)
{
    dbg_output("Assertion: %s @ %s line @%u\r\n", expr, file, line);
}

void sd_fatal()
{
    __builtin_trap();
}

void set_dbg_output_hook(void (*hook)(const char* text))
{
    dbg_output_hook.store(hook, std::memory_order_release);
}

// ---------------------------------------------------------------------------
// Hex dumps
// ---------------------------------------------------------------------------

void hex_dump(Lineout& sink, void* data, size_t len)
{
    const auto* bytes = static_cast<const unsigned char*>(data);
    char line[hex_line_size];
    for (size_t off = 0; off < len; off += hex_bytes_per_line) {
        const size_t count = len - off < hex_bytes_per_line ? len - off : hex_bytes_per_line;
        size_t pos = static_cast<size_t>(
            std::snprintf(line, sizeof(line), "%04X:", static_cast<uint32_t>(off)));
        pos += append_hex_column(line + pos, bytes + off, count);
        pos += append_char_column(line + pos, bytes + off, count);
        line[pos] = '\0';
        sink.line(line);
    }
}

void hex_dump(void* data, size_t len)
{
    Dbg_lineout sink;
    hex_dump(sink, data, len);
}

void hex_dump_msc(void* data, size_t len)
{
    Msc_lineout sink;
    hex_dump(sink, data, len);
}
