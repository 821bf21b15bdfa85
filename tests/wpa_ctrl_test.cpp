#include "wpa_ctrl.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include "supplicant.h"

namespace {

constexpr char kPath[] = "/tmp/supplicant";

struct CloseCtrl {
    void operator()(wpa_ctrl *ctrl) const { wpa_ctrl_close(ctrl); }
};
using Ctrl = std::unique_ptr<wpa_ctrl, CloseCtrl>;

long count_entries(const char *directory) {
    return std::distance(std::filesystem::directory_iterator(directory), {});
}

std::string events;
std::string request(wpa_ctrl *ctrl, size_t room) {
    char reply[64];
    const int result =
        wpa_ctrl_request(ctrl, "PING", 4, reply, &room, [](char *text, size_t length) {
            events += "[" + std::string(text) + " " + std::to_string(length) + "]";
        });
    return result == 0 ? std::string(reply, room) : std::to_string(result);
}

using WpaCtrl = Robot;

TEST_F(WpaCtrl, NamesThatFitAndNamesThatDoNot) {
    const std::string fits = "/tmp/d/" + std::string(100, 's');  // 107 characters
    Supplicant at_limit(fits), abstract("@below");
    EXPECT_TRUE(Ctrl(wpa_ctrl_open(fits.c_str())));
    EXPECT_TRUE(Ctrl(wpa_ctrl_open("@abstract:below")));
    EXPECT_EQ(wpa_ctrl_open("@abstract:belo"), nullptr);
    EXPECT_EQ(count_entries("/tmp"), 1) << "a refused or closed client left its socket";
    EXPECT_EQ(wpa_ctrl_open((fits + "s").c_str()), nullptr);
    const auto opens_in = [&](const std::string &directory) {
        mkdir(directory.c_str(), 0700);
        const Ctrl ctrl(wpa_ctrl_open2(fits.c_str(), directory.c_str()));
        return std::string(ctrl ? ctrl->local.sun_path : "none");
    };
    const std::string own = "/wpa_ctrl_" + std::to_string(getpid()) + "-";
    EXPECT_EQ(opens_in("relative"), "/tmp" + own + "5");
    const std::string directory = "/tmp/" + std::string(102 - own.size() - 1, 'c');
    EXPECT_EQ(opens_in(directory), directory + own + "6");
    EXPECT_EQ(opens_in(directory + "c"), "none");
    write_file("/tmp" + own + "8", "left by an earlier process");
    mkdir(("/tmp" + own + "9").c_str(), 0700);
    EXPECT_TRUE(Ctrl(wpa_ctrl_open(fits.c_str())));
    EXPECT_EQ(wpa_ctrl_open(fits.c_str()), nullptr) << "a folder is not replaced";
}

TEST_F(WpaCtrl, RequestTellsRepliesFromEvents) {
    Supplicant supplicant(kPath);
    const Ctrl ctrl(wpa_ctrl_open(kPath));
    const struct {
        Texts datagrams;
        size_t room;
        std::string reply, events;
        int attached;
    } cases[] = {
        {{"OK\n"}, 3, "OK\n", "", 0},
        {{"OK\n\n"}, 3, "OK\n", "", -1},
        {{""}, 64, "", "", -1},
        {{"<3>one", "<", "done"}, 64, "done", "[<3>one 6][< 1]", -1},
        {{"<3>fills", "<3>full", "d"}, 8, "d", "[<3>fill 7][<3>full 7]", -1},
        {{"<3>x", "d"}, 1, "d", "[ 0]", -1},
    };
    for (const auto &row : cases) {
        supplicant.answer_with([&](const auto &) { return row.datagrams; });
        EXPECT_EQ(request(ctrl.get(), row.room), row.reply);
        EXPECT_EQ(std::exchange(events, ""), row.events);
        EXPECT_EQ(wpa_ctrl_attach(ctrl.get()), row.attached);
    }
}

// A supplicant that does not read, and a client that has filled its queue.
TEST_F(WpaCtrl, QueueThatStaysFullGivesUp) {
    if (!run_hastened(10))
        GTEST_SKIP() << "real time only";
    const Fd listener(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{AF_UNIX, "/tmp/stuck"};
    bind(listener.get(), reinterpret_cast<sockaddr *>(&address), sizeof address);
    const Ctrl ctrl(wpa_ctrl_open(address.sun_path));
    while (send(ctrl->s, "x", 1, 0) == 1) {
    }
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(request(ctrl.get(), 64), "-1");
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_THAT(waited / std::chrono::seconds(1), testing::AllOf(testing::Ge(5), testing::Lt(9)));
}

TEST_F(WpaCtrl, ThousandCyclesLeaveNothingBehind) {
    rlimit many{4096, 4096};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &many), 0);
    Supplicant supplicant(kPath);
    const long descriptors = count_entries("/proc/self/fd"), files = count_entries("/tmp");
    for (int cycle = 0; cycle < 1000; cycle++) {
        Ctrl(wpa_ctrl_open(kPath)).reset();
        Ctrl(wpa_ctrl_open("/tmp/nobody")).reset();
        Ctrl(wpa_ctrl_open2(kPath, "/no/such/directory")).reset();
    }
    EXPECT_EQ(count_entries("/proc/self/fd"), descriptors);
    EXPECT_EQ(count_entries("/tmp"), files);
    std::vector<Fd> taken;
    while (taken.empty() || taken.back().get() < 1100)
        taken.emplace_back(dup(0));
    EXPECT_EQ(request(Ctrl(wpa_ctrl_open(kPath)).get(), 64), "OK\n") << "beyond a select set";
}

}  // namespace
