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
    static std::string held() {
        netinfo info;
        EXPECT_EQ(wifi_get_netinfo(&info), 27);
        return text_of(info);
    }
    static std::string text_of(const netinfo &info) {
        std::string text;
        for (const uint32_t address : {info.addr, info.mask, info.gw, info.dns1, info.dns2})
            text += pex_format("%08x ", ntohl(address));
        for (const uint8_t octet : info.bssid)
            text += pex_format("%02x ", octet);
        return text + std::to_string(info.sec);
    }
};

TEST_F(WifiState, IsSavedInProvisioningOrWhenAwaited) {
    const struct {
        provisioning_state provisioning;
        int awaited, state, awaited_after;
        char sec;
        const char *saved;
    } rows[] = {
        {PS_NONE, 0, WIFI_CONNECTED, 0, '0', "7"},
        {PS_NONE, 0, WIFI_OFF, 0, '7', "7"},
        {PS_NONE, 1, WIFI_NETWORK_DOWN, 0, '0', "7"},
        {PS_NONE, 1, WIFI_OFF, 1, '7', "7"},
        {PS_NONE, 1, WIFI_CONNECTED, 0, '0', "1"},
        {TRAINING_MODE, 1, WIFI_STATION_STOPPED, 0, '0', "7"},
        {WAITING_FOR_NETWORK_CONFIG_RX, 1, WIFI_AUTH_ERROR, 1, '0', "3"},
        {WAITING_FOR_IP_DONE, 0, WIFI_OFF, 0, '0', "7"},
        {WAITING_FOR_IP_DONE, 0, WIFI_STATION_STOPPED, 0, '0', "7"},
    };
    EXPECT_EQ(is_wifi_state_update_after_prov_done(), 0);
    for (const auto &row : rows) {
        kvs_set(kStatus, "7");
        wifictl_set_sec_type("NONE");
        provisioning_enter_state(row.provisioning);
        set_wifi_state_update_after_prov_done(row.awaited);
        wifi_state_set_wifi(row.state);
        EXPECT_EQ(kvs_get(kStatus), row.saved) << row.state;
        EXPECT_EQ(is_wifi_state_update_after_prov_done(), row.awaited_after) << row.state;
        EXPECT_EQ(held().back(), row.sec) << row.state;
    }
    EXPECT_EQ(wifi_state_get_last_prov_status(), 7);
    kvs_set(kStatus, "12a");
    EXPECT_EQ(wifi_state_get_last_prov_status(), -1);
}

TEST_F(WifiState, ChangesAreNamedInTheLog) {
    std::istringstream names(
        "UNKNOWN OFF CONNECTED ASSOC_TIMEOUT AUTH_ERROR DHCP_TIMEOUT NETWORK_DOWN ASSOC_REJECTED "
        "REPORTED_BY_PEER CONNECTING BAD_CONFIG IFACE_ERROR STATION_STOPPED ?");
    wifi_state_set_wifi(-2);
    int32_t state = -1;
    for (std::string before = "?", name; names >> name; before = name) {
        wifi_state_set_wifi(state);
        EXPECT_GE(times_logged("wifi = " + std::to_string(state++)), 1);
        EXPECT_EQ(times_logged("wifi state " + before + " -> " + name), 1);
    }
}

TEST_F(WifiState, RecordHoldsWhatWasSet) {
    const auto record = [] {
        wifistat it;
        EXPECT_EQ(wifi_get_wifistat(&it), 16);
        return pex_format("%d %d %d %d %u %u", it.wifi, it.uap, it.spare_flag, it.spare_short,
                          it.spare_word1, it.spare_word2);
    };
    wifi_state_set_wifi(3);
    wifi_state_set_uap(1);
    wifi_state_set_spare_flag(4);
    wifi_state_set_spare_short(-5);
    wifi_state_set_spare_word1(6);
    wifi_state_set_spare_word2(7);
    EXPECT_EQ(record(), "3 1 4 -5 6 7");
    EXPECT_EQ(
        pex_format("3 1 %d %d %u %u", wifi_state_get_spare_flag(), wifi_state_get_spare_short(),
                   wifi_state_get_spare_word1(), wifi_state_get_spare_word2()),
        record());
    wifi_init_wifistat();
    EXPECT_EQ(record(), "-1 0 0 0 0 0");
}

TEST_F(WifiState, AddressesAreThoseOfTheActiveInterface) {
    const auto read = [](const char *resolv_conf) {
        write_file("/etc/resolv.conf", resolv_conf);
        netinfo info;
        return wifi_read_netinfo(&info) == 27 ? text_of(info) : "none";
    };
    const std::string none = " 00000000 00000000 00 00 00 00 00 00 ",
                      reset = "00000000 ffffffff 00000000" + none + "7";
    wifi_init_netinfo();
    EXPECT_EQ(read("") + " " + held(), "none " + reset);
    give_address();
    EXPECT_EQ(read("nameserver x\n"), "c0000202 ffffff00 c0000201" + none + "7");
    EXPECT_EQ(read("nameserver 1.2.3.4\nnameserver 5.6.7.8\n"),
              "c0000202 ffffff00 c0000201 01020304 05060708 00 00 00 00 00 00 7");
    kvs_set("network.interface", "gw0");  // up, without an address
    EXPECT_EQ(read(""), "00000000 00000000 00000000" + none + "0");
    EXPECT_EQ(held(), "00000000 ffffff00 c0000201 01020304 05060708 00 00 00 00 00 00 7");
    EXPECT_EQ(wifi_read_netinfo(nullptr), -1);
}

TEST_F(WifiState, SecurityAndAccessPointAreWhatIsUnderstood) {
    std::istringstream rows(
        "NONE 0 WEP 2 WPA-PSK 3 WPA2-PSK 4 WPA2-PSK/IEEE 4 WEP-104 2 SAE 7 WPA 7");
    char value;
    for (std::string name; rows >> name >> value;) {
        wifi_init_netinfo();
        wifictl_set_sec_type(name.c_str());
        EXPECT_EQ(held().back(), value) << name;
    }
    for (std::string text : {"1:1:1:1:1:1", "2:3:4:5:6:7:8:9", "aa:BB:0c", ""})
        wifi_netinfo_set_bssid(text.data());
    EXPECT_THAT(held(), testing::HasSubstr(" aa bb 0c 05 06 07 "));
}

TEST_F(WifiState, PendingTextsAreCutAtTheirFields) {
    const std::string ssid(65, 'a'), pass(129, 'p'), line(513, 'i');
    wifictl_set_ssid(ssid.c_str());
    wifictl_set_pass(pass.c_str());
    wifictl_set_ip_config(line.c_str());
    EXPECT_EQ(wifictl_get_temp_pass(), pass.substr(1));
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
    using Row = std::tuple<std::string, std::string, std::string, std::string>;
    wifictl_set_ip_config("dhcp \n");
    for (const auto &[key_management, name, given, saved] : {Row("WPA2-PSK", ssid, pass, psk),
                                                             {"WPA-PSK", ssid, pass, psk},
                                                             {"NONE", ssid, pass, pass},
                                                             {"WPA2-PSK+", ssid, pass, pass},
                                                             {"WPA-PSK", "4g", pass, pass},
                                                             {"WPA-PSK", ssid, other, other},
                                                             {"WPA2-PSK", ssid, "", "<none>"}}) {
        fake("wpa_cli", "echo key_mgmt=" + key_management);
        wifictl_set_ssid(name.c_str());
        wifictl_set_pass(given.c_str());
        wifictl_save_nw_info_to_kvs();
        EXPECT_EQ(kvs_get("network.ssid"), name);
        EXPECT_EQ(kvs_get("network.password"), saved) << key_management << " " << name;
        EXPECT_EQ(wifictl_get_temp_pass(), given.empty() ? "" : saved);
    }
    EXPECT_EQ(kvs_get("network.ip_config") + kvs_get("network.addr_type"), "dhcp \n1");
    EXPECT_EQ(times_logged(pass) + times_logged(psk), 0) << log_text();
    for (const auto &[script, text] :
         {std::pair("echo key_mgmt=x", "x"), {"echo key_mgmt=", "none"}, {"true", "none"}}) {
        fake("wpa_cli", script);
        const MallocText protocol(get_key_mgmt_protocol());
        EXPECT_STREQ(protocol ? protocol.get() : "none", text) << script;
    }
}

TEST_F(WifiState, SavingGoesOnWhereAKeyCannotBeWritten) {
    const std::string ssid = "network.ssid 41\ncould not save network.ssid 41\n";
    const std::string rest =
        "network.ip_config dhcp\nfailed to save ip config to network.ip_config\n"
        "network.addr_type 1\ncould not save network.addr_type 1\n";
    tell_stories();
    fake("wpa_cli", "true");
    wifictl_set_ssid("41");
    wifictl_set_ip_config("dhcp");
    for (const char *key : {"ssid", "password", "ip_config", "addr_type", "interface"})
        write_file(kvs_path("network." + std::string(key)) + "/folder", "");
    forget_commands();
    wifictl_save_nw_info_to_kvs();
    EXPECT_EQ(story("src/wifi_state"), ssid + "could not remove network.password \n" + rest);
    wifictl_set_pass("secret");
    wifictl_save_nw_info_to_kvs();
    EXPECT_EQ(story("src/wifi_state"),
              ssid + "wpa_cli status -iwlan0 | grep key_mgmt | sed s/\"^.*=\"//\n" +
                  "network.password *\ncould not save passphrase to network.password\n" + rest);
    wifi_state_set_uap(1);
    EXPECT_EQ(story("src/wifi_state"),
              "network.interface wlan1\nwifi_state_set_uap: failed to set active intf in kvs\n");
}

// The thread sanitizer's subject; a torn text would show without it, too.
TEST_F(WifiState, EveryThreadReadsAndWrites) {
    const auto write = [](char letter) {
        for (int n = 0; n < 100; n++) {
            wifictl_set_pass(std::string(kPassSize - 1, letter).c_str());
            wifi_state_set_wifi(n % 3);
            wifi_state_set_uap(n % 2);
            char text[] = "2:3";
            wifi_netinfo_set_bssid(text);
        }
    };
    std::jthread writers[] = {std::jthread(write, 'a'), std::jthread(write, 'b')};
    for (int n = 0; n < 100; n++) {
        netinfo record;
        wifi_read_netinfo(&record);
        const std::string pass = wifictl_copy_pending().pass;
        EXPECT_EQ(pass.find_first_not_of(pass[0]), std::string::npos);
        EXPECT_LE(wifi_state_get_uap(), 1);
    }
}

}  // namespace
