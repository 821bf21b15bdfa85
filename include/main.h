// The program core: start-up, the process-wide handles and the supervision loop.
#pragma once

struct mqtt_app;
struct tarn_lib;

// The connection to the robot's broker and the library for requests and events over it. Null
// before start-up made them and after a fatal start-up error. Any thread.
mqtt_app *get_mqtt_app();
tarn_lib *get_network_tarn_handle();

// Thread body: serves the broker connection; returns null only after a fatal start-up error.
void *mqtt_app_main(void *unused);

// The whole program. Returns the exit code for `-h`, `-v` and usage errors, otherwise never.
int netwarden_main(int argc, char **argv);
