// Devices that announce themselves: the lines of the real browser's parsable form, made by a fake
// of it.
#include "mdns_device_discover.h"

#include "clock.h"
#include "device_tracking.h"
#include "home_device_list.h"
#include "pthread_utils.h"
#include "robot.h"

namespace {

std::string record(const std::string &name, const std::string &txt,
                   const std::string &address = "192.168.77.30",
                   const std::string &type = "_x._tcp") {
    return "=;wlan0;IPv4;" + name + ";" + type + ";local;host.local;" + address + ";80;" + txt +
           "\n";
}

Semaphore look_allowed{0}, look_ended{0};  // the browser pauses before each look whether to browse

class Browser : public Robot {
  protected:
    Browser() {
        make_pauses_call([](unsigned) {
            look_ended.release();
            look_allowed.acquire();
        });
        fake("avahi-browse", "[ \"$*\" = -artlp ] && cat /tmp/lines");
        std::thread(mdns_discovery_main, nullptr).detach();
        look_ended.acquire();
    }
    static size_t browses_in_four_looks() {
        forget_commands();
        for (int looks = 0; looks < 4; looks++) {
            look_allowed.release();
            look_ended.acquire();
        }
        return commands().size();
    }
    // What the list holds then.
    static std::string devices_of(const std::string &lines) {
        write_file("/tmp/lines", lines);
        clear_device_list();
        stop_device_discovery();
        start_device_discovery();
        EXPECT_EQ(browses_in_four_looks(), 3u);
        std::string text;
        for (const device_texts &each : copy_device_list())
            text += each.name.value_or("-") + ";" + each.google_cd.value_or("-") + ";" +
                    each.type.value_or("-") + ";" + each.md.value_or("-") + ";" +
                    each.ip.value_or("-") + ";" + each.hostname.value_or("-") + "\n";
        return text;
    }
};

TEST_F(Browser, DescribesDevicesAsTheyDescribeThemselves) {
    // What follows in an overlong line looks like a record of its own.
    const std::string filler(510 - record("a", "").size() + 1, 'x');
    const std::pair<std::string, std::string> cases[]{
        {record(R"(My\032Speaker)", R"("x=1")"), "My Speaker;-;-;-"},
        {record(R"(a\.b\\c\300\0001\03x\255)", R"("x=1")"), "a.b\\c\\300\\0001\\03x\xff;-;-;-"},
        {record("n", R"("fn=Kitchen" "cd=AB12" "md=Google Home Mini")"),
         "Kitchen;AB12;smart-speaker;Google Home Mini"},
        {record("n", R"("md=Chromecast" "cd=")"), "n;;tv;Chromecast"},
        {record("n", R"("cd=none" "Home")"), "n;none;-;-"},
        {record("n", R"("md=LIFX Z")"), "n;-;light;LIFX Z"},
        {record("n", R"("md=Printer" "fn=not closed)"), "n;-;-;Printer"},
        {record("phone", "x", "192.168.77.9", "_apple-mobdev2._tcp"), ""},
        {record("six", "x", "fe80::1"), ""},
        {"+;wlan0;IPv4;unresolved;_x._tcp;local;host;192.168.77.30;80;x\n", ""},
        {"=;wlan0;IPv4;short\n=\n\n", ""},
        {record("a", filler + record("evil", "\"fn=evil\"", "6.6.6.6")), "a;-;-;-"},
        {std::string("=;\0;\n", 5) + record("b", "\"fn=b\""), "b;-;-;-"},
        {record(R"(c\010[ERROR] \027[2J)", "x"), "c\n[ERROR] \033[2J;-;-;-"},
    };
    for (const auto &[lines, device] : cases)
        EXPECT_EQ(devices_of(lines), device.empty() ? "" : device + ";192.168.77.30;host.local\n")
            << lines;
    EXPECT_EQ(times_logged("cannot parse ipv6 addresses"), 3);  // once a round
    EXPECT_EQ(times_logged("mdns entry added for My Speaker 192.168.77.30"), 1);
    EXPECT_EQ(times_logged("mdns entry already added for My Speaker 192.168.77.30"), 2);
    EXPECT_EQ(times_logged("mdns entry added for c?[ERROR] ?[2J 192.168.77.30"), 1);
    // A friendly name is better than a service's, whichever comes first.
    EXPECT_THAT(devices_of(record("n", R"("fn=Kitchen")") + record("other", "x")),
                testing::StartsWith("Kitchen;"));
    EXPECT_THAT(devices_of(record("n", "x") + record("other", R"("fn=Kitchen")")),
                testing::StartsWith("Kitchen;"));
}

TEST_F(Browser, BrowsesWhileTrackingIsOn) {
    EXPECT_EQ(browses_in_four_looks(), 0u);
    start_device_discovery();
    stop_device_discovery();
    EXPECT_EQ(browses_in_four_looks(), 0u);
    fake("avahi-browse", "exit 127");
    start_device_discovery();
    EXPECT_EQ(browses_in_four_looks(), 3u);
    EXPECT_TRUE(copy_device_list().empty());
}

}  // namespace
