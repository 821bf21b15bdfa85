#include "privacy.h"

#include <jansson.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <optional>
#include <sstream>

#include "owned.h"
#include "text.h"

namespace ctl {

namespace {

constexpr std::string_view kHidden = "********";
constexpr size_t kShortest = 3;  // a shorter one is only hidden behind its name
constexpr size_t kDistinct = 8;  // a shorter one is only hidden as a word of its own
constexpr size_t kAddress = 17;  // "02:00:00:00:00:00"

// ASCII only: what is escaped or of other alphabets has no case that would matter here.
std::string lower(std::string_view text) {
    std::string result(text);
    for (char &c : result)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return result;
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

bool is_hex_digit(char c) {
    return isxdigit(static_cast<unsigned char>(c)) != 0;
}

bool is_of_word(char c) {
    return isalnum(static_cast<unsigned char>(c)) != 0;
}

bool is_blank(char c) {
    return c == ' ' || c == '?';  // the daemon logs a line's end inside of a text as "?"
}

// --- what stands behind a name -------------------------------------------------------------------

struct Field {
    std::string_view name;
    bool needs_sign = true;  // "=" or ":"; else a blank will do: "ssid Home"
};
constexpr std::array kFields{
    Field{"psk"},
    Field{"password"},
    Field{"passphrase"},
    Field{"passwd"},
    Field{"pass"},
    Field{"wep_key"},
    Field{"secret"},
    Field{"token"},
    Field{"pmk"},
    Field{"robotpass"},
    Field{"key_data"},
    Field{"ssid", false},
    Field{"configure sta to", false},
};

size_t skip(std::string_view line, size_t at, bool (*what)(char)) {
    while (at < line.size() && what(line[at]))
        at++;
    return at;
}

// Where the quote after `at` stands, behind the backslashes that escape it; npos if there is none.
size_t quote_at(std::string_view line, size_t at) {
    at = skip(line, at, [](char c) { return c == '\\'; });
    return at < line.size() && (line[at] == '"' || line[at] == '\'') ? at : line.npos;
}

// A value, the range of what is to be hidden.
struct Range {
    size_t from;
    size_t to;
};

// The end of a JSON text that was opened with `escapes` backslashes before its quote.
size_t end_of_text(std::string_view line, size_t from, char quote, size_t escapes) {
    size_t backslashes = 0;
    for (size_t i = from; i < line.size(); i++) {
        if (line[i] == quote && backslashes <= escapes)
            return i - backslashes;
        backslashes = line[i] == '\\' ? backslashes + 1 : 0;
    }
    return line.size();  // the log has cut it
}

Range value_range(std::string_view line, size_t at, bool is_json) {
    const size_t open = quote_at(line, at);
    if (open != line.npos && is_json)
        return {open + 1, end_of_text(line, open + 1, line[open], open - at)};
    if (open != line.npos) {  // a name may hold quotes; what follows it tells why it was refused
        const size_t close = line.rfind(line[open]);
        return {open + 1, close > open ? close : line.size()};
    }
    return {at, is_json ? std::min(line.find_first_of(",}", at), line.size()) : line.size()};
}

// The value of the field whose name ends at `at`, if it is one.
std::optional<Range> value_behind(std::string_view line, size_t at, const Field &field) {
    at = skip(line, at, [](char c) { return is_digit(c) || c == '[' || c == ']'; });
    const size_t quote = quote_at(line, at);
    const bool is_json = quote != line.npos;
    const size_t name_end = is_json ? quote + 1 : at;
    size_t value = skip(line, name_end, is_blank);
    if (value < line.size() && (line[value] == '=' || line[value] == ':'))
        value = skip(line, value + 1, is_blank);
    else if (field.needs_sign || is_json || value == name_end)
        return std::nullopt;
    return value_range(line, value, is_json);
}

void hide_fields(std::string &line) {
    for (const Field &field : kFields) {
        size_t at = 0;
        while ((at = lower(line).find(field.name, at)) != line.npos) {
            const size_t end = at + field.name.size();
            const auto value = at == 0 || !is_of_word(line[at - 1]) ? value_behind(line, end, field)
                                                                    : std::nullopt;
            at = end;
            if (!value || value->from >= value->to)
                continue;
            line.replace(value->from, value->to - value->from, kHidden);
            at = value->from + kHidden.size();
        }
    }
}

// --- hardware addresses --------------------------------------------------------------------------

bool is_address(std::string_view text) {
    if (text.size() < kAddress || (text[2] != ':' && text[2] != '-'))
        return false;
    for (size_t i = 0; i < kAddress; i++)
        if (i % 3 == 2 ? text[i] != text[2] : !is_hex_digit(text[i]))
            return false;
    return text.size() == kAddress || !is_hex_digit(text[kAddress]);
}

// What many have is nobody's.
bool is_common(std::string_view address) {
    return address == "ff:ff:ff:ff:ff:ff" || address == "00:00:00:00:00:00" ||
           address.starts_with("01:00:5e") || address.starts_with("33:33");
}

// "fe80::a8bb:ccff:fedd:eeff" is made of one.
void hide_made_of_addresses(std::string &line) {
    constexpr std::string_view kMiddle = "ff:fe";
    for (size_t at = 0; (at = lower(line).find(kMiddle, at)) != line.npos;) {
        const auto is_part = [&](size_t i) { return is_hex_digit(line[i]) || line[i] == ':'; };
        size_t from = at;
        size_t to = at;
        while (from > 0 && is_part(from - 1))
            from--;
        while (to < line.size() && is_part(to))
            to++;
        const auto colons = std::count(line.begin() + static_cast<long>(from),
                                       line.begin() + static_cast<long>(to), ':');
        constexpr long kFewest = 4;
        if (colons >= kFewest) {
            line.replace(from, to - from, kHidden);
            to = from + kHidden.size();
        }
        at = to;
    }
}

// --- forms of a secret ---------------------------------------------------------------------------

// As the supplicant writes a name: "Caf\xc3\xa9".
std::string supplicant_text(const std::string &text) {
    std::string result;
    for (const char c : text)
        if (c == '"' || c == '\\')
            result += std::string("\\") + c;
        else
            result += c >= ' ' && c <= '~' ? std::string(1, c)
                                           : format("\\x%02x", static_cast<unsigned char>(c));
    return result;
}

std::string json_text(const std::string &text, size_t flags) {
    const Json value(json_stringn(text.data(), text.size()));
    const MallocText dumped(value ? json_dumps(value.get(), JSON_ENCODE_ANY | flags) : nullptr);
    const std::string quoted = dumped ? dumped.get() : "";
    return quoted.size() > 2 ? quoted.substr(1, quoted.size() - 2) : text;
}

}  // namespace

void Privacy::hide(const std::string &secret) {
    if (secret.size() < kShortest)
        return;
    for (const std::string &form :
         {secret, printable(secret), to_hex(secret), supplicant_text(secret), json_text(secret, 0),
          json_text(secret, JSON_ENSURE_ASCII)})
        known_.push_back(lower(form));
    std::sort(known_.begin(), known_.end(), [](const auto &a, const auto &b) {
        return a.size() != b.size() ? a.size() > b.size() : a < b;
    });
    known_.erase(std::unique(known_.begin(), known_.end()), known_.end());
}

void Privacy::hide_those_of(const std::string &supplicant_file) {
    std::istringstream lines(supplicant_file);
    for (std::string line; std::getline(lines, line);) {
        const size_t name = line.find_first_not_of(" \t");
        const size_t sign = line.find('=');
        if (name == line.npos || sign == line.npos)
            continue;
        const std::string word = lower(line.substr(name, sign - name));
        std::string value = line.substr(sign + 1);
        if (word != "ssid" && word != "psk" && !word.starts_with("wep_key") &&
            word.find("pass") == word.npos)
            continue;
        if (value.size() >= 2 && value.starts_with('"') && value.ends_with('"'))
            value = value.substr(1, value.size() - 2);
        else if (const auto bytes = from_hex(value))
            hide(*bytes);
        hide(value);
    }
}

void Privacy::hide_known(std::string &line) const {
    for (const std::string &each : known_) {
        std::string small = lower(line);
        for (size_t at = 0; (at = small.find(each, at)) != small.npos;) {
            const size_t end = at + each.size();
            const bool is_own_word = (at == 0 || !is_of_word(line[at - 1])) &&
                                     (end == line.size() || !is_of_word(line[end]));
            if (each.size() < kDistinct && !is_own_word) {
                at++;
                continue;
            }
            line.replace(at, each.size(), kHidden);
            small.replace(at, each.size(), kHidden);
            at += kHidden.size();
        }
    }
}

void Privacy::name_addresses(std::string &line) {
    for (size_t at = 0; at + kAddress <= line.size(); at++) {
        if ((at > 0 && is_of_word(line[at - 1])) || !is_address(std::string_view(line).substr(at)))
            continue;
        std::string address = lower(std::string_view(line).substr(at, kAddress));
        std::replace(address.begin(), address.end(), '-', ':');
        if (is_common(address))
            continue;
        std::string &name = addresses_[address];
        if (name.empty())
            name = "MAC-" + std::to_string(addresses_.size());
        line.replace(at, kAddress, name);
    }
}

std::string Privacy::clean_line(std::string_view line) {
    // No line has to be longer. Of a secret that the cut goes through nothing is left.
    constexpr size_t kLongest = 8192;
    constexpr size_t kLongestForm = 1024;
    const bool is_cut = line.size() > kLongest;
    std::string text;
    line = line.substr(0, kLongest);
    for (const char c : line)
        text += c == '\t' ? std::string(4, ' ') : std::string(1, c);
    while (text.ends_with('\r') || text.ends_with(' '))
        text.pop_back();
    text = printable(text);
    hide_known(text);
    hide_fields(text);
    name_addresses(text);
    hide_made_of_addresses(text);
    if (is_cut)
        text = text.substr(0, text.size() - std::min(text.size(), kLongestForm)) + " ... (cut)";
    return text;
}

std::string Privacy::clean(const std::string &text) {
    std::string result;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        result += clean_line(line) + "\n";
    return result;
}

}  // namespace ctl
