// A robot with the daemon on it in a process of its own, which is the test program run anew. Its
// tools succeed, its pauses are cut to a fiftieth, its requests wait a twentieth of a second.
#pragma once

#include "robot.h"

class DaemonRobot : public Robot {
  protected:
    void SetUp() override;
    void TearDown() override;  // ends what was started

    pid_t start(const std::string &command_line);
    pid_t start_daemon(const std::string &arguments = "");
    // Sends the signal and waits; the exit code, or -1.
    int end_of(pid_t child, int signal = 0);

  private:
    std::vector<pid_t> children_;
};

// What main() does: the daemon's work when started as one, else the tests'.
int run_tests_or_daemon(int argc, char **argv);
