#include "pex_misc.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>

#include "clock.h"
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
// What the function makes of each text, "|" behind it.
template <typename Function>
std::string each(Function function, const std::vector<std::string> &texts) {
    std::string results;
    for (const auto &text : texts)
        results += function(text.c_str()) + "|";
    return results;
}
// The same of one that changes them in place; the sanitizer watches the memory's end.
template <typename Function>
std::string each_changed(Function function, const std::vector<std::string> &texts) {
    const auto change = [&](const char *text) {
        const MallocText line(strdup(text));
        const int result = function(line.get());
        return std::to_string(result) + line.get();
    };
    return each(change, texts);
}

TEST(PexText, IsDecodedOrRefused) {
    const auto decode = [](auto text) { return text_of(hex_decode_str_malloc(text)); };
    const auto encode = [](auto text) {
        return text_of(hex_encode_str_malloc(text, strlen(text)));
    };
    const std::string n256(256, '4');  // only eight bits of the length count
    EXPECT_EQ(each(decode, {"", "aBcDeF", "0A", n256, n256 + "44"}), "|\xab\xcd\xef|\n||D|");
    EXPECT_EQ(each(decode, {n256.substr(1), n256 + "4"}), "<null>|<null>|");
    EXPECT_EQ(each(encode, {"", "\x01\x23\x45\x67\x89\xab\xcd\xef"}), "|0123456789ABCDEF|");
    for (const char *text : {"/0", "0/", "0:", ":0", "0@", "0G", "0`", "g0", "0a1"}) {
        EXPECT_EQ(decode(text), "<null>") << text;
        EXPECT_EQ(ishexstring(text), 0) << text;
    }
    EXPECT_EQ(ishexstring("") + ishexstring("0123456789abcdefABCDEF") + ishexstring(nullptr), 2);
    const auto check = [](auto text) { return std::to_string(non_print_char_check(text)); };
    EXPECT_EQ(each(check, {"", " ~", "a\x1f", "\x7f", "\xc3\xa9"}), "0|0|-1|-1|-1|");
}

TEST(PexText, NamesAndAddressesAreMasked) {
    const auto hide_name = [](char *line) { return pex_hide_ssid(line), 0; };
    EXPECT_EQ(each_changed(hide_name, {"x ssid=\"Home\" y", "ssid='mixed\"end'", "SSID='one'"}),
              "0x ssid=\"****\" y|0ssid='*****\"end'|0SSID='***'|");
    EXPECT_EQ(each_changed(hide_name, {"SSID='one' ssid='two'"}), "0SSID='one' ssid='***'|");
    EXPECT_EQ(each_changed(hide_name, {"ssid=x\n\"next\"", "ssid=\"a\n\"", "ssid=\"op", "ssid"}),
              "0ssid=x\n\"next\"|0ssid=\"a\n\"|0ssid=\"op|0ssid|");
    const std::string full = "aa:bb:cc:dd:ee:ff";
    const auto hide = [](int octets) {
        return [octets](char *line) { return pex_hide_mac_addr(line, octets); };
    };
    EXPECT_EQ(each_changed(hide(3), {"to " + full + ".", "aa:bb:cc:dd:ee", "1\n" + full}),
              "1to **:**:**:dd:ee:ff.|0aa:bb:cc:dd:ee|01\n" + full + "|");
    EXPECT_EQ(each_changed(hide(1000), {full + " no", "aa:bb:cc:dd:ee:f", "aa:bb:cc:dd:ee:\nff"}),
              "1**:**:**:**:**:** no|1**:**:**:**:**:*|1**:**:**:**:**:\nff|");
    EXPECT_EQ(each_changed(hide(6), {"aa:bg:cc:dd:ee:ff", "", "x"}), "0aa:bg:cc:dd:ee:ff|0|0x|");
    EXPECT_EQ(each_changed(hide(0), {full}), "1" + full + "|");
}

TEST(PexText, IsStrippedAndCut) {
    const auto strip = [](char *line) {
        return pex_strip_trailing_newline_and_return_chars(line, strlen(line));
    };
    EXPECT_EQ(each_changed(strip, {"a\nb\r\n\n", "ab", ""}), "3a\nb|0ab|-1|");
    EXPECT_EQ(each_changed(pex_str_tolower, {"AZ@[az"}), "0az@[az|");
    EXPECT_EQ(each_changed(pex_strip_spaces, {" a  b\t"}), "0ab\t|");
    EXPECT_EQ(pex_str_tolower(nullptr) + pex_strip_spaces(nullptr), -2);
    EXPECT_EQ(each(pex_one_line, {"a\n\x1f ~\x7f\xc3\xa4"}), "a?? ~?\xc3\xa4|");
    const auto pieces = [](std::string_view rest) {
        std::string joined;
        for (std::string_view piece; !(piece = pex_next_piece(rest, ',')).empty();)
            joined += std::string(piece) + "/";
        return joined;
    };
    EXPECT_EQ(each(pieces, {",,a,bc,,d,", ","}), "a/bc/d/||");
    EXPECT_EQ(text_of(pex_get_string_from_int(INT32_MIN)), "-2147483648");
}

TEST_F(PexMisc, CommandsAreClassifiedByTheirEnd) {
    const std::tuple<const char *, int, int, const char *> cases[] = {
        {"true", 0, 0, "CMD (true) SUCCESS with status = 0, ret = 0"},
        {"exit 1", 0, 1, "CMD (exit 1) failed with status = 1, ret = 256"},
        {"exit 78", 0, 78, "CMD (exit 78) faced CONFIG ERROR with status = 78, ret = 19968"},
        {"kill -9 $$", EPERM, EPERM, "system(kill -9 $$) failed with err = 1, ret = 9"},
        {"kill -15 $$", ECHILD, ECHILD,
         "system(kill -15 $$) failed due to ECHILD error with ret = 15"}};
    for (const auto &[command, errno_before, code, message] : cases) {
        int detail = -7;
        errno = errno_before;
        EXPECT_EQ(pex_system("me", command, &detail), code == 0 ? 0 : -1) << command;
        EXPECT_EQ(detail, code) << command;
        const std::string level = code == 0 ? "[DBG] (" : "[ERROR] (", log = log_text();
        EXPECT_TRUE(log.find(level) != log.npos && log.find("\nMODULE : me ") != log.npos);
        EXPECT_EQ(times_logged(message), 1) << log;
        forget_log();
    }
    EXPECT_EQ(pex_system("me", nullptr, nullptr) + pex_system(nullptr, "true", nullptr), -2);
    signal(SIGCHLD, SIG_IGN);  // the child is gone before it is waited for
    EXPECT_EQ(pex_system("me", "exit 0", nullptr), -1);
    EXPECT_EQ(times_logged("system(exit 0) failed due to ECHILD error"), 1);
    signal(SIGCHLD, SIG_DFL);
    make_pauses_call([](unsigned seconds) { write_file("/tmp/pause", std::to_string(seconds)); });
    fake("sudo", "cp /tmp/pause /tmp/before; exit 3");
    EXPECT_EQ(pex_system_reboot(), 3 << 8);
    EXPECT_EQ(read_file("/tmp/before") + commands().back(), "10sudo /sbin/reboot");
}

TEST_F(PexMisc, FilesAreReadAndCompared) {
    const std::string content = std::string(130, 'x') + "\nline\n\nlast";
    write_file("/tmp/stream", content);
    size_t length = 0;
    EXPECT_EQ(text_of(pex_read_terminated_stream(File(fopen("/tmp/stream", "re")).get(), &length)),
              content);
    EXPECT_EQ(length, content.size() + 1);
    EXPECT_EQ(pex_read_terminated_stream(File(fopen("/dev/null", "re")).get(), &length), nullptr);
    EXPECT_EQ(length, 0U);
    ASSERT_EQ(system("for s in 0 120 121; do touch -d @$((s + 1000)) /tmp/$s; done"), 0);
    EXPECT_EQ(pex_get_file_mtime("/tmp/120"), 1120);
    EXPECT_EQ(pex_files_modified_within("/tmp/0", "/tmp/120"), 1);
    EXPECT_EQ(pex_files_modified_within("/tmp/121", "/tmp/0"), 0);
    EXPECT_EQ(pex_get_file_mtime("/tmp/none"), 0);
    EXPECT_GE(pex_get_uptime(), atol(read_file("/proc/uptime").c_str()));
}

TEST_F(PexMisc, KeysAndUuids) {
    std::string key(66, '#');  // a test vector of IEEE 802.11, annex J.4
    EXPECT_EQ(wpa_passphrase("IEEE", "password", key.data(), 64), 1);
    EXPECT_EQ(key, std::string(66, '#'));
    EXPECT_EQ(wpa_passphrase("IEEE", "password", key.data(), 65), 0);
    EXPECT_STREQ(key.c_str(), "f42c6fc52df0ebef9ebb4b90b38a5f902e83fe1b135a70e23aed762e9710a12e");
    EXPECT_EQ(key[65], '#');
    const int before = static_cast<int>(open("/dev/null", O_RDONLY | O_CLOEXEC));
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    const rlimit no_more_files{static_cast<rlim_t>(before), files.rlim_max};
    close(before);  // no pipe to another process: derived in this one
    setrlimit(RLIMIT_NOFILE, &no_more_files);
    EXPECT_EQ(wpa_passphrase("IEEE", "password", key.data(), 65), 0);
    setrlimit(RLIMIT_NOFILE, &files);
    EXPECT_STREQ(key.c_str(), "f42c6fc52df0ebef9ebb4b90b38a5f902e83fe1b135a70e23aed762e9710a12e");
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    const std::string uuid = text_of(pex_generate_uuid_malloc());
    EXPECT_THAT(uuid, testing::MatchesRegex("[0-9A-F]{32}"));
    EXPECT_NE(uuid, text_of(pex_generate_uuid_malloc()));
}

TEST_F(PexMisc, ThreadsAreNamedBeforeTheyRun) {
    const auto check_name = [](void *named) -> void * {
        char name[16];
        pthread_getname_np(pthread_self(), name, sizeof name);
        *static_cast<std::atomic<int> *>(named) += name == std::string("fifteen_letters");
        return nullptr;
    };
    std::atomic<int> named{0};
    for (int i = 0; i < 50; i++)
        EXPECT_EQ(pthread_create_detached_thread(nullptr, check_name, &named, "fifteen_letters"),
                  0);
    EXPECT_TRUE(eventually([&] { return named == 50; })) << named;
    EXPECT_EQ(pthread_create_detached_thread(nullptr, check_name, &named, "sixteen_letters_"), -1);
}

}  // namespace
