// Devices that announce themselves: the lines of the real browser's parsable form, made by a fake
// of it.
#include "mdns_device_discover.h"

#include <unistd.h>

#include <atomic>
#include <thread>

#include "clock.h"
#include "device_tracking.h"
#include "home_device_list.h"
#include "robot.h"

namespace {

using testing::HasSubstr;

std::string record(const std::string &name, const std::string &txt,
                   const std::string &address = "192.168.77.30",
                   const std::string &type = "_x._tcp") {
    return "=;wlan0;IPv4;" + name + ";" + type + ";local;host.local;" + address + ";80;" + txt +
           "\n";
}

std::atomic<int> pauses{0};  // the browser makes one before each look whether to browse

class Browser : public Robot {
  protected:
    Browser() {
        make_pauses_call([](unsigned) {
            pauses++;
            usleep(10'000);
        });
    }
    // Until the browser has come round to its next pause but one, with what it did before told.
    static bool looked_again() {
        return eventually([seen = pauses.load()] { return pauses >= seen + 2; });
    }
    // What the list holds when all rounds of browsing that prints `lines` are over.
    std::vector<device_texts> browse(const std::string &lines) {
        write_file("/tmp/lines", lines);
        fake("avahi-browse", "[ \"$*\" = -artlp ] && cat /tmp/lines; echo x >>/tmp/rounds");
        std::thread(mdns_discovery_main, nullptr).detach();
        start_device_discovery();
        EXPECT_TRUE(eventually([&] { return read_file("/tmp/rounds") == "x\nx\nx\n"; }));
        EXPECT_TRUE(looked_again());
        return copy_device_list();
    }
};

TEST_F(Browser, DescribesDevicesAsTheyDescribeThemselves) {
    struct {
        std::string line;
        std::optional<std::string> name, google_cd, type, md;
    } const cases[]{
        {record(R"(My\032Speaker)", R"("x=1")"), "My Speaker", {}, {}, {}},
        {record(R"(a\.b\\c\300\0001\03x)", R"("x=1")"), R"(a.b\c\300\0001\03x)", {}, {}, {}},
        {record("n", R"("fn=Kitchen" "cd=AB12" "md=Google Home Mini")"), "Kitchen", "AB12",
         "smart-speaker", "Google Home Mini"},
        {record("n", R"("md=Chromecast" "cd=")"), "n", "", "tv", "Chromecast"},
        {record("n", R"("cd=none" "Home")"), "n", "none", {}, {}},
        {record("n", R"("md=LIFX Z")"), "n", {}, "light", "LIFX Z"},
        {record("n", R"("md=Printer" "fn=not closed)"), "n", {}, {}, "Printer"},
    };
    std::string lines = "+;wlan0;IPv4;unresolved;_x._tcp;local\n" +
                        record("phone", R"("x")", "192.168.77.9", "_apple-mobdev2._tcp") +
                        record("six", R"("x")", "fe80::1") + "=;wlan0;IPv4;short\n=\n\n";
    for (size_t i = 0; i < std::size(cases); i++) {
        std::string line = cases[i].line;
        line.replace(line.find(".77.30"), 6, ".77.3" + std::to_string(i));
        lines += line;
    }
    const auto devices = browse(lines);
    ASSERT_EQ(devices.size(), std::size(cases));
    for (size_t i = 0; i < std::size(cases); i++) {
        SCOPED_TRACE(cases[i].line);
        EXPECT_EQ(devices[i].name, cases[i].name);
        EXPECT_EQ(devices[i].google_cd, cases[i].google_cd);
        EXPECT_EQ(devices[i].type, cases[i].type);
        EXPECT_EQ(devices[i].md, cases[i].md);
        EXPECT_EQ(devices[i].hostname, "host.local");
        EXPECT_FALSE(devices[i].mac);
    }
    EXPECT_EQ(times_logged("cannot parse ipv6 addresses"), 3);  // once a round
    EXPECT_EQ(times_logged("mdns entry added for My Speaker 192.168.77.30"), 1);
    EXPECT_EQ(times_logged("mdns entry already added for My Speaker 192.168.77.30"), 2);
}

TEST_F(Browser, IsNotDeceivedByWhatTheAirBrings) {
    // What follows in an overlong line looks like a record of its own.
    const std::string filler(510 - record("a", "").size() + 1, 'x');
    const auto devices =
        browse(record("a", filler + record("evil", "\"fn=evil\"", "6.6.6.6")) +
               std::string("=;\0;\n", 5) + record("b", "\"fn=b\"", "192.168.77.31") +
               record(R"(c\010[ERROR] \027[2J)", "x", "192.168.77.32"));
    ASSERT_EQ(devices.size(), 3u);
    EXPECT_EQ(devices[0].name, "a");
    EXPECT_EQ(devices[1].name, "b");
    EXPECT_EQ(devices[2].name, "c\n[ERROR] \033[2J");
    EXPECT_TRUE(logged("mdns entry added for c?[ERROR] ?[2J 192.168.77.32"));
}

TEST_F(Browser, BrowsesWhileTrackingIsOn) {
    start_device_discovery();
    stop_device_discovery();
    std::thread(mdns_discovery_main, nullptr).detach();
    EXPECT_TRUE(looked_again());
    EXPECT_THAT(commands(), testing::Not(testing::Contains(HasSubstr("avahi"))));
    fake("avahi-browse", "exit 127");
    start_device_discovery();
    EXPECT_TRUE(eventually([&] { return commands().size() == 3; }));
    EXPECT_TRUE(copy_device_list().empty());
}

}  // namespace
