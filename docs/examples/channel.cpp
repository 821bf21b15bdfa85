// A process of the robot that asks netwarden for the Wi-Fi channel, prints the answer, and then
// each status message until it is ended. Number 20 stands for a process of your own.
//
//   c++ -std=c++20 channel.cpp $(pkg-config --cflags --libs libtarn) -o channel
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "mqttapp/mqtt_app.h"
#include "tarn/robot_processes.h"
#include "tarn/tarn.h"

namespace {

constexpr int kOurProcess = 20;
constexpr const char *kTopics[] = {"tarn/20/#", "network/events", nullptr};
constexpr int kPatienceS = 3;

tarn_lib *processes = nullptr;

// On the broker's thread: hands an answer to whoever waits for it, and must not wait itself.
void on_message(mqtt_app * /*broker*/, const mqtt_app_message *message) {
    int type = 0;
    if (get_tarn_message_type(processes, message->topic, &type) != 0)
        printf("%s %s\n", message->topic, message->payload);
    else if (tarn_req *request = tarn_get_req_handle_using_topic(processes, message->topic))
        tarn_complete_transfer(request, message->payload);
    else if (type == TARN_EVENT)
        tarn_event_ack(processes, message->topic);
}

int publish(void *broker, const char *topic, const char *text) {
    return mqtt_app_publish(static_cast<mqtt_app *>(broker), topic, static_cast<int>(strlen(text)),
                            text);
}

bool ask_for_channel() {
    std::array<char, 256> answer{};
    tarn_req *const request = tarn_alloc_req_handle(processes);
    const int failed = tarn_transfer(request, kOurProcess, PROCESS_NETWORK, R"({"get":"channel"})",
                                     answer.data(), answer.size(), kPatienceS);
    tarn_free_req_handle(request);
    if (failed == 0)
        printf("%s\n", answer.data());
    else
        fprintf(stderr, "netwarden does not answer\n");
    return failed == 0;
}

}  // namespace

int main() {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    mqtt_app *const broker = mqtt_app_create("channel-example");
    processes = tarn_lib_init(publish, broker, nullptr);
    if (broker == nullptr || processes == nullptr ||
        mqtt_app_init(broker, kTopics, on_message) != 0)
        return 1;
    tarn_lib_set_process(processes, kOurProcess);
    std::thread(mqtt_app_run, broker).detach();
    if (!ask_for_channel())
        return 1;
    std::this_thread::sleep_until(std::chrono::steady_clock::time_point::max());
}
