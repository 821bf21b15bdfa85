// The settings store: its files, its texts and its JSON values.
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "kvs_json.h"
#include "pex_kvs.h"
#include "pex_kvs_helper.h"
#include "pex_misc.h"
#include "robot.h"

namespace {

constexpr char kStore[] = "/opt/halvik/persistent/opt/halvik/data/kvs";

class Kvs : public Robot {
  protected:
    static std::string text_of(char *text) {
        const MallocText owned(text);
        return owned ? owned.get() : "<null>";
    }
    static std::string value_of(const char *key) {
        return text_of(pex_kvs_get_key_str_malloc(key));
    }
    // Permissions and group.
    static std::string access_of(const std::string &path) {
        struct stat info = {};
        stat(path.c_str(), &info);
        const group *const owner = getgrgid(info.st_gid);
        return pex_format("%o ", info.st_mode & 07777) + (owner != nullptr ? owner->gr_name : "?");
    }
};

TEST_F(Kvs, ValuesReadWithoutTheirLineEnds) {
    const auto read = [](const std::string &stored) {
        kvs_set("robot.name", stored);
        EXPECT_EQ(pex_kvs_get_key_data_size("robot.name"), stored.size());
        return value_of("robot.name");
    };
    EXPECT_EQ(read("hello\r\n\n") + read("a\nb\n") + read("\r\n"), "helloa\nb");
    EXPECT_EQ(read(std::string("a\0b\n", 4)) + read(""), "a<null>");
    EXPECT_EQ(read(std::string(200000, 'x')), std::string(200000, 'x'));
    // Keys are the callers' business: one may lead out of the store.
    EXPECT_EQ(pex_kvs_set_key_str("../beside", "x"), 0);
    EXPECT_EQ(read_file(std::string(kStore) + "/../beside"), "x");
    for (const char *bad : {"", ".", "below/key"})
        EXPECT_EQ(pex_kvs_set_key_str(bad, "x") + pex_kvs_key_exists(bad), -2) << bad;
}

TEST_F(Kvs, BufferBoundsAreKept) {
    kvs_set("robot.name", "hello");
    for (size_t given : {0, 5, 6, 7}) {
        char buffer[] = "########";
        size_t length = given;
        EXPECT_EQ(pex_kvs_get_key("robot.name", buffer, &length), given > 5 ? 0 : -1) << given;
        EXPECT_EQ(length, 6U) << given;  // the buffer that is needed
        EXPECT_STREQ(buffer, given > 5 ? "hello" : "########");
        EXPECT_EQ(buffer[6], '#');
    }
    // A file that grows after the look at its size, as one of the kernel's plays it.
    kvs_set("network.ssid", "");
    const std::string path = kvs_path("network.ssid");
    ASSERT_EQ(mount("/proc/version", path.c_str(), nullptr, MS_BIND, nullptr), 0);
    char buffer[] = "########";
    size_t length = 4;
    EXPECT_EQ(pex_kvs_get_key_str("network.ssid", buffer, &length), 0);
    EXPECT_EQ(std::string(buffer, 8), std::string("Lin\0####", 8));
}

// Other processes write into the store's directory: what is no regular file there leads nobody to
// a file of somebody's choice, and nobody waits for it.
TEST_F(Kvs, OnlyRegularFilesAreValues) {
    const std::string path = kvs_path("robot.name");
    const std::pair<const char *, std::function<int()>> planted[] = {
        {"nothing", [] { return 0; }},
        {"link", [&] { return symlink("/tmp/victim", path.c_str()); }},
        {"pipe", [&] { return mkfifo(path.c_str(), 0666); }},
        {"folder", [&] { return mkdir(path.c_str(), 0777); }},
    };
    for (const auto &[what, plant] : planted) {
        const bool is_missing = what == std::string("nothing");
        write_file("/tmp/victim", "precious", 0600);
        ASSERT_EQ(plant(), 0);
        // Whoever holds the other end of the pipe makes a refusing open succeed.
        const Fd other_end(open(path.c_str(), O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
        char buffer[] = "####";
        size_t length = sizeof buffer;
        EXPECT_EQ(pex_kvs_get_key("robot.name", buffer, &length), -1) << what;
        EXPECT_EQ(length, 0U) << what;
        EXPECT_EQ(times_logged("[ERROR] (src/pex_kvs"), is_missing ? 0 : 1) << what;
        EXPECT_EQ(value_of("robot.name"), "<null>") << what;
        EXPECT_TRUE(logged_as("ERROR", "Failed to stat file robot.name")) << what;
        EXPECT_EQ(pex_kvs_key_exists("robot.name") + pex_kvs_set_key_owner("robot.name"), -2);
        EXPECT_EQ(is_missing ? -1 : pex_kvs_set_key_str("robot.name", "x"), -1) << what;
        EXPECT_EQ(access_of("/tmp/victim") + read_file("/tmp/victim"), "600 rootprecious") << what;
        forget_log();
        EXPECT_EQ(remove(path.c_str()), is_missing ? -1 : 0);
    }
    // Without an other end the pipe must not be waited for either.
    ASSERT_EQ(mkfifo(path.c_str(), 0666), 0);
    EXPECT_EQ(value_of("robot.name"), "<null>");
    EXPECT_EQ(pex_kvs_set_key_str("robot.name", "x"), -1);
    EXPECT_EQ(pex_kvs_del_key("robot.name"), 0);
    EXPECT_EQ(pex_kvs_del_key("robot.name"), -1);
}

TEST_F(Kvs, WritingIsAllOrNothing) {
    umask(077);
    EXPECT_EQ(pex_kvs_set_key_str("robot.name", "a longer name"), 0);
    EXPECT_EQ(pex_kvs_set_key_str("robot.name", "Rob"), 0);
    EXPECT_EQ(pex_kvs_set_key_str("robot.name", ""), -1);
    EXPECT_EQ(kvs_get("robot.name"), "Rob");
    EXPECT_EQ(access_of(kvs_path("robot.name")), "660 root");
    EXPECT_EQ(pex_kvs_set_key_owner("robot.name") + pex_kvs_key_exists("robot.name"), 0);
    EXPECT_EQ(access_of(kvs_path("robot.name")), "660 apps");
    // A store that can only be read.
    ASSERT_EQ(mount(kStore, kStore, nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(mount(nullptr, kStore, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(pex_kvs_set_key_str("robot.name", "other"), -1);
    EXPECT_EQ(pex_kvs_factory_reset(), -1);
    EXPECT_EQ(value_of("robot.name"), "Rob");
    ASSERT_EQ(umount(kStore), 0);
    // And one that fills up.
    signal(SIGXFSZ, SIG_IGN);
    const rlimit full{4, RLIM_INFINITY}, room{RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &full);
    EXPECT_EQ(pex_kvs_set_key_str("robot.name", "Robert"), -1);
    setrlimit(RLIMIT_FSIZE, &room);
    EXPECT_TRUE(logged_as("ERROR", "Write failed for " + kvs_path("robot.name")));
    EXPECT_EQ(kvs_get("robot.name"), "<none>");
    close(0);  // what opens as standard input is no file of the store's
    EXPECT_EQ(pex_kvs_set_key_str("robot.name", "x"), -1);
}

TEST_F(Kvs, SecretsAreNotLogged) {
    for (const std::string key :
         {"network.password", "robot.password", "robot.epoch", "robot.epoch_request",
          "vstream.region", "vstream.access_key_id", "vstream.secret_access_key",
          "vstream.session_token", "vstream.expiration_str", "vstream.streaming_channel"}) {
        EXPECT_EQ(pex_kvs_set_key_str(key.c_str(), "hunter2"), 0);
        EXPECT_TRUE(logged_as("DBG", "setting " + key + " to *"));
    }
    EXPECT_EQ(times_logged("hunter2"), 0);
    EXPECT_EQ(pex_kvs_set_key_str("robot.name", "Rob"), 0);
    EXPECT_TRUE(logged_as("DBG", "setting robot.name to Rob"));
}

TEST_F(Kvs, KeysAreWipedOrReset) {
    const auto left = [] {
        return kvs_get("product.sku") + kvs_get("product") + kvs_get(".hidden");
    };
    for (const char *key : {"product.sku", "network.ssid", "product", ".hidden"})
        kvs_set(key, "x");
    EXPECT_EQ(pex_kvs_factory_reset(), 0);
    EXPECT_TRUE(logged_as("INFO", "KVS key network.ssid is deleted."));
    EXPECT_EQ(left(), "x<none>x");
    EXPECT_EQ(pex_kvs_foreach_key([](const char *) { return 4; }), 4);
    EXPECT_EQ(pex_kvs_wipe_all_keys(), -1) << "always";
    EXPECT_EQ(left(), "<none><none>x");
    EXPECT_EQ(pex_kvs_foreach_key([](const char *) { return 4; }), 0);
    EXPECT_EQ(pex_kvs_foreach_key(nullptr), -1);
    ASSERT_EQ(rename(kStore, "/opt/gone"), 0);
    EXPECT_EQ(pex_kvs_factory_reset(), -1);
}

TEST_F(Kvs, FoldersAreMadePartByPart) {
    umask(0);
    ASSERT_EQ(chdir("/tmp"), 0);
    EXPECT_EQ(pex_kvs_create_dir("a/b/c/"), 0);
    EXPECT_EQ(access_of("/tmp/a/b/c"), "755 root");
    EXPECT_EQ(pex_kvs_create_dir("a/d"), -1) << "a part is there";
    EXPECT_TRUE(logged_as("ERROR", "Could not create kvs store. Error: 17"));
    EXPECT_EQ(pex_kvs_create_dir(std::string(63, 'x').c_str()), 0);
    EXPECT_EQ(pex_kvs_create_dir(std::string(64, 'x').c_str()), -1);
    EXPECT_EQ(pex_kvs_create_dir(nullptr), -1);
}

TEST_F(Kvs, NumbersTextsAndRobotIds) {
    const auto json_of = [](const char *stored, int type = JSON_INTEGER) {
        kvs_set("robot.trained", stored);
        json_t *value = nullptr;
        const int result = kvs_get_json_from_key("robot.trained", type, &value);
        EXPECT_EQ(result, value != nullptr ? 0 : -1);
        return text_of(json_dumps(Json(value).get(), JSON_ENCODE_ANY));
    };
    for (const std::string number : {"-7", "9223372036854775807", "10"})
        EXPECT_EQ(json_of((number + "\n").c_str()), number);
    for (const char *bad : {"9223372036854775808", "12a", "-", " 5", "5 ", ""})
        EXPECT_EQ(json_of(bad), "<null>") << bad;
    EXPECT_EQ(json_of("12a", JSON_STRING) + json_of("1", JSON_REAL), "\"12a\"<null>");
    const std::string zeros(32, '0');
    for (const std::string &id : {zeros.substr(16), zeros.substr(1) + "1", "aF" + zeros.substr(18)})
        EXPECT_EQ(pex_kvs_is_valid_robot_id(id.c_str()), 1) << id;
    for (const std::string &id : {zeros, zeros + "1", zeros.substr(17), "g" + zeros.substr(17)})
        EXPECT_EQ(pex_kvs_is_valid_robot_id(id.c_str()), 0) << id;
    const auto language_of = [](const char *stored) {
        kvs_set("product.language", stored);
        return text_of(pex_kvs_get_default_language_malloc());
    };
    EXPECT_EQ(language_of("en_US") + language_of("/") + language_of(":"), "en_US/:");
    EXPECT_EQ(language_of("0") + language_of("9x") + language_of(""), "<null><null><null>");
    EXPECT_EQ(pex_kvs_is_valid_robot_id(nullptr) + robot_epoch_generate_new(), 3);
}

}  // namespace
