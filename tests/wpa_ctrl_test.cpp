#include "wpa_ctrl.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <filesystem>

#include "robot.h"
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

std::string request(wpa_ctrl *ctrl, size_t room, wpa_ctrl_msg_cb callback = nullptr) {
    char reply[64];
    size_t length = room;
    const int result = wpa_ctrl_request(ctrl, "PING", 4, reply, &length, callback);
    return result == 0 ? std::string(reply, length) : std::to_string(result);
}

std::string events;
void keep_event(char *text, size_t length) {
    events += "[" + std::string(text) + " " + std::to_string(length) + "]";
}

class WpaCtrl : public Robot {};

TEST_F(WpaCtrl, NamesThatFitAndNamesThatDoNot) {
    const std::string fits = "/tmp/d/" + std::string(100, 's');  // 107 characters
    Supplicant at_limit(fits), abstract("@below");
    EXPECT_TRUE(Ctrl(wpa_ctrl_open(fits.c_str())));
    EXPECT_TRUE(Ctrl(wpa_ctrl_open("@abstract:below")));
    EXPECT_EQ(wpa_ctrl_open("@abstract:belo"), nullptr);
    EXPECT_EQ(wpa_ctrl_open(nullptr), nullptr);
    EXPECT_EQ(count_entries("/tmp"), 1) << "a refused or closed client left its socket";
    EXPECT_EQ(wpa_ctrl_open((fits + "s").c_str()), nullptr);
    EXPECT_EQ(count_entries("/tmp"), 2) << "its bound socket stays behind";

    const auto opens_in = [&](const std::string &directory) -> std::string {
        const Ctrl ctrl(wpa_ctrl_open2(fits.c_str(), directory.c_str()));
        return ctrl ? ctrl->local.sun_path : "none";
    };
    const std::string own = "/wpa_ctrl_" + std::to_string(getpid()) + "-";
    EXPECT_EQ(opens_in("relative"), "/tmp" + own + "5");
    const std::string directory = "/tmp/" + std::string(102 - own.size() - 1, 'c');
    mkdir(directory.c_str(), 0700);
    mkdir((directory + "c").c_str(), 0700);
    EXPECT_EQ(opens_in(directory), directory + own + "6");
    EXPECT_EQ(opens_in(directory + "c"), "none");
}

TEST_F(WpaCtrl, StaleSocketIsReplacedOnce) {
    Supplicant supplicant(kPath);
    const std::string first = Ctrl(wpa_ctrl_open(kPath))->local.sun_path;
    const std::string stem = first.substr(0, first.find('-') + 1);
    write_file(stem + "2", "left by an earlier process");
    EXPECT_TRUE(Ctrl(wpa_ctrl_open(kPath)));
    mkdir((stem + "3").c_str(), 0700);
    EXPECT_EQ(wpa_ctrl_open(kPath), nullptr);
    EXPECT_TRUE(std::filesystem::exists(stem + "3"));
}

TEST_F(WpaCtrl, RequestTellsRepliesFromEvents) {
    Supplicant supplicant(kPath);
    const Ctrl ctrl(wpa_ctrl_open(kPath));
    struct {
        Texts datagrams;
        size_t room;
        bool with_callback;
        std::string reply;
        std::string events;
    } const cases[] = {
        {{"PONG\n"}, 64, true, "PONG\n", ""},
        {{"PONG\n"}, 3, true, "PON", ""},
        {{""}, 64, true, "", ""},
        {{"<3>one", "<", "done"}, 64, true, "done", "[<3>one 6][< 1]"},
        {{"<3>one", "done"}, 64, false, "done", ""},
        {{"<3>fills", "<3>full", "d"}, 8, true, "d", "[<3>fill 7][<3>full 7]"},
        {{"<3>x", "d"}, 1, true, "d", "[ 0]"},
    };
    for (const auto &row : cases) {
        supplicant.answer_with([&](const auto &) { return row.datagrams; });
        events.clear();
        EXPECT_EQ(request(ctrl.get(), row.room, row.with_callback ? keep_event : nullptr),
                  row.reply);
        EXPECT_EQ(events, row.events);
    }
}

TEST_F(WpaCtrl, AttachWantsExactlyOk) {
    Supplicant supplicant(kPath);
    const Ctrl ctrl(wpa_ctrl_open(kPath));
    for (const char *answer : {"OK\n", "OK", "OK\n\n", "ok\n", "FAIL\n", ""}) {
        supplicant.answer_with([&](const auto &) { return Texts{answer}; });
        EXPECT_EQ(wpa_ctrl_attach(ctrl.get()), strcmp(answer, "OK\n") == 0 ? 0 : -1) << answer;
        EXPECT_EQ(wpa_ctrl_detach(ctrl.get()), strcmp(answer, "OK\n") == 0 ? 0 : -1) << answer;
    }
    EXPECT_EQ(supplicant.commands()[0], "ATTACH");
    EXPECT_EQ(supplicant.commands()[1], "DETACH");
}

// A supplicant that does not read, and a client that has filled its queue.
struct Stuck {
    Stuck() : listener(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{AF_UNIX, "/tmp/stuck"};
        bind(listener.get(), reinterpret_cast<sockaddr *>(&address), sizeof address);
        ctrl.reset(wpa_ctrl_open(address.sun_path));
        while (send(ctrl->s, "x", 1, 0) == 1) {
        }
    }
    Fd listener;
    Ctrl ctrl;
};

TEST_F(WpaCtrl, FullQueueIsTriedAgain) {
    Stuck stuck;
    std::thread reader([&] {
        usleep(200'000);
        std::string last;
        while (last != "PING") {
            char text[8];
            sockaddr_un from{};
            socklen_t from_length = sizeof from;
            const ssize_t length = recvfrom(stuck.listener.get(), text, sizeof text, 0,
                                            reinterpret_cast<sockaddr *>(&from), &from_length);
            last.assign(text, static_cast<size_t>(length));
            if (last == "PING")
                sendto(stuck.listener.get(), "PONG", 4, 0, reinterpret_cast<sockaddr *>(&from),
                       from_length);
        }
    });
    EXPECT_EQ(request(stuck.ctrl.get(), 64), "PONG");
    reader.join();
    stuck.listener.reset();
    EXPECT_EQ(request(stuck.ctrl.get(), 64), "-1");
}

TEST_F(WpaCtrl, QueueThatStaysFullGivesUp) {
    if (!run_hastened(10))
        GTEST_SKIP() << "real time only";
    const Stuck stuck;
    os_reltime start{}, end{};
    os_get_reltime(&start);
    EXPECT_EQ(request(stuck.ctrl.get(), 64), "-1");
    os_get_reltime(&end);
    EXPECT_THAT(end.sec - start.sec, testing::AllOf(testing::Ge(5), testing::Lt(9)));
}

TEST_F(WpaCtrl, ThousandCyclesLeaveNothingBehind) {
    Supplicant supplicant(kPath);
    const long descriptors = count_entries("/proc/self/fd");
    const long files = count_entries("/tmp");
    for (int cycle = 0; cycle < 1000; cycle++) {
        Ctrl(wpa_ctrl_open(kPath)).reset();
        Ctrl(wpa_ctrl_open("/tmp/nobody")).reset();
        Ctrl(wpa_ctrl_open2(kPath, "/no/such/directory")).reset();
    }
    EXPECT_EQ(count_entries("/proc/self/fd"), descriptors);
    EXPECT_EQ(count_entries("/tmp"), files);
}

TEST_F(WpaCtrl, DescriptorsBeyondASelectSetWork) {
    rlimit many{4096, 4096};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &many), 0);
    Supplicant supplicant(kPath);
    std::vector<Fd> taken;
    do
        taken.emplace_back(dup(0));
    while (taken.back().get() < 1100);
    const Ctrl ctrl(wpa_ctrl_open(kPath));
    ASSERT_GT(wpa_ctrl_get_fd(ctrl.get()), 1024);
    EXPECT_EQ(request(ctrl.get(), 64), "OK\n");
    EXPECT_EQ(wpa_ctrl_pending(ctrl.get()), 0);
    EXPECT_NE(fcntl(wpa_ctrl_get_fd(ctrl.get()), F_GETFD) & FD_CLOEXEC, 0);
    for (const int bad : {-1, 3000}) {
        EXPECT_EQ(os_wait_readable(bad, 0), -1);
        EXPECT_EQ(errno, EBADF);
    }
}

}  // namespace
