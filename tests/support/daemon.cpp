#include "daemon.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <ctime>

#include "clock.h"
#include "main.h"

// What the transport waits on for a response.
extern "C" int pthread_cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                                      const timespec * /*end*/) {
    timespec soon;
    clock_gettime(CLOCK_MONOTONIC, &soon);
    soon.tv_nsec += 50'000'000;
    soon.tv_sec += soon.tv_nsec / 1'000'000'000;
    soon.tv_nsec %= 1'000'000'000;
    return pthread_cond_clockwait(condition, mutex, CLOCK_MONOTONIC, &soon);
}

void DaemonRobot::SetUp() {
    for (const char *tool : {"ifup", "ifdown", "wpa_cli", "network_device_interfaces_control.sh"})
        fake(tool, "exit 0");
    fake("ifconfig", "echo wlan0 Link encap:Ethernet HWaddr 02:00:00:00:00:00");
    write_file("/run/ifstate", "");
}

void DaemonRobot::TearDown() {
    while (!children_.empty())
        end_of(children_.back(), SIGKILL);
}

pid_t DaemonRobot::start(const std::string &command_line) {
    const std::string line = "exec " + command_line;
    const char *argv[] = {"/run/fakes/dash", "-c", line.c_str(), nullptr};
    pid_t child = -1;
    posix_spawn(&child, argv[0], nullptr, nullptr, const_cast<char *const *>(argv), environ);
    return children_.emplace_back(child);
}

pid_t DaemonRobot::start_daemon(const std::string &arguments) {
    return start("/proc/" + std::to_string(getpid()) + "/exe --daemon " + arguments);
}

int DaemonRobot::end_of(pid_t child, int signal) {
    int status = -1;
    kill(child, signal);
    waitpid(child, &status, 0);
    std::erase(children_, child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int run_tests_or_daemon(int argc, char **argv) {
    make_pauses_last(20'000);
    if (argc > 1 && std::string(argv[1]) == "--daemon")
        return netwarden_main(argc - 1, argv + 1);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
