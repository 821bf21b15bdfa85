// Tells whoever supervises the daemon (a systemd, or anything that speaks its notification
// protocol, sd_notify(3)) how it is: one datagram of NAME=VALUE lines to the socket that the
// environment names.
#pragma once

// Takes NOTIFY_SOCKET out of the environment, so that no program the daemon runs speaks in its
// name, and says READY=1. Without that variable, or with one that names no Unix socket, nothing is
// ever sent. Once, before any thread is started.
void service_manager_ready();

// STATUS=`words`, of which 200 bytes are told, and WATCHDOG=1 unless the daemon hangs. Never
// blocks: a manager that does not read misses it. The thread of service_manager_ready.
void service_manager_tell(const char *words, bool hangs = false);
