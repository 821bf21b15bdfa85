// The settings store: its files, its texts and its JSON values.
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>

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
    static std::vector<std::string> keys() {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(kStore))
            names.push_back(entry.path().filename());
        return names;
    }
};

TEST_F(Kvs, ValuesReadWithoutTheirLineEnds) {
    const struct {
        std::string stored, text;
    } cases[] = {
        {"hello\r\n\n", "hello"},
        {"a\nb\n", "a\nb"},
        {"\r\n", ""},
        {"", "<null>"},
        {std::string("a\0b\n", 4), "a"},
        {"\xff\x01 ", "\xff\x01 "},
        {std::string(200000, 'x'), std::string(200000, 'x')},
    };
    for (const auto &row : cases) {
        kvs_set("robot.name", row.stored);
        EXPECT_EQ(text_of("robot.name"), row.text);
    }
    EXPECT_EQ(times_logged("Failed to read file"), 0);  // the empty file is known by its size
    EXPECT_EQ(text_of("network.ssid"), "<null>");
    EXPECT_TRUE(logged_as("ERROR", "Failed to stat file network.ssid"));
    std::filesystem::create_directory(kvs_path("product.sku"));
    EXPECT_EQ(text_of("product.sku"), "<null>");
    EXPECT_TRUE(logged_as("ERROR", "Failed to read file: " + kvs_path("product.sku")));
    std::filesystem::remove(kvs_path("product.sku"));
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
    // A file that grows between the look at its size and the reading, as a pipe plays it.
    ASSERT_EQ(mkfifo(kvs_path("network.ssid").c_str(), 0600), 0);
    const Fd pipe(open(kvs_path("network.ssid").c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(write(pipe.get(), "abcdefgh", 8), 8);
    char buffer[] = "########";
    size_t length = 4;
    EXPECT_EQ(pex_kvs_get_key_str("network.ssid", buffer, &length), 0);
    EXPECT_EQ(std::string(buffer, 8), std::string("abc\0####", 8));
    EXPECT_EQ(length, 4U);
    pex_kvs_del_key("network.ssid");
    EXPECT_EQ(pex_kvs_get_key("network.none", buffer, &length), -1);
    EXPECT_EQ(length, 0U);
    EXPECT_EQ(times_logged("network.none"), 0);
}

TEST_F(Kvs, WritingIsAllOrNothing) {
    umask(077);
    EXPECT_EQ(pex_kvs_set_key_str("robot.name", "a longer name"), 0);
    EXPECT_EQ(pex_kvs_set_key_str("robot.name", "Rob"), 0);
    EXPECT_EQ(kvs_get("robot.name"), "Rob");
    struct stat info {};
    stat(kvs_path("robot.name").c_str(), &info);
    EXPECT_EQ(info.st_mode & 07777, 0660U);
    EXPECT_EQ(pex_kvs_set_key_str("robot.name", ""), -1);
    EXPECT_EQ(pex_kvs_set_key("robot.name", nullptr, 3), -1);
    EXPECT_EQ(pex_kvs_set_key(nullptr, "x", 1), -1);
    EXPECT_EQ(kvs_get("robot.name"), "Rob");
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = 4;
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(pex_kvs_set_key_str("robot.name", "Robert"), -1);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_TRUE(logged_as("ERROR", "Write failed for " + kvs_path("robot.name")));
    EXPECT_EQ(kvs_get("robot.name"), "<none>");
    EXPECT_EQ(pex_kvs_set_key_str("../beside", "x"), 0);  // callers are trusted with names
    EXPECT_EQ(read_file("/opt/halvik/persistent/opt/halvik/data/beside"), "x");
    EXPECT_EQ(pex_kvs_set_key_str("below/key", "x"), -1);
}

TEST_F(Kvs, SecretsAreNotLogged) {
    for (const char *key : {"network.password", "robot.password", "vstream.session_token"}) {
        EXPECT_EQ(pex_kvs_set_key_str(key, "hunter2"), 0);
        EXPECT_TRUE(logged_as("DBG", std::string("setting ") + key + " to *"));
    }
    EXPECT_EQ(times_logged("hunter2"), 0);
    EXPECT_EQ(pex_kvs_set_key_str("robot.epoch_request2", "seen"), 0);
    EXPECT_TRUE(logged_as("DBG", "setting robot.epoch_request2 to seen"));
}

TEST_F(Kvs, FactoryResetKeepsTheProduct) {
    for (const char *key : {"product.sku", "network.ssid", "robot.name", "product", ".hidden"})
        kvs_set(key, "x");
    EXPECT_EQ(pex_kvs_foreach_key(nullptr), -1);
    EXPECT_EQ(pex_kvs_foreach_key([](const char *key) { return *key == 'n' ? 4 : 1; }), 5);
    EXPECT_EQ(kvs_factory_reset_key("network.none"), -1);
    EXPECT_EQ(pex_kvs_factory_reset(), 0);
    EXPECT_THAT(keys(), testing::UnorderedElementsAre("product.sku", ".hidden"));
    EXPECT_TRUE(logged_as("INFO", "KVS key network.ssid is deleted."));
    EXPECT_EQ(pex_kvs_wipe_all_keys(), -1);
    EXPECT_THAT(keys(), testing::ElementsAre(".hidden"));
    EXPECT_EQ(pex_kvs_foreach_key([](const char *) { return 1; }), 0);
}

TEST_F(Kvs, RobotIds) {
    const std::pair<std::string, int> cases[] = {
        {"0123456789abcdefABCDEF0123456789", 1},
        {std::string(32, '0'), 0},
        {std::string(16, '0'), 1},  // only the long form is looked at
        {std::string(15, '1'), 0},
        {std::string(33, '1'), 0},
        {"0123456789abcdeg", 0},
    };
    for (const auto &[id, valid] : cases)
        EXPECT_EQ(pex_kvs_is_valid_robot_id(id.c_str()), valid) << id;
    EXPECT_EQ(pex_kvs_is_valid_robot_id(nullptr), 0);
    for (const char *message : {"Invalid robot id of all 0's", "Robot id not hex string",
                                "Input robot id string is NULL"})
        EXPECT_TRUE(logged_as("ERROR", message));
}

TEST_F(Kvs, JsonValues) {
    const std::pair<const char *, const char *> integers[] = {
        {"-7\n", "-7"},
        {"9223372036854775807", "9223372036854775807"},
        {"9223372036854775808", "null"},
        {"12a", "null"},
        {"-", "null"},
        {" 5", "null"},
        {"5 ", "null"},
        {"\n", "null"},
        {"", "null"},
    };
    const auto json_of = [](int type) {
        json_t *value = nullptr;
        const int result = kvs_get_json_from_key("robot.trained", type, &value);
        const Json owned(value);
        EXPECT_EQ(result, value != nullptr ? 0 : -1);
        const MallocText text(value != nullptr ? json_dumps(value, JSON_ENCODE_ANY) : nullptr);
        return std::string(text ? text.get() : "null");
    };
    for (const auto &[stored, json] : integers) {
        kvs_set("robot.trained", stored);
        EXPECT_EQ(json_of(JSON_INTEGER), json) << stored;
    }
    EXPECT_TRUE(logged_as("ERROR", "Failed to convert string to integer"));
    EXPECT_TRUE(logged_as("ERROR", "Failed to retrieve key \"robot.trained\""));
    kvs_set("robot.trained", "12\n");
    EXPECT_EQ(json_of(JSON_STRING), "\"12\"");
    EXPECT_EQ(json_of(JSON_REAL), "null");
    EXPECT_TRUE(logged_as("ERROR", "json_type 4 not supported"));
    kvs_set("robot.trained", "\xff");
    EXPECT_EQ(json_of(JSON_STRING), "null");
}

TEST_F(Kvs, ReadOnlyOrMissingStoreChangesNothing) {
    kvs_set("robot.name", "Rob");
    ASSERT_EQ(mount(kStore, kStore, nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(mount(nullptr, kStore, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(pex_kvs_set_key_str("robot.name", "other"), -1);
    EXPECT_EQ(pex_kvs_del_key("robot.name"), -1);
    EXPECT_EQ(pex_kvs_factory_reset(), -1);
    EXPECT_EQ(text_of("robot.name"), "Rob");
    EXPECT_EQ(times_logged("is deleted"), 0);
    ASSERT_EQ(umount(kStore), 0);
    std::filesystem::remove_all(kStore);
    EXPECT_EQ(pex_kvs_set_key_str("robot.name", "other"), -1);
    EXPECT_EQ(pex_kvs_foreach_key(kvs_factory_reset_key), -1);
    EXPECT_EQ(pex_kvs_key_exists("robot.name"), -1);
}

}  // namespace
