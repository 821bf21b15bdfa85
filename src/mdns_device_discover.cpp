#include "mdns_device_discover.h"

#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "device_tracking.h"
#include "home_device_list.h"
#include "log.h"
#include "owned.h"
#include "pex_misc.h"

#define LOG_SOURCE "src/mdns_device_discover"

namespace {

constexpr unsigned kPauseS = 3;
constexpr char kBrowse[] = "avahi-browse -artlp";
constexpr int kLineSize = 511;  // with the terminator

// The friendly name that a device gives itself is better than the name of one of its services.
constexpr uint32_t kFriendlyNameRank = 3;
constexpr uint32_t kServiceNameRank = 2;

// --- a line of the browser -----------------------------------------------------------------------

// Where avahi-browse -p puts what is used; the fields before a used one are never empty.
enum field : size_t { kName = 3, kType = 4, kHostname = 6, kAddress = 7, kTxt = 9, kFields = 10 };

using Fields = std::array<std::string, kFields>;

// Runs of separators count as one. Empty for a field that is not there.
Fields split(std::string_view line) {
    Fields fields;
    for (std::string &each : fields)
        each = pex_next_piece(line, ';');
    return fields;
}

// The byte that three digits after a backslash stand for; 0 for none.
unsigned char escaped_byte(std::string_view digits) {
    unsigned char byte = 0;
    const auto [rest, error] = std::from_chars(digits.data(), digits.data() + 3, byte);
    return error == std::errc() && rest == digits.data() + 3 ? byte : 0;
}

std::string unescape(std::string_view text) {
    std::string plain;
    while (!text.empty()) {
        const bool is_escape = text[0] == '\\' && text.size() > 1;
        const bool is_short = is_escape && (text[1] == '.' || text[1] == '\\');
        const unsigned char byte = is_escape && text.size() > 3 ? escaped_byte(text.substr(1)) : 0;
        if (is_short)
            plain += text[1];
        else
            plain += byte != 0 ? static_cast<char>(byte) : text[0];
        text.remove_prefix(is_short ? 2 : byte != 0 ? 4 : 1);
    }
    return plain;
}

// --- a device's description of itself ------------------------------------------------------------

// What follows `key` in the TXT data; null when it is not there.
const char *after(const std::string &txt, std::string_view key) {
    const size_t at = txt.find(key);
    return at != txt.npos ? txt.c_str() + at + key.size() : nullptr;
}

// The value of `key`, up to the quote that ends it.
std::optional<std::string> value_of(const std::string &txt, std::string_view key) {
    const char *start = after(txt, key);
    const char *end = start != nullptr ? strchr(start, '"') : nullptr;
    if (end == nullptr)
        return std::nullopt;
    return std::string(start, end);
}

// Told from the model's name and all that follows it.
const char *type_of(const std::string &txt, bool is_cast) {
    const char *model = after(txt, "md=");
    if (model == nullptr)
        return nullptr;
    if (is_cast)
        return strstr(model, "Home") != nullptr ? "smart-speaker" : "tv";
    return strstr(model, "LIFX") != nullptr ? "light" : nullptr;
}

const char *text_of(const std::optional<std::string> &text) {
    return text ? text->c_str() : nullptr;
}

void add_device(const Fields &fields, const std::string &service_name) {
    const std::string &txt = fields[kTxt];
    const auto google_cd = value_of(txt, "cd=");
    if (google_cd)
        LOGD("found cd %s", google_cd->c_str());
    const auto model = value_of(txt, "md=");
    if (model)
        LOGD("found md %s", model->c_str());
    const char *type = type_of(txt, google_cd.has_value());
    if (type != nullptr)
        LOGD("found type %s", type);
    const auto friendly = value_of(txt, "fn=");
    const std::string &name = friendly ? *friendly : service_name;
    const char *address = fields[kAddress].c_str();
    const bool is_new =
        add_entry_to_device_list(name.c_str(), friendly ? kFriendlyNameRank : kServiceNameRank,
                                 address, nullptr, type, text_of(google_cd),
                                 fields[kHostname].c_str(), text_of(model)) != nullptr;
    LOGI("mdns entry %s for %s %s", is_new ? "added" : "already added",
         pex_one_line(name.c_str()).c_str(), address);
}

void log_fields(const Fields &fields) {
    if (!fields[kHostname].empty())
        LOGD("hostname is %s, p_hostname", fields[kHostname].c_str());  // log readers match on it
    if (!fields[kAddress].empty())
        LOGD("address is %s", fields[kAddress].c_str());
    if (!fields[kTxt].empty())
        LOGD("txt is %s", fields[kTxt].c_str());
}

// A resolved record; anything else is skipped.
void take_line(const char *line) {
    LOGD("%s\n", line);
    if (line[0] != '=')
        return;
    const Fields fields = split(line);
    const std::string name = unescape(fields[kName]);
    LOGD("name is %s", pex_one_line(name.c_str()).c_str());
    if (fields[kType] == "_apple-mobdev2._tcp")
        return;  // a telephone's companion, not a device of the home
    log_fields(fields);
    if (fields[kHostname].empty() || fields[kAddress].empty() || fields[kTxt].empty())
        return;
    if (name.empty())
        LOGE("invalid response");
    else if (fields[kAddress].find(':') != std::string::npos)
        LOGW("cannot parse ipv6 addresses");
    else
        add_device(fields, name);
}

// The next line, its newline included, as far as the buffer holds it; false at the end. The rest of
// a longer one is skipped: it is whatever an attacker put there, and must not pass for a record.
bool read_line(FILE *output, std::array<char, kLineSize> &line) {
    size_t length = 0;
    for (int c = 0; c != '\n' && (c = fgetc(output)) != EOF;)
        if (length < line.size() - 1)
            line[length++] = static_cast<char>(c);
    line[length] = '\0';
    return length > 0;
}

void mdns_browse_once() {
    const Pipe browser(kBrowse);
    if (!browser) {
        LOGE("Failed to run command %s", kBrowse);
        return;
    }
    for (std::array<char, kLineSize> line{}; read_line(browser.get(), line);)
        take_line(line.data());
}

}  // namespace

void *mdns_discovery_main(void * /*unused*/) {
    init_device_list();
    for (;;) {
        sleep(kPauseS);
        if (device_tracking::take_round())
            mdns_browse_once();
    }
}
