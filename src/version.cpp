#include "version.h"

#include <algorithm>
#include <cstdio>

#include "build_identity.h"
#include "log.h"

#define LOG_SOURCE "src/version"

namespace {

constexpr char kName[] = "Connectivity Module";
constexpr int32_t kSmallestCapacity = 256;
constexpr int kModified = 0;

size_t room(const version_record &record) {
    return std::min(static_cast<size_t>(record.capacity), sizeof record.text);
}

}  // namespace

int getVersion(version_record *record) {
    if (record->capacity < kSmallestCapacity) {
        LOGE("Version length of %s found to be less than expected", kName);
        return -1;
    }
    snprintf(record->text, room(*record), "%s-%s@%s/%s", NETWARDEN_VERSION, NETWARDEN_BRANCH,
             NETWARDEN_HASH, "");
    return 0;
}

int getVersionDetails(version_record *record) {
    if (record->capacity < kSmallestCapacity) {
        LOGE("Version length of %s found to be less than expected!", kName);
        return -1;
    }
    snprintf(record->text, room(*record),
             " Jenkins Job Number: %d\n"
             " Branch: %s\tHash: %s...\tModified: %d\n"
             " Build Machine: %s Builder: %s Build Date: %s\n",
             NETWARDEN_BUILD_JOB, NETWARDEN_BRANCH, NETWARDEN_HASH, kModified,
             NETWARDEN_BUILD_MACHINE, NETWARDEN_BUILDER, NETWARDEN_BUILD_DATE);
    return 0;
}

void logVersion() {
    version_record record{sizeof record.text, {}};
    if (getVersion(&record) == 0)
        LOGI("%s version: %s", kName, record.text);
    else
        LOGE("Could not retrieve the version of the %s application", kName);
}

void logVersionDetails() {
    version_record record{sizeof record.text, {}};
    if (getVersionDetails(&record) == 0)
        LOGI("%s\n", record.text);
}
