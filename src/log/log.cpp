#include <tarnel_util/tn_csv.h>
#include <tarnel_util/tn_fmt.h>
#include <tarnel_util/tn_log.h>
#include <tarnel_util/tn_mutex.h>
#include <tarnel_util/tn_str.h>
#include <tarnel_util/tn_str_array.h>
#include <tarnel_util/tn_thread.h>
#include <tarnel_util/tn_time.h>

#include "platform/platform.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

enum : tn_int32 { silent = 0, error = 1, warning = 2, info = 3, debug = 4 };

const char letters[] = " EWID";

// Where set-up stands: at most one thread runs it, and a failed one lets
// a later call try again.
enum : tn_int32 { not_set_up = 0, setting_up = 1, set_up_done = 2 };

struct log_state {
    // Stored last by set-up with release order: a thread that reads it with
    // acquire order also sees the mutex, the tags and the filter, which never
    // change afterwards.
    std::atomic<FILE *> stream{nullptr};
    std::atomic<tn_int32> phase{not_set_up};
    // The one value that changes while other threads log.
    std::atomic<tn_int32> level{silent};
    tn_mutex mutex{};
    tn_str_array tags{};
    tn_uint32 tag_count = 0;
    bool include = false;
};

// Constant-initialised, so that loading the library runs no code for it.
constinit log_state state;

const tn_uchar *u(const char *s) { return reinterpret_cast<const tn_uchar *>(s); }

tn_int32 held(tn_int32 level) { return level < silent ? silent : level > debug ? debug : level; }

const char *env_value(const char *name)
{
    const char *value = std::getenv(name);
    return value && *value ? value : nullptr;
}

// The stream stays open: lines logged by clean-ups that run after this one
// still reach it, written without the lock and without the filter, whose
// tags are gone.
void clean_up()
{
    tn_mutex_free(&state.mutex);
    tn_str_array_free(&state.tags);
    state.tag_count = 0;
}


void read_filter()
{
    const char *include = env_value("TN_LOG_INCLUDE");
    const char *exclude = env_value("TN_LOG_EXCLUDE");
    if (!include == !exclude) return;
    if (!tn_csv_split(u(include ? include : exclude), &state.tags)) return;
    state.tag_count = tn_str_array_length(&state.tags);
    state.include = include != nullptr;
}

FILE *set_up(const char *path)
{
    tn_str_array_init(&state.tags);
    if (!tn_mutex_create(&state.mutex)) return nullptr;
    std::atexit(clean_up);
    if (const char *text = env_value("TN_LOG_LEVEL")) {
        tn_uint32 value = 0;
        tn_str_scan_uint(u(text), &value);
        state.level.store(held(static_cast<tn_int32>(value)), std::memory_order_relaxed);
    }
    FILE *stream = tn::log_stream::open(path ? path : env_value("TN_LOG_PATH"));
    read_filter();
    state.stream.store(stream, std::memory_order_release);
    return stream;
}

// Threads that make their first calls at once must not each make a mutex
// and open the file, which would truncate it under the others' lines: the
// first to claim set-up runs it, and the rest wait for its end. Returns the
// stream, null if set-up failed; ran tells whether this call set up.
FILE *set_up_once(const char *path, bool &ran)
{
    ran = false;
    if (FILE *stream = state.stream.load(std::memory_order_acquire)) return stream;
    tn_int32 expected = not_set_up;
    if (state.phase.compare_exchange_strong(expected, setting_up, std::memory_order_acquire)) {
        ran = true;
        FILE *stream = set_up(path);
        state.phase.store(stream ? set_up_done : not_set_up, std::memory_order_release);
        return stream;
    }
    // Set-up takes a few system calls once in the process's life, so the
    // wait spins rather than needing a lock of its own.
    while (state.phase.load(std::memory_order_acquire) == setting_up) tn_thread_yield();
    return state.stream.load(std::memory_order_acquire);
}

// The stream to write a line of this level and tag to, or null when the line
// is not written.
FILE *admit(tn_int32 level, const char *tag)
{
    bool ran;
    FILE *stream = set_up_once(nullptr, ran);
    if (!stream) return nullptr;
    if (state.level.load(std::memory_order_relaxed) < level) return nullptr;
    if (tag && state.tag_count) {
        bool listed = tn_str_array_find(&state.tags, u(tag)) < state.tag_count;
        if (listed != state.include) return nullptr;
    }
    return stream;
}

// Collects a line, or several lines of a dump, on the stack, so that an
// unbuffered stream such as standard error sees one write per line and not
// one per piece.
class line_writer {
public:
    explicit line_writer(FILE *stream) : stream_(stream) {}

    FILE *stream() const { return stream_; }

    void flush()
    {
        if (used_) std::fwrite(buffer_, 1, used_, stream_);
        used_ = 0;
    }

    void put(const void *bytes, size_t size)
    {
        if (size > sizeof buffer_ - used_) {
            flush();
            if (size > sizeof buffer_) {
                std::fwrite(bytes, 1, size, stream_);
                return;
            }
        }
        if (size) std::memcpy(buffer_ + used_, bytes, size);
        used_ += size;
    }
    void put(const char *text) { put(text, std::strlen(text)); }
    void put(char c)
    {
        *room(1) = static_cast<tn_uchar>(c);
        ++used_;
    }

    // Room for size bytes (at most the whole buffer) after what is held; the
    // caller fills some of it and adds their count with grow.
    tn_uchar *room(size_t size)
    {
        if (size > sizeof buffer_ - used_) flush();
        return buffer_ + used_;
    }
    size_t free_space() const { return sizeof buffer_ - used_; }
    void grow(size_t size) { used_ += size; }

    void prefix(tn_int32 level, const char *tag, bool timed)
    {
        if (timed) {
            tn_time now;
            tn_time_msec(&now);
            grow(tn_str_fmt_int64(room(20), now));
            put(' ');
        }
        put(letters[level]);
        put(": ", 2);
        if (tag) {
            put(tag);
            put(": ", 2);
        }
    }

private:
    FILE *stream_;
    size_t used_ = 0;
    tn_uchar buffer_[512];
};

// Steps every form shares: admission, then the body under the mutex and one
// flush. A lock that reads as failed either owns the mutex after a dead owner
// or finds it freed at process end; the line is written in both cases, and an
// unlock of a mutex not owned does nothing.
template <class Body>
void emit(tn_int32 level, const char *tag, Body body)
{
    FILE *stream = admit(level, tag);
    if (!stream) return;
    tn_mutex_lock(&state.mutex);
    line_writer out(stream);
    body(out);
    out.flush();
    std::fflush(stream);
    tn_mutex_unlock(&state.mutex);
}

void log_text(tn_int32 level, bool timed, const char *tag, const char *message)
{
    emit(level, tag, [&](line_writer &out) {
        out.prefix(level, tag, timed);
        out.put(message);
        out.put('\n');
    });
}

// Formats into the line's buffer when the text fits, so that the line goes
// out in one write; longer text streams straight through.
TN_PRINTF(2, 0) void put_format(line_writer &out, const char *format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    size_t space = out.free_space();
    int count = std::vsnprintf(reinterpret_cast<char *>(out.room(0)), space, format, arguments);
    if (count >= 0 && static_cast<size_t>(count) < space) {
        out.grow(static_cast<size_t>(count));
    } else {
        out.flush();
        std::vfprintf(out.stream(), format, again);
    }
    va_end(again);
}

TN_PRINTF(4, 0) void log_format(tn_int32 level, bool timed, const char *tag, const char *format, va_list arguments)
{
    emit(level, tag, [&](line_writer &out) {
        out.prefix(level, tag, timed);
        put_format(out, format, arguments);
        out.put('\n');
    });
}

void log_bytes(tn_int32 level, const char *tag, const void *bytes, tn_uint32 size)
{
    emit(level, tag, [&](line_writer &out) {
        out.prefix(level, tag, false);
        out.put(bytes, size);
        out.put('\n');
    });
}

void log_dump(tn_int32 level, const char *tag, const void *bytes, tn_uint32 size)
{
    emit(level, tag, [&](line_writer &out) {
        const tn_uchar *at = static_cast<const tn_uchar *>(bytes);
        // Counted in runs, not offsets, so that a size near the top of the
        // range cannot wrap the loop.
        tn_uint32 runs = size / 16 + (size % 16 != 0);
        for (tn_uint32 run = 0; run < runs; ++run) {
            out.prefix(level, tag, false);
            out.grow(tn_str_fmt_0xint32(out.room(8), run * 16, 8));
            tn_uint32 end = size - run * 16 < 16 ? size : run * 16 + 16;
            for (tn_uint32 i = run * 16; i < end; ++i) {
                tn_uchar *hex = out.room(3);
                hex[0] = ' ';
                out.grow(1 + tn_str_fmt_0xint8(hex + 1, at[i], 2));
            }
            out.put('\n');
        }
        out.prefix(level, tag, false);
        out.grow(tn_str_fmt_0xint32(out.room(8), runs * 16, 8));
        out.put('\n');
    });
}

} // namespace

void tn_log_e(const char *tag, const char *message) { log_text(error, false, tag, message); }
void tn_log_et(const char *tag, const char *message) { log_text(error, true, tag, message); }
void tn_log_ev(const char *tag, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    log_format(error, false, tag, format, arguments);
    va_end(arguments);
}
void tn_log_evt(const char *tag, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    log_format(error, true, tag, format, arguments);
    va_end(arguments);
}
void tn_log_en(const char *tag, const void *bytes, tn_uint32 size) { log_bytes(error, tag, bytes, size); }
void tn_log_eh(const char *tag, const void *bytes, tn_uint32 size) { log_dump(error, tag, bytes, size); }

void tn_log_w(const char *tag, const char *message) { log_text(warning, false, tag, message); }
void tn_log_wt(const char *tag, const char *message) { log_text(warning, true, tag, message); }
void tn_log_wv(const char *tag, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    log_format(warning, false, tag, format, arguments);
    va_end(arguments);
}
void tn_log_wvt(const char *tag, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    log_format(warning, true, tag, format, arguments);
    va_end(arguments);
}
void tn_log_wn(const char *tag, const void *bytes, tn_uint32 size) { log_bytes(warning, tag, bytes, size); }
void tn_log_wh(const char *tag, const void *bytes, tn_uint32 size) { log_dump(warning, tag, bytes, size); }

void tn_log_i(const char *tag, const char *message) { log_text(info, false, tag, message); }
void tn_log_it(const char *tag, const char *message) { log_text(info, true, tag, message); }
void tn_log_iv(const char *tag, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    log_format(info, false, tag, format, arguments);
    va_end(arguments);
}
void tn_log_ivt(const char *tag, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    log_format(info, true, tag, format, arguments);
    va_end(arguments);
}
void tn_log_in(const char *tag, const void *bytes, tn_uint32 size) { log_bytes(info, tag, bytes, size); }
void tn_log_ih(const char *tag, const void *bytes, tn_uint32 size) { log_dump(info, tag, bytes, size); }

void tn_log_d(const char *tag, const char *message) { log_text(debug, false, tag, message); }
void tn_log_dt(const char *tag, const char *message) { log_text(debug, true, tag, message); }
void tn_log_dv(const char *tag, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    log_format(debug, false, tag, format, arguments);
    va_end(arguments);
}
void tn_log_dvt(const char *tag, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    log_format(debug, true, tag, format, arguments);
    va_end(arguments);
}
void tn_log_dn(const char *tag, const void *bytes, tn_uint32 size) { log_bytes(debug, tag, bytes, size); }
void tn_log_dh(const char *tag, const void *bytes, tn_uint32 size) { log_dump(debug, tag, bytes, size); }

void tn_log_set_level(tn_int32 level) { state.level.store(held(level), std::memory_order_relaxed); }

tn_bool tn_log_set_path(const char *path)
{
    bool ran;
    set_up_once(path, ran);
    return ran;
}

