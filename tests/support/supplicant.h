// A supplicant's control socket, played by the test: it answers commands as told and sends events.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <filesystem>

#include "robot.h"

using Texts = std::vector<std::string>;

// Whether the connections under test come to number so many.
inline bool has_client_sockets(long number) {
    return Robot::eventually([number] {
        const std::filesystem::directory_iterator files("/tmp");
        return number == std::count_if(begin(files), end(files), [](const auto &entry) {
                   return entry.path().filename().string().starts_with("wpa_ctrl_");
               });
    });
}

class Supplicant {
  public:
    // Listens at once and answers "OK\n". A path that begins with '@' is an abstract name.
    explicit Supplicant(const std::string &path = "/var/run/wpa_supplicant/wlan0") {
        sockaddr_un address{AF_UNIX, {}};
        path.copy(address.sun_path, sizeof address.sun_path);
        if (path[0] == '@')
            address.sun_path[0] = '\0';
        else
            std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        EXPECT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        thread_ = std::jthread([this](const std::stop_token &stop) {
            for (pollfd ready{socket_.get(), POLLIN, 0}; !stop.stop_requested();)
                if (poll(&ready, 1, 10) > 0)
                    serve();
        });
    }
    // The datagrams to send back for a command.
    void answer_with(std::function<Texts(const std::string &command)> answer) {
        const std::lock_guard guard(lock_);
        answer_ = std::move(answer);
    }
    // To the client that attached last; waits for room in its queue.
    void send_event(const std::string &text) {
        std::unique_lock guard(lock_);
        const sockaddr_un client = attached_;
        guard.unlock();
        send_to(client, text);
    }
    Texts commands() {  // so far, in order
        const std::lock_guard guard(lock_);
        return commands_;
    }
    bool is_attached() {
        const std::lock_guard guard(lock_);
        return attached_.sun_family == AF_UNIX;
    }

  private:
    void serve() {
        char text[4096];
        sockaddr_un from{};
        socklen_t size = sizeof from;
        const ssize_t length = recvfrom(socket_.get(), text, sizeof text, 0,
                                        reinterpret_cast<sockaddr *>(&from), &size);
        const std::lock_guard guard(lock_);
        const auto &command = commands_.emplace_back(text, std::max<ssize_t>(length, 0));
        if (command == "ATTACH" || command == "DETACH")
            attached_ = command == "ATTACH" ? from : sockaddr_un{};
        for (const auto &reply : answer_(command))
            send_to(from, reply);
    }
    void send_to(const sockaddr_un &client, const std::string &text) const {
        sendto(socket_.get(), text.data(), text.size(), 0,
               reinterpret_cast<const sockaddr *>(&client), sizeof client);
    }

    const Fd socket_{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    std::mutex lock_;
    std::function<Texts(const std::string &)> answer_ = [](const auto &) { return Texts{"OK\n"}; };
    Texts commands_;
    sockaddr_un attached_{};  // empty while nobody is
    std::jthread thread_;
};
