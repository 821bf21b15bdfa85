// A robot for one test: reads what the code under test logs, sets up the store and the tools it
// meets, and tells which command lines it ran. The test program runs inside tests/sandbox.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "owned.h"

class Robot : public testing::Test {
  public:
    // Waits up to `limit` for the condition; its last value.
    static bool eventually(const std::function<bool()> &condition,
                           std::chrono::milliseconds limit = std::chrono::seconds(5));
    static void add_to_commands(const std::string &line);

  protected:
    Robot();
    ~Robot() override;

    // --- the log: every line that reached /dev/log, "<priority>" and time stamp cut --------------
    // All lines, newline-ended. Holds, as do the next ones, whatever was logged before the call: a
    // marker is sent behind it and waited for. From one thread at a time.
    std::string log_text();
    int times_logged(const std::string &text);
    void forget_log();
    // Waits up to half a minute for a line that contains `text`, of that level ("ERROR", "DBG",
    // ...).
    bool logged(const std::string &text) { return logged_as("", text); }
    bool logged_as(const std::string &level, const std::string &text);

    // --- the settings store ----------------------------------------------------------------------
    static std::string kvs_path(const std::string &key) {
        return "/opt/halvik/persistent/opt/halvik/data/kvs/" + key;
    }
    static void kvs_set(const std::string &key, const std::string &value) {
        write_file(kvs_path(key), value);
    }
    // As stored; "<none>" when missing.
    static std::string kvs_get(const std::string &key) { return read_file(kvs_path(key)); }

    // --- tools -----------------------------------------------------------------------------------
    // Puts a shell script named `tool` first in PATH. "sudo" is there from the start and runs what
    // it is given.
    static void fake(const std::string &tool, const std::string &script);
    // The shell command lines that were run so far, to the letter, in order.
    static std::vector<std::string> commands();
    static void forget_commands();
    // From now on the log is told in its order among the commands.
    static void tell_stories();
    // What happened since the last call, a line each: commands, wifi states ("wifi = 8"), and, with
    // tell_stories, what was stored ("KEY VALUE"), sent ("TOPIC TEXT") and complained of by
    // `source`.
    static std::string story(const std::string &source);

    static void write_file(const std::string &path, const std::string &content, int mode = 0644);
    static std::string read_file(const std::string &path);  // "<none>" when missing

    // "wlan0" gets an address and a gateway that answers arping while /tmp/answers exists.
    static void give_address();

    // First in a test that waits long: runs it again in a process whose sleeps, time-outs and
    // clocks go `factor` times faster. False under a sanitizer, which cannot: the test then skips.
    static bool run_hastened(int factor);

  private:
    void read_log();
    void catch_up_with_log();
    int count_lines(const std::string &level, const std::string &text);

    Fd log_socket_;
    std::mutex lock_;
    std::vector<std::string> lines_;
    std::atomic<unsigned> markers_read_{0};
    unsigned markers_sent_ = 0;
    std::atomic<bool> stop_{false};
    std::thread reader_;
};

// The real broker with the board's configuration, on 127.0.0.1:1883 and /tmp/broker.sock, ended
// with the object.
class Broker {
  public:
    Broker() { start(); }
    ~Broker() { stop(); }
    void start();   // returns when it accepts connections
    void freeze();  // accepts connections still, and says nothing more
    void stop();

  private:
    pid_t pid_ = -1;
};
