// The robot's description, and the thread that answers probes with it on the loopback interface.
#include "discovery.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include "bus.h"
#include "process_handles.h"
#include "provisioning_state.h"
#include "robot.h"

namespace {

std::string capabilities;  // what the robot's core answers

std::optional<std::string> answer(const std::string &topic, const std::string &text) {
    EXPECT_TRUE(topic.starts_with("tarn/corehub/req/network/")) << topic;
    EXPECT_EQ(text, R"({"get":"cap"})");
    return capabilities;
}

const sockaddr_in kProbed{AF_INET, htons(5678), {htonl(INADDR_LOOPBACK)}, {}};

// Who looks for robots.
struct App {
    App() { connect(socket.get(), reinterpret_cast<const sockaddr *>(&kProbed), sizeof kProbed); }
    void ask(const std::string &text) const { send(socket.get(), text.data(), text.size(), 0); }
    // Empty when nothing comes in that time.
    std::string reply(int patience_ms) const {
        char text[2048];
        pollfd ready{socket.get(), POLLIN, 0};
        const bool came = poll(&ready, 1, patience_ms) > 0;
        const ssize_t length = came ? recv(socket.get(), text, sizeof text, 0) : 0;
        return {text, static_cast<size_t>(std::max<ssize_t>(length, 0))};
    }
    const Fd socket{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

std::string probe(int patience_ms = 30'000) {
    const App app;
    app.ask("halvikmcs");
    return app.reply(patience_ms);
}

class Discovery : public Robot {
  protected:
    Discovery() {
        EXPECT_EQ(system("ip link set lo up; ip link add wlan0 address 02:00:00:00:00:ab type veth "
                         "peer name gw0; ip addr add 192.168.77.20/24 dev wlan0"),
                  0);
        kvs_set("product.robotid", R"(0123456789ABCDEF\"456789ABCDEF\"TOOLONG)");
        kvs_set("product.sku", R"(R98\"\"TOOLONG)");
        fake("version", "printf 'Product Version: 4.5.3'; yes 9 | head -300 | tr -d '\\n'");
    }
    static std::string describe(size_t size = 1024) {
        std::string text(size + 1, '#');
        const int length = get_discovery_json(text.data(), static_cast<int>(size));
        EXPECT_EQ(text[size], '#');
        return text.substr(0, static_cast<size_t>(std::max(length, 0)));
    }
    const Bus core_{answer};
};

TEST_F(Discovery, DescriptionFollowsTheRobotAndItsBound) {
    const std::string kNowhere = R"("ip":"0.0.0.0","mac":"00:00:00:00:00:00")";
    const std::string kLast = R"("ip":"0.0.0.0","mac":"02:00:00:00:00:AB")";
    const std::pair<std::function<void()>, std::string> changes[] = {
        {[] { kvs_set("network.interface", "wlan7"); }, kNowhere},
        {[] { kvs_set("network.interface", "wlan0"); },
         R"("ip":"192.168.77.20","mac":"02:00:00:00:00:AB")"},
        {[] { kvs_set("network.interface", "wlan7"); }, kLast},
        {[] { kvs_set("network.interface", ""); }, kLast},
        {[] { kvs_set("network.interface", "sixteen_letters_"); }, kNowhere},
        {[] { kvs_set("network.interface", ""); }, kNowhere},
        {[] { store_robot_cap("7"); }, R"("cap":7})"},
        {[] { store_robot_cap(R"({"maps":3})"); }, R"("cap":{"maps":3}})"},
        {[] { store_robot_cap(nullptr); }, R"("cap":{"maps":3}})"},
        {[] { store_robot_trained_state(0); }, R"(,"trained":false})"},
        // Texts stand in it as they are stored.
        {[] { kvs_set("robot.trained", R"([false, "half"])"); }, R"(,"trained":[false, "half"]})"},
        {[] { store_robot_trained_state(7); }, R"(,"trained":true})"},
        {[] { kvs_set("robot.name", R"(Ros\u0069e\n","room":"hall)"); },
         R"("robotname":"Ros\u0069e\n","room":"hall",)"},
    };
    close(discovery_init());
    const std::string text = describe();
    EXPECT_EQ(text, R"({"ver":"3","hostname":"Plover-0123456789ABCDEF\"456789ABCDEF\"",)"
                    R"("robotname":"robot","robotid":"0123456789ABCDEF\"456789ABCDEF\"",)" +
                        kNowhere + R"(,"sw":"4.5.3)" + std::string(251, '9') +
                        R"(","sku":"R98\"\"","nc":0,"proto":"mqtt","cap":{}})");
    EXPECT_EQ(kvs_get("robot.name"), "robot");
    EXPECT_EQ(describe(text.size() + 1), text);
    EXPECT_EQ(describe(text.size()), "");
    EXPECT_EQ(get_discovery_json(nullptr, 9) + get_discovery_json(kvs_path("").data(), -1), -2);
    for (const auto &[change, expected] : changes) {
        change();
        EXPECT_THAT(describe(), testing::HasSubstr(expected));
    }
    forget_log();
    store_robot_trained_state(1);
    EXPECT_EQ(times_logged("setting robot.trained"), 0) << "it is known";
    for (const auto &[status, extended] : {std::pair("", R"({"ver":"3","lps":0})"),
                                           {"7x", R"({"ver":"3","lps":7})"},
                                           {"x", nullptr}}) {
        kvs_set("network.last_prov_status", status);
        EXPECT_STREQ(MallocText(add_lps_malloc(R"({"ver": "3"})")).get(), extended);
    }
    EXPECT_EQ(add_lps_malloc("no JSON"), nullptr);
}

TEST_F(Discovery, StartsWithWhatTheCoreAnswers) {
    std::vector<Fd> sockets;  // more than one can be bound, as after a restart
    for (const auto &[answered, cap, complaint] :
         {std::tuple(R"({"cap": {"maps": 3}})", R"("cap":{"maps":3})", ""),
          {"x", R"("cap":{})", "json_loads failed"},
          {R"({"map":3})", R"("cap":{})", "json_object_get failed"}}) {
        capabilities = answered;
        sockets.emplace_back(discovery_init());
        EXPECT_TRUE(sockets.back()) << answered;
        EXPECT_THAT(describe(), testing::HasSubstr(cap));
        EXPECT_TRUE(logged(complaint)) << complaint;
    }
    tarn_lib *const transport = exchange_network_tarn_handle(nullptr);
    sockets.clear();
    const Fd other(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    bind(other.get(), reinterpret_cast<const sockaddr *>(&kProbed), sizeof kProbed);
    EXPECT_EQ(discovery_main(nullptr), nullptr);
    for (const char *text : {"falied to get cap from corehub", "bind failed with error Address",
                             "Discovery init failed."})
        EXPECT_EQ(times_logged(text), 1) << text;
    exchange_network_tarn_handle(transport);
}

TEST_F(Discovery, OnlyTheExactProbeIsAnswered) {
    std::thread(discovery_main, nullptr).detach();
    std::string description;
    ASSERT_TRUE(eventually([&] { return !(description = probe(100)).empty(); }));
    EXPECT_EQ(description, describe());
    // Answered in turn: who has no answer when a later probe has its own will have none.
    const App stranger;
    for (const std::string text : {"", "halvikmc", "halvikmcS", "halvikmcs\n", "\r\nforge\x1b\x7f"})
        stranger.ask(text);
    EXPECT_EQ(probe(), description);
    EXPECT_EQ(stranger.reply(0), "");
    EXPECT_EQ(times_logged("bad discovery packet from 127.0.0.1 - len=10 rxbuf=halvikmcs"), 1);
    EXPECT_EQ(times_logged("bad discovery packet from 127.0.0.1 - len=9 rxbuf=??forge??"), 1);
    for (const auto &[name, complaint] :
         {std::pair(std::string("a \"b\""), "json_loadb failed: "),
          {std::string(1000, 'x'), "discovery packet truncated!!"}}) {
        kvs_set("robot.name", name);
        stranger.ask("halvikmcs");
        EXPECT_TRUE(logged_as("ERROR", complaint));
        kvs_set("robot.name", "robot");
        EXPECT_EQ(probe(), description);
        EXPECT_EQ(stranger.reply(0), "") << complaint;
    }
    EXPECT_GE(times_logged("disc_advertised is: " + description), 3);
    kvs_set("network.last_prov_status", "3");
    provisioning_enter_state(WAITING_FOR_WACTIVATE);
    EXPECT_THAT(probe(), testing::EndsWith(R"("lps":3})"));
}

}  // namespace
