#include "wifi_regdom_utils.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "log.h"
#include "owned.h"
#include "pex_misc.h"

#define LOG_SOURCE "src/wifi_regdom_utils"

namespace {

struct region {
    const char *name;
    const char *code;
};

// In the order they are searched: a prefix of a name is enough.
constexpr std::array kRegions{
    region{"FCC", "US"},  region{"China", "CN"},  region{"ETSI", "WO"},  region{"Japan", "JP"},
    region{"APAC", "WO"}, region{"Taiwan", "TW"}, region{"LATAM", "WO"}, region{"1", "US"},
};

enum class domain_kind { region, country, reset };

// What was asked for: the script's argument, and what its report must show.
struct request {
    domain_kind kind;
    std::string argument;
    std::string expected;
};

constexpr size_t kLineSize = 256;
constexpr char kResetArgument[] = "\"#\"";  // quoted: for the shell it would begin a comment

bool is_letter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}
char upper(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

request reset() {
    return {domain_kind::reset, kResetArgument, "#"};
}

request classify(const char *value) {
    if (value == nullptr)
        return reset();
    const std::string_view text = value;
    for (const auto &row : kRegions)
        if (strncasecmp(row.name, value, text.size()) == 0) {
            LOGI("region IS %s", row.name);
            return {domain_kind::region, row.code, row.code};
        }
    if (text != "00" && (text.size() != 2 || !is_letter(text[0]) || !is_letter(text[1]))) {
        LOGE("unexpected string for ISO country code");
        return reset();
    }
    const std::string code{upper(text[0]), upper(text[1])};
    return {domain_kind::country, code, code};
}

// Runs a command without the command lock: this is before any other thread could run one. 0, -1, 1
// when somebody else reaped the child, or the cut status of a command that a signal ended.
int8_t run(const char *command) {
    const auto [end, value] = pex_run(command);
    switch (end) {
        case command_end::done:
            return 0;
        case command_end::failed:
            LOGE("cmd %s returned status %d", command, value);
            return -1;
        case command_end::signalled:
            return static_cast<int8_t>(value);
        case command_end::reaped:
            return 1;
        case command_end::not_run:
            break;
    }
    LOGE("system() failed for %s", command);
    return -1;
}

bool run_logged(const char *command) {
    if (run(command) != -1)
        return true;
    LOGE("system_cmd failed");
    return false;
}

// The first line of a command's output into `line`.
bool first_line(const char *command, std::array<char, kLineSize> &line) {
    Pipe output(command);
    if (!output) {
        LOGE("popen() failed");
        return false;
    }
    const bool read = pex_read_line(output.get(), line);
    if (!read)
        LOGE("fgets() failed");
    if (output.close() == -1)
        LOGE("error closing pipe");
    return read;
}

std::string apply_line(const std::string &argument) {
    return "sudo provision --clregdomain " + argument + " \n";
}

bool script_reports(const std::string &expected) {
    std::array<char, kLineSize> line{};
    if (!first_line("sudo provision | grep CL\\ REG\\ DOMAIN", line))
        return false;
    if (strstr(line.data(), expected.c_str()) != nullptr)
        return true;
    LOGE("Unexpected provision script output");
    return false;
}

// The kernel takes a new country only with the interface: restart it, then look.
int confirm_with_kernel(const std::string &code) {
    if (!run_logged("sudo ifdown wlan0"))
        return -1;
    sleep(1);
    if (!run_logged("sudo ifup wlan0"))
        return -1;
    std::array<char, kLineSize> line{};
    if (!first_line("iw reg get | awk '/country/ {print $2}' | cut -d ':' -f1", line))
        return -1;
    if (strncmp(line.data(), code.c_str(), 2) == 0)
        return 0;
    LOGE("input data not valid ISO country code, searched for \"%s\" in \"%s\"\n", code.c_str(),
         line.data());
    run(apply_line(kResetArgument).c_str());
    return -1;
}

// --- the radio's NV file -------------------------------------------------------------------------

constexpr char kNvFile[] = "/persist/WCNSS_qcom_wlan_nv.bin";
constexpr char kNvBackup[] = "/persist/WCNSS_qcom_wlan_nv.bin.bak";
constexpr mode_t kNvMode = 0664;
constexpr std::string_view kPattern{
    "\x03"
    "BRI"};
constexpr std::string_view kPatch{
    "\x03"
    "00I"};

struct Bytes {
    std::unique_ptr<char[]> data;
    size_t size;
};

bool read_nv_file(int fd, Bytes &content) {
    const size_t expected = content.size;
    size_t total = 0;
    ssize_t count = 0;
    int error = 0;
    do {
        count = read(fd, content.data.get() + total, expected - total);
        error = errno;
        LOGI("read %d bytes of %d from nv file", static_cast<int>(count),
             static_cast<int>(expected));
        total += static_cast<size_t>(std::max<ssize_t>(count, 0));
    } while (count > 0);
    if (count < 0) {
        LOGE("file read error %d", error);
        return false;
    }
    if (total == 0) {
        LOGE("can't read %s", kNvFile);
        return false;
    }
    LOGI("read %d bytes (expected %d) from nv file", static_cast<int>(total),
         static_cast<int>(expected));
    content.size = total;
    return true;
}

bool write_all(int fd, const Bytes &content) {
    for (size_t total = 0; total < content.size;) {
        const ssize_t count = write(fd, content.data.get() + total, content.size - total);
        if (count <= 0) {
            LOGE("write error %d", errno);
            return false;
        }
        LOGI("wrote %d bytes of %d to nv file", static_cast<int>(count),
             static_cast<int>(content.size));
        total += static_cast<size_t>(count);
    }
    return true;
}

}  // namespace

int wifi_regdom_utils_set_regdomain(const char *value) {
    const request wanted = classify(value);
    LOGI("using (%s) reg domain", wanted.argument.c_str());
    if (!run_logged(apply_line(wanted.argument).c_str()) || !script_reports(wanted.expected))
        return -1;
    switch (wanted.kind) {
        case domain_kind::region:
            return 0;
        case domain_kind::country:
            return confirm_with_kernel(wanted.argument);
        case domain_kind::reset:
            return -1;
    }
    return -1;
}

namespace {

enum class scan { go_on, stop, fail };

// One match: the buffer as it is becomes the backup (so a later match's backup already holds the
// earlier patches), then the patched buffer becomes the NV file, whose descriptor `nv` takes.
scan patch_at(size_t position, Bytes &content, Fd &nv) {
    LOGI("found BRI pattern in nv file at address %0x", static_cast<unsigned>(position));
    nv.reset();
    const Fd backup(open(kNvBackup, O_WRONLY | O_CREAT | O_CLOEXEC, kNvMode));
    if (!backup) {
        LOGE("error %d opening nv file", errno);
        return scan::fail;
    }
    if (!write_all(backup.get(), content))
        return scan::stop;
    memcpy(content.data.get() + position, kPatch.data(), kPatch.size());
    nv.reset(open(kNvFile, O_WRONLY | O_CREAT | O_CLOEXEC, kNvMode));
    if (!nv) {
        LOGE("error %d opening nv file ", errno);
        return scan::fail;
    }
    return write_all(nv.get(), content) ? scan::go_on : scan::stop;
}

}  // namespace

int wifi_regdom_utils_patch_nv_file() {
    Fd nv(open(kNvFile, O_RDWR | O_CLOEXEC));
    if (!nv) {
        LOGE("error opening nv file");
        return -1;
    }
    struct stat info = {};
    if (fstat(nv.get(), &info) != 0) {
        LOGE("can't stat %s", kNvFile);
        return -1;
    }
    const auto size = static_cast<size_t>(info.st_size);
    Bytes content{std::unique_ptr<char[]>(new (std::nothrow) char[size]), size};
    if (!content.data) {
        LOGE("out of memory");
        return -1;
    }
    if (!read_nv_file(nv.get(), content))
        return -1;
    bool patched = false;
    bool found = false;
    const std::string_view view(content.data.get(), content.size);
    for (size_t position = 0; (position = view.find(kPattern, position)) != view.npos; position++) {
        found = true;
        const scan result = patch_at(position, content, nv);
        if (result == scan::fail)
            return -1;
        if (result == scan::stop)
            break;
        patched = true;
    }
    if (!found)
        LOGI("pattern %s not found in %s", kPattern.data(), kNvFile);
    if (nv.reset() != 0) {
        LOGE("cannot close %s", kNvFile);
        return -1;
    }
    return patched ? 0 : -1;
}
