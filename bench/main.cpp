// The benchmarks' program: they log to a /dev/log that is read as fast as it fills, as on a robot.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cstdio>
#include <thread>

#include "owned.h"

namespace {

bool start_log_sink() {
    Fd sink(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address{AF_UNIX, "/dev/log"};
    if (bind(sink.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return false;
    std::thread([sink = std::move(sink)] {
        std::array<char, 4096> line;
        while (recv(sink.get(), line.data(), line.size(), 0) >= 0) {
        }
    }).detach();
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    if (!start_log_sink()) {
        fputs("cannot listen on /dev/log: run through bench/run\n", stderr);
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
