// The connect: the network blocks of a secret, the steps' order, and what is left when one fails.
#include "wifi_connect.h"

#include <sys/stat.h>

#include "pex_misc.h"
#include "wifi_robot.h"
#include "wifi_settings.h"
#include "wifi_state.h"

namespace {

constexpr char kFile[] = "/etc/wpa_supplicant.conf";
constexpr char kSource[] = "src/wifi_control";
constexpr char kSsid[] = "49454545";  // "IEEE"
const std::string kSteps = "sudo ifdown wlan0\nsleep 1\nsudo ifup wlan0\n";
const std::string kBlock = "network={\n\tssid=49454545\n\t";
const std::string kDefaults =
    "eapol_version=1\nfast_reauth=1\nap_scan=1\nfilter_ssids=1\n"
    "ctrl_interface=/var/run/wpa_supplicant\nctrl_interface_group=apps\n";

std::string psk_block(const std::string &psk) {
    return kBlock + "psk=" + psk + "\n\tpriority=2\n\tscan_ssid=1\n}\n";
}
std::string passphrase_block(const std::string &passphrase) {
    char psk[65];
    EXPECT_EQ(wpa_passphrase("IEEE", passphrase.c_str(), psk, sizeof psk), 0);
    return psk_block(psk);
}
std::string wep_block(const std::string &key) {
    return kBlock + "wep_key0=" + key +
           "\n\twep_tx_keyidx=0\n\tkey_mgmt=NONE\n\tpriority=1\n\tscan_ssid=1\n}\n";
}

class Connect : public WifiRobot {
  protected:
    Connect() { tell_stories(); }
    // Connects with these pending settings, which must fail with that code; 0 for none.
    static void connect(const std::string &ssid, const std::string &secret, int expected_code = 0) {
        int32_t code = -1;
        wifictl_set_ssid(ssid.c_str());
        wifictl_set_pass(secret.c_str());
        EXPECT_EQ(wifi_network_connect(&code, 0), expected_code == 0 ? 0 : -1);
        EXPECT_EQ(code, expected_code == 0 ? -1 : expected_code);
    }
};

TEST_F(Connect, EverySecretBecomesTheBlocksOfItsReadings) {
    const std::string digits26 = "0123456789abcdefABCDEF0123",
                      digits64 = std::string(60, 'a') + "0bC9";
    const std::pair<std::string, std::string> cases[] = {
        {"", kBlock + "key_mgmt=NONE\n\tscan_ssid=1\n}\n"},
        {"abcd", ""},
        {"abcde", wep_block("6162636465")},
        {"1234567", ""},
        {"password", psk_block("f42c6fc52df0ebef9ebb4b90b38a5f902e83fe1b135a70e23aed762e9710a12e")},
        {"0123456789", passphrase_block("0123456789") + wep_block("0123456789")},
        {"012345678z", passphrase_block("012345678z")},
        {"thirteen\nchar",
         passphrase_block("thirteen\nchar") + wep_block("746869727465656E0A63686172")},
        {digits26, passphrase_block(digits26) + wep_block(digits26)},
        {std::string(26, 'z'), passphrase_block(std::string(26, 'z'))},
        {std::string(63, 'z'), passphrase_block(std::string(63, 'z'))},
        {digits64, psk_block(digits64)},
        {std::string(64, 'x'), ""},
        {std::string(65, 'a'), ""},
    };
    for (const auto &[secret, blocks] : cases) {
        SCOPED_TRACE(secret);
        connect(kSsid, secret, blocks.empty() ? WIFI_AUTH_ERROR : 0);
        EXPECT_EQ(read_file(kFile), blocks + kDefaults);
    }
    for (const char *secret : {"f42c6fc5", "6162636465", "0123456789", "74686972", "aaaaaaaa"})
        EXPECT_EQ(times_logged(secret), 0) << log_text();
    // Both keys of a secret that has two readings are masked, and nothing else.
    EXPECT_EQ(times_logged("writing " + std::string(kFile) + " file with " + psk_block("*") +
                           wep_block("*") + kDefaults),
              3);
    EXPECT_EQ(times_logged("Provisioning for SSID IEEE"), std::ssize(cases));
    connect("ff", "");  // not to be printed, but a name
    EXPECT_THAT(read_file(kFile), testing::StartsWith("network={\n\tssid=ff\n\tkey_mgmt=NONE\n"));
    EXPECT_TRUE(logged("SSID has non-printable characters"));
}

TEST_F(Connect, StepsInOrderWithTheSavedSettings) {
    const std::string connects = kSteps + "sudo wpa_cli -iwlan0 reconfigure\nwifi = 8\n";
    const std::string untyped = "kvs_get_json_from_key failed\n", line = "provision saved";
    for (const auto &[key, value, told] :
         {std::tuple("robot.name", line, std::string("failed to get ssid\n")),
          {"network.ssid", kSsid, "failed to get ip config\n" + untyped},
          {"network.ip_config", "exit 1",
           "exit 1\nexit 1 returned status 1\nwifi_system_command failed\nfailed to set ip "
           "configuration\n" +
               untyped},
          {"network.ip_config", line, line + "\n" + untyped},
          {"network.addr_type", "0", line + "\n" + connects},
          {"network.addr_type", "1", ""}}) {  // started already
        kvs_set(key, value);
        wifi_start_sta_from_kvs_configuration();
        EXPECT_EQ(story(kSource), told) << key;
    }
    EXPECT_EQ(wifi_get_addr_type(), 0);
    EXPECT_THAT(read_file(kFile), testing::StartsWith(kBlock + "key_mgmt=NONE\n"));
    wifi_select_sta_network();
    wifi_network_reconnect();
    EXPECT_EQ(wifi_network_disconnect(), 0);
    const std::string stop = "sudo ifdown wlan0\nwifi = 11\n";
    EXPECT_EQ(story(kSource),
              "sudo wpa_cli -iwlan0 select_network 0\n" + stop + "sleep 1\n" + connects + stop);
    fake("ifup", "exit 1");
    wifi_start_sta_from_kvs_configuration();
    EXPECT_THAT(
        story(kSource),
        testing::EndsWith("wifi = 11\nfailed to configure sta to 49454545; check kvs for pass\n"));
    struct stat file;
    ASSERT_EQ(stat(kFile, &file), 0);
    EXPECT_EQ(file.st_mode & 0777, 0600U);
}

TEST_F(Connect, FailedStepsTellTheReasonAndKeepTheState) {
    const std::string failed = "failed to configure sta with given network info\n",
                      null = "newfile is null\n" + failed;
    const std::string no_write = "cannot write " + std::string(kFile) + "\n",
                      no_open = "cannot open " + std::string(kFile) + "\n";
    const std::string up = "sudo ifup wlan0 returned status 1\nwifi_system_command failed\n";
    const std::string load = "sudo wpa_cli -iwlan0 reconfigure\n";
    const struct {
        const char *ssid, *failing, *file;
        int code_before, code;
        std::string told;
    } rows[] = {
        {"", "none", "/tmp/file", -1, 9, kSteps + "no SSID set/saved\n" + failed},
        {"4945454g", "none", "/tmp/file", -1, 9,
         kSteps + "Could not decode ssid\ninvalid ssid, setting error_code to WIFI_BAD_CONFIG\n" +
             null},
        {kSsid, "ifup", "/tmp/file", -1, 10, kSteps + up + "failed to start station interface\n"},
        {kSsid, "wpa_cli", "/tmp/file", -1, 10,
         kSteps + load + load +
             "wifi_system_command failed\nfailed to reconfigure the supplicant\n"},
        {kSsid, "none", "/dev/full", -1, 9, no_write + kSteps + no_write + failed},
        {kSsid, "none", "/tmp", -1, 9, no_open + kSteps + no_open + failed},
        {kSsid, "none", "/tmp/file", 3, 3, kSteps + failed},  // what the caller set is believed
        {kSsid, "none", "/tmp/file", 9, 9, kSteps + null},
    };
    EXPECT_EQ(wifi_network_connect(nullptr, 0), -1);
    EXPECT_EQ(story(kSource), "invalid input\n");
    for (const auto &[ssid, failing, file, code_before, expected_code, told] : rows) {
        unlink(kFile);
        ASSERT_EQ(symlink(file, kFile), 0);
        wifictl_set_ssid(ssid);
        fake(failing, "exit 1");
        int32_t code = code_before;
        EXPECT_EQ(wifi_network_connect(&code, 0), -1);
        EXPECT_EQ(code, expected_code);
        EXPECT_EQ(story(kSource), told);
        fake(failing, "exit 0");
    }
    EXPECT_EQ(read_file(kFile), kDefaults);
}

// Another process may have stored anything.
TEST_F(Connect, AnOversizedSavedNameIsCutWithTheFile) {
    kvs_set("network.ssid", std::string(2000, '4'));
    kvs_set("network.password", std::string(26, '1'));
    connect("", "");
    EXPECT_EQ(read_file(kFile), "network={\n\tssid=" + std::string(1023 - 16, '4'));
}

}  // namespace
