#include "tarn/tarn.h"

#include <jansson.h>
#include <pthread.h>
#include <sys/random.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "log.h"
#include "tarn/robot_processes.h"

#define LOG_SOURCE "lib/tarn"

namespace {

struct process_name {
    int number;
    std::string_view name;
};
constexpr std::array kProcesses{
    process_name{PROCESS_BLUETOOTH_MANAGER, "btmanager"},
    process_name{PROCESS_NETWORK, "network"},
    process_name{PROCESS_CORE, "corehub"},
};

constexpr std::string_view kPrefix = "tarn";
// By tarn_message_type.
constexpr std::array<std::string_view, 4> kTypeNames{"req", "resp", "event", "ack"};
static_assert(kTypeNames.size() == TARN_ACK + 1);

// Waits on the monotonic clock: the robot's wall clock jumps when it first reaches a time server.
class Condition {
  public:
    Condition() {
        pthread_condattr_t attributes;
        pthread_condattr_init(&attributes);
        pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
        pthread_cond_init(&condition_, &attributes);
        pthread_condattr_destroy(&attributes);
    }
    Condition(const Condition &) = delete;
    Condition &operator=(const Condition &) = delete;
    ~Condition() { pthread_cond_destroy(&condition_); }

    void notify_all() { pthread_cond_broadcast(&condition_); }
    void wait(std::unique_lock<std::mutex> &guard) {
        pthread_cond_wait(&condition_, guard.mutex()->native_handle());
    }
    // False when the time has come.
    bool wait_until(std::unique_lock<std::mutex> &guard, const timespec &end) {
        return pthread_cond_timedwait(&condition_, guard.mutex()->native_handle(), &end) == 0;
    }

  private:
    pthread_cond_t condition_;
};

timespec seconds_from_now(int seconds) {
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += std::max(seconds, 0);
    return end;
}

// What a library and its requests share; lives until the last of them is freed.
struct shared_state {
    std::mutex lock;  // leaf: never held while the callback runs
    tarn_send_cb send = nullptr;
    void *fn_data = nullptr;
    log_handle *log = nullptr;
    std::atomic<int> process{PROCESS_NETWORK};
    bool closed = false;
    int callers = 0;  // threads inside a transfer
    Condition callers_gone;
    std::map<uint64_t, std::shared_ptr<tarn_req>> pending;  // by ID
};

}  // namespace

struct tarn_lib {
    std::shared_ptr<shared_state> state;
};

// Owned by its user (`owner`), by the table while its transfer waits, and by a response on its way
// from tarn_get_req_handle_using_topic to tarn_complete_transfer (`delivery`). All below: under
// the lock of the state.
struct tarn_req {
    std::shared_ptr<shared_state> state;
    std::shared_ptr<tarn_req> owner;
    std::shared_ptr<tarn_req> delivery;
    uint64_t delivery_id = 0;
    Condition answered;
    uint64_t id = 0;  // 0 while no transfer waits
    int destination = 0;
    char *response = nullptr;
    size_t response_size = 0;
    bool done = false;
};

namespace {

// --- the open handles ----------------------------------------------------------------------------

using State = std::shared_ptr<shared_state>;

// A thread that took a handle just before another one ended it finds it missing here instead of
// using freed memory.
struct open_libs {
    std::mutex lock;  // leaf
    std::vector<std::unique_ptr<tarn_lib>> all;
};

open_libs &libs() {
    static auto *const open = new open_libs;  // detached threads outlive static storage
    return *open;
}

// Null when the library has ended.
State state_of(const tarn_lib *lib) {
    auto &open = libs();
    const std::lock_guard guard(open.lock);
    for (const auto &each : open.all)
        if (each.get() == lib)
            return lib->state;
    return nullptr;
}

// --- topics --------------------------------------------------------------------------------------

struct address {
    int receiver;
    tarn_message_type type;
    int peer;
    uint64_t id;
};

template <typename Number>
bool parse_decimal(std::string_view text, Number &to) {
    if (text.empty() || text[0] == '-' || (text[0] == '0' && text.size() > 1))
        return false;
    Number number{};
    const char *const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || rest != end)
        return false;
    to = number;
    return true;
}

// A process that has a name is not known by its number.
bool parse_process(std::string_view text, int &to) {
    for (const auto &known : kProcesses)
        if (known.name == text) {
            to = known.number;
            return true;
        }
    int number = 0;
    if (!parse_decimal(text, number))
        return false;
    for (const auto &known : kProcesses)
        if (known.number == number)
            return false;
    to = number;
    return true;
}

std::string name_of(int process) {
    for (const auto &known : kProcesses)
        if (known.number == process)
            return std::string(known.name);
    return std::to_string(process);
}

bool parse_type(std::string_view text, tarn_message_type &to) {
    const auto *const found = std::find(kTypeNames.begin(), kTypeNames.end(), text);
    if (found == kTypeNames.end())
        return false;
    to = static_cast<tarn_message_type>(found - kTypeNames.begin());
    return true;
}

// The text up to the next slash, which is taken off with it.
std::string_view take_level(std::string_view &rest) {
    const size_t slash = rest.find('/');
    const std::string_view level = rest.substr(0, slash);
    rest = slash == rest.npos ? std::string_view() : rest.substr(slash + 1);
    return level;
}

bool parse_topic(const char *topic, address &to) {
    if (topic == nullptr || std::count(topic, topic + strlen(topic), '/') != 4)
        return false;
    std::string_view rest = topic;
    return take_level(rest) == kPrefix && parse_process(take_level(rest), to.receiver) &&
           parse_type(take_level(rest), to.type) && parse_process(take_level(rest), to.peer) &&
           parse_decimal(rest, to.id);
}

std::string topic_of(const address &of) {
    std::string topic(kPrefix);
    for (const std::string &level :
         {name_of(of.receiver), std::string(kTypeNames[static_cast<size_t>(of.type)]),
          name_of(of.peer), std::to_string(of.id)})
        topic.append("/").append(level);
    return topic;
}

bool is_for_us(const State &state, const char *topic, address &to) {
    return state && parse_topic(topic, to) && to.receiver == state->process;
}

// Never the same twice in this process, and seldom one that an earlier process of our name used:
// late responses to that one must find nothing here.
uint64_t next_id() {
    static std::mutex lock;  // leaf; small processors have no atomic words of 64 bits
    static uint64_t last = [] {
        uint32_t start = 0;
        if (getrandom(&start, sizeof start, GRND_NONBLOCK) != sizeof start)
            start = static_cast<uint32_t>(time(nullptr));
        return uint64_t{start};
    }();
    const std::lock_guard guard(lock);
    return ++last;
}

// --- sending -------------------------------------------------------------------------------------

bool send_text(const shared_state &state, const address &to, const char *text) {
    const std::string topic = topic_of(to);
    if (state.send(state.fn_data, topic.c_str(), text) == 0)
        return true;
    log_format(state.log, LOG_LEVEL_WARN, LOG_SOURCE, __LINE__, "sending on %s failed",
               topic.c_str());
    return false;
}

// A thread that uses the callback of a library that others may end meanwhile; false when they
// have.
class Caller {
  public:
    explicit Caller(shared_state &state) : state_(state) {
        const std::lock_guard guard(state_.lock);
        is_in_ = !state_.closed;
        if (is_in_)
            state_.callers++;
    }
    Caller(const Caller &) = delete;
    Caller &operator=(const Caller &) = delete;
    ~Caller() {
        if (!is_in_)
            return;
        const std::lock_guard guard(state_.lock);
        if (--state_.callers == 0)
            state_.callers_gone.notify_all();
    }
    explicit operator bool() const { return is_in_; }

  private:
    shared_state &state_;
    bool is_in_ = false;
};

// Answers the message on `topic` of type `received` with one of type `answer`.
int answer_topic(const tarn_lib *lib, const char *topic, tarn_message_type received,
                 tarn_message_type answer, const char *text) {
    const State state = state_of(lib);
    address from{};
    if (text == nullptr || !is_for_us(state, topic, from) || from.type != received)
        return -1;
    const Caller caller(*state);
    return caller && send_text(*state, {from.peer, answer, from.receiver, from.id}, text) ? 0 : -1;
}

// --- transfers -----------------------------------------------------------------------------------

// Enters the request into the table of those that wait. False after tarn_lib_exit, and for a
// handle whose transfer is under way.
bool start_waiting(tarn_req *request, uint64_t id, int destination, char *response, size_t size) {
    shared_state &state = *request->state;
    const std::lock_guard guard(state.lock);
    if (state.closed || request->id != 0)
        return false;
    request->id = id;
    request->destination = destination;
    request->response = response;
    request->response_size = size;
    request->done = false;
    state.pending.emplace(id, request->owner);
    return true;
}

bool wait_for_response(tarn_req *request, const timespec &end) {
    shared_state &state = *request->state;
    std::unique_lock guard(state.lock);
    while (!request->done && !state.closed && request->answered.wait_until(guard, end)) {
    }
    state.pending.erase(request->id);
    request->id = 0;
    request->response = nullptr;
    return request->done;
}

bool may_send(const tarn_req *request, int source, int destination, const char *text) {
    return request != nullptr && text != nullptr && destination >= 0 &&
           source == request->state->process;
}

}  // namespace

tarn_lib *tarn_lib_init(tarn_send_cb send, void *fn_data, log_handle *log) {
    if (send == nullptr)
        return nullptr;
    std::unique_ptr<tarn_lib> lib(new (std::nothrow) tarn_lib);
    if (!lib)
        return nullptr;
    lib->state = std::make_shared<shared_state>();
    lib->state->send = send;
    lib->state->fn_data = fn_data;
    lib->state->log = log;
    auto &open = libs();
    const std::lock_guard guard(open.lock);
    return open.all.emplace_back(std::move(lib)).get();
}

void tarn_lib_set_process(tarn_lib *lib, int process) {
    if (const State state = state_of(lib))
        state->process = process;
}

void tarn_lib_exit(tarn_lib *lib) {
    const State state = state_of(lib);
    if (!state)
        return;
    {
        auto &open = libs();
        const std::lock_guard guard(open.lock);
        std::erase_if(open.all, [lib](const auto &each) { return each.get() == lib; });
    }
    std::unique_lock guard(state->lock);
    state->closed = true;
    for (auto &[id, request] : state->pending)
        request->answered.notify_all();
    while (state->callers != 0)
        state->callers_gone.wait(guard);
}

tarn_req *tarn_alloc_req_handle(tarn_lib *lib) {
    State state = state_of(lib);
    if (!state)
        return nullptr;
    auto *request = new (std::nothrow) tarn_req;
    if (request == nullptr)
        return nullptr;
    request->state = std::move(state);
    request->owner.reset(request);
    return request;
}

void tarn_free_req_handle(tarn_req *request) {
    if (request == nullptr)
        return;
    const State state = request->state;
    std::shared_ptr<tarn_req> last;
    const std::lock_guard guard(state->lock);
    last.swap(request->owner);
}

int tarn_transfer(tarn_req *request, int source, int destination, const char *text, char *response,
                  size_t response_size, int wait_s) {
    if (!may_send(request, source, destination, text) || response == nullptr || response_size == 0)
        return -1;
    const Caller caller(*request->state);
    if (!caller)
        return -1;
    const timespec end = seconds_from_now(wait_s);
    const uint64_t id = next_id();
    if (!start_waiting(request, id, destination, response, response_size))
        return -1;
    // Unsent, it ends by its time-out as well: callers that repeat keep their pace.
    send_text(*request->state, {destination, TARN_REQUEST, source, id}, text);
    return wait_for_response(request, end) ? 0 : -1;
}

int tarn_event_transfer(tarn_req *request, int source, int destination, const char *text,
                        int /*value*/) {
    if (!may_send(request, source, destination, text))
        return -1;
    shared_state &state = *request->state;
    const Caller caller(state);
    return caller && send_text(state, {destination, TARN_EVENT, source, next_id()}, text) ? 0 : -1;
}

int get_tarn_message_type(tarn_lib *lib, const char *topic, int *type) {
    address from{};
    if (!is_for_us(state_of(lib), topic, from))
        return -1;
    *type = from.type;
    return 0;
}

tarn_req *tarn_get_req_handle_using_topic(tarn_lib *lib, const char *topic) {
    const State state = state_of(lib);
    address from{};
    if (!is_for_us(state, topic, from) || from.type != TARN_RESPONSE)
        return nullptr;
    const std::lock_guard guard(state->lock);
    const auto found = state->pending.find(from.id);
    if (found == state->pending.end() || found->second->destination != from.peer ||
        found->second->delivery || found->second->done)
        return nullptr;
    tarn_req *const request = found->second.get();
    request->delivery = found->second;
    request->delivery_id = from.id;
    return request;
}

int tarn_complete_transfer(tarn_req *request, const char *payload) {
    if (request == nullptr || payload == nullptr)
        return -1;
    const State state = request->state;
    std::shared_ptr<tarn_req> last;
    const std::lock_guard guard(state->lock);
    last.swap(request->delivery);
    if (!last || request->id != request->delivery_id || request->done)
        return -1;
    const size_t length = strnlen(payload, request->response_size - 1);
    memcpy(request->response, payload, length);
    request->response[length] = '\0';
    request->done = true;
    request->answered.notify_all();
    return 0;
}

int tarn_send_resp(tarn_lib *lib, const char *request_topic, const char *text) {
    return answer_topic(lib, request_topic, TARN_REQUEST, TARN_RESPONSE, text);
}

int tarn_event_ack(tarn_lib *lib, const char *event_topic) {
    return answer_topic(lib, event_topic, TARN_EVENT, TARN_ACK, "");
}

int tarn_handle_set_log_level_request(tarn_lib *lib, log_handle *log, const char *topic,
                                      json_t *level) {
    const char *const word = json_string_value(level);
    if (word == nullptr || log_set_level_using_str(log, word) != 0) {
        tarn_send_resp(lib, topic, R"({"set_log_level": null})");
        return -1;
    }
    const std::string text = R"({"set_log_level": ")" + std::string(word) + R"("})";
    return tarn_send_resp(lib, topic, text.c_str());
}
