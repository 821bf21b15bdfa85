// Probes on the loopback interface, answered by the real thread.
#include "discovery.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <filesystem>

#include "pthread_utils.h"
#include "robot.h"

namespace {

class Discovery : public Robot {
  protected:
    void SetUp() override {
        ASSERT_EQ(system("ip link set lo up"), 0);
        kvs_set("product.robotid", R"(0123456789ABCDEF\"456789ABCDEF\"TOOLONG)");
        kvs_set("product.sku", R"(R98\"\"TOOLONG)");
        kvs_set("robot.trained", "true");
        fake("version", R"(printf '%s\n' 'Product Version: 4.5.3-\"142\"')");
        ASSERT_EQ(pthread_create_detached_thread(nullptr, discovery_main, nullptr, "discovery"), 0);
        ASSERT_TRUE(eventually([] { return !probe("halvikmcs", 300).empty(); }));
    }

    static void send(const Fd &app, const std::string &text) {
        sockaddr_in robot{};
        robot.sin_family = AF_INET;
        robot.sin_port = htons(5678);
        robot.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        sendto(app.get(), text.data(), text.size(), 0, reinterpret_cast<sockaddr *>(&robot),
               sizeof robot);
    }

    static std::string probe(const std::string &text, int patience_ms = 5000) {
        const Fd app(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        send(app, text);
        pollfd ready{app.get(), POLLIN, 0};
        std::array<char, 2048> reply;
        if (poll(&ready, 1, patience_ms) <= 0)
            return "";
        const ssize_t length = recv(app.get(), reply.data(), reply.size(), 0);
        return std::string(reply.data(), length > 0 ? static_cast<size_t>(length) : 0);
    }
};

TEST_F(Discovery, OnlyTheExactProbeIsAnswered) {
    for (const std::string &text :
         {std::string(), std::string("halvikmc"), std::string("halvikmcS"),
          std::string("halvikmcs\n"), std::string("\r\nforge\x1b\x7f"), std::string(65507, 'h')})
        EXPECT_EQ(probe(text, 200), "") << text.size();
    EXPECT_TRUE(logged("bad discovery packet from 127.0.0.1 - len=65507 rxbuf=hhhhhhhhh"));
    EXPECT_TRUE(logged("bad discovery packet from 127.0.0.1 - len=9 rxbuf=??forge??"));
    EXPECT_EQ(
        probe("halvikmcs"),
        R"({"ver":"3","hostname":"Plover-0123456789ABCDEF\"456789ABCDEF\"","robotname":"robot",)"
        R"("robotid":"0123456789ABCDEF\"456789ABCDEF\"","ip":"0.0.0.0",)"
        R"("mac":"00:00:00:00:00:00","sw":"4.5.3-\"142\"","sku":"R98\"\"","nc":0,)"
        R"("proto":"mqtt","cap":{},"trained":true})");
    EXPECT_EQ(kvs_get("robot.name"), "robot");
}

TEST_F(Discovery, SavedTextsStandInItAsTheyAreStored) {
    kvs_set("robot.name", R"(Ros\u0069e\n","room":"hall)");
    kvs_set("robot.trained", R"([false, "half of it", "since yesterday"])");
    const std::string description = probe("halvikmcs");
    EXPECT_THAT(description, testing::HasSubstr(R"("robotname":"Ros\u0069e\n","room":"hall",)"));
    EXPECT_THAT(description,
                testing::EndsWith(R"("trained":[false, "half of it", "since yesterday"]})"));
    for (const char *key : {"robot.name", "robot.trained"}) {
        forget_log();
        kvs_set(key, R"(a "b")");
        EXPECT_EQ(probe("halvikmcs", 500), "") << key;
        EXPECT_TRUE(logged_as("ERROR", "json_loadb failed: ")) << key;
        kvs_set(key, "7");
    }
    EXPECT_THAT(probe("halvikmcs"), testing::EndsWith(R"("trained":7})"));
}

TEST_F(Discovery, SurvivesAFlood) {
    const std::string garbage(65507, 'x');
    for (int sender = 0; sender < 50; sender++) {
        const Fd app(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        for (int i = 0; i < 20; i++)
            send(app, i % 2 == 0 ? "halvikmcs" : garbage);
    }
    forget_log();
    EXPECT_TRUE(eventually([] { return !probe("halvikmcs", 500).empty(); }));
    const auto descriptors =
        std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    EXPECT_LT(descriptors, 20);
}

TEST_F(Discovery, DescriptionFollowsTheCapabilitiesAndItsBound) {
    store_robot_cap("7");
    EXPECT_NE(probe("halvikmcs").find(R"("cap":7,)"), std::string::npos);
    store_robot_cap(R"({"maps":3})");
    store_robot_cap(nullptr);  // the former stays
    EXPECT_TRUE(logged_as("ERROR", "robot cap is NULL"));
    EXPECT_NE(probe("halvikmcs").find(R"("cap":{"maps":3})"), std::string::npos);
    store_robot_cap((R"({"x":")" + std::string(1000, 'x') + "\"}").c_str());
    EXPECT_EQ(probe("halvikmcs", 500), "");
    EXPECT_TRUE(logged("discovery packet truncated!!"));
    kvs_set("network.last_prov_status", "3");
    const MallocText extended(add_lps_malloc(R"({"ver": "3"})"));
    EXPECT_STREQ(extended.get(), R"({"ver":"3","lps":3})");
}

}  // namespace
