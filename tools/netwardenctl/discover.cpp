// The probe of apps at home: who is there answers with a line of JSON.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>

#include "commands.h"
#include "text.h"

namespace ctl {

namespace {

constexpr uint16_t kPort = 5678;
constexpr std::string_view kProbe = "halvikmcs";
constexpr double kAgainS = 1;  // datagrams get lost
constexpr size_t kMostRobots = 1000;

struct Reply {
    uint32_t from;
    std::string text;
};

std::string address_text(uint32_t address) {
    std::array<char, INET_ADDRSTRLEN> text{};
    inet_ntop(AF_INET, &address, text.data(), text.size());
    return text.data();
}

struct InterfacesReleaser {
    void operator()(ifaddrs *list) const { freeifaddrs(list); }
};

uint32_t ipv4_of(const sockaddr *text) {
    sockaddr_in address{};
    memcpy(&address, text, sizeof address);
    return address.sin_addr.s_addr;
}

// The broadcast addresses of the named interface, or of all. Made from address and mask: whoever
// sets an interface up by hand forgets to give it one.
std::vector<uint32_t> broadcast_addresses(const std::string &interface) {
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
        throw Failure(kNoAnswer, std::string("cannot list interfaces: ") + strerror(errno));
    const std::unique_ptr<ifaddrs, InterfacesReleaser> owned(list);
    std::vector<uint32_t> found;
    for (const ifaddrs *each = list; each != nullptr; each = each->ifa_next)
        if (each->ifa_addr != nullptr && each->ifa_addr->sa_family == AF_INET &&
            (each->ifa_flags & IFF_UP) != 0 && (each->ifa_flags & IFF_BROADCAST) != 0 &&
            each->ifa_netmask != nullptr && (interface.empty() || interface == each->ifa_name))
            found.push_back(ipv4_of(each->ifa_addr) | ~ipv4_of(each->ifa_netmask));
    return found;
}

std::vector<uint32_t> targets_of(const DiscoverOptions &where) {
    if (!where.address.empty()) {
        in_addr address{};
        if (inet_pton(AF_INET, where.address.c_str(), &address) != 1)
            throw Failure(kUsage, "no IPv4 address: " + printable(where.address));
        return {address.s_addr};
    }
    auto targets = broadcast_addresses(where.interface);
    if (targets.empty())
        throw Failure(
            kNoAnswer,
            (where.interface.empty() ? "no interface" : "interface " + printable(where.interface)) +
                " has no address to broadcast from; --address asks one robot");
    return targets;
}

class Prober {
  public:
    explicit Prober(std::vector<uint32_t> targets)
        : targets_(std::move(targets)), socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const int on = 1;
        if (!socket_ || setsockopt(socket_.get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0)
            throw Failure(kNoAnswer, std::string("no socket for probes: ") + strerror(errno));
    }

    // The next reply; probes again every second until the deadline.
    std::optional<Reply> next(Deadline end) {
        while (Clock::now() < end) {
            if (Clock::now() >= again_) {
                send();
                again_ = deadline_after(kAgainS);
            }
            if (wait_readable(socket_.get(), std::min(again_, end)))
                if (auto reply = receive())
                    return reply;
        }
        return std::nullopt;
    }

  private:
    void send() {
        bool sent = false;
        for (const uint32_t target : targets_) {
            const sockaddr_in to{AF_INET, htons(kPort), {target}, {}};
            sent |= sendto(socket_.get(), kProbe.data(), kProbe.size(), 0,
                           reinterpret_cast<const sockaddr *>(&to), sizeof to) >= 0;
        }
        if (!sent)
            throw Failure(kNoAnswer, "cannot send a probe to " + address_text(targets_[0]) + ": " +
                                         strerror(errno));
    }

    // An error of the network (nobody listens there) arrives here, too, and is no reply.
    std::optional<Reply> receive() {
        std::array<char, 2048> text{};
        sockaddr_in from{};
        socklen_t size = sizeof from;
        const ssize_t length = recvfrom(socket_.get(), text.data(), text.size(), 0,
                                        reinterpret_cast<sockaddr *>(&from), &size);
        if (length < 0)
            return std::nullopt;
        return Reply{from.sin_addr.s_addr, std::string(text.data(), static_cast<size_t>(length))};
    }

    std::vector<uint32_t> targets_;
    Fd socket_;
    Deadline again_ = Clock::now();
};

std::vector<std::string> table_row(const json_t *robot) {
    std::vector<std::string> row;
    for (const char *key : {"robotname", "ip", "mac", "hostname", "sku", "sw"}) {
        const std::string text = text_member(robot, key);
        row.push_back(text.empty() ? "-" : printable(text));
    }
    row.push_back(compact(json_object_get(robot, "cap")));
    return row;
}

void print_json(const Reply &reply, json_t *robot) {
    const Json line(
        json_pack("{s:s, s:O}", "from", address_text(reply.from).c_str(), "robot", robot));
    puts(compact(line.get()).c_str());
    flush_output();
}

}  // namespace

int discover(const Options &options, const DiscoverOptions &where) {
    constexpr double kListenS = 3;
    Prober prober(targets_of(where));
    const Deadline end = deadline_after(options.timeout_or(kListenS));
    std::vector<std::vector<std::string>> rows{
        {"NAME", "ADDRESS", "MAC", "HOST NAME", "SKU", "SOFTWARE", "CAPABILITIES"}};
    std::set<uint32_t> heard;
    while (heard.size() < kMostRobots) {
        const auto reply = prober.next(end);
        if (!reply)
            break;
        if (!heard.insert(reply->from).second)
            continue;
        const Json robot = parse_masked(reply->text);
        if (!json_is_object(robot.get()))
            notice(address_text(reply->from) +
                   " answers with what is no description: " + printable(reply->text));
        else if (options.json)
            print_json(*reply, robot.get());
        else
            rows.push_back(table_row(robot.get()));
        if (!where.address.empty() && json_is_object(robot.get()))
            break;
    }
    if (heard.empty())
        throw Failure(kNoAnswer, "no robot answers");
    if (!options.json && rows.size() > 1)
        print_table(rows);
    return kDone;
}

std::optional<std::string> probe_host(const std::string &host, double limit_s) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo *found = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0)
        return std::nullopt;
    sockaddr_in address{};
    memcpy(&address, found->ai_addr, sizeof address);
    freeaddrinfo(found);
    try {
        Prober prober({address.sin_addr.s_addr});
        const auto reply = prober.next(deadline_after(limit_s));
        return reply ? std::optional(reply->text) : std::nullopt;
    } catch (const Failure &) {
        return std::nullopt;
    }
}

}  // namespace ctl
