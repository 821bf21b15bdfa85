// Whether this machine has what netwarden needs of a port, each thing in the form in which the
// daemon reads it: where the core has the reader, it is the core's that reads here.
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sstream>

#include "arping.h"
#include "broker.h"
#include "commands.h"
#include "connection.h"
#include "kvs_keys.h"
#include "machine.h"
#include "pex_kvs.h"
#include "pex_misc.h"
#include "pex_product_version_string.h"
#include "supplicant_status.h"
#include "text.h"
#include "wifi_control.h"
#include "wifi_settings.h"

namespace ctl {

namespace {

constexpr double kToolS = 5;
constexpr char kSupplicantFile[] = "/etc/wpa_supplicant.conf";
constexpr char kSupplicantSockets[] = "/var/run/wpa_supplicant";
constexpr char kDhcpPidFile[] = "/var/run/udhcpc.wlan0.pid";  // whatever the station's name
constexpr char kRelay[] = "/usr/lib/netwarden-board/udhcpc-relay";

struct Verdict {
    enum { ok, fault, unknown } what;
    std::string text;  // what was seen, or what to do
};
Verdict ok(const std::string &text) {
    return {Verdict::ok, text};
}
Verdict fault(const std::string &text) {
    return {Verdict::fault, text};
}
Verdict unknown(const std::string &text) {
    return {Verdict::unknown, text};
}

// What the checks have in common.
struct Patient {
    std::string station;
    std::optional<Daemon> daemon;
    std::string daemon_user;  // empty when it is root
    Addresses addresses;
};

std::string first_line(const std::string &text) {
    return printable(text.substr(0, text.find('\n')));
}

std::string what_came(const ToolResult &tool) {
    return tool.ok() ? (tool.output.empty() ? "nothing" : "\"" + first_line(tool.output) + "\"")
                     : tool.why() + (tool.output.empty() ? "" : ": " + first_line(tool.output));
}

// The core's own function in a process of its own: a tool that it waits for may hang.
bool holds_in_time(const std::function<bool()> &question) {
    return run_apart([&] { return question() ? kDone : kRefused; }, kToolS).ok();
}

// --- tools ---------------------------------------------------------------------------------------

struct Tool {
    const char *name;
    const char *from;               // where a missing one comes from
    const char *without = nullptr;  // what netwarden does less then; null: it cannot be without
};
constexpr std::array kTools{
    Tool{"sudo", "install the package sudo"},
    Tool{"ifup", "a link to busybox, or the package ifupdown"},
    Tool{"ifdown", "a link to busybox, or the package ifupdown"},
    Tool{"ifconfig", "a link to busybox"},
    Tool{"wpa_cli", "install the package wpasupplicant"},
    Tool{"wpa_supplicant", "install the package wpasupplicant"},
    Tool{"hostapd_cli", "install the package hostapd"},
    Tool{"iw", "install the package iw"},
    Tool{"arping", "install the package iputils-arping"},
    Tool{"avahi-browse", "install the package avahi-utils",
         "the census does not hear devices that announce themselves"},
    Tool{"provision", "the board's: board/install.sh, or the maker's own"},
    Tool{"network_device_interfaces_control.sh", "the board's: board/install.sh"},
    Tool{"network_dhcp_arp_control.sh", "the board's: board/install.sh"},
    Tool{"version", "the board's: board/install.sh"},
    Tool{"/usr/bin/webserver_control.sh", "the board's: board/install.sh"},
    Tool{"/sbin/reboot", "a link to busybox, or the package systemd-sysv"},
};

Verdict check_tool(const Tool &tool) {
    const auto path = find_in_path(tool.name);
    if (path)
        return ok(*path);
    if (tool.without != nullptr)
        return unknown(std::string("not there, so ") + tool.without + ": " + tool.from);
    return fault(std::string("not there: ") + tool.from);
}

Verdict check_interface(const Patient &patient) {
    return is_interface(patient.station)
               ? ok(patient.station)
               : fault("there is no interface " + printable(patient.station) +
                       ": load the radio's driver, or start netwarden with --if_sta NAME");
}

Verdict check_ifconfig(const Patient &patient) {
    wifi_set_station_interface_name(patient.station.c_str());
    if (holds_in_time([] { return wifi_check_sta_iface_available() == 0; }))
        return ok("prints HWaddr");
    return fault("does not print HWaddr for " + printable(patient.station) +
                 ", which netwarden waits for at its start: busybox's does, net-tools' does not");
}

Verdict check_ifstate(const Patient &) {
    return wifi_check_run_network_dir() == 0
               ? ok("/run/ifstate")
               : fault(
                     "no /run/ifstate, which netwarden waits for at its start: have ifup -a "
                     "run at boot");
}

Verdict check_iw(const Patient &patient) {
    try {
        const auto link = read_link(patient.station);
        return ok(link ? "joined to " + printable(link->bssid) : "tells that nothing is joined");
    } catch (const Failure &failure) {
        return fault(failure.what());
    }
}

Verdict check_soft_ap(const Patient &) {
    const ToolResult iw = run_tool({"iw", "phy"}, kToolS);
    if (!iw.ok())
        return fault("iw phy: " + what_came(iw));
    return iw.output.find("* AP\n") != iw.output.npos
               ? ok("a radio can be one")
               : fault(
                     "no radio here can be an access point: the owner's phone cannot give the "
                     "robot its settings");
}

Verdict check_arping(const Patient &patient) {
    if (patient.addresses.gateway.empty())
        return unknown("no gateway to ask now: look again when the robot is connected");
    const ToolResult arping = run_tool({"sudo", "-n", "arping", "-I" + patient.station, "-c1",
                                        patient.addresses.gateway, "-w", "2"},
                                       kToolS);
    std::istringstream lines(arping.output);
    for (std::string line; std::getline(lines, line);)
        if (arping_reply(line.c_str(), arping_peer::gateway))
            return ok("the gateway answers");
    if (arping.output.find("reply from") != arping.output.npos ||
        arping.output.find("bytes from") != arping.output.npos)
        return fault(
            "prints what netwarden does not read: the package iputils-arping has the one "
            "it does");
    return fault("no answer of " + patient.addresses.gateway + " (" + what_came(arping) + ")");
}

Verdict check_provision(const Patient &) {
    const ToolResult told = run_tool({"sudo", "-n", "provision"}, kToolS);
    return told.ok() && told.output.find("CL REG DOMAIN") != told.output.npos
               ? ok("reports the regulatory domain")
               : fault("sudo provision has no line with CL REG DOMAIN, but " + what_came(told));
}

Verdict check_version(const Patient &) {
    return holds_in_time([] { return pex_get_product_version_string() != nullptr; })
               ? ok("tells the product's")
               : fault("sudo version prints no line \"Product Version: ...\"");
}

// --- rights --------------------------------------------------------------------------------------

// Command lines as the daemon gives them, one of each kind.
const std::vector<std::vector<std::string>> &privileged(const std::string &station) {
    static const std::vector<std::vector<std::string>> lines{
        {"ifup", station},
        {"ifdown", station},
        {"/sbin/reboot"},
        {"wpa_cli", "-i" + station, "status"},
        {"wpa_cli", "-i" + station, "reconfigure"},
        {"hostapd_cli", "-ip2p0", "all_sta"},
        {"arping", "-I" + station, "-c1", "192.0.2.1", "-w", "2"},
        {"arping", "-q", "-I" + station, "-c2", "-f", "192.0.2.1"},
        {"provision", "--clmode", "dhcp"},
        {"provision", "--apssid", "Plover-0123", "--apchan", "6", "--aphwmode", "g"},
        {"version"},
        {"network_device_interfaces_control.sh", "--interface=softap", "--action=add"},
        {"network_dhcp_arp_control.sh", "enable"},
        {"/usr/bin/webserver_control.sh", "start"},
    };
    return lines;
}

Verdict check_sudo(const Patient &patient) {
    const std::string user = !patient.daemon_user.empty() ? patient.daemon_user
                             : geteuid() == 0             ? ""
                                                          : "?";
    if (user.empty()) {
        const ToolResult plain = run_tool({"sudo", "-n", "true"}, kToolS);
        return plain.ok() ? ok("root may use it")
                          : fault("root may not use it: " + what_came(plain));
    }
    if (user == "?")
        return unknown("run this as root, to see for the daemon's user");
    std::string refused;
    for (std::vector<std::string> line : privileged(patient.station)) {
        std::vector<std::string> command{"sudo", "-n", "-U", user, "-l"};
        const std::string shown = line[0] + (line.size() > 1 ? " " + line[1] : "");
        command.insert(command.end(), line.begin(), line.end());
        if (!run_tool(command, kToolS).ok())
            refused += (refused.empty() ? "" : ", ") + shown;
    }
    return refused.empty() ? ok(user + " may run all that netwarden runs")
                           : fault("its rules do not let " + user + " run " + refused +
                                   ": board/etc/sudoers.d/netwarden has them");
}

Verdict check_group(const Patient &) {
    return getgrnam("apps") != nullptr
               ? ok("apps")
               : fault(
                     "there is no group apps, which the supplicant's sockets go to: "
                     "groupadd --system apps");
}

// --- supplicant and DHCP client ------------------------------------------------------------------

Verdict check_supplicant_file(const Patient &) {
    struct stat info = {};
    if (stat(kSupplicantFile, &info) != 0)
        return access("/etc", W_OK) == 0
                   ? ok("not there yet; netwarden makes it")
                   : fault(std::string("not there, and cannot be made: ") + kSupplicantFile +
                           " must be writable, or a link to what is");
    const auto text = read_text_file(kSupplicantFile);
    if (!text)
        return unknown("may be read by root only");
    if ((info.st_mode & S_IROTH) != 0)
        return fault(
            "everybody may read the network's key in it: chmod 600 /etc/wpa_supplicant"
            ".conf");
    for (const char *line :
         {"ctrl_interface=/var/run/wpa_supplicant\n", "ctrl_interface_group=apps\n"})
        if (text->find(line) == text->npos)
            return fault("has no line " + first_line(line) +
                         ": netwarden writes it at its start; who else does?");
    return ok(kSupplicantFile);
}

Verdict check_supplicant(const Patient &patient) {
    const std::string socket = std::string(kSupplicantSockets) + "/" + patient.station;
    if (access(socket.c_str(), F_OK) != 0)
        return stored(kvs_key::kSsid) ? fault("no control socket " + printable(socket) + ": ifup " +
                                              printable(patient.station) +
                                              " must start wpa_supplicant with " + kSupplicantFile)
                                      : unknown("not needed until a network is saved");
    const ToolResult status =
        run_tool({"sudo", "-n", "wpa_cli", "-i" + patient.station, "status"}, kToolS);
    std::istringstream lines(status.output);
    for (std::string line; std::getline(lines, line);)
        if (const auto [name, value] = supplicant_status_property(line); name == "wpa_state")
            return ok(value);
    return fault("does not tell its wpa_state, but " + what_came(status));
}

bool catches_signal(pid_t process, int number) {
    const auto status = read_text_file("/proc/" + std::to_string(process) + "/status");
    const size_t at = status ? status->find("SigCgt:") : std::string::npos;
    if (at == std::string::npos)
        return false;
    const auto caught = strtoull(status->c_str() + at + 7, nullptr, 16);
    return (caught >> (number - 1) & 1) != 0;
}

Verdict check_dhcp_client(const Patient &patient) {
    const std::string signal = "signal " + std::to_string(NETWARDEN_DHCP_RENEW_SIGNAL);
    const auto text = read_text_file(kDhcpPidFile);
    if (!text) {
        if (stored(kvs_key::kAddrType).value_or("1") == "1" && !patient.addresses.address.empty())
            return fault(std::string("has left no ") + kDhcpPidFile +
                         ": its lease cannot be renewed when the access point comes back");
        if (NETWARDEN_DHCP_RENEW_SIGNAL != SIGUSR1 && access(kRelay, X_OK) != 0)
            return fault(signal +
                         " would end udhcpc on this processor: build with "
                         "NETWARDEN_DHCP_RENEW_SIGNAL=" +
                         std::to_string(SIGUSR1) + ", or put the board's relay in front of it");
        return unknown("does not run now: look again when the robot is connected");
    }
    const auto process = static_cast<pid_t>(strtol(text->c_str(), nullptr, 10));
    if (process < 2 || kill(process, 0) != 0)
        return fault(std::string(kDhcpPidFile) +
                     " names no process that runs: " + first_line(*text));
    if (!catches_signal(process, NETWARDEN_DHCP_RENEW_SIGNAL))
        return fault("process " + std::to_string(process) + " does not take " + signal +
                     ", with which its lease is renewed: it would end");
    return ok("takes " + signal);
}

// --- store ---------------------------------------------------------------------------------------

Verdict check_store(const Patient &) {
    const MallocText any(create_fname_malloc("x"));
    const std::string path = any ? any.get() : "";
    const std::string folder = path.substr(0, path.rfind('/'));
    if (access(folder.c_str(), F_OK) != 0)
        return fault("no folder " + folder + ": make it, on a partition that lasts");
    if (access(folder.c_str(), R_OK | W_OK | X_OK) != 0)
        return geteuid() == 0 ? fault("cannot be written: " + folder)
                              : unknown("may be written by root only");
    if (!stored(kvs_key::kRobotId))
        return fault(std::string("has no ") + kvs_key::kRobotId +
                     ", of which the soft AP's name is made");
    return ok(folder);
}

Verdict check_saved_network(const Patient &) {
    const auto ssid = stored(kvs_key::kSsid);
    if (!ssid)
        return may_read_store() ? ok("none yet: provision the robot")
                                : unknown("cannot be read here");
    if (ssid->empty() || ishexstring(ssid->c_str()) == 0)
        return fault("network.ssid is not two hexadecimal digits a byte");
    const auto type = stored(kvs_key::kAddrType);
    if (type != "0" && type != "1")
        return fault(
            "network.addr_type is not 1 (DHCP) or 0 (static): netwarden does not "
            "connect without");
    if (!stored(kvs_key::kIpConfig))
        return fault("network.ip_config is missing: the command line that stores the address mode");
    return ok(type == "1" ? "with DHCP" : "with a static address");
}

// --- broker and daemon ---------------------------------------------------------------------------

// Whether somebody listens to the port on every address: "  0: 00000000:075B 00000000:0000 0A".
bool is_open_to_the_home(int port) {
    const std::string wanted = format("00000000:%04X ", static_cast<unsigned>(port));
    std::istringstream lines(read_text_file("/proc/net/tcp", 1 << 20).value_or(""));
    for (std::string line; std::getline(lines, line);)
        if (line.find(": " + wanted) != line.npos && line.find(" 0A ") != line.npos)
            return true;
    return false;
}

Verdict check_broker_size(Connection &broker, const std::string &topic) {
    constexpr size_t kCensus = 1 << 20;
    constexpr double kBackS = 3;
    if (broker.send(topic, std::string(kCensus, ' ')))
        for (const Deadline end = deadline_after(kBackS); const auto message = broker.next(end);)
            if (message->topic == topic)
                return ok("passes messages of 1 MiB");
    return fault(
        "drops messages of 1 MiB, which a census may have, without telling anybody: "
        "message_size_limit 1048576 in mosquitto.conf");
}

Verdict check_daemon(Connection &broker) {
    return broker.try_ask(R"({"get":"channel"})", 2)
               ? ok("answers")
               : fault(
                     "does not answer: systemctl enable --now netwarden; its log says more "
                     "(journalctl -t network)");
}

// --- all of them ---------------------------------------------------------------------------------

class Report {
  public:
    explicit Report(bool json) : json_(json) {}
    void line(const std::string &name, const Verdict &verdict) {
        faults_ += verdict.what == Verdict::fault ? 1 : 0;
        if (json_) {
            const Json line(json_pack("{s:s, s:o, s:s}", "check", name.c_str(), "ok",
                                      verdict.what == Verdict::unknown
                                          ? json_null()
                                          : json_boolean(verdict.what == Verdict::ok),
                                      "text", printable(verdict.text).c_str()));
            puts(compact(line.get()).c_str());
        } else {
            constexpr std::array kMarks{"ok", "FAULT", "?"};
            printf("%-5s  %-22s  %s\n", kMarks[verdict.what], name.c_str(),
                   printable(verdict.text).c_str());
        }
        flush_output();
    }
    int faults() const { return faults_; }

  private:
    bool json_;
    int faults_ = 0;
};

struct Check {
    const char *name;
    Verdict (*look)(const Patient &);
};
constexpr std::array kChecks{
    Check{"interface", check_interface},
    Check{"ifconfig", check_ifconfig},
    Check{"ifstate", check_ifstate},
    Check{"iw", check_iw},
    Check{"soft AP", check_soft_ap},
    Check{"provision", check_provision},
    Check{"version", check_version},
    Check{"sudo", check_sudo},
    Check{"group", check_group},
    Check{"store", check_store},
    Check{"saved network", check_saved_network},
    Check{"supplicant's file", check_supplicant_file},
    Check{"supplicant", check_supplicant},
    Check{"DHCP client", check_dhcp_client},
    Check{"arping", check_arping},
};

void check_broker_and_daemon(Report &report, double limit_s) {
    const std::string topic = "netwardenctl/doctor/" + std::to_string(getpid());
    const std::string &address = broker_settings().address;
    try {
        Connection broker({topic}, limit_s);
        const int port = atoi(address.substr(address.rfind(':') + 1).c_str());
        report.line("broker", is_broker_local() && is_open_to_the_home(port)
                                  ? fault("listens to the whole home, and whoever may publish "
                                          "commands the robot: listener " +
                                          std::to_string(port) + " 127.0.0.1 in mosquitto.conf")
                                  : ok(printable(address)));
        report.line("broker's limit", check_broker_size(broker, topic));
        report.line("netwarden", check_daemon(broker));
    } catch (const Failure &failure) {
        if (failure.code == kUsage)
            throw;
        report.line("broker", fault(failure.what()));
    }
}

Patient examine(const std::string &asked_interface) {
    Patient patient;
    patient.station = station_interface(asked_interface);
    patient.daemon = find_daemon();
    patient.addresses = read_addresses(patient.station);
    struct stat info = {};
    const std::string process =
        patient.daemon ? "/proc/" + std::to_string(patient.daemon->process) : "";
    if (patient.daemon && stat(process.c_str(), &info) == 0 && info.st_uid != 0) {
        const passwd *user = getpwuid(info.st_uid);
        patient.daemon_user = user != nullptr ? user->pw_name : std::to_string(info.st_uid);
    }
    return patient;
}

}  // namespace

int examine_machine(const Options &options, const std::string &asked_interface) {
    const Patient patient = examine(asked_interface);
    // A shell's may find others of these names, or none.
    if (const auto path = daemon_path(patient.daemon))
        setenv("PATH", path->c_str(), 1);
    Report report(options.json);
    for (const Tool &tool : kTools)
        report.line(std::string("tool ") + tool.name, check_tool(tool));
    for (const Check &check : kChecks)
        report.line(check.name, check.look(patient));
    check_broker_and_daemon(report, options.timeout_or(kAnswerS));
    if (report.faults() == 0)
        return kDone;
    throw Failure(kRefused, std::to_string(report.faults()) +
                                (report.faults() == 1 ? " thing is" : " things are") +
                                " not as netwarden needs it (docs/porting.md)");
}

}  // namespace ctl
