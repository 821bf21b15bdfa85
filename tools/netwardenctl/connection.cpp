#include "connection.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

#include "log.h"
#include "mqttapp/mqtt_app.h"
#include "owned.h"
#include "tarn/robot_processes.h"
#include "tarn/tarn.h"
#include "text.h"

namespace ctl {

namespace {

constexpr char kOurTopics[] = "tarn/30/#";
constexpr size_t kResponseSize = 4096;
// A flood loses messages, not memory.
constexpr size_t kWaitingMessages = 4096;
constexpr size_t kWaitingBytes = 16 << 20;

// What the libraries log is said better by our own errors; on the robot it would land in its log.
void silence_libraries() {
    if (get_log_handle() != nullptr)
        return;
    log_handle *const silent = log_open_default("netwardenctl");
    log_set_level(silent, LOG_LEVEL_ERROR + 1);
    exchange_log_handle(silent);
}

// Raised on one thread as often as the main one may go through its wait.
class Signal {
  public:
    void raise() {
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(fd_.get(), &one, sizeof one);
    }
    bool wait(Deadline end) {
        uint64_t count;
        return wait_readable(fd_.get(), end) && read(fd_.get(), &count, sizeof count) > 0;
    }

  private:
    Fd fd_{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE)};
};

// Between the thread of the broker library, whose callbacks carry no context, and the main one.
struct inbox {
    std::mutex lock;
    std::deque<Message> messages;
    size_t bytes = 0;   // of their payloads
    bool lost = false;  // some did not fit
    Signal arrived;
    Signal connected;
    bool was_connected = false;  // thread of the library only
    tarn_lib *transport = nullptr;
    std::thread runner;
};
inbox *current = nullptr;

void on_connect(mqtt_app *) {
    if (current->was_connected)
        fputs("netwardenctl: the broker is back; what was sent meanwhile is lost\n", stderr);
    current->was_connected = true;
    current->connected.raise();
}

void on_message(mqtt_app *, const mqtt_app_message *message) {
    int type = 0;
    if (get_tarn_message_type(current->transport, message->topic, &type) == 0) {
        tarn_complete_transfer(tarn_get_req_handle_using_topic(current->transport, message->topic),
                               message->payload);
        return;
    }
    const std::lock_guard guard(current->lock);
    const auto size = static_cast<size_t>(message->payload_len);
    if (current->messages.size() >= kWaitingMessages || current->bytes + size > kWaitingBytes) {
        if (!std::exchange(current->lost, true))
            fputs("netwardenctl: messages come faster than they can be shown; some are lost\n",
                  stderr);
        return;
    }
    current->messages.push_back({message->topic, std::string(message->payload, size)});
    current->bytes += size;
    current->arrived.raise();
}

int send_text(void *app, const char *topic, const char *text) {
    return mqtt_app_publish(static_cast<mqtt_app *>(app), topic, static_cast<int>(strlen(text)),
                            text);
}

}  // namespace

std::string broker_address() {
    const char *given = getenv("MQTT_APP_BROKER");
    return given != nullptr && *given != '\0' ? given : "127.0.0.1:1883";
}

Connection::Connection(const std::vector<std::string> &topics, double limit_s) {
    current = new inbox;
    try {
        start(topics);
        if (!current->connected.wait(deadline_after(limit_s)))
            throw Failure(kNoAnswer,
                          "no broker at " + printable(broker_address()) + ", or it refuses us");
    } catch (...) {
        stop();
        throw;
    }
}

Connection::~Connection() {
    stop();
}

void Connection::start(const std::vector<std::string> &topics) {
    std::vector<const char *> filters{kOurTopics};
    for (const std::string &topic : topics)
        filters.push_back(topic.c_str());
    filters.push_back(nullptr);
    silence_libraries();
    app_ = mqtt_app_create("netwardenctl");
    if (app_ == nullptr)
        throw Failure(kNoAnswer, "the system has no file descriptor left");
    if (mqtt_app_init(app_, filters.data(), on_message) != 0)
        throw Failure(kUsage, "the broker is host:port or unix:/path, not \"" +
                                  printable(broker_address()) + "\"");
    mqtt_app_set_message_limit(app_, kMqttAppLargestMessage);  // of a home full of devices
    mqtt_app_register_on_connect_cb(app_, on_connect);
    transport_ = tarn_lib_init(send_text, app_, get_log_handle());
    if (transport_ == nullptr)
        throw std::bad_alloc();
    tarn_lib_set_process(transport_, PROCESS_CLIENT);
    current->transport = transport_;
    current->runner = std::thread([app = app_] { mqtt_app_run(app); });
}

void Connection::stop() {
    tarn_lib_exit(transport_);
    mqtt_app_exit(app_);
    if (current->runner.joinable())
        current->runner.join();
    delete std::exchange(current, nullptr);
}

std::optional<std::string> Connection::try_ask(const std::string &request, double limit_s) {
    tarn_req *const handle = tarn_alloc_req_handle(transport_);
    std::array<char, kResponseSize> response{};
    int result = -1;
    Signal done;
    // The transfer waits on a thread of its own, so that Ctrl-C ends it.
    std::thread transfer([&] {
        result =
            tarn_transfer(handle, PROCESS_CLIENT, PROCESS_NETWORK, request.c_str(), response.data(),
                          response.size(), static_cast<int>(std::ceil(limit_s)));
        done.raise();
    });
    try {
        done.wait(kNever);
    } catch (...) {
        tarn_lib_exit(std::exchange(transport_, nullptr));
        transfer.join();
        tarn_free_req_handle(handle);
        throw;
    }
    transfer.join();
    tarn_free_req_handle(handle);
    return result == 0 ? std::optional<std::string>(response.data()) : std::nullopt;
}

std::string Connection::ask(const std::string &request, double limit_s) {
    if (const auto answer = try_ask(request, limit_s))
        return *answer;
    throw Failure(kNoAnswer, "the broker at " + printable(broker_address()) +
                                 " is there but netwarden does not answer within " +
                                 format("%g s", std::ceil(limit_s)));
}

void Connection::tell(const std::string &message) {
    if (send_text(app_, kInbound, message.c_str()) != 0)
        throw Failure(kNoAnswer, "the broker takes no more messages");
    ask(R"({"get":"channel"})");
}

std::optional<Message> Connection::next(Deadline end) {
    if (Clock::now() >= end || !current->arrived.wait(end))
        return std::nullopt;
    const std::lock_guard guard(current->lock);
    Message first = std::move(current->messages.front());
    current->messages.pop_front();
    current->bytes -= first.payload.size();
    return first;
}

}  // namespace ctl
