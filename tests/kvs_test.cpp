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
constexpr char kKey[] = "robot.name";

class Kvs : public Robot {
  protected:
    static std::string text_of(char *text) {
        const MallocText owned(text);
        return owned ? owned.get() : "<null>";
    }
    static std::string value() { return text_of(pex_kvs_get_key_str_malloc(kKey)); }
    // Permissions and group.
    static std::string access_of(const std::string &path) {
        struct stat info = {};
        stat(path.c_str(), &info);
        const group *const owner = getgrgid(info.st_gid);
        return pex_format("%o ", info.st_mode & 07777) + (owner != nullptr ? owner->gr_name : "?");
    }
    const std::string path_ = kvs_path(kKey);
};

TEST_F(Kvs, ValuesReadWithoutTheirLineEnds) {
    const std::string large(99999, 'x');
    for (const auto &[stored, expected] :
         {std::pair<std::string, std::string>("hello\r\n\n", "hello"),
          {"a\nb\n", "a\nb"},
          {"\r\n", ""},
          {std::string("a\0b\n", 4), "a"},
          {"", "<null>"},
          {large, large}}) {
        kvs_set(kKey, stored);
        EXPECT_EQ(value(), expected);
        EXPECT_EQ(pex_kvs_get_key_data_size(kKey), stored.size());
    }
    // Keys are the callers' business: one may lead out of the store.
    EXPECT_EQ(pex_kvs_set_key_str("../beside", "x"), 0);
    EXPECT_EQ(read_file(std::string(kStore) + "/../beside"), "x");
    EXPECT_EQ(pex_kvs_set_key_str("below/key", "x") + pex_kvs_key_exists("."), -2);
}

TEST_F(Kvs, BufferBoundsAreKept) {
    const auto read = [](size_t length) {
        char buffer[] = "########";
        const int result = pex_kvs_get_key(kKey, buffer, &length);
        return std::to_string(result) + " " + std::to_string(length) + std::string(buffer, 8);
    };
    kvs_set(kKey, "hello");
    for (const size_t given : {0, 5})
        EXPECT_EQ(read(given), "-1 6########") << "the buffer that is needed";
    EXPECT_EQ(read(6), std::string("0 6hello\0##", 11));
    // A file that grows after the look at its size, as one of the kernel's plays it.
    kvs_set(kKey, "");
    ASSERT_EQ(mount("/proc/version", path_.c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(read(4), std::string("0 4Lin\0####", 11));
}

// Other processes write into the store's directory: what is no regular file there leads nobody to
// a file of somebody's choice, and nobody waits for the other end of a pipe or for its absence.
TEST_F(Kvs, OnlyRegularFilesAreValues) {
    for (const std::string plant : {"true ", "ln -s /tmp/victim ", "mkfifo ", "mkdir "})
        for (const bool is_held : {false, true}) {
            write_file("/tmp/victim", "precious", 0600);
            ASSERT_EQ(system((plant + path_).c_str()), 0);
            const Fd end(is_held ? open(path_.c_str(), O_RDWR | O_NONBLOCK | O_NOFOLLOW) : -1);
            const bool is_missing = plant == "true ";
            char buffer[] = "####";
            size_t length = sizeof buffer;
            EXPECT_EQ(pex_kvs_get_key(kKey, buffer, &length), -1) << plant;
            EXPECT_EQ(length, 0U) << plant;
            EXPECT_EQ(times_logged("Failed to open file"), is_missing ? 0 : 1) << plant;
            EXPECT_EQ(value(), "<null>") << plant;
            EXPECT_TRUE(logged_as("ERROR", "Failed to stat file robot.name")) << plant;
            EXPECT_EQ(pex_kvs_key_exists(kKey) + pex_kvs_set_key_owner(kKey), -2) << plant;
            EXPECT_EQ(is_missing ? -1 : pex_kvs_set_key_str(kKey, "x"), -1) << plant;
            EXPECT_EQ(access_of("/tmp/victim") + read_file("/tmp/victim"), "600 rootprecious");
            EXPECT_EQ(remove(path_.c_str()), is_missing ? -1 : 0);
            forget_log();
        }
}

TEST_F(Kvs, WritingIsAllOrNothing) {
    umask(077);
    EXPECT_EQ(pex_kvs_set_key_str(kKey, "a longer name") + pex_kvs_set_key_str(kKey, "Rob"), 0);
    EXPECT_EQ(pex_kvs_set_key_str(kKey, ""), -1);
    EXPECT_EQ(access_of(path_) + kvs_get(kKey), "660 rootRob");
    EXPECT_EQ(pex_kvs_set_key_owner(kKey) + pex_kvs_key_exists(kKey), 0);
    EXPECT_EQ(access_of(path_), "660 apps");
    // A store that can only be read.
    ASSERT_EQ(mount(kStore, kStore, nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(mount(nullptr, kStore, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(pex_kvs_set_key_str(kKey, "other") + pex_kvs_factory_reset(), -2);
    EXPECT_EQ(value(), "Rob");
    ASSERT_EQ(umount(kStore), 0);
    // And one that fills up.
    signal(SIGXFSZ, SIG_IGN);
    const rlimit full{4, RLIM_INFINITY}, room{RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &full);
    EXPECT_EQ(pex_kvs_set_key_str(kKey, "Robert"), -1);
    setrlimit(RLIMIT_FSIZE, &room);
    EXPECT_TRUE(logged_as("ERROR", "Write failed for " + path_));
    EXPECT_EQ(kvs_get(kKey), "<none>");
    close(0);  // what opens as standard input is no file of the store's
    EXPECT_EQ(pex_kvs_set_key_str(kKey, "x"), -1);
}

TEST_F(Kvs, SecretsAreNotLogged) {
    for (const std::string key :
         {"network.password", "robot.password", "robot.epoch", "robot.epoch_request",
          "vstream.region", "vstream.access_key_id", "vstream.secret_access_key",
          "vstream.session_token", "vstream.expiration_str", "vstream.streaming_channel", kKey}) {
        EXPECT_EQ(pex_kvs_set_key_str(key.c_str(), "hunter2"), 0);
        const std::string line = "setting " + key + " to " + (key == kKey ? "hunter2" : "*");
        EXPECT_EQ(times_logged(line), 1) << key;
    }
}

TEST_F(Kvs, KeysAreWipedOrReset) {
    const auto left = [] {
        return kvs_get("network.ssid") + kvs_get("product.sku") + kvs_get("product") +
               kvs_get(".hidden");
    };
    const auto four = [](const char *) { return 4; };
    for (const char *key : {"product.sku", "network.ssid", "product", ".hidden"})
        kvs_set(key, "x");
    EXPECT_EQ(pex_kvs_factory_reset(), 0);
    EXPECT_EQ(left(), "<none>x<none>x");
    EXPECT_EQ(pex_kvs_foreach_key(four), 4);
    EXPECT_EQ(pex_kvs_wipe_all_keys(), -1) << "always";
    EXPECT_EQ(left(), "<none><none><none>x");
    EXPECT_EQ(pex_kvs_foreach_key(four) + pex_kvs_foreach_key(nullptr), -1);
    ASSERT_EQ(rename(kStore, "/opt/gone"), 0);
    EXPECT_EQ(pex_kvs_factory_reset() + pex_kvs_del_key(kKey), -2);
}

TEST_F(Kvs, FoldersAreMadePartByPart) {
    umask(0);
    EXPECT_EQ(pex_kvs_create_dir("/tmp"), -1) << "it is there";
    EXPECT_EQ(chdir("/tmp") + pex_kvs_create_dir("a/b/c/"), 0);
    EXPECT_EQ(pex_kvs_create_dir(std::string(63, 'x').c_str()), 0);
    EXPECT_EQ(access_of("/tmp/a/b/c"), "755 root");
    EXPECT_EQ(pex_kvs_create_dir(std::string(64, 'x').c_str()) + pex_kvs_create_dir("a/d"), -2);
}

TEST_F(Kvs, NumbersTextsAndRobotIds) {
    const auto json_of = [](const std::string &stored, int type = JSON_INTEGER) {
        kvs_set(kKey, stored);
        json_t *value = nullptr;
        const int result = kvs_get_json_from_key(kKey, type, &value);
        EXPECT_EQ(result, value != nullptr ? 0 : -1);
        return text_of(json_dumps(Json(value).get(), JSON_ENCODE_ANY));
    };
    for (const std::string number : {"-7", "9223372036854775807", "10"})
        EXPECT_EQ(json_of(number + "\n"), number);
    for (const char *bad : {"9223372036854775808", "12a", "-", " 5", "5 ", ""})
        EXPECT_EQ(json_of(bad), "<null>") << bad;
    EXPECT_EQ(json_of("12a", JSON_STRING) + json_of("1", JSON_REAL), "\"12a\"<null>");
    const std::string zeros(32, '0');
    for (const std::string &id : {zeros.substr(16), zeros.substr(1) + "1", "aF" + zeros.substr(18)})
        EXPECT_EQ(pex_kvs_is_valid_robot_id(id.c_str()), 1) << id;
    for (const std::string &id : {zeros, zeros + "1", zeros.substr(17), "g" + zeros.substr(17)})
        EXPECT_EQ(pex_kvs_is_valid_robot_id(id.c_str()), 0) << id;
    for (const auto &[saved, language] :
         {std::pair("en_US", "en_US"), {"/", "/"}, {":", ":"}, {"0", "<null>"}, {"9x", "<null>"}}) {
        kvs_set("product.language", saved);
        EXPECT_EQ(text_of(pex_kvs_get_default_language_malloc()), language);
    }
    EXPECT_EQ(pex_kvs_is_valid_robot_id(nullptr) + robot_epoch_generate_new(), 3);
}

}  // namespace
