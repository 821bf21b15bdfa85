#include "tarn/tarn.h"

#include <cstring>

#include "log.h"
#include "mqttapp/mqtt_app.h"
#include "robot.h"

namespace {

class Tarn : public Robot {
  protected:
    ~Tarn() override { tarn_lib_exit(lib); }

    static int keep(void *self, const char *topic, const char *text) {
        auto *test = static_cast<Tarn *>(self);
        if (test->on_send)
            test->on_send(topic);
        const std::lock_guard guard(test->lock);
        test->sent.push_back(std::string(topic) + " " + text);
        return test->send_result;
    }
    std::string take_sent() {
        const std::lock_guard guard(lock);
        const std::string last = sent.empty() ? "" : sent.back();
        sent.resize(sent.size() - !sent.empty());
        return last;
    }
    // The response, or "none".
    std::string transfer(const std::string &text, int wait_s, size_t size = 64) {
        char response[64] = "none";
        tarn_req *request = tarn_alloc_req_handle(lib);
        const int result = tarn_transfer(request, 6, 10, text.c_str(), response, size, wait_s);
        tarn_free_req_handle(request);
        EXPECT_EQ(result, response == std::string("none") ? -1 : 0);
        return response;
    }
    // "/ID" of the request that is sent next.
    std::string next_id() {
        std::string request;
        eventually([&] { return !(request = take_sent()).empty(); });
        EXPECT_THAT(request, testing::MatchesRegex("tarn/10/req/network/[0-9]+ hello"));
        return request.substr(19, request.find(' ') - 19);
    }
    tarn_req *find(const std::string &who_and_id) {
        return tarn_get_req_handle_using_topic(lib, ("tarn/network/resp/" + who_and_id).c_str());
    }

    std::function<void(const std::string &topic)> on_send;
    std::mutex lock;
    std::vector<std::string> sent;  // "topic text"
    std::atomic<int> send_result{0};
    tarn_lib *lib = tarn_lib_init(keep, this, nullptr);
};

TEST_F(Tarn, ResponseReachesItsTransferOnce) {
    std::thread waiter([&] { EXPECT_EQ(transfer("hello", 10, 4), "abc"); });
    const std::string id = next_id();
    EXPECT_EQ(find("10" + id + "1"), nullptr) << "unknown";
    EXPECT_EQ(find("9" + id), nullptr) << "from another process";
    tarn_req *request = find("10" + id);
    EXPECT_EQ(find("10" + id), nullptr) << "twice";
    EXPECT_EQ(tarn_complete_transfer(request, "abcdef"), 0);
    waiter.join();
    EXPECT_EQ(find("10" + id), nullptr) << "late";
}

// Found in time, delivered when its transfer and its handle are gone.
TEST_F(Tarn, ResponseOvertakenByTheTimeOut) {
    send_result = 1;  // unsent: it fails no sooner and no later
    const auto start = std::chrono::steady_clock::now();
    std::thread waiter([&] { EXPECT_EQ(transfer("hello", 1), "none"); });
    tarn_req *request = find("10" + next_id());
    waiter.join();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(990));
    EXPECT_EQ(tarn_complete_transfer(request, "too late"), -1);
}

TEST_F(Tarn, HandleServesOneTransferAfterTheOther) {
    tarn_req *const request = tarn_alloc_req_handle(lib);
    char response[64];
    std::vector<std::string> ids;
    on_send = [&](const std::string &topic) {
        ids.push_back("10" + topic.substr(topic.rfind('/')));
        EXPECT_EQ(tarn_transfer(request, 6, 10, "meanwhile", response, 64, 0), -1);
        if (ids.size() == 1)
            return;
        EXPECT_EQ(find(ids.front()), nullptr) << "the former is forgotten";
        EXPECT_EQ(tarn_complete_transfer(find(ids.back()), "response"), 0);
    };
    EXPECT_EQ(tarn_transfer(request, 6, 10, "first", response, 64, 0), -1);
    EXPECT_EQ(tarn_transfer(request, 6, 10, "second", response, 64, 0), 0);
    EXPECT_STREQ(response, "response");
    tarn_free_req_handle(request);
}

TEST_F(Tarn, RefusesBadArguments) {
    tarn_req *const request = tarn_alloc_req_handle(lib);
    char response[8];
    const struct {
        tarn_req *request;
        int source, destination;
        const char *text;
        char *response;
        size_t size;
    } cases[]{
        {nullptr, 6, 10, "t", response, 8}, {request, 5, 10, "t", response, 8},
        {request, 6, -1, "t", response, 8}, {request, 6, 10, nullptr, response, 8},
        {request, 6, 10, "t", nullptr, 8},  {request, 6, 10, "t", response, 0},
    };
    for (const auto &row : cases)
        EXPECT_EQ(tarn_transfer(row.request, row.source, row.destination, row.text, row.response,
                                row.size, 3600),
                  -1);
    EXPECT_EQ(tarn_event_transfer(request, 5, 2, "t", 2), -1);
    EXPECT_EQ(tarn_send_resp(lib, "tarn/network/req/10/7", nullptr), -1);
    EXPECT_EQ(tarn_complete_transfer(nullptr, ""), -1);
    EXPECT_EQ(tarn_lib_init(nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(take_sent(), "");
    EXPECT_EQ(tarn_event_transfer(request, 6, 0, "t", 2), 0);
    EXPECT_THAT(take_sent(), testing::MatchesRegex("tarn/btmanager/event/network/[0-9]+ t"));
    send_result = 1;
    EXPECT_EQ(tarn_event_transfer(request, 6, 12, "t", 2), -1);
    EXPECT_THAT(take_sent(), testing::MatchesRegex("tarn/corehub/event/network/[0-9]+ t"));
    tarn_free_req_handle(request);
}

// At the instant of the time-out, and all at once.
TEST_F(Tarn, ResponsesToManyThreads) {
    const auto answer = [this](int threads, int rounds, int wait_s) {
        std::atomic<int> done{0};
        std::vector<std::jthread> askers;
        for (int i = 0; i < threads; i++)
            askers.emplace_back([&, text = std::to_string(i)] {
                for (int n = 0; n < rounds; n++)
                    EXPECT_THAT(transfer(text, wait_s),
                                testing::AnyOf(text, wait_s == 0 ? "none" : text));
                done++;
            });
        int found = 0;
        while (done < threads) {
            const std::string request = take_sent();
            const size_t id = request.rfind('/'), text = request.find(' ');
            if (tarn_req *asked = id < text ? find("10" + request.substr(id, text - id)) : nullptr)
                found += 1 + tarn_complete_transfer(asked, &request[text + 1]);
        }
        return found;
    };
    EXPECT_GT(answer(4, 2000, 0), 0);
    EXPECT_EQ(answer(64, 1, 20), 64);
}

// The daemon parks after a fatal error while its other threads go on.
TEST_F(Tarn, ExitEndsWhatOtherThreadsDo) {
    constexpr char kRequest[] = "tarn/network/req/10/7";
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([&] { EXPECT_EQ(transfer("hello", 3600), "none"); });
    for (int i = 0; i < 8; i++)
        EXPECT_NE(next_id(), "");
    for (int i = 0; i < 4; i++)
        threads.emplace_back([&] {
            while (tarn_send_resp(lib, kRequest, "r") == 0) {
            }
        });
    EXPECT_TRUE(eventually([&] { return !take_sent().empty(); }));
    tarn_lib_exit(lib);
    while (!take_sent().empty()) {
    }
    threads.clear();
    EXPECT_EQ(take_sent(), "") << "the callback is used after the end";
    int type = 0;
    EXPECT_NE(get_tarn_message_type(lib, kRequest, &type), 0);
    EXPECT_EQ(tarn_alloc_req_handle(lib), nullptr);
}

TEST_F(Tarn, TopicsAreOursOnlyInTheirExactShape) {
    const std::pair<const char *, int> topics[] = {
        {"tarn/network/req/btmanager/0", TARN_REQUEST},
        {"tarn/network/resp/12345/18446744073709551615", TARN_RESPONSE},
        {"tarn/network/event/corehub/7", TARN_EVENT},
        {"tarn/network/req/12/7", -1},  // a process that has a name goes by it
        {"tarn/network/req/10/18446744073709551616", -1},
        {"tarn/network/req/2147483648/7", -1},
        {"tarn/network/req/-10/7", -1},
        {"tarn/network/req/10/", -1},
        {"tarn/network/req/10/7/", -1},
    };
    for (const auto &[topic, expected] : topics) {
        int type = -1;
        get_tarn_message_type(lib, topic, &type);
        EXPECT_EQ(type, expected) << topic;
        EXPECT_EQ(tarn_send_resp(lib, topic, "r") == 0, expected == TARN_REQUEST) << topic;
        EXPECT_EQ(tarn_event_ack(lib, topic) == 0, expected == TARN_EVENT) << topic;
    }
    EXPECT_EQ(take_sent(), "tarn/corehub/ack/network/7 ");
    EXPECT_EQ(take_sent(), "tarn/btmanager/resp/network/0 r");
}

TEST_F(Tarn, LogLevelByRequest) {
    log_handle *log = log_open("robot", LOG_LEVEL_ERROR, nullptr, 0, 1, 0, 0, 1);
    for (const char *level : {"debug", "dbg"}) {
        const Json json(json_string(level));
        tarn_handle_set_log_level_request(lib, log, "tarn/network/req/10/5", json.get());
        log_format(log, LOG_LEVEL_DBG, "s", 1, "after %s", level);
    }
    EXPECT_EQ(take_sent(), R"(tarn/10/resp/network/5 {"set_log_level": "dbg"})");
    EXPECT_EQ(take_sent(), R"(tarn/10/resp/network/5 {"set_log_level": null})");
    EXPECT_TRUE(logged("after dbg"));
    EXPECT_EQ(times_logged("after debug"), 0);
    log_close(log);
}

// Two processes on one connection: `network` asks, `peer` answers with the request's own text.
tarn_lib *network, *peer;

void on_message(mqtt_app *, const mqtt_app_message *message) {
    if (auto *request = tarn_get_req_handle_using_topic(network, message->topic))
        tarn_complete_transfer(request, message->payload);
    else
        EXPECT_EQ(tarn_send_resp(peer, message->topic, message->payload), 0) << message->topic;
}

int publish(void *app, const char *topic, const char *text) {
    return mqtt_app_publish(static_cast<mqtt_app *>(app), topic, static_cast<int>(strlen(text)),
                            text);
}

TEST_F(Tarn, SixtyFourTransfersAtOnceOverTheBroker) {
    const Broker broker;
    const char *const topics[] = {"tarn/#", nullptr};
    mqtt_app *app = mqtt_app_create("both");
    ASSERT_EQ(mqtt_app_init(app, topics, on_message), 0);
    tarn_lib_exit(lib);
    network = lib = tarn_lib_init(publish, app, nullptr);
    peer = tarn_lib_init(publish, app, nullptr);
    tarn_lib_set_process(peer, 10);
    std::jthread server(mqtt_app_run, app);
    std::vector<std::jthread> askers;
    for (int i = 0; i < 64; i++)
        askers.emplace_back(
            [this, text = std::to_string(i)] { EXPECT_EQ(transfer(text, 20), text); });
    askers.clear();
    mqtt_app_exit(app);
    tarn_lib_exit(peer);
}

}  // namespace
