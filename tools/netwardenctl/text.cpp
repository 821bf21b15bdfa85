#include "text.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <cwchar>

namespace ctl {

namespace {

// --- UTF-8 ---------------------------------------------------------------------------------------

// The length of the sequence at the start of the text and its code point; 0 when it is none.
size_t decode(std::string_view text, char32_t &point) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const size_t length = byte(0) < 0x80             ? 1
                          : (byte(0) & 0xe0) == 0xc0 ? 2
                          : (byte(0) & 0xf0) == 0xe0 ? 3
                          : (byte(0) & 0xf8) == 0xf0 ? 4
                                                     : 0;
    if (length == 0 || length > text.size())
        return 0;
    point = length == 1 ? byte(0) : byte(0) & (0x7fu >> length);
    for (size_t i = 1; i < length; i++) {
        if ((byte(i) & 0xc0) != 0x80)
            return 0;
        point = point << 6 | (byte(i) & 0x3f);
    }
    constexpr std::array<char32_t, 5> kSmallest{0, 0, 0x80, 0x800, 0x10000};  // RFC 3629
    return point >= kSmallest[length] && point <= 0x10ffff ? length : 0;
}

bool drives_a_terminal(char32_t point) {
    return point < 0x20 || (point >= 0x7f && point < 0xa0) || point == 0x200e || point == 0x200f ||
           (point >= 0x2028 && point <= 0x202e) || (point >= 0x2066 && point <= 0x2069) ||
           (point >= 0xd800 && point < 0xe000);
}

void mask(json_t *value) {
    const char *key;
    json_t *member;
    size_t index;
    json_object_foreach(value, key, member) {
        const std::string_view name = key;
        if (name == "pass" || name == "robotpass")
            json_object_set_new(value, key, json_string("*"));
        else
            mask(member);
    }
    json_array_foreach(value, index, member) mask(member);
}

// --- time ----------------------------------------------------------------------------------------

// "12:34:56.789"; for programs with the date, and in UTC as RFC 3339 writes it.
std::string time_text(timeval when, bool for_programs) {
    tm parts{};
    (for_programs ? gmtime_r : localtime_r)(&when.tv_sec, &parts);
    const int ms = static_cast<int>(when.tv_usec / 1000);
    std::array<char, 32> date{};
    strftime(date.data(), date.size(), "%Y-%m-%dT", &parts);
    const std::string time =
        format("%02d:%02d:%02d.%03d", parts.tm_hour, parts.tm_min, parts.tm_sec, ms);
    return for_programs ? date.data() + time + "Z" : time;
}

timeval now() {
    timeval time{};
    gettimeofday(&time, nullptr);
    return time;
}

// --- columns -------------------------------------------------------------------------------------

// The C library knows the widths of characters in a UTF-8 locale only, whatever the user's is.
size_t width_of(char32_t point) {
    static const bool knows_widths = setlocale(LC_CTYPE, "C.UTF-8") != nullptr;
    const int width = knows_widths ? wcwidth(static_cast<wchar_t>(point)) : 1;
    return width < 0 ? 1 : static_cast<size_t>(width);
}

// Of a printable text.
size_t columns_of(std::string_view text) {
    size_t columns = 0;
    while (!text.empty()) {
        char32_t point = 0;
        const size_t length = std::max<size_t>(decode(text, point), 1);
        columns += width_of(point);
        text.remove_prefix(length);
    }
    return columns;
}

std::atomic<bool> errors_are_json{false};

void tell_aside(json_t *members, const std::string &text) {
    const Json owned(members);
    const std::string line =
        errors_are_json ? compact(owned.get()) + "\n" : "netwardenctl: " + text + "\n";
    fputs(line.c_str(), stderr);
}

}  // namespace

std::string format(const char *with, ...) {
    std::array<char, 128> text{};
    va_list arguments;
    va_start(arguments, with);
    vsnprintf(text.data(), text.size(), with, arguments);
    va_end(arguments);
    return text.data();
}

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        char32_t point = 0;
        const size_t length = decode(text, point);
        if (length == 0 || (length == 1 && drives_a_terminal(point)))
            result += format("\\x%02x", static_cast<unsigned char>(text[0]));
        else if (drives_a_terminal(point))
            result += format("\\u{%x}", static_cast<unsigned>(point));
        else
            result += text.substr(0, length);
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return result;
}

std::string to_hex(std::string_view text) {
    std::string hex;
    for (const char c : text)
        hex += format("%02x", static_cast<unsigned char>(c));
    return hex;
}

std::optional<std::string> from_hex(std::string_view text) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    if (text.size() % 2 != 0)
        return std::nullopt;
    std::string bytes;
    for (size_t i = 0; i < text.size(); i++) {
        const size_t digit = kDigits.find(static_cast<char>(text[i] | 0x20));
        if (digit == kDigits.npos)
            return std::nullopt;
        if (i % 2 == 0)
            bytes.push_back(static_cast<char>(digit << 4));
        else
            bytes.back() = static_cast<char>(bytes.back() | static_cast<char>(digit));
    }
    return bytes;
}

Json parse_masked(const std::string &payload) {
    Json root(json_loadb(payload.data(), payload.size(), 0, nullptr));
    if (root)
        mask(root.get());
    return root;
}

std::string compact(const json_t *value) {
    const MallocText dumped(json_dumps(value, JSON_COMPACT | JSON_ENSURE_ASCII | JSON_ENCODE_ANY));
    std::string text = dumped ? dumped.get() : "";
    // The one control character that JSON lets stand.
    for (size_t at = 0; (at = text.find('\x7f', at)) != text.npos;)
        text.replace(at, 1, "\\u007f");
    return text;
}

std::string text_member(const json_t *object, const char *key) {
    const char *text = json_string_value(json_object_get(object, key));
    return text != nullptr ? text : "";
}

void print_table(const std::vector<std::vector<std::string>> &rows) {
    std::vector<size_t> widths(rows[0].size());
    for (const auto &row : rows)
        for (size_t i = 0; i < row.size(); i++)
            widths[i] = std::max(widths[i], columns_of(row[i]));
    for (const auto &row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); i++)
            line += row[i] + std::string(widths[i] - columns_of(row[i]) + 2, ' ');
        line.erase(line.find_last_not_of(' ') + 1);
        puts(line.c_str());
    }
    flush_output();
}

void flush_output() {
    if (fflush(stdout) == 0 && ferror(stdout) == 0)
        return;
    if (errno == EPIPE)
        throw NobodyReads();
    throw Failure(kNotWritten, std::string("cannot write the output: ") + strerror(errno));
}

namespace {

// How many letters are wrong, missing, too many or swapped with their neighbour.
size_t letters_apart(std::string_view a, std::string_view b) {
    std::vector<std::vector<size_t>> rows(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); i++)
        for (size_t j = 0; j <= b.size(); j++) {
            size_t &here = rows[i][j];
            if (i == 0 || j == 0) {
                here = i + j;
                continue;
            }
            here = std::min({rows[i - 1][j] + 1, rows[i][j - 1] + 1,
                             rows[i - 1][j - 1] + (a[i - 1] != b[j - 1] ? 1 : 0)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                here = std::min(here, rows[i - 2][j - 2] + 1);
        }
    return rows[a.size()][b.size()];
}

}  // namespace

std::vector<std::string> nearest(const std::string &word, const std::vector<std::string> &words) {
    constexpr size_t kMost = 3;
    constexpr size_t kLongest = 64;  // no word of ours is near to a longer one
    std::vector<std::pair<size_t, std::string>> near;
    for (const std::string &each : words) {
        const bool is_begun = word.size() >= 2 && each.starts_with(word);
        const size_t apart = is_begun                  ? 0
                             : word.size() <= kLongest ? letters_apart(word, each)
                                                       : kLongest;
        if (apart <= std::max<size_t>(1, each.size() / 3))
            near.emplace_back(apart, each);
    }
    std::stable_sort(near.begin(), near.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
    std::vector<std::string> found;
    for (size_t i = 0; i < std::min(near.size(), kMost); i++)
        found.push_back(near[i].second);
    return found;
}

void speak_json(bool json) {
    errors_are_json = json;
}

void notice(const std::string &text) {
    tell_aside(json_pack("{s:s}", "notice", text.c_str()), text);
}

int complain(exit_code code, const std::string &text) {
    tell_aside(json_pack("{s:s, s:i}", "error", text.c_str(), "code", static_cast<int>(code)),
               text);
    return code;
}

void Printer::line(timeval when, json_t *members, const Line &text) const {
    if (json_) {
        const Json object(json_pack("{s:s}", "time", time_text(when, true).c_str()));
        json_object_update(object.get(), members);
        puts(compact(object.get()).c_str());
    } else {
        printf("%s  %-9s  %s\n", time_text(when, false).c_str(), text.what.c_str(),
               text.meaning.c_str());
    }
    flush_output();
}

void Printer::message(const Message &message) const {
    const Json root = parse_masked(message.payload);
    const Line text = describe(message.topic, root.get());
    const Json members(json_pack("{s:s, s:O?, s:s}", "topic", printable(message.topic).c_str(),
                                 "message", root.get(), "meaning", text.meaning.c_str()));
    line(message.when, members.get(), text);
}

void Printer::step(const std::string &what, const std::string &meaning) const {
    const Json members(json_pack("{s:s, s:s}", "step", what.c_str(), "meaning", meaning.c_str()));
    line(now(), members.get(), {what, meaning});
}

}  // namespace ctl
