// What the targets of parsers.cpp share: the robot's border as they see it. No program runs, no
// signal is sent and no time passes; files are those of the sandbox.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// Aborts, which the fuzzer takes for a crash.
void require(bool holds);

namespace border {

// Once, before the first input.
void open();

// Before each input: nothing was run, logged or asked; every answer is empty.
void reset();

// What the next command lines print, one after the other: parts of the text that a record separator
// (036) ends.
void tools_print(std::string_view text);

// What other processes of the robot answer to the next requests.
void processes_answer(std::string_view text);

struct message {
    std::string topic;
    std::string text;
};

const std::vector<std::string> &commands();  // that were run, to the letter, in order
const std::vector<message> &sent();          // to other processes
int signalled();                             // the last process that got a signal, or 0
std::string log_text();

void write_file(const char *path, std::string_view content);
std::string read_file(const char *path);

}  // namespace border

// Cuts the first line off a text.
std::string take_line(std::string_view &text);

// Nothing but these characters.
bool is_made_of(std::string_view text, std::string_view characters);

constexpr std::string_view kDigits = "0123456789";
constexpr std::string_view kHexDigits = "0123456789abcdefABCDEF";
