#include "log.h"

#include <cerrno>
#include <thread>

#include "robot.h"

namespace {

constexpr char kFile[] = "/tmp/log";

class Log : public Robot {
  protected:
    // What `write` puts into a file log of level VERBOSE.
    static std::string written(const std::function<void(log_handle *)> &write) {
        unlink(kFile);
        log_handle *log = log_open("robot", LOG_LEVEL_VERBOSE, kFile, 0, 0, 0, 1, 1);
        write(log);
        log_close(log);
        return read_file(kFile);
    }
};

// Both paths name level, source and errno, each with its own punctuation.
TEST_F(Log, HeadersOfBothPaths) {
    const struct {
        int truncate;
        uint32_t level;
        int error;
        const char *line;
    } cases[] = {
        {1, LOG_LEVEL_VERBOSE, ENOENT, "[VERBOSE] (src/x:12) hello 7"},
        {1, LOG_LEVEL_WARN, 0, "[WARN] (src/x:12) hello 7"},
        {1, LOG_LEVEL_ERROR, ENOENT, "[ERROR] (src/x:12 errno:No such file or directory) hello 7"},
        {1, 7, ENOENT, "[<BAD LOG LEVEL>] (src/x:12) hello 7"},
        {0, LOG_LEVEL_INFO, ENOENT, "[INFO] (src/x:12-) hello 7"},
        {0, LOG_LEVEL_WARN, 0, "[WARN] (src/x:12 errno-None) hello 7"},
        {0, 7, ENOENT, "hello 7"},
    };
    for (const auto &row : cases)
        EXPECT_EQ(written([&](log_handle *log) {
                      log_configure_trunc(log, row.truncate);
                      errno = row.error;
                      log_format(log, row.level, "src/x", 12, "hello %d", 7);
                      EXPECT_EQ(errno, row.error);
                  }),
                  row.line);
}

TEST_F(Log, CutsLongMessagesUnlessTold) {
    const auto log_it = [](int truncate, const std::string &format, const std::string &text) {
        return written([&](log_handle *log) {
            log_configure_trunc(log, truncate);
            log_format(log, LOG_LEVEL_INFO, "src/x", 1, format.c_str(), text.c_str());
        });
    };
    const std::string header = "[INFO] (src/x:1-) ", text(3000, 'x');
    EXPECT_EQ(log_it(1, "%s", text).size(), 1023U);
    EXPECT_EQ(log_it(0, "%s", text), header + text);
    // Header and format of 1024 characters are used, though cut by one; one more, the format alone.
    const std::string format(1024 - header.size(), 'y');
    EXPECT_EQ(log_it(0, format, ""), header + format.substr(1));
    EXPECT_EQ(log_it(0, format + "y", ""), format + "y");
}

TEST_F(Log, RefusesWhatCannotWork) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(log_open(nullptr, 2, nullptr, 0, 1, 0, 0, 1), nullptr);
    EXPECT_EQ(log_open("x", 2, nullptr, 0, 1, 0, 1, 1), nullptr);
    EXPECT_EQ(log_open("x", 2, "/no/such/dir", 0, 0, 0, 1, 1), nullptr);
    const std::string bad = "[ERROR:src/log@line-109] Invalid Input params to log_open\n";
    EXPECT_EQ(
        testing::internal::GetCapturedStderr(),
        bad + bad + "[ERROR:src/log@line-143] Unable to open file (/no/such/dir) for write\n");
    log_handle *log = log_open("x", 2, "/no/such/dir", 0, 1, 0, 1, 0);
    EXPECT_EQ(log_set_level_using_str(log, "error"), -1);
    EXPECT_EQ(log_set_level_using_str(log, "err"), 0);
    log_format(log, LOG_LEVEL_WARN, "s", 1, "filtered");
    log_format(log, LOG_LEVEL_ERROR, "s", 1, "to syslog all the same");
    EXPECT_TRUE(logged("to syslog all the same"));
    EXPECT_EQ(times_logged("filtered"), 0);
    log_close(log);
}

// A thread that kept the handle over log_close must not touch freed memory.
TEST_F(Log, ClosingUnderThreadsThatLogIsSafe) {
    log_handle *log = log_open("robot", LOG_LEVEL_ERROR, nullptr, 0, 1, 0, 0, 1);
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([&](const std::stop_token &stop) {
            while (!stop.stop_requested()) {
                log_format(log, LOG_LEVEL_ERROR, "s", 1, "busy");
                log_configure_trunc(log, 0);
                log_set_level(log, LOG_LEVEL_ERROR);
                log_set_level_using_str(log, "err");
            }
        });
    EXPECT_TRUE(logged("busy"));
    log_close(log);
    EXPECT_EQ(log_configure_trunc(log, 1), -1);
    EXPECT_EQ(log_set_level(log, LOG_LEVEL_INFO), -1);
    EXPECT_EQ(log_set_level_using_str(log, "info"), -1);
}

TEST_F(Log, AnyNumberMayBeOpen) {
    std::vector<log_handle *> logs(40);
    for (int round = 0; round < 2; round++) {
        for (auto &log : logs) {
            log = log_open("robot", LOG_LEVEL_INFO, kFile, 0, 0, 0, 1, 0);
            ASSERT_NE(log, nullptr);
            log_format(log, LOG_LEVEL_INFO, "s", 1, "x");
        }
        EXPECT_EQ(log_set_level(logs.front(), LOG_LEVEL_WARN), 0);
        log_format(logs.front(), LOG_LEVEL_INFO, "s", 1, "filtered");
        for (log_handle *log : logs)
            log_close(log);
    }
    EXPECT_EQ(read_file(kFile), std::string(80, 'x'));
}

}  // namespace
