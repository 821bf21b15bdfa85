// The daemon's own build identity.
#pragma once

#include <cstdint>

// The caller sets `capacity` to the bytes that the text area really has, 256 at least.
struct version_record {
    int32_t capacity;
    char text[256];
};

// Version line, and the three lines of build details. 0, or -1 for too small a capacity.
int getVersion(version_record *record);
int getVersionDetails(version_record *record);

// --- offered to the robot's other programs; the daemon itself calls none of these ---------------

// The same into the log at INFO.
void logVersion();
void logVersionDetails();
