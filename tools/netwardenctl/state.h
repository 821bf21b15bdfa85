// The robot's present Wi-Fi state. No message asks for it, so it is taken from whoever knows.
#pragma once

#include <optional>
#include <string>

#include "connection.h"
#include "owned.h"

namespace ctl {

struct RobotState {
    std::optional<int> wifi;  // as published; nothing when only words are known
    std::string words;
    const char *from = "";  // how it is known

    std::string text() const;  // "connected (measured here)"
    Json json() const;
};

// What the robot says of itself; null when it does not.
struct Described {
    Json robot;
    bool is_here = false;  // it is the machine that the client runs on
};
Described describe_robot(Connection &robot, double limit_s);

// From the service manager, the last message heard, a probe or what can be measured. The connection
// listens to kOutbound.
RobotState present_state(const Connection &robot, const Described &told,
                         const std::string &interface);
// The same without a broker, for this machine.
RobotState measured_state(const std::string &interface);

}  // namespace ctl
