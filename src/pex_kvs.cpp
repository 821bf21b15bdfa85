#include "pex_kvs.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "log.h"
#include "owned.h"
#include "pex_misc.h"

#define LOG_SOURCE "src/pex_kvs"

namespace {

constexpr char kDirectory[] = "/opt/halvik/persistent/opt/halvik/data/kvs";
constexpr mode_t kFileMode = 0660;
constexpr mode_t kDirectoryMode = 0755;
constexpr size_t kDirectoryPathSize = 64;

int fail_read(size_t *length) {
    *length = 0;
    return -1;
}

int discard_short_file(const char *path, Fd file) {
    LOGE("Write failed for %s", path);
    file.reset();
    if (unlink(path) != 0)
        LOGE("Failed to remove %s", path);
    return -1;
}

bool make_directory(const char *path) {
    if (mkdir(path, kDirectoryMode) == 0)
        return true;
    LOGE("Could not create kvs store. Error: %d", errno);
    return false;
}

}  // namespace

char *create_fname_malloc(const char *key) {
    if (key == nullptr)
        return nullptr;
    const size_t size = strlen(key) + sizeof kDirectory + 1;  // the slash
    MallocText path(static_cast<char *>(malloc(size)));
    if (!path) {
        LOGE("Could not allocate memory for KVS file path");
        return nullptr;
    }
    const int length = snprintf(path.get(), size, "%s/%s", kDirectory, key);
    if (length < 0 || static_cast<size_t>(length) >= size) {
        LOGE("KVS filename have been truncated to %s", path.get());
        return nullptr;
    }
    return path.release();
}

int pex_write_buf_to_file(const char *path, const void *buffer, size_t length) {
    if (path == nullptr || buffer == nullptr || length == 0)
        return -1;
    Fd file = pex_open_regular_file(path, O_WRONLY | O_CREAT | O_TRUNC, kFileMode);
    if (file.get() < 1)  // 0 is standard input's and never a file of ours
        return -1;
    fchmod(file.get(), kFileMode);  // past the umask
    if (write(file.get(), buffer, length) != static_cast<ssize_t>(length))
        return discard_short_file(path, std::move(file));
    if (fdatasync(file.get()) != 0)
        LOGW("Could not sync file data");
    return 0;
}

int pex_kvs_set_key(const char *key, const void *buffer, size_t length) {
    const MallocText path(create_fname_malloc(key));
    return pex_write_buf_to_file(path.get(), buffer, length);
}

int pex_kvs_get_key(const char *key, char *buffer, size_t *length) {
    if (key == nullptr || buffer == nullptr || length == nullptr)
        return -1;
    const MallocText path(create_fname_malloc(key));
    struct stat info = {};
    if (!path || lstat(path.get(), &info) != 0)
        return fail_read(length);
    const auto size = static_cast<size_t>(info.st_size);
    if (S_ISREG(info.st_mode) && size >= *length) {
        *length = size + 1;
        return -1;
    }
    const Fd file = pex_open_regular_file(path.get(), O_RDONLY);
    if (!file) {
        LOGE("Failed to open file: %s", path.get());
        return fail_read(length);
    }
    const ssize_t count = read(file.get(), buffer, *length - 1);
    if (count <= 0) {
        LOGE("Failed to read file: %s", path.get());
        return fail_read(length);
    }
    buffer[count] = '\0';
    pex_strip_trailing_newline_and_return_chars(buffer, static_cast<size_t>(count));
    *length = strlen(buffer) + 1;
    return 0;
}

int pex_kvs_del_key(const char *key) {
    const MallocText path(key != nullptr ? create_fname_malloc(key) : nullptr);
    if (!path || unlink(path.get()) != 0)
        return -1;
    sync();
    LOGI("KVS key %s is deleted.", key);
    return 0;
}

int pex_kvs_foreach_key(int (*callback)(const char *key)) {
    if (callback == nullptr)
        return -1;
    const Directory directory(opendir(kDirectory));
    if (!directory)
        return -1;
    int result = 0;
    while (const dirent *entry = readdir(directory.get()))
        if (entry->d_name[0] != '.')
            result |= callback(entry->d_name);
    return result;
}

int pex_kvs_create_dir(const char *path) {
    if (path == nullptr || strlen(path) >= kDirectoryPathSize)
        return -1;
    std::array<char, kDirectoryPathSize> prefix{};
    for (size_t i = 0; path[i] != '\0'; i++) {
        if (path[i] == '/' && i > 0 && !make_directory(prefix.data()))
            return -1;
        prefix[i] = path[i];
        if (path[i] == '/' && path[i + 1] == '\0')
            return 0;  // the slash at the end ends the walk
    }
    return make_directory(prefix.data()) ? 0 : -1;
}
