// The broker's topics that the daemon listens to and publishes on, said once. Requests and events
// between processes have topics of their own (lib/tarn).
#pragma once

namespace topic {

inline constexpr char kStatus[] = "network/events";           // out: netinfo, wifistat, wlcfg
inline constexpr char kRobotEvents[] = "brisk/robot/events";  // out: wifistat
inline constexpr char kRobotDebug[] = "robot/debug";          // out: words for the robot, census
inline constexpr char kLocalCommand[] = "local/cmd";          // out: "ipdone" for the app's server
inline constexpr char kUpdaterEvents[] = "brisk/updater/events";  // out: tidelinkConnected

inline constexpr char kCommands[] = "brisk/network/events";  // in, and tidelinkConnected out
inline constexpr char kDebug[] = "network/debug";            // in
inline constexpr char kProcesses[] = "tarn/network/#";       // in: requests, responses, events

}  // namespace topic
