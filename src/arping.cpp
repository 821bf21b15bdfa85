#include "arping.h"

#include <cstring>

std::optional<std::string_view> arping_reply(const char *line, arping_peer peer) {
    const bool is_gateway = peer == arping_peer::gateway;
    if (is_gateway && strstr(line, "Unicast") == nullptr)
        return std::nullopt;
    // At the start of the gateway's line brackets open nothing.
    const char *const open = strchr(is_gateway ? line + strspn(line, "[") : line, '[');
    if (open == nullptr)
        return std::nullopt;
    const char *const text = open + 1 + (is_gateway ? strspn(open + 1, "]") : 0);
    const size_t length = strcspn(text, "]");
    if (is_gateway ? length == 0 : text[length] == '\0')
        return std::nullopt;
    return std::string_view(text, length);
}
