// The daemon's log: one call with level, source position and a printf-style message, sent to
// syslog, a file and standard output as the handle says. All functions: any thread.
#pragma once

#include <cstdint>

enum log_level : uint32_t {
    LOG_LEVEL_VERBOSE = 0,
    LOG_LEVEL_DBG = 1,
    LOG_LEVEL_INFO = 2,
    LOG_LEVEL_WARN = 3,
    LOG_LEVEL_ERROR = 4,
};

struct log_handle;

// Opens a log. `ident` and `path` are not copied and must outlive the handle; the flags count by
// their lowest bit. Null (with a line on standard error) for bad arguments, no memory, or a file
// that cannot be opened when it is the only destination. Freed by log_close.
log_handle *log_open(const char *ident, uint32_t level, const char *path, int timestamp,
                     int to_syslog, int to_stdout, int to_file, int header);

// log_open with level INFO, syslog only, header on.
log_handle *log_open_default(const char *ident);

// Closes and frees; null is ignored. A thread that still logs to the closed handle is served as
// if it had given a null one.
void log_close(log_handle *handle);

// Emits one message; a null handle sends it to syslog whatever its level. `errno` is reported for
// WARN and ERROR and left as it was found. Adds no newline.
void log_format(log_handle *handle, uint32_t level, const char *source, int line,
                const char *format, ...) __attribute__((format(printf, 5, 6)));

// 1 cuts messages to 1023 characters (the default), 0 prints them whole. -1 for a null or closed
// handle.
int log_configure_trunc(log_handle *handle, int enable);

// "verbose", "dbg", "info", "warn" or "err". -1 for anything else, the level then stays.
int log_set_level_using_str(log_handle *handle, const char *word);

// The number is not checked. -1 for a null or closed handle.
int log_set_level(log_handle *handle, uint32_t level);

// Prints the message and a newline to standard error and aborts the process.
[[noreturn]] void log_die(const char *format, ...) __attribute__((format(printf, 1, 2)));

// The process's log, null before it is opened and after a fatal start-up error.
log_handle *get_log_handle();

// Makes it the process's log; returns the one before, which the caller closes.
log_handle *exchange_log_handle(log_handle *handle);

// What the modules log with; each source file defines LOG_SOURCE as its own path ("src/main").
#define LOGV(...) log_format(get_log_handle(), LOG_LEVEL_VERBOSE, LOG_SOURCE, __LINE__, __VA_ARGS__)
#define LOGD(...) log_format(get_log_handle(), LOG_LEVEL_DBG, LOG_SOURCE, __LINE__, __VA_ARGS__)
#define LOGI(...) log_format(get_log_handle(), LOG_LEVEL_INFO, LOG_SOURCE, __LINE__, __VA_ARGS__)
#define LOGW(...) log_format(get_log_handle(), LOG_LEVEL_WARN, LOG_SOURCE, __LINE__, __VA_ARGS__)
#define LOGE(...) log_format(get_log_handle(), LOG_LEVEL_ERROR, LOG_SOURCE, __LINE__, __VA_ARGS__)

// --- offered to the robot's other programs; the daemon itself calls none of these ---------------

// 1 for one of the five level words, else 0.
int log_is_valid_level_str(const char *word);
