// The regulatory domain, against a script that keeps what the shell passed it and a kernel that
// says what the test wants.
#include "wifi_regdom_utils.h"

#include <fcntl.h>
#include <sys/syscall.h>

#include <cstdarg>
#include <filesystem>

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
    const struct {
        const char *value, *kernel, *domain;
        int result;
    } rows[] = {{"FCC", "", "US", 0},     {"China", "", "CN", 0}, {"ETSI", "", "WO", 0},
                {"JAPAN", "", "JP", 0},   {"APAC", "", "WO", 0},  {"Taiwan", "", "TW", 0},
                {"LATAM", "", "WO", 0},   {"1", "", "US", 0},     {"", "", "US", 0},
                {"j", "", "JP", 0},       {"ch", "", "CN", 0},    {"e", "", "WO", 0},
                {"us", "US", "US", 0},    {"00", "00", "00", 0},  {"eu", "EU", "EU", 0},
                {"az", "AZ", "AZ", 0},    {"ZA", "ZA", "ZA", 0},  {"de", "US", "#", -1},
                {"U1", "", "#", -1},      {"1U", "", "#", -1},    {"USA", "", "#", -1},
                {"FCCX", "", "#", -1},    {"[a", "", "#", -1},    {"a@", "", "#", -1},
                {"`a", "", "#", -1},      {"a{", "", "#", -1},    {"\xc3\x9f", "", "#", -1},
                {";reboot", "", "#", -1}, {nullptr, "", "#", -1}};
    const std::string apply = "sudo provision --clregdomain ", reset = apply + "\"#\" \n";
    const std::string report = "sudo provision | grep CL\\ REG\\ DOMAIN";
    for (const auto &row : rows) {
        const char *const name = row.value != nullptr ? row.value : "(null)";
        const bool is_country = *row.kernel != '\0', is_refused = *row.domain == '#';
        write_file("/tmp/kernel", row.kernel);
        forget_commands();
        EXPECT_EQ(wifi_regdom_utils_set_regdomain(row.value), row.result) << name;
        EXPECT_EQ(read_file("/tmp/domain"), std::string(row.domain) + "\n") << name;
        const std::string asked = name == std::string("de") ? "DE" : row.domain;
        Lines expected{is_refused && !is_country ? reset : apply + asked + " \n", report};
        if (is_country)
            expected.insert(expected.end(),
                            {"sudo ifdown wlan0", "sleep 1", "sudo ifup wlan0",
                             "iw reg get | awk '/country/ {print $2}' | cut -d ':' -f1"});
        if (is_refused && is_country)
            expected.push_back(reset);
        EXPECT_EQ(commands(), expected) << name;
    }
    EXPECT_TRUE(logged("not valid ISO country code, searched for \"DE\" in \"US"));
    EXPECT_EQ(times_logged("unexpected string for ISO country code"), 10);
}

TEST_F(Regdom, StepsThatFailAreNoDomain) {
    const std::tuple<const char *, const char *, const char *> rows[] = {
        {"iw", "exit 1", "fgets() failed"},
        {"ifup", "exit 1", "cmd sudo ifup wlan0 returned status 1"},
        {"ifdown", "exit 1", "cmd sudo ifdown wlan0 returned status 1"},
        {"provision", "echo CL REG DOMAIN XX", "Unexpected provision script output"},
        {"provision", "exit 0", "fgets() failed"},
        {"provision", "exit 3", "system_cmd failed"}};
    write_file("/tmp/kernel", "US");
    for (const auto &[tool, script, text] : rows) {
        fake(tool, script);
        forget_log();
        EXPECT_EQ(wifi_regdom_utils_set_regdomain("US"), -1) << tool;
        EXPECT_EQ(times_logged(text), 1) << text;
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
    const std::string end("I\0", 2), old = "\3BR", patched = "\3\60\60";
    write_file(file, old + end + "\3" + old + "I");
    EXPECT_EQ(wifi_regdom_utils_patch_nv_file(), 0);
    EXPECT_EQ(read_file(file), patched + end + "\3" + patched + "I");
    EXPECT_EQ(read_file(file + ".bak"), patched + end + "\3" + old + "I");
    for (const char *read : {"read 10 bytes of 10 from", "read 0 bytes of 10 from"})
        EXPECT_TRUE(logged_as("INFO", read)) << log_text();
    write_file(file, old + "I");
    for (const std::string &refusing : {file + ".bak", file}) {  // a folder cannot be written to
        std::filesystem::remove_all(refusing);
        std::filesystem::create_directory(refusing);
        EXPECT_EQ(wifi_regdom_utils_patch_nv_file(), -1) << refusing;
    }
}

}  // namespace
