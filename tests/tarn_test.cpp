#include "tarn/tarn.h"

#include <cstring>
#include <deque>

#include "log.h"
#include "mqttapp/mqtt_app.h"
#include "robot.h"

namespace {

// What the library sent, "topic text", in order.
struct Outbox {
    std::mutex lock;
    std::deque<std::string> sent;
    std::atomic<int> result{0};

    static int take(void *self, const char *topic, const char *text) {
        auto *box = static_cast<Outbox *>(self);
        const std::lock_guard guard(box->lock);
        box->sent.push_back(std::string(topic) + " " + text);
        return box->result;
    }
    std::string next() {
        const std::lock_guard guard(lock);
        if (sent.empty())
            return "";
        std::string first = sent.front();
        sent.pop_front();
        return first;
    }
};

// The topic of the response of process 10 to "tarn/10/req/network/<id> <text>".
std::string response_topic(const std::string &request) {
    const size_t id = request.rfind('/') + 1;
    return "tarn/network/resp/10/" + request.substr(id, request.find(' ') - id);
}

void in_threads(
    int count, const std::function<void(int)> &body,
    const std::function<void()> &meanwhile = [] {}) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; i++)
        threads.emplace_back(body, i);
    meanwhile();
    for (auto &thread : threads)
        thread.join();
}

class Tarn : public Robot {
  protected:
    ~Tarn() override { tarn_lib_exit(lib); }

    int transfer(int wait_s, size_t size = 64) {
        tarn_req *request = tarn_alloc_req_handle(lib);
        const int result = tarn_transfer(request, 6, 10, "hello", response, size, wait_s);
        tarn_free_req_handle(request);
        return result;
    }
    std::string wait_for_sent() {
        std::string text;
        eventually([&] { return !(text = outbox.next()).empty(); });
        return text;
    }
    tarn_req *find(const std::string &topic) {
        return tarn_get_req_handle_using_topic(lib, topic.c_str());
    }

    Outbox outbox;
    tarn_lib *lib = tarn_lib_init(Outbox::take, &outbox, nullptr);
    char response[64] = "untouched";
};

TEST_F(Tarn, ResponseReachesItsTransferOnce) {
    int result = 1;
    std::thread waiter([&] { result = transfer(10, 4); });
    const std::string sent = wait_for_sent();
    EXPECT_THAT(sent, testing::MatchesRegex("tarn/10/req/network/[0-9]+ hello"));
    const std::string topic = response_topic(sent);
    EXPECT_EQ(find(topic + "1"), nullptr) << "unknown ID";
    EXPECT_EQ(find("tarn/network/resp/9" + topic.substr(topic.rfind('/'))), nullptr)
        << "from another process";
    tarn_req *request = find(topic);
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(find(topic), nullptr) << "twice";
    EXPECT_EQ(tarn_complete_transfer(request, "abcdef"), 0);
    waiter.join();
    EXPECT_EQ(result, 0);
    EXPECT_STREQ(response, "abc");
    EXPECT_EQ(find(topic), nullptr) << "late";
}

// Found in time, delivered when its transfer and its handle are gone.
TEST_F(Tarn, ResponseOvertakenByTheTimeOut) {
    outbox.result = 1;  // unsent: it fails no sooner and no later
    const auto start = std::chrono::steady_clock::now();
    std::thread waiter([&] { EXPECT_EQ(transfer(1), -1); });
    const std::string topic = response_topic(wait_for_sent());
    tarn_req *request = find(topic);
    waiter.join();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(990));
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(tarn_complete_transfer(request, "too late"), -1);
    EXPECT_STREQ(response, "untouched");
    EXPECT_EQ(find(topic), nullptr);
}

TEST_F(Tarn, ResponseAtTheInstantOfTheTimeOut) {
    std::atomic<bool> stop{false};
    std::atomic<int> found{0};
    std::thread broker([&] {
        while (!stop) {
            const std::string sent = outbox.next();
            if (tarn_req *request = sent.empty() ? nullptr : find(response_topic(sent))) {
                found++;
                tarn_complete_transfer(request, "x");
            }
        }
    });
    in_threads(4, [&](int) {
        char text[8];
        for (int n = 0; n < 2000; n++) {
            tarn_req *request = tarn_alloc_req_handle(lib);
            if (tarn_transfer(request, 6, 10, "hello", text, sizeof text, 0) == 0) {
                EXPECT_STREQ(text, "x");
            }
            tarn_free_req_handle(request);
        }
    });
    stop = true;
    broker.join();
    EXPECT_GT(found, 0);
}

TEST_F(Tarn, ExitEndsTransfersOfOtherThreads) {
    const auto body = [this](int) {
        char text[8];
        tarn_req *request = tarn_alloc_req_handle(lib);
        EXPECT_EQ(tarn_transfer(request, 6, 10, "hello", text, sizeof text, 3600), -1);
        EXPECT_EQ(tarn_event_transfer(request, 6, 10, "after the end", 2), -1);
        tarn_free_req_handle(request);
    };
    in_threads(8, body, [this] {
        for (int i = 0; i < 8; i++)
            EXPECT_NE(wait_for_sent(), "");
        tarn_lib_exit(lib);
    });
    lib = nullptr;
}

TEST_F(Tarn, TopicsAreOursOnlyInTheirExactShape) {
    const std::pair<const char *, int> ours[] = {
        {"tarn/network/req/btmanager/0", TARN_REQUEST},
        {"tarn/network/resp/12345/18446744073709551615", TARN_RESPONSE},
        {"tarn/network/event/corehub/7", TARN_EVENT},
        {"tarn/network/ack/2147483647/7", TARN_ACK},
    };
    for (const auto &[topic, expected] : ours) {
        int type = -1;
        EXPECT_EQ(get_tarn_message_type(lib, topic, &type), 0) << topic;
        EXPECT_EQ(type, expected) << topic;
        EXPECT_EQ(tarn_send_resp(lib, topic, "r") == 0, expected == TARN_REQUEST) << topic;
        EXPECT_EQ(tarn_event_ack(lib, topic) == 0, expected == TARN_EVENT) << topic;
        EXPECT_EQ(find(topic), nullptr);
    }
    // A process that has a name is not addressed by its number.
    for (const char *topic : {"tarn/network/req/12/7",
                              "tarn/6/req/10/7",
                              "tarn/corehub/req/10/7",
                              "tarn/network/req/10/18446744073709551616",
                              "tarn/network/req/2147483648/7",
                              "tarn/network/req/10/07",
                              "tarn/network/req/010/7",
                              "tarn/network/req/-10/7",
                              "tarn/network/req/10/+7",
                              "tarn/network/req/10/7 ",
                              "tarn/network/req/10/",
                              "tarn/network/req/10",
                              "tarn/network/req/10/7/",
                              "tarn/network/req//7",
                              "tarn/network/reqs/10/7",
                              "tarn/network/#",
                              "/tarn/network/req/10/7",
                              "TARN/network/req/10/7",
                              "tarn//req/10/7",
                              ""}) {
        int type = -1;
        EXPECT_NE(get_tarn_message_type(lib, topic, &type), 0) << topic;
        EXPECT_EQ(type, -1) << topic;
        EXPECT_EQ(tarn_send_resp(lib, topic, "r"), -1) << topic;
    }
    EXPECT_EQ(outbox.next(), "tarn/btmanager/resp/network/0 r");
    EXPECT_EQ(outbox.next(), "tarn/corehub/ack/network/7 ");
}

TEST_F(Tarn, EventsAndBadArguments) {
    tarn_req *request = tarn_alloc_req_handle(lib);
    EXPECT_EQ(tarn_event_transfer(request, 6, 0, "e", 2), 0);
    EXPECT_THAT(outbox.next(), testing::MatchesRegex("tarn/btmanager/event/network/[0-9]+ e"));
    EXPECT_EQ(tarn_event_transfer(request, 6, -1, "e", 2), -1);
    EXPECT_EQ(tarn_event_transfer(request, 9, 0, "e", 2), -1) << "in another's name";
    EXPECT_EQ(tarn_event_transfer(nullptr, 6, 0, "e", 2), -1);
    EXPECT_EQ(tarn_transfer(request, 6, 0, nullptr, response, 9, 0), -1);
    EXPECT_EQ(tarn_transfer(request, 6, 0, "t", response, 0, 0), -1);
    EXPECT_EQ(outbox.next(), "");
    outbox.result = 1;
    EXPECT_EQ(tarn_event_transfer(request, 6, 0, "e", 2), -1);
    tarn_free_req_handle(request);
}

TEST_F(Tarn, LogLevelByRequest) {
    log_handle *log = log_open("robot", LOG_LEVEL_ERROR, nullptr, 0, 1, 0, 0, 1);
    constexpr char kTopic[] = "tarn/network/req/btmanager/5";
    const auto set = [&](const char *level) {
        const Json json(json_loads(level, JSON_DECODE_ANY, nullptr));
        const int result = tarn_handle_set_log_level_request(lib, log, kTopic, json.get());
        log_format(log, LOG_LEVEL_DBG, "s", 1, "dbg after %s", level);
        return result;
    };
    for (const char *bad : {"\"debug\"", "1", "null", "\"\""}) {
        EXPECT_EQ(set(bad), -1);
        EXPECT_EQ(outbox.next(), R"(tarn/btmanager/resp/network/5 {"set_log_level": null})");
    }
    EXPECT_EQ(set("\"dbg\""), 0);
    EXPECT_EQ(outbox.next(), R"(tarn/btmanager/resp/network/5 {"set_log_level": "dbg"})");
    EXPECT_TRUE(logged("dbg after \"dbg\""));
    EXPECT_EQ(times_logged("dbg after"), 1);
    log_close(log);
}

// --- over a real broker --------------------------------------------------------------------------

// Two processes on one connection: `network` asks, `corehub` answers with the request's own text.
tarn_lib *network, *corehub;

void on_message(mqtt_app *, const mqtt_app_message *message) {
    if (auto *request = tarn_get_req_handle_using_topic(network, message->topic))
        tarn_complete_transfer(request, message->payload);
    else
        EXPECT_EQ(tarn_send_resp(corehub, message->topic, message->payload), 0) << message->topic;
}

TEST_F(Tarn, SixtyFourTransfersAtOnceOverTheBroker) {
    const Broker broker;
    const char *const topics[] = {"tarn/#", nullptr};
    mqtt_app *app = mqtt_app_create("both");
    ASSERT_EQ(mqtt_app_init(app, topics, on_message), 0);
    const auto send = [](void *to, const char *topic, const char *text) {
        return mqtt_app_publish(static_cast<mqtt_app *>(to), topic, static_cast<int>(strlen(text)),
                                text);
    };
    network = tarn_lib_init(send, app, nullptr);
    corehub = tarn_lib_init(send, app, nullptr);
    tarn_lib_set_process(corehub, 12);
    std::thread server(mqtt_app_run, app);
    in_threads(64, [](int i) {
        const std::string text = "{\"n\":" + std::to_string(i) + "}";
        char reply[32] = "";
        tarn_req *request = tarn_alloc_req_handle(network);
        EXPECT_EQ(tarn_transfer(request, 6, 12, text.c_str(), reply, sizeof reply, 20), 0);
        EXPECT_EQ(reply, text);
        tarn_free_req_handle(request);
    });
    mqtt_app_exit(app);
    server.join();
    tarn_lib_exit(network);
    tarn_lib_exit(corehub);
}

}  // namespace
