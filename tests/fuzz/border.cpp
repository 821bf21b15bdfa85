#include "border.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <utility>

#include "../support/bus.h"
#include "../support/clock.h"
#include "log.h"

namespace {

constexpr char kLog[] = "/tmp/log";

const target *targets = nullptr, *chosen = nullptr;
std::string printed, answer;
std::vector<std::string> run, messages;
int signalled_process = 0, next_socket = -1;

std::string next_output() {
    const size_t end = printed.find('\036');
    const std::string output = printed.substr(0, end);
    printed.erase(0, end == printed.npos ? end : end + 1);
    return output;
}

}  // namespace

target::target(const char *its_name, void (*its_feed)(std::string_view text))
    : name(its_name), feed(its_feed), next(std::exchange(targets, this)) {}

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
bool has(std::string_view text, std::string_view part) {
    return text.find(part) != text.npos;
}
bool is_made_of(std::string_view text, std::string_view characters) {
    return text.find_first_not_of(characters) == text.npos;
}

namespace border {

void tools_print(std::string_view text) {
    printed = text;
}
void processes_answer(std::string_view text) {
    answer = text;
}
void opens_socket(int descriptor) {
    next_socket = descriptor;
}
const std::vector<std::string> &commands() {
    return run;
}
const std::vector<std::string> &sent() {
    return messages;
}
int signalled() {
    return signalled_process;
}
void write_file(const char *path, std::string_view content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}
std::string read_file(const char *path) {
    std::ifstream stream(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), {});
}

}  // namespace border

// The folder of the last argument, seeds or one of them, names the target. Files are written where
// the daemon reads them: only in a robot of its own.
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv) {
    const std::string path = std::string((*argv)[*argc - 1]) + "/";
    chosen = targets;
    while (chosen != nullptr && !has(path, "/" + std::string(chosen->name) + "/"))
        chosen = chosen->next;
    if (chosen == nullptr || access("/run/fakes/dash", X_OK) != 0) {
        fprintf(stderr, "run through tests/sandbox, with the folder of a target's seeds\n");
        exit(2);
    }
    mkdir("/tmp/persist", 0755);
    exchange_log_handle(log_open("fuzz", LOG_LEVEL_VERBOSE, kLog, 0, 0, 0, 1, 1));
    make_pauses_last(0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const Bus bus([](const std::string &topic, const std::string &text) {
        messages.push_back(topic + " " + text);
        return std::optional<std::string>(answer);
    });
    run.clear();
    messages.clear();
    answer.clear();
    printed.clear();
    signalled_process = 0;
    require(truncate(kLog, 0) == 0);
    // On the heap and no longer than it is: a read beyond it is seen.
    const std::vector<char> text(data, data + size);
    chosen->feed({text.data(), size});
    return 0;
}

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
int kill(pid_t process, int /*signal*/) noexcept {
    signalled_process = process;
    return 0;
}
int socket(int family, int type, int protocol) noexcept {
    if (next_socket >= 0)
        return std::exchange(next_socket, -1);
    return static_cast<int>(syscall(SYS_socket, family, type, protocol));
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
// Thousands of rounds for each passphrase, and a process, would be all that the fuzzer does.
int pipe2(int *, int) {
    errno = EMFILE;
    return -1;
}
int PKCS5_PBKDF2_HMAC_SHA1(const char *pass, int length, const unsigned char *, int, int, int size,
                           unsigned char *out) {
    memset(out, length > 0 ? pass[length - 1] : 0, static_cast<size_t>(size));
    return 1;
}
}
