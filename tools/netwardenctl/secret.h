// Secrets come from a file or a terminal, never from an argument, which everybody can read.
#pragma once

#include <string>

namespace ctl {

// A line from the descriptor, without its end. `name` is what a Failure calls it.
std::string read_secret_line(int fd, const std::string &name);

// The first line of the file; "-" is standard input.
std::string read_secret_file(const std::string &path);

}  // namespace ctl
