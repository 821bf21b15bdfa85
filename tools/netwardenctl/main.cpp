// netwardenctl talks to a robot's netwarden as its other processes and its owner's app do: over the
// broker, and with the probe of local discovery.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <string>

#include "commands.h"
#include "log.h"
#include "text.h"
#include "waiting.h"

namespace {

using namespace ctl;

constexpr char kFooter[] = R"(
Exit codes: 0 done; 1 the robot said no, failed, or had nothing to tell; 2 wrong usage;
3 the broker or the robot does not answer; 130 interrupted.

Nothing asks the robot for its Wi-Fi state: it tells changes only. `watch` shows them;
`status` shows what the robot can be asked, and whether it is provisioning.)";

using Action = std::function<int()>;

struct Arguments {
    std::string broker;
    Options options;
    std::string word;
    long count = 0;
    DiscoverOptions where;
    ProvisionOptions settings;
    bool prompt = false;
    bool end = false;  // --abort, --end
    bool follow = false;
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

void add_questions(CLI::App &app, Arguments &a) {
    command(app, a, "status",
            "What the robot tells when asked: identity, address, channel, and whether it is "
            "provisioning. Its Wi-Fi state is seen by watching only",
            [&a] { return show_status(a.options); });
    add_word(command(app, a, "get", "Ask for one thing", [&a] { return get(a.options, a.word); }),
             a, "what", {"channel", "discovery"});
    add_word(command(app, a, "log-level", "Set the level of the daemon's log",
                     [&a] { return set_log_level(a.options, a.word); }),
             a, "level", {"verbose", "dbg", "info", "warn", "err"});
    add_word(command(app, a, "track", "Switch tracking of the home's devices",
                     [&a] { return track(a.options, a.word); }),
             a, "what", {"start", "pause", "stop"});
}

void add_listeners(CLI::App &app, Arguments &a) {
    command(app, a, "watch",
            "Show what the robot tells and is told, a line each, until Ctrl-C (--timeout)",
            [&a] { return watch(a.options, a.count); })
        ->add_option("--count", a.count, "End after so many messages")
        ->check(CLI::PositiveNumber);
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

void describe_arguments(CLI::App &app, Arguments &a) {
    app.set_version_flag("--version", NETWARDENCTL_VERSION);
    app.add_option("--broker", a.broker,
                   "The robot's broker, host:port or unix:/path (default: MQTT_APP_BROKER, else "
                   "127.0.0.1:1883)");
    app.add_option("--timeout", a.options.timeout_s, "Give up after this many seconds")
        ->check(CLI::Range(0.1, 1e6));
    app.add_flag("--json", a.options.json, "Print JSON, one object a line");
    app.require_subcommand(1);
    app.get_formatter()->column_width(24);
    app.footer(kFooter);
    add_questions(app, a);
    add_listeners(app, a);
    add_provisioning(app, a);
    add_training(app, a);
}

int fail(exit_code code, const std::string &text) {
    fprintf(stderr, "netwardenctl: %s\n", text.c_str());
    return code;
}

// Names an option that there is not, and nothing else: it may be a password put in the wrong place.
int refuse_extras(const CLI::App &app) {
    for (const std::string &argument : app.remaining(true))
        if (argument.starts_with("--"))
            return fail(kUsage,
                        "no such option: " + printable(argument.substr(0, argument.find('='))));
    return fail(kUsage,
                "arguments too many (netwardenctl COMMAND --help). A password is never an "
                "argument: --pass-file, or it is asked for");
}

int run(const Arguments &arguments) {
    if (!arguments.broker.empty())
        setenv("MQTT_APP_BROKER", arguments.broker.c_str(), 1);
    catch_interrupts();
    try {
        return arguments.action();
    } catch (const Failure &failure) {
        return fail(failure.code, failure.what());
    } catch (const Interrupted &) {
        return kInterrupted;
    }
}

int netwardenctl(int argc, char **argv) {
    Arguments arguments;
    CLI::App app("Talks to a robot's netwarden over its broker and its discovery probe.",
                 "netwardenctl");
    describe_arguments(app, arguments);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ExtrasError &) {
        return refuse_extras(app);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? kDone : kUsage;
    }
    return run(arguments);
}

}  // namespace

int main(int argc, char **argv) {
    try {
        return netwardenctl(argc, argv);
    } catch (const std::exception &error) {
        fprintf(stderr, "netwardenctl: %s\n", error.what());
        return kRefused;
    }
}
