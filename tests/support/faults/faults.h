// Calls of the daemon into the C library that fail once. The program that these are linked into has
// them in front of the C library's own; they do what those do until faults_arm.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string_view>

enum fault_kind : uint8_t {
    FAULT_MEMORY,   // malloc, calloc, realloc, and with them strdup, operator new and all libraries
    FAULT_CRYPTO,   // the same in libcrypto, which asks 65,000 times for the key of a network
    FAULT_PROCESS,  // fork, system, popen
    FAULT_THREAD,   // pthread_create
    FAULT_FILE,     // open, fopen, fdopen, opendir
    FAULT_SOCKET,   // socket, socketpair, eventfd
    FAULT_WRITE,    // write, fdatasync, and fclose, which loses what was written
};
inline constexpr std::array<std::string_view, 7> kFaultKinds{
    "memory", "crypto", "process", "thread", "file", "socket", "write"};
static_assert(kFaultKinds.size() == FAULT_WRITE + 1);

// In a file that outlives the process that counts.
struct fault_record {
    std::array<std::atomic<uint32_t>, kFaultKinds.size()> calls;
    std::atomic<bool> has_failed;
};
inline constexpr char kFaultRecord[] = "/tmp/faults";
inline constexpr char kFaultPlace[] = "/tmp/fault_place";  // the stack of the call that failed
inline constexpr char kFaultVariable[] = "INNER_FAULT";    // "memory:17"; none fails without it

// The record, made when there is none; null when it cannot be.
fault_record *faults_open_record();

// From now on calls are counted, and the one that the environment names fails. False for an
// environment that names none there is.
bool faults_arm();
