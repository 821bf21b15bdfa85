#include "tarn/tarn.h"

#include <cerrno>
#include <ctime>

#include "robot.h"

// The end of the wait that a test, while it looks on, does not wait out.
static timespec *waited_until = nullptr;
extern "C" int pthread_cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                                      const timespec *end) {
    if (waited_until == nullptr)
        return pthread_cond_clockwait(condition, mutex, CLOCK_MONOTONIC, end);
    *waited_until = *end;
    return ETIMEDOUT;
}

namespace {

using testing::ElementsAre;

class Tarn : public Robot {
  protected:
    ~Tarn() override { tarn_lib_exit(lib); }

    static int keep(void *self, const char *topic, const char *text) {
        auto *test = static_cast<Tarn *>(self);
        const std::string id = strrchr(topic, '/') + 1;
        if (test->on_send)
            test->on_send(id, text);
        const std::lock_guard guard(test->lock);
        test->sent.push_back(std::string(topic) + " " + text);
        return test->send_result;
    }
    std::vector<std::string> take_sent() {
        const std::lock_guard guard(lock);
        return std::exchange(sent, {});
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
    tarn_req *find(const std::string &topic) {
        return tarn_get_req_handle_using_topic(lib, ("tarn/" + topic).c_str());
    }
    tarn_req *find_response(const std::string &id) { return find("network/resp/10/" + id); }

    std::function<void(const std::string &id, const std::string &text)> on_send;
    std::mutex lock;
    std::vector<std::string> sent;  // "topic text"
    std::atomic<int> send_result{0};
    tarn_lib *lib = tarn_lib_init(keep, this, nullptr);
};

TEST_F(Tarn, ResponseReachesItsTransferOnce) {
    std::vector<uint64_t> ids;
    on_send = [&](const std::string &id, const std::string &) {
        ids.push_back(std::stoull(id));
        for (const auto &other : {"network/resp/10/" + id + "1", "network/resp/9/" + id,
                                  "network/event/10/" + id, "btmanager/resp/10/" + id})
            EXPECT_EQ(find(other), nullptr) << other;
        tarn_req *const request = find_response(id);
        EXPECT_EQ(find_response(id), nullptr) << "on its way";
        EXPECT_EQ(tarn_complete_transfer(request, nullptr), -1);
        EXPECT_EQ(tarn_complete_transfer(request, "abcdef"), 0);
        EXPECT_EQ(tarn_complete_transfer(request, "again"), -1);
        EXPECT_EQ(find_response(id), nullptr) << "answered";
    };
    EXPECT_EQ(transfer("hello", 10, 4), "abc");
    EXPECT_EQ(transfer("hello", 10, 1), "");
    EXPECT_EQ(find_response(std::to_string(ids[0])), nullptr) << "late";
    EXPECT_EQ(ids[1], ids[0] + 1);
    EXPECT_GT(ids[0], 9U) << "where an earlier process began";
    EXPECT_EQ(take_sent()[0], "tarn/10/req/network/" + std::to_string(ids[0]) + " hello");
}

// Unsent it ends no sooner. Its response is found in time, and delivered when all is gone.
TEST_F(Tarn, TransferEndsByItsTimeOut) {
    send_result = 1;
    tarn_req *found = nullptr;
    on_send = [&](const std::string &id, const std::string &) { found = find_response(id); };
    timespec start, until;
    clock_gettime(CLOCK_MONOTONIC, &start);
    waited_until = &until;
    EXPECT_EQ(transfer("hello", 3600), "none");
    EXPECT_EQ(tarn_complete_transfer(found, "too late"), -1);
    waited_until = nullptr;
    timespec end;
    clock_gettime(CLOCK_MONOTONIC, &end);
    EXPECT_TRUE(until.tv_sec - 3600 >= start.tv_sec && until.tv_sec - 3600 <= end.tv_sec);
}

TEST_F(Tarn, HandleServesOneTransferAfterTheOther) {
    tarn_req *const request = tarn_alloc_req_handle(lib);
    char response[64];
    tarn_req *found = nullptr;
    on_send = [&](const std::string &id, const std::string &text) {
        EXPECT_EQ(tarn_transfer(request, 6, 10, "meanwhile", response, 64, 0), -1);
        const bool is_second = text == "second";
        EXPECT_EQ(is_second ? tarn_complete_transfer(found, "of the first") : -1, -1);
        found = find_response(id);
        EXPECT_EQ(is_second ? tarn_complete_transfer(found, "response") : 0, 0);
    };
    EXPECT_EQ(tarn_transfer(request, 6, 10, "first", response, 64, 0), -1);
    EXPECT_EQ(tarn_transfer(request, 6, 10, "second", response, 64, 0), 0);
    EXPECT_STREQ(response, "response");
    tarn_free_req_handle(request);
}

TEST_F(Tarn, RefusesBadArguments) {
    tarn_req *const ours = tarn_alloc_req_handle(lib);
    char room[8];
    for (const auto &[request, source, destination, text, response, size] :
         {std::tuple(static_cast<tarn_req *>(nullptr), 6, 10, "t", room, 8U),
          {ours, 5, 10, "t", room, 8U},
          {ours, 6, -1, "t", room, 8U},
          {ours, 6, 10, nullptr, room, 8U},
          {ours, 6, 10, "t", nullptr, 8U},
          {ours, 6, 10, "t", room, 0U}})
        EXPECT_EQ(tarn_transfer(request, source, destination, text, response, size, 3600), -1);
    EXPECT_EQ(tarn_event_transfer(ours, 5, 2, "t", 2), -1);
    EXPECT_EQ(tarn_complete_transfer(nullptr, ""), -1);
    EXPECT_EQ(tarn_send_resp(lib, "tarn/network/req/10/7", nullptr), -1);
    EXPECT_EQ(tarn_lib_init(nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(tarn_event_transfer(ours, 6, 0, "t", 2), 0);
    send_result = 1;
    EXPECT_EQ(tarn_event_transfer(ours, 6, 12, "t", 2), -1);
    EXPECT_TRUE(logged_as("WARN", "sending on tarn/corehub/event/network/"));
    EXPECT_THAT(take_sent(),
                ElementsAre(testing::MatchesRegex("tarn/btmanager/event/network/[0-9]+ t"),
                            testing::StartsWith("tarn/corehub/event/network/")));
    tarn_free_req_handle(ours);
}

// Answered at the instant of the time-out and in time, until the library ends: the daemon parks
// after a fatal error while its other threads go on.
TEST_F(Tarn, ServesManyThreadsToItsEnd) {
    std::atomic<int> asking = 32, waiting = 0;
    std::atomic<bool> ended = false;
    on_send = [&](const std::string &, const std::string &text) {
        waiting += text == "unanswered";
        EXPECT_FALSE(ended) << "the callback is used after the end";
    };
    std::vector<std::jthread> askers;
    for (int i = asking; i > 0; i--)
        askers.emplace_back([&, text = std::to_string(i)] {
            for (int n = 0; n < 100; n++)
                EXPECT_THAT(transfer(text, 0), testing::AnyOf(text, "none"));
            EXPECT_EQ(transfer(text, 20), text);
            asking--;
            EXPECT_EQ(transfer("unanswered", 3600), "none");
        });
    while (asking > 0)
        for (const std::string &request : take_sent()) {
            const size_t id = request.rfind('/') + 1, text = request.find(' ');
            if (!request.ends_with(" unanswered"))
                tarn_complete_transfer(find_response(request.substr(id, text - id)),
                                       &request[text + 1]);
        }
    askers.emplace_back([&] {
        while (tarn_send_resp(lib, "tarn/network/req/10/7", "r") == 0) {
        }
    });
    EXPECT_TRUE(eventually([&] { return waiting == 32; }));
    tarn_lib_exit(lib);
    ended = true;
    askers.clear();
    EXPECT_EQ(tarn_alloc_req_handle(lib), nullptr);
}

TEST_F(Tarn, TopicsAreOursOnlyInTheirExactShape) {
    constexpr int kNone = -1;
    const std::pair<const char *, int> topics[] = {
        {"tarn/network/req/btmanager/0", TARN_REQUEST},
        {"tarn/network/resp/12345/18446744073709551615", TARN_RESPONSE},
        {"tarn/network/event/corehub/7", TARN_EVENT},
        {"tarn/network/ack/10/7", TARN_ACK},
        {"tarn/network/req/12/7", kNone},  // a process that has a name goes by it
        {"tarn/network/req/10/18446744073709551616", kNone},
        {"tarn/network/req/2147483648/7", kNone},
        {"tarn/network/req/-10/7", kNone},
        {"tarn/network/req/10/07", kNone},
        {"tarn/network/req/10/7x", kNone},
        {"tarn/network/req/10/", kNone},
        {"tarn/network/req/10/7/", kNone},
        {"tarn/network/ask/10/7", kNone},
        {"tarm/network/req/10/7", kNone},
        {"tarn/corehub/req/10/7", kNone},
    };
    for (const auto &[topic, expected] : topics) {
        int type = kNone;
        EXPECT_EQ(get_tarn_message_type(lib, topic, &type), expected == kNone ? -1 : 0) << topic;
        EXPECT_EQ(type, expected) << topic;
        EXPECT_EQ(tarn_send_resp(lib, topic, "r"), expected == TARN_REQUEST ? 0 : -1) << topic;
        EXPECT_EQ(tarn_event_ack(lib, topic), expected == TARN_EVENT ? 0 : -1) << topic;
    }
    EXPECT_THAT(take_sent(),
                ElementsAre("tarn/btmanager/resp/network/0 r", "tarn/corehub/ack/network/7 "));
    tarn_lib_set_process(lib, 12);
    EXPECT_EQ(tarn_send_resp(lib, "tarn/corehub/req/10/7", "r"), 0);
}

}  // namespace
