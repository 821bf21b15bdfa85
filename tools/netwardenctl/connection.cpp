#include "connection.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <deque>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

#include "broker.h"
#include "log.h"
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

// Between the broker's thread and the main one.
struct inbox {
    std::mutex lock;
    std::deque<Message> messages;
    std::string wifistat;
    std::string why_down;  // not empty while there is no connection
    bool is_final = false;
    size_t bytes = 0;   // of their payloads
    bool lost = false;  // some did not fit
    Signal arrived;
    Signal acknowledged;
    Signal link_changed;
    bool was_connected = false;
    tarn_lib *transport = nullptr;
};
inbox *current = nullptr;

std::string address() {
    return printable(broker_settings().address);
}

void on_ready() {
    const std::lock_guard guard(current->lock);
    current->why_down.clear();
    if (std::exchange(current->was_connected, true))
        notice("the broker is back; what was sent meanwhile is lost");
    current->link_changed.raise();
}

void on_down(const std::string &why, bool final) {
    const std::lock_guard guard(current->lock);
    if (current->was_connected && current->why_down.empty())
        notice("the connection to the broker at " + address() + " is lost (" + printable(why) +
               "); trying again");
    current->why_down = why;
    current->is_final = final;
    current->link_changed.raise();
}

bool take_transport_message(const char *topic, const std::string &payload) {
    int type = 0;
    if (get_tarn_message_type(current->transport, topic, &type) != 0)
        return false;
    if (type == TARN_ACK)
        current->acknowledged.raise();
    else
        tarn_complete_transfer(tarn_get_req_handle_using_topic(current->transport, topic),
                               payload.c_str());
    return true;
}

void on_message(const char *topic, std::string payload) {
    if (take_transport_message(topic, payload))
        return;
    const std::lock_guard guard(current->lock);
    if (std::string_view(topic) == kOutbound) {
        const Json root(json_loadb(payload.data(), payload.size(), 0, nullptr));
        if (const json_t *state = json_object_get(root.get(), "wifistat"))
            current->wifistat = compact(state);
    }
    if (current->messages.size() >= kWaitingMessages ||
        current->bytes + payload.size() > kWaitingBytes) {
        if (!std::exchange(current->lost, true))
            notice("messages come faster than they can be shown; some are lost");
        return;
    }
    current->bytes += payload.size();
    timeval now{};
    gettimeofday(&now, nullptr);
    current->messages.push_back({topic, std::move(payload), now});
    current->arrived.raise();
}

int send_text(void *broker, const char *topic, const char *text) {
    return (*static_cast<std::unique_ptr<Broker> *>(broker))->publish(topic, text) ? 0 : -1;
}

}  // namespace

Connection::Connection(const std::vector<std::string> &topics, double limit_s) {
    current = new inbox;
    try {
        start(topics);
        await_broker(limit_s);
    } catch (...) {
        stop();
        throw;
    }
}

Connection::~Connection() {
    stop();
}

void Connection::await_broker(double limit_s) {
    const Deadline end = deadline_after(limit_s);
    while (current->link_changed.wait(end)) {
        const std::lock_guard guard(current->lock);
        if (current->why_down.empty())
            return;
        if (current->is_final)
            break;
    }
    const std::lock_guard guard(current->lock);
    throw Failure(kNoAnswer, "no broker at " + address() + ": " +
                                 (current->why_down.empty() ? format("no answer in %g s", limit_s)
                                                            : printable(current->why_down)));
}

void Connection::start(const std::vector<std::string> &topics) {
    std::vector<std::string> filters{kOurTopics};
    filters.insert(filters.end(), topics.begin(), topics.end());
    transport_ = tarn_lib_init(send_text, &broker_, get_log_handle());
    if (transport_ == nullptr)
        throw std::bad_alloc();
    tarn_lib_set_process(transport_, PROCESS_CLIENT);
    current->transport = transport_;
    broker_ = std::make_unique<Broker>(broker_settings(), std::move(filters),
                                       BrokerEvents{on_message, on_ready, on_down});
}

void Connection::stop() {
    tarn_lib_exit(transport_);
    broker_.reset();
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
    throw Failure(kNoAnswer, "the broker at " + address() +
                                 " is there but netwarden does not answer within " +
                                 format("%g s", std::ceil(limit_s)));
}

void Connection::tell(const std::string &message, double limit_s) {
    if (!broker_->publish(kInbound, message))
        throw Failure(kNoAnswer, "the broker takes no message now");
    ask(R"({"get":"channel"})", limit_s);
}

bool Connection::send(const std::string &topic, const std::string &text) {
    return broker_->publish(topic, text);
}

void Connection::announce(const std::string &event, double limit_s) {
    tarn_req *const handle = tarn_alloc_req_handle(transport_);
    const int result =
        tarn_event_transfer(handle, PROCESS_CLIENT, PROCESS_NETWORK, event.c_str(), 0);
    tarn_free_req_handle(handle);
    if (result != 0)
        throw Failure(kNoAnswer, "the broker takes no message now");
    if (!current->acknowledged.wait(deadline_after(limit_s)))
        throw Failure(kNoAnswer, "the broker at " + address() +
                                     " is there but netwarden does not acknowledge within " +
                                     format("%g s", limit_s));
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

std::optional<std::string> Connection::last_wifistat() const {
    const std::lock_guard guard(current->lock);
    return current->wifistat.empty() ? std::nullopt : std::optional(current->wifistat);
}

}  // namespace ctl
