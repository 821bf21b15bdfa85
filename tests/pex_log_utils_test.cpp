// What the captured Wi-Fi log may show, and where it may be written.
#include "pex_log_utils.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "robot.h"

namespace {

class LogCapture : public Robot {
  protected:
    static std::string capture(const char *tag) {
        const MallocText path(create_wifi_log_file_malloc(tag));
        return path ? path.get() : "<null>";
    }
};

TEST_F(LogCapture, NamesNoNetworkAndNoDevice) {
    write_file("/opt/halvik/bin/wifilogs.sh",
               "#!/run/fakes/dash\nprintf 'SSID: Home\\nssid=Home\\n\\tssid=Home\\t#\\n"
               "addr 0a:1B:22:33:44:55 up\\nsignal -40\\n'\n",
               0755);
    const std::string path = "/tmp/syslog-prov-fail-wifilog.gz.base64";
    write_file("/tmp/victim", "precious");
    ASSERT_EQ(symlink("/tmp/victim", path.c_str()), 0);
    EXPECT_EQ(capture("prov-fail-wifilog"), path);
    EXPECT_EQ(read_file("/tmp/victim"), "precious");
    ASSERT_EQ(system(("base64 -d " + path + " | gunzip >/tmp/plain").c_str()), 0);
    EXPECT_EQ(read_file("/tmp/plain").find("Home"), std::string::npos) << read_file("/tmp/plain");
    EXPECT_NE(read_file("/tmp/plain").find("addr **:**:**:**:**:** up\nsignal -40"),
              std::string::npos)
        << read_file("/tmp/plain");
    EXPECT_THAT(capture(nullptr), testing::MatchesRegex("/tmp/syslog-... ... .. ..:..:.. "
                                                        "[0-9]+.gz.base64"));
}

// Anybody may put something under the name into /tmp before the daemon does.
TEST_F(LogCapture, IsOursAloneAndWaitsForNobody) {
    write_file("/opt/halvik/bin/wifilogs.sh", "#!/run/fakes/dash\necho log\n", 0755);
    const std::string path = "/tmp/syslog-tag.gz.base64";
    write_file(path, "somebody else's", 0666);
    const Fd readable_before(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    umask(0);
    EXPECT_EQ(capture("tag"), path);
    struct stat info = {};
    stat(path.c_str(), &info);
    EXPECT_EQ(info.st_mode & 07777, 0600U);
    std::array<char, 4> start{};
    ASSERT_EQ(read(readable_before.get(), start.data(), start.size()), 4);
    EXPECT_EQ(std::string(start.data(), 4), "some");
    unlink(path.c_str());
    forget_commands();
    ASSERT_EQ(mkfifo(path.c_str(), 0666), 0);
    EXPECT_EQ(capture("tag"), "<null>");
    EXPECT_TRUE(logged_as("ERROR", "error opening " + path));
    EXPECT_TRUE(commands().empty());
}

TEST_F(LogCapture, PrintsEachJsonMemberOnOneLine) {
    const Json object(
        json_loads(R"({"a":{"b\n":1},"c":"d\ne\u00e4","f":["\n"],"g":null})", 0, nullptr));
    print_json_kv_pairs(object.get(), "TITLE");
    for (const char *line : {"### TITLE START ###", "b? : 1", "c : d?e\u00e4", R"(f : ["\n"])"})
        EXPECT_TRUE(logged_as("INFO", line)) << line;
    EXPECT_TRUE(logged("### TITLE END ###"));
    EXPECT_EQ(times_logged("a : ") + times_logged("g : "), 0);
}

TEST_F(LogCapture, WithoutTheScriptThereIsOnlyAName) {
    const std::string fits(256 - 1 - 22, 'x');
    EXPECT_EQ(capture(fits.c_str()), "/tmp/syslog-" + fits + ".gz.base64");
    EXPECT_EQ(read_file("/tmp/syslog-" + fits + ".gz.base64"), "<none>");
    EXPECT_EQ(capture((fits + "x").c_str()), "<null>");
    EXPECT_TRUE(logged("snprintf failed: ret: 256"));
}

}  // namespace
