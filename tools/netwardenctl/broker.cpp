#include "broker.h"

#include <mosquitto.h>
#include <netdb.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string_view>
#include <system_error>
#include <thread>

#include "text.h"
#include "waiting.h"

namespace ctl {

namespace {

using std::chrono::milliseconds;

constexpr int kKeepAliveS = 10;  // a broker that hangs is noticed by a person who watches
constexpr int kQos = 1;
constexpr int kFilterRefused = 128;  // return code of SUBACK, MQTT 3.1.1 section 3.9.3
constexpr int kBadUser = 4;          // of CONNACK, section 3.2.2.3
constexpr int kNotAuthorised = 5;
constexpr int kLoopMs = 200;
constexpr milliseconds kAgain{500};
constexpr milliseconds kFarewell{1000};
constexpr std::string_view kUnix = "unix:";

std::atomic<int> left_threads{0};

struct Endpoint {
    std::string host;  // the path of a socket when the port is 0
    int port = 0;
};

[[noreturn]] void refuse_address(const std::string &address) {
    throw Failure(kUsage,
                  "the broker is host:port or unix:/path, not \"" + printable(address) + "\"");
}

Endpoint parse(const std::string &address) {
    const std::string_view text = address;
    if (text.starts_with(kUnix)) {
        const std::string_view path = text.substr(kUnix.size());
        if (!path.starts_with('/') || path.size() >= sizeof(sockaddr_un::sun_path))
            refuse_address(address);
        return {std::string(path), 0};
    }
    const size_t colon = text.rfind(':');
    if (colon == text.npos)
        refuse_address(address);
    std::string_view host = text.substr(0, colon);
    const std::string_view port = text.substr(colon + 1);
    int number = 0;
    const auto [rest, error] = std::from_chars(port.data(), port.data() + port.size(), number);
    if (error != std::errc() || rest != port.data() + port.size() || number < 1 ||
        number > UINT16_MAX)
        refuse_address(address);
    if (host.starts_with('[') && host.ends_with(']'))
        host = host.substr(1, host.size() - 2);
    else if (host.find(':') != host.npos)
        refuse_address(address);
    if (host.empty() || host.find_first_of("[]/ \t\r\n") != host.npos)
        refuse_address(address);
    return {std::string(host), number};
}

void check_file(const char *option, const std::string &path) {
    if (!path.empty() && access(path.c_str(), R_OK) != 0)
        throw Failure(kUsage, std::string("cannot read ") + option + " " + printable(path) + ": " +
                                  strerror(errno));
}

}  // namespace

void check_broker(const BrokerSettings &settings) {
    const Endpoint to = parse(settings.address);
    check_file("--cafile", settings.cafile);
    check_file("--cert", settings.cert);
    check_file("--key", settings.key);
    if (to.port == 0 && !settings.cafile.empty())
        throw Failure(kUsage, "--cafile: TLS needs a broker at host:port");
}

struct Broker::Line {
    struct Destroyer {
        void operator()(mosquitto *client) const { mosquitto_destroy(client); }
    };

    Line(const BrokerSettings &settings, std::vector<std::string> filters, BrokerEvents calls);
    Line(const Line &) = delete;
    Line &operator=(const Line &) = delete;
    ~Line() {
        client.reset();
        mosquitto_lib_cleanup();
    }

    void run();
    int serve();
    void subscribe();
    bool pause();
    void report(int error, int system_error);
    // Calls back unless the line has been given up.
    template <typename Call>
    void call(Call &&function) {
        const std::lock_guard guard(calling);
        if (!stop)
            function();
    }

    const Endpoint to;
    const std::vector<std::string> topics;
    const BrokerEvents events;
    std::unique_ptr<mosquitto, Destroyer> client;
    std::string tls_error;  // what the library last complained of
    int refusal = 0;        // of CONNACK
    bool is_filter_refused = false;

    std::mutex calling;
    std::condition_variable changed;
    std::atomic<bool> stop{false};
    bool ended = false;
};

Broker::Line::Line(const BrokerSettings &settings, std::vector<std::string> filters,
                   BrokerEvents calls)
    : to(parse(settings.address)), topics(std::move(filters)), events(std::move(calls)) {
    mosquitto_lib_init();
    const std::string id = "netwardenctl-" + std::to_string(getpid());
    client.reset(mosquitto_new(id.c_str(), true, this));
    catch_broken_pipes();  // the library ignores them for the whole process
    if (!client)
        throw Failure(kNoAnswer, std::string("no connection: ") + strerror(errno));
    mosquitto_threaded_set(client.get(), true);
    if (!settings.user.empty())
        mosquitto_username_pw_set(client.get(), settings.user.c_str(),
                                  settings.password.empty() ? nullptr : settings.password.c_str());
    const auto or_null = [](const std::string &text) {
        return text.empty() ? nullptr : text.c_str();
    };
    // A key with a password is refused: the library would ask for it on any terminal it finds.
    if (!settings.cafile.empty() &&
        mosquitto_tls_set(client.get(), settings.cafile.c_str(), nullptr, or_null(settings.cert),
                          or_null(settings.key), [](char *, int, int, void *) { return 0; }) != 0)
        throw Failure(kUsage, "the TLS settings cannot be used");
    mosquitto_log_callback_set(
        client.get(), [](mosquitto *, void *context, int level, const char *text) {
            // "OpenSSL Error[0]: error:0A000086:SSL routines::certificate verify failed"
            if (const std::string_view line = text; level == MOSQ_LOG_ERR)
                static_cast<Line *>(context)->tls_error = line.substr(line.rfind(':') + 1);
        });
    mosquitto_connect_callback_set(client.get(), [](mosquitto *, void *context, int code) {
        auto *line = static_cast<Line *>(context);
        line->refusal = code;
        if (code == 0)
            line->subscribe();
    });
    mosquitto_subscribe_callback_set(
        client.get(), [](mosquitto *, void *context, int, int count, const int *granted) {
            auto *line = static_cast<Line *>(context);
            line->is_filter_refused =
                std::find(granted, granted + count, kFilterRefused) != granted + count;
            if (!line->is_filter_refused)
                line->call([line] { line->events.ready(); });
        });
    mosquitto_message_callback_set(
        client.get(), [](mosquitto *, void *context, const mosquitto_message *message) {
            if (message->retain)  // somebody's of long ago, said again at every connect
                return;
            auto *line = static_cast<Line *>(context);
            line->call([line, message] {
                line->events.message(message->topic,
                                     std::string(static_cast<const char *>(message->payload),
                                                 static_cast<size_t>(message->payloadlen)));
            });
        });
}

void Broker::Line::subscribe() {
    std::vector<char *> filters;
    for (const std::string &topic : topics)
        filters.push_back(const_cast<char *>(topic.c_str()));
    mosquitto_subscribe_multiple(client.get(), nullptr, static_cast<int>(filters.size()),
                                 filters.data(), kQos, 0, nullptr);
}

// Connects and serves until that ends; an error code of the library.
int Broker::Line::serve() {
    refusal = 0;
    is_filter_refused = false;
    tls_error.clear();
    errno = 0;
    int error = mosquitto_connect(client.get(), to.host.c_str(), to.port, kKeepAliveS);
    while (error == MOSQ_ERR_SUCCESS && !stop && !is_filter_refused)
        error = mosquitto_loop(client.get(), kLoopMs, 1);
    return error;
}

void Broker::Line::report(int error, int system_error) {
    const std::string of_system = std::generic_category().message(system_error);
    if (is_filter_refused)
        call([&] { events.down("it does not let us listen to the robot", true); });
    else if (refusal != 0)
        call([&] {
            std::string_view why = mosquitto_connack_string(refusal);
            why.remove_prefix(std::min(why.size(), why.find(": ") + 2));
            why = why.substr(0, why.find_last_not_of('.') + 1);
            events.down("it refuses us: " + std::string(why),
                        refusal == kBadUser || refusal == kNotAuthorised);
        });
    else if (error == MOSQ_ERR_TLS || !tls_error.empty())
        call([&] {
            events.down(tls_error.empty() ? "the TLS connection failed" : tls_error, true);
        });
    else if (error == MOSQ_ERR_EAI)
        call([&] { events.down("there is no host of that name", false); });
    else if (error == MOSQ_ERR_ERRNO)
        call([&] { events.down(of_system, false); });
    else
        call([&] { events.down("the connection was closed", false); });
}

// False when the line is given up.
bool Broker::Line::pause() {
    std::unique_lock guard(calling);
    return !changed.wait_for(guard, kAgain, [this] { return stop.load(); });
}

void Broker::Line::run() {
    do {
        const int error = serve();
        const int system_error = errno;
        if (!stop)
            report(error, system_error);
    } while (pause());
    mosquitto_disconnect(client.get());
    mosquitto_loop_write(client.get(), 1);
    const std::lock_guard guard(calling);
    ended = true;
    changed.notify_all();
}

BrokerSettings &broker_settings() {
    static BrokerSettings settings;
    return settings;
}

Broker::Broker(const BrokerSettings &settings, std::vector<std::string> topics, BrokerEvents events)
    : line_(std::make_shared<Line>(settings, std::move(topics), std::move(events))),
      thread_([line = line_] { line->run(); }) {}

Broker::~Broker() {
    std::unique_lock guard(line_->calling);
    line_->stop = true;
    line_->changed.notify_all();
    const bool has_ended =
        line_->changed.wait_for(guard, kFarewell, [this] { return line_->ended; });
    guard.unlock();
    if (has_ended) {
        thread_.join();
    } else {
        thread_.detach();
        left_threads++;
    }
}

bool Broker::publish(const std::string &topic, const std::string &text) {
    return mosquitto_publish(line_->client.get(), nullptr, topic.c_str(),
                             static_cast<int>(text.size()), text.data(), kQos,
                             false) == MOSQ_ERR_SUCCESS;
}

bool has_left_threads() {
    return left_threads > 0;
}

}  // namespace ctl
