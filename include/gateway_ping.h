// Whether the gateway is there: one ARP ping by the system's tool. Any thread.
#pragma once

struct netinfo;

// Whether there are an address to ask from and a gateway to ask.
bool gateway_ping_has_target(const netinfo &info);

// The command line for the current gateway, freed by the caller; null without a target or memory.
char *create_arping_cmd_str_malloc();

// Runs such a command line; blocks for up to 2 s. A ping that could not be run says nothing about
// the gateway.
enum class gateway_answer { answered, silent, not_run };
gateway_answer gateway_ping(const char *command);

// The same, with a command line built here for null: 1 when the gateway answered, else 0.
int gateway_pinger_arping_once(const char *command);
