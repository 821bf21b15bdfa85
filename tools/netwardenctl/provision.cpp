// Provisioning and training, played as the robot's user interface and the owner's phone play them.
#include <arpa/inet.h>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <functional>
#include <optional>

#include "commands.h"
#include "connection.h"
#include "secret.h"
#include "text.h"

namespace ctl {

namespace {

constexpr double kStartS = 30;  // the robot may be busy with its scripts
constexpr double kTakeS = 60;   // it ends its soft AP first
constexpr double kWholeRunS = 180;
constexpr double kEndS = 10;
constexpr size_t kLongestSsid = 32;  // bytes, IEEE 802.11

// --- secrets -------------------------------------------------------------------------------------

// The terminal does not show what is typed while this lives.
class Silence {
  public:
    explicit Silence(int fd) : fd_(fd) {
        tcgetattr(fd_, &before_);
        termios quiet = before_;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(fd_, TCSAFLUSH, &quiet);
    }
    Silence(const Silence &) = delete;
    Silence &operator=(const Silence &) = delete;
    ~Silence() {
        tcsetattr(fd_, TCSAFLUSH, &before_);
        dprintf(fd_, "\n");
    }

  private:
    int fd_;
    termios before_{};
};

std::string ask_for_secret(const std::string &prompt) {
    const Fd terminal(open("/dev/tty", O_RDWR | O_CLOEXEC));
    if (!terminal)
        throw Failure(kUsage, "no terminal to ask for the password: --pass-file or --open");
    dprintf(terminal.get(), "%s", prompt.c_str());
    const Silence silence(terminal.get());
    return read_secret_line(terminal.get(), "the password");
}

// --- the settings --------------------------------------------------------------------------------

void add_text(json_t *to, const char *key, const std::string &text) {
    json_object_set_new(to, key, json_stringn(text.data(), text.size()));
}

void add_static_address(json_t *wlcfg, const ProvisionOptions &settings) {
    const std::array<std::pair<const char *, const std::string *>, 5> members{
        {{"addr", &settings.addr},
         {"mask", &settings.mask},
         {"gw", &settings.gw},
         {"dns1", &settings.dns1},
         {"dns2", &settings.dns2}}};
    for (const auto &[key, text] : members)
        if (!text->empty())
            add_text(wlcfg, key, *text);
}

std::string ssid_of(const ProvisionOptions &settings) {
    const auto ssid = settings.ssid_is_hex ? from_hex(settings.ssid) : settings.ssid;
    if (!ssid)
        throw Failure(kUsage, "--ssid: no hexadecimal digits");
    if (ssid->empty() || ssid->size() > kLongestSsid)
        throw Failure(kUsage, "--ssid: 1 to 32 bytes");
    return *ssid;
}

// What the robot could make no key of would cost its owner a minute to learn.
void check_password(const std::string &pass) {
    const size_t length = pass.size();
    const bool is_wpa = length >= 8 && length <= 63;
    const bool is_key = length == 64 && from_hex(pass);
    const bool is_wep = length == 5 || length == 10 || length == 13 || length == 26;
    if (!is_wpa && !is_key && !is_wep)
        throw Failure(kUsage, "the password has " + std::to_string(length) +
                                  " bytes: WPA takes 8 to 63, or a key of 64 hexadecimal digits; "
                                  "WEP 5, 10, 13 or 26. Nothing was sent");
}

std::string settings_message(const ProvisionOptions &settings, const std::string &ssid) {
    std::string pass;  // sent empty for an open network: absent, an earlier one would stay
    if (!settings.pass_file.empty())
        pass = read_secret_file(settings.pass_file);
    else if (!settings.open)
        pass = ask_for_secret("password of " + printable(ssid) + ": ");
    if (!settings.open)
        check_password(pass);
    const Json root(json_pack("{s:{s:s, s:s}, s:b}", "wlcfg", "ssid", to_hex(ssid).c_str(), "pass",
                              to_hex(pass).c_str(), "wactivate", 1));
    if (settings.static_address)
        add_static_address(json_object_get(root.get(), "wlcfg"), settings);
    if (!settings.robot_pass_file.empty()) {
        const std::string own = read_secret_file(settings.robot_pass_file);
        if (json_object_set_new(root.get(), "robotpass", json_stringn(own.data(), own.size())) != 0)
            throw Failure(kUsage, "the robot's password is not UTF-8");
    }
    const MallocText text(json_dumps(root.get(), JSON_COMPACT));
    return text.get();
}

// --- the robot's steps ---------------------------------------------------------------------------

using Test = std::function<bool(const json_t *message)>;

// Prints what comes until a message passes the test; false at the deadline.
bool await(Connection &robot, const Printer &printer, Deadline end, const Test &test) {
    while (const auto message = robot.next(end)) {
        printer.message(*message);
        if (const Json root = parse_masked(message->payload); test(root.get()))
            return true;
    }
    return false;
}

using Words = std::vector<std::string_view>;

bool is_command(const json_t *message, const Words &words) {
    const std::string word = text_member(message, "command");
    return std::find(words.begin(), words.end(), word) != words.end();
}

const std::vector<std::string> &steps() {
    static const std::vector<std::string> topics{kOutbound, "robot/debug", "local/cmd",
                                                 "tarn/2/event/network/#"};
    return topics;
}

void start_provisioning(Connection &robot, const Printer &printer, const ProvisionOptions &settings,
                        Deadline end) {
    if (settings.tidelink) {
        printer.step("tell", "the way to the app is open");
        robot.tell(R"({"event":"tidelinkConnected"})");
    }
    printer.step("tell", "start provisioning");
    robot.tell(R"({"event":"provisioning"})");
    const Deadline start_end = std::min(end, deadline_after(kStartS));
    if (!await(robot, printer, start_end,
               [](const json_t *message) { return is_command(message, {"provstart"}); }))
        throw Failure(kRefused,
                      "the robot took the event but does not start. Before it has heard that the "
                      "way to the app is open it waits; --tidelink tells it");
}

void await_phone(Connection &robot, const Printer &printer, Deadline end) {
    printer.step("wait", "for a phone on the soft AP");
    if (!await(robot, printer, end,
               [](const json_t *message) { return is_command(message, {"softapconnect"}); }))
        throw Failure(kRefused, "no phone has joined the soft AP in time");
}

constexpr json_int_t kConnecting = 8;

// Nothing when the message does not tell it.
std::optional<json_int_t> wifi_state(const json_t *message) {
    const json_t *wifi = json_object_get(json_object_get(message, "wifistat"), "wifi");
    return wifi != nullptr ? std::optional(json_integer_value(wifi)) : std::nullopt;
}

// Wi-Fi states that end the attempt: the robot goes back to waiting for settings.
bool is_failure(json_int_t state) {
    constexpr std::array<json_int_t, 7> kFailures{-1, 2, 3, 4, 6, 9, 10};
    return std::find(kFailures.begin(), kFailures.end(), state) != kFailures.end();
}

// True when the message says that the robot is connected; Failure when it says that it will not be.
bool is_connected(const json_t *message) {
    constexpr char kStillThere[] =
        ". The robot still waits for settings: run it again, or end it with provision --abort";
    if (const auto state = wifi_state(message); state && is_failure(*state))
        throw Failure(kRefused, wifi_state_text(*state) + kStillThere);
    if (is_command(message, {"provfail", "provabort"}))
        throw Failure(kRefused, "the robot has ended provisioning");
    return is_command(message, {"ipdone"});
}

void send_settings(Connection &robot, const Printer &printer, const ProvisionOptions &settings,
                   const std::string &message, Deadline end) {
    if (settings.phone)
        await_phone(robot, printer, end);
    printer.step("tell",
                 "join \"" + printable(ssid_of(settings)) + "\" (the settings, then activate)");
    robot.tell(message);
    bool connected = false;
    const auto taken = [&connected](const json_t *m) {
        connected = is_connected(m);
        return connected || wifi_state(m) == kConnecting;
    };
    if (!await(robot, printer, std::min(end, deadline_after(kTakeS)), taken))
        throw Failure(kRefused, "the robot does not take the settings. In training it takes none");
    if (!connected && !await(robot, printer, end, is_connected))
        throw Failure(kRefused,
                      "not connected in time. The robot goes on trying; provision "
                      "--abort ends it");
}

void finish(Connection &robot, const Printer &printer) {
    printer.step("tell", "the app is done");
    robot.tell(R"({"command":"ipdone"})");
    if (!await(robot, printer, deadline_after(kEndS), [](const json_t *message) {
            return text_member(message, "event") == "resetCloudConnection";
        }))
        throw Failure(kRefused, "connected, but the robot does not end provisioning");
}

// A message that the robot answers with a command word to its user interface.
struct Order {
    const char *message;
    const char *what;
    Words answers;
    const char *failure;
};

void carry_out(Connection &robot, const Printer &printer, Deadline end, const Order &order) {
    printer.step("tell", order.what);
    robot.tell(order.message);
    if (!await(robot, printer, end, [&](const json_t *m) { return is_command(m, order.answers); }))
        throw Failure(kRefused, order.failure);
}

int carry_out(const Options &options, const Order &order) {
    Connection robot(steps(), options.timeout_or(kAnswerS));
    carry_out(robot, Printer(options.json), deadline_after(options.timeout_or(kStartS)), order);
    return kDone;
}

}  // namespace

int provision(const Options &options, const ProvisionOptions &settings) {
    const auto plays = [&](const char *step) {
        return settings.step.empty() || settings.step == step;
    };
    const std::string message =
        plays("settings") ? settings_message(settings, ssid_of(settings)) : "";
    const double limit = options.timeout_or(kAnswerS);
    Connection robot(steps(), limit);
    const Printer printer(options.json);
    robot.ask(R"({"get":"channel"})", limit);
    const Deadline end = deadline_after(options.timeout_or(kWholeRunS));
    try {
        if (plays("start"))
            start_provisioning(robot, printer, settings, end);
        if (plays("settings"))
            send_settings(robot, printer, settings, message, end);
        if (plays("end"))
            finish(robot, printer);
    } catch (const Interrupted &) {
        notice("the robot goes on provisioning; provision --abort ends it");
        throw;
    }
    if (settings.step.empty())
        printer.step("done", "provisioned");
    return kDone;
}

int abort_provisioning(const Options &options) {
    return carry_out(options, {R"({"event":"btnpress"})",
                               "press the button",
                               {"provabort", "trainabort"},
                               "the robot does not abort: it is not provisioning, or has only just "
                               "started"});
}

int train(const Options &options, bool follow) {
    const Order start{R"({"event":"training"})",
                      "start training",
                      {"trainstart"},
                      "the robot does not start training: the soft AP failed, or it is in training "
                      "already"};
    if (!follow)
        return carry_out(options, start);
    Connection robot(steps(), options.timeout_or(kAnswerS));
    const Printer printer(options.json);
    const Deadline end = deadline_after(options.timeout_s);
    carry_out(robot, printer, std::min(end, deadline_after(kStartS)), start);
    if (!await(robot, printer, end, [](const json_t *message) {
            return is_command(message, {"traindone", "trainabort"});
        }))
        throw Failure(kRefused, "training has not ended in time");
    return kDone;
}

int end_training(const Options &options) {
    return carry_out(options, {R"({"uap":false})",
                               "end training",
                               {"traindone"},
                               "the robot does not end training: it is in none, or the soft AP "
                               "does not stop"});
}

}  // namespace ctl
