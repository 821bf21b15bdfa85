#include "state.h"

#include <algorithm>
#include <array>

#include "commands.h"
#include "kvs_keys.h"
#include "machine.h"
#include "pex_net.h"
#include "text.h"
#include "wifi_state.h"

namespace ctl {

namespace {

bool is_mac_here(const std::string &mac) {
    for (const auto &name : interface_names()) {
        std::array<uint8_t, 6> b{};
        if (pex_net_get_hwaddr(name.c_str(), b.data()) == 0 &&
            format("%02X:%02X:%02X:%02X:%02X:%02X", b[0], b[1], b[2], b[3], b[4], b[5]) == mac)
            return true;
    }
    return false;
}

// The daemon tells its service manager in each pass: "Wi-Fi CONNECTED, provisioning".
std::optional<RobotState> told_to_service_manager() {
    constexpr std::string_view kState = "StatusText=Wi-Fi ";
    const ToolResult shown =
        run_tool({"systemctl", "show", "netwarden.service", "--property=ActiveState,StatusText"});
    if (!shown.ok() || shown.output.find("ActiveState=active\n") == shown.output.npos)
        return std::nullopt;
    const size_t at = shown.output.find(kState);
    if (at == shown.output.npos)
        return std::nullopt;
    std::string words = shown.output.substr(at + kState.size());
    words.erase(words.find_last_not_of('\n') + 1);
    const size_t end = words.find(',');
    for (int state = WIFI_UNKNOWN; state <= WIFI_STATION_STOPPED; state++)
        if (words.substr(0, end) == wifi_state_name(state))
            return RobotState{
                state,
                wifi_state_text(state) + (end != words.npos ? printable(words.substr(end)) : ""),
                "told to the service manager"};
    return std::nullopt;
}

std::optional<RobotState> heard(const Connection &robot) {
    const auto text = robot.last_wifistat();
    const Json value(text ? json_loads(text->c_str(), 0, nullptr) : nullptr);
    const json_t *wifi = json_object_get(value.get(), "wifi");
    if (!json_is_integer(wifi))
        return std::nullopt;
    const auto state = static_cast<int>(json_integer_value(wifi));
    return RobotState{state, wifi_state_text(state), "just heard"};
}

}  // namespace

std::string RobotState::text() const {
    return words + (*from != '\0' ? std::string(" (") + from + ")" : "");
}

Json RobotState::json() const {
    return Json(json_pack("{s:o, s:s, s:s}", "wifi", wifi ? json_integer(*wifi) : json_null(),
                          "meaning", words.c_str(), "from", from));
}

Described describe_robot(Connection &robot, double limit_s) {
    Described told;
    if (const auto answer = robot.try_ask(R"({"get":"discovery"})", limit_s))
        told.robot = parse_masked(*answer);
    const std::string mac = text_member(told.robot.get(), "mac");
    told.is_here = mac.empty() ? is_broker_local() : is_mac_here(mac);
    return told;
}

RobotState measured_state(const std::string &interface) {
    if (!is_interface(interface))
        return {std::nullopt, "there is no interface " + printable(interface), "measured"};
    const Addresses addresses = read_addresses(interface);
    if (addresses.gateway_answers)
        return {WIFI_CONNECTED, wifi_state_text(WIFI_CONNECTED), "measured"};
    if (!addresses.gateway.empty())
        return {std::nullopt, "has an address, but the gateway does not answer", "measured"};
    if (!addresses.address.empty())
        return {std::nullopt, "has an address, but no gateway", "measured"};
    if (may_read_store() && !stored(kvs_key::kSsid))
        return {WIFI_OFF, "off: no network is saved", "measured"};
    return {std::nullopt, "not connected: no address", "measured"};
}

RobotState present_state(const Connection &robot, const Described &told,
                         const std::string &interface) {
    // Not every change is published, but every second's state is told to the service manager.
    if (auto state = told.is_here ? told_to_service_manager() : std::nullopt)
        return *state;
    if (auto state = heard(robot))
        return *state;
    if (told.is_here)
        return measured_state(interface);
    const std::string address = text_member(told.robot.get(), "ip");
    const auto reply = address.empty() ? std::nullopt : probe_host(address, 1);
    const Json probed = reply ? parse_masked(*reply) : Json();
    if (json_object_get(probed.get(), "lps") != nullptr)
        return {std::nullopt, "provisioning", "answers a probe"};
    if (json_is_object(probed.get()))
        return {WIFI_CONNECTED, wifi_state_text(WIFI_CONNECTED), "answers at its address"};
    return {std::nullopt, "not known: the robot tells changes only, and this is another machine",
            ""};
}

}  // namespace ctl
