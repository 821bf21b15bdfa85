// Parsers of foreign text, each with its checks: feeds one text, aborts when a check fails.
#pragma once

#include <string_view>

// What tools print (tool_output.cpp).
void arping_of_device(std::string_view text);
void arping_of_gateway(std::string_view text);
void key_management(std::string_view text);
void link_status(std::string_view text);
void product_version(std::string_view text);
void regulatory_domain(std::string_view text);
void signal_and_noise(std::string_view text);
void soft_ap_stations(std::string_view text);

// What lies in files and in the environment (robot_files.cpp).
void broker_address(std::string_view text);
void dhcp_client_pid(std::string_view text);
void name_servers(std::string_view text);
void radio_nv_file(std::string_view text);
void supplicant_config(std::string_view text);

// What other processes and the supplicant say (messages.cpp).
void client_text(std::string_view text);
void current_access_point(std::string_view text);
void discovery_description(std::string_view text);
void next_cleaning(std::string_view text);
void static_addresses(std::string_view text);
void tarn_topic(std::string_view text);
