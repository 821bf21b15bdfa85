// Every connection gets a libmosquitto client of its own, and only the thread of mqtt_app_run
// touches it. Messages stay in our queue until the broker acknowledged them: order and bound are
// kept here, whatever the client library had in flight when the connection broke.
#include "mqttapp/mqtt_app.h"

#include <dirent.h>
#include <fcntl.h>
#include <mosquitto.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "log.h"

#define LOG_SOURCE "lib/mqttapp"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::seconds;

constexpr char kDefaultBroker[] = "127.0.0.1:1883";
constexpr int kKeepAliveS = 30;
constexpr int kQos = 1;
constexpr int kRefusedByBroker = 128;  // return code of SUBACK, MQTT 3.1.1 section 3.9.3
constexpr seconds kFirstRetry{1};
constexpr seconds kLastRetry{30};
constexpr int kServiceMs = 5000;  // the keep-alive is looked at this often
constexpr size_t kQueueMessages = 256;
constexpr size_t kQueueBytes = 4 << 20;
constexpr size_t kInFlight = 20;  // fits the default window of brokers
constexpr int kDefaultMessageLimit = 64 * 1024;
constexpr size_t kNamedTopics = 16;  // of retained messages, in the log

struct ClientDeleter {
    void operator()(mosquitto *client) const { mosquitto_destroy(client); }
};
using Client = std::unique_ptr<mosquitto, ClientDeleter>;

struct DirectoryCloser {
    void operator()(DIR *directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, DirectoryCloser>;

struct endpoint {
    std::string host;  // the path of a socket when the port is 0
    int port = 0;
};

struct outgoing {
    std::string topic;
    std::string payload;
    int mid = 0;  // in this connection; 0 when not handed to the client yet

    size_t size() const { return topic.size() + payload.size(); }
};

enum class link_state : uint8_t { down, connecting, up };

}  // namespace

struct mqtt_app {
    mqtt_app() { mosquitto_lib_init(); }
    mqtt_app(const mqtt_app &) = delete;
    mqtt_app &operator=(const mqtt_app &) = delete;
    ~mqtt_app() {
        if (wake_fd >= 0)
            close(wake_fd);
        mosquitto_lib_cleanup();
    }

    std::string name;
    std::string broker_text;  // as it was given
    endpoint broker;
    std::vector<std::string> topics;
    mqtt_app_message_cb on_message = nullptr;
    mqtt_app_connect_cb on_connect = nullptr;
    int message_limit = kDefaultMessageLimit;
    int wake_fd = -1;

    // The thread of mqtt_app_run only.
    Client client;
    link_state link = link_state::down;
    int failure = MOSQ_ERR_SUCCESS;  // of a callback: it ends the connection
    bool reported_down = false;
    bool reported_refusal = false;
    bool has_acknowledged = false;             // the broker, something on this connection
    std::vector<std::string> retained_topics;  // those that the log names already

    std::atomic<bool> stop{false};

    std::mutex lock;  // leaf: guards all below
    std::condition_variable ended;
    std::deque<outgoing> queue;
    size_t queued_bytes = 0;
    bool running = false;
    std::thread::id runner;
};

namespace {

// --- the open handles ----------------------------------------------------------------------------

using Handle = std::shared_ptr<mqtt_app>;

// A thread that took a handle just before another one ended it finds it missing here instead of
// using freed memory.
struct open_handles {
    std::mutex lock;  // leaf
    std::vector<Handle> all;
};

open_handles &handles() {
    static auto *const open = new open_handles;  // detached threads outlive static storage
    return *open;
}

Handle find(const mqtt_app *app) {
    auto &open = handles();
    const std::lock_guard guard(open.lock);
    const auto found = std::find_if(open.all.begin(), open.all.end(),
                                    [app](const Handle &each) { return each.get() == app; });
    return found == open.all.end() ? nullptr : *found;
}

void add(const Handle &app) {
    auto &open = handles();
    const std::lock_guard guard(open.lock);
    open.all.push_back(app);
}

// False when another thread was faster.
bool remove(const Handle &app) {
    auto &open = handles();
    const std::lock_guard guard(open.lock);
    return std::erase(open.all, app) != 0;
}

void wake(const mqtt_app *app) {
    const uint64_t one = 1;
    // A counter that is full wakes just as well.
    [[maybe_unused]] const ssize_t written = write(app->wake_fd, &one, sizeof one);
}

// --- the broker's address ------------------------------------------------------------------------

bool parse_socket_path(std::string_view path, endpoint &to) {
    if (!path.starts_with('/') || path.size() >= sizeof(sockaddr_un::sun_path))
        return false;
    to = {std::string(path), 0};
    return true;
}

bool parse_host_and_port(std::string_view text, endpoint &to) {
    const size_t colon = text.rfind(':');
    if (colon == text.npos)
        return false;
    std::string_view host = text.substr(0, colon);
    const std::string_view port_text = text.substr(colon + 1);
    if (host.starts_with('[') && host.ends_with(']'))
        host = host.substr(1, host.size() - 2);
    else if (host.find(':') != host.npos)
        return false;
    int port = 0;
    const char *const end = port_text.data() + port_text.size();
    const auto [rest, error] = std::from_chars(port_text.data(), end, port);
    if (error != std::errc() || rest != end || port < 1 || port > UINT16_MAX || host.empty() ||
        host.find_first_of("[]/ \t\r\n") != host.npos)
        return false;
    to = {std::string(host), port};
    return true;
}

bool parse_broker(std::string_view text, endpoint &to) {
    constexpr std::string_view kUnix = "unix:";
    return text.starts_with(kUnix) ? parse_socket_path(text.substr(kUnix.size()), to)
                                   : parse_host_and_port(text, to);
}

// --- what the client library reports ------------------------------------------------------------

// All on the thread of mqtt_app_run.

// A connection without its subscriptions is deaf: the next one may get the memory for them.
void subscribe(mqtt_app *app) {
    for (const std::string &topic : app->topics)
        if (const int error =
                mosquitto_subscribe(app->client.get(), nullptr, topic.c_str(), kQos)) {
            LOGE("subscribing to %s failed: %s", topic.c_str(), mosquitto_strerror(error));
            app->failure = error;
        }
}

void on_connect(mosquitto * /*client*/, void *context, int code) {
    auto *app = static_cast<mqtt_app *>(context);
    if (code != 0) {  // the client ends the connection
        if (!app->reported_refusal)
            LOGW("the broker refused us: %s", mosquitto_connack_string(code));
        app->reported_refusal = true;
        return;
    }
    app->link = link_state::up;
    app->reported_down = app->reported_refusal = false;
    subscribe(app);
    if (app->on_connect != nullptr)
        app->on_connect(app);
}

void on_subscribe(mosquitto * /*client*/, void * /*context*/, int /*mid*/, int count,
                  const int *granted) {
    for (int i = 0; i < count; i++)
        if (granted[i] >= kRefusedByBroker)
            LOGE("broker refused a subscription");
}

// Acknowledged: out of the queue. The broker acknowledges in order, all but always the first.
void on_publish(mosquitto * /*client*/, void *context, int mid) {
    auto *app = static_cast<mqtt_app *>(context);
    app->has_acknowledged = true;
    const std::lock_guard guard(app->lock);
    auto &queue = app->queue;
    const auto acknowledged = std::find_if(
        queue.begin(), queue.end(), [mid](const outgoing &message) { return message.mid == mid; });
    if (acknowledged == queue.end())
        return;
    app->queued_bytes -= acknowledged->size();
    queue.erase(acknowledged);
}

// The broker hands a retained message out at every connect: what somebody once asked for would be
// asked for again at every boot. Named once for each topic, and not for ever more of them.
void refuse_retained(mqtt_app *app, const char *topic) {
    auto &named = app->retained_topics;
    if (named.size() == kNamedTopics || std::find(named.begin(), named.end(), topic) != named.end())
        return;
    LOGW("ignored a retained message on %s", topic);
    named.emplace_back(topic);
}

void on_message(mosquitto * /*client*/, void *context, const mosquitto_message *message) {
    auto *app = static_cast<mqtt_app *>(context);
    if (message->retain) {
        refuse_retained(app, message->topic);
        return;
    }
    if (message->payloadlen > app->message_limit) {
        LOGE("refused a message of %d bytes on %s", message->payloadlen, message->topic);
        return;
    }
    if (app->stop)
        return;
    const std::string payload(
        message->payload != nullptr ? static_cast<const char *>(message->payload) : "",
        static_cast<size_t>(message->payloadlen));
    const mqtt_app_message received{message->mid, message->topic, payload.c_str(),
                                    message->payloadlen};
    app->on_message(app, &received);
}

// --- the connection ------------------------------------------------------------------------------

// Says once that the broker is away, not at every attempt of a long night.
void drop_connection(mqtt_app *app, int error) {
    if (!app->reported_down)
        LOGW("no connection to the broker %s: %s", app->broker_text.c_str(),
             mosquitto_strerror(error));
    app->reported_down = true;
    app->link = link_state::down;
    app->client.reset();
    const std::lock_guard guard(app->lock);
    for (outgoing &message : app->queue)
        message.mid = 0;
}

// The client library makes the whole process ignore SIGPIPE, and every program that is started
// would inherit that: pipelines of shell scripts rely on it. A handler that does nothing ends at
// exec.
void catch_sigpipe() {
    struct sigaction nothing = {};
    nothing.sa_handler = [](int) {};
    nothing.sa_flags = SA_RESTART;
    sigaction(SIGPIPE, &nothing, nullptr);
}

// One of a pair of sockets that both belong to this process.
bool is_own_pair(int fd) {
    ucred peer{};
    socklen_t size = sizeof peer;
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.pid == getpid();
}

// Programs that the process starts must not hold a dead connection open. The client library also
// makes a pair of sockets for each connection and tells nobody their numbers. What starts in the
// instant between its opening them and this still inherits them: the library has no flag for it.
void close_on_exec(mosquitto *client) {
    fcntl(mosquitto_socket(client), F_SETFD, FD_CLOEXEC);
    const Directory open(opendir("/proc/self/fd"));
    while (const dirent *entry = open ? readdir(open.get()) : nullptr) {
        const int fd = atoi(entry->d_name);
        if (fd > STDERR_FILENO && is_own_pair(fd))
            fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
}

bool open_connection(mqtt_app *app) {
    const std::string id = app->name + "-" + std::to_string(getpid());
    app->client.reset(mosquitto_new(id.c_str(), true, app));
    catch_sigpipe();
    if (!app->client) {
        drop_connection(app, MOSQ_ERR_NOMEM);
        return false;
    }
    mosquitto *const client = app->client.get();
    mosquitto_connect_callback_set(client, on_connect);
    mosquitto_subscribe_callback_set(client, on_subscribe);
    mosquitto_publish_callback_set(client, on_publish);
    mosquitto_message_callback_set(client, on_message);
    app->link = link_state::connecting;
    app->failure = MOSQ_ERR_SUCCESS;
    app->has_acknowledged = false;
    const int error =
        mosquitto_connect_async(client, app->broker.host.c_str(), app->broker.port, kKeepAliveS);
    if (error != MOSQ_ERR_SUCCESS) {
        drop_connection(app, error);
        return false;
    }
    close_on_exec(client);
    return true;
}

// The next message that the client may have now. It stays valid: only this thread removes.
outgoing *next_to_send(mqtt_app *app) {
    const std::lock_guard guard(app->lock);
    const size_t window = std::min(app->queue.size(), kInFlight);
    for (size_t i = 0; i < window; i++)
        if (app->queue[i].mid == 0)
            return &app->queue[i];
    return nullptr;
}

// Hands the client what fits its window; its socket does not block. An error code of the client.
int send_queued(mqtt_app *app) {
    while (outgoing *message = next_to_send(app)) {
        int mid = 0;
        const int error = mosquitto_publish(app->client.get(), &mid, message->topic.c_str(),
                                            static_cast<int>(message->payload.size()),
                                            message->payload.data(), kQos, false);
        const std::lock_guard guard(app->lock);
        message->mid = mid;
        if (error != MOSQ_ERR_SUCCESS)
            return error;
    }
    return MOSQ_ERR_SUCCESS;
}

void clear_wake(const mqtt_app *app) {
    uint64_t count;
    [[maybe_unused]] const ssize_t got = read(app->wake_fd, &count, sizeof count);
}

// One round of the open connection: waits for something to do and does it.
int serve(mqtt_app *app) {
    mosquitto *const client = app->client.get();
    pollfd fds[] = {{mosquitto_socket(client), POLLIN, 0}, {app->wake_fd, POLLIN, 0}};
    if (mosquitto_want_write(client))
        fds[0].events |= POLLOUT;
    poll(fds, 2, kServiceMs);
    if (fds[1].revents != 0)
        clear_wake(app);
    int error = MOSQ_ERR_SUCCESS;
    if ((fds[0].revents & POLLOUT) != 0)
        error = mosquitto_loop_write(client, 1);
    if (error == MOSQ_ERR_SUCCESS && (fds[0].revents & ~POLLOUT) != 0)
        error = mosquitto_loop_read(client, 1);
    if (error == MOSQ_ERR_SUCCESS)
        error = app->failure;
    if (error == MOSQ_ERR_SUCCESS)
        error = mosquitto_loop_misc(client);
    if (error == MOSQ_ERR_SUCCESS && app->link == link_state::up)
        error = send_queued(app);
    return error;
}

// Waits before the next attempt; publishes go on filling the queue in the meantime.
void back_off(mqtt_app *app, seconds delay) {
    const auto end = Clock::now() + delay;
    for (auto now = Clock::now(); !app->stop && now < end; now = Clock::now()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - now);
        pollfd fd{app->wake_fd, POLLIN, 0};
        if (poll(&fd, 1, static_cast<int>(left.count())) > 0)
            clear_wake(app);
    }
}

// Serves one connection until it breaks. False when the broker is to be left alone longer than the
// last time: it refuses us, or it lets us in and throws us out at once, over a message it cannot
// bear. One that is not there restarts, and what others tell it before we are back is lost to us.
bool serve_connection(mqtt_app *app, seconds long_enough) {
    const auto start = Clock::now();
    if (!open_connection(app))
        return true;
    int error = MOSQ_ERR_SUCCESS;
    while (!app->stop && error == MOSQ_ERR_SUCCESS)
        error = serve(app);
    const bool was_up = app->link == link_state::up;
    if (error != MOSQ_ERR_SUCCESS)
        drop_connection(app, error);
    else
        mosquitto_disconnect(app->client.get());
    return was_up && (app->has_acknowledged || Clock::now() - start > long_enough);
}

bool begin_run(mqtt_app *app) {
    const std::lock_guard guard(app->lock);
    if (app->running || app->on_message == nullptr)
        return false;
    app->running = true;
    app->runner = std::this_thread::get_id();
    return true;
}

void end_run(mqtt_app *app) {
    app->client.reset();
    const std::lock_guard guard(app->lock);
    app->running = false;
    app->runner = {};
    app->ended.notify_all();
}

bool is_publishable(const char *topic, int length, const char *payload) {
    return topic != nullptr && *topic != '\0' && length >= 0 &&
           (payload != nullptr || length == 0) &&
           mosquitto_pub_topic_check(topic) == MOSQ_ERR_SUCCESS &&
           mosquitto_validate_utf8(topic, static_cast<int>(strlen(topic))) == MOSQ_ERR_SUCCESS;
}

}  // namespace

mqtt_app *mqtt_app_create(const char *client_name) {
    if (client_name == nullptr || *client_name == '\0')
        return nullptr;
    const Handle app(new (std::nothrow) mqtt_app);
    if (!app)
        return nullptr;
    app->name = client_name;
    app->wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (app->wake_fd < 0)
        return nullptr;
    add(app);
    return app.get();
}

int mqtt_app_init(mqtt_app *app, const char *const *topics, mqtt_app_message_cb on_message) {
    if (app == nullptr || topics == nullptr || on_message == nullptr)
        return -1;
    const char *broker = getenv("MQTT_APP_BROKER");
    if (broker == nullptr || *broker == '\0')
        broker = kDefaultBroker;
    if (!parse_broker(broker, app->broker)) {
        LOGE("MQTT_APP_BROKER is neither host:port nor unix:/path: \"%s\"", broker);
        return -1;
    }
    std::vector<std::string> filters;
    for (; *topics != nullptr; topics++) {
        if (**topics == '\0' || mosquitto_sub_topic_check(*topics) != MOSQ_ERR_SUCCESS) {
            LOGE("\"%s\" is no topic filter", *topics);
            return -1;
        }
        filters.emplace_back(*topics);
    }
    app->broker_text = broker;
    app->topics = std::move(filters);
    app->on_message = on_message;
    return 0;
}

int mqtt_app_register_on_connect_cb(mqtt_app *app, mqtt_app_connect_cb on_connect) {
    if (app == nullptr || on_connect == nullptr)
        return -1;
    app->on_connect = on_connect;
    return 0;
}

int mqtt_app_set_message_limit(mqtt_app *app, int bytes) {
    if (app == nullptr || bytes < 0)
        return -1;
    app->message_limit = bytes;
    return 0;
}

int mqtt_app_run(mqtt_app *handle) {
    const Handle app = find(handle);
    if (!app || !begin_run(app.get()))
        return -1;
    seconds delay = kFirstRetry;
    while (!app->stop) {
        if (serve_connection(app.get(), delay))
            delay = kFirstRetry;
        back_off(app.get(), delay);
        delay = std::min(delay * 2, kLastRetry);
    }
    end_run(app.get());
    return 0;
}

int mqtt_app_publish(mqtt_app *handle, const char *topic, int length, const char *payload) {
    const Handle app = find(handle);
    if (!app || !is_publishable(topic, length, payload))
        return EINVAL;
    if (length > kMqttAppLargestMessage)
        return EMSGSIZE;
    const size_t size = strlen(topic) + static_cast<size_t>(length);
    {
        const std::lock_guard guard(app->lock);
        if (app->queue.size() >= kQueueMessages || size > kQueueBytes - app->queued_bytes)
            return ENOBUFS;
        app->queue.push_back(
            {topic, std::string(length != 0 ? payload : "", static_cast<size_t>(length)), 0});
        app->queued_bytes += size;
    }
    wake(app.get());
    return 0;
}

void mqtt_app_exit(mqtt_app *handle) {
    const Handle app = find(handle);
    if (!app || !remove(app))
        return;
    app->stop = true;
    wake(app.get());
    std::unique_lock guard(app->lock);
    if (app->runner != std::this_thread::get_id())
        app->ended.wait(guard, [&] { return !app->running; });
}
