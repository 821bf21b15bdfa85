#include "pex_misc.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>

#include "log.h"
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
    EXPECT_EQ(pex_system(nullptr, "true", nullptr), -1);
    EXPECT_TRUE(logged_as("ERROR", "\nInvalid Arguments"));
    signal(SIGCHLD, SIG_IGN);  // the child is gone before it is waited for
    EXPECT_EQ(pex_system("me", "exit 0", nullptr), -1);
    EXPECT_TRUE(logged_as("ERROR", "\nMODULE : me system(exit 0) failed due to ECHILD error"));
    signal(SIGCHLD, SIG_DFL);
}

TEST_F(PexMisc, ChildWithoutAShellGoesOnAsTheParentDoes) {
    log_format(nullptr, LOG_LEVEL_INFO, "test", 0, "opens /dev/log, which the empty root lacks");
    mkdir("/tmp/empty", 0755);
    const pid_t robot = fork();
    if (robot == 0) {
        int detail = 0;
        if (chroot("/tmp/empty") != 0 || pex_system("me", "true", &detail) != -1)
            _exit(99);
        _exit(detail);  // both come here: the shell-less child first, with ECHILD
    }
    int status = 0;
    waitpid(robot, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), ECHILD);
    EXPECT_TRUE(logged_as("ERROR", "me system(true) failed due to ECHILD error")) << log_text();
    EXPECT_TRUE(logged_as("ERROR", "me CMD (true) failed with status = 10, ret = 2560"));
}

TEST_F(PexMisc, StreamIsReadInPiecesToItsEnd) {
    const std::string content = std::string(130, 'x') + "\nline\n\nlast";
    write_file("/tmp/stream", content);
    size_t length = 0;
    EXPECT_EQ(text_of(pex_read_terminated_stream(File(fopen("/tmp/stream", "re")).get(), &length)),
              content);
    EXPECT_EQ(length, content.size() + 1);
    EXPECT_TRUE(logged_as("INFO", "Read " + std::string(63, 'x') + " from stream"));
    EXPECT_TRUE(logged_as("INFO", "Read xxxx\n from stream"));
    EXPECT_EQ(pex_read_terminated_stream(File(fopen("/dev/null", "re")).get(), &length), nullptr);
    EXPECT_EQ(length, 0U);
}

TEST_F(PexMisc, HexadecimalText) {
    const auto repeat = [](size_t count) { return std::string(count, '4'); };
    const struct {
        std::string text, bytes;
    } cases[] = {
        {"0A", "\n"},
        {"aBcDeF", "\xab\xcd\xef"},
        {"0g", "<null>"},
        {"ABC", "<null>"},
        {"410042", "A"},  // the zero ends it for who reads it as text
        {repeat(255), "<null>"},
        {repeat(256), ""},  // only eight bits of the length count
        {repeat(257), "<null>"},
        {repeat(258), "D"},
        {repeat(512), ""},
    };
    for (const auto &row : cases)
        EXPECT_EQ(text_of(hex_decode_str_malloc(row.text.c_str())), row.bytes) << row.text;
    EXPECT_EQ(text_of(hex_encode_str_malloc("\x0a\xff\x00", 3)), "0AFF00");
    for (const auto &[text, expected] : std::initializer_list<std::pair<const char *, int>>{
             {nullptr, 0}, {"", 1}, {"0", 0}, {"0aF9", 1}, {"0G", 0}})
        EXPECT_EQ(ishexstring(text), expected) << text;
    for (const auto &[text, expected] : std::initializer_list<std::pair<const char *, int>>{
             {"", 0}, {" ~", 0}, {"a\x1f", -1}, {"\x7f", -1}, {"caf\xc3\xa9", -1}})
        EXPECT_EQ(non_print_char_check(text), expected) << text;
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

TEST_F(PexMisc, NetworkNamesAreMasked) {
    const std::pair<const char *, const char *> cases[] = {
        {"x ssid=\"HomeWifi\" y", "x ssid=\"********\" y"},
        {"SSID='one' ssid='two'", "SSID='one' ssid='***'"},  // lower case goes first
        {"ssid='mixed\"end'", "ssid='*****\"end'"},
        {"ssid=\"\"", "ssid=\"\""},
        {"ssid=x\n\"next line\"", "ssid=x\n\"next line\""},
        {"ssid=\"two\nlines\"", "ssid=\"two\nlines\""},
        {"no name \"here\"", "no name \"here\""},
    };
    for (const auto &[text, masked] : cases) {
        std::string line = text;
        pex_hide_ssid(line.data());
        EXPECT_EQ(line, masked);
    }
    pex_hide_ssid(nullptr);
    EXPECT_TRUE(logged_as("ERROR", "No input string found"));
}

TEST_F(PexMisc, HardwareAddressesAreMasked) {
    const struct {
        const char *text;
        int octets, found;
        const char *masked;
    } cases[] = {
        {"to aa:bb:cc:dd:ee:ff.", 3, 1, "to **:**:**:dd:ee:ff."},
        {"aa:bb:cc:dd:ee:ff", 0, 1, "aa:bb:cc:dd:ee:ff"},
        {"aa:bb:cc:dd:ee:ff no more", 1000, 1, "**:**:**:**:**:** no more"},
        {"aa:bb:cc:dd:ee:f", 6, 1, "**:**:**:**:**:*"},
        {"aa:bb:cc:dd:ee:\nff", 6, 1, "**:**:**:**:**:\nff"},
        {"aa:bb:cc:dd:ee", 3, 0, "aa:bb:cc:dd:ee"},
        {"line\r\naa:bb:cc:dd:ee:ff", 3, 0, "line\r\naa:bb:cc:dd:ee:ff"},
    };
    for (const auto &row : cases) {
        const MallocText line(strdup(row.text));  // the sanitizer watches its end
        EXPECT_EQ(pex_hide_mac_addr(line.get(), row.octets), row.found) << row.text;
        EXPECT_STREQ(line.get(), row.masked);
    }
    EXPECT_EQ(pex_hide_mac_addr(nullptr, 3), 0);
}

TEST_F(PexMisc, SmallTexts) {
    for (const int32_t value : {INT32_MIN, -1, 0, INT32_MAX})
        EXPECT_EQ(text_of(pex_get_string_from_int(value)), std::to_string(value));
    for (const auto &[text, removed] : std::initializer_list<std::pair<std::string, int>>{
             {"ab\r\n\n", 3}, {"a\nb", 0}, {"\n\r\n", 3}}) {
        std::string line = text;
        EXPECT_EQ(pex_strip_trailing_newline_and_return_chars(line.data(), line.size()), removed);
        EXPECT_EQ(strlen(line.c_str()), text.size() - static_cast<size_t>(removed));
    }
}

TEST_F(PexMisc, FileLockHoldsOtherProcessesBack) {
    const auto open_file = [] { return Fd(open("/tmp/lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600)); };
    const Fd mine = open_file();
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(get_file_lock(mine.get()), 0);
    const pid_t other = fork();
    if (other == 0) {
        const Fd theirs = open_file();
        _exit(get_file_lock(theirs.get()) == 0 && write(ends[1], "x", 1) == 1 ? 0 : 1);
    }
    pollfd held{ends[0], POLLIN, 0};
    EXPECT_EQ(poll(&held, 1, 100), 0) << "the other process got the lock too";
    EXPECT_EQ(release_file_lock(mine.get()), 0);
    EXPECT_EQ(poll(&held, 1, 5000), 1);
    waitpid(other, nullptr, 0);
    EXPECT_EQ(get_file_lock(-1), -1);
}

std::atomic<int> finished{0};
char seen_name[16];

void *tell_name(void *counter) {
    pthread_getname_np(pthread_self(), seen_name, sizeof seen_name);
    ++*static_cast<std::atomic<int> *>(counter);
    return nullptr;
}

TEST_F(PexMisc, ThreadsAreNamedBeforeTheyRun) {
    pthread_t id;
    EXPECT_EQ(pthread_create_detached_thread(&id, tell_name, &finished, "fifteen_letters"), 0);
    EXPECT_TRUE(eventually([] { return finished == 1; }));
    EXPECT_STREQ(seen_name, "fifteen_letters");
    EXPECT_EQ(pthread_create_detached_thread(nullptr, tell_name, &finished, "sixteen_letters_"),
              -1);
    EXPECT_TRUE(logged_as("ERROR", "Thread name too long"));
    // Threads that end at once: each must still be named, and nobody else's memory.
    const auto add_one = [](void *counter) -> void * {
        ++*static_cast<std::atomic<int> *>(counter);
        return nullptr;
    };
    for (int i = 0; i < 500; i++)
        ASSERT_EQ(pthread_create_detached_thread(nullptr, add_one, &finished, "short"), 0);
    EXPECT_TRUE(eventually([] { return finished == 501; })) << finished;
}

}  // namespace
