#include "log.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "robot.h"

namespace {

constexpr char kFile[] = "/tmp/log";

// Syslog is played by the test, which sees priorities and knows what is not sent.
class Log : public testing::Test {
  protected:
    Log() {
        constexpr sockaddr_un kAddress{AF_UNIX, "/dev/log"};
        const auto *const address = reinterpret_cast<const sockaddr *>(&kAddress);
        EXPECT_EQ(bind(syslog_.get(), address, sizeof kAddress), 0);
    }
    // The next line as "<27>robot: text", time and process number cut; "" when there is none.
    std::string received() {
        char line[4096];
        const ssize_t length = recv(syslog_.get(), line, sizeof line, MSG_DONTWAIT);
        if (length <= 0)
            return "";
        const std::string text(line, static_cast<size_t>(length));
        const size_t number = text.find('[');
        return text.substr(0, 4) + text.substr(20, number - 20) + text.substr(text.find("]: ") + 1);
    }
    std::string sent(log_handle *log, uint32_t level, int error, const std::string &format,
                     const char *text = "hello") {
        errno = error;
        log_format(log, level, "src/x", 12, format.c_str(), text);
        EXPECT_EQ(errno, error);
        return received();
    }

    Fd syslog_{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

// Both paths name level, source and errno, each with its own punctuation.
TEST_F(Log, LevelsHaveNamesAndPrioritiesOnBothPaths) {
    constexpr int kCut = 1, kWhole = 0;  // truncation
    const std::tuple<int, uint32_t, int, std::string> rows[] = {
        {kCut, 0, ENOENT, "<31>robot: [VERBOSE] (src/x:12) hello"},
        {kCut, 1, ENOENT, "<31>robot: [DBG] (src/x:12) hello"},
        {kCut, 2, ENOENT, "<29>robot: [INFO] (src/x:12) hello"},
        {kCut, 3, ENOENT, "<28>robot: [WARN] (src/x:12 errno:No such file or directory) hello"},
        {kCut, 4, 0, "<27>robot: [ERROR] (src/x:12) hello"},
        {kCut, 5, ENOENT, "<26>robot: [<BAD LOG LEVEL>] (src/x:12) hello"},
        {kWhole, 0, ENOENT, "<31>robot: [VERBOSE] (src/x:12-) hello"},
        {kWhole, 1, ENOENT, "<31>robot: [DBG] (src/x:12-) hello"},
        {kWhole, 2, ENOENT, "<29>robot: [INFO] (src/x:12-) hello"},
        {kWhole, 3, 0, "<28>robot: [WARN] (src/x:12 errno-None) hello"},
        {kWhole, 4, ENOENT, "<27>robot: [ERROR] (src/x:12 errno-No such file or directory) hello"},
        {kWhole, 5, ENOENT, "<26>robot: hello"},
    };
    log_handle *const log = log_open_default("robot");
    EXPECT_EQ(sent(log, 1, 0, "%s"), "");
    for (const auto &[truncate, level, error, line] : rows) {
        EXPECT_EQ(log_configure_trunc(log, truncate) + log_set_level(log, level), 0);
        EXPECT_EQ(sent(log, level, error, "%s"), line);
        EXPECT_EQ(level > 0 ? sent(log, level - 1, 0, "%s") : "", "") << line;
        log_handle *const nobodys = truncate == kWhole ? nullptr : log;  // has no level
        EXPECT_EQ(sent(nobodys, level, error, "%s"), line);
    }
    uint32_t level = 0;
    for (const char *word : {"verbose", "dbg", "info", "warn", "err"}) {
        EXPECT_EQ(log_is_valid_level_str(word) + log_set_level_using_str(log, word), 1) << word;
        EXPECT_EQ(level > 0 ? sent(log, level - 1, 0, "%s") : "", "") << word;
        EXPECT_NE(sent(log, level++, 0, "%s"), "") << word;
    }
    for (const char *word : {"error", "DBG", "", "verbos", static_cast<const char *>(nullptr)})
        EXPECT_EQ(log_is_valid_level_str(word) + log_set_level_using_str(log, word), -1);
    EXPECT_EQ(sent(log, LOG_LEVEL_WARN, 0, "%s"), "") << "the level did not stay";
    log_close(log);
}

TEST_F(Log, CutsLongMessagesUnlessTold) {
    log_handle *const log = log_open("x", 2, nullptr, 0, 1, 0, 0, 1);
    const std::string header = "[INFO] (src/x:12-) ", text(3000, 'x');
    EXPECT_EQ(sent(log, 2, 0, "%s", text.c_str()).size(), 1023 + strlen("<29>x: "));
    log_configure_trunc(log, 0);
    EXPECT_EQ(sent(log, 2, 0, "%s", text.c_str()), "<29>x: " + header + text);
    // Header and format of 1024 characters are used, though cut by one; one more, the format alone.
    const std::string format(1024 - header.size(), 'y');
    EXPECT_EQ(sent(log, 2, 0, format), "<29>x: " + header + format.substr(1));
    EXPECT_EQ(sent(log, 2, 0, format + "y"), "<29>x: " + format + "y");
    log_close(log);
}

TEST_F(Log, WritesWhereItWasToldOrRefuses) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(log_open(nullptr, 2, nullptr, 0, 1, 0, 0, 1), nullptr);
    EXPECT_EQ(log_open("x", 2, nullptr, 0, 1, 0, 1, 1), nullptr);
    EXPECT_EQ(log_open("x", 2, kFile, 1, 2, 2, 2, 1), nullptr);  // the lowest bits count
    EXPECT_EQ(log_open("x", 2, "/no/such/dir", 0, 0, 0, 1, 1), nullptr);
    const std::string bad = "[ERROR:src/log@line-109] Invalid Input params to log_open\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              bad + bad + bad +
                  "[ERROR:src/log@line-143] Unable to open file (/no/such/dir) for write\n");
    testing::internal::CaptureStdout();
    log_handle *const without_file = log_open("x", 2, "/no/such/dir", 0, 1, 1, 1, 0);
    log_handle *const file = log_open("x", 2, kFile, 1, 0, 0, 1, 1);
    for (log_handle *log : {without_file, file}) {
        const bool is_file = log == file;
        EXPECT_EQ(sent(log, 2, 0, "one"), is_file ? "" : "<29>x: one");
        log_configure_trunc(log, 0);
        EXPECT_EQ(sent(log, 2, 0, "two"), is_file ? "" : "<29>x: [INFO] (src/x:12-) two");
        log_close(log);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "one[INFO] (src/x:12-) two");
    EXPECT_THAT((std::ostringstream() << std::ifstream(kFile).rdbuf()).str(),
                testing::MatchesRegex("[0-9]+\\.[0-9]{9} \\[INFO\\] \\(src/x:12\\) one"
                                      "\\[INFO\\] \\(src/x:12-\\) two"));
    EXPECT_DEATH(log_die("x %d", 7), "^x 7\n$");
    EXPECT_DEATH(log_die(nullptr),
                 "^log_die: assertion failed: \\(msg\\) != NULL "
                 "\\(src/log, line 674\\)\n$");
}

// A thread that kept the handle over log_close must not touch freed memory.
TEST_F(Log, ClosingUnderThreadsThatLogIsSafe) {
    const auto open = [] { return log_open("robot", 2, "/dev/null", 0, 0, 0, 1, 1); };
    syslog_.reset();
    log_handle *const other = open(), *const log = open();
    std::atomic<int> calls{0};
    const auto use = [&](const std::stop_token &stop) {
        for (; !stop.stop_requested(); calls++)
            log_format(log, LOG_LEVEL_ERROR, "s", log_configure_trunc(log, 0), "busy");
    };
    const std::jthread threads[] = {std::jthread(use), std::jthread(use)};
    EXPECT_TRUE(Robot::eventually([&] { return calls > 100; }));
    log_close(log);
    EXPECT_EQ(log_configure_trunc(log, 1) + log_set_level(log, LOG_LEVEL_INFO), -2);
    EXPECT_EQ(log_set_level_using_str(log, "info"), -1);
    EXPECT_EQ(log_set_level(other, 2), 0);
    log_close(other);
}

}  // namespace
