#include "version.h"

#include "pex_product_version_string.h"
#include "robot.h"

namespace {

using Version = Robot;

TEST_F(Version, NeedsRoomForTheWholeText) {
    version_record record{255, "untouched"};
    EXPECT_EQ(getVersion(&record) + getVersionDetails(&record), -2);
    EXPECT_STREQ(record.text, "untouched");
    record.capacity = 256;
    EXPECT_EQ(getVersionDetails(&record), 0);
    EXPECT_THAT(record.text,
                testing::MatchesRegex(" Jenkins Job Number: [0-9]+\n"
                                      " Branch: .+\tHash: .+\\.\\.\\.\tModified: 0\n"
                                      " Build Machine: .+ Builder: .* Build Date: .+\n"));
    logVersionDetails();
    EXPECT_TRUE(logged_as("INFO", record.text));
    EXPECT_EQ(getVersion(&record), 0);
    EXPECT_THAT(record.text, testing::MatchesRegex("[0-9.]+-.+@.+/"));
    logVersion();
    EXPECT_TRUE(logged_as("INFO", std::string("Connectivity Module version: ") + record.text));
}

TEST_F(Version, ProductVersionIsAskedForUntilKnown) {
    fake("version", "true");
    EXPECT_EQ(pex_get_product_version_string(), nullptr);
    fake("version", "echo Build: 7; echo 'Product Version: R-2: 1.4'");
    EXPECT_STREQ(pex_get_product_version_string(), "1.4");  // behind the last colon and blank
    fake("version", "echo 'Product Version: 2.0'");
    EXPECT_STREQ(pex_get_product_version_string(), "1.4");
}

TEST_F(Version, LanguagePacksAreReadFromTheTool) {
    fake("get_lang.sh",
         "echo LANGUAGE_PACK_ID=7; echo EXTRA_LANGUAGE_PACK_ID=9;"
         "echo LANGUAGE_PACK_VERSION=1.2; echo EXTRA_LANGUAGE_VERSION=3.4");
    const auto text_of = [](char *text) { return std::string(MallocText(text).get()); };
    EXPECT_EQ(text_of(pex_get_lang_pack_id_malloc()), "7\n9");  // the extra one's line fits, too
    EXPECT_EQ(text_of(pex_get_extra_lang_pack_id_malloc()), "9");
    EXPECT_EQ(text_of(pex_get_lang_pack_version_malloc()), "1.2");
    EXPECT_EQ(text_of(pex_get_extra_lang_pack_version_malloc()), "3.4");
    EXPECT_TRUE(logged("Parsed lang ID string 9 from popen command"));
    EXPECT_TRUE(logged("Parsed lang version string 3.4 from popen command"));
    fake("get_lang.sh", "exit 1");
    EXPECT_EQ(pex_get_lang_pack_id_malloc(), nullptr);
}

TEST_F(Version, HostNameIsCutToItsBuffer) {
    char name[] = "#########";
    EXPECT_EQ(pex_get_hostname(nullptr, 9) + pex_get_hostname(name, 0), -2);
    EXPECT_EQ(pex_get_hostname(name, 4), 0);
    EXPECT_EQ(std::string(name, 6), std::string("rob\0##", 6));
    EXPECT_EQ(pex_get_hostname(name, 9), 0);
    EXPECT_STREQ(name, "robot");
}

}  // namespace
