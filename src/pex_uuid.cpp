#include "pex_uuid.h"

#include <uuid/uuid.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "owned.h"

// A file of its own, so that only a program that asks for it needs libuuid; it logs with the other
// helpers' source.
#define LOG_SOURCE "src/pex_misc"

char *pex_generate_uuid_malloc() {
    constexpr size_t kSize = 33;
    MallocText text(static_cast<char *>(calloc(1, kSize)));
    if (!text) {
        // Used by tools that have no log of their own.
        log_format(nullptr, LOG_LEVEL_ERROR, LOG_SOURCE, __LINE__, "could not allocate memory");
        return nullptr;
    }
    uuid_t id;
    std::array<char, UUID_STR_LEN> dashed{};
    uuid_generate(id);
    uuid_unparse_upper(id, dashed.data());
    std::remove_copy(dashed.data(), dashed.data() + strlen(dashed.data()), text.get(), '-');
    return text.release();
}
