// What the robot's messages mean, in words, and how foreign text gets onto a terminal.
#pragma once

#include <jansson.h>
#include <sys/time.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "connection.h"
#include "owned.h"

namespace ctl {

// The text with everything that could drive a terminal written as \xNN or \u{NNNN}: control
// characters, what is not UTF-8, and marks that turn the direction of writing.
std::string printable(std::string_view text);

std::string format(const char *with, ...) __attribute__((format(printf, 1, 2)));

std::string to_hex(std::string_view text);
// The bytes, or nothing when it is no hexadecimal text.
std::optional<std::string> from_hex(std::string_view text);

// The Wi-Fi state in words.
std::string wifi_state_text(json_int_t state);
// Names of the states for a command line, and the state of such a name.
std::vector<std::string> wifi_state_names();
int wifi_state_named(const std::string &name);

// The message as JSON with passwords replaced by "*"; null when it is none.
Json parse_masked(const std::string &payload);
std::string compact(const json_t *value);  // ASCII only
std::string text_member(const json_t *object, const char *key);

// A message in two columns: "wifi 8" and "connecting".
struct Line {
    std::string what;
    std::string meaning;
};
Line describe(const std::string &topic, const json_t *message);

// Prints rows of the same width with aligned columns; the first is the heading.
void print_table(const std::vector<std::vector<std::string>> &rows);

// Sends what was printed. NobodyReads when the pipe's reader is gone; Failure when it cannot be
// written, a full disk say.
void flush_output();

// Whether errors and notices are JSON objects: {"error":..., "code":...} and {"notice":...}. They
// stay on standard error.
void speak_json(bool json);

// The words that `word` may have been meant to be, the most alike first; at most three.
std::vector<std::string> nearest(const std::string &word, const std::vector<std::string> &words);

// Something to know beside the result. Any thread.
void notice(const std::string &text);

// The error; returns its code.
int complain(exit_code code, const std::string &text);

// Prints messages and steps as they come, a line each: for people or as JSON objects.
class Printer {
  public:
    explicit Printer(bool json) : json_(json) {}
    void message(const Message &message) const;
    void step(const std::string &what, const std::string &meaning) const;

  private:
    void line(timeval when, json_t *members, const Line &text) const;
    bool json_;
};

}  // namespace ctl
