#include <cstdio>
#include <cstdlib>

#include "broker.h"
#include "commands.h"
#include "connection.h"
#include "kvs_keys.h"
#include "machine.h"
#include "state.h"
#include "text.h"

namespace ctl {

namespace {

// The robot's own host, as far as the broker's address tells it.
std::string broker_host() {
    const std::string &address = broker_settings().address;
    if (address.starts_with("unix:"))
        return "127.0.0.1";
    std::string host = address.substr(0, address.rfind(':'));
    if (host.starts_with('['))
        host = host.substr(1, host.size() - 2);
    return host;
}

Json parse_answer(const std::string &text) {
    Json answer = parse_masked(text);
    if (!json_is_object(answer.get()))
        throw Failure(kRefused, "the answer is no JSON object: " + printable(text));
    return answer;
}

void show(const char *name, const std::string &value) {
    printf("%-13s %s\n", name, value.empty() ? "-" : printable(value).c_str());
}

std::string channel_text(const json_t *answer) {
    const json_int_t channel = json_integer_value(json_object_get(answer, "channel"));
    return channel != 0 ? std::to_string(channel) : "not known yet";
}

// Only a robot that is provisioning tells its last status ("lps") to a probe.
std::string provisioning_text(const json_t *probed) {
    if (probed == nullptr)
        return "not known: no answer to a probe of " + broker_host();
    const json_t *last = json_object_get(probed, "lps");
    return last == nullptr ? "no"
                           : "yes; last status: " + wifi_state_text(json_integer_value(last));
}

void show_description(const json_t *robot) {
    if (robot == nullptr) {
        show("description", "not told: too long to be sent");
        return;
    }
    show("name", text_member(robot, "robotname"));
    show("host name", text_member(robot, "hostname"));
    show("robot id", text_member(robot, "robotid"));
    show("MAC", text_member(robot, "mac"));
    show("software", text_member(robot, "sw"));
    show("SKU", text_member(robot, "sku"));
    show("capabilities", compact(json_object_get(robot, "cap")));
    if (const json_t *trained = json_object_get(robot, "trained"))
        show("trained", json_is_true(trained) ? "yes" : "no");
}

// What status puts together: asked, probed, measured.
struct Findings {
    Described told;
    Json channel;
    Json probed;
    RobotState state;
    Addresses addresses;
    std::optional<Link> link;
    std::optional<int> verdict;  // how the last provisioning ended
};

std::optional<Link> try_link(const std::string &interface) {
    try {
        return read_link(interface);
    } catch (const Failure &) {
        return std::nullopt;
    }
}

// While the robot is provisioning it tells everybody, otherwise its store does.
std::optional<int> last_verdict(const json_t *probed) {
    if (const json_t *told = json_object_get(probed, "lps"))
        return static_cast<int>(json_integer_value(told));
    const auto text = stored(kvs_key::kLastProvStatus);
    return text ? std::optional(atoi(text->c_str())) : std::nullopt;
}

void measure(Findings &to, const std::string &interface) {
    to.addresses = read_addresses(interface);
    to.link = try_link(interface);
    to.verdict = last_verdict(to.probed.get());
}

Findings find_out(const Options &options, const std::string &interface) {
    const double limit = options.timeout_or(kAnswerS);
    Connection robot({kOutbound}, limit);
    Findings found;
    found.channel = parse_answer(robot.ask(R"({"get":"channel"})", limit));
    found.told = describe_robot(robot, limit);
    const auto reply = probe_host(broker_host(), 1);
    found.probed = reply ? parse_masked(*reply) : Json();
    found.state = present_state(robot, found.told, interface);
    if (found.told.is_here)
        measure(found, interface);
    else
        found.verdict = json_object_get(found.probed.get(), "lps") != nullptr
                            ? last_verdict(found.probed.get())
                            : std::nullopt;
    return found;
}

std::string verdict_text(const Findings &found) {
    if (found.verdict)
        return wifi_state_text(*found.verdict);
    if (!found.told.is_here)
        return "not known on this machine";
    return may_read_store() ? "none" : "not known: the store may be read by root only";
}

std::string link_text(const Link &link) {
    return (link.signal ? std::to_string(*link.signal) + " dBm" : "not known") + ", channel " +
           (link.channel() != 0 ? std::to_string(link.channel()) : "not known") +
           ", access point " + link.bssid;
}

void show_measured(const Findings &found) {
    const Addresses &here = found.addresses;
    show("address", here.address.empty() ? "" : here.address + "/" + std::to_string(here.prefix));
    show("gateway", here.gateway.empty()
                        ? ""
                        : here.gateway + (here.gateway_answers ? ", answers" : ", silent"));
    show("signal", found.link ? link_text(*found.link) : "");
}

json_t *text_or_null(const std::string &text) {
    return text.empty() ? json_null() : json_string(text.c_str());
}

json_t *number_or_null(const std::optional<int> &number) {
    return number ? json_integer(*number) : json_null();
}

json_t *link_json(const Link &link) {
    return json_pack("{s:s, s:s, s:o, s:i, s:i}", "bssid", link.bssid.c_str(), "ssid",
                     printable(link.ssid).c_str(), "signal", number_or_null(link.signal), "channel",
                     link.channel(), "frequency", link.frequency);
}

json_t *addresses_json(const Addresses &here) {
    return json_pack("{s:o, s:i, s:o, s:b}", "address", text_or_null(here.address), "prefix",
                     here.prefix, "gateway", text_or_null(here.gateway), "gateway_answers",
                     here.gateway_answers ? 1 : 0);
}

json_t *provisioning_json(const json_t *probed) {
    return probed == nullptr ? json_null()
                             : json_boolean(json_object_get(probed, "lps") != nullptr);
}

void show_findings(const Findings &found) {
    show("state", found.state.text());
    if (found.told.is_here)
        show_measured(found);
    else
        show("address", text_member(found.told.robot.get(), "ip"));
    show("channel", channel_text(found.channel.get()));
    show("provisioning", provisioning_text(found.probed.get()));
    show("last verdict", verdict_text(found));
    show_description(found.told.robot.get());
}

void print_findings(const Findings &found) {
    const Json all(json_pack(
        "{s:o, s:o, s:o, s:O?, s:O?, s:o, s:o}", "state", found.state.json().release(), "addresses",
        found.told.is_here ? addresses_json(found.addresses) : json_null(), "link",
        found.link ? link_json(*found.link) : json_null(), "description", found.told.robot.get(),
        "channel", json_object_get(found.channel.get(), "channel"), "provisioning",
        provisioning_json(found.probed.get()), "lps", number_or_null(found.verdict)));
    puts(compact(all.get()).c_str());
}

// What can be seen of the robot that this machine is, when its daemon does not answer.
void show_without_daemon(const Options &options, const std::string &interface) {
    Findings found;
    found.told.is_here = true;
    found.state = measured_state(interface);
    measure(found, interface);
    if (options.json) {
        print_findings(found);
    } else {
        show("state", found.state.text());
        show_measured(found);
        show("last verdict", verdict_text(found));
    }
    flush_output();
}

}  // namespace

int show_status(const Options &options, const std::string &asked_interface) {
    const std::string interface = station_interface(asked_interface);
    try {
        const Findings found = find_out(options, interface);
        if (options.json)
            print_findings(found);
        else
            show_findings(found);
        flush_output();
    } catch (const Failure &failure) {
        if (failure.code == kNoAnswer && is_broker_local() && is_interface(interface))
            show_without_daemon(options, interface);
        throw;
    }
    return kDone;
}

int show_link(const Options &options, const std::string &asked_interface) {
    if (!is_broker_local())
        throw Failure(kUsage,
                      "link is measured on the robot itself; get channel asks from elsewhere");
    const std::string interface = station_interface(asked_interface);
    if (!is_interface(interface))
        throw Failure(kRefused, "there is no interface " + printable(interface));
    const auto link = read_link(interface);
    if (!link)
        throw Failure(kRefused, printable(interface) + " has joined no network");
    if (options.json) {
        const Json line(link_json(*link));
        puts(compact(line.get()).c_str());
    } else {
        show("network", link->ssid);
        show("access point", link->bssid);
        show("signal", link->signal ? std::to_string(*link->signal) + " dBm" : "");
        show("channel", link->channel() != 0 ? std::to_string(link->channel()) : "");
        show("frequency", std::to_string(link->frequency) + " MHz");
    }
    flush_output();
    return kDone;
}

int get(const Options &options, const std::string &what) {
    const double limit = options.timeout_or(kAnswerS);
    Connection robot({}, limit);
    const Json answer = parse_answer(robot.ask(R"({"get":")" + what + "\"}", limit));
    if (options.json)
        puts(compact(answer.get()).c_str());
    else if (what == "channel")
        puts(channel_text(answer.get()).c_str());
    else {
        show("address", text_member(answer.get(), "ip"));
        show_description(answer.get());
    }
    flush_output();
    return kDone;
}

int set_log_level(const Options &options, const std::string &level) {
    const double limit = options.timeout_or(kAnswerS);
    Connection robot({}, limit);
    const Json answer = parse_answer(robot.ask(R"({"set_log_level":")" + level + "\"}", limit));
    if (text_member(answer.get(), "set_log_level") != level)
        throw Failure(kRefused, "the robot refused: " + compact(answer.get()));
    puts(options.json ? compact(answer.get()).c_str() : ("log level " + level).c_str());
    flush_output();
    return kDone;
}

int track(const Options &options, const std::string &what) {
    const double limit = options.timeout_or(kAnswerS);
    Connection robot({}, limit);
    robot.tell(R"({"event":")" + what + R"(WifiDeviceTracking"})", limit);
    Printer(options.json).step("track", what + ": the robot has taken it");
    return kDone;
}

}  // namespace ctl
