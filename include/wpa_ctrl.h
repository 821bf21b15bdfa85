// Client end of the supplicant's control interface: text commands and replies over a Unix datagram
// socket, with unsolicited events that begin with '<'. A handle is used by one thread at a time.
#pragma once

#include <sys/un.h>

#include <cstddef>

struct wpa_ctrl {
    int s;
    sockaddr_un local;
    sockaddr_un dest;
};

struct os_reltime {
    long sec;
    long usec;
};

using wpa_ctrl_msg_cb = void (*)(char *text, size_t length);

// Connects to the supplicant's socket; a path that begins with "@abstract:" names the abstract
// namespace. The client's socket lies in `cli_path` when that begins with '/', else in /tmp.
// Null on failure; closed with wpa_ctrl_close.
wpa_ctrl *wpa_ctrl_open2(const char *ctrl_path, const char *cli_path);
wpa_ctrl *wpa_ctrl_open(const char *ctrl_path);
void wpa_ctrl_close(wpa_ctrl *ctrl);  // null is allowed

// Removes from /tmp the sockets of processes that were killed and so could not: each restart would
// leave two. Any thread.
void wpa_ctrl_remove_abandoned();

// How long an exchange with the supplicant may take: at most `timeout_ms` for the reply, and at
// most 0.2 s from when the descriptor `cancel` (-1: none) is readable, which counts as a failure
// (-1).
struct wpa_ctrl_patience {
    int timeout_ms;
    int cancel;
};
// Sends a command and waits for the reply, which is not terminated. Events that come in between go
// to `msg_cb` or are dropped. 0, -1 send or receive failure, -2 time-out.
int wpa_ctrl_request_within(wpa_ctrl *ctrl, const wpa_ctrl_patience &patience, const char *cmd,
                            size_t cmd_len, char *reply, size_t *reply_len, wpa_ctrl_msg_cb msg_cb);

// Subscribes to events, and ends that. 0 for the answer "OK\n", else negative.
int wpa_ctrl_attach_within(wpa_ctrl *ctrl, const wpa_ctrl_patience &patience);
int wpa_ctrl_detach_within(wpa_ctrl *ctrl, const wpa_ctrl_patience &patience);

// Takes one datagram without waiting. 0, or negative with `*reply_len` untouched.
int wpa_ctrl_recv(wpa_ctrl *ctrl, char *reply, size_t *reply_len);

// 1 when a datagram waits, else 0; never negative.
int wpa_ctrl_pending(wpa_ctrl *ctrl);

int wpa_ctrl_get_fd(wpa_ctrl *ctrl);

// What the client needs of the operating system.
int os_program_init();                 // always 0
int os_get_reltime(os_reltime *time);  // 0, or -1 when no clock works
void os_sleep(long sec, long usec);
void *os_zalloc(size_t size);
size_t os_strlcpy(char *dest, const char *src, size_t size);  // the length of `src`
// What select says of one descriptor, for any descriptor number: 1 when reading would not block, 0
// after the time-out, -1 with errno set (EBADF for a closed or negative one).
int os_wait_readable(int fd, int timeout_ms);
// The same, and -1 with errno ECANCELED as soon as `cancel` (-1: none) is readable and `fd` is not.
int os_wait_readable_or(int fd, int cancel, int timeout_ms);

// --- offered to the robot's other programs; the daemon itself calls none of these ---------------

// As the three above with a patience of 10 s.
int wpa_ctrl_request(wpa_ctrl *ctrl, const char *cmd, size_t cmd_len, char *reply,
                     size_t *reply_len, wpa_ctrl_msg_cb msg_cb);
int wpa_ctrl_attach(wpa_ctrl *ctrl);
int wpa_ctrl_detach(wpa_ctrl *ctrl);
