#include "monitor_main.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>

#include "log.h"
#include "pex_misc.h"
#include "pthread_utils.h"
#include "wpa_ctrl.h"

#define LOG_SOURCE "src/monitor_main"

namespace {

constexpr char kSocketDirectory[] = "/var/run/wpa_supplicant";
constexpr size_t kEventSize = 4096;
constexpr int kSelectTimeoutMs = 5'000;  // a stop request comes sooner, by its descriptor
constexpr int kToleratedSelectFailures = 3;
constexpr int kAfterFailureMs = 1'000;
constexpr int kReplyMs = 10'000;
constexpr int kFarewellMs = 500;  // a supplicant that is being ended may not answer any more

char *interface_name = nullptr;  // lives for the process, as does the callback
wlan_monitor_event_cb event_callback = nullptr;

// The two connections. Commands are told by the first whether there is a link at all; the second,
// and whether it is attached, is the monitor thread's alone.
std::atomic<wpa_ctrl *> command_connection{nullptr};
wpa_ctrl *monitor_connection = nullptr;
bool is_attached = false;

std::atomic<int> pending_scan{0};
bool has_warned_of_connect = false;  // once in the process's life

// Held to open and close the connections, and by the commands in flight together: the first takes
// it, the last releases it, and these may be different threads.
Semaphore connection_lock{1};
std::mutex reference_lock;
unsigned reference_count = 0;
// One command at a time on the one socket, lest a thread read another's reply.
std::mutex request_lock;

std::mutex attach_lock;
pthread_cond_t attach_signal = PTHREAD_COND_INITIALIZER;

// The request to leave the supplicant. Also a descriptor, readable while the request stands, that
// ends whatever wait the monitor thread or a command is in.
class StopRequest {
  public:
    void set() {
        const std::lock_guard guard(lock_);
        is_set_ = true;
        eventfd_write(event_, 1);
    }
    void clear() {
        const std::lock_guard guard(lock_);
        is_set_ = false;
        eventfd_t count;
        eventfd_read(event_, &count);
    }
    bool is_set() {
        const std::lock_guard guard(lock_);
        return is_set_;
    }
    // -1 on a system out of descriptors: then the request is noticed when a wait has ended.
    int descriptor() const { return event_; }

  private:
    std::mutex lock_;
    bool is_set_ = false;
    const int event_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);  // open for the process's life
};
StopRequest stop;

// A link that a failed attempt left half open is dropped with the next one asked to stop.
std::atomic<bool> is_leftover_stale{false};

class ConnectionLock {
  public:
    ConnectionLock() { connection_lock.acquire(); }
    ~ConnectionLock() { connection_lock.release(); }
    ConnectionLock(const ConnectionLock &) = delete;
    ConnectionLock &operator=(const ConnectionLock &) = delete;
};

class CommandReference {
  public:
    CommandReference() { wpa_ctrl_conn_increment_ref_count(); }
    ~CommandReference() { wpa_ctrl_conn_decrement_ref_count(); }
    CommandReference(const CommandReference &) = delete;
    CommandReference &operator=(const CommandReference &) = delete;
};

bool is_connected() {
    return command_connection.load() != nullptr;
}

// --- opening and closing: monitor thread only ----------------------------------------------------

void wlan_monitor_close_connection() {
    const ConnectionLock guard;
    if (std::exchange(is_attached, false))
        wpa_ctrl_detach_within(monitor_connection, {kFarewellMs, -1});
    wpa_ctrl_close(command_connection.exchange(nullptr));
    wpa_ctrl_close(std::exchange(monitor_connection, nullptr));
}

// A link that cannot be opened now would be missing until the next connect: months, if all is well.
wpa_ctrl *open_at_last(const char *path) {
    return pex_outlast_shortage([&] { return wpa_ctrl_open(path); });
}

bool open_command_connection(const char *path) {
    const ConnectionLock guard;
    command_connection = open_at_last(path);
    return is_connected();
}

// The monitor connection's descriptor, or -1.
int wlan_monitor_open_connection(const char *ifname) {
    if (ifname == nullptr)
        return -1;
    const std::string path = std::string(kSocketDirectory) + "/" + ifname;
    if (!open_command_connection(path.c_str()))
        return -1;
    monitor_connection = open_at_last(path.c_str());
    if (monitor_connection == nullptr)
        return -1;  // commands are served still; the next attach drops what is half open
    if (wpa_ctrl_attach_within(monitor_connection, {kReplyMs, stop.descriptor()}) != 0) {
        LOGE("Warning: Failed to attach to wpa_supplicant.\n");
        wlan_monitor_close_connection();
        return -1;
    }
    is_attached = true;
    return wpa_ctrl_get_fd(monitor_connection);
}

void wlan_monitor_reconnect() {
    if (is_connected())
        wlan_monitor_close_connection();
    if (wlan_monitor_open_connection(interface_name) >= 0)
        LOGI("\rConnection to wpa_supplicant re-established\n");
}

// --- events: monitor thread only -----------------------------------------------------------------

int count_pending() {
    return monitor_connection != nullptr ? wpa_ctrl_pending(monitor_connection) : 0;
}

bool contains(const char *text, const char *marker) {
    return strstr(text, marker) != nullptr;
}

// Behind "<3>", which tells the supplicant's own level of the event.
const char *skip_priority(const char *text) {
    const char *const end = text[0] == '<' ? strchr(text, '>') : nullptr;
    return end != nullptr ? end + 1 : text;
}

// Behind "IFNAME=wlan0 ", which the supplicant's global socket puts in front.
const char *skip_interface(const char *text) {
    const char *const blank = strncmp(text, "IFNAME=", 7) == 0 ? strchr(text, ' ') : nullptr;
    return blank != nullptr ? blank + 1 : text;
}

wlan_monitor_scan scan_change(const char *text) {
    if (contains(text, "CTRL-EVENT-SCAN-STARTED "))
        return wlan_monitor_scan::started;
    if (contains(text, "CTRL-EVENT-SCAN-RESULTS ") || contains(text, "CTRL-EVENT-SCAN-FAILED "))
        return wlan_monitor_scan::ended;
    return wlan_monitor_scan::unchanged;
}

void deliver(const wlan_monitor_message &message) {
    if (!message.is_forwarded)
        return;
    if (message.scan != wlan_monitor_scan::unchanged)
        pending_scan = message.scan == wlan_monitor_scan::started ? 1 : 0;
    if (event_callback != nullptr)
        event_callback(message.text);
}

void wlan_monitor_recv_pending() {
    if (!is_connected()) {
        wlan_monitor_reconnect();
        return;
    }
    while (count_pending() > 0) {
        std::array<char, kEventSize> datagram{};
        size_t length = datagram.size() - 1;
        if (wpa_ctrl_recv(monitor_connection, datagram.data(), &length) < 0) {
            LOGE("Could not read pending message.\n");
            break;
        }
        datagram[length] = '\0';
        const wlan_monitor_message message = wlan_monitor_parse(datagram.data());
        deliver(message);
        if (message.is_terminating && is_connected()) {
            LOGE("\rConnection to wpa_supplicant lost - trying to reconnect\n");
            is_attached = false;  // nobody is left to detach from
            wlan_monitor_close_connection();
            return;
        }
    }
    if (count_pending() < 0) {
        LOGE("Connection to wpa_supplicant lost - trying to reconnect\n");
        wlan_monitor_reconnect();
    }
}

// --- the thread ----------------------------------------------------------------------------------

// A signal that interrupts the wait starts the full time-out again; a stop request ends it as if
// the time were up.
int wait_for_event(int descriptor) {
    int ready;
    do
        ready = os_wait_readable_or(descriptor, stop.descriptor(), kSelectTimeoutMs);
    while (ready < 0 && errno == EINTR);
    return ready < 0 && errno == ECANCELED ? 0 : ready;
}

// The pause after a failed wait, which a stop request cuts short.
void pause_after_failure() {
    if (stop.descriptor() < 0)
        sleep(kAfterFailureMs / 1000);
    else
        os_wait_readable(stop.descriptor(), kAfterFailureMs);
}

void receive_until_stopped(int descriptor) {
    int failures = 0;
    for (;;) {
        const int ready = wait_for_event(descriptor);
        if (ready < 0 && failures < kToleratedSelectFailures) {
            LOGE("select failed, errno: %d", errno);
            failures++;
            pause_after_failure();
            if (stop.is_set())
                return;  // nothing is lost with a link that fails
            continue;
        }
        if (ready < 0)  // counts those that were tolerated, without the one that ends it
            LOGE("select failed %d times, closing connection", failures);
        // A failed wait leaves the descriptor marked readable, so the last one gets a pass as well:
        // a supplicant that is back by then is connected to, and left at once.
        if (ready != 0)
            wlan_monitor_recv_pending();
        if (ready < 0)
            stop.set();
        if (stop.is_set())
            return;
        failures = 0;
        // The supplicant that terminated took the descriptor with it; its number may soon be
        // somebody else's. Waiting for none fails the same way and ends the cycle.
        descriptor = monitor_connection != nullptr ? wpa_ctrl_get_fd(monitor_connection) : -1;
    }
}

int connect_to_supplicant() {
    if (is_connected())
        return -1;
    if (interface_name == nullptr) {
        LOGE("error - no ctrl-ifname");
        return -1;
    }
    const int descriptor = wlan_monitor_open_connection(interface_name);
    if (descriptor < 0 && !std::exchange(has_warned_of_connect, true))
        LOGE("Could not connect to wpa_supplicant: %s\n", interface_name);
    return descriptor;
}

// From one attach signal to the end of the connection it made.
void serve_attach() {
    if (is_leftover_stale.exchange(false) && is_connected())
        wlan_monitor_close_connection();
    if (stop.is_set())
        return;  // asked for after the signal: the supplicant is about to go
    const int descriptor = connect_to_supplicant();
    if (descriptor < 0) {
        LOGE("failed to connect to wpa_supplicant");
        return;
    }
    LOGI("wlan_monitor - Connection established.\n");
    receive_until_stopped(descriptor);
    if (is_connected())
        wlan_monitor_close_connection();
}

// --- commands: any thread ------------------------------------------------------------------------

void wlan_monitor_msg_cb(char *text, size_t) {
    LOGI("%s\n", text);
}

int report_request(int result, const char *command) {
    if (result == -2) {
        LOGE("'%s' command timed out.\n", command);
        return -2;
    }
    if (result < 0) {
        LOGE("'%s' command failed.\n", command);
        return -1;
    }
    return 0;
}

int wlan_monitor_ctrl_command(const char *command, char *reply, size_t size) {
    // Looked at before the reference is taken, which may wait for a link that is being opened: a
    // command that was given without a link fails, and is not sent on one that came meanwhile.
    const wpa_ctrl *const seen = command_connection;
    const CommandReference reference;
    if (seen == nullptr || reply == nullptr || size == 0) {
        LOGE("invalid parameters: ctrl = %p, cmd=%p (\"%s\"), buf=%p, buf_size = %ul\n",
             static_cast<const void *>(seen), static_cast<const void *>(command), command,
             static_cast<void *>(reply), static_cast<unsigned>(size));
        return -1;
    }
    wpa_ctrl *const connection = command_connection;
    if (connection == nullptr || stop.is_set()) {
        LOGE("Not connected to wpa_supplicant - command dropped.\n");
        return -1;
    }
    const std::lock_guard guard(request_lock);
    size_t length = size - 1;
    const int result =
        wpa_ctrl_request_within(connection, {kReplyMs, stop.descriptor()}, command, strlen(command),
                                reply, &length, wlan_monitor_msg_cb);
    if (result >= 0)
        reply[length] = '\0';
    return report_request(result, command);
}

int command_with_bssid(const char *verb, const char *bssid, char *reply, size_t size) {
    if (bssid == nullptr)
        return -1;
    std::array<char, 256> command{};
    snprintf(command.data(), command.size(), "%s %s", verb, bssid);
    return wlan_monitor_ctrl_command(command.data(), reply, size);
}

}  // namespace

wlan_monitor_message wlan_monitor_parse(const char *datagram) {
    const char *const text = skip_priority(skip_interface(datagram));
    return {.text = text,
            .is_forwarded = !contains(text, "CTRL-EVENT-BSS-ADDED ") &&
                            !contains(text, "CTRL-EVENT-BSS-REMOVED "),
            .scan = scan_change(text),
            .is_terminating = contains(skip_priority(datagram), "CTRL-EVENT-TERMINATING ")};
}

void wlan_monitor_init(const char *ifname, wlan_monitor_event_cb callback) {
    free(std::exchange(interface_name, nullptr));
    interface_name = pex_outlast_shortage([&] { return strdup(ifname); });
    if (interface_name == nullptr)
        LOGE("Failed to allocate memory for ifname: %s\n", ifname);
    event_callback = callback;
    wpa_ctrl_remove_abandoned();
}

void *wlan_monitor_main(void *) {
    if (os_program_init() != 0) {
        LOGE("os_program_init failed");
        return nullptr;
    }
    // Held but for the wait itself, so that whoever signals finds the thread waiting.
    const std::lock_guard guard(attach_lock);
    for (;;) {
        // No predicate, on purpose: one signal, one attempt. A signal before the first wait is
        // lost, and a spurious wake-up is an attempt that nobody asked for and does no harm.
        pthread_cond_wait(&attach_signal, attach_lock.native_handle());
        serve_attach();
    }
}

void wlan_monitor_signal_attach() {
    const std::lock_guard guard(attach_lock);
    // Cleared here, not when the thread wakes: a stop request that comes in between must stand.
    stop.clear();
    pthread_cond_signal(&attach_signal);
}

void wlan_monitor_signal_deattach() {
    is_leftover_stale = true;
    stop.set();
}

int wlan_monitor_ctrl_status(char *reply, size_t size) {
    return wlan_monitor_ctrl_command("STATUS", reply, size);
}
int wlan_monitor_ctrl_scan(char *reply, size_t size) {
    pending_scan = 1;  // whether or not the supplicant takes the command
    return wlan_monitor_ctrl_command("SCAN", reply, size);
}
int wlan_monitor_ctrl_get_scan_results(char *reply, size_t size) {
    return wlan_monitor_ctrl_command("SCAN_RESULTS", reply, size);
}
int wlan_monitor_ctrl_roam(const char *bssid, char *reply, size_t size) {
    const int result = command_with_bssid("PREAUTHENTICATE", bssid, reply, size);
    return result != 0 ? result : command_with_bssid("ROAM", bssid, reply, size);
}
int wlan_monitor_ctrl_disconnect(char *reply, size_t size) {
    return wlan_monitor_ctrl_command("DISCONNECT", reply, size);
}
int wlan_monitor_ctrl_reconnect(char *reply, size_t size) {
    return wlan_monitor_ctrl_command("RECONNECT", reply, size);
}
int wlan_monitor_ctrl_blacklist(const char *bssid, char *reply, size_t size) {
    return command_with_bssid("BLACKLIST", bssid, reply, size);
}
int wlan_monitor_ctrl_blacklist_show(char *reply, size_t size) {
    return wlan_monitor_ctrl_command("BLACKLIST", reply, size);
}

int wlan_monitor_ctrl_pending_scan() {
    return pending_scan;
}

void wpa_ctrl_conn_increment_ref_count() {
    const std::lock_guard guard(reference_lock);
    if (reference_count++ == 0)
        connection_lock.acquire();
}

void wpa_ctrl_conn_decrement_ref_count() {
    const std::lock_guard guard(reference_lock);
    if (reference_count > 0 && --reference_count == 0)
        connection_lock.release();
}
