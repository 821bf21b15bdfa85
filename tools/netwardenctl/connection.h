// The robot as seen over its broker. One connection at a time; main thread only.
#pragma once

#include <sys/time.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "waiting.h"

struct tarn_lib;

namespace ctl {

constexpr double kAnswerS = 3;  // for the broker, and for a request to the daemon

// Where the daemon hears apps and the robot's other processes.
constexpr char kInbound[] = "brisk/network/events";

// Where the daemon tells apps and everybody.
constexpr char kOutbound[] = "network/events";

struct Message {
    std::string topic;
    std::string payload;
    timeval when{};  // it came
};

class Broker;

class Connection {
  public:
    // Connects and subscribes to the filters; Failure that says why when there is no connection
    // within `limit_s` (0: waits for one). One that is lost later comes back by itself, which is
    // told on standard error.
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
    void tell(const std::string &message, double limit_s = kAnswerS);

    // Publishes anything; false when it was not taken.
    bool send(const std::string &topic, const std::string &text);

    // Sends the daemon an event of a robot's process, which it acknowledges; Failure otherwise.
    void announce(const std::string &event, double limit_s = kAnswerS);

    // The next message, or nothing at the deadline.
    std::optional<Message> next(Deadline end);

    // What the daemon last published of its state, whoever has read it since: {"wifi":1,...}.
    std::optional<std::string> last_wifistat() const;

  private:
    void await_broker(double limit_s);
    void start(const std::vector<std::string> &topics);
    void stop();

    tarn_lib *transport_ = nullptr;
    std::unique_ptr<Broker> broker_;
};

}  // namespace ctl
