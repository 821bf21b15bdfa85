#include "pex_log_utils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "log.h"
#include "owned.h"
#include "pex_misc.h"

#define LOG_SOURCE "src/pex_log_utils"

namespace {

constexpr size_t kNameSize = 256;
constexpr size_t kCommandSize = 768;
constexpr size_t kTimeSize = 27;
constexpr int kStillCaptured = 10;  // exit code of a capture whose file is there all the same
constexpr char kScript[] = "/opt/halvik/bin/wifilogs.sh";

MallocText zeroed(size_t size) {
    MallocText memory(static_cast<char *>(calloc(1, size)));
    if (!memory)
        LOGE("calloc failed");
    return memory;
}

// The local time as in "Sun Nov 22 10:00:00 2026".
MallocText time_text() {
    const time_t now = time(nullptr);
    if (now == static_cast<time_t>(-1)) {
        LOGE("time failed");
        return nullptr;
    }
    MallocText text = zeroed(kTimeSize);
    if (!text)
        return nullptr;
    if (ctime_r(&now, text.get()) == nullptr) {
        LOGE("ctime failed");
        return nullptr;
    }
    text.get()[strcspn(text.get(), "\n")] = '\0';
    return text;
}

bool fits(int length, size_t size) {
    if (length > 0 && static_cast<size_t>(length) < size)
        return true;
    LOGE("snprintf failed: ret: %d", length);
    return false;
}

// Everything that names the home or a device is masked before it reaches the file.
int write_capture_command(char *command, const char *path) {
    return snprintf(command, kCommandSize,
                    "%s | sed -E 's/(SSID[: ]? ).*/\\1******** /gI'"
                    " | sed -E 's/([[:xdigit:]]{2}:){5}[[:xdigit:]]{2}/**:**:**:**:**:**/g'"
                    " | sed -E 's/(ssid=).*[#\\t]/\\1******** /gI'"
                    " | sed -E 's/^ssid=.*/ssid=******** /g'"
                    " | gzip -c | base64 > \"%s\"",
                    kScript, path);
}

// Makes the file that the shell's redirection then writes: new, so that it is ours and nobody
// else's to read, however the umask stands. /tmp is everybody's: what lies there under the name is
// removed when it is a file or a link, and refused when it is anything else, for a pipe would keep
// the shell waiting. After this only the owner of a sticky folder, or of the file, can put another
// in its place.
bool make_private_file(const char *path) {
    struct stat info = {};
    if (lstat(path, &info) == 0 && (S_ISREG(info.st_mode) || S_ISLNK(info.st_mode)))
        unlink(path);
    const Fd file(open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file)
        LOGE("error opening %s", path);
    return static_cast<bool>(file);
}

}  // namespace

char *create_wifi_log_file_malloc(const char *tag) {
    MallocText name = zeroed(kNameSize);
    const MallocText command = zeroed(kCommandSize);
    if (!name || !command)
        return nullptr;
    const MallocText now = time_text();
    if (!now)
        return nullptr;
    if (!fits(snprintf(name.get(), kNameSize, "%s/syslog-%s.gz.base64", "/tmp",
                       tag != nullptr ? tag : now.get()),
              kNameSize))
        return nullptr;
    // Without the script the empty command is run all the same: the capture then yields the name.
    if (access(kScript, F_OK) == 0 &&
        (!fits(write_capture_command(command.get(), name.get()), kCommandSize) ||
         !make_private_file(name.get())))
        return nullptr;
    LOGD("\nCalling pex_system(%s) now...", command.get());
    int detail = -1;
    if (pex_system("common", command.get(), &detail) != 0 && detail != kStillCaptured)
        return nullptr;
    return name.release();
}

void print_json_kv_pairs(json_t *object, const char *title) {
    const auto print_line = [title](const char *word) {
        if (title != nullptr)
            LOGI("### %s %s", title, word);
        else
            LOGI("### %s", word);
    };
    print_line("START ###");
    print_json_object(object);
    print_line("END ###");
}

void print_json_object(json_t *object) {
    const char *key;
    json_t *value;
    json_object_foreach(object, key, value) print_json_kv(key, value);
}

void print_json_kv(const char *key, json_t *value) {
    const std::string name = pex_one_line(key);
    if (json_is_string(value)) {
        LOGI("%s : %s", name.c_str(), pex_one_line(json_string_value(value)).c_str());
    } else if (json_is_integer(value)) {
        LOGI("%s : %.0f", name.c_str(), json_number_value(value));
    } else if (json_is_array(value)) {
        const MallocText text(json_dumps(value, 0));
        LOGI("%s : %s", name.c_str(), text ? text.get() : "");
    } else if (json_is_boolean(value)) {
        LOGI("%s : %s", name.c_str(), json_is_true(value) ? "true" : "false");
    } else if (json_is_object(value)) {
        print_json_object(value);
    }
}
