#include "log.h"

#include <syslog.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <string_view>

#include "owned.h"

struct log_handle {
    const char *ident;
    std::atomic<uint32_t> level;
    File file;
    const char *path;
    std::atomic<uint8_t> flags;
};

namespace {

constexpr size_t kLineSize = 1024;  // of every buffer: a message costs stack, never heap

// What goes wrong in the log itself is told on standard error under fixed line numbers: they name
// the fault, wherever its code moves, to those who search a robot's console for them.
constexpr char kSelf[] = "src/log";
constexpr int kBadParameters = 109;
constexpr int kNoMemory = 115;
constexpr int kNoFile = 143;
constexpr int kNotFormatted = 359;
constexpr int kNoClock = 433;
constexpr char kNoFormat[] = "%s: assertion failed: (msg) != NULL (src/log, line 674)";

enum flag : uint8_t {
    kTimestamp = 1 << 0,
    kSyslog = 1 << 1,
    kStdout = 1 << 2,
    kFile = 1 << 3,
    kHeader = 1 << 4,
    kNoTruncation = 1 << 5,
};

struct level_row {
    std::string_view word;  // as commands name it
    const char *name;       // as the header shows it
    int priority;
};

// "DBG" and "err" are what other tools match on, and INFO goes out as a notice: a syslog that keeps
// notices and drops what is less is what robots have.
constexpr std::array<level_row, 5> kLevels{{
    {"verbose", "VERBOSE", LOG_DEBUG},
    {"dbg", "DBG", LOG_DEBUG},
    {"info", "INFO", LOG_NOTICE},
    {"warn", "WARN", LOG_WARNING},
    {"err", "ERROR", LOG_ERR},
}};
static_assert(kLevels.size() == LOG_LEVEL_ERROR + 1);

constexpr bool is_known(uint32_t level) {
    return level < kLevels.size();
}
const char *level_name(uint32_t level) {
    return is_known(level) ? kLevels[level].name : "<BAD LOG LEVEL>";
}
int priority_of(uint32_t level) {
    return is_known(level) ? kLevels[level].priority : LOG_CRIT;
}
bool reports_errno(uint32_t level) {
    return level == LOG_LEVEL_WARN || level == LOG_LEVEL_ERROR;
}

// The open handles and how many calls are using each, so that a thread which still holds a closed
// handle falls back to the null one and none is freed under a call. No lock: who logs never waits
// for another, and closing waits only for calls that began before it. A slot is used again and
// never freed: the list is as long as there were ever handles open at once.
struct slot {
    explicit slot(log_handle *opened) : handle(opened) {}
    std::atomic<log_handle *> handle;
    std::atomic<int> users{0};
    slot *next = nullptr;
};
std::atomic<slot *> first_slot{nullptr};

std::atomic<log_handle *> log_of_process{nullptr};

slot *find_slot(const log_handle *handle) {
    slot *each = first_slot.load();
    while (each != nullptr && each->handle.load() != handle)
        each = each->next;
    return each;
}

bool add_open(log_handle *handle) {
    for (slot *each = first_slot.load(); each != nullptr; each = each->next) {
        log_handle *expected = nullptr;
        if (each->handle.compare_exchange_strong(expected, handle))
            return true;
    }
    slot *const added = new (std::nothrow) slot(handle);
    if (added == nullptr)
        return false;
    added->next = first_slot.load();
    while (!first_slot.compare_exchange_weak(added->next, added)) {
    }
    return true;
}

// False when the handle was not open (any more).
bool remove_open(log_handle *handle) {
    slot *const open = find_slot(handle);
    if (open == nullptr || !open->handle.compare_exchange_strong(handle, nullptr))
        return false;
    while (open->users.load() > 0)
        usleep(1000);
    return true;
}

// Holds a handle open for one call; empty when it is null or closed.
class InUse {
  public:
    explicit InUse(log_handle *handle) : slot_(handle != nullptr ? find_slot(handle) : nullptr) {
        if (slot_ == nullptr)
            return;
        slot_->users.fetch_add(1);
        if (slot_->handle.load() == handle)
            handle_ = handle;
    }
    ~InUse() {
        if (slot_ != nullptr)
            slot_->users.fetch_sub(1);
    }
    InUse(const InUse &) = delete;
    InUse &operator=(const InUse &) = delete;
    log_handle *get() const { return handle_; }

  private:
    slot *slot_;
    log_handle *handle_ = nullptr;
};

uint8_t make_flags(int timestamp, int to_syslog, int to_stdout, int to_file, int header) {
    const auto bit = [](int value, flag mask) { return (value & 1) != 0 ? mask : 0; };
    return static_cast<uint8_t>(bit(timestamp, kTimestamp) | bit(to_syslog, kSyslog) |
                                bit(to_stdout, kStdout) | bit(to_file, kFile) |
                                bit(header, kHeader));
}

// The destinations of one finished line or of one format with its arguments.
void emit_line(const log_handle &handle, uint8_t flags, uint32_t level, const char *line) {
    if ((flags & kSyslog) != 0)
        syslog(priority_of(level), "%s", line);
    if (handle.file) {
        fputs(line, handle.file.get());
        fflush(handle.file.get());
    }
    if ((flags & kStdout) != 0)
        fputs(line, stdout);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

void emit_format(const log_handle &handle, uint8_t flags, uint32_t level, const char *format,
                 va_list args) {
    va_list copy;
    if ((flags & kSyslog) != 0) {
        va_copy(copy, args);
        vsyslog(priority_of(level), format, copy);
        va_end(copy);
    }
    if (handle.file) {
        va_copy(copy, args);
        vfprintf(handle.file.get(), format, copy);
        va_end(copy);
        fflush(handle.file.get());
    }
    if ((flags & kStdout) != 0)
        vprintf(format, args);
}

// Message before everything else: the caller's errno must be read unharmed by "%m" too.
void print_message(char *message, const char *format, va_list args) {
    message[0] = '\0';
    if (vsnprintf(message, kLineSize, format, args) < 0)
        fprintf(stderr, "[ERROR:%s@line-%d] error returned", kSelf, kNotFormatted);
}

// Appends what fits; each piece is cut to the room that is left.
void append(char *line, size_t &used, const char *piece) {
    const size_t count = std::min(strlen(piece), kLineSize - 1 - used);
    memcpy(line + used, piece, count);
    used += count;
    line[used] = '\0';
}

void append_timestamp(char *line, size_t &used) {
    timespec now{};
    if (clock_gettime(CLOCK_MONOTONIC_RAW, &now) != 0) {
        fprintf(stderr, "[ERROR:%s@line-%d] %s returned an error\n", kSelf, kNoClock, "log_printf");
        return;
    }
    std::array<char, 48> stamp{};
    snprintf(stamp.data(), stamp.size(), "%ld.%09ld ", static_cast<long>(now.tv_sec),
             static_cast<long>(now.tv_nsec));
    append(line, used, stamp.data());
}

// The truncating path: header and message through fixed buffers.
void log_printf(const log_handle &handle, uint32_t level, const char *source, int line_number,
                int error, const char *format, va_list args) {
    std::array<char, 128> error_text{};
    const bool with_error = reports_errno(level) && error != 0;
    std::array<char, kLineSize> header;
    snprintf(header.data(), header.size(), "[%s] (%s:%d%s%s)", level_name(level), source,
             line_number, with_error ? " errno:" : "",
             with_error ? strerror_r(error, error_text.data(), error_text.size()) : "");
    std::array<char, kLineSize> message;
    errno = error;
    print_message(message.data(), format, args);
    if (level < handle.level.load(std::memory_order_relaxed))
        return;

    const uint8_t flags = handle.flags.load(std::memory_order_relaxed);
    std::array<char, kLineSize> line{};
    size_t used = 0;
    if ((flags & kTimestamp) != 0)
        append_timestamp(line.data(), used);
    if ((flags & kHeader) != 0) {
        append(line.data(), used, header.data());
        append(line.data(), used, " ");
    }
    append(line.data(), used, message.data());
    emit_line(handle, flags, level, line.data());
}

// The direct path: the header is put before the caller's format, so the message has no limit.
// Its punctuation differs from the truncating path's: what reads either has always met the two.
void log_print_direct(const log_handle *handle, uint32_t level, const char *source, int line_number,
                      int error, const char *format, va_list args) {
    std::array<char, kLineSize> with_header;
    const char *used_format = format;
    if (is_known(level)) {
        std::array<char, 128> error_text{};
        const char *error_word = "";
        if (reports_errno(level))
            error_word =
                error != 0 ? strerror_r(error, error_text.data(), error_text.size()) : "None";
        const int length = snprintf(with_header.data(), with_header.size(), "[%s] (%s:%d%s-%s) %s",
                                    level_name(level), source, line_number,
                                    reports_errno(level) ? " errno" : "", error_word, format);
        if (length >= 0 && length < static_cast<int>(kLineSize) + 1)
            used_format = with_header.data();
    }
    errno = error;
    if (handle == nullptr)
        vsyslog(priority_of(level), used_format, args);
    else if (level >= handle->level.load(std::memory_order_relaxed))
        emit_format(*handle, handle->flags.load(std::memory_order_relaxed), level, used_format,
                    args);
}

#pragma GCC diagnostic pop

// The level a word names, or -1.
int level_of(const char *word) {
    if (word == nullptr)
        return -1;
    for (size_t level = 0; level < kLevels.size(); level++)
        if (kLevels[level].word == word)
            return static_cast<int>(level);
    return -1;
}

}  // namespace

log_handle *get_log_handle() {
    return log_of_process.load(std::memory_order_acquire);
}
log_handle *exchange_log_handle(log_handle *handle) {
    return log_of_process.exchange(handle);
}

log_handle *log_open(const char *ident, uint32_t level, const char *path, int timestamp,
                     int to_syslog, int to_stdout, int to_file, int header) {
    const uint8_t flags = make_flags(timestamp, to_syslog, to_stdout, to_file, header);
    if (ident == nullptr || (flags & (kSyslog | kStdout | kFile)) == 0 ||
        ((flags & kFile) != 0 && path == nullptr)) {
        fprintf(stderr, "[ERROR:%s@line-%d] Invalid Input params to %s\n", kSelf, kBadParameters,
                "log_open");
        return nullptr;
    }
    std::unique_ptr<log_handle> handle(new (std::nothrow)
                                           log_handle{ident, level, {}, path, flags});
    if (!handle) {
        fprintf(stderr, "[ERROR:%s@line-%d] malloc failed\n", kSelf, kNoMemory);
        return nullptr;
    }
    if ((flags & kFile) != 0) {
        handle->file.reset(fopen(path, "ae"));
        if (!handle->file && (flags & (kSyslog | kStdout)) == 0) {
            fprintf(stderr, "[ERROR:%s@line-%d] Unable to open file (%s) for write\n", kSelf,
                    kNoFile, path);
            return nullptr;
        }
    }
    if (!add_open(handle.get())) {
        fprintf(stderr, "[ERROR:%s@line-%d] malloc failed\n", kSelf, kNoMemory);
        return nullptr;
    }
    if ((flags & kSyslog) != 0)
        openlog(ident, LOG_PID | LOG_NDELAY, LOG_DAEMON);
    if ((flags & kStdout) != 0)
        setvbuf(stdout, nullptr, _IOLBF, 0);
    return handle.release();
}

log_handle *log_open_default(const char *ident) {
    return log_open(ident, LOG_LEVEL_INFO, nullptr, 0, 1, 0, 0, 1);
}

void log_close(log_handle *handle) {
    if (handle == nullptr || !remove_open(handle))
        return;
    if ((handle->flags.load() & kSyslog) != 0)
        closelog();
    delete handle;
}

void log_format(log_handle *handle, uint32_t level, const char *source, int line,
                const char *format, ...) {
    const int error = errno;
    va_list args;
    va_start(args, format);
    {
        const InUse in_use(handle);
        log_handle *const open = in_use.get();
        if (open == nullptr || (open->flags.load(std::memory_order_relaxed) & kNoTruncation) != 0)
            log_print_direct(open, level, source, line, error, format, args);
        else
            log_printf(*open, level, source, line, error, format, args);
    }
    va_end(args);
    errno = error;
}

int log_configure_trunc(log_handle *handle, int enable) {
    const InUse in_use(handle);
    if (in_use.get() == nullptr)
        return -1;
    if (enable != 0)
        in_use.get()->flags.fetch_and(static_cast<uint8_t>(~kNoTruncation));
    else
        in_use.get()->flags.fetch_or(kNoTruncation);
    return 0;
}

int log_set_level_using_str(log_handle *handle, const char *word) {
    const int level = level_of(word);
    return level < 0 ? -1 : log_set_level(handle, static_cast<uint32_t>(level));
}

int log_set_level(log_handle *handle, uint32_t level) {
    const InUse in_use(handle);
    if (in_use.get() == nullptr)
        return -1;
    in_use.get()->level.store(level, std::memory_order_relaxed);
    return 0;
}

int log_is_valid_level_str(const char *word) {
    return level_of(word) >= 0 ? 1 : 0;
}

void log_die(const char *format, ...) {
    if (format == nullptr)
        log_die(kNoFormat, "log_die");
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    fputc('\n', stderr);
    abort();
}
