// The keys of the robot's settings store that the daemon reads and writes, said once.
#pragma once

namespace kvs_key {

// The home's network. All but the interface go with --wipe.
inline constexpr char kInterface[] = "network.interface";              // the active one
inline constexpr char kSsid[] = "network.ssid";                        // hexadecimal digits
inline constexpr char kPassword[] = "network.password";                // passphrase, PSK or WEP key
inline constexpr char kIpConfig[] = "network.ip_config";               // a command line
inline constexpr char kAddrType[] = "network.addr_type";               // 1: DHCP, 0: static
inline constexpr char kLastProvStatus[] = "network.last_prov_status";  // a Wi-Fi state
// The name says minutes; the value counts watchdog cycles of 20 s.
inline constexpr char kWatchdogInterval[] = "network.watchdog_interval_min";

// The robot, set in the factory.
inline constexpr char kRobotId[] = "product.robotid";
inline constexpr char kSku[] = "product.sku";
inline constexpr char kRegdom[] = "product.regdom";
inline constexpr char kLanguage[] = "product.language";

// The robot, as its owner has it.
inline constexpr char kRobotName[] = "robot.name";
inline constexpr char kRobotPassword[] = "robot.password";
inline constexpr char kRobotTrained[] = "robot.trained";  // true or false
inline constexpr char kHopInterval[] = "robot.disc_reconnect_sleep_sec";

}  // namespace kvs_key
