// The program core: command line, start-up and the supervision loop.
#pragma once

// Thread body: serves the broker connection; returns null only after a fatal start-up error.
void *mqtt_app_main(void *unused);

// The whole program. Returns the exit code for `-h`, `-v` and usage errors, otherwise never.
int netwarden_main(int argc, char **argv);
