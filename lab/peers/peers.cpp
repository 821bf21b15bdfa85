// The robot's other processes as the network daemon meets them: they answer its requests,
// acknowledge its events, and write one line for each to standard output.
#include <getopt.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "log.h"
#include "mqttapp/mqtt_app.h"
#include "owned.h"
#include "tarn/tarn.h"

namespace {

constexpr char kControlTopic[] = "lab/peers";
constexpr std::chrono::seconds kLate{4};  // the daemon waits three

constexpr char kHelp[] =
    R"(usage: peers [--next-cleaning N] [--mode PROCESS=MODE]...

Plays the robot's other processes on the broker (MQTT_APP_BROKER, default 127.0.0.1:1883):
   0  the Bluetooth manager: takes netinfo and wifistat, answers with the same text
   1  takes wifistat while the Wi-Fi is tested in the factory, answers with the same text
   2  the cloud client: takes the event {"event":"resetCloudConnection"}
   5  answers {"event":"disconnect_local"} with the same text
   9  the scheduler: answers {"get":"nextCleaning"} with {"nextCleaning":N} (default 86400)
  10  answers {"sta": N} with {"sta": N}
  12  corehub: answers {"get":"cap"} with the robot's capabilities
Each request and event is written to standard output: "PROCESS < TYPE TEXT", answers as
"PROCESS > TEXT".

  --next-cleaning N    the N of process 9
  --mode PROCESS=MODE  how it answers: normal, silent (not at all), late (after 4 s, when
                       nobody waits any more), wrong ({"wrong": true})

Both change at run time by a message on the topic lab/peers:
  {"process": 9, "nextCleaning": 899}
  {"process": 10, "mode": "silent"}
)";

enum class answer_mode : uint8_t { normal, silent, late, wrong };
constexpr std::array<std::string_view, 4> kModes{"normal", "silent", "late", "wrong"};

json_int_t next_cleaning = 86400;

// --- what each process answers; null when the request is none of its -----------------------------

bool holds(const json_t *request, const char *key, std::string_view value) {
    const char *what = json_string_value(json_object_get(request, key));
    return what != nullptr && what == value;
}

json_t *answer_cleaning(json_t *request) {
    return holds(request, "get", "nextCleaning") ? json_pack("{s:I}", "nextCleaning", next_cleaning)
                                                 : nullptr;
}

json_t *answer_station(json_t *request) {
    return json_is_integer(json_object_get(request, "sta")) ? json_incref(request) : nullptr;
}

json_t *answer_status(json_t *request) {
    const bool known = json_object_get(request, "netinfo") != nullptr ||
                       json_object_get(request, "wifistat") != nullptr;
    return known ? json_incref(request) : nullptr;
}

json_t *answer_disconnect(json_t *request) {
    return holds(request, "event", "disconnect_local") ? json_incref(request) : nullptr;
}

json_t *answer_capabilities(json_t *request) {
    return holds(request, "get", "cap")
               ? json_pack("{s:{s:i,s:i,s:i}}", "cap", "ota", 2, "maps", 3, "pose", 1)
               : nullptr;
}

json_t *answer_nothing(json_t * /*request*/) {
    return nullptr;
}

struct peer {
    int process;
    const char *topics;
    json_t *(*answer)(json_t *request);
    answer_mode mode = answer_mode::normal;
    tarn_lib *lib = nullptr;
};

std::array peers{
    peer{0, "tarn/btmanager/#", answer_status},
    peer{1, "tarn/1/#", answer_status},
    peer{2, "tarn/2/#", answer_nothing},
    peer{5, "tarn/5/#", answer_disconnect},
    peer{9, "tarn/9/#", answer_cleaning},
    peer{10, "tarn/10/#", answer_station},
    peer{12, "tarn/corehub/#", answer_capabilities},
};

peer *find_peer(json_int_t process) {
    for (peer &candidate : peers)
        if (candidate.process == process)
            return &candidate;
    return nullptr;
}

bool set_mode(json_int_t process, std::string_view word) {
    peer *const target = find_peer(process);
    for (size_t i = 0; target != nullptr && i < kModes.size(); i++)
        if (kModes[i] == word) {
            target->mode = static_cast<answer_mode>(i);
            return true;
        }
    return false;
}

// --- messages ------------------------------------------------------------------------------------

void respond(const peer &from, const std::string &topic, const std::string &text) {
    tarn_send_resp(from.lib, topic.c_str(), text.c_str());
    printf("%d > %s\n", from.process, text.c_str());
}

std::string answer_text(const peer &from, const char *payload) {
    const Json request(json_loads(payload, 0, nullptr));
    const Json answer(request ? from.answer(request.get()) : nullptr);
    const MallocText text(answer ? json_dumps(answer.get(), 0) : nullptr);
    return text ? text.get() : "";
}

void on_request(const peer &self, const char *topic, const char *payload) {
    std::string text = answer_text(self, payload);
    if (text.empty() || self.mode == answer_mode::silent)
        return;
    if (self.mode == answer_mode::wrong)
        text = R"({"wrong": true})";
    if (self.mode != answer_mode::late) {
        respond(self, topic, text);
        return;
    }
    std::thread([&self, topic = std::string(topic), text] {
        std::this_thread::sleep_for(kLate);
        respond(self, topic, text);
    }).detach();
}

void on_control(const char *payload) {
    const Json root(json_loads(payload, 0, nullptr));
    const json_int_t process = json_integer_value(json_object_get(root.get(), "process"));
    const json_t *cleaning = json_object_get(root.get(), "nextCleaning");
    const char *mode = json_string_value(json_object_get(root.get(), "mode"));
    if (find_peer(process) == nullptr || (cleaning != nullptr && !json_is_integer(cleaning)) ||
        (mode != nullptr && !set_mode(process, mode)) || (cleaning == nullptr && mode == nullptr)) {
        fprintf(stderr, "peers: what is this? %s\n", payload);
        return;
    }
    if (cleaning != nullptr)
        next_cleaning = json_integer_value(cleaning);
    printf("control %s\n", payload);
}

void on_transport(const peer &self, int type, const mqtt_app_message *message) {
    if (type == TARN_REQUEST) {
        printf("%d < request %s\n", self.process, message->payload);
        on_request(self, message->topic, message->payload);
    } else if (type == TARN_EVENT) {
        printf("%d < event %s\n", self.process, message->payload);
        tarn_event_ack(self.lib, message->topic);
    }
}

void on_message(mqtt_app * /*app*/, const mqtt_app_message *message) {
    if (std::string_view(message->topic) == kControlTopic) {
        on_control(message->payload);
        return;
    }
    for (const peer &self : peers) {
        int type = 0;
        if (get_tarn_message_type(self.lib, message->topic, &type) == 0)
            on_transport(self, type, message);
    }
}

int send_text(void *app, const char *topic, const char *text) {
    return mqtt_app_publish(static_cast<mqtt_app *>(app), topic, static_cast<int>(strlen(text)),
                            text);
}

// --- the program ---------------------------------------------------------------------------------

bool parse_number(std::string_view text, json_int_t &to) {
    const char *const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, to);
    return error == std::errc() && rest == end;
}

bool take_mode_option(std::string_view text) {
    const size_t equals = text.find('=');
    json_int_t process = 0;
    return equals != text.npos && parse_number(text.substr(0, equals), process) &&
           set_mode(process, text.substr(equals + 1));
}

// The exit code when the program ends with its options, else -1.
int take_options(int argc, char **argv) {
    const option options[] = {{"next-cleaning", required_argument, nullptr, 'n'},
                              {"mode", required_argument, nullptr, 'm'},
                              {"help", no_argument, nullptr, 'h'},
                              {}};
    for (int option; (option = getopt_long(argc, argv, "h", options, nullptr)) != -1;) {
        if (option == 'h') {
            fputs(kHelp, stdout);
            return 0;
        }
        if ((option == 'n' && parse_number(optarg, next_cleaning)) ||
            (option == 'm' && take_mode_option(optarg)))
            continue;
        fputs(kHelp, stderr);
        return 2;
    }
    if (optind == argc)
        return -1;
    fputs(kHelp, stderr);
    return 2;
}

mqtt_app *connect_peers() {
    std::vector<const char *> topics{kControlTopic};
    for (const peer &each : peers)
        topics.push_back(each.topics);
    topics.push_back(nullptr);
    mqtt_app *const app = mqtt_app_create("peers");
    if (app == nullptr || mqtt_app_init(app, topics.data(), on_message) != 0)
        return nullptr;
    mqtt_app_register_on_connect_cb(app, [](mqtt_app *) { puts("connected"); });
    for (peer &each : peers) {
        each.lib = tarn_lib_init(send_text, app, nullptr);
        if (each.lib == nullptr)
            return nullptr;
        tarn_lib_set_process(each.lib, each.process);
    }
    return app;
}

}  // namespace

int main(int argc, char **argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const int code = take_options(argc, argv);
    if (code >= 0)
        return code;
    mqtt_app *const app = connect_peers();
    if (app == nullptr) {
        fputs("peers: cannot prepare the connection to the broker\n", stderr);
        return 1;
    }
    return mqtt_app_run(app) == 0 ? 0 : 1;  // until a signal ends the process
}
