#include <cstdio>

#include "broker.h"
#include "commands.h"
#include "connection.h"
#include "machine.h"
#include "state.h"
#include "text.h"

namespace ctl {

int watch(const Options &options, long count, const std::string &asked_interface) {
    constexpr double kStateS = 1;
    const Printer printer(options.json);
    const Deadline end = deadline_after(options.timeout_s);
    Connection robot({kOutbound, "robot/debug", "local/cmd", kInbound},
                     options.timeout_or(kAnswerS));
    long seen = 0;
    try {
        printer.step("listening", "to the robot at " + printable(broker_settings().address) +
                                      "; Ctrl-C ends it");
        const Described told = describe_robot(robot, kStateS);
        const RobotState state =
            told.robot ? present_state(robot, told, station_interface(asked_interface))
                       : RobotState{std::nullopt, "not known: netwarden does not answer", ""};
        printer.step("state", state.text());
        while (count == 0 || seen < count) {
            const auto message = robot.next(end);
            if (!message)
                break;
            printer.message(*message);
            seen++;
        }
    } catch (const Interrupted &) {
        return kDone;  // the way to end watching
    }
    if (seen < count)
        throw Failure(kNoAnswer, "only " + std::to_string(seen) + " of " + std::to_string(count) +
                                     " messages came in time");
    return kDone;
}

namespace {

void print_devices(const json_t *devices) {
    std::vector<std::vector<std::string>> rows{{"MAC", "NAME", "HOST NAME", "TYPE", "MODEL"}};
    for (size_t i = 0; i < json_array_size(devices); i++) {
        auto &row = rows.emplace_back();
        for (const char *key : {"mac_address", "name", "hostname", "type", "md"}) {
            const std::string text = text_member(json_array_get(devices, i), key);
            row.push_back(text.empty() ? "-" : printable(text));
        }
    }
    print_table(rows);
}

// An empty home is no line, so that lines count devices.
void print_objects(const json_t *devices) {
    for (size_t i = 0; i < json_array_size(devices); i++)
        puts(compact(json_array_get(devices, i)).c_str());
}

}  // namespace

int list_devices(const Options &options) {
    constexpr double kListenS = 60;
    const double limit = options.timeout_or(kAnswerS);
    Connection robot({"robot/debug"}, limit);
    robot.ask(R"({"get":"channel"})", limit);
    const Deadline end = deadline_after(options.timeout_or(kListenS));
    while (const auto message = robot.next(end)) {
        const Json root = parse_masked(message->payload);
        const json_t *devices = json_object_get(root.get(), "wifiDevices");
        if (!json_is_array(devices))
            continue;
        if (options.json)
            print_objects(devices);
        else
            print_devices(devices);
        flush_output();
        return kDone;
    }
    throw Failure(kRefused,
                  "no report of devices came. The robot reports while tracking is on (netwardenctl "
                  "track start), and only when something has changed");
}

}  // namespace ctl
