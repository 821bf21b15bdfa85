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
#include <sstream>

namespace {

constexpr char kStore[] = "/opt/halvik/persistent/opt/halvik/data/kvs/";
constexpr char kCommands[] = "/run/fakes/commands";
[[maybe_unused]] constexpr char kFakeTime[] = "/usr/$LIB/faketime/libfaketimeMT.so.1";
constexpr char kLogSocket[] = "/dev/log";
constexpr char kBrokerConfiguration[] = "/tmp/mosquitto.conf";

// "<29>Nov 22 10:00:00 network[12]: text" without what the time and the process put in front.
std::string strip_syslog_prefix(const std::string &datagram) {
    const auto start = datagram.find(": ");
    return start == std::string::npos ? datagram : datagram.substr(start + 2);
}

}  // namespace

Robot::Robot() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, kLogSocket);
    unlink(kLogSocket);
    log_socket_ = Fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (bind(log_socket_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        ADD_FAILURE() << "cannot listen on /dev/log: run through tests/sandbox";
    reader_ = std::thread([this] { read_log(); });
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
        std::string line(datagram, static_cast<size_t>(length));
        while (!line.empty() && line.back() == '\0')
            line.pop_back();
        const std::lock_guard guard(lock_);
        lines_.push_back(strip_syslog_prefix(line));
    }
}

std::vector<std::string> Robot::log_lines() {
    const std::lock_guard guard(lock_);
    return lines_;
}

std::string Robot::log_text() {
    std::string text;
    for (const auto &line : log_lines())
        text += line + "\n";
    return text;
}

bool Robot::logged(const std::string &text) {
    return eventually([&] { return times_logged(text) > 0; }, std::chrono::seconds(10));
}

bool Robot::logged_as(const std::string &level, const std::string &text) {
    return eventually(
        [&] {
            const auto lines = log_lines();
            return std::any_of(lines.begin(), lines.end(), [&](const auto &line) {
                return line.starts_with("[" + level + "]") && line.find(text) != line.npos;
            });
        },
        std::chrono::seconds(10));
}

int Robot::times_logged(const std::string &text) {
    const std::lock_guard guard(lock_);
    return static_cast<int>(std::count_if(lines_.begin(), lines_.end(), [&](const auto &line) {
        return line.find(text) != std::string::npos;
    }));
}

void Robot::forget_log() {
    // What was sent before is read first: the reader takes at most one poll to catch up.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const std::lock_guard guard(lock_);
    lines_.clear();
}

std::string Robot::kvs_path(const std::string &key) {
    return kStore + key;
}
void Robot::kvs_set(const std::string &key, const std::string &value) {
    write_file(kvs_path(key), value);
}
std::string Robot::kvs_get(const std::string &key) {
    return read_file(kvs_path(key));
}

void Robot::fake(const std::string &tool, const std::string &script) {
    write_file("/run/fakes/bin/" + tool, "#!/run/fakes/dash\n" + script + "\n", 0755);
}

std::vector<std::string> Robot::commands() {
    std::vector<std::string> lines;
    std::ifstream stream(kCommands, std::ios::binary);
    for (std::string line; std::getline(stream, line, '\036');)
        lines.push_back(line);
    return lines;
}

void Robot::forget_commands() {
    std::filesystem::remove(kCommands);
}

void Robot::write_file(const std::string &path, const std::string &content, int mode) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    if (chmod(path.c_str(), static_cast<mode_t>(mode)) != 0)
        ADD_FAILURE() << "cannot write " << path;
}

std::string Robot::read_file(const std::string &path) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream)
        return "<none>";
    std::ostringstream content;
    content << stream.rdbuf();
    return content.str();
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

namespace {

bool accepts_connections(uint16_t port) {
    const Fd probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return connect(probe.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
}

}  // namespace

void Broker::start() {
    // In the sandbox's user namespace it cannot become another user.
    std::ofstream(kBrokerConfiguration)
        << "user root\nlistener 1883 127.0.0.1\nallow_anonymous true\n";
    const char *argv[] = {"mosquitto", "-c", kBrokerConfiguration, nullptr};
    if (posix_spawnp(&pid_, argv[0], nullptr, nullptr, const_cast<char *const *>(argv), environ) !=
        0)
        FAIL() << "no mosquitto in the robot image";
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!accepts_connections(1883)) {
        if (std::chrono::steady_clock::now() > end)
            FAIL() << "mosquitto does not accept connections";
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
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
