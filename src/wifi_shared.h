// What the source files of Wi-Fi control share with each other and with nobody else.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

namespace wifi_shared {

// --- flags and timers: written by any thread, read by the main thread, no lock -------------------

using Flag = std::atomic<bool>;

inline Flag station_started{false};  // a connect brought the station interface up
inline Flag connected{false};        // the supplicant reported a connection
inline Flag assoc_rejected{false};   // the access point refused us since the last connection
inline Flag wrong_key_seen{false};   // one report of a wrong key led to another try already

// The seconds left to get a valid address and to associate, 0 when off. Both live in one word:
// arming and clearing them is one store, and a count-down that meets a clear loses to it.
class Timers {
  public:
    enum kind : unsigned { dhcp = 0, association = 8 };  // where in the word

    void arm(uint8_t dhcp_s, uint8_t association_s) {
        word_ = static_cast<uint16_t>(dhcp_s << dhcp | association_s << association);
    }
    void clear() { word_ = 0; }
    void clear(kind which) { word_ &= static_cast<uint16_t>(~(0xFFU << which)); }
    int left(kind which) const { return word_ >> which & 0xFF; }

    // Takes a second off a running timer; true when that was its last one.
    bool count_down(kind which) {
        uint16_t old = word_;
        while ((old >> which & 0xFF) != 0) {
            const auto next = static_cast<uint16_t>(old - (1U << which));
            if (word_.compare_exchange_weak(old, next))
                return (next >> which & 0xFF) == 0;
        }
        return false;
    }

  private:
    std::atomic<uint16_t> word_{0};
};
inline Timers timers;

// --- commands ------------------------------------------------------------------------------------

// Holds the command lock, which runs the commands of Wi-Fi control one after the other.
class CommandLock {
  public:
    CommandLock();
    ~CommandLock();
    CommandLock(const CommandLock &) = delete;
    CommandLock &operator=(const CommandLock &) = delete;
    void keep() { releases_ = false; }  // the lock stays taken for good

  private:
    bool releases_ = true;
};

std::string format_text(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Only this is a failure: a command that a signal ended counts as done.
constexpr bool failed(int result) {
    return result == -1;
}

// wifi_system_command with its failure logged.
int run_logged(const std::string &command);

// "sudo ifdown" and "sudo ifup" for an interface, through run_logged.
int interface_down(const char *ifname);
int interface_up(const char *ifname);

// The next line, at most 255 characters of it: a longer one arrives in pieces. False at the end.
using Line = std::array<char, 256>;
inline bool read_line(FILE *stream, Line &line) {
    return fgets(line.data(), static_cast<int>(line.size()), stream) != nullptr;
}

}  // namespace wifi_shared
