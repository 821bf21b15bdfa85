// What the supplicant tells of the station's connection.
#pragma once

// The key management of the current connection, freed by the caller, or null. Any thread.
char *get_key_mgmt_protocol();
