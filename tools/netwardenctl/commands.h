// The commands of netwardenctl. Each returns the exit code or throws Failure or Interrupted.
#pragma once

#include <optional>
#include <string>

namespace ctl {

struct Options {
    double timeout_s = 0;  // 0 when not given: each command has its own
    bool json = false;

    double timeout_or(double otherwise) const { return timeout_s > 0 ? timeout_s : otherwise; }
};

// --- ask.cpp: one request or event, one answer
int show_status(const Options &options, const std::string &interface);
int show_link(const Options &options, const std::string &interface);
int get(const Options &options, const std::string &what);
int set_log_level(const Options &options, const std::string &level);
int track(const Options &options, const std::string &what);

// --- watch.cpp
int watch(const Options &options, long count, const std::string &interface);
int list_devices(const Options &options);

// --- change.cpp
int wait_for_state(const Options &options, const std::string &state, const std::string &interface);
int restart_network(const Options &options, bool wait);
int forget_network(const Options &options, bool yes);

// --- doctor.cpp
int examine_machine(const Options &options, const std::string &interface);

// --- report.cpp
int report(const Options &options, const std::string &path, const std::string &interface);

// --- discover.cpp
struct DiscoverOptions {
    std::string address;    // asks this one only
    std::string interface;  // or everybody on this one; on all when empty
};
int discover(const Options &options, const DiscoverOptions &where);
// The description that the robot at this host tells, or nothing within `limit_s`.
std::optional<std::string> probe_host(const std::string &host, double limit_s);

// --- provision.cpp
struct ProvisionOptions {
    std::string step;  // this one only; all when empty
    std::string ssid;
    bool ssid_is_hex = false;
    std::string pass_file;  // asks on the terminal when empty and not open
    bool open = false;
    bool static_address = false;
    std::string addr;
    std::string mask;
    std::string gw;
    std::string dns1;
    std::string dns2;
    std::string robot_pass_file;
    bool tidelink = false;
    bool phone = false;  // waits for one on the soft AP
};
int provision(const Options &options, const ProvisionOptions &settings);
int abort_provisioning(const Options &options);
int train(const Options &options, bool follow);
int end_training(const Options &options);

}  // namespace ctl
