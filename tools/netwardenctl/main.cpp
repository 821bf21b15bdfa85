// netwardenctl talks to a robot's netwarden as its other processes and its owner's app do: over the
// broker, and with the probe of local discovery.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <string>

#include "broker.h"
#include "commands.h"
#include "log.h"
#include "secret.h"
#include "text.h"
#include "waiting.h"

namespace {

using namespace ctl;

constexpr char kFooter[] = R"(
Exit codes: 0 done; 1 the robot said no, failed, or had nothing to tell; 2 wrong usage; 3 the
broker or the robot does not answer; 4 the output cannot be written; 130 interrupted; 141 nobody
reads the output any more. netwardenctl(1) has the rest.)";

using Action = std::function<int()>;

struct Arguments {
    BrokerSettings broker;
    std::string broker_pass_file;
    Options options;
    std::string word;
    std::string interface;
    long count = 0;
    DiscoverOptions where;
    ProvisionOptions settings;
    bool prompt = false;
    bool end = false;  // --abort, --end
    bool follow = false;
    bool yes = false;
    Action action;
};

CLI::App *command(CLI::App &app, Arguments &to, const char *name, const char *help, Action action) {
    CLI::App *const each = app.add_subcommand(name, help);
    each->fallthrough();
    each->callback([&to, action = std::move(action)] { to.action = action; });
    return each;
}

void add_word(CLI::App *to, Arguments &arguments, const char *name,
              const std::vector<std::string> &words) {
    to->add_option(name, arguments.word)->required()->check(CLI::IsMember(words));
}

// What is written without the digits of the largest number there is.
CLI::Validator between(double low, double high) {
    return CLI::Validator(
        [low, high](const std::string &text) {
            char *end = nullptr;
            const double value = strtod(text.c_str(), &end);
            return *end == '\0' && value >= low && value <= high
                       ? std::string()
                       : format("not a number from %g to %.0f", low, high);
        },
        "");
}

// One that looks at a station's interface.
CLI::App *command_at(CLI::App &app, Arguments &a, const char *name, const char *help,
                     Action action) {
    CLI::App *const each = command(app, a, name, help, std::move(action));
    each->add_option("--interface", a.interface,
                     "The station's interface (default: the running daemon's, else wlan0)")
        ->type_name("NAME");
    return each;
}

void add_questions(CLI::App &app, Arguments &a) {
    command_at(app, a, "status",
               "State, address, gateway, signal, how the last provisioning ended, and "
               "who the robot is",
               [&a] { return show_status(a.options, a.interface); });
    command_at(app, a, "link",
               "Signal, channel and access point, measured on the robot itself. Needs "
               "no broker",
               [&a] { return show_link(a.options, a.interface); });
    CLI::App *const waiting = command_at(
        app, a, "wait", "Wait until the robot is connected (60 s); at once when it is so", [&a] {
            return wait_for_state(a.options, a.word.empty() ? "connected" : a.word, a.interface);
        });
    waiting->add_option("--state", a.word, "Or in this state")
        ->check(CLI::IsMember(wifi_state_names()));
    add_word(command(app, a, "get", "Ask for one thing", [&a] { return get(a.options, a.word); }),
             a, "what", {"channel", "discovery"});
}

void add_looks(CLI::App &app, Arguments &a) {
    command_at(app, a, "doctor",
               "Check that this machine has everything that netwarden needs, a line "
               "each: ok, or what to do. Best as root, on the robot itself",
               [&a] { return examine_machine(a.options, a.interface); });
    command_at(app, a, "report",
               "Write down all that is known of this robot's Wi-Fi, in one file for who "
               "is to find a fault. Secrets are masked",
               [&a] { return report(a.options, a.word, a.interface); })
        ->add_option("file", a.word,
                     "A new file, or - for standard output (default: named after the time)");
}

void add_changes(CLI::App &app, Arguments &a) {
    command(app, a, "restart", "Have the network taken down and brought up again", [&a] {
        return restart_network(a.options, a.follow);
    })->add_flag("--wait", a.follow, "Until the robot is connected again (120 s)");
    command(app, a, "forget",
            "Forget the saved network, on the robot itself; it then waits to be provisioned",
            [&a] { return forget_network(a.options, a.yes); })
        ->add_flag("--yes", a.yes, "Do not ask");
    add_word(command(app, a, "log-level", "Set the level of the daemon's log",
                     [&a] { return set_log_level(a.options, a.word); }),
             a, "level", {"verbose", "dbg", "info", "warn", "err"});
    add_word(command(app, a, "track", "Switch tracking of the home's devices",
                     [&a] { return track(a.options, a.word); }),
             a, "what", {"start", "pause", "stop"});
}

void add_listeners(CLI::App &app, Arguments &a) {
    constexpr double kMostMessages = 1e9;
    command_at(app, a, "watch",
               "Show the present state, and what the robot tells and is told, a line each, until "
               "Ctrl-C (--timeout)",
               [&a] { return watch(a.options, a.count, a.interface); })
        ->add_option("--count", a.count, "End after so many messages")
        ->type_name("N")
        ->check(between(1, kMostMessages));
    command(app, a, "devices",
            "Wait for the next report of the home's devices (60 s) and print it as a table. It "
            "comes while tracking is on, and when something has changed",
            [&a] { return list_devices(a.options); });
    CLI::App *const finding =
        command(app, a, "discover", "Probe the local network for robots (3 s). Needs no broker",
                [&a] { return discover(a.options, a.where); });
    CLI::Option *const address =
        finding->add_option("--address", a.where.address, "Probe this IPv4 address only")
            ->check(CLI::ValidIPV4);
    finding->add_option("--interface", a.where.interface, "Broadcast on this interface only")
        ->excludes(address);
}

void add_password(CLI::App *to, Arguments &a) {
    auto *const file =
        to->add_option("--pass-file", a.settings.pass_file,
                       "Its password is this file's first line; - is standard input");
    auto *const prompt =
        to->add_flag("--pass", a.prompt, "Ask for the password on the terminal (the default)")
            ->disable_flag_override()
            ->excludes(file);
    to->add_flag("--open", a.settings.open, "The network has no password")
        ->excludes(file)
        ->excludes(prompt);
    to->add_option("--robot-pass-file", a.settings.robot_pass_file,
                   "Give the robot this file's first line as its own password");
}

void add_addresses(CLI::App *to, Arguments &a) {
    auto *const fixed =
        to->add_flag("--static", a.settings.static_address, "A fixed address, no DHCP");
    const auto add = [&](const char *name, std::string &text, const char *help) {
        return to->add_option(name, text, help)->check(CLI::ValidIPV4)->needs(fixed);
    };
    fixed->needs(add("--addr", a.settings.addr, "The fixed address"));
    fixed->needs(add("--mask", a.settings.mask, "Its subnet mask"));
    fixed->needs(add("--gw", a.settings.gw, "The gateway"));
    add("--dns1", a.settings.dns1, "First name server (default: the gateway)");
    add("--dns2", a.settings.dns2, "Second name server");
}

void add_provisioning(CLI::App &app, Arguments &a) {
    CLI::App *const prov = command(
        app, a, "provision",
        "Play app and phone: start provisioning, send the home's settings, wait until the robot is "
        "connected (180 s), and end it",
        [&a] { return a.end ? abort_provisioning(a.options) : provision(a.options, a.settings); });
    CLI::Option *const ssid = prov->add_option("--ssid", a.settings.ssid, "The home's network");
    prov->add_flag("--hex", a.settings.ssid_is_hex,
                   "Its name is given as two hexadecimal digits a byte")
        ->needs(ssid);
    prov->add_option("--step", a.settings.step,
                     "Play this step only: start it, send the settings and wait until the robot is "
                     "connected, or confirm that, which ends it")
        ->check(CLI::IsMember({"start", "settings", "end"}));
    add_password(prov, a);
    add_addresses(prov, a);
    prov->add_flag("--tidelink", a.settings.tidelink,
                   "Tell the robot first that the way to the app is open. A robot that has not "
                   "heard so since its start waits for it");
    prov->add_flag("--phone", a.settings.phone,
                   "Send the settings only when a phone has joined the robot's soft AP");
    prov->add_flag("--abort", a.end,
                   "Press the robot's button instead: ends provisioning or training")
        ->excludes(ssid);
}

void add_training(CLI::App &app, Arguments &a) {
    CLI::App *const training = command(app, a, "train", "Start training mode (30 s)", [&a] {
        return a.end ? end_training(a.options) : train(a.options, a.follow);
    });
    CLI::Option *const follow =
        training->add_flag("--follow", a.follow, "Go on showing its steps until it ends");
    training->add_flag("--end", a.end, "End it instead")->excludes(follow);
}

void add_broker(CLI::App &app, Arguments &a) {
    app.add_option("--broker", a.broker.address,
                   "The robot's broker, host:port or unix:/path (default: MQTT_APP_BROKER, else "
                   "127.0.0.1:1883)")
        ->type_name("ADDRESS");
    app.add_option("--user", a.broker.user,
                   "Who we are to a broker that asks (default: NETWARDENCTL_USER)")
        ->type_name("NAME");
    app.add_option("--broker-pass-file", a.broker_pass_file,
                   "Its password is this file's first line (default: NETWARDENCTL_PASSWORD)")
        ->type_name("FILE");
    const auto add_file = [&app](const char *name, std::string &file, const char *help) {
        return app.add_option(name, file, help)->type_name("FILE");
    };
    CLI::Option *const ca = add_file("--cafile", a.broker.cafile,
                                     "Speak TLS to a broker whose certificate one of these signs");
    CLI::Option *const cert =
        add_file("--cert", a.broker.cert, "Our own certificate, for a broker that asks")->needs(ca);
    cert->needs(add_file("--key", a.broker.key, "Its key, without a password")->needs(cert));
}

int print_help(const CLI::App &app, const std::string &word);

void add_help(CLI::App &app, Arguments &a) {
    command(app, a, "help", "Print the help of a command", [&app, &a] {
        return print_help(app, a.word);
    })->add_option("command", a.word);
    command(app, a, "version", "Print the version", [&a] {
        if (a.options.json)
            puts(R"({"version":")" NETWARDENCTL_VERSION R"("})");
        else
            puts(NETWARDENCTL_VERSION);
        return kDone;
    });
}

void describe_arguments(CLI::App &app, Arguments &a) {
    constexpr double kShortestS = 0.1;
    constexpr double kLongestS = 1e6;
    app.set_version_flag("--version", NETWARDENCTL_VERSION);
    add_broker(app, a);
    app.add_option("--timeout", a.options.timeout_s,
                   "Give up after this many seconds; each command has its own")
        ->type_name("SECONDS")
        ->check(between(kShortestS, kLongestS));
    app.add_flag("--json", a.options.json, "Print JSON, one object a line; errors, too");
    app.require_subcommand(0, 1);
    app.get_formatter()->column_width(24);
    app.footer(kFooter);
    add_questions(app, a);
    add_looks(app, a);
    add_listeners(app, a);
    add_changes(app, a);
    add_provisioning(app, a);
    add_training(app, a);
    add_help(app, a);
}

// --- what is wrong with a command line -----------------------------------------------------------

std::vector<std::string> command_names(const CLI::App &app) {
    std::vector<std::string> names;
    for (const CLI::App *each : app.get_subcommands([](const CLI::App *) { return true; }))
        names.push_back(each->get_name());
    return names;
}

int refuse_command(const CLI::App &app, const std::string &word) {
    const auto near = nearest(word, command_names(app));
    std::string text = "no such command: " + printable(word);
    for (size_t i = 0; i < near.size(); i++)
        text += (i == 0 ? ". Did you mean " : ", or ") + near[i];
    return complain(kUsage, text + (near.empty() ? ". netwardenctl help lists them" : "?"));
}

int print_help(const CLI::App &app, const std::string &word) {
    const auto names = command_names(app);
    if (word.empty())  // help() would print this command's own
        fputs(app.get_formatter()
                  ->make_help(&app, app.get_name(), CLI::AppFormatMode::Normal)
                  .c_str(),
              stdout);
    else if (std::find(names.begin(), names.end(), word) == names.end())
        return refuse_command(app, word);
    else
        fputs(app.get_subcommand(word)->help(app.get_name()).c_str(), stdout);
    return kDone;
}

// Names an option that there is not, or the command. Nothing else: it may be a password put in the
// wrong place.
int refuse_extras(const CLI::App &app) {
    const auto extras = app.remaining(true);
    for (const std::string &argument : extras)
        if (argument.starts_with("--"))
            return complain(kUsage,
                            "no such option: " + printable(argument.substr(0, argument.find('='))));
    if (app.get_subcommands().empty() && !extras.empty())
        return refuse_command(app, extras[0]);
    return complain(kUsage,
                    "arguments too many (netwardenctl COMMAND --help). A password is never an "
                    "argument: --pass-file, or it is asked for");
}

std::string from_environment(const char *name, const char *otherwise = "") {
    const char *value = getenv(name);
    return value != nullptr && *value != '\0' ? value : otherwise;
}

void settle_broker(const Arguments &arguments) {
    BrokerSettings &settings = broker_settings() = arguments.broker;
    if (settings.address.empty())
        settings.address = from_environment("MQTT_APP_BROKER", "127.0.0.1:1883");
    if (settings.user.empty())
        settings.user = from_environment("NETWARDENCTL_USER");
    settings.password = arguments.broker_pass_file.empty()
                            ? from_environment("NETWARDENCTL_PASSWORD")
                            : read_secret_file(arguments.broker_pass_file);
    if (settings.user.empty() && !settings.password.empty())
        throw Failure(kUsage, "a password for the broker needs a --user");
    check_broker(settings);
}

int parse_and_run(int argc, char **argv) {
    Arguments arguments;
    CLI::App app("Talks to a robot's netwarden over its broker and its discovery probe.",
                 "netwardenctl");
    describe_arguments(app, arguments);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ExtrasError &) {
        return refuse_extras(app);
    } catch (const CLI::Success &request) {
        return app.exit(request);
    } catch (const CLI::ParseError &error) {
        return complain(kUsage, error.what());
    }
    if (!arguments.action)
        return complain(kUsage, "no command. netwardenctl help lists them");
    speak_json(arguments.options.json);
    settle_broker(arguments);
    return arguments.action();
}

// What the robot's libraries log is said better by our own errors; on the robot it would land in
// its log.
void silence_libraries() {
    log_handle *const silent = log_open_default("netwardenctl");
    log_set_level(silent, LOG_LEVEL_ERROR + 1);
    exchange_log_handle(silent);
}

// The robot's tools are where the daemon finds them, whoever looks.
void complete_path() {
    const std::string path = from_environment("PATH", "/usr/local/bin:/usr/bin:/bin");
    setenv("PATH", (path + ":/usr/local/sbin:/usr/sbin:/sbin").c_str(), 1);
}

int netwardenctl(int argc, char **argv) {
    // A command line that cannot be understood is complained of as it asks, too.
    speak_json(std::any_of(argv, argv + argc,
                           [](const char *word) { return std::string_view(word) == "--json"; }));
    catch_interrupts();
    catch_broken_pipes();
    silence_libraries();
    complete_path();
    try {
        const int code = parse_and_run(argc, argv);
        flush_output();
        return code;
    } catch (const Failure &failure) {
        return complain(failure.code, failure.what());
    } catch (const Interrupted &) {
        return kInterrupted;
    } catch (const NobodyReads &) {
        return kNobodyReads;
    } catch (const std::exception &error) {
        return complain(kRefused, error.what());
    }
}

}  // namespace

int main(int argc, char **argv) {
    const int code = netwardenctl(argc, argv);
    if (has_left_threads())
        _exit(code);
    return code;
}
