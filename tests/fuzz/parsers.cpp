// One program for many parsers: the folder of seeds that is its last argument, or that a seed lies
// in, names the one that is fed.
#include "parsers.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "border.h"

namespace {

struct parser {
    std::string_view name;
    void (*feed)(std::string_view text);
};
constexpr parser kParsers[] = {
    {"arping_of_device", arping_of_device},
    {"arping_of_gateway", arping_of_gateway},
    {"broker_address", broker_address},
    {"client_text", client_text},
    {"current_access_point", current_access_point},
    {"dhcp_client_pid", dhcp_client_pid},
    {"discovery_description", discovery_description},
    {"key_management", key_management},
    {"link_status", link_status},
    {"name_servers", name_servers},
    {"next_cleaning", next_cleaning},
    {"product_version", product_version},
    {"radio_nv_file", radio_nv_file},
    {"regulatory_domain", regulatory_domain},
    {"signal_and_noise", signal_and_noise},
    {"soft_ap_stations", soft_ap_stations},
    {"static_addresses", static_addresses},
    {"supplicant_config", supplicant_config},
    {"tarn_topic", tarn_topic},
};

const parser *chosen = nullptr;

const parser *parser_of(std::string_view path) {
    for (const parser &row : kParsers)
        if (path.ends_with("/" + std::string(row.name)) ||
            path.find("/" + std::string(row.name) + "/") != path.npos)
            return &row;
    return nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv) {
    chosen = parser_of((*argv)[*argc - 1]);
    // Files are written where the daemon reads them: only in a robot of its own.
    if (chosen == nullptr || access("/run/fakes/dash", X_OK) != 0) {
        fprintf(stderr, "run through tests/sandbox, with the folder of a parser's seeds\n");
        exit(2);
    }
    mkdir("/tmp/persist", 0755);
    border::open();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    border::reset();
    const std::string text(reinterpret_cast<const char *>(data), size);
    chosen->feed(text);
    return 0;
}
