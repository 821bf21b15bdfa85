// What the captured Wi-Fi log may show, and where it may be written.
#include "pex_log_utils.h"

#include <sys/stat.h>

#include <regex>

#include "robot.h"

namespace {

constexpr char kPath[] = "/tmp/syslog-tag.gz.base64";

class LogCapture : public Robot {
  protected:
    static std::string capture(const char *tag) {
        const MallocText path(create_wifi_log_file_malloc(tag));
        return path ? path.get() : "<null>";
    }
    static void have_script(const std::string &text) {
        write_file("/opt/halvik/bin/wifilogs.sh", "#!/run/fakes/dash\n" + text + "\n", 0755);
    }
};

TEST_F(LogCapture, NamesNoNetworkAndNoDevice) {
    have_script(
        "printf 'SSID: Home\\nmySSID Home\\nssid=Home\\n\\tssid=Home\\t#\\nxssid=Home#y\\n"
        "addr 0a:1B:22:33:44:55 up\\nsignal -40\\n'");
    write_file("/tmp/victim", "precious");
    ASSERT_EQ(symlink("/tmp/victim", kPath), 0);
    EXPECT_EQ(capture("tag"), kPath);
    EXPECT_EQ(times_logged("[ERROR]"), 0);
    EXPECT_TRUE(logged("\nMODULE : common CMD (/opt/halvik/bin/wifilogs.sh | sed -E"));
    EXPECT_EQ(read_file("/tmp/victim"), "precious");
    ASSERT_EQ(system((std::string("base64 -d ") + kPath + " | gunzip >/tmp/plain").c_str()), 0);
    EXPECT_EQ(read_file("/tmp/plain"),
              "SSID: ******** \nmySSID ******** \nssid=******** \n\tssid=******** \n"
              "xssid=******** y\naddr **:**:**:**:**:** up\nsignal -40\n");
    EXPECT_THAT(capture(nullptr), testing::MatchesRegex("/tmp/syslog-... ... .. ..:..:.. "
                                                        "[0-9]+.gz.base64"));
}

// Anybody may put something under the name into /tmp before the daemon does.
TEST_F(LogCapture, IsOursAloneAndWaitsForNobody) {
    have_script("echo log");
    write_file(kPath, "somebody else's", 0666);
    const File readable_before(fopen(kPath, "re"));
    umask(0);
    EXPECT_EQ(capture("tag"), kPath);
    struct stat info = {};
    stat(kPath, &info);
    EXPECT_EQ(info.st_mode & 07777, 0600U);
    EXPECT_EQ(fgetc(readable_before.get()), 's');
    EXPECT_EQ(unlink(kPath) + mkfifo(kPath, 0666), 0);
    forget_commands();
    EXPECT_EQ(capture("tag"), "<null>");
    EXPECT_TRUE(commands().empty());
}

TEST_F(LogCapture, PrintsEachJsonMemberOnOneLine) {
    const Json object(json_loads(R"({"a":{"b\n":-1,"t":true,"u":false},"c":"d\ne\u00e4",)"
                                 R"("f":["\n"],"g":null,"h":1.5})",
                                 0, nullptr));
    print_json_kv_pairs(object.get(), "TITLE");
    print_json_kv_pairs(nullptr, nullptr);
    EXPECT_EQ(std::regex_replace(log_text(), std::regex(R"(\(src/pex_log_utils:\d+-\) )"), ""),
              "[INFO] ### TITLE START ###\n[INFO] b? : -1\n[INFO] t : true\n[INFO] u : false\n"
              "[INFO] c : d?e\u00e4\n[INFO] f : [\"\\n\"]\n[INFO] ### TITLE END ###\n"
              "[INFO] ### START ###\n[INFO] ### END ###\n");
}

TEST_F(LogCapture, TheNameIsToldWhenThereIsOneToTell) {
    const std::string fits(256 - 1 - 22, 'x');  // without the script there is only a name
    EXPECT_EQ(capture(fits.c_str()), "/tmp/syslog-" + fits + ".gz.base64");
    EXPECT_EQ(read_file("/tmp/syslog-" + fits + ".gz.base64"), "<none>");
    EXPECT_EQ(capture((fits + "x").c_str()), "<null>");
    have_script("echo log");
    for (const auto &[code, path] : {std::pair("10", kPath), {"9", "<null>"}, {"11", "<null>"}}) {
        fake("base64", std::string("exit ") + code);
        EXPECT_EQ(capture("tag"), path) << code;
    }
}

}  // namespace
