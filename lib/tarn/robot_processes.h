// The robot's processes by their numbers, as requests and events name them.
#pragma once

enum robot_process : int {
    PROCESS_BLUETOOTH_MANAGER = 0,  // hears netinfo and wifistat
    PROCESS_FACTORY_TEST = 1,       // hears of the connect in a manufacturing test
    PROCESS_CLOUD = 2,              // renews its connection after a provisioning
    PROCESS_LOCAL_APP = 5,          // parts from the app before the radio changes
    PROCESS_NETWORK = 6,            // this daemon
    PROCESS_SCHEDULER = 9,          // knows the next cleaning
    PROCESS_STATION_STATUS = 10,    // hears {"sta"}
    PROCESS_CORE = 12,              // knows the robot's capabilities
    PROCESS_CLIENT = 30,            // netwardenctl; none of the robot's own
};
