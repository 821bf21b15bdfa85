#include "supplicant.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <filesystem>

Supplicant::Supplicant(std::string path)
    : path_(std::move(path)), socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    answer_with([](const auto &) { return std::vector<std::string>{"OK\n"}; });
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path);
    if (path_[0] == '@')
        address.sun_path[0] = '\0';
    else
        std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
    if (bind(socket_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        ADD_FAILURE() << "cannot listen on " << path_ << ": " << strerror(errno);
    thread_ = std::thread([this] { serve(); });
}

Supplicant::~Supplicant() {
    stop_ = true;
    thread_.join();
    unlink(path_.c_str());
}

void Supplicant::answer_with(Answer answer) {
    const std::lock_guard guard(lock_);
    answer_ = std::move(answer);
}

void Supplicant::serve() {
    pollfd ready{socket_.get(), POLLIN, 0};
    while (!stop_) {
        if (poll(&ready, 1, 10) <= 0)
            continue;
        char text[4096];
        Client from{{}, sizeof from.address};
        const ssize_t length = recvfrom(socket_.get(), text, sizeof text, 0,
                                        reinterpret_cast<sockaddr *>(&from.address), &from.length);
        if (length >= 0)
            take(std::string(text, static_cast<size_t>(length)), from);
    }
}

void Supplicant::take(const std::string &command, const Client &from) {
    const std::lock_guard guard(lock_);
    commands_.push_back(command);
    if (command == "ATTACH")
        attached_.push_back(from);
    if (command == "DETACH")
        std::erase_if(attached_, [&](const Client &client) {
            return memcmp(&client.address, &from.address, sizeof client.address) == 0;
        });
    for (const auto &text : answer_(command))
        send_to(from, text);
}

void Supplicant::send_to(const Client &client, const std::string &text) const {
    sendto(socket_.get(), text.data(), text.size(), 0,
           reinterpret_cast<const sockaddr *>(&client.address), client.length);
}

void Supplicant::send_event(const std::string &text) {
    std::vector<Client> clients;
    {
        const std::lock_guard guard(lock_);
        clients = attached_;
    }
    for (const auto &client : clients)
        send_to(client, text);
}

std::vector<std::string> Supplicant::commands() {
    const std::lock_guard guard(lock_);
    return commands_;
}

bool Supplicant::has_attached_client() {
    for (int tries = 0; tries < 200; tries++) {
        {
            const std::lock_guard guard(lock_);
            if (!attached_.empty())
                return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}
