#include "robot.h"

#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "clock.h"
#include "log.h"
#include "process_handles.h"

namespace {

constexpr char kCommands[] = "/run/fakes/commands";
[[maybe_unused]] constexpr char kFakeTime[] = "/usr/$LIB/faketime/libfaketimeMT.so.1";
constexpr char kMarker[] = "all that was logged before";
constexpr sockaddr_un kLog{AF_UNIX, "/dev/log"};
constexpr char kBrokerConfiguration[] = "/tmp/mosquitto.conf";

bool accepts_connections(uint16_t port) {
    const Fd probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    return connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

}  // namespace

Robot::Robot() : log_socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    unlink(kLog.sun_path);
    if (bind(log_socket_.get(), reinterpret_cast<const sockaddr *>(&kLog), sizeof kLog) != 0)
        ADD_FAILURE() << "cannot listen on /dev/log: run through tests/sandbox";
    reader_ = std::thread([this] { read_log(); });
    make_pauses_last(0);
    fake("sudo", "exec \"$@\"");
}

Robot::~Robot() {
    stop_ = true;
    reader_.join();
}

void Robot::read_log() {
    char datagram[65536];
    pollfd ready{log_socket_.get(), POLLIN, 0};
    while (!stop_) {
        if (poll(&ready, 1, 20) <= 0)
            continue;
        const ssize_t length = recv(log_socket_.get(), datagram, sizeof datagram, 0);
        if (length <= 0)
            continue;
        // "<29>Nov 22 10:00:00 network[12]: text" without what stands in front.
        const std::string line(datagram, static_cast<size_t>(length));
        if (line == kMarker) {
            markers_read_++;
            markers_read_.notify_all();
            continue;
        }
        const auto start = line.find(": ");
        const std::lock_guard guard(lock_);
        lines_.push_back(start == line.npos ? line : line.substr(start + 2));
    }
}

// Who logs waits until its line is in the socket's queue, so a line of this test's past is before
// the marker there. No limit: the reader lives as long as the test, whose own time is limited.
void Robot::catch_up_with_log() {
    if (sendto(log_socket_.get(), kMarker, strlen(kMarker), 0,
               reinterpret_cast<const sockaddr *>(&kLog), sizeof kLog) < 0) {
        ADD_FAILURE() << "cannot mark the log";
        return;
    }
    markers_sent_++;
    for (unsigned read = markers_read_; read != markers_sent_; read = markers_read_)
        markers_read_.wait(read);
}

std::string Robot::log_text() {
    catch_up_with_log();
    const std::lock_guard guard(lock_);
    std::string text;
    for (const auto &line : lines_)
        text += line + "\n";
    return text;
}

bool Robot::logged_as(const std::string &level, const std::string &text) {
    return eventually([&] { return count_lines(level, text) > 0; }, std::chrono::seconds(30));
}

int Robot::times_logged(const std::string &text) {
    catch_up_with_log();
    return count_lines("", text);
}

int Robot::count_lines(const std::string &level, const std::string &text) {
    const std::lock_guard guard(lock_);
    return static_cast<int>(std::count_if(lines_.begin(), lines_.end(), [&](const auto &line) {
        return line.find(text) != line.npos &&
               (level.empty() || line.starts_with("[" + level + "]"));
    }));
}

void Robot::forget_log() {
    catch_up_with_log();
    const std::lock_guard guard(lock_);
    lines_.clear();
}

void Robot::fake(const std::string &tool, const std::string &script) {
    write_file("/run/fakes/bin/" + tool, "#!/run/fakes/dash\n" + script + "\n", 0755);
}

std::vector<std::string> Robot::commands() {
    std::vector<std::string> lines;
    std::ifstream stream(kCommands, std::ios::binary);
    for (std::string line; std::getline(stream, line, '\036');)
        if (!line.empty())
            lines.push_back(line);
    return lines;
}

void Robot::forget_commands() {
    std::ofstream(kCommands, std::ios::trunc);  // the same file: a story's log goes on in it
}

void Robot::add_to_commands(const std::string &line) {
    std::ofstream(kCommands, std::ios::app) << '\036' << line << '\036';
}

void Robot::tell_stories() {
    log_close(exchange_log_handle(log_open("robot", LOG_LEVEL_DBG, kCommands, 0, 1, 0, 1, 1)));
}

std::string Robot::story(const std::string &source) {
    const std::regex header(R"(\[(DBG|INFO|WARN|ERROR)\] \((\S+):\d+[^)]*\) )"),
        told(R"(\w+ \S+ (sent topic (.*), message|setting ([a-z._]+) to|(wifi =)) (.*))"),
        complaint("(?:WARN|ERROR) " + source + " (.*)");
    std::string all;
    for (const std::string &record : commands()) {
        if (!std::regex_search(record, header, std::regex_constants::match_continuous)) {
            all += record.substr(0, record.find_last_not_of(" \n") + 1) + "\n";
            continue;
        }
        std::istringstream lines(std::regex_replace(record, header, "\n$1 $2 "));
        for (std::string line; std::getline(lines, line);)
            if (std::regex_match(line, told))
                all += std::regex_replace(line, told, "$2$3$4 $5\n");
            else if (std::regex_match(line, complaint))
                all += std::regex_replace(line, complaint, "$1\n");
    }
    forget_commands();
    return all;
}

void Robot::write_file(const std::string &path, const std::string &content, int mode) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    if (chmod(path.c_str(), static_cast<mode_t>(mode)) != 0)
        ADD_FAILURE() << "cannot write " << path;
}

std::string Robot::read_file(const std::string &path) {
    std::ifstream stream(path, std::ios::binary);
    return stream ? std::string(std::istreambuf_iterator(stream), {}) : "<none>";
}

bool Robot::eventually(const std::function<bool()> &condition, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

void Robot::give_address() {
    kvs_set("network.interface", "wlan0");
    fake("arping",
         "[ -e /tmp/answers ] && echo 'Unicast reply from 192.0.2.1 [02:00:00:00:00:01]'");
    ASSERT_EQ(system("ip link add wlan0 type veth peer name gw0 && ip link set gw0 up && "
                     "ip link set wlan0 up && ip addr add 192.0.2.2/24 dev wlan0 && "
                     "ip route add default via 192.0.2.1"),
              0);
    forget_commands();
}

bool Robot::run_hastened(int factor) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return factor == 1;
#else
    if (getenv("LD_PRELOAD") != nullptr)
        return true;
    setenv("LD_PRELOAD", kFakeTime, 1);
    setenv("FAKETIME", ("+0 x" + std::to_string(factor)).c_str(), 1);
    const auto *test = testing::UnitTest::GetInstance()->current_test_info();
    const std::string filter =
        std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
    execl("/proc/self/exe", "hastened", filter.c_str(), nullptr);
    ADD_FAILURE() << "cannot run itself again";
    return false;
#endif
}

void Broker::start() {
    // In the sandbox's user namespace it cannot become another user.
    std::ofstream(kBrokerConfiguration)
        << std::ifstream("/etc/mosquitto/mosquitto.conf").rdbuf() << "user root\n"
        << "listener 0 /tmp/broker.sock\n";
    const char *argv[] = {"mosquitto", "-c", kBrokerConfiguration, nullptr};
    posix_spawnp(&pid_, argv[0], nullptr, nullptr, const_cast<char *const *>(argv), environ);
    EXPECT_TRUE(
        Robot::eventually([] { return accepts_connections(1883); }, std::chrono::seconds(10)))
        << "the robot image's mosquitto does not accept connections";
}

void Broker::freeze() {
    kill(pid_, SIGSTOP);
}

void Broker::stop() {
    if (pid_ <= 0)
        return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}
