// The robot's border as a target sees it, and how a target is written. No program runs, no signal
// is sent and no time passes; files are those of the sandbox.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// libFuzzer's, or replay.cpp's.
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

struct target {
    target(const char *name, void (*feed)(std::string_view text));  // lists itself
    std::string_view name;                                          // also of its seeds' folder
    void (*feed)(std::string_view text);
    const target *next;
};

// A parser of foreign text with its checks: NAME is fed one text, and aborts when a check fails.
#define FUZZ(NAME)                                  \
    static void NAME(std::string_view text);        \
    static const target target_##NAME(#NAME, NAME); \
    static void NAME(std::string_view text)

void require(bool holds);

namespace border {

// What the next command lines print, one after the other: parts of the text that a record separator
// (036) ends.
void tools_print(std::string_view text);
// What other processes of the robot answer to the next requests.
void processes_answer(std::string_view text);
// The next socket that the daemon opens.
void opens_socket(int descriptor);

const std::vector<std::string> &commands();  // that were run, to the letter, in order
const std::vector<std::string> &sent();      // to other processes: "TOPIC TEXT"
int signalled();                             // the last process that got a signal, or 0

void write_file(const char *path, std::string_view content);
std::string read_file(const char *path);

}  // namespace border

std::string take_line(std::string_view &text);  // cuts the first line off
bool has(std::string_view text, std::string_view part);
bool is_made_of(std::string_view text, std::string_view characters);  // of nothing else

constexpr std::string_view kHexDigits = "0123456789abcdefABCDEF";
