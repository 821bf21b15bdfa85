#include "border.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "../support/bus.h"
#include "log.h"

namespace {

constexpr char kLog[] = "/tmp/log";

std::string printed;
std::string answer;
std::vector<std::string> run;
std::vector<border::message> messages;
int signalled_process = 0;

std::string next_output() {
    const size_t end = printed.find('\036');
    const std::string output = printed.substr(0, end);
    printed.erase(0, end == printed.npos ? end : end + 1);
    return output;
}

std::optional<std::string> answer_request(const std::string &topic, const std::string &text) {
    messages.push_back({topic, text});
    return answer;
}

}  // namespace

void require(bool holds) {
    if (!holds)
        abort();
}

std::string take_line(std::string_view &text) {
    const size_t end = std::min(text.find('\n'), text.size());
    const std::string line(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    return line;
}

bool is_made_of(std::string_view text, std::string_view characters) {
    return text.find_first_not_of(characters) == text.npos;
}

namespace border {

void open() {
    write_file(kLog, "");
    exchange_log_handle(log_open("fuzz", LOG_LEVEL_VERBOSE, kLog, 0, 0, 0, 1, 1));
    static const Bus bus(answer_request);
}

void reset() {
    run.clear();
    messages.clear();
    answer.clear();
    printed.clear();
    signalled_process = 0;
    require(truncate(kLog, 0) == 0);
}

void tools_print(std::string_view text) {
    printed = text;
}
void processes_answer(std::string_view text) {
    answer = text;
}
const std::vector<std::string> &commands() {
    return run;
}
const std::vector<message> &sent() {
    return messages;
}
int signalled() {
    return signalled_process;
}
std::string log_text() {
    return read_file(kLog);
}

void write_file(const char *path, std::string_view content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::string read_file(const char *path) {
    std::ifstream stream(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), {});
}

}  // namespace border

// --- in front of the libraries' ------------------------------------------------------------------

extern "C" {
int system(const char *command) {
    run.emplace_back(command);
    return 0;
}
FILE *popen(const char *command, const char * /*mode*/) {
    run.emplace_back(command);
    static std::string output;
    output = next_output();
    return output.empty() ? fopen("/dev/null", "re") : fmemopen(output.data(), output.size(), "r");
}
int pclose(FILE *stream) {
    return fclose(stream);
}
unsigned sleep(unsigned /*seconds*/) {
    return 0;
}
int kill(pid_t process, int /*signal*/) noexcept {
    signalled_process = process;
    return 0;
}
// The radio's NV file lies on a partition of its own.
int open(const char *path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const int mode = (flags & O_CREAT) != 0 ? va_arg(rest, int) : 0;
    va_end(rest);
    const std::string place = std::string_view(path).starts_with("/persist/") ? "/tmp" : "";
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, (place + path).c_str(), flags, mode));
}
// Thousands of rounds for each passphrase would be all that the fuzzer does.
int PKCS5_PBKDF2_HMAC_SHA1(const char *pass, int length, const unsigned char *, int, int, int size,
                           unsigned char *out) {
    memset(out, length > 0 ? pass[length - 1] : 0, static_cast<size_t>(size));
    return 1;
}
}
