// The C library's headers must not put their checked variants in front of what is defined here.
#undef _FORTIFY_SOURCE

#include "faults.h"

#include <dirent.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

std::atomic<fault_record *> counting{nullptr};
size_t failing_kind = kFaultKinds.size();
uint32_t failing_call = 0;

// Without the C library's own open: it would count.
void record_place() {
    std::array<void *, 32> frames;
    const int count = backtrace(frames.data(), frames.size());
    const int file = openat64(AT_FDCWD, kFaultPlace, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (file < 0)
        return;
    backtrace_symbols_fd(frames.data() + 2, std::max(count - 2, 0), file);
    close(file);
}

// Whether this call is the one that fails, with that errno.
bool fails(fault_kind kind, int error) {
    fault_record *const record = counting;
    if (record == nullptr)
        return false;
    const uint32_t number = ++record->calls[kind];
    if (kind != failing_kind || number != failing_call)
        return false;
    counting = nullptr;  // only this one fails, and what tells its place is no call of the daemon
    record_place();
    record->has_failed = true;
    errno = error;
    return true;
}

// Where libcrypto's code is.
struct {
    uintptr_t begin = 0;
    uintptr_t end = 0;
} crypto;

int find_crypto(dl_phdr_info *library, size_t /*size*/, void * /*unused*/) {
    if (strstr(library->dlpi_name, "libcrypto") == nullptr)
        return 0;
    for (size_t i = 0; i < library->dlpi_phnum; i++)
        if (const auto &part = library->dlpi_phdr[i];
            part.p_type == PT_LOAD && (part.p_flags & PF_X) != 0) {
            crypto.begin = library->dlpi_addr + part.p_vaddr;
            crypto.end = crypto.begin + part.p_memsz;
        }
    return 1;
}

bool is_short_of_memory(const void *caller) {
    const auto at = reinterpret_cast<uintptr_t>(caller);
    return fails(at >= crypto.begin && at < crypto.end ? FAULT_CRYPTO : FAULT_MEMORY, ENOMEM);
}

template <typename Function>
Function *real(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}  // namespace

fault_record *faults_open_record() {
    const int file = open(kFaultRecord, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    void *shared = MAP_FAILED;
    if (file >= 0 && ftruncate(file, sizeof(fault_record)) == 0)
        shared = mmap(nullptr, sizeof(fault_record), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    return shared != MAP_FAILED ? static_cast<fault_record *>(shared) : nullptr;
}

bool faults_arm() {
    if (const char *const fault = getenv(kFaultVariable)) {
        const std::string_view text = fault;
        const size_t colon = std::min(text.find(':'), text.size());
        failing_kind = static_cast<size_t>(std::ranges::find(kFaultKinds, text.substr(0, colon)) -
                                           kFaultKinds.begin());
        std::from_chars(text.data() + std::min(colon + 1, text.size()), text.data() + text.size(),
                        failing_call);
        if (failing_kind == kFaultKinds.size() || failing_call == 0)
            return false;
        unsetenv(kFaultVariable);
    }
    std::array<void *, 1> frame;
    backtrace(frame.data(), frame.size());  // loads the library that it needs
    dl_iterate_phdr(find_crypto, nullptr);
    counting = faults_open_record();
    return counting != nullptr;
}

// --- in front of the C library's -----------------------------------------------------------------

extern "C" {

void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *memory, size_t size);

void *malloc(size_t size) noexcept {
    return is_short_of_memory(__builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}
void *calloc(size_t count, size_t size) noexcept {
    return is_short_of_memory(__builtin_return_address(0)) ? nullptr : __libc_calloc(count, size);
}
void *realloc(void *memory, size_t size) noexcept {
    return is_short_of_memory(__builtin_return_address(0)) ? nullptr : __libc_realloc(memory, size);
}

pid_t fork() noexcept {
    static auto *const next = real<pid_t()>("fork");
    return fails(FAULT_PROCESS, EAGAIN) ? -1 : next();
}
int system(const char *command) {
    static auto *const next = real<int(const char *)>("system");
    return fails(FAULT_PROCESS, EAGAIN) ? -1 : next(command);
}
FILE *popen(const char *command, const char *mode) {
    static auto *const next = real<FILE *(const char *, const char *)>("popen");
    return fails(FAULT_PROCESS, EAGAIN) ? nullptr : next(command, mode);
}

int pthread_create(pthread_t *id, const pthread_attr_t *attributes, void *(*routine)(void *),
                   void *argument) noexcept {
    static auto *const next = real<decltype(pthread_create)>("pthread_create");
    return fails(FAULT_THREAD, EAGAIN) ? EAGAIN : next(id, attributes, routine, argument);
}

int openat64(int folder, const char *path, int flags, ...) {
    static auto *const next = real<int(int, const char *, int, ...)>("openat64");
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return fails(FAULT_FILE, EMFILE) ? -1 : next(folder, path, flags, mode);
}
int openat(int folder, const char *path, int flags, ...) __attribute__((alias("openat64")));
int open64(const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return openat64(AT_FDCWD, path, flags, mode);
}
int open(const char *path, int flags, ...) __attribute__((alias("open64")));
FILE *fopen64(const char *path, const char *mode) {
    static auto *const next = real<FILE *(const char *, const char *)>("fopen64");
    return fails(FAULT_FILE, EMFILE) ? nullptr : next(path, mode);
}
FILE *fopen(const char *path, const char *mode) __attribute__((alias("fopen64")));
FILE *fdopen(int file, const char *mode) noexcept {
    static auto *const next = real<FILE *(int, const char *)>("fdopen");
    return fails(FAULT_FILE, ENOMEM) ? nullptr : next(file, mode);
}
DIR *opendir(const char *path) {
    static auto *const next = real<DIR *(const char *)>("opendir");
    return fails(FAULT_FILE, EMFILE) ? nullptr : next(path);
}

int socket(int family, int type, int protocol) noexcept {
    static auto *const next = real<int(int, int, int)>("socket");
    return fails(FAULT_SOCKET, EMFILE) ? -1 : next(family, type, protocol);
}
int socketpair(int family, int type, int protocol, int pair[2]) noexcept {
    static auto *const next = real<int(int, int, int, int *)>("socketpair");
    return fails(FAULT_SOCKET, EMFILE) ? -1 : next(family, type, protocol, pair);
}
int eventfd(unsigned count, int flags) noexcept {
    static auto *const next = real<int(unsigned, int)>("eventfd");
    return fails(FAULT_SOCKET, EMFILE) ? -1 : next(count, flags);
}

ssize_t write(int file, const void *bytes, size_t count) {
    static auto *const next = real<ssize_t(int, const void *, size_t)>("write");
    return fails(FAULT_WRITE, ENOSPC) ? -1 : next(file, bytes, count);
}
int fdatasync(int file) {
    static auto *const next = real<int(int)>("fdatasync");
    return fails(FAULT_WRITE, EIO) ? -1 : next(file);
}
int fclose(FILE *stream) {
    static auto *const next = real<int(FILE *)>("fclose");
    const bool is_full = fails(FAULT_WRITE, ENOSPC);
    const int file = is_full ? dup(fileno(stream)) : -1;
    const int result = next(stream);
    if (!is_full)
        return result;
    // What was read from refuses.
    [[maybe_unused]] const int cut = ftruncate(file, 0);
    close(file);
    errno = ENOSPC;
    return EOF;
}

}  // extern "C"
