#include "supplicant.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <filesystem>

Supplicant::Supplicant(std::string path)
    : path_(std::move(path)), socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    answer_with([](const auto &) { return Texts{"OK\n"}; });
    sockaddr_un address{AF_UNIX, {}};
    path_.copy(address.sun_path, sizeof address.sun_path);
    if (path_[0] == '@')
        address.sun_path[0] = '\0';
    else
        std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
    if (bind(socket_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        ADD_FAILURE() << "cannot listen on " << path_;
    thread_ = std::thread([this] { serve(); });
}

Supplicant::~Supplicant() {
    stop_ = true;
    thread_.join();
    unlink(path_.c_str());
}

void Supplicant::serve() {
    pollfd ready{socket_.get(), POLLIN, 0};
    while (!stop_) {
        char text[4096];
        sockaddr_un from{};
        socklen_t size = sizeof from;
        if (poll(&ready, 1, 10) <= 0)
            continue;
        const ssize_t length = recvfrom(socket_.get(), text, sizeof text, 0,
                                        reinterpret_cast<sockaddr *>(&from), &size);
        if (length < 0)
            continue;
        const std::lock_guard guard(lock_);
        const auto &command = commands_.emplace_back(text, static_cast<size_t>(length));
        if (command == "ATTACH")
            attached_ = from;
        if (command == "DETACH")
            attached_ = {};
        for (const auto &reply : answer_(command))
            send_to(from, reply);
    }
}

void Supplicant::send_to(const sockaddr_un &client, const std::string &text) const {
    sendto(socket_.get(), text.data(), text.size(), 0, reinterpret_cast<const sockaddr *>(&client),
           sizeof client);
}

void Supplicant::send_event(const std::string &text) {
    sockaddr_un client;
    {
        const std::lock_guard guard(lock_);
        client = attached_;
    }
    send_to(client, text);
}

void Supplicant::answer_with(std::function<Texts(const std::string &)> answer) {
    const std::lock_guard guard(lock_);
    answer_ = std::move(answer);
}
Texts Supplicant::commands() {
    const std::lock_guard guard(lock_);
    return commands_;
}
bool Supplicant::is_attached() {
    const std::lock_guard guard(lock_);
    return attached_.sun_family == AF_UNIX;
}
