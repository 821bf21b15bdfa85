#include "wpa_ctrl.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <string_view>

#include "owned.h"

namespace {

constexpr std::string_view kAbstractPrefix = "@abstract:";
constexpr int kReplyTimeoutMs = 10'000;
constexpr long kSendTimeoutS = 5;  // a full queue: the supplicant has stopped reading
constexpr int kSendPauseS = 1;
constexpr int kLastChanceMs = 200;  // in which a supplicant that lives has answered
constexpr wpa_ctrl_patience kUsualPatience{kReplyTimeoutMs, -1};

// Bind and connect always name the whole record: an abstract name is padded with zeros.
constexpr socklen_t kAddressLength = sizeof(sockaddr_un);
static_assert(kAddressLength == 110 && sizeof(sockaddr_un::sun_path) == 108);

// Makes the name of every handle's own socket unique within the process.
std::atomic<unsigned> opened_handles{0};

std::atomic<clockid_t> clock_choice{CLOCK_BOOTTIME};

bool name_local(sockaddr_un &local, const char *directory, unsigned number) {
    const bool is_absolute = directory != nullptr && directory[0] == '/';
    const int length =
        snprintf(local.sun_path, sizeof local.sun_path, "%s/wpa_ctrl_%d-%d",
                 is_absolute ? directory : "/tmp", getpid(), static_cast<int>(number));
    return length >= 0 && static_cast<size_t>(length) < sizeof local.sun_path;
}

bool bind_local(const Fd &socket, const sockaddr_un &local) {
    const auto try_bind = [&] {
        return bind(socket.get(), reinterpret_cast<const sockaddr *>(&local), kAddressLength) == 0;
    };
    if (try_bind())
        return true;
    if (errno != EADDRINUSE)
        return false;
    // Left by an earlier process with our id, before the robot's last crash.
    unlink(local.sun_path);
    return try_bind();
}

// The process in wpa_ctrl_PROCESS-NUMBER, or 0.
pid_t owner_of(std::string_view name) {
    constexpr std::string_view kPrefix = "wpa_ctrl_";
    pid_t process = 0;
    if (!name.starts_with(kPrefix))
        return 0;
    const char *const end = name.data() + name.size();
    const auto [rest, error] = std::from_chars(name.data() + kPrefix.size(), end, process);
    return error == std::errc() && rest != end && *rest == '-' && process > 0 ? process : 0;
}

bool name_destination(sockaddr_un &dest, const char *path) {
    const std::string_view name(path);
    if (!name.starts_with(kAbstractPrefix))
        return os_strlcpy(dest.sun_path, path, sizeof dest.sun_path) < sizeof dest.sun_path;
    os_strlcpy(dest.sun_path + 1, path + kAbstractPrefix.size(), sizeof dest.sun_path - 1);
    return true;
}

// A handle that stays blocking is still usable: every receive waits for readiness first.
void make_non_blocking(int socket) {
    const int flags = fcntl(socket, F_GETFL);
    if (flags >= 0 && fcntl(socket, F_SETFL, flags | O_NONBLOCK) < 0)
        perror("fcntl(ctrl->s, O_NONBLOCK)");
}

bool has_waited_too_long(const os_reltime &start) {
    os_reltime now{};
    os_get_reltime(&now);
    long seconds = now.sec - start.sec;
    long microseconds = now.usec - start.usec;
    if (microseconds < 0) {
        seconds--;
        microseconds += 1'000'000;
    }
    return seconds > kSendTimeoutS || (seconds == kSendTimeoutS && microseconds > 0);
}

// The pause before another try to send; false when there is to be none.
bool pause_sending(const wpa_ctrl_patience &patience) {
    if (patience.timeout_ms < kSendPauseS * 1000)
        return false;
    if (patience.cancel >= 0)
        return os_wait_readable(patience.cancel, kSendPauseS * 1000) == 0;
    os_sleep(kSendPauseS, 0);
    return true;
}

bool send_command(int socket, const wpa_ctrl_patience &patience, const char *command,
                  size_t length) {
    os_reltime start{};
    bool is_retry = false;
    while (send(socket, command, length, 0) < 0) {
        if (errno != EAGAIN && errno != EBUSY)
            return false;
        if (!is_retry)
            os_get_reltime(&start);
        else if (has_waited_too_long(start))
            return false;
        is_retry = true;
        if (!pause_sending(patience))
            return false;
    }
    return true;
}

// 0 when a datagram waits, -2 after the time-out without one, or the failed wait's result.
int wait_for_reply(int socket, const wpa_ctrl_patience &patience) {
    for (;;) {
        int ready = os_wait_readable_or(socket, patience.cancel, patience.timeout_ms);
        if (ready < 0 && errno == ECANCELED) {
            ready = os_wait_readable(socket, kLastChanceMs);
            if (ready == 0)
                return -1;
        }
        if (ready > 0)
            return 0;
        if (ready == 0)
            return -2;
        if (errno != EINTR)
            return ready;
    }
}

int subscribe(wpa_ctrl *ctrl, const wpa_ctrl_patience &patience, const char *command) {
    std::array<char, 10> reply;
    size_t length = reply.size();
    const int result = wpa_ctrl_request_within(ctrl, patience, command, strlen(command),
                                               reply.data(), &length, nullptr);
    if (result < 0)
        return result;
    return std::string_view(reply.data(), length) == "OK\n" ? 0 : -1;
}

}  // namespace

wpa_ctrl *wpa_ctrl_open2(const char *ctrl_path, const char *cli_path) {
    if (ctrl_path == nullptr)
        return nullptr;
    Malloced<wpa_ctrl> ctrl(static_cast<wpa_ctrl *>(os_zalloc(sizeof(wpa_ctrl))));
    Fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!ctrl || !socket)
        return nullptr;

    const unsigned number = ++opened_handles;
    ctrl->local.sun_family = AF_UNIX;
    if (!name_local(ctrl->local, cli_path, number) || !bind_local(socket, ctrl->local))
        return nullptr;

    ctrl->dest.sun_family = AF_UNIX;
    if (!name_destination(ctrl->dest, ctrl_path))
        return nullptr;  // the bound file stays: who gets our id next takes it over (bind_local)
    if (connect(socket.get(), reinterpret_cast<sockaddr *>(&ctrl->dest), kAddressLength) < 0) {
        unlink(ctrl->local.sun_path);
        return nullptr;
    }
    make_non_blocking(socket.get());
    ctrl->s = socket.release();
    return ctrl.release();
}

wpa_ctrl *wpa_ctrl_open(const char *ctrl_path) {
    return wpa_ctrl_open2(ctrl_path, nullptr);
}

void wpa_ctrl_remove_abandoned() {
    const Directory folder(opendir("/tmp"));
    if (!folder)
        return;
    while (const dirent *entry = readdir(folder.get())) {
        const pid_t owner = owner_of(entry->d_name);
        struct stat found = {};
        if (owner != 0 && kill(owner, 0) != 0 && errno == ESRCH &&
            fstatat(dirfd(folder.get()), entry->d_name, &found, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISSOCK(found.st_mode))
            unlinkat(dirfd(folder.get()), entry->d_name, 0);
    }
}

void wpa_ctrl_close(wpa_ctrl *ctrl) {
    if (ctrl == nullptr)
        return;
    const Malloced<wpa_ctrl> memory(ctrl);
    const Fd socket(ctrl->s);
    unlink(ctrl->local.sun_path);
}

int wpa_ctrl_request_within(wpa_ctrl *ctrl, const wpa_ctrl_patience &patience, const char *cmd,
                            size_t cmd_len, char *reply, size_t *reply_len,
                            wpa_ctrl_msg_cb msg_cb) {
    errno = 0;
    if (!send_command(ctrl->s, patience, cmd, cmd_len))
        return -1;
    for (;;) {
        if (const int result = wait_for_reply(ctrl->s, patience); result < 0)
            return result;
        const ssize_t received = recv(ctrl->s, reply, *reply_len, 0);
        if (received < 0)
            return static_cast<int>(received);
        const auto length = static_cast<size_t>(received);
        if (length == 0 || reply[0] != '<') {
            *reply_len = length;
            return 0;
        }
        if (msg_cb == nullptr)
            continue;
        const size_t text_length = std::min(length, *reply_len - 1);  // room for the terminator
        reply[text_length] = '\0';
        msg_cb(reply, text_length);
    }
}

int wpa_ctrl_attach_within(wpa_ctrl *ctrl, const wpa_ctrl_patience &patience) {
    return subscribe(ctrl, patience, "ATTACH");
}
int wpa_ctrl_detach_within(wpa_ctrl *ctrl, const wpa_ctrl_patience &patience) {
    return subscribe(ctrl, patience, "DETACH");
}

int wpa_ctrl_request(wpa_ctrl *ctrl, const char *cmd, size_t cmd_len, char *reply,
                     size_t *reply_len, wpa_ctrl_msg_cb msg_cb) {
    return wpa_ctrl_request_within(ctrl, kUsualPatience, cmd, cmd_len, reply, reply_len, msg_cb);
}
int wpa_ctrl_attach(wpa_ctrl *ctrl) {
    return wpa_ctrl_attach_within(ctrl, kUsualPatience);
}
int wpa_ctrl_detach(wpa_ctrl *ctrl) {
    return wpa_ctrl_detach_within(ctrl, kUsualPatience);
}

int wpa_ctrl_recv(wpa_ctrl *ctrl, char *reply, size_t *reply_len) {
    const ssize_t received = recv(ctrl->s, reply, *reply_len, 0);
    if (received < 0)
        return static_cast<int>(received);
    *reply_len = static_cast<size_t>(received);
    return 0;
}

int wpa_ctrl_pending(wpa_ctrl *ctrl) {
    // A failed check counts as readable: the receive that follows meets the error and reports it.
    return os_wait_readable(ctrl->s, 0) != 0 ? 1 : 0;
}

int wpa_ctrl_get_fd(wpa_ctrl *ctrl) {
    return ctrl->s;
}

int os_program_init() {
    return 0;
}

int os_get_reltime(os_reltime *time) {
    for (;;) {
        const clockid_t clock = clock_choice;
        timespec now{};
        if (clock_gettime(clock, &now) == 0) {
            *time = {static_cast<long>(now.tv_sec), now.tv_nsec / 1000};
            return 0;
        }
        if (clock == CLOCK_REALTIME)
            return -1;
        clock_choice = clock == CLOCK_BOOTTIME ? CLOCK_MONOTONIC : CLOCK_REALTIME;
    }
}

void os_sleep(long sec, long usec) {
    if (sec != 0)
        sleep(static_cast<unsigned>(sec));
    if (usec != 0)
        usleep(static_cast<useconds_t>(usec));
}

void *os_zalloc(size_t size) {
    return calloc(1, size);
}

size_t os_strlcpy(char *dest, const char *src, size_t size) {
    const size_t length = strlen(src);
    if (size != 0) {
        const size_t copied = std::min(length, size - 1);
        memcpy(dest, src, copied);
        dest[copied] = '\0';
    }
    return length;
}

int os_wait_readable(int fd, int timeout_ms) {
    return os_wait_readable_or(fd, -1, timeout_ms);
}

int os_wait_readable_or(int fd, int cancel, int timeout_ms) {
    if (fd < 0) {
        errno = EBADF;
        return -1;
    }
    pollfd entries[] = {{fd, POLLIN, 0}, {cancel, POLLIN, 0}};  // the kernel skips a negative one
    const int ready = poll(entries, std::size(entries), timeout_ms);
    if (ready <= 0)
        return ready;
    if ((entries[0].revents & POLLNVAL) != 0) {
        errno = EBADF;
        return -1;
    }
    if (entries[0].revents != 0)
        return 1;
    errno = ECANCELED;
    return -1;
}
