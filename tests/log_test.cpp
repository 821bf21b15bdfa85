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
    struct {
        int truncate;
        uint32_t level;
        int error;
        const char *line;
    } const cases[] = {
        {1, LOG_LEVEL_VERBOSE, ENOENT, "[VERBOSE] (src/x:12) hello 7"},
        {1, LOG_LEVEL_INFO, ENOENT, "[INFO] (src/x:12) hello 7"},
        {1, LOG_LEVEL_WARN, 0, "[WARN] (src/x:12) hello 7"},
        {1, LOG_LEVEL_ERROR, ENOENT, "[ERROR] (src/x:12 errno:No such file or directory) hello 7"},
        {1, 7, ENOENT, "[<BAD LOG LEVEL>] (src/x:12) hello 7"},
        {0, LOG_LEVEL_INFO, ENOENT, "[INFO] (src/x:12-) hello 7"},
        {0, LOG_LEVEL_WARN, 0, "[WARN] (src/x:12 errno-None) hello 7"},
        {0, LOG_LEVEL_ERROR, ENOENT, "[ERROR] (src/x:12 errno-No such file or directory) hello 7"},
        {0, 7, ENOENT, "hello 7"},
    };
    for (const auto &row : cases)
        EXPECT_EQ(written([&](log_handle *log) {
                      EXPECT_EQ(log_configure_trunc(log, row.truncate), 0);
                      errno = row.error;
                      log_format(log, row.level, "src/x", 12, "hello %d", 7);
                      EXPECT_EQ(errno, row.error);
                  }),
                  row.line);
}

TEST_F(Log, CutsLongMessagesUnlessTold) {
    const std::string text(3000, 'x');
    const auto log_it = [&](log_handle *log) {
        log_format(log, LOG_LEVEL_INFO, "src/x", 1, "%s", text.c_str());
    };
    EXPECT_EQ(written(log_it).size(), 1023U);
    EXPECT_EQ(written([&](log_handle *log) {
                  log_configure_trunc(log, 0);
                  log_it(log);
              }).size(),
              3000 + strlen("[INFO] (src/x:1-) "));
}

TEST_F(Log, LongFormatIsUsedBareOnTheDirectPath) {
    // The header and the format make exactly 1024 characters: used, though cut by one.
    const std::string format(1024 - strlen("[INFO] (src/x:1-) "), 'y');
    const auto direct = [&](const std::string &text) {
        return written([&](log_handle *log) {
            log_configure_trunc(log, 0);
            log_format(log, LOG_LEVEL_INFO, "src/x", 1, text.c_str(), 0);
        });
    };
    EXPECT_EQ(direct(format), "[INFO] (src/x:1-) " + format.substr(1));
    EXPECT_EQ(direct(format + "y"), format + "y");
}

TEST_F(Log, LevelFilterAndWords) {
    for (const char *word : {"error", "DBG", "Info", "", "debug"})
        EXPECT_EQ(log_is_valid_level_str(word), 0) << word;
    EXPECT_EQ(written([](log_handle *log) {
                  EXPECT_EQ(log_set_level_using_str(log, "err"), 0);
                  EXPECT_EQ(log_set_level_using_str(log, "error"), -1);
                  log_format(log, LOG_LEVEL_WARN, "s", 1, "filtered");
                  EXPECT_EQ(log_set_level_using_str(log, "verbose"), 0);
                  log_format(log, LOG_LEVEL_VERBOSE, "s", 1, "shown");
              }),
              "[VERBOSE] (s:1) shown");
    EXPECT_EQ(log_set_level_using_str(nullptr, "dbg"), -1);
    EXPECT_EQ(log_set_level(nullptr, 1), -1);
    EXPECT_EQ(log_configure_trunc(nullptr, 1), -1);
}

TEST_F(Log, RefusesWhatCannotWork) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(log_open(nullptr, 2, nullptr, 0, 1, 0, 0, 1), nullptr);
    EXPECT_EQ(log_open("x", 2, nullptr, 0, 2, 0, 0, 1), nullptr);
    EXPECT_EQ(log_open("x", 2, nullptr, 0, 1, 0, 1, 1), nullptr);
    EXPECT_EQ(log_open("x", 2, "/no/such/dir", 0, 0, 0, 1, 1), nullptr);
    const std::string bad = "[ERROR:src/log@line-109] Invalid Input params to log_open\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              bad + bad + bad +
                  "[ERROR:src/log@line-143] Unable to open file (/no/such/dir) for write\n");
    log_handle *log = log_open("x", 2, "/no/such/dir", 0, 1, 0, 1, 0);
    ASSERT_NE(log, nullptr);
    log_format(log, LOG_LEVEL_INFO, "s", 1, "to syslog all the same");
    EXPECT_TRUE(logged("to syslog all the same"));
    log_close(log);
}

TEST_F(Log, NullHandleReachesSyslogWhateverTheLevel) {
    log_format(nullptr, LOG_LEVEL_VERBOSE, "src/x", 3, "quiet %s", "word");
    EXPECT_TRUE(logged("[VERBOSE] (src/x:3-) quiet word"));
}

// A thread that kept the handle over log_close must not touch freed memory.
TEST_F(Log, ClosingUnderThreadsThatLogIsSafe) {
    log_handle *log = log_open("robot", LOG_LEVEL_ERROR, nullptr, 0, 1, 0, 0, 1);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([&] {
            while (!stop)
                log_format(log, LOG_LEVEL_ERROR, "s", 1, "busy");
        });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    log_close(log);
    stop = true;
    for (auto &thread : threads)
        thread.join();
    EXPECT_GT(times_logged("busy"), 0);
}

}  // namespace
