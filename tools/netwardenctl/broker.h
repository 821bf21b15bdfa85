// The client's own line to the broker, over libmosquitto: it says why there is none and when it
// breaks, and it can name a user and speak TLS, which the robot's processes do not need among
// themselves.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace ctl {

struct BrokerSettings {
    std::string address;  // host:port, [address]:port or unix:/path
    std::string user;     // nobody in particular when empty
    std::string password;
    std::string cafile;  // speaks TLS when not empty
    std::string cert;    // of this client, with its key
    std::string key;
};

// From the command line and the environment, for all connections of this process.
BrokerSettings &broker_settings();

// Failure when they cannot be used, whatever the broker says.
void check_broker(const BrokerSettings &settings);

// All of these are called on the line's own thread.
struct BrokerEvents {
    std::function<void(const char *topic, std::string payload)> message;
    std::function<void()> ready;  // connected and subscribed; each time
    // Why there is no connection, each time that one is lost or not to be had. `final`: trying
    // again will not help.
    std::function<void(const std::string &why, bool final)> down;
};

class Broker {
  public:
    // Connects in the background, and again whenever the connection is lost.
    Broker(const BrokerSettings &settings, std::vector<std::string> topics, BrokerEvents events);
    Broker(const Broker &) = delete;
    Broker &operator=(const Broker &) = delete;
    // Nothing is called any more. A thread that hangs in a system call is left to the process's end
    // (see has_left_threads).
    ~Broker();

    // Sends at QoS 1, now or when there is a connection. False when it was not taken. Any thread.
    bool publish(const std::string &topic, const std::string &text);

  private:
    struct Line;
    std::shared_ptr<Line> line_;
    std::thread thread_;
};

// Whether a thread is still in a system call, a name's lookup say: then the process must end
// without tidying up under its feet.
bool has_left_threads();

}  // namespace ctl
