// The robot as seen over its broker. One connection at a time; main thread only.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "waiting.h"

struct mqtt_app;
struct tarn_lib;

namespace ctl {

constexpr double kAnswerS = 3;  // for the broker, and for a request to the daemon

// Where the daemon hears apps and the robot's other processes.
constexpr char kInbound[] = "brisk/network/events";

struct Message {
    std::string topic;
    std::string payload;
};

// The broker's address: from MQTT_APP_BROKER or the default.
std::string broker_address();

class Connection {
  public:
    // Connects and subscribes to the filters; Failure when there is no broker within `limit_s`.
    explicit Connection(const std::vector<std::string> &topics = {}, double limit_s = kAnswerS);
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;
    ~Connection();

    // The daemon's answer to a request; nothing when none came within `limit_s`.
    std::optional<std::string> try_ask(const std::string &request, double limit_s = kAnswerS);
    // The same; Failure when none came.
    std::string ask(const std::string &request, double limit_s = kAnswerS);

    // Publishes for the daemon and returns when it has taken the message: it serves its messages in
    // order, so a request that is answered afterwards proves it.
    void tell(const std::string &message);

    // The next message, or nothing at the deadline.
    std::optional<Message> next(Deadline end);

  private:
    void start(const std::vector<std::string> &topics);
    void stop();

    mqtt_app *app_ = nullptr;
    tarn_lib *transport_ = nullptr;
};

}  // namespace ctl
