// The command lines of Wi-Fi control: one tool at a time, and what their results mean. Any thread.
#pragma once

#include <string>

// Runs a command line under the command lock. 0, -1, or the raw status of a command that a signal
// ended (which counts as done).
int wifi_system_command(const char *command);

// Only this is a failure: a command that a signal ended counts as done.
constexpr bool wifi_command_failed(int result) {
    return result == -1;
}

// wifi_system_command with its failure logged.
int wifi_command_logged(const std::string &command);

// "sudo ifdown" and "sudo ifup" for an interface, with their failure logged.
int wifi_interface_down(const char *ifname);
int wifi_interface_up(const char *ifname);

// Holds the command lock, for those who read a command's output. Not taken twice by a thread.
class WifiCommandLock {
  public:
    WifiCommandLock();
    ~WifiCommandLock();
    WifiCommandLock(const WifiCommandLock &) = delete;
    WifiCommandLock &operator=(const WifiCommandLock &) = delete;
    void keep() { releases_ = false; }  // the lock stays taken for good

  private:
    bool releases_ = true;
};
