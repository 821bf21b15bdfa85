#include "pex_misc.h"

#include <signal.h>

#include <cerrno>
#include <cstring>

#include "log.h"
#include "pex_uuid.h"
#include "pthread_utils.h"
#include "robot.h"

namespace {

using PexMisc = Robot;

std::string text_of(char *text) {
    const MallocText owned(text);
    return owned ? owned.get() : "<null>";
}

TEST_F(PexMisc, CommandsAreClassifiedByTheirEnd) {
    const struct {
        const char *command;
        int errno_before, detail;
        const char *level, *message;
    } cases[] = {
        {"true", 0, 0, "DBG", "\nMODULE : me CMD (true) SUCCESS with status = 0, ret = 0"},
        {"exit 1", 0, 1, "ERROR", "\nMODULE : me CMD (exit 1) failed with status = 1, ret = 256"},
        {"exit 78", 0, 78, "ERROR",
         "\nMODULE : me CMD (exit 78) faced CONFIG ERROR with status = 78, ret = 19968"},
        {"kill -9 $$", EPERM, EPERM, "ERROR",
         "\nMODULE : me system(kill -9 $$) failed with err = 1, ret = 9"},
        {"kill -15 $$", ECHILD, ECHILD, "ERROR",
         "\nMODULE : me system(kill -15 $$) failed due to ECHILD error with ret = 15"}};
    for (const auto &row : cases) {
        int detail = -7;
        errno = row.errno_before;
        EXPECT_EQ(pex_system("me", row.command, &detail), row.detail == 0 ? 0 : -1) << row.command;
        EXPECT_EQ(detail, row.detail) << row.command;
        EXPECT_TRUE(logged_as(row.level, row.message)) << log_text();
    }
    signal(SIGCHLD, SIG_IGN);  // the child is gone before it is waited for
    EXPECT_EQ(pex_system("me", "exit 0", nullptr), -1);
    EXPECT_TRUE(logged_as("ERROR", "\nMODULE : me system(exit 0) failed due to ECHILD error"));
    signal(SIGCHLD, SIG_DFL);
}

TEST_F(PexMisc, StreamIsReadInPiecesToItsEnd) {
    const std::string content = std::string(130, 'x') + "\nline\n\nlast";
    write_file("/tmp/stream", content);
    size_t length = 0;
    EXPECT_EQ(text_of(pex_read_terminated_stream(File(fopen("/tmp/stream", "re")).get(), &length)),
              content);
    EXPECT_EQ(length, content.size() + 1);
    EXPECT_EQ(pex_read_terminated_stream(File(fopen("/dev/null", "re")).get(), &length), nullptr);
    EXPECT_EQ(length, 0U);
}

TEST_F(PexMisc, HexadecimalText) {
    const std::pair<std::string, const char *> cases[] = {
        {"aBcDeF", "\xab\xcd\xef"},
        {"0g", "<null>"},
        {"ABC", "<null>"},
        {std::string(255, '4'), "<null>"},
        {std::string(256, '4'), ""},  // only eight bits of the length count
        {std::string(257, '4'), "<null>"},
        {std::string(258, '4'), "D"},
    };
    for (const auto &[text, bytes] : cases)
        EXPECT_EQ(text_of(hex_decode_str_malloc(text.c_str())), bytes) << text;
    EXPECT_EQ(text_of(hex_encode_str_malloc("\x0a\xff\x00", 3)), "0AFF00");
    for (const auto &[text, result] : {std::pair("~", 0), {"a\x1f", -1}, {"caf\xc3\xa9", -1}})
        EXPECT_EQ(non_print_char_check(text), result) << text;
}

// A test vector of IEEE 802.11, annex J.4.
TEST_F(PexMisc, PassphraseBecomesTheKeyOfTheStandard) {
    std::string key(66, '#');
    EXPECT_EQ(wpa_passphrase("IEEE", "password", key.data(), 64), 1);
    EXPECT_EQ(key, std::string(66, '#'));
    EXPECT_EQ(wpa_passphrase("IEEE", "password", key.data(), 65), 0);
    EXPECT_STREQ(key.c_str(), "f42c6fc52df0ebef9ebb4b90b38a5f902e83fe1b135a70e23aed762e9710a12e");
    EXPECT_EQ(key[65], '#');
}

TEST_F(PexMisc, NamesAndAddressesAreMasked) {
    const std::pair<const char *, const char *> names[] = {
        {"x ssid=\"HomeWifi\" y", "x ssid=\"********\" y"},
        {"SSID='one' ssid='two'", "SSID='one' ssid='***'"},  // lower case goes first
        {"ssid='mixed\"end'", "ssid='*****\"end'"},
        {"ssid=x\n\"next line\"", "ssid=x\n\"next line\""},
    };
    for (const auto &[text, masked] : names) {
        std::string line = text;
        pex_hide_ssid(line.data());
        EXPECT_EQ(line, masked);
    }
    const struct {
        const char *text;
        int octets;
        const char *masked;
    } addresses[] = {
        {"to aa:bb:cc:dd:ee:ff.", 3, "to **:**:**:dd:ee:ff."},
        {"aa:bb:cc:dd:ee:ff no more", 1000, "**:**:**:**:**:** no more"},
        {"aa:bb:cc:dd:ee:f", 6, "**:**:**:**:**:*"},
        {"aa:bb:cc:dd:ee:\nff", 6, "**:**:**:**:**:\nff"},
        {"aa:bb:cc:dd:ee", 3, "aa:bb:cc:dd:ee"},
    };
    for (const auto &row : addresses) {
        const MallocText line(strdup(row.text));  // the sanitizer watches its end
        pex_hide_mac_addr(line.get(), row.octets);
        EXPECT_STREQ(line.get(), row.masked);
    }
}

TEST_F(PexMisc, UuidsAreDigitsAndNeverTheSame) {
    const std::string uuid = text_of(pex_generate_uuid_malloc());
    EXPECT_THAT(uuid, testing::MatchesRegex("[0-9A-F]{32}"));
    EXPECT_NE(uuid, text_of(pex_generate_uuid_malloc()));
}

// Threads that end at once: each must still be named, and nobody else's memory.
TEST_F(PexMisc, ThreadsAreNamedBeforeTheyRun) {
    std::atomic<int> named{0};
    const auto check_name = [](void *counter) -> void * {
        char name[16];
        pthread_getname_np(pthread_self(), name, sizeof name);
        *static_cast<std::atomic<int> *>(counter) += name == std::string("fifteen_letters");
        return nullptr;
    };
    for (int i = 0; i < 500; i++)
        ASSERT_EQ(pthread_create_detached_thread(nullptr, check_name, &named, "fifteen_letters"),
                  0);
    EXPECT_TRUE(eventually([&] { return named == 500; })) << named;
    EXPECT_EQ(pthread_create_detached_thread(nullptr, check_name, &named, "sixteen_letters_"), -1);
}

}  // namespace
