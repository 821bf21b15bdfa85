#include "pex_product_version_string.h"

#include <unistd.h>

#include <cstring>
#include <mutex>

#include "log.h"
#include "owned.h"
#include "pex_misc.h"

#define LOG_SOURCE "src/pex_product_version_string"

namespace {

// Kept for the life of the process once known: callers hold the pointer.
std::mutex version_lock;
char *known_version = nullptr;

// The whole output of a command without its line end; null when it could not be run (logged as
// `failure`) or printed nothing.
MallocText output_of(const char *command, const char *failure) {
    const Pipe output(command);
    if (!output) {
        LOGE("%s", failure);
        return nullptr;
    }
    size_t length = 0;
    MallocText text(pex_read_terminated_stream(output.get(), &length));
    if (text)
        pex_strip_trailing_newline_and_return_chars(text.get(), strlen(text.get()));
    return text;
}

char *lang_id(const char *command) {
    MallocText text = output_of(command, "popen() for lang pack ID failed");
    if (text)
        LOGI("Parsed lang ID string %s from popen command", text.get());
    return text.release();
}

char *lang_version(const char *command) {
    MallocText text = output_of(command, "popen() for lang pack version failed");
    if (text)
        LOGI("Parsed lang version string %s from popen command", text.get());
    return text.release();
}

}  // namespace

const char *pex_get_product_version_string() {
    const std::lock_guard guard(version_lock);
    if (known_version != nullptr)
        return known_version;
    MallocText text = output_of("sudo version | grep \"Product Version: \" | sed s/\"^.*: \"//",
                                "popen() for version failed\n");
    if (!text)
        return nullptr;
    LOGI("Parsed version string %s from popen command", text.get());
    known_version = text.release();
    return known_version;
}

char *pex_get_lang_pack_id_malloc() {
    return lang_id("get_lang.sh -lve | grep LANGUAGE_PACK_ID | cut -d '=' -f2");
}

char *pex_get_extra_lang_pack_id_malloc() {
    return lang_id("get_lang.sh -lve | grep EXTRA_LANGUAGE_PACK_ID | cut -d '=' -f2");
}

char *pex_get_lang_pack_version_malloc() {
    return lang_version("get_lang.sh -lve | grep LANGUAGE_PACK_VERSION | cut -d '=' -f2");
}

char *pex_get_extra_lang_pack_version_malloc() {
    return lang_version("get_lang.sh -lve | grep EXTRA_LANGUAGE_VERSION | cut -d '=' -f2");
}

int pex_get_hostname(char *buffer, size_t length) {
    if (buffer == nullptr || length == 0)
        return -1;
    gethostname(buffer, length);
    buffer[length - 1] = '\0';  // a name that was cut comes without
    return 0;
}
