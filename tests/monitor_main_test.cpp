#include "monitor_main.h"

#include <poll.h>
#include <sys/resource.h>

#include <ctime>
#include <optional>

#include "supplicant.h"

// The second's pause after a failed wait is short, and counted.
static std::atomic<int> pauses{0};
extern "C" int poll(pollfd *entries, nfds_t count, int timeout_ms) {
    pauses += timeout_ms == 1000;
    const long ms = timeout_ms == 1000 ? 5 : timeout_ms;
    const timespec time{ms / 1000, ms % 1000 * 1'000'000};
    return ppoll(entries, count, ms < 0 ? nullptr : &time, nullptr);
}

namespace {

std::mutex events_lock;
Texts events;
std::atomic<pid_t> monitor_thread{0};

class WlanMonitor : public Robot {
  protected:
    WlanMonitor() {
        wlan_monitor_init("wlan0", [](const char *text) {
            const std::lock_guard guard(events_lock);
            events.emplace_back(text);
        });
        std::thread([] {
            monitor_thread = gettid();
            wlan_monitor_main(nullptr);
        }).detach();
        attach();
    }
    // When the thread sleeps between two cycles: a signal before that would be lost.
    void attach() {
        EXPECT_TRUE(eventually([] {
            const std::string task = "/proc/self/task/" + std::to_string(monitor_thread);
            return read_file(task + "/stat").find(") S ") != task.npos;
        }));
        wlan_monitor_signal_attach();
        EXPECT_TRUE(eventually([&] { return supplicant_->is_attached(); }));
    }
    static void detach() {
        wlan_monitor_signal_deattach();
        EXPECT_TRUE(has_client_sockets(0));
    }
    bool is_asked(const std::string &command) {
        return eventually([&] { return supplicant_->commands().back() == command; });
    }

    std::optional<Supplicant> supplicant_{std::in_place};
    char reply_[64] = "";
};

TEST_F(WlanMonitor, EventsReachTheCallbackWithoutTheirPrefixes) {
    const struct {
        std::string datagram, text;
        int pending_scan;
    } cases[] = {
        {"IFNAME=wlan0 <3>CTRL-EVENT-CONNECTED - x", "CTRL-EVENT-CONNECTED - x", 0},
        {"<3>CTRL-EVENT-BSS-ADDED 1 02:00:00:00:01:00", "", 0},
        {"<3>CTRL-EVENT-SCAN-STARTED ", "CTRL-EVENT-SCAN-STARTED ", 1},
        {"<3>CTRL-EVENT-BSS-REMOVED 1 CTRL-EVENT-SCAN-RESULTS ", "", 1},
        {"IFNAME=wlan0 CTRL-EVENT-SCAN-RESULTS ", "CTRL-EVENT-SCAN-RESULTS ", 0},
        {"name='CTRL-EVENT-SCAN-STARTED '", "name='CTRL-EVENT-SCAN-STARTED '", 1},
        {"CTRL-EVENT-SCAN-FAILED ret=-16", "CTRL-EVENT-SCAN-FAILED ret=-16", 0},
        {"<3 no closing bracket", "<3 no closing bracket", 0},
        {"<3>" + std::string(4095, 'L'), std::string(4092, 'L'), 0},
    };
    Texts expected;
    for (const auto &[datagram, text, pending_scan] : cases) {
        if (!text.empty())
            expected.push_back(text);
        expected.push_back("end");
        supplicant_->send_event(datagram);
        supplicant_->send_event("end");
        EXPECT_TRUE(eventually([&] {
            const std::lock_guard guard(events_lock);
            return events.size() >= expected.size();
        }));
        const std::lock_guard guard(events_lock);
        EXPECT_EQ(events, expected);
        EXPECT_EQ(wlan_monitor_ctrl_pending_scan(), pending_scan) << datagram;
    }
}

TEST_F(WlanMonitor, CommandsAreSentToTheLetter) {
    const std::string endless(300, 'b');
    supplicant_->answer_with([](const auto &) { return Texts{"<3>in between", "wpa_state=X\n"}; });
    EXPECT_EQ(wlan_monitor_ctrl_pending_scan(), 0);
    for (const int result :
         {wlan_monitor_ctrl_status(reply_, 10), wlan_monitor_ctrl_scan(reply_, 10),
          wlan_monitor_ctrl_get_scan_results(reply_, 10),
          wlan_monitor_ctrl_roam("02:00:00:00:01:00", reply_, 10),
          wlan_monitor_ctrl_disconnect(reply_, 10), wlan_monitor_ctrl_reconnect(reply_, 10),
          wlan_monitor_ctrl_blacklist(endless.c_str(), reply_, 10),
          wlan_monitor_ctrl_blacklist_show(reply_, 6)})
        EXPECT_EQ(result, 0);
    EXPECT_STREQ(reply_, "wpa_s");
    EXPECT_TRUE(logged("<3>i\n")) << "logged as far as there is room";
    EXPECT_EQ(wlan_monitor_ctrl_pending_scan(), 1);
    for (const int result :
         {wlan_monitor_ctrl_blacklist(nullptr, reply_, 10), wlan_monitor_ctrl_status(nullptr, 10),
          wlan_monitor_ctrl_status(reply_, 0)})
        EXPECT_EQ(result, -1);
    EXPECT_EQ(supplicant_->commands(),
              Texts({"ATTACH", "STATUS", "SCAN", "SCAN_RESULTS",
                     "PREAUTHENTICATE 02:00:00:00:01:00", "ROAM 02:00:00:00:01:00", "DISCONNECT",
                     "RECONNECT", "BLACKLIST " + endless.substr(0, 255 - 10), "BLACKLIST"}));
    supplicant_.reset();  // gone without a word
    EXPECT_EQ(wlan_monitor_ctrl_roam("b", reply_, sizeof reply_), -1);
    EXPECT_TRUE(logged("'PREAUTHENTICATE b' command failed.\n"));
    EXPECT_EQ(times_logged("ROAM b"), 0);
}

TEST_F(WlanMonitor, TerminatingSupplicantEndsTheCycle) {
    supplicant_->send_event("<3>CTRL-EVENT-TERMINATING ");
    EXPECT_TRUE(logged("\rConnection to wpa_supplicant lost - trying to reconnect\n"));
    EXPECT_TRUE(has_client_sockets(0));
    EXPECT_EQ(wlan_monitor_ctrl_scan(reply_, 10), -1);
    EXPECT_TRUE(logged("invalid parameters: ctrl = (nil), cmd=0x"));
    // Somebody else's sockets under the old numbers, with data that would never be read.
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair), 0);
    EXPECT_EQ(write(pair[0], "x", 1) + write(pair[1], "x", 1), 2);
    EXPECT_TRUE(logged("select failed 3 times, closing connection"));
    EXPECT_EQ(times_logged("errno-Bad file descriptor) select failed, errno: 9"), 3);
    EXPECT_EQ(pauses, 3);
    EXPECT_TRUE(logged("\rConnection to wpa_supplicant re-established\n"));
    EXPECT_TRUE(has_client_sockets(0));
    EXPECT_EQ(supplicant_->commands(), Texts({"ATTACH", "ATTACH", "DETACH"}));
}

// Commands of two threads over connections that come and go.
TEST_F(WlanMonitor, CommandsSurviveReconnects) {
    supplicant_->answer_with([](const auto &command) {
        return Texts{command.ends_with("TACH") ? "OK\n" : "re " + command};
    });
    std::atomic<int> answered{0};
    const auto ask = [&answered](const std::stop_token &stop, const std::string &bssid) {
        for (char reply[64]; !stop.stop_requested(); usleep(1000))  // others get a turn
            if (wlan_monitor_ctrl_blacklist(bssid.c_str(), reply, sizeof reply) == 0) {
                EXPECT_EQ(reply, "re BLACKLIST " + bssid);
                answered++;
            }
    };
    {
        const std::jthread one(ask, "a"), other(ask, "b");
        for (int cycle = 0; cycle < 10; cycle++) {
            detach();
            attach();
        }
        EXPECT_TRUE(eventually([&] { return answered > 20; }));
    }
    EXPECT_TRUE(has_client_sockets(2));
}

// Two restarts close together: the stop of the second may come before the thread has woken from the
// signal of the first, and must stand all the same.
TEST_F(WlanMonitor, AStopRequestAfterASignalStands) {
    for (int cycle = 0; cycle < 50; cycle++) {
        wlan_monitor_signal_deattach();
        wlan_monitor_signal_attach();
        for (int turns = cycle % 2 * cycle; turns > 0; turns--)
            std::this_thread::yield();
        detach();
    }
}

// Nobody waits out the replies of a supplicant that is being ended, each worth ten seconds.
TEST_F(WlanMonitor, ASupplicantThatSaysNothingAnyMoreIsLeft) {
    supplicant_->answer_with([](const auto &) { return Texts{}; });
    std::jthread asking([&] { EXPECT_EQ(wlan_monitor_ctrl_status(reply_, sizeof reply_), -1); });
    EXPECT_TRUE(is_asked("STATUS"));
    detach();
    asking.join();
    EXPECT_TRUE(logged("'STATUS' command failed.\n"));
    wlan_monitor_signal_attach();  // to one that does not even take it in
    EXPECT_TRUE(is_asked("ATTACH"));
    detach();
}

// Out of descriptors for the second of the two connections: the first stays open, and the next stop
// request takes it along, or the link would never come back.
TEST_F(WlanMonitor, AHalfOpenLinkEndsWithTheNextRestart) {
    detach();
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t usual = std::exchange(limit.rlim_cur, Fd(dup(0)).get() + 1);  // room for one
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    wlan_monitor_signal_attach();
    EXPECT_TRUE(logged("Could not connect to wpa_supplicant: wlan0\n"));
    limit.rlim_cur = usual;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_TRUE(has_client_sockets(1));
    wlan_monitor_signal_attach();
    EXPECT_TRUE(eventually([&] { return times_logged("failed to connect") == 2; }));
    EXPECT_TRUE(has_client_sockets(1));
    wlan_monitor_signal_deattach();
    EXPECT_EQ(wlan_monitor_ctrl_status(reply_, 10), -1);
    EXPECT_TRUE(logged("Not connected to wpa_supplicant - command dropped.\n"));
    wlan_monitor_signal_attach();
    EXPECT_TRUE(has_client_sockets(2));
    EXPECT_EQ(times_logged("Could not connect"), 1);
}

}  // namespace
