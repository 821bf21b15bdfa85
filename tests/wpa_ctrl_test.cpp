#include "wpa_ctrl.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cerrno>
#include <ctime>

#include "clock.h"
#include "supplicant.h"

// A clock that the test turns, once it has a time: second 100 and more of the clock that is asked.
static timespec test_time{};
static int refused_clocks = 0;  // a bit each
extern "C" int clock_gettime(clockid_t clock, timespec *time) noexcept {
    if (test_time.tv_sec == 0)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    *time = {test_time.tv_sec + clock, test_time.tv_nsec};
    return (refused_clocks >> clock & 1) != 0 ? -1 : 0;
}

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
void keep_event(char *text, size_t length) {
    events += "[" + std::string(text) + " " + std::to_string(length) + "]";
}
// The reply, or the failure's number.
std::string request(const Ctrl &ctrl, size_t room, const wpa_ctrl_patience &patience = {10'000, -1},
                    wpa_ctrl_msg_cb callback = keep_event) {
    char reply[64];
    const int result =
        wpa_ctrl_request_within(ctrl.get(), patience, "PING", 4, reply, &room, callback);
    return result == 0 ? std::string(reply, room) : std::to_string(result);
}

using WpaCtrl = Robot;

TEST_F(WpaCtrl, NamesThatFitAndNamesThatDoNot) {
    rlimit many{4096, 4096};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &many), 0);
    const std::string fits = "/tmp/d/" + std::string(100, 's');  // 107 characters
    const std::string own = "/wpa_ctrl_" + std::to_string(getpid()) + "-";
    const std::string folder = "/tmp/" + std::string(102 - own.size() - 1, 'c');
    Supplicant at_limit(fits), abstract("@below");
    for (const auto &directory : {std::string("relative"), folder, folder + "c"})
        mkdir(directory.c_str(), 0700);
    write_file("/tmp" + own + "7", "left by an earlier process");
    mkdir(("/tmp" + own + "8").c_str(), 0700);
    const long descriptors = count_entries("/proc/self/fd"), files = count_entries("/tmp");
    const struct {
        std::string path, directory, local;  // socket, or none
    } cases[] = {
        {fits, "", "/tmp" + own + "1"}, {"@abstract:below", "relative", "/tmp" + own + "2"},
        {"@abstract:belo", "", "none"}, {fits, folder, folder + own + "4"},
        {fits, folder + "c", "none"},   {fits, "/no/such/folder", "none"},
        {fits, "", "/tmp" + own + "7"}, {fits, "", "none"},  // a folder is not replaced
    };
    for (const auto &[path, directory, local] : cases) {
        const Ctrl ctrl(wpa_ctrl_open2(path.c_str(), directory.c_str()));
        EXPECT_EQ(ctrl ? ctrl->local.sun_path : "none", local) << path;
        EXPECT_EQ(ctrl ? request(ctrl, 64) : "OK\n", "OK\n");
    }
    EXPECT_EQ(wpa_ctrl_open(nullptr), nullptr);
    EXPECT_EQ(count_entries("/tmp"), files - 1) << "the file of the earlier process";
    EXPECT_EQ(wpa_ctrl_open((fits + "s").c_str()), nullptr);
    EXPECT_EQ(count_entries("/proc/self/fd"), descriptors);
    std::vector<Fd> taken;
    while (taken.empty() || taken.back().get() < 1100)
        taken.emplace_back(dup(0));
    EXPECT_EQ(request(Ctrl(wpa_ctrl_open(fits.c_str())), 64), "OK\n") << "beyond a select set";
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
        EXPECT_EQ(request(ctrl, row.room), row.reply);
        EXPECT_EQ(std::exchange(events, ""), row.events);
        EXPECT_EQ(wpa_ctrl_attach(ctrl.get()), row.attached);
        EXPECT_EQ(request(ctrl, row.room, {10'000, -1}, nullptr), row.reply);
    }
    supplicant.answer_with([](const auto &) { return Texts{"FAIL\n", "late"}; });
    EXPECT_EQ(wpa_ctrl_detach(ctrl.get()), -1);
    EXPECT_EQ(supplicant.commands().back(), "DETACH");
    EXPECT_EQ(os_wait_readable(wpa_ctrl_get_fd(ctrl.get()), 10'000), 1);
    for (const int result : {0, -1}) {
        char datagram[] = "########";
        size_t length = 8;
        EXPECT_EQ(wpa_ctrl_pending(ctrl.get()), 1 + result);
        EXPECT_EQ(wpa_ctrl_recv(ctrl.get(), datagram, &length), result);
        EXPECT_EQ(std::string(datagram, length), result == 0 ? "late" : "########");
    }
}

TEST_F(WpaCtrl, WaitsNoLongerThanItIsToldTo) {
    Supplicant supplicant(kPath);
    const Ctrl ctrl(wpa_ctrl_open(kPath));
    const Fd cancelled(open("/dev/zero", O_RDONLY | O_CLOEXEC));  // can be read at any time
    EXPECT_EQ(request(ctrl, 64, {10'000, cancelled.get()}), "OK\n") << "it lived";
    supplicant.answer_with([](const auto &) { return Texts{}; });
    EXPECT_EQ(request(ctrl, 64, {20, -1}), "-2");
    EXPECT_EQ(request(ctrl, 64, {10'000, cancelled.get()}), "-1");
    EXPECT_EQ(os_wait_readable(cancelled.get(), 10'000), 1);
    EXPECT_EQ(os_wait_readable(wpa_ctrl_get_fd(ctrl.get()), 0), 0);
    for (const int bad : {-1, 1000}) {
        errno = 0;
        EXPECT_EQ(os_wait_readable(bad, 10'000), -1);
        EXPECT_EQ(errno, EBADF);
    }
}

// A supplicant that does not read, and a client that has filled its queue.
TEST_F(WpaCtrl, QueueThatStaysFullGivesUpBehindFiveSeconds) {
    const Fd listener(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{AF_UNIX, "/tmp/stuck"};
    bind(listener.get(), reinterpret_cast<sockaddr *>(&address), sizeof address);
    const Ctrl ctrl(wpa_ctrl_open(address.sun_path));
    while (send(ctrl->s, "x", 1, 0) == 1) {
    }
    static long pauses, late_ns;
    make_pauses_call([](unsigned seconds) {
        pauses += seconds;
        test_time.tv_sec += seconds;
        test_time.tv_nsec = late_ns;
    });
    for (const auto &[late, count] : {std::pair(0L, 6L), {1000L, 5L}, {999L, 6L}}) {
        test_time = {100, 0};
        pauses = 0;
        late_ns = late;
        EXPECT_EQ(request(ctrl, 64), "-1");
        EXPECT_EQ(pauses, count) << late;
        EXPECT_EQ(request(ctrl, 64, {999, -1}), "-1");
        EXPECT_EQ(pauses, count) << "no patience for a pause";
    }
}

TEST_F(WpaCtrl, OnlySocketsOfTheDeadAreRemoved) {
    const pid_t dead = fork();
    if (dead == 0)
        _exit(0);
    ASSERT_EQ(waitpid(dead, nullptr, 0), dead);
    const std::string of_dead = "/tmp/wpa_ctrl_" + std::to_string(dead);
    const std::string living = "/tmp/wpa_ctrl_" + std::to_string(getpid()) + "-1";
    const std::vector<std::string> stay{living, of_dead, of_dead + "x-1", "/tmp/wpa_ctrl_0-1"};
    for (const std::string &name : stay)
        mknod(name.c_str(), S_IFSOCK | 0600, 0);
    mknod((of_dead + "-1").c_str(), S_IFSOCK | 0600, 0);
    mknod((of_dead + "-2").c_str(), S_IFSOCK | 0600, 0);
    write_file(of_dead + "-3", "no socket");
    const auto before = count_entries("/tmp");
    wpa_ctrl_remove_abandoned();
    EXPECT_EQ(count_entries("/tmp"), before - 2);
    for (const std::string &name : stay)
        EXPECT_EQ(access(name.c_str(), F_OK), 0) << name;
}

TEST_F(WpaCtrl, TimeIsTheFirstClockThatWorks) {
    constexpr int kBoot = 1 << CLOCK_BOOTTIME, kMonotonic = 1 << CLOCK_MONOTONIC, kReal = 1;
    test_time = {100, 7999};
    for (const auto &[refused, clock] : {std::pair(0, CLOCK_BOOTTIME),
                                         {kBoot, CLOCK_MONOTONIC},
                                         {0, CLOCK_MONOTONIC},
                                         {kMonotonic, CLOCK_REALTIME}}) {
        refused_clocks = refused;
        os_reltime time{};
        EXPECT_EQ(os_get_reltime(&time), 0);
        EXPECT_EQ(time.sec * 10 + time.usec, (100 + clock) * 10 + 7);
    }
    refused_clocks = kReal;
    os_reltime none{};
    EXPECT_EQ(os_get_reltime(&none), -1);
    char text[] = "####";
    EXPECT_EQ(os_strlcpy(text, "abcd", 4) + os_strlcpy(text + 4, "", 0), 4U);
    EXPECT_STREQ(text, "abc");
}

}  // namespace
