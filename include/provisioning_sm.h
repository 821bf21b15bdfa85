// The machine that moves the robot through provisioning and training: events are posted by any
// thread into a ring and executed by the next tick of the main thread.
#pragma once

enum provisioning_event : int {
    PE_NONE = 0,
    MFG_WIFI_TEST = 1,
    TRAIN_START = 2,
    TRAIN_DISCONNECT = 3,
    TRAIN_CONNECT = 4,
    TRAIN_ABORT = 5,
    TRAIN_END = 6,
    PROVISIONING_ACTIVATED = 7,
    PROVISIONING_TIMEOUT = 8,
    PROVISIONING_ABORT = 9,
    PROVISIONING_NETWORK_CONFIG_RX = 10,
    PROVISIONING_NETWORK_STATIC_CONFIG_RX = 11,
    PROVISIONING_WACTIVATED = 12,
    PROVISIONING_DHCP_COMPLETE = 13,
    PROVISIONING_RETRY_PASSWORD = 14,
    PROVISIONING_ERROR = 15,
    PROVISIONING_COMPLETE = 16,
};

// Posts an event for the next tick. Never checks for a full ring: seven posts between two ticks
// are executed, the eighth makes the ring look empty. Any thread.
void provisioning_state_machine(int event);

// Sets the Wi-Fi state to `code` and posts PROVISIONING_ERROR. Any thread.
void provisioning_handle_error(int code);

// Executes what was posted; `now` in monotonic seconds. Main thread, about once a second.
void provisioning_timer_tick(long now);
