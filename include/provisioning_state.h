// The record of provisioning that every thread reads: the state, and the done flag with which the
// Wi-Fi state learns that a provisioning succeeded.
#pragma once

enum provisioning_state : int {
    PS_NONE = 0,
    WAITING_FOR_NETWORK_CONFIG_RX = 1,
    WAITING_FOR_WACTIVATE = 2,
    WAITING_FOR_DHCP_COMPLETE = 3,
    WAITING_FOR_IP_DONE = 4,
    TRAINING_MODE = 5,
    // The factory's test of the Wi-Fi waits for a network as the owner's provisioning does: it is
    // the same state, under the same name in the log.
    MANUFACTURING_TEST = WAITING_FOR_NETWORK_CONFIG_RX,
};

// Any thread.
provisioning_state provisioning_get_state();

// The only writer of the state; says a change by its names. Main thread only.
void provisioning_enter_state(provisioning_state next);

// As the log has it.
const char *provisioning_state_name(provisioning_state value);

// Non-zero in the states 1 to 4. Any thread.
int is_robot_provisioning();

// Non-zero exactly in TRAINING_MODE. Any thread.
int is_robot_training();

// The done flag: a Wi-Fi state update is awaited after a provisioning that succeeded. Reading
// does not clear it; a set keeps the low byte. Any thread.
int is_wifi_state_update_after_prov_done();
void set_wifi_state_update_after_prov_done(int value);
