// The connect: the network blocks of a secret, the steps' order, and what is left when one fails.
#include "wifi_connect.h"

#include <sys/stat.h>

#include "pex_misc.h"
#include "wifi_netinfo.h"
#include "wifi_robot.h"
#include "wifi_settings.h"
#include "wifi_state.h"

namespace {

constexpr char kFile[] = "/etc/wpa_supplicant.conf";
constexpr char kSsid[] = "49454545";  // "IEEE"
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
    // Connects with these pending settings, which must fail with that code; 0 for none.
    void connect(const std::string &ssid, const std::string &secret, int expected_code = 0) {
        int32_t code = -1;
        wifictl_set_ssid(ssid.c_str());
        wifictl_set_pass(secret.c_str());
        EXPECT_EQ(wifi_network_connect(&code, 0), expected_code == 0 ? 0 : -1) << log_text();
        EXPECT_EQ(code, expected_code == 0 ? -1 : expected_code);
    }
};

TEST_F(Connect, EverySecretBecomesTheBlocksOfItsReadings) {
    const std::string digits26 = "0123456789abcdefABCDEF0123";
    const std::string digits64 = std::string(60, 'a') + "0bC9";
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
    EXPECT_TRUE(logged("newfile is null"));
    for (const char *secret : {"f42c6fc5", "6162636465", "0123456789", "74686972", "aaaaaaaa"})
        EXPECT_EQ(times_logged(secret), 0) << log_text();
    // Both keys of a secret that has two readings are masked, and nothing else.
    EXPECT_EQ(times_logged("writing " + std::string(kFile) + " file with " + psk_block("*") +
                           wep_block("*") + kDefaults),
              3)
        << log_text();
    EXPECT_EQ(times_logged("Provisioning for SSID IEEE"), std::ssize(cases));
    connect("ff", "");  // not to be printed, but a name
    EXPECT_EQ(read_file(kFile),
              "network={\n\tssid=ff\n\tkey_mgmt=NONE\n\tscan_ssid=1\n}\n" + kDefaults);
    EXPECT_TRUE(logged("SSID has non-printable characters"));
}

TEST_F(Connect, ASlotThatHoldsAnErrorIsBelieved) {
    wifi_state_set_wifi(WIFI_NETWORK_DOWN);
    wifictl_set_ssid(kSsid);
    wifictl_set_pass("password");
    for (const int32_t before : {WIFI_AUTH_ERROR, WIFI_BAD_CONFIG}) {
        int32_t code = before;
        forget_log();
        EXPECT_EQ(wifi_network_connect(&code, 0), -1);
        EXPECT_EQ(code, before);
        EXPECT_TRUE(logged("failed to configure sta with given network info"));
    }
    EXPECT_EQ(read_file(kFile), kDefaults);
    EXPECT_EQ(commands().back(), "sudo ifup wlan0");
    EXPECT_EQ(wifi_state_get_wifi(), WIFI_NETWORK_DOWN);
}

TEST_F(Connect, StepsInOrderWithTheSavedSettings) {
    const Lines steps{"sudo ifdown wlan0", "sleep 1", "sudo ifup wlan0",
                      "sudo wpa_cli -iwlan0 reconfigure\n"};
    connect("", "", WIFI_BAD_CONFIG);
    unlink(kFile);
    wifi_start_sta_from_kvs_configuration();  // started already
    wifi_network_disconnect();
    kvs_set("network.ip_config", "provision saved");
    wifi_start_sta_from_kvs_configuration();  // nothing to connect to
    kvs_set("network.ssid", kSsid);
    kvs_set("network.password", "password");
    forget_commands();
    wifi_start_sta_from_kvs_configuration();  // no address type
    EXPECT_EQ(commands(), Lines{"provision saved"});
    kvs_set("network.addr_type", "0");
    forget_commands();
    wifi_start_sta_from_kvs_configuration();
    wifi_select_sta_network();
    wifi_network_reconnect();
    EXPECT_EQ(wifi_network_disconnect(), 0);
    Lines expected{"provision saved"};
    expected.insert(expected.end(), steps.begin(), steps.end());
    expected.insert(expected.end(),
                    {"sudo wpa_cli -iwlan0 select_network 0", "sudo ifdown wlan0", "sleep 1"});
    expected.insert(expected.end(), steps.begin(), steps.end());
    expected.push_back("sudo ifdown wlan0");
    EXPECT_EQ(commands(), expected);
    EXPECT_EQ(wifi_get_addr_type(), 0);
    EXPECT_NE(read_file(kFile).find("psk=f42c6fc5"), std::string::npos);
    struct stat file;
    ASSERT_EQ(stat(kFile, &file), 0);
    EXPECT_EQ(file.st_mode & 0777, 0600U);
}

TEST_F(Connect, FailedStepsTellTheReasonAndKeepTheState) {
    EXPECT_EQ(wifi_network_connect(nullptr, 0), -1);
    EXPECT_TRUE(commands().empty());
    wifi_state_set_wifi(WIFI_NETWORK_DOWN);
    connect("4945454g", "password", WIFI_BAD_CONFIG);
    for (const char *tool : {"wpa_cli", "ifup"}) {
        fake(tool, "exit 1");
        connect(kSsid, "password", WIFI_IFACE_ERROR);
    }
    EXPECT_EQ(commands().back(), "sudo ifup wlan0");
    fake("ifup", "exit 0");
    unlink(kFile);
    ASSERT_EQ(symlink("/dev/full", kFile), 0);
    forget_log();
    connect(kSsid, "password", WIFI_BAD_CONFIG);
    const char *const failure = "cannot write /etc/wpa_supplicant.conf";
    EXPECT_EQ(times_logged(failure), 2);  // the default text, too
    // The text is logged before it leaves the buffer, and only then cannot be written.
    const std::string log = log_text();
    const size_t shown = log.find("writing /etc/wpa_supplicant.conf file with network={");
    EXPECT_LT(shown, log.rfind(failure));
    EXPECT_EQ(wifi_state_get_wifi(), WIFI_NETWORK_DOWN);
}

// Another process may have stored anything.
TEST_F(Connect, AnOversizedSavedNameIsCutWithTheFile) {
    kvs_set("network.ssid", std::string(2000, '4'));
    kvs_set("network.password", std::string(26, '1'));
    connect("", "");
    EXPECT_EQ(read_file(kFile), "network={\n\tssid=" + std::string(1023 - 16, '4'));
}

}  // namespace
