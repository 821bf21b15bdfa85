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

class Supplicant {
  public:
    // What to send back for a command, each text a datagram.
    using Answer = std::function<std::vector<std::string>(const std::string &command)>;

    // "OK\n" to everything; listens at once. A path that begins with '@' is an abstract name.
    explicit Supplicant(std::string path = "/var/run/wpa_supplicant/wlan0");
    ~Supplicant();
    Supplicant(const Supplicant &) = delete;
    Supplicant &operator=(const Supplicant &) = delete;

    void answer_with(Answer answer);
    // To every client that has attached; waits for room in their queues.
    void send_event(const std::string &text);
    std::vector<std::string> commands();  // so far, in order
    bool has_attached_client();           // waits up to two seconds

  private:
    struct Client {
        sockaddr_un address;
        socklen_t length;
    };
    void serve();
    void take(const std::string &command, const Client &from);
    void send_to(const Client &client, const std::string &text) const;

    const std::string path_;
    Fd socket_;
    std::mutex lock_;
    Answer answer_;
    std::vector<std::string> commands_;
    std::vector<Client> attached_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};
