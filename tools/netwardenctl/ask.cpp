#include <cstdio>

#include "commands.h"
#include "connection.h"
#include "text.h"

namespace ctl {

namespace {

// The robot's own host, as far as the broker's address tells it.
std::string broker_host() {
    const std::string address = broker_address();
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
    show("address", text_member(robot, "ip"));
    show("MAC", text_member(robot, "mac"));
    show("software", text_member(robot, "sw"));
    show("SKU", text_member(robot, "sku"));
    show("capabilities", compact(json_object_get(robot, "cap")));
    if (const json_t *trained = json_object_get(robot, "trained"))
        show("trained", json_is_true(trained) ? "yes" : "no");
}

json_t *provisioning_json(const json_t *probed) {
    return probed == nullptr ? json_null()
                             : json_boolean(json_object_get(probed, "lps") != nullptr);
}

}  // namespace

int show_status(const Options &options) {
    const double limit = options.timeout_or(kAnswerS);
    Connection robot({}, limit);
    const Json channel = parse_answer(robot.ask(R"({"get":"channel"})", limit));
    const auto description = robot.try_ask(R"({"get":"discovery"})", limit);
    const Json told = description ? parse_answer(*description) : Json();
    const auto reply = probe_host(broker_host(), 1);
    const Json probed = reply ? parse_masked(*reply) : Json();
    if (options.json) {
        const Json all(json_pack("{s:O?, s:O?, s:o, s:O?}", "description", told.get(), "channel",
                                 json_object_get(channel.get(), "channel"), "provisioning",
                                 provisioning_json(probed.get()), "lps",
                                 json_object_get(probed.get(), "lps")));
        puts(compact(all.get()).c_str());
    } else {
        show_description(told.get());
        show("channel", channel_text(channel.get()));
        show("provisioning", provisioning_text(probed.get()));
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
    else
        show_description(answer.get());
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
    Connection robot;
    robot.tell(R"({"event":")" + what + R"(WifiDeviceTracking"})");
    Printer(options.json).step("track", what + ": the robot has taken it");
    return kDone;
}

}  // namespace ctl
