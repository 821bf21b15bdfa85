// What the robot believes of its link, and what it keeps of it over a reboot.
#include "wifi_state.h"

#include <arpa/inet.h>

#include <sstream>

#include "pex_misc.h"
#include "provisioning_state.h"
#include "robot.h"
#include "supplicant_status.h"
#include "wifi_netinfo.h"
#include "wifi_settings.h"

namespace {

constexpr char kStatus[] = "network.last_prov_status";

class WifiState : public Robot {
  protected:
    static netinfo held() {
        netinfo copy;
        EXPECT_EQ(wifi_get_netinfo(&copy), 27);
        return copy;
    }
    static std::string bssid_after(std::string text) {
        std::string ones = "1:1:1:1:1:1";
        wifi_netinfo_set_bssid(ones.data());
        wifi_netinfo_set_bssid(text.data());
        std::string digits;
        for (const uint8_t octet : held().bssid)
            digits += std::to_string(octet) + ".";
        return digits;
    }
};

TEST_F(WifiState, IsSavedInProvisioningOrWhenAwaited) {
    const struct {
        provisioning_state provisioning;
        int awaited, state, awaited_after, sec;
        const char *saved;
    } rows[] = {
        {PS_NONE, 0, WIFI_CONNECTED, 0, 0, "7"},
        {PS_NONE, 0, WIFI_OFF, 0, kSecurityUnknown, "7"},
        {PS_NONE, 1, WIFI_NETWORK_DOWN, 0, 0, "7"},
        {PS_NONE, 1, WIFI_OFF, 1, kSecurityUnknown, "7"},
        {PS_NONE, 1, WIFI_CONNECTED, 0, 0, "1"},
        {TRAINING_MODE, 1, WIFI_STATION_STOPPED, 0, 0, "7"},
        {WAITING_FOR_NETWORK_CONFIG_RX, 1, WIFI_AUTH_ERROR, 1, 0, "3"},
        {WAITING_FOR_IP_DONE, 0, WIFI_OFF, 0, 0, "7"},
        {WAITING_FOR_IP_DONE, 0, WIFI_STATION_STOPPED, 0, 0, "7"},
    };
    for (const auto &row : rows) {
        kvs_set(kStatus, "7");
        wifictl_set_sec_type("NONE");
        provisioning_enter_state(row.provisioning);
        set_wifi_state_update_after_prov_done(row.awaited);
        wifi_state_set_wifi(row.state);
        EXPECT_EQ(kvs_get(kStatus), row.saved) << row.state;
        EXPECT_EQ(is_wifi_state_update_after_prov_done(), row.awaited_after) << row.state;
        EXPECT_EQ(held().sec, row.sec) << row.state;
    }
    EXPECT_EQ(wifi_state_get_last_prov_status(), 7);
    kvs_set(kStatus, "12a");
    EXPECT_EQ(wifi_state_get_last_prov_status(), -1);
}

TEST_F(WifiState, ChangesAreNamedInTheLog) {
    std::istringstream names(
        "UNKNOWN OFF CONNECTED ASSOC_TIMEOUT AUTH_ERROR DHCP_TIMEOUT "
        "NETWORK_DOWN ASSOC_REJECTED REPORTED_BY_PEER CONNECTING BAD_CONFIG "
        "IFACE_ERROR STATION_STOPPED ?");
    wifi_state_set_wifi(-2);
    int32_t state = -1;
    for (std::string before = "?", name; names >> name; before = name) {
        wifi_state_set_wifi(state);
        EXPECT_TRUE(logged_as("INFO", "wifi = " + std::to_string(state++)));
        EXPECT_TRUE(logged_as("DBG", "wifi state " + before + " -> " + name));
    }
}

TEST_F(WifiState, RecordHoldsWhatWasSet) {
    wifi_state_set_wifi(3);
    wifi_state_set_uap(1);
    wifi_state_set_spare_flag(4);
    wifi_state_set_spare_short(-5);
    wifi_state_set_spare_word1(6);
    wifi_state_set_spare_word2(7);
    EXPECT_EQ(wifi_state_get_spare_flag() + wifi_state_get_spare_short(), -1);
    EXPECT_EQ(wifi_state_get_spare_word1() * 10 + wifi_state_get_spare_word2(), 67U);
    const auto record = [] {
        wifistat copy;
        EXPECT_EQ(wifi_get_wifistat(&copy), 16);
        return pex_format("%d %d %d %d %u %u", copy.wifi, copy.spare_flag, copy.uap,
                          copy.spare_short, copy.spare_word1, copy.spare_word2);
    };
    EXPECT_EQ(record(), "3 4 1 -5 6 7");
    wifi_init_wifistat();
    EXPECT_EQ(record(), "-1 0 0 0 0 0");
}

TEST_F(WifiState, AddressesAreThoseOfTheActiveInterface) {
    const auto text_of = [](const netinfo &info) {
        return pex_format("%08x %08x %08x %08x %08x %d", ntohl(info.addr), ntohl(info.mask),
                          ntohl(info.gw), ntohl(info.dns1), ntohl(info.dns2), info.sec);
    };
    const auto read = [&](const char *resolv_conf) {
        write_file("/etc/resolv.conf", resolv_conf);
        netinfo info;
        return wifi_read_netinfo(&info) == 27 ? text_of(info) : "none";
    };
    wifi_init_netinfo();
    EXPECT_EQ(read(""), "none");
    EXPECT_EQ(text_of(held()), "00000000 ffffffff 00000000 00000000 00000000 7");
    give_address();
    EXPECT_EQ(read("nameserver x\n"), "c0000202 ffffff00 c0000201 00000000 00000000 7");
    EXPECT_EQ(read("nameserver 1.2.3.4\nnameserver 5.6.7.8\n"),
              "c0000202 ffffff00 c0000201 01020304 05060708 7");
    kvs_set("network.interface", "gw0");  // up, without an address
    EXPECT_EQ(read(""), "00000000 00000000 00000000 00000000 00000000 0");
    EXPECT_EQ(text_of(held()), "00000000 ffffff00 c0000201 01020304 05060708 7");
    EXPECT_EQ(wifi_read_netinfo(nullptr), -1);
}

TEST_F(WifiState, SecurityAndAccessPointAreWhatIsUnderstood) {
    std::istringstream names("NONE WEP WPA-PSK WPA2-PSK WPA2-PSK/IEEE WEP-104 SAE WPA");
    std::istringstream values("0 2 3 4 4 2 7 7");
    int value;
    for (std::string name; names >> name && values >> value;) {
        wifi_init_netinfo();
        wifictl_set_sec_type(name.c_str());
        EXPECT_EQ(held().sec, value) << name;
    }
    EXPECT_EQ(bssid_after("aa:BB:0c"), "170.187.12.1.1.1.");
    EXPECT_EQ(bssid_after("2:3:4:5:6:7:8:9"), "2.3.4.5.6.7.");
}

TEST_F(WifiState, PendingTextsAreCutAtTheirFields) {
    const std::string ssid(65, 'a'), pass(129, 'p'), line(513, 'i');
    wifictl_set_ssid(ssid.c_str());
    wifictl_set_pass(pass.c_str());
    wifictl_set_ip_config(line.c_str());
    EXPECT_EQ(wifictl_get_temp_ssid(), ssid.substr(1));
    EXPECT_EQ(wifictl_get_temp_pass(), pass.substr(1));
    EXPECT_EQ(wifictl_get_temp_ip_config(), line.substr(1));
    EXPECT_TRUE(logged("SSID " + ssid + " is too long -- truncated"));
    EXPECT_EQ(times_logged("ppp"), 0) << "the passphrase is in the log";
    wifictl_set_ssid("");  // only a passphrase may be nothing
    wifictl_set_pass(nullptr);
    wifictl_set_ip_config("");
    EXPECT_EQ(wifictl_get_temp_ssid() + std::string(wifictl_get_temp_pass()), ssid.substr(1));
    EXPECT_EQ(wifictl_get_temp_ip_config(), line.substr(1));
    const std::string station = "a b;$(id)'\n" + std::string(300, 'x');  // taken as it is
    wifi_set_station_interface_name(station.c_str());
    wifi_set_uap_interface_name("--ap@0:1");
    EXPECT_EQ(wifi_get_sta_interface(), station);
    EXPECT_STREQ(wifi_get_uap_interface(), "--ap@0:1");
}

TEST_F(WifiState, SavingKeepsTheKeyAndNotThePassphraseOfAWpaNetwork) {
    // SSID, passphrase and key of a test vector of IEEE 802.11.
    const std::string ssid = "5468697349734153534944", pass = "ThisIsAPassword";
    const std::string psk = "0dc0d6eb90555ed6419756b9a15ec3e3209b63df707dd508d14581f8982721af";
    const std::string other(64, 'F');
    const struct {
        std::string key_management, ssid, pass, saved;
    } rows[] = {{"WPA2-PSK", ssid, pass, psk},   {"WPA-PSK", ssid, pass, psk},
                {"NONE", ssid, pass, pass},      {"WPA2-PSK+", ssid, pass, pass},
                {"WPA-PSK", "4g", pass, pass},   {"WPA-PSK", ssid, other, other},
                {"WPA2-PSK", ssid, "", "<none>"}};
    wifictl_set_ip_config("dhcp \n");
    for (const auto &row : rows) {
        fake("wpa_cli", "echo key_mgmt=" + row.key_management);
        wifictl_set_ssid(row.ssid.c_str());
        wifictl_set_pass(row.pass.c_str());
        wifictl_save_nw_info_to_kvs();
        EXPECT_EQ(kvs_get("network.ssid"), row.ssid);
        EXPECT_EQ(kvs_get("network.password"), row.saved) << row.key_management << " " << row.ssid;
        EXPECT_EQ(wifictl_get_temp_pass(), row.pass.empty() ? "" : row.saved);
    }
    EXPECT_EQ(kvs_get("network.ip_config") + kvs_get("network.addr_type"), "dhcp \n1");
    EXPECT_EQ(times_logged(pass) + times_logged(psk), 0) << log_text();
    for (const auto &[script, text] :
         {std::pair("echo key_mgmt=x", "x"), {"echo key_mgmt=", ""}, {"true", ""}}) {
        fake("wpa_cli", script);
        const MallocText protocol(get_key_mgmt_protocol());
        EXPECT_EQ(std::string(protocol ? protocol.get() : ""), text) << script;
    }
    EXPECT_EQ(commands().back(), "wpa_cli status -iwlan0 | grep key_mgmt | sed s/\"^.*=\"//");
}

// The thread sanitizer's subject; a torn text would show without it, too.
TEST_F(WifiState, EveryThreadReadsAndWrites) {
    const auto write = [](char letter) {
        for (int n = 0; n < 100; n++) {
            wifictl_set_pass(std::string(kPassSize - 1, letter).c_str());
            wifi_state_set_wifi(n % 3);
            wifi_state_set_uap(n % 2);
            EXPECT_EQ(bssid_after("2:3").size(), 12U);
        }
    };
    std::thread writers[] = {std::thread(write, 'a'), std::thread(write, 'b')};
    for (int n = 0; n < 100; n++) {
        netinfo record;
        wifi_read_netinfo(&record);
        const std::string pass = wifictl_copy_pending().pass;
        EXPECT_EQ(pass.find_first_not_of(pass[0]), std::string::npos);
        EXPECT_LE(wifi_state_get_uap(), 1);
    }
    for (auto &writer : writers)
        writer.join();
}

}  // namespace
