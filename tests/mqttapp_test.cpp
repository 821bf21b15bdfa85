#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "mqtt_client.h"
#include "mqttapp/mqtt_app.h"
#include "robot.h"

namespace {

constexpr int kLimit = 64 * 1024;

std::mutex inbox_lock;
std::vector<std::string> inbox;  // "topic payload"
std::atomic<int> connects{0};

void keep(mqtt_app *, const mqtt_app_message *message) {
    EXPECT_EQ(message->payload[message->payload_len], '\0');
    const std::lock_guard guard(inbox_lock);
    inbox.push_back(std::string(message->topic) + " " + message->payload);
}

int publish(mqtt_app *app, const std::string &topic, const std::string &text) {
    return mqtt_app_publish(app, topic.c_str(), static_cast<int>(text.size()), text.c_str());
}

// A listener on the broker's port that accepts a client, lets it in and never reads again.
class DeafBroker {
  public:
    DeafBroker() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const int on = 1;
        setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(1883);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        listen(listener_.get(), 4);
    }
    void let_in(bool acknowledge) {
        client_.reset(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        const unsigned char connack[] = {0x20, 2, 0, 0};
        if (acknowledge) {
            EXPECT_EQ(send(client_.get(), connack, sizeof connack, 0), 4);
        }
    }

  private:
    Fd listener_;
    Fd client_;
};

class MqttApp : public Robot {
  protected:
    ~MqttApp() override { exit(); }

    void run() {
        app = mqtt_app_create("tester");
        ASSERT_EQ(mqtt_app_init(app, topics, keep), 0);
        ASSERT_EQ(mqtt_app_register_on_connect_cb(app, [](mqtt_app *) { connects++; }), 0);
        serve();
    }
    void serve() {
        thread = std::thread([this] { EXPECT_EQ(mqtt_app_run(app), 0); });
    }
    void exit() {
        mqtt_app_exit(app);
        app = nullptr;
        if (thread.joinable())
            thread.join();
    }

    static void receives(const std::vector<std::string> &all) {
        const auto count = [] {
            const std::lock_guard guard(inbox_lock);
            return inbox.size();
        };
        eventually([&] { return count() >= all.size(); }, std::chrono::seconds(15));
        const std::lock_guard guard(inbox_lock);
        ASSERT_EQ(inbox, all);
    }
    static bool connected(int times) {
        return eventually([=] { return connects == times; }, std::chrono::seconds(15));
    }
    std::vector<std::string> publish_numbers(int first, int count) {
        std::vector<std::string> expected;
        for (int i = first; i < first + count; i++) {
            EXPECT_EQ(publish(app, "in/order", std::to_string(i)), 0) << i;
            expected.push_back("in/order " + std::to_string(i));
        }
        return expected;
    }

    static constexpr const char *topics[] = {"in/#", "other", nullptr};
    mqtt_app *app = nullptr;
    std::thread thread;
};

TEST_F(MqttApp, WaitsForTheBrokerAndKeepsTheOrder) {
    run();
    EXPECT_TRUE(logged("no connection to the broker 127.0.0.1:1883"));
    const auto expected = publish_numbers(0, 256);
    EXPECT_EQ(publish(app, "in/order", "one too many"), ENOBUFS);
    const Broker broker;
    EXPECT_TRUE(connected(1));
    receives(expected);
    EXPECT_EQ(publish(app, "other", "room again"), 0);
    EXPECT_EQ(times_logged("no connection"), 1);
}

TEST_F(MqttApp, SubscriptionsAndQueueSurviveTheBroker) {
    Broker broker;
    run();
    ASSERT_TRUE(connected(1));
    auto expected = publish_numbers(0, 3);
    receives(expected);
    for (int round = 2; round < 4; round++) {
        broker.stop();
        ASSERT_TRUE(eventually([&] { return times_logged("no connection") == round - 1; }));
        for (auto &line : publish_numbers(round * 100, 60))
            expected.push_back(line);
        broker.start();
        ASSERT_TRUE(connected(round));
        receives(expected);
    }
}

// What was handed to a connection that then broke is sent again before what came later.
TEST_F(MqttApp, BrokerThatStopsReadingCostsNoMessage) {
    std::vector<std::string> expected;
    {
        DeafBroker broker;
        run();
        broker.let_in(true);
        ASSERT_TRUE(connected(1));
        expected = publish_numbers(0, 256);
        EXPECT_EQ(publish(app, "in/order", "one too many"), ENOBUFS);
    }
    const Broker broker;
    ASSERT_TRUE(connected(2));
    receives(expected);
}

TEST_F(MqttApp, RefusesOversizedMessages) {
    const Broker broker;
    run();
    ASSERT_TRUE(connected(1));
    const std::string largest(kLimit, 'x');
    EXPECT_EQ(publish(app, "in/large", largest + "x"), 0);
    EXPECT_EQ(publish(app, "in/large", largest), 0);
    EXPECT_EQ(publish(app, "in/empty", ""), 0);
    receives({"in/large " + largest, "in/empty "});
    EXPECT_TRUE(logged("refused a message of 65537 bytes on in/large"));
}

TEST_F(MqttApp, RefusesWhatIsNoBrokerTopicOrMessage) {
    for (const char *broker :
         {"localhost", "localhost:", ":1883", "localhost:0", "localhost:65536", "localhost:18x",
          "localhost:+1", "::1:1883", "[]:1883", "a b:1883", "unix:", "unix:relative", ":"}) {
        setenv("MQTT_APP_BROKER", broker, 1);
        mqtt_app *bad = mqtt_app_create("tester");
        EXPECT_LT(mqtt_app_init(bad, topics, keep), 0) << broker;
        EXPECT_TRUE(logged(std::string("neither host:port nor unix:/path: \"") + broker + "\""));
        EXPECT_EQ(mqtt_app_run(bad), -1);
        mqtt_app_exit(bad);
    }
    setenv("MQTT_APP_BROKER", "[::1]:1883", 1);
    app = mqtt_app_create("tester");
    const char *const filters[] = {"fine", "a#", nullptr};
    EXPECT_LT(mqtt_app_init(app, filters, keep), 0);
    EXPECT_EQ(mqtt_app_init(app, topics, keep), 0);
    for (const char *topic : {"", "in/#", "in/+/x", "\xff"})
        EXPECT_EQ(publish(app, topic, "x"), EINVAL) << topic;
    EXPECT_EQ(publish(app, std::string(70000, 't'), "x"), EINVAL);
    EXPECT_EQ(mqtt_app_publish(app, "t", -1, "x"), EINVAL);
    EXPECT_EQ(mqtt_app_publish(app, "t", 1, nullptr), EINVAL);
    const std::string large(1 << 20, 'x');
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(publish(app, "large", large), 0);
    EXPECT_EQ(publish(app, "large", "x"), ENOBUFS);
}

TEST_F(MqttApp, EndsInEveryState) {
    mqtt_app_exit(nullptr);
    mqtt_app_exit(mqtt_app_create("never run"));
    run();  // no broker: between two attempts
    EXPECT_TRUE(logged("no connection"));
    exit();
    {
        DeafBroker silent;  // connected, never let in
        run();
        silent.let_in(false);
        exit();
    }
    const Broker broker;
    run();
    ASSERT_TRUE(connected(1));
    exit();
    app = mqtt_app_create("ends itself");
    ASSERT_EQ(mqtt_app_init(app, topics, keep), 0);
    mqtt_app_register_on_connect_cb(app, mqtt_app_exit);
    serve();
    thread.join();
    app = nullptr;
}

// The daemon's own use: what it subscribes to, and a message without a text goes no further.
TEST_F(MqttApp, DaemonReceivesOnItsTopics) {
    const Broker broker;
    app = mqtt_client_init();
    ASSERT_NE(app, nullptr);
    serve();
    EXPECT_TRUE(logged("[INFO] (src/mqtt_client:"));
    EXPECT_TRUE(logged("on_connect callback: connected to broker"));
    publish(app, "network/debug", "");
    publish(app, "network/events", R"({"event":"heard"})");
    publish(app, "brisk/network/events", "no json");
    publish(app, "tarn/network/req/10/7", R"({"x":1})");
    EXPECT_TRUE(logged("tarn/network/req/10/7 {\"x\":1}"));
    EXPECT_TRUE(logged("network/debug (null)"));
    EXPECT_TRUE(logged("mqtt_client (network) rx (len = 7) brisk/network/events no json"));
    EXPECT_EQ(times_logged("json_loads() failed"), 1);
    EXPECT_EQ(times_logged("heard"), 0);
}

// Before the broker's handle is there, everything fails with its own code.
TEST_F(MqttApp, DaemonWithoutHandles) {
    char response[256] = "";
    EXPECT_EQ(mqtt_client_send(nullptr, 2, "{}"), -1);
    EXPECT_TRUE(logged("mqtt_client_send error code 22"));
    EXPECT_EQ(network_send_tarn_req(9, "{}", response, sizeof response), 1);
    EXPECT_EQ(network_send_tarn_event(2, "{}", 2), 255);
    EXPECT_TRUE(eventually([&] { return times_logged("tarn_alloc_req_handle failed") == 2; }));
}

}  // namespace
