// A supplicant's control socket, played by the test: it answers commands as told and sends events.
#pragma once

#include <sys/un.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "owned.h"

using Texts = std::vector<std::string>;

class Supplicant {
  public:
    // Listens at once and answers "OK\n". A path that begins with '@' is an abstract name.
    explicit Supplicant(std::string path = "/var/run/wpa_supplicant/wlan0");
    ~Supplicant();
    Supplicant(const Supplicant &) = delete;
    Supplicant &operator=(const Supplicant &) = delete;

    // The datagrams to send back for a command.
    void answer_with(std::function<Texts(const std::string &command)> answer);
    // To the client that attached last; waits for room in its queue.
    void send_event(const std::string &text);
    Texts commands();  // so far, in order
    bool is_attached();

  private:
    void serve();
    void send_to(const sockaddr_un &client, const std::string &text) const;

    const std::string path_;
    const Fd socket_;
    std::mutex lock_;
    std::function<Texts(const std::string &)> answer_;
    Texts commands_;
    sockaddr_un attached_{};  // empty while nobody is
    std::atomic<bool> stop_{false};
    std::thread thread_;
};
