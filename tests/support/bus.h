// The robot's other processes, played within the test's own: each request of the daemon is answered
// before it waits for the response. (main_test has a real broker.)
#pragma once

#include <optional>
#include <string>

struct tarn_lib;

// While one lives it is the daemon's way to the other processes.
class Bus {
  public:
    // What answers TEXT, sent on TOPIC ("tarn/9/req/network/1"); nothing: it is not answered.
    using Answer = std::optional<std::string> (*)(const std::string &topic,
                                                  const std::string &text);
    explicit Bus(Answer answer);
    ~Bus();
    Bus(const Bus &) = delete;
    Bus &operator=(const Bus &) = delete;

  private:
    static int send(void *bus, const char *topic, const char *text);

    const Answer answer_;
    tarn_lib *const transport_;
};
