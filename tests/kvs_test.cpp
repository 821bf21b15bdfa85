// The settings store: its files, its texts and its JSON values.
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "kvs_json.h"
#include "pex_kvs.h"
#include "pex_kvs_helper.h"
#include "robot.h"

namespace {

constexpr char kStore[] = "/opt/halvik/persistent/opt/halvik/data/kvs";

class Kvs : public Robot {
  protected:
    static std::string text_of(const char *key) {
        const MallocText text(pex_kvs_get_key_str_malloc(key));
        return text ? text.get() : "<null>";
    }
};

TEST_F(Kvs, ValuesReadWithoutTheirLineEnds) {
    const std::pair<std::string, std::string> cases[] = {
        {"hello\r\n\n", "hello"},
        {"a\nb\n", "a\nb"},
        {"\r\n", ""},
        {"", "<null>"},
        {std::string("a\0b\n", 4), "a"},
        {std::string(200000, 'x'), std::string(200000, 'x')},
    };
    for (const auto &[stored, text] : cases) {
        kvs_set("robot.name", stored);
        EXPECT_EQ(text_of("robot.name"), text);
    }
    // Keys are the callers' business: one may lead out of the store.
    EXPECT_EQ(pex_kvs_set_key_str("../beside", "x"), 0);
    EXPECT_EQ(read_file(std::string(kStore) + "/../beside"), "x");
    for (const char *bad : {"", ".", "below/key"})
        EXPECT_EQ(pex_kvs_set_key_str(bad, "x"), -1) << bad;
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
    // A file that grows between the look at its size and the reading, as one of the kernel plays
    // it.
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
        {"link", [&] { return symlink("/tmp/victim", path.c_str()); }},
        {"pipe", [&] { return mkfifo(path.c_str(), 0666); }},
        {"folder", [&] { return mkdir(path.c_str(), 0777); }},
    };
    for (const auto &[what, plant] : planted) {
        write_file("/tmp/victim", "precious", 0600);
        ASSERT_EQ(plant(), 0);
        // Whoever holds the other end of the pipe makes a refusing open succeed.
        const Fd other_end(open(path.c_str(), O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
        char buffer[] = "####";
        size_t length = sizeof buffer;
        EXPECT_EQ(pex_kvs_get_key("robot.name", buffer, &length), -1) << what;
        EXPECT_EQ(length, 0U) << what;
        EXPECT_TRUE(logged_as("ERROR", "Failed to open file: " + path)) << what;
        EXPECT_EQ(text_of("robot.name"), "<null>") << what;
        EXPECT_TRUE(logged_as("ERROR", "Failed to stat file robot.name")) << what;
        EXPECT_EQ(pex_kvs_key_exists("robot.name"), -1) << what;
        EXPECT_EQ(pex_kvs_set_key_str("robot.name", "x"), -1) << what;
        EXPECT_EQ(pex_kvs_set_key_owner("robot.name"), -1) << what;
        struct stat info = {};
        stat("/tmp/victim", &info);
        EXPECT_EQ(info.st_mode & 07777, 0600U) << what;
        EXPECT_EQ(read_file("/tmp/victim"), "precious") << what;
        forget_log();
        ASSERT_EQ(remove(path.c_str()), 0);
    }
    // Without an other end the pipe must not be waited for either.
    ASSERT_EQ(mkfifo(path.c_str(), 0666), 0);
    EXPECT_EQ(text_of("robot.name"), "<null>");
    EXPECT_EQ(pex_kvs_set_key_str("robot.name", "x"), -1);
    EXPECT_EQ(pex_kvs_del_key("robot.name"), 0);
}

TEST_F(Kvs, WritingIsAllOrNothing) {
    umask(077);
    EXPECT_EQ(pex_kvs_set_key_str("robot.name", "a longer name"), 0);
    EXPECT_EQ(pex_kvs_set_key_str("robot.name", "Rob"), 0);
    EXPECT_EQ(pex_kvs_set_key_str("robot.name", ""), -1);
    EXPECT_EQ(kvs_get("robot.name"), "Rob");
    struct stat info = {};
    stat(kvs_path("robot.name").c_str(), &info);
    EXPECT_EQ(info.st_mode & 07777, 0660U);
    // A store that can only be read.
    ASSERT_EQ(mount(kStore, kStore, nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(mount(nullptr, kStore, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(pex_kvs_set_key_str("robot.name", "other"), -1);
    EXPECT_EQ(pex_kvs_factory_reset(), -1);
    EXPECT_EQ(text_of("robot.name"), "Rob");
    ASSERT_EQ(umount(kStore), 0);
    // And one that fills up.
    signal(SIGXFSZ, SIG_IGN);
    const rlimit full{4, RLIM_INFINITY}, room{RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &full);
    EXPECT_EQ(pex_kvs_set_key_str("robot.name", "Robert"), -1);
    setrlimit(RLIMIT_FSIZE, &room);
    EXPECT_TRUE(logged_as("ERROR", "Write failed for " + kvs_path("robot.name")));
    EXPECT_EQ(kvs_get("robot.name"), "<none>");
}

TEST_F(Kvs, SecretsAreNotLogged) {
    for (const std::string key : {"network.password", "robot.password", "vstream.session_token"}) {
        EXPECT_EQ(pex_kvs_set_key_str(key.c_str(), "hunter2"), 0);
        EXPECT_TRUE(logged_as("DBG", "setting " + key + " to *"));
    }
    EXPECT_EQ(times_logged("hunter2"), 0);
}

TEST_F(Kvs, FactoryResetKeepsTheProduct) {
    for (const char *key : {"product.sku", "network.ssid", "robot.name", "product"})
        kvs_set(key, "x");
    EXPECT_EQ(pex_kvs_factory_reset(), 0);
    EXPECT_TRUE(logged_as("INFO", "KVS key network.ssid is deleted."));
    EXPECT_EQ(kvs_get("product.sku") + kvs_get("product") + kvs_get("robot.name"), "x<none><none>");
}

TEST_F(Kvs, NumbersAndRobotIds) {
    for (const auto &[stored, number] : std::initializer_list<std::pair<const char *, json_int_t>>{
             {"-7\n", -7},
             {"9223372036854775807", INT64_MAX},
             {"9223372036854775808", 0},
             {"12a", 0},
             {" 5", 0}}) {
        kvs_set("robot.trained", stored);
        json_t *value = nullptr;
        EXPECT_EQ(kvs_get_json_from_key("robot.trained", JSON_INTEGER, &value), number ? 0 : -1);
        EXPECT_EQ(json_integer_value(Json(value).get()), number) << stored;
    }
    EXPECT_EQ(pex_kvs_is_valid_robot_id("0123456789abcdefABCDEF0123456789"), 1);
    for (const auto &id : {std::string(32, '0'), std::string(33, '1'), std::string(16, 'g')})
        EXPECT_EQ(pex_kvs_is_valid_robot_id(id.c_str()), 0) << id;
}

}  // namespace
