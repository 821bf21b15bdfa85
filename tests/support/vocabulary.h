// All that the daemon hears, and what it makes of it: events of provisioning that it posts, and
// what else stands in the log.
#pragma once

struct phrase {
    const char *text;
    const char *answer;              // to a request; of an event "ack": it is acknowledged
    const char *heard_on_transport;  // first: what only another process can ask for
    const char *heard;
    int state = 0;  // of provisioning when it comes
};

constexpr char kNoRequest[] = "Unsupported message; ";

constexpr phrase kVocabulary[]{
    {R"({"set_log_level":"debug"})", R"({"set_log_level": null})",
     "tarn_handle_set_log_level_request failed; ", ""},
    {R"({"get":"channel"})", R"({"channel": 0})", "", ""},
    {R"({"get":"discovery"})", R"({"ver":"3",)", "", ""},
    {R"({"get":"time","event":"training"})", "", "", "TRAIN_START; "},
    {R"({"logWifiLinkInfo":1})", R"({"logWifiLinkInfo":1})", "rssi: -128, channel: 0, noise: -90; ",
     ""},
    {R"({"event":"localConnect"})", "ack", "TRAIN_CONNECT; ", ""},
    {R"({"event":"localDisconnect"})", "ack", "TRAIN_DISCONNECT; ", ""},
    {R"({"event":"mfg_test_start"})", "ack", "MFG_WIFI_TEST; ", ""},
    {R"({"event":"restartNetwork"})", "ack",
     "Network manager received restart network request, restarting...; ", ""},
    {R"({"event":"unheardOf"})", "ack", "", ""},
    {R"({"mfg_test":"btTest"})", "ack", "TRAIN_ABORT; ", ""},
    {R"({"mfg_test":"unheardOf"})", "ack", "", ""},
    {R"({"event":"tidelinkConnected"})", "ack", "", "Failed to delete /tmp/tidelink_connected; "},
    {R"({"event":"provisioning"})", "ack", "", "PROVISIONING_ACTIVATED; "},
    {R"({"event":"training"})", "ack", "", "TRAIN_START; "},
    {R"({"event":"btnpress"})", "ack", "", ""},
    {R"({"event":"btnpress"})", "ack", "", "PROVISIONING_ABORT; ", 4},
    {R"({"event":"btnpress"})", "ack", "", "TRAIN_ABORT; ", 5},
    {R"({"event":"startWifiDeviceTracking"})", "ack", "", "starting wifi device tracking; "},
    {R"({"event":"pauseWifiDeviceTracking"})", "ack", "", "pausing wifi device tracking; "},
    {R"({"event":"stopWifiDeviceTracking"})", "ack", "", "stopping wifi device tracking; "},
    {R"({"command":"ipdone"})", "", kNoRequest, "PROVISIONING_COMPLETE; "},
    {R"({"command":"unheardOf","uap":false})", "", kNoRequest, "", 5},
    {R"({"uap":false})", "", kNoRequest, ""},
    {R"({"uap":false})", "", kNoRequest, "PROVISIONING_WACTIVATED; ", 1},
    {R"({"uap":false})", "", kNoRequest, "TRAIN_END; ", 5},
    {R"({"uap":true})", "", kNoRequest,
     "on_mqtt_app_message: received uap json with unsupported value from app; ", 5},
    {R"({"wifistat":{"wifi":7}})", "", kNoRequest, "wifi = 7; "},
    {R"({"wifistat":{"wifi":8}})", "", kNoRequest, ""},
    {R"({"wifistat":3})", "", kNoRequest, "Could not parse wifistat msg; "},
    {R"({"cleanMissionStatus":{"cycle":"clean","phase":"run"}})", "", kNoRequest,
     "non-docking mission starting -- aborting provisioning; PROVISIONING_ABORT; ", 1},
    {R"({"cleanMissionStatus":{"cycle":"dock","phase":"run"}})", "", kNoRequest, "", 1},
    {R"({"cleanMissionStatus":{"cycle":"clean"}})", "", kNoRequest,
     "could not parse cycle or phase from cleanMissionStatus; ", 1},
    {R"({"cap":{"maps":3}})", "", kNoRequest, ""},
    {R"({"cap":7})", "", kNoRequest, "robot cap is NULL; "},
    {R"({"nc":1})", "", kNoRequest, ""},
    {R"({"nc":1.5})", "", kNoRequest, "expected integer as value; "},
    {R"({"wlcfg":{}})", R"({"wifistat": {"wifi": 8}})", kNoRequest,
     "PROVISIONING_NETWORK_CONFIG_RX; "},
    {R"({"wlcfg":4})", R"({"wifistat": {"wifi": 8}})", kNoRequest, "bad wlcfg object; "},
    {R"({"wlcfg":{"ssid":"4142","bssid":"0","chan":6,"pass":"6b65796b65796b6579","addr":"10.0.0.2",)"
     R"("mask":"255.0.0.0","gw":"10.0.0.1","dns1":"1.1.1.1","dns2":"8.8.8.8"},)"
     R"("robotpass":"pw","wactivate":true})",
     R"({"wifistat": {"wifi": 8}})", kNoRequest,
     "PROVISIONING_NETWORK_STATIC_CONFIG_RX; PROVISIONING_WACTIVATED; "},
    {R"({"wlcfg":{"addr":"10.0.0.2"},"wactivate":false})", R"({"wifistat": {"wifi": 8}})",
     kNoRequest,
     "invalid wlcfg; generate_static_ip_cmd failed; wifi = 9; received wactivate false; "
     "PROVISIONING_ERROR; ",
     1},
    {R"({"robotpass":"pw","wactivate":true})", "", kNoRequest, ""},
};
