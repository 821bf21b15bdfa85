// Waiting for the robot's state, and what changes it from outside of a provisioning.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "broker.h"
#include "commands.h"
#include "connection.h"
#include "kvs_keys.h"
#include "machine.h"
#include "pex_kvs.h"
#include "state.h"
#include "text.h"
#include "wifi_state.h"

namespace ctl {

namespace {

constexpr double kWaitS = 60;
constexpr double kRestartS = 120;  // operations on the station that are ahead of it, and its own
constexpr double kAskAgainS = 2;

// Nothing when the message does not tell it.
std::optional<int> wifi_in(const Message &message) {
    if (message.topic != kOutbound)
        return std::nullopt;
    const Json root = parse_masked(message.payload);
    const json_t *wifi = json_object_get(json_object_get(root.get(), "wifistat"), "wifi");
    return json_is_integer(wifi) ? std::optional(static_cast<int>(json_integer_value(wifi)))
                                 : std::nullopt;
}

double seconds_until(Deadline end) {
    return std::chrono::duration<double>(end - Clock::now()).count();
}

// Looks until the daemon answers: a script at boot waits for it, too.
RobotState look(Connection &robot, const std::string &interface, Deadline end) {
    while (Clock::now() < end) {
        const Described told = describe_robot(robot, 1);
        if (told.robot)
            return present_state(robot, told, interface);
        if (robot.try_ask(R"({"get":"channel"})", 1))  // a description too long to be sent
            return present_state(robot, told, interface);
    }
    return {std::nullopt, "netwarden does not answer", ""};
}

}  // namespace

int wait_for_state(const Options &options, const std::string &state, const std::string &asked) {
    const int wanted = wifi_state_named(state);
    const std::string interface = station_interface(asked);
    const Deadline end = deadline_after(options.timeout_or(kWaitS));
    Connection robot({kOutbound}, seconds_until(end));
    RobotState now = look(robot, interface, end);
    while (now.wifi != wanted) {
        if (Clock::now() >= end)
            throw Failure(kRefused, "not " + state + " in time; the state is: " + now.text());
        const auto message = robot.next(std::min(end, deadline_after(kAskAgainS)));
        if (const auto wifi = message ? wifi_in(*message) : std::nullopt)
            now = {*wifi, wifi_state_text(*wifi), ""};
        else if (!message && Clock::now() < end)  // not every change is published
            now = look(robot, interface, end);
    }
    Printer(options.json).step("state", now.text());
    return kDone;
}

int restart_network(const Options &options, bool wait) {
    const Printer printer(options.json);
    const Deadline end = deadline_after(options.timeout_or(kRestartS));
    const double limit = options.timeout_or(kAnswerS);
    Connection robot({kOutbound}, limit);
    robot.announce(R"({"event":"restartNetwork"})", limit);
    printer.step("restart", "the robot has taken it; the network goes down and comes up again");
    if (!wait)
        return kDone;
    bool was_down = false;
    while (const auto message = robot.next(end)) {
        const auto wifi = wifi_in(*message);
        if (!wifi)
            continue;
        printer.message(*message);
        if (*wifi == WIFI_CONNECTED && was_down)
            return kDone;
        was_down |= *wifi != WIFI_CONNECTED;
    }
    throw Failure(kRefused, was_down ? "not connected again in time"
                                     : "the network has not been restarted in time");
}

// --- forget --------------------------------------------------------------------------------------

namespace {

// The interface names hardware, not a network: it stays, as with netwarden --wipe.
int forget_key(const char *key) {
    const std::string_view name = key;
    if (!name.starts_with("network.") || name.starts_with(kvs_key::kInterface))
        return 0;
    return pex_kvs_del_key(key);
}

void confirm(const std::string &network) {
    const Fd terminal(open("/dev/tty", O_RDWR | O_CLOEXEC));
    if (!terminal)
        throw Failure(kUsage, "no terminal to ask whether to forget " + network + ": --yes");
    dprintf(terminal.get(), "Forget %s? The robot then has to be provisioned again. [y/N] ",
            network.c_str());
    std::array<char, 64> answer{};  // the line whole: its rest is not for the shell
    if (!wait_readable(terminal.get(), kNever) ||
        read(terminal.get(), answer.data(), answer.size()) < 1 ||
        (answer[0] != 'y' && answer[0] != 'Y'))
        throw Failure(kRefused, "nothing was changed");
}

bool is_run_by_systemd() {
    const ToolResult state = run_tool({"systemctl", "is-active", "netwarden.service"});
    return state.ok();
}

}  // namespace

int forget_network(const Options &options, bool yes) {
    if (!is_broker_local())
        throw Failure(kUsage, "no message makes the robot forget: run this on the robot itself");
    if (!may_read_store())
        throw Failure(kRefused, std::string("the settings store cannot be read: ") +
                                    strerror(errno) + ". Run this as root");
    const auto saved = stored(kvs_key::kSsid);
    const auto name = saved ? from_hex(*saved) : std::nullopt;
    const std::string network = !saved ? "the settings (no network is saved)"
                                       : "network \"" + printable(name ? *name : *saved) + "\"";
    if (!yes)
        confirm(network);
    if (pex_kvs_foreach_key(forget_key) != 0)
        throw Failure(kRefused, "not all settings could be deleted. Run this as root");
    const Printer printer(options.json);
    printer.step("forget", network + " is no longer saved");
    // The running daemon has it in its memory, and the supplicant in its file, until the next
    // start, which finds no network and takes the station down.
    if (is_run_by_systemd()) {
        constexpr double kRestartLimitS = 90;
        const ToolResult restarted =
            run_tool({"systemctl", "restart", "netwarden.service"}, kRestartLimitS);
        if (!restarted.ok())
            throw Failure(kRefused,
                          "the settings are deleted, but systemctl restart netwarden "
                          "failed: " +
                              printable(restarted.output));
        printer.step("restart", "netwarden starts anew without a network");
    } else if (find_daemon()) {
        throw Failure(kRefused,
                      "the settings are deleted, but netwarden runs on with what it has in memory, "
                      "and is not systemd's to restart: restart it");
    }
    return kDone;
}

}  // namespace ctl
