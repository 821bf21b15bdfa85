// What start-up makes once and every module uses: the connection to the robot's broker and the
// library for requests and events over it. (The process's log is in log.h.)
#pragma once

struct mqtt_app;
struct tarn_lib;

// Null before start-up made them and after a fatal start-up error. Any thread.
mqtt_app *get_mqtt_app();
tarn_lib *get_network_tarn_handle();

// Hands a new one out from now on; returns the one before, which is the caller's again. Main
// thread.
mqtt_app *exchange_mqtt_app(mqtt_app *app);
tarn_lib *exchange_network_tarn_handle(tarn_lib *transport);
