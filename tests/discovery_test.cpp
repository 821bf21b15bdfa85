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
        kvs_set("product.robotid", "0123456789ABCDEF0123456789ABCDEFTOOLONG");
        kvs_set("robot.trained", "true");
        fake("version", "echo 'Product Version: 4.5.3-\"142\"'");
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
          std::string("halvikmcs\n"), std::string(65507, 'h')})
        EXPECT_EQ(probe(text, 200), "") << text.size();
    EXPECT_TRUE(logged("bad discovery packet from 127.0.0.1 - len=65507 rxbuf=hhhhhhhhh"));
    EXPECT_EQ(
        probe("halvikmcs"),
        R"({"ver":"3","hostname":"Plover-0123456789ABCDEF0123456789ABCDEF","robotname":"robot",)"
        R"("robotid":"0123456789ABCDEF0123456789ABCDEF","ip":"0.0.0.0",)"
        R"("mac":"00:00:00:00:00:00","sw":"4.5.3-\"142\"","sku":"","nc":0,"proto":"mqtt",)"
        R"("cap":{},"trained":true})");
    EXPECT_EQ(kvs_get("robot.name"), "robot");
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
    store_robot_cap(R"({"maps":3})");
    store_robot_cap("7");  // no object: the former stays
    EXPECT_NE(probe("halvikmcs").find(R"("cap":{"maps":3})"), std::string::npos);
    store_robot_cap((R"({"x":")" + std::string(1000, 'x') + "\"}").c_str());
    EXPECT_EQ(probe("halvikmcs", 500), "");
    EXPECT_TRUE(logged("discovery packet truncated!!"));
    kvs_set("network.last_prov_status", "3");
    const MallocText extended(add_lps_malloc(R"({"ver": "3"})"));
    EXPECT_STREQ(extended.get(), R"({"ver":"3","lps":3})");
}

}  // namespace
