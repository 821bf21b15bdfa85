#include "secret.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "owned.h"
#include "text.h"
#include "waiting.h"

namespace ctl {

namespace {

constexpr size_t kLongestSecret = 128;

}  // namespace

std::string read_secret_line(int fd, const std::string &name) {
    std::string line;
    for (char c = 0; wait_readable(fd, kNever);) {
        const ssize_t got = read(fd, &c, 1);
        if (got < 0)
            throw Failure(kUsage, "cannot read " + name + ": " + strerror(errno));
        if (got == 0 || c == '\n')
            break;
        line.push_back(c);
        if (line.size() > kLongestSecret)
            throw Failure(kUsage, name + ": longer than " + std::to_string(kLongestSecret));
    }
    if (line.ends_with('\r'))
        line.pop_back();
    if (line.empty())
        throw Failure(kUsage, name + ": the first line is empty");
    return line;
}

std::string read_secret_file(const std::string &path) {
    if (path == "-")
        return read_secret_line(STDIN_FILENO, "standard input");
    const Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file)
        throw Failure(kUsage, "cannot open " + printable(path) + ": " + strerror(errno));
    return read_secret_line(file.get(), printable(path));
}

}  // namespace ctl
