// The regulatory domain, against a script that keeps what the shell passed it and a kernel that
// says what the test wants.
#include <fcntl.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cstdarg>

#include "wifi_regdom_utils.h"
#include "wifi_robot.h"

// The radio's NV file lies on a partition of its own, which the tests have in /tmp.
extern "C" int open(const char *path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const std::string place = std::string(path).starts_with("/persist/") ? "/tmp" : "";
    const long result = syscall(SYS_openat, AT_FDCWD, (place + path).c_str(), flags,
                                (flags & O_CREAT) != 0 ? va_arg(rest, int) : 0);
    va_end(rest);
    return static_cast<int>(result);
}

namespace {

class Regdom : public WifiRobot {
  protected:
    void SetUp() override {
        WifiRobot::SetUp();
        fake("provision",
             "[ \"$1\" = --clregdomain ] && echo \"$2\" >/tmp/domain\n"
             "echo CL REG DOMAIN \"$(cat /tmp/domain)\"");
        fake("iw", "echo \"country $(cat /tmp/kernel): DFS-UNSET\"");
    }
};

TEST_F(Regdom, RegionsByPrefixCountriesByTheKernel) {
    struct {
        const char *value;
        const char *kernel;
        const char *domain;
        int result;
        bool restarts;
    } const cases[] = {
        {"us", "US", "US", 0, true},     {"00", "00", "00", 0, true},
        {"Japan", "", "JP", 0, false},   {"j", "", "JP", 0, false},
        {"ch", "", "CN", 0, false},      {"e", "", "WO", 0, false},
        {"", "", "US", 0, false},        {"eu", "EU", "EU", 0, true},
        {"de", "US", "#", -1, true},     {"U1", "", "#", -1, false},
        {"USA", "", "#", -1, false},     {"\xc3\x9f", "", "#", -1, false},
        {";reboot", "", "#", -1, false}, {nullptr, "", "#", -1, false},
    };
    for (const auto &row : cases) {
        const char *const name = row.value != nullptr ? row.value : "(null)";
        write_file("/tmp/kernel", row.kernel);
        forget_commands();
        EXPECT_EQ(wifi_regdom_utils_set_regdomain(row.value), row.result) << name;
        EXPECT_EQ(read_file("/tmp/domain"), std::string(row.domain) + "\n") << name;
        EXPECT_EQ(std::ranges::count(commands(), "sudo ifup wlan0"), row.restarts) << name;
    }
    EXPECT_TRUE(logged("not valid ISO country code, searched for \"DE\" in \"US"));
    EXPECT_EQ(times_logged("unexpected string for ISO country code"), 4);
}

TEST_F(Regdom, ScriptsThatFailAreNoDomain) {
    for (const auto &[script, text] : {std::pair{"exit 3", "system_cmd failed"},
                                       {"exit 0", "fgets() failed"},
                                       {"echo CL REG DOMAIN XX", "Unexpected provision script"}}) {
        fake("provision", script);
        EXPECT_EQ(wifi_regdom_utils_set_regdomain("FCC"), -1);
        EXPECT_TRUE(logged(text)) << text;
    }
}

TEST_F(Regdom, EveryPatternOfTheNvFileIsPatched) {
    const std::string file = "/tmp/persist/WCNSS_qcom_wlan_nv.bin";
    EXPECT_EQ(wifi_regdom_utils_patch_nv_file(), -1);
    EXPECT_TRUE(logged("error opening nv file"));
    for (const std::string &nothing :
         {std::string(), std::string("\3BR"), std::string(4096, '\3')}) {
        write_file(file, nothing);
        EXPECT_EQ(wifi_regdom_utils_patch_nv_file(), -1);
        EXPECT_EQ(read_file(file), nothing);
        EXPECT_EQ(read_file(file + ".bak"), "<none>");
    }
    EXPECT_TRUE(logged("can't read"));
    const std::string zero(1, '\0');
    write_file(file,
               "\3"
               "BRI" +
                   zero +
                   "\3\3"
                   "BRI");
    EXPECT_EQ(wifi_regdom_utils_patch_nv_file(), 0);
    EXPECT_EQ(read_file(file),
              "\3"
              "00I" +
                  zero +
                  "\3\3"
                  "00I");
    EXPECT_EQ(read_file(file + ".bak"),
              "\3"
              "00I" +
                  zero +
                  "\3\3"
                  "BRI");
    for (const char *read : {"read 10 bytes of 10 from", "read 0 bytes of 10 from"})
        EXPECT_TRUE(logged_as("INFO", read)) << log_text();
}

}  // namespace
