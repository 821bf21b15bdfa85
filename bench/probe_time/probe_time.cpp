// How long a UDP service on loopback takes to answer, and a service that does nothing else.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <vector>

#include "owned.h"

namespace {

constexpr char kHelp[] =
    R"(usage: probe_time echo PORT              sends every datagram back, until it is ended
       probe_time ask PORT COUNT TEXT    sends TEXT to 127.0.0.1:PORT COUNT times, each when the
                                         last one was answered; prints median and 99th in us
)";
constexpr int kWarmUp = 100;  // not counted
constexpr timeval kPatience{2, 0};

bool parse_number(std::string_view text, int &to) {
    const char *const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, to);
    return error == std::errc() && rest == end && to > 0;
}

sockaddr_in address(in_addr_t host, int port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(static_cast<uint16_t>(port));
    result.sin_addr.s_addr = htonl(host);
    return result;
}

// The daemon's kind of socket and its way with it, without the daemon's work between.
int echo(int port) {
    const Fd listener(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int reuse = 1;
    setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    const sockaddr_in any = address(INADDR_ANY, port);
    if (bind(listener.get(), reinterpret_cast<const sockaddr *>(&any), sizeof any) != 0) {
        perror("probe_time: bind");
        return 1;
    }
    for (std::array<char, 2048> text;;) {
        sockaddr_in sender{};
        socklen_t length = sizeof sender;
        const ssize_t received = recvfrom(listener.get(), text.data(), text.size(), 0,
                                          reinterpret_cast<sockaddr *>(&sender), &length);
        if (received >= 0)
            sendto(listener.get(), text.data(), static_cast<size_t>(received), 0,
                   reinterpret_cast<const sockaddr *>(&sender), sizeof sender);
    }
}

// Microseconds until the answer; negative without one.
double ask_once(int to, std::string_view text) {
    std::array<char, 2048> answer;
    const auto began = std::chrono::steady_clock::now();
    if (send(to, text.data(), text.size(), 0) < 0 || recv(to, answer.data(), answer.size(), 0) < 0)
        return -1;
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - began)
        .count();
}

int ask(int port, int count, std::string_view text) {
    const Fd asker(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    setsockopt(asker.get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
    const sockaddr_in service = address(INADDR_LOOPBACK, port);
    if (connect(asker.get(), reinterpret_cast<const sockaddr *>(&service), sizeof service) != 0) {
        perror("probe_time: connect");
        return 1;
    }
    std::vector<double> times;
    for (int i = -kWarmUp; i < count; i++) {
        const double took = ask_once(asker.get(), text);
        if (took < 0) {
            perror("probe_time: no answer");
            return 1;
        }
        if (i >= 0)
            times.push_back(took);
    }
    std::sort(times.begin(), times.end());
    printf("%.1f %.1f\n", times[times.size() / 2], times[times.size() * 99 / 100]);
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    const std::string_view what = argc > 1 ? argv[1] : "";
    int port = 0;
    int count = 0;
    if (what == "echo" && argc == 3 && parse_number(argv[2], port))
        return echo(port);
    if (what == "ask" && argc == 5 && parse_number(argv[2], port) && parse_number(argv[3], count))
        return ask(port, count, argv[4]);
    fputs(kHelp, what == "--help" ? stdout : stderr);
    return what == "--help" ? 0 : 2;
}
