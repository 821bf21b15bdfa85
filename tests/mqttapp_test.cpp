#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "mqtt_client.h"
#include "mqtt_dispatch.h"
#include "mqttapp/mqtt_app.h"
#include "robot.h"

// The wait between two attempts at the broker takes no time: the clock of the thread that serves
// the connection is put forward by it instead.
static thread_local time_t ahead_s = 0;
static std::vector<int> waits_s;
static std::atomic<int> waits{0};
extern "C" int clock_gettime(clockid_t clock, timespec *time) noexcept {
    const long result = syscall(SYS_clock_gettime, clock, time);
    time->tv_sec += ahead_s;
    return static_cast<int>(result);
}
extern "C" int poll(pollfd *entries, nfds_t count, int timeout_ms) {
    const bool is_between_attempts = count == 1 && timeout_ms > 100;
    const int ms = is_between_attempts ? 5 : timeout_ms;
    const timespec time{ms / 1000, ms % 1000 * 1'000'000};
    const int ready = ppoll(entries, count, &time, nullptr);
    if (is_between_attempts && ready == 0) {
        ahead_s += waits_s.emplace_back((timeout_ms + 999) / 1000);
        waits++;
    }
    return ready;
}

namespace {

std::mutex inbox_lock;
std::vector<std::string> inbox;  // "topic payload"
std::atomic<int> connects{0};

void keep(mqtt_app *, const mqtt_app_message *message) {
    EXPECT_EQ(message->payload[message->payload_len], '\0');
    const std::lock_guard guard(inbox_lock);
    inbox.push_back(std::string(message->topic) + " " + message->payload);
}

class MqttApp : public Robot {
  protected:
    ~MqttApp() override { exit(); }

    void run(void (*on_connect)(mqtt_app *) = [](mqtt_app *) { connects++; }) {
        app = mqtt_app_create("tester");
        EXPECT_EQ(mqtt_app_init(app, topics, keep), 0);
        EXPECT_EQ(mqtt_app_register_on_connect_cb(app, on_connect), 0);
        thread = std::thread(mqtt_app_run, app);
    }
    void exit() {
        mqtt_app_exit(std::exchange(app, nullptr));
        if (thread.joinable())
            thread.join();
    }
    int publish(const std::string &topic, const std::string &text) {
        return mqtt_app_publish(app, topic.c_str(), static_cast<int>(text.size()), text.c_str());
    }
    void publish_numbers(int first, int count) {
        for (int i = first; i < first + count; i++) {
            EXPECT_EQ(publish("in/order", std::to_string(i)), 0) << i;
            expected.push_back("in/order " + std::to_string(i));
        }
    }
    void receives_expected(int connections) {
        const auto holds = [&] {
            const std::lock_guard guard(inbox_lock);
            return connects == connections && inbox.size() >= expected.size();
        };
        ASSERT_TRUE(eventually(holds, std::chrono::seconds(15))) << connects;
        const std::lock_guard guard(inbox_lock);
        ASSERT_EQ(inbox, expected);
    }

    static constexpr const char *topics[] = {"in/#", nullptr};
    std::vector<std::string> expected;
    mqtt_app *app = nullptr;
    std::thread thread;
};

TEST_F(MqttApp, OrderQueueAndSubscriptionsSurviveTheBroker) {
    run();
    EXPECT_TRUE(logged_as("WARN", "no connection to the broker 127.0.0.1:1883"));
    publish_numbers(0, 256);
    EXPECT_EQ(publish("in/order", "one too many"), ENOBUFS);
    Broker broker;
    receives_expected(1);
    EXPECT_EQ(times_logged("no connection"), 1);
    broker.stop();
    ASSERT_TRUE(eventually([&] { return times_logged("no connection") == 2; }));
    publish_numbers(1000, 60);
    broker.start();
    receives_expected(2);
    // What was handed to a connection that then broke is sent again before what came later.
    broker.freeze();
    publish_numbers(3000, 256);
    EXPECT_EQ(publish("in/order", "one too many"), ENOBUFS);
    broker.stop();
    broker.start();
    receives_expected(3);
    const std::string largest(64 * 1024, 'x');
    for (const auto &text : {largest + "x", largest, std::string()})
        EXPECT_EQ(publish("in/large", text), 0);
    expected.insert(expected.end(), {"in/large " + largest, "in/large "});
    receives_expected(3);
    EXPECT_TRUE(logged("refused a message of 65537 bytes on in/large"));
}

// What is retained comes at every connect; it is old, and what it asked for may be long done.
TEST_F(MqttApp, IgnoresRetainedMessages) {
    const Broker broker;
    for (const std::string topic : {"in/order", "in/other"})
        ASSERT_EQ(system(("mosquitto_pub -r -q 1 -m retained -t " + topic).c_str()), 0);
    run();
    publish_numbers(0, 1);
    receives_expected(1);
    // Somebody with the same name takes the connection, so that a second one follows.
    const std::string name = "tester-" + std::to_string(getpid());
    ASSERT_EQ(system(("mosquitto_pub -i " + name + " -t elsewhere -n").c_str()), 0);
    ASSERT_TRUE(eventually([] { return connects == 2; }, std::chrono::seconds(15)));
    // Retained for later subscribers, but said now.
    ASSERT_EQ(system("mosquitto_pub -r -q 1 -m now -t in/order"), 0);
    expected.push_back("in/order now");
    receives_expected(2);
    for (const std::string topic : {"in/order", "in/other"})
        EXPECT_EQ(times_logged("ignored a retained message on " + topic), 1);
}

TEST_F(MqttApp, RefusesWhatIsNoBrokerTopicOrMessage) {
    for (const std::string broker :
         {"localhost", ":1883", "[::1:1883", "::1]:1883", "localhost:0", "localhost:65536",
          "localhost:18x", "::1:1883", "a b:1883", "unix:relative"}) {
        setenv("MQTT_APP_BROKER", broker.c_str(), 1);
        app = mqtt_app_create("tester");
        EXPECT_EQ(mqtt_app_init(app, topics, keep), -1) << broker;
        EXPECT_TRUE(logged("neither host:port nor unix:/path: \"" + broker + "\""));
        EXPECT_EQ(mqtt_app_run(app), -1);
        exit();
    }
    setenv("MQTT_APP_BROKER", "[::1]:65535", 1);
    run();
    EXPECT_EQ(mqtt_app_set_message_limit(app, -1), -1);
    EXPECT_EQ(mqtt_app_register_on_connect_cb(app, nullptr), -1);
    for (const std::string topic : {"", "in/#", "in/+/x", "\xff"})
        EXPECT_EQ(publish(topic, "x"), EINVAL) << topic;
    EXPECT_EQ(publish(std::string(70000, 't'), "x"), EINVAL);
    EXPECT_EQ(mqtt_app_publish(app, "t", -1, "x"), EINVAL);
    EXPECT_EQ(publish("t", std::string(kMqttAppLargestMessage + 1, 'x')), EMSGSIZE);
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(publish("large", std::string((1 << 20) - 5, 'x')), 0);
    EXPECT_EQ(publish("t", ""), ENOBUFS) << "topics take memory too";
}

// A broker that is not there, and then refuses the daemon or lets it in and throws it out at once.
TEST_F(MqttApp, DaemonWaitsLongerForABrokerThatRefusesIt) {
    app = mqtt_client_init(on_mqtt_app_message);
    thread = std::thread(mqtt_app_run, app);
    EXPECT_TRUE(eventually([] { return waits >= 3; }));
    const Fd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address{AF_INET, htons(1883), {htonl(INADDR_LOOPBACK)}, {}};
    bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
    ASSERT_EQ(listen(listener.get(), 100), 0);
    const std::string greetings[] = {{"\x20\x02\0\5", 4}, {"\x20\x02\0\0\x90\x03\0\1\x80", 9}};
    std::string connect(64, '#');
    std::atomic<int> clients{0};
    std::jthread broker([&] {
        while (const Fd client{accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)}) {
            connect.resize(static_cast<size_t>(recv(client.get(), connect.data(), 64, 0)));
            const auto &greeting = greetings[clients++ % 2];
            send(client.get(), greeting.data(), greeting.size(), MSG_NOSIGNAL);
            shutdown(client.get(), SHUT_WR);
            for (char rest[64]; recv(client.get(), rest, sizeof rest, 0) > 0;) {
            }
        }
    });
    EXPECT_TRUE(eventually([&] { return clients >= 8; }));
    exit();
    shutdown(listener.get(), SHUT_RDWR);
    broker.join();
    EXPECT_TRUE(logged("the broker refused us: "));
    EXPECT_TRUE(logged("broker refused a subscription"));
    const std::string flags_and_keep_alive("\4\2\0\x1e", 4);
    EXPECT_THAT(connect, testing::HasSubstr("MQTT" + flags_and_keep_alive));
    EXPECT_THAT(connect, testing::EndsWith("network-" + std::to_string(getpid())));
    const auto longer = std::ranges::find(waits_s, 2);
    EXPECT_EQ(std::count(waits_s.begin(), longer, 1), longer - waits_s.begin());
    EXPECT_GT(longer - waits_s.begin(), 3);
    waits_s.erase(waits_s.begin(), longer);
    waits_s.resize(6);
    EXPECT_THAT(waits_s, testing::ElementsAre(2, 4, 8, 16, 30, 30));
}

TEST_F(MqttApp, EndsInEveryState) {
    Broker broker;
    run();
    receives_expected(1);
    // The daemon parks after a fatal error while its other threads go on.
    std::jthread publisher([ending = app] {
        while (mqtt_app_publish(ending, "t", 1, "x") != EINVAL) {
        }
    });
    exit();
    publisher.join();
    run(mqtt_app_exit);
    thread.join();
    broker.freeze();  // connected, never let in
    run();
    EXPECT_TRUE(eventually([] {  // from the far end's port 1883, established
        return read_file("/proc/net/tcp").find("0100007F:075B 01") != std::string::npos;
    }));
}

// The daemon's own use: what it subscribes to, a message without a text goes no further, and
// programs that it starts inherit no descriptor.
TEST_F(MqttApp, DaemonReceivesOnItsTopics) {
    EXPECT_EQ(mqtt_client_send(nullptr, 2, "{}"), -1);
    EXPECT_TRUE(logged_as("ERROR", "mqtt_client_send error code 22"));
    const auto count_inherited = [] {
        int count = 0;
        for (int fd = 3; fd < 256; fd++)
            count += fcntl(fd, F_GETFD) == 0;
        return count;
    };
    const Fd somebody_elses(dup(0));
    const int before = count_inherited();
    const Broker broker;
    setenv("MQTT_APP_BROKER", "unix:/tmp/broker.sock", 1);
    app = mqtt_client_init(on_mqtt_app_message);
    thread = std::thread(mqtt_app_run, app);
    publish("network/debug", "");
    publish("network/events", R"({"event":"heard"})");
    publish("brisk/network/events", "no json");
    publish("tarn/network/req/10/7", R"({"x":1})");
    for (const char *line : {"network/debug (null)", "tarn/network/req/10/7 {\"x\":1}",
                             "mqtt_client (network) rx (len = 7) brisk/network/events no json",
                             "on_connect callback: connected to broker"})
        EXPECT_TRUE(logged(line)) << line;
    EXPECT_EQ(times_logged("json_loads() failed"), 1);
    EXPECT_EQ(times_logged("heard"), 0);
    EXPECT_EQ(count_inherited(), before);
}

}  // namespace
