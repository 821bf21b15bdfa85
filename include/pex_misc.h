// The command runner and the small text, time and lock helpers of the platform. Any thread.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "owned.h"

// Whether an errno says that memory, descriptors or processes were short, and may not be soon.
bool pex_is_shortage(int error);

// What `make` makes, tried anew while that is nothing (false, null, empty) with the errno of a
// shortage, but ten times at most, a second apart: for what would be missed much longer than the
// shortage lasts. After nothing, errno is that of the last try.
template <typename Make>
auto pex_outlast_shortage(const Make &make) {
    constexpr int kTries = 10;
    for (int tries = 1;; tries++) {
        errno = 0;
        auto made = make();
        if (made || !pex_is_shortage(errno) || tries == kTries)
            return made;
        sleep(1);
    }
}

// Runs a command line through the shell, waits for it without a limit, and logs its outcome under
// the module's name. 0 or -1; `detail` (may be null) gets the exit code or an errno.
int pex_system(const char *module, const char *command, int *detail);

// How a command line ended: with exit code 0, with another (`value`), by a signal (`value` is the
// raw wait status), or without that anybody knows: somebody else reaped it, or it was not run.
enum class command_end { done, failed, signalled, reaped, not_run };
struct command_outcome {
    command_end end;
    int value;
};

// Runs a command line through the C library's system(), outlasts a shortage of processes, says
// nothing to the log, and leaves errno as system() left it. Each caller makes of the outcome what
// it has promised its own callers.
command_outcome pex_run(const char *command);

// The rest of a stream as text, freed by the caller, `*length` with its terminator; null and 0
// when there was nothing.
char *pex_read_terminated_stream(FILE *stream, size_t *length);

// Waits 10 s, flushes the file systems and reboots the robot. The shell's status.
int pex_system_reboot();
// The same, but what is asked at the last moment may call it off: then there is no status.
std::optional<int> pex_system_reboot_unless(bool (*is_forbidden)());

// Upper-case hexadecimal text, freed by the caller; null without memory.
char *hex_encode_str_malloc(const void *bytes, size_t count);

// The bytes of a hexadecimal text, terminated and freed by the caller; null for anything else.
// Only the first (length modulo 256) characters count. `text` must not be null.
char *hex_decode_str_malloc(const char *text);

// 1 for an even number of hexadecimal digits (none counts), else 0.
int ishexstring(const char *text);

// 0 when every byte is printable ASCII, else -1.
int non_print_char_check(const char *text);

// Derives the 256-bit PSK of a WPA passphrase (IEEE 802.11, PBKDF2-HMAC-SHA1, 4096 rounds) as 64
// lower-case digits. 0; 1 for a capacity below 65 or a failed derivation.
int wpa_passphrase(const char *ssid, const char *passphrase, char *out, size_t capacity);

// Masks the quoted value of the first "ssid=" with "*", in place.
void pex_hide_ssid(char *text);

// Masks the first `octets` octets of the first MAC address on the first line, in place. 1 when an
// address was found, else 0.
int pex_hide_mac_addr(char *text, int octets);

// Decimal text, freed by the caller; null without memory.
char *pex_get_string_from_int(int32_t value);

// Replaces trailing newlines and carriage returns by terminators; how many, or -1.
int pex_strip_trailing_newline_and_return_chars(char *buffer, size_t length);

// Opens a regular file for those who share its directory with others: no link is followed, nothing
// waits for the other end of a pipe. Empty on failure.
Fd pex_open_regular_file(const char *path, int flags, mode_t mode = 0);

// Exclusive POSIX record lock on the whole file; the first blocks until it is free. The lock
// call's result. Keeps processes apart, not threads.
int get_file_lock(int fd);
int release_file_lock(int fd);

// A text in the manner of printf.
std::string pex_format(const char *format, ...) __attribute__((format(printf, 1, 2)));

// The next line of a command's output or of a file, as much of it as fits, its newline included: a
// longer one arrives in pieces. False at the end.
bool pex_read_line(FILE *stream, std::span<char> line);

// Cuts the next piece off a text; runs of separators count as one. Empty at the end.
std::string_view pex_next_piece(std::string_view &text, char separator);

// Foreign text as the log may show it: control characters, which could forge a line, become "?".
std::string pex_one_line(const char *text);

// --- offered to the robot's other programs; the daemon itself calls none of these ---------------

// 1 when the two files were modified within two minutes of each other, else 0.
int pex_files_modified_within(const char *path_a, const char *path_b);

// Modification time in seconds since the epoch, 0 on failure.
time_t pex_get_file_mtime(const char *path);

int pex_str_tolower(char *text);   // in place; 0, or -1 for null
int pex_strip_spaces(char *text);  // removes every blank in place; 0, or -1 for null

long pex_get_uptime();  // seconds since boot, -1 on failure
