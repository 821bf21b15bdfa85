#include "monitor_main.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <optional>

#include "robot.h"
#include "supplicant.h"

namespace {

std::mutex events_lock;
Texts events;
void keep_event(const char *text) {
    const std::lock_guard guard(events_lock);
    events.emplace_back(text);
}
bool has_event(const std::string &text) {
    const std::lock_guard guard(events_lock);
    return std::ranges::count(events, text) > 0;
}

std::atomic<pid_t> monitor_thread{0};

class WlanMonitor : public Robot {
  protected:
    // Starts the thread and waits until it sleeps: a signal before that would be lost.
    static void start_thread() {
        std::thread([] {
            monitor_thread = gettid();
            wlan_monitor_main(nullptr);
        }).detach();
        ASSERT_TRUE(eventually([] { return monitor_thread != 0 && is_idle(); }));
    }
    void connect() {
        wlan_monitor_init("wlan0", keep_event);
        start_thread();
        supplicant_.emplace();
        attach();
    }
    void attach() {
        wlan_monitor_signal_attach();
        ASSERT_TRUE(eventually([&] { return supplicant_->is_attached(); }));
    }
    void fail_to_connect(int times_so_far) {
        wlan_monitor_signal_attach();
        ASSERT_TRUE(eventually([&] {
            return times_logged("failed to connect to wpa_supplicant") == times_so_far + 1;
        }));
        ASSERT_TRUE(eventually(is_idle));
    }
    // Asleep, which between two cycles is the wait for a signal.
    static bool is_idle() {
        std::ifstream stat("/proc/self/task/" + std::to_string(monitor_thread) + "/stat");
        std::string pid, name, state;
        stat >> pid >> name >> state;
        return state == "S";
    }
    static Texts take_events_until(const std::string &last) {
        EXPECT_TRUE(eventually([&] { return has_event(last); }));
        const std::lock_guard guard(events_lock);
        return std::exchange(events, {});
    }
    static long count_client_sockets() {
        const std::filesystem::directory_iterator files("/tmp");
        return std::count_if(begin(files), end(files), [](const auto &entry) {
            return entry.path().string().starts_with("/tmp/wpa_ctrl_");
        });
    }
    int status() { return wlan_monitor_ctrl_status(reply_, sizeof reply_); }

    std::optional<Supplicant> supplicant_;
    char reply_[64] = "";
};

TEST_F(WlanMonitor, EventsReachTheCallbackWithoutTheirPrefixes) {
    connect();
    const std::string longest = "<3>" + std::string(4092, 'L');
    struct {
        std::string datagram;
        std::optional<std::string> text;
        int pending_scan;
    } const cases[] = {
        {"IFNAME=wlan0 <3>CTRL-EVENT-CONNECTED - x", "CTRL-EVENT-CONNECTED - x", 0},
        {"<3>CTRL-EVENT-BSS-ADDED 1 02:00:00:00:01:00", {}, 0},
        {"<3>CTRL-EVENT-SCAN-STARTED ", "CTRL-EVENT-SCAN-STARTED ", 1},
        {"<3>CTRL-EVENT-BSS-REMOVED 1 CTRL-EVENT-SCAN-RESULTS ", {}, 1},
        {"IFNAME=wlan0 CTRL-EVENT-SCAN-RESULTS ", "CTRL-EVENT-SCAN-RESULTS ", 0},
        {"name='CTRL-EVENT-SCAN-STARTED '", "name='CTRL-EVENT-SCAN-STARTED '", 1},
        {"CTRL-EVENT-SCAN-FAILED ret=-16", "CTRL-EVENT-SCAN-FAILED ret=-16", 0},
        {"<3>CTRL-EVENT-SCAN-STARTED", "CTRL-EVENT-SCAN-STARTED", 0},
        {"<3 no closing bracket", "<3 no closing bracket", 0},
        {"IFNAME=wlan0", "IFNAME=wlan0", 0},
        {"IFNAME=wlan0 <1><2>x", "<2>x", 0},
        {"", "", 0},
        {std::string("\xff\x01\x80 \0 tail", 9), "\xff\x01\x80 ", 0},
        {longest + "cut", longest.substr(3), 0},
        {"IFNAME=" + std::string(4088, 'n'), "IFNAME=" + std::string(4088, 'n'), 0},
    };
    for (const auto &row : cases) {
        supplicant_->send_event(row.datagram);
        supplicant_->send_event("end");
        EXPECT_EQ(take_events_until("end"), row.text ? Texts({*row.text, "end"}) : Texts({"end"}));
        EXPECT_EQ(wlan_monitor_ctrl_pending_scan(), row.pending_scan) << row.datagram;
    }
}

TEST_F(WlanMonitor, FloodArrivesWholeAndInOrder) {
    connect();
    Texts sent;
    for (int i = 0; i < 10'000; i++)
        supplicant_->send_event(sent.emplace_back("event " + std::to_string(i)));
    EXPECT_TRUE(take_events_until(sent.back()) == sent);
}

TEST_F(WlanMonitor, CommandsAreSentToTheLetter) {
    connect();
    const std::string endless(300, 'b');
    const auto send = [&](auto command, auto... bssid) -> std::string {
        return command(bssid..., reply_, sizeof reply_) == 0 ? reply_ : "failed";
    };
    EXPECT_EQ(send(wlan_monitor_ctrl_status), "OK\n");
    EXPECT_EQ(send(wlan_monitor_ctrl_get_scan_results), "OK\n");
    EXPECT_EQ(send(wlan_monitor_ctrl_scan), "OK\n");
    EXPECT_EQ(wlan_monitor_ctrl_pending_scan(), 1);
    EXPECT_EQ(send(wlan_monitor_ctrl_roam, "02:00:00:00:01:00"), "OK\n");
    EXPECT_EQ(send(wlan_monitor_ctrl_disconnect), "OK\n");
    EXPECT_EQ(send(wlan_monitor_ctrl_reconnect), "OK\n");
    EXPECT_EQ(send(wlan_monitor_ctrl_blacklist, endless.c_str()), "OK\n");
    EXPECT_EQ(send(wlan_monitor_ctrl_blacklist_show), "OK\n");
    EXPECT_EQ(send(wlan_monitor_ctrl_blacklist, nullptr), "failed");
    EXPECT_EQ(send(wlan_monitor_ctrl_roam, nullptr), "failed");
    EXPECT_EQ(supplicant_->commands(),
              Texts({"ATTACH", "STATUS", "SCAN_RESULTS", "SCAN",
                     "PREAUTHENTICATE 02:00:00:00:01:00", "ROAM 02:00:00:00:01:00", "DISCONNECT",
                     "RECONNECT", "BLACKLIST " + endless.substr(0, 255 - 10), "BLACKLIST"}));

    supplicant_->answer_with([](const auto &) { return Texts{"<3>in between", "wpa_state=X\n"}; });
    EXPECT_EQ(wlan_monitor_ctrl_status(reply_, 6), 0);
    EXPECT_STREQ(reply_, "wpa_s");
    EXPECT_TRUE(logged("<3>i\n")) << "logged as far as there is room, and not forwarded";
    EXPECT_FALSE(has_event("i"));
}

TEST_F(WlanMonitor, CommandsThatCannotBeSent) {
    EXPECT_EQ(wlan_monitor_ctrl_scan(reply_, 10), -1);
    EXPECT_EQ(wlan_monitor_ctrl_pending_scan(), 1);
    EXPECT_TRUE(logged("invalid parameters: ctrl = (nil), cmd=0x"));
    EXPECT_TRUE(logged(" (\"SCAN\"), buf=0x"));
    connect();
    EXPECT_EQ(wlan_monitor_ctrl_status(nullptr, 10), -1);
    EXPECT_TRUE(logged(", buf=(nil), buf_size = 10l\n"));
    EXPECT_EQ(wlan_monitor_ctrl_status(reply_, 0), -1);
    supplicant_.reset();  // gone without a word
    EXPECT_EQ(wlan_monitor_ctrl_roam("b", reply_, sizeof reply_), -1);
    EXPECT_TRUE(logged("'PREAUTHENTICATE b' command failed.\n"));
    EXPECT_EQ(times_logged("ROAM"), 0);
}

TEST_F(WlanMonitor, SilenceEndsByTimeOuts) {
    if (!run_hastened(10))
        GTEST_SKIP() << "real time only";
    connect();
    supplicant_->answer_with([](const auto &) { return Texts{}; });
    EXPECT_EQ(wlan_monitor_ctrl_roam("b", reply_, sizeof reply_), -2);
    EXPECT_TRUE(logged("'PREAUTHENTICATE b' command timed out.\n"));
    EXPECT_EQ(supplicant_->commands().back(), "PREAUTHENTICATE b");

    supplicant_->answer_with([](const auto &) { return Texts{"OK\n"}; });
    wlan_monitor_signal_deattach();  // and no event that would wake the thread
    EXPECT_TRUE(eventually([] { return count_client_sockets() == 0; }, std::chrono::seconds(9)));
    EXPECT_EQ(supplicant_->commands().back(), "DETACH");
}

TEST_F(WlanMonitor, NothingToConnectTo) {
    start_thread();
    fail_to_connect(0);
    EXPECT_EQ(times_logged("error - no ctrl-ifname"), 1);
}

TEST_F(WlanMonitor, FailedConnectsWarnOnce) {
    wlan_monitor_init("wlan0", keep_event);
    start_thread();
    fail_to_connect(0);
    fail_to_connect(1);
    EXPECT_EQ(times_logged("Could not connect to wpa_supplicant: wlan0\n"), 1);
    supplicant_.emplace();
    supplicant_->answer_with([](const auto &) { return Texts{"FAIL\n"}; });
    fail_to_connect(2);
    EXPECT_EQ(times_logged("Warning: Failed to attach to wpa_supplicant.\n"), 1);
    EXPECT_EQ(times_logged("Could not connect"), 1);
    EXPECT_EQ(count_client_sockets(), 0);
    supplicant_->answer_with([](const auto &) { return Texts{"OK\n"}; });
    attach();
    EXPECT_TRUE(logged("wlan_monitor - Connection established.\n"));
}

// A monitor connection that cannot be opened leaves the other one open: commands work, and the
// next signal finds the robot connected.
TEST_F(WlanMonitor, CommandConnectionOutlivesAFailedMonitorConnection) {
    supplicant_.emplace();
    mkdir(("/tmp/wpa_ctrl_" + std::to_string(getpid()) + "-2").c_str(), 0700);
    wlan_monitor_init("wlan0", keep_event);
    start_thread();
    fail_to_connect(0);
    EXPECT_EQ(status(), 0);
    fail_to_connect(1);
    EXPECT_EQ(status(), 0);
    EXPECT_EQ(supplicant_->commands(), Texts({"STATUS", "STATUS"}));
    EXPECT_EQ(times_logged("Could not connect"), 1);
}

TEST_F(WlanMonitor, TerminatingSupplicantEndsTheCycle) {
    connect();
    supplicant_->send_event("<3>CTRL-EVENT-TERMINATING ");
    ASSERT_TRUE(logged("\rConnection to wpa_supplicant lost - trying to reconnect\n"));
    EXPECT_TRUE(eventually([] { return count_client_sockets() == 0; }));
    EXPECT_EQ(status(), -1);
    // Somebody else's sockets under the old numbers, with data that would never be read.
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair), 0);
    EXPECT_EQ(write(pair[0], "x", 1) + write(pair[1], "x", 1), 2);

    ASSERT_TRUE(eventually([&] { return times_logged("closing connection") == 1; }));
    EXPECT_EQ(times_logged("errno-Bad file descriptor) select failed, errno: 9"), 3);
    EXPECT_EQ(times_logged("select failed 3 times, closing connection"), 1);
    EXPECT_TRUE(logged("\rConnection to wpa_supplicant re-established\n"));
    EXPECT_TRUE(eventually([] { return count_client_sockets() == 0; }));
    EXPECT_EQ(supplicant_->commands(), Texts({"ATTACH", "ATTACH", "DETACH"}));
}

// Commands from several threads against connections that come and go: each reply is the answer to
// its own command, and nothing is left open.
TEST_F(WlanMonitor, CommandsSurviveReconnects) {
    connect();
    supplicant_->answer_with([](const auto &command) {
        return Texts{command.ends_with("TACH") ? "OK\n" : "re " + command};
    });
    std::atomic<bool> stop{false};
    std::atomic<int> answered{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([&, bssid = std::to_string(i)] {
            for (char reply[64]; !stop; usleep(1000)) {
                if (wlan_monitor_ctrl_blacklist(bssid.c_str(), reply, sizeof reply) != 0)
                    continue;
                EXPECT_EQ(reply, "re BLACKLIST " + bssid);
                answered++;
            }
        });
    for (int cycle = 0; cycle < 20; cycle++) {
        wlan_monitor_signal_deattach();
        supplicant_->send_event("<3>noticed at once");
        ASSERT_TRUE(eventually([&] { return !supplicant_->is_attached(); }));
        ASSERT_TRUE(eventually([] { return count_client_sockets() == 0; }));
        attach();
    }
    stop = true;
    for (auto &thread : threads)
        thread.join();
    EXPECT_GT(answered, 20);
    EXPECT_EQ(times_logged("command failed"), 0);
    EXPECT_EQ(count_client_sockets(), 2);
}

}  // namespace
