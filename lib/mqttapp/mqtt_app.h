// The robot's broker: one connection that comes back by itself, subscriptions that come back with
// it, and publishes that never wait for the network. QoS 1 both ways, nothing retained: what others
// retain is not handed on.
#pragma once

struct mqtt_app;

// The longest payload that is published. The broker must take it: one whose limit is lower
// acknowledges a longer message and drops it, and nobody is told.
constexpr int kMqttAppLargestMessage = 1 << 20;

// A received message, valid during the callback. `payload` is never null and is followed by a
// terminator that `payload_len` does not count. `topic` holds no wildcard.
struct mqtt_app_message {
    int mid;
    const char *topic;
    const char *payload;
    int payload_len;
};

// Both run on the thread of mqtt_app_run and may publish.
using mqtt_app_message_cb = void (*)(mqtt_app *, const mqtt_app_message *);
using mqtt_app_connect_cb = void (*)(mqtt_app *);

// A connection in the name of `client_name`; the broker sees "<client_name>-<pid>". Null for an
// empty name or when the system has no descriptor left.
mqtt_app *mqtt_app_create(const char *client_name);

// Reads the broker's address from the variable MQTT_APP_BROKER ("host:port", "[address]:port" or
// "unix:/path"; 127.0.0.1:1883 when unset or empty) and takes the null-terminated topic filters.
// Does not connect. 0, or negative for an address or a filter that is none (logged).
int mqtt_app_init(mqtt_app *app, const char *const *topics, mqtt_app_message_cb on_message);

// `on_connect` is called at every connect, after the subscriptions were asked for. Before
// mqtt_app_run. 0, or non-zero for a null argument.
int mqtt_app_register_on_connect_cb(mqtt_app *app, mqtt_app_connect_cb on_connect);

// What is received is handed on up to this length, 64 KiB unless set; a longer message is refused
// with a line in the log. Before mqtt_app_run. 0, or non-zero for a null or negative argument.
int mqtt_app_set_message_limit(mqtt_app *app, int bytes);

// Serves the connection: connects, receives and sends, and tries again each second while there is
// no broker, ever later (up to 30 s) while it refuses us. Returns 0 after mqtt_app_exit only, or at
// once -1 when `app` was not initialised or runs already.
int mqtt_app_run(mqtt_app *app);

// Queues `length` bytes for the broker and returns: 0, EINVAL for a handle that has ended or what
// cannot be published, EMSGSIZE for more than kMqttAppLargestMessage, or ENOBUFS when 256 messages
// (or 4 MiB) wait for the broker's acknowledgement already. What was not acknowledged is sent
// again, in order, on the next connection. Any thread.
int mqtt_app_publish(mqtt_app *app, const char *topic, int length, const char *payload);

// Ends mqtt_app_run, waits for it (not when called from a callback) and frees; what is still queued
// is dropped. Null and a handle that has ended are ignored, and the other calls refuse the latter,
// so that threads may go on with theirs. Any thread.
void mqtt_app_exit(mqtt_app *app);
