// What comes in from the broker, by key and value to its handler.
#pragma once

struct mqtt_app;
struct mqtt_app_message;

// The broker library's message callback. Broker thread.
void on_mqtt_app_message(mqtt_app *app, const mqtt_app_message *message);
