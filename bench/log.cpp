#include "log.h"

#include <benchmark/benchmark.h>
#include <syslog.h>

#include <cerrno>
#include <string>

namespace {

constexpr char kFormat[] = "wlan monitor event - %s";
constexpr char kEvent[] = "CTRL-EVENT-CONNECTED - Connection to ****** completed [id=0 id_str=]";

// What a line costs without us: the C library and the socket.
void BareSyslog(benchmark::State &state) {
    for (auto _ : state)
        syslog(LOG_NOTICE, kFormat, kEvent);
}
BENCHMARK(BareSyslog);

struct Case {
    uint32_t threshold;
    uint32_t level;
    int error;
    int truncate;
};

void Log(benchmark::State &state, Case row) {
    log_handle *log = log_open("network", row.threshold, nullptr, 0, 1, 0, 0, 1);
    log_configure_trunc(log, row.truncate);
    for (auto _ : state) {
        errno = row.error;
        log_format(log, row.level, "src/wifi_status", 301, kFormat, kEvent);
    }
    log_close(log);
}
BENCHMARK_CAPTURE(Log, info, Case{LOG_LEVEL_INFO, LOG_LEVEL_INFO, 0, 1});
BENCHMARK_CAPTURE(Log, error_with_errno, Case{LOG_LEVEL_INFO, LOG_LEVEL_ERROR, EAGAIN, 1});
BENCHMARK_CAPTURE(Log, direct_path, Case{LOG_LEVEL_INFO, LOG_LEVEL_INFO, 0, 0});
BENCHMARK_CAPTURE(Log, below_the_level, Case{LOG_LEVEL_INFO, LOG_LEVEL_DBG, 0, 1});

void LogCutToItsBound(benchmark::State &state) {
    const std::string text(4000, 'x');
    log_handle *log = log_open("network", LOG_LEVEL_INFO, nullptr, 0, 1, 0, 0, 1);
    for (auto _ : state)
        log_format(log, LOG_LEVEL_INFO, "src/wifi_status", 301, kFormat, text.c_str());
    log_close(log);
}
BENCHMARK(LogCutToItsBound);

}  // namespace
