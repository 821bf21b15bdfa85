// One day of a robot in which one call of the daemon into the C library fails: memory, a process, a
// thread, a descriptor or the disk has run out for an instant. The daemon boots at home, is
// provisioned anew, counts the home's devices, loses its link and gets it back, and must come
// through, or end at once and come back with the help of its service manager.
//
// tests/inner_faults plays it with all faults, or some. Arguments: --fault KIND:NUMBER and
// --descriptors COUNT, the most that may be open at the day's end.
#include <arpa/inet.h>
#include <signal.h>
#include <sys/wait.h>

#include <charconv>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <set>

#include "daemon.h"
#include "faults/faults.h"
#include "mqttapp/mqtt_app.h"
#include "pex_misc.h"
#include "supplicant.h"

namespace {

// Time is counted in looks at the daemon, 5 ms apart: where the machine is busy it goes slower for
// both. At the rate at which the daemon's pauses pass, the unit's watchdog waits twelve seconds.
using namespace std::chrono_literals;
constexpr auto kLook = 5ms;
constexpr long in_looks(std::chrono::milliseconds time) {
    return time / kLook;
}

constexpr long kLimit = in_looks(60s);  // of each chapter: a broker or a supplicant is waited for
constexpr long kSilence = in_looks(12s);
constexpr long kFirstNudge = in_looks(1500ms);  // who gets no answer asks again
constexpr char kManager[] = "/tmp/notify";
constexpr char kErrors[] = "/tmp/stderr";

struct {
    std::string fault;
    long descriptors = 0;
} given;

// --- what a fault may cost beyond a delay --------------------------------------------------------

// Each class of loss judged once: what it is, the faults that may cost it, and what the log must
// say then.
struct judgement {
    std::string_view loss;
    std::string_view faults;
    std::string_view log;
};
constexpr judgement kJudgements[]{
    // No command runs any more on a robot without the resources for this one, and that is meant:
    // the service manager misses the daemon's word and starts it again.
    {"silence", "memory process", "Failed to run command sudo hostapd_cli -ip2p0 all_sta"},
    {"silence", "memory", "malloc failed"},
    // What was to be stored is not. One key, and none that was not to be stored.
    {"network.", "file write", ""},
    {"robot.password", "file write", ""},
    // The link came so late that the provisioning ended without it; then nothing is saved.
    {"network.last_prov_status", "memory process socket", ""},
    // A passphrase whose key could not be made is stored itself, and serves as well.
    {"network.password", "memory crypto process", ""},
};

// --- the home ------------------------------------------------------------------------------------

// What others on the broker hear.
class Listener {
  public:
    Listener() : app_(mqtt_app_create("home")) {
        current = this;
        constexpr const char *kTopics[] = {"network/events", "robot/debug", "local/cmd",
                                           "tarn/30/resp/network/#", nullptr};
        mqtt_app_init(app_, kTopics, [](mqtt_app *, const mqtt_app_message *message) {
            const std::lock_guard guard(current->lock_);
            current->heard_ += std::string(message->topic) + " " + message->payload + "\n";
        });
        thread_ = std::thread([this] { mqtt_app_run(app_); });
    }
    ~Listener() {
        mqtt_app_exit(app_);
        thread_.join();
    }
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    void say(const std::string &topic, const std::string &text) {
        mqtt_app_publish(app_, topic.c_str(), static_cast<int>(text.size()), text.c_str());
    }
    bool heard(const std::string &text) {
        const std::lock_guard guard(lock_);
        return heard_.find(text) != heard_.npos;
    }
    void forget() {
        const std::lock_guard guard(lock_);
        heard_.clear();
    }

  private:
    static inline Listener *current = nullptr;
    mqtt_app *const app_;
    std::mutex lock_;
    std::string heard_;
    std::thread thread_;
};

// The access point: who listens to the supplicant is told of it.
class AccessPoint {
  public:
    AccessPoint() {
        supplicant_.answer_with([this](const std::string &command) {
            if (command == "ATTACH")
                return is_there_ ? Texts{"OK\n", kConnected} : Texts{"OK\n"};
            if (command == "STATUS")
                return Texts{"bssid=02:00:00:00:02:00\nfreq=2437\nwpa_state=COMPLETED\n"};
            if (command == "SCAN_RESULTS")
                return Texts{
                    "bssid / frequency / signal level / flags / ssid\n"
                    "02:00:00:00:02:00\t2437\t-42\t[WPA2-PSK-CCMP][ESS]\tHome\n"};
            return Texts{"OK\n"};
        });
    }
    void come() {
        is_there_ = true;
        if (supplicant_.is_attached())
            supplicant_.send_event(kConnected);
    }
    void go() {
        is_there_ = false;
        if (supplicant_.is_attached())
            supplicant_.send_event(
                "<3>CTRL-EVENT-DISCONNECTED bssid=02:00:00:00:02:00 reason=4 locally_generated=1");
    }

  private:
    static constexpr char kConnected[] =
        "<3>CTRL-EVENT-CONNECTED - Connection to 02:00:00:00:02:00 completed [id=0 id_str=]";
    std::atomic<bool> is_there_{true};
    Supplicant supplicant_;
};

class Socket {
  public:
    Socket() {
        const sockaddr_un address{AF_UNIX, "/tmp/notify"};
        EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address),
                  0);
    }
    std::string heard() {
        char text[512];
        const ssize_t length = recv(socket_.get(), text, sizeof text, MSG_DONTWAIT);
        return {text, static_cast<size_t>(std::max<ssize_t>(length, 0))};
    }

  private:
    const Fd socket_{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

// --- the day -------------------------------------------------------------------------------------

class InnerFaults : public DaemonRobot {
  protected:
    void SetUp() override {
        DaemonRobot::SetUp();
        furnish();
        ASSERT_EQ(system("ip link add wlan0 type veth peer name gw0 && ip link set gw0 up && "
                         "ip link set wlan0 up && ip addr add 192.0.2.2/29 dev wlan0 && "
                         "ip route add default via 192.0.2.1 && ip link set lo up"),
                  0);
        record_ = faults_open_record();
        ASSERT_NE(record_, nullptr);
        begin_life(given.fault);
    }

    void furnish() {
        fake("sudo", "exec \"$@\" 2>/dev/null");  // its standard error is the daemon's
        fake("provision", "echo CL REG DOMAIN WO");
        fake("version", "echo 'Product Version: 1.2'");
        for (const char *tool : {"hostapd_cli", "network_dhcp_arp_control.sh", "iw"})
            fake(tool, "exit 0");
        fake("wpa_cli",
             "case \"$*\" in *status*) printf 'bssid=02:00:00:00:02:00\\nfreq=2437\\n"
             "pairwise_cipher=CCMP\\nkey_mgmt=WPA2-PSK\\n' ;; esac");
        fake("arping", R"(case "$*" in
            *192.0.2.1*) echo 'Unicast reply from 192.0.2.1 [02:00:00:00:00:01]' ;;
            *192.0.2.3*) echo 'Unicast reply from 192.0.2.3 [02:00:00:00:00:03]' ;;
            *) exit 1 ;;
            esac)");
        fake("avahi-browse",
             R"(echo '=;wlan0;IPv4;Kitchen;_googlecast._tcp;local;k.local;192.0.2.3;8009;)"
             R"("cd=AB" "md=Google Home" "fn=Kitchen"')");
        for (const auto &[key, value] : keys_)
            kvs_set(key, value);
        write_file("/etc/resolv.conf", "nameserver 192.0.2.1\n");
    }

    void begin_life(const std::string &fault) {
        write_file(kErrors, "");
        const std::string variable = fault.empty() ? "" : std::string(kFaultVariable) + "=" + fault;
        daemon_ = start("env NOTIFY_SOCKET=" + std::string(kManager) + " " + variable + " /proc/" +
                        std::to_string(getpid()) + "/exe --daemon 2>" + kErrors);
        silence_ = 0;
        status_.clear();
        lives_++;
    }

    // --- the service manager ---

    void look_after_the_daemon() {
        for (std::string text = manager_.heard(); !text.empty(); text = manager_.heard()) {
            silence_ = 0;
            if (const size_t at = text.find("STATUS="); at != text.npos)
                status_ = text.substr(at + 7);
        }
        int status = 0;
        if (waitpid(daemon_, &status, WNOHANG) == daemon_)
            judge_end(status);
        else if (++silence_ > kSilence)
            judge_silence();
        else
            return;
        begin_life("");
    }
    void judge_end(int status) {
        std::string lines;
        std::ifstream errors(kErrors);
        for (std::string line; std::getline(errors, line);)
            if (line != "debug: discovery_init" &&  // said by every daemon
                !line.starts_with("cat: /proc/net/wireless"))
                lines += line + "\n";
        outcome_ = "ended: " + lines;
        if (lines != "netwarden: out of memory\n" || !WIFSIGNALED(status) ||
            WTERMSIG(status) != SIGABRT || lives_ > 1)
            fail("the daemon ended with status " + std::to_string(status) + ": " + lines);
    }
    void judge_silence() {
        outcome_ = "silent";
        if (lives_ > 1 || !is_acceptable("silence"))
            fail("the daemon is silent, its last words: " + status_);
        kill(daemon_, SIGKILL);
        waitpid(daemon_, nullptr, 0);
    }
    bool is_acceptable(const std::string &loss) {
        const std::string log = log_text();
        const std::string kind = given.fault.substr(0, given.fault.find(':'));
        return std::ranges::any_of(kJudgements, [&](const judgement &row) {
            return loss.starts_with(row.loss) && row.faults.find(kind) != row.faults.npos &&
                   log.find(row.log) != log.npos;
        });
    }
    void fail(const std::string &why) {
        ADD_FAILURE() << why;
        is_over_ = true;
    }

    // --- chapters ---

    bool is_connected() const { return status_ == "Wi-Fi CONNECTED"; }

    // Until it is so; who waits asks anew, ever more patiently.
    void reach(
        const char *what, const std::function<bool()> &so,
        const std::function<void()> &ask = [] {}) {
        long patience = kFirstNudge;
        for (long looks = 0, next = 0; !is_over_; looks++) {
            look_after_the_daemon();
            if (so())
                return;
            if (looks >= next) {
                ask();
                next = looks + patience;
                patience *= 2;
            }
            if (looks > kLimit)
                return fail(std::string("not reached: ") + what + "; status: " + status_);
            std::this_thread::sleep_for(kLook);
        }
    }

    void say(const std::string &text) { home_.say("brisk/network/events", text); }

    void boot() {
        reach("state 1 after the boot", [&] { return is_connected(); });
    }

    void ask_all() {
        for (const char *text : {R"({"set_log_level":"dbg"})", R"({"get":"channel"})",
                                 R"({"get":"discovery"})", R"({"logWifiLinkInfo":1})"}) {
            home_.forget();
            reach(
                text, [&] { return home_.heard("tarn/30/resp/network/"); },
                [&] { home_.say("tarn/network/req/30/" + std::to_string(++requests_), text); });
        }
        const Fd app(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        const sockaddr_in robot{AF_INET, htons(5678), {htonl(INADDR_LOOPBACK)}, {}};
        char text[2048];
        reach(
            "a description of the robot", [&] { return recv(app.get(), text, sizeof text, 0) > 0; },
            [&] {
                sendto(app.get(), "halvikmcs", 9, 0, reinterpret_cast<const sockaddr *>(&robot),
                       sizeof robot);
            });
    }

    void provision() {
        int life = 0;
        bool is_confirmed = false;
        const auto is_provisioning = [&] { return status_.find("provisioning") != status_.npos; };
        const auto act = [&] {
            if (life != lives_) {
                life = lives_;
                is_confirmed = false;
                home_.forget();
            }
            if (!is_provisioning() && !is_confirmed) {
                say(R"({"event":"tidelinkConnected"})");
                say(R"({"event":"provisioning"})");
            } else if (home_.heard("ipdone")) {
                say(R"({"command":"ipdone"})");
                is_confirmed = true;
            } else {
                say(R"({"wlcfg":{"ssid":"4e6577","pass":"636f727265637420686f727365"},)"
                    R"("robotpass":"secret9","wactivate":true})");
            }
        };
        reach(
            "provisioning", [&] { return is_provisioning(); }, act);
        // Each step is taken when the one before is seen, and again when nothing comes of it.
        reach(
            "the new network", [&] { return home_.heard("ipdone") && life == lives_; }, act);
        reach(
            "the end of the provisioning",
            [&] { return is_confirmed && life == lives_ && is_connected(); }, act);
    }

    void count_devices() {
        home_.forget();
        reach(
            "the census", [&] { return home_.heard("\"mac_address\":\"02:00:00:00:00:03\""); },
            [&] {
                say(R"({"event":"pauseWifiDeviceTracking"})");
                say(R"({"event":"startWifiDeviceTracking"})");
            });
        reach(
            "the end of the census",
            [&] { return times_logged("stopping wifi device tracking") > 0 || lives_ > 1; },
            [&] { say(R"({"event":"stopWifiDeviceTracking"})"); });
    }

    void lose_the_link() {
        reach(
            "the loss of the link", [&] { return !is_connected() && !status_.empty(); },
            [&] { access_point_.go(); });
        reach(
            "the reconnect", [&] { return is_connected(); }, [&] { access_point_.come(); });
    }

    // --- what is left ---

    std::string daemon_file(const char *name) const {
        return "/proc/" + std::to_string(daemon_) + "/" + name;
    }
    long open_descriptors() const {
        std::error_code error;
        return std::distance(std::filesystem::directory_iterator(daemon_file("fd"), error), {});
    }
    std::set<std::string> threads() const {
        std::set<std::string> names;
        for (const auto &task : std::filesystem::directory_iterator(daemon_file("task")))
            names.insert(read_file(task.path().string() + "/comm"));
        return names;
    }
    bool has_children() const {
        for (const auto &process : std::filesystem::directory_iterator("/proc")) {
            const std::string path = process.path().string();
            if (isdigit(static_cast<unsigned char>(path[strlen("/proc/")])) == 0)
                continue;
            const std::string text = read_file(path + "/stat");  // "17 (name) S parent ..."
            const size_t at = text.rfind(") ");
            if (at != text.npos && text.substr(at + 4).starts_with(std::to_string(daemon_) + " "))
                return true;
        }
        return false;
    }

    void check_what_is_left() {
        reach("all descriptors closed",
              [&] { return given.descriptors == 0 || open_descriptors() <= given.descriptors; });
        reach("all children gone", [&] { return !has_children(); });
        reach("all threads there", [&] {
            const auto names = threads();
            return std::ranges::all_of(
                std::array{"mqtt_app_main\n", "wlan_monitor\n", "pinger_main\n", "mdns_discovery\n",
                           "dev_pinger\n", "dev_subnet_ping\n", "dev_network_hop\n",
                           "discovery_main\n"},
                [&](const char *name) { return names.contains(name); });
        });
        std::array<char, 65> psk{};
        wpa_passphrase("New", "correct horse", psk.data(), psk.size());
        keys_["network.ssid"] = "4e6577";
        keys_["network.password"] = psk.data();
        keys_["network.interface"] = "wlan0";
        keys_["robot.password"] = "secret9";
        std::string lost;
        for (const auto &[key, value] : keys_)
            if (kvs_get(key) != value) {
                if (!lost.empty() || !is_acceptable(key))
                    fail("the key " + key + " is " + kvs_get(key));
                lost = key;
            }
        if (!lost.empty())
            outcome_ += "lost " + lost;
    }

    void tell() {
        std::cout << "outcome " << (outcome_.empty() ? "came through" : outcome_) << std::endl;
        std::cout << "descriptors " << open_descriptors() << std::endl;
        for (size_t kind = 0; kind < kFaultKinds.size(); kind++)
            std::cout << "calls " << kFaultKinds[kind] << " " << record_->calls[kind] << std::endl;
        if (!given.fault.empty() && !record_->has_failed)
            std::cout << "outcome not met" << std::endl;
        if (HasFailure())
            std::cout << "place:\n"
                      << read_file(kFaultPlace) << "errors:\n"
                      << read_file(kErrors) << "log:\n"
                      << log_text();
    }

    std::map<std::string, std::string> keys_{
        {"network.ssid", "4f6c64"},
        {"network.password", "old passphrase"},
        {"network.ip_config", "sudo provision --clmode dhcp \n"},
        {"network.addr_type", "1"},
        {"network.last_prov_status", "1"},
        {"network.watchdog_interval_min", "3"},
        {"product.robotid", "0123456789ABCDEF"},
        {"product.regdom", "ETSI"},
        {"robot.name", "Rosie"},
        {"robot.disc_reconnect_sleep_sec", "0"}};
    Broker broker_;
    Socket manager_;
    AccessPoint access_point_;
    Listener home_;
    fault_record *record_ = nullptr;
    pid_t daemon_ = -1;
    int lives_ = 0;
    int requests_ = 0;
    long silence_ = 0;    // of the daemon, in looks
    std::string status_;  // the service manager's, of this life
    std::string outcome_;
    bool is_over_ = false;
};

TEST_F(InnerFaults, ADayGoesOn) {
    boot();
    ask_all();
    provision();
    count_devices();
    lose_the_link();
    ask_all();
    check_what_is_left();
    tell();
}

}  // namespace

int main(int argc, char **argv) {
    const std::vector<std::string_view> arguments(argv, argv + argc);
    if (argc > 1 && arguments[1] == "--daemon" && !faults_arm())
        return 2;
    for (size_t i = 1; i + 1 < arguments.size(); i++)
        if (arguments[i] == "--fault")
            given.fault = arguments[i + 1];
        else if (arguments[i] == "--descriptors")
            std::from_chars(arguments[i + 1].data(),
                            arguments[i + 1].data() + arguments[i + 1].size(), given.descriptors);
    return run_tests_or_daemon(argc, argv);
}
