// Owning types for what the system and the C libraries hand out. Each releases in its destructor.
#pragma once

#include <dirent.h>
#include <jansson.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

// Text or records from malloc, as the `..._malloc` functions return them.
struct FreeDeleter {
    void operator()(void *memory) const { free(memory); }
};
using MallocText = std::unique_ptr<char, FreeDeleter>;
template <typename T>
using Malloced = std::unique_ptr<T, FreeDeleter>;

// A stdio stream on a file.
struct FileCloser {
    void operator()(FILE *stream) const { fclose(stream); }
};
using File = std::unique_ptr<FILE, FileCloser>;

// A folder that is being read.
struct DirectoryCloser {
    void operator()(DIR *directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, DirectoryCloser>;

// A reference to a Jansson value.
struct JsonReleaser {
    void operator()(json_t *value) const { json_decref(value); }
};
using Json = std::unique_ptr<json_t, JsonReleaser>;

// A file descriptor; -1 when empty.
class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(Fd &&other) noexcept : fd_(other.release()) {}
    Fd &operator=(Fd &&other) noexcept {
        reset(other.release());
        return *this;
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    ~Fd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    // Closes what is held; the result of close, 0 when nothing was held.
    int reset(int fd = -1) {
        const int old = std::exchange(fd_, fd);
        return old >= 0 ? close(old) : 0;
    }

  private:
    int fd_ = -1;
};

// The output of a shell command line. The stream is close-on-exec: commands started by other
// threads in the meantime do not inherit it.
class Pipe {
  public:
    explicit Pipe(const char *command) : stream_(popen(command, "re")) {}
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
    ~Pipe() { close(); }

    FILE *get() const { return stream_; }
    explicit operator bool() const { return stream_ != nullptr; }
    // Waits for the command; its wait status, -1 when that failed, 0 when nothing was open.
    int close() {
        FILE *old = std::exchange(stream_, nullptr);
        return old != nullptr ? pclose(old) : 0;
    }

  private:
    FILE *stream_;
};
