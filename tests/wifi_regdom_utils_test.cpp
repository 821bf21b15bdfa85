// The regulatory domain, against a script that keeps what the shell passed it and a kernel that
// says what the test wants.
#include "wifi_regdom_utils.h"

#include "wifi_robot.h"

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
    static std::string apply(const std::string &code) {
        return "sudo provision --clregdomain " + code + " \n";
    }
    static Lines commands_of(const char *value, int result) {
        forget_commands();
        EXPECT_EQ(wifi_regdom_utils_set_regdomain(value), result);
        return commands();
    }
    const std::string report_ = "sudo provision | grep CL\\ REG\\ DOMAIN", reset_ = apply("\"#\"");
};

TEST_F(Regdom, RegionsByPrefixCountriesByTheKernel) {
    const std::string asked = "iw reg get | awk '/country/ {print $2}' | cut -d ':' -f1";
    using Row = std::pair<const char *, std::string>;
    for (const auto &[region, code] : {Row("FCC", "US"),
                                       {"China", "CN"},
                                       {"ETSI", "WO"},
                                       {"JAPAN", "JP"},
                                       {"APAC", "WO"},
                                       {"Taiwan", "TW"},
                                       {"LATAM", "WO"},
                                       {"1", "US"},
                                       {"", "US"},
                                       {"j", "JP"},
                                       {"ch", "CN"},
                                       {"e", "WO"}})
        EXPECT_EQ(commands_of(region, 0), (Lines{apply(code), report_})) << region;
    for (const auto &[country, code] :
         {Row("us", "US"), {"00", "00"}, {"eu", "EU"}, {"az", "AZ"}, {"ZA", "ZA"}, {"de", "DE"}}) {
        const bool is_known = code != "DE";
        write_file("/tmp/kernel", is_known ? code : "US");
        Lines expected{apply(code), report_,           "sudo ifdown wlan0",
                       "sleep 1",   "sudo ifup wlan0", asked};
        if (!is_known)
            expected.push_back(reset_);
        EXPECT_EQ(commands_of(country, is_known ? 0 : -1), expected) << country;
    }
    EXPECT_EQ(times_logged("not valid ISO country code, searched for \"DE\" in \"US"), 1);
    for (const char *nothing : {"U1", "1U", "USA", "FCCX", "[a", "a@", "`a", "a{", "\xc3\x9f",
                                ";reboot", static_cast<const char *>(nullptr)})
        EXPECT_EQ(commands_of(nothing, -1), (Lines{reset_, report_}));
    EXPECT_EQ(times_logged("unexpected string for ISO country code"), 10);
    EXPECT_EQ(read_file("/tmp/domain"), "#\n");
}

TEST_F(Regdom, StepsThatFailAreNoDomain) {
    write_file("/tmp/kernel", "US");
    for (const auto &[tool, script, text] :
         {std::tuple("iw", "exit 1", "fgets() failed"),
          {"ifup", "exit 1", "cmd sudo ifup wlan0 returned status 1"},
          {"ifdown", "exit 1", "cmd sudo ifdown wlan0 returned status 1"},
          {"provision", "echo CL REG DOMAIN XX", "Unexpected provision script output"},
          {"provision", "exit 0", "fgets() failed"},
          {"provision", "exit 3", "system_cmd failed"}}) {
        fake(tool, script);
        forget_log();
        EXPECT_EQ(wifi_regdom_utils_set_regdomain("US"), -1) << tool;
        EXPECT_EQ(times_logged(text), 1) << text;
    }
}

}  // namespace
