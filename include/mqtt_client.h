// The daemon on the robot's broker: publishing, requests and events to other processes, and the
// messages that come in.
#pragma once

#include <cstddef>

struct mqtt_app;
struct mqtt_app_message;
struct tarn_lib;

// The broker connection with its subscriptions, not yet running; null on failure. `on_message` gets
// what comes in, on the broker's thread. Main thread, once.
mqtt_app *mqtt_client_init(void (*on_message)(mqtt_app *, const mqtt_app_message *));

// The request and event library on that connection; null on failure. Main thread, once.
tarn_lib *network_tarn_init();

// Publishes `length` bytes of `text`; a null topic means "network/events". 0, or -1 (logged).
// Never blocks on the network. Any thread.
int mqtt_client_send(const char *topic, int length, const char *text);

// Sends a request to the robot process `destination` and waits for its response, which is copied
// terminated. 0, or 1 on every failure. Any thread but the broker's, which delivers the response.
int network_send_tarn_req(int destination, const char *text, char *response, size_t size);

// Sends a one-way event to the robot process `destination`. 0, or 255 on failure. Any thread.
int network_send_tarn_event(int destination, const char *text, int value);

// The last integer received as {"nc": n}, 0 until one came. Any thread.
int get_nc_val();
void set_nc_val(int value);
