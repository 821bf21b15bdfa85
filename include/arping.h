// What arping prints when somebody answers: "Unicast reply from A.B.C.D [MAC]  1.5ms".
#pragma once

#include <optional>
#include <string_view>

// What counts as an answer. A device's line came through "grep reply": the text between its first
// "[" and the next "]" counts, even an empty one. The gateway's comes as the tool prints it, and a
// wrong verdict restarts the network: the line must say "Unicast" and have a text in its brackets.
// Runs of brackets count as one there, and the end of the line ends the text as "]" does.
enum class arping_peer { device, gateway };

// The hardware address in a line of the tool's; none when the line is no answer. Any thread.
std::optional<std::string_view> arping_reply(const char *line, arping_peer peer);
