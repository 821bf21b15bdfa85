#include "version.h"

#include "pex_product_version_string.h"
#include "robot.h"

namespace {

using testing::MatchesRegex;
using Version = Robot;

TEST_F(Version, NeedsRoomForTheWholeText) {
    version_record record{255, "untouched"};
    EXPECT_EQ(getVersion(&record), -1);
    EXPECT_EQ(getVersionDetails(&record), -1);
    EXPECT_STREQ(record.text, "untouched");
    record.capacity = 256;
    EXPECT_EQ(getVersionDetails(&record), 0);
    logVersionDetails();
    EXPECT_TRUE(logged_as("INFO", record.text));
    EXPECT_THAT(record.text, MatchesRegex(" Jenkins Job Number: [0-9]+\n"
                                          " Branch: .+\tHash: .+\\.\\.\\.\tModified: 0\n"
                                          " Build Machine: .+ Builder: .* Build Date: .+\n"));
    EXPECT_EQ(getVersion(&record), 0);
    logVersion();
    EXPECT_TRUE(logged_as("INFO", std::string("Connectivity Module version: ") + record.text));
    EXPECT_THAT(record.text, MatchesRegex("[0-9.]+-.+@.+/"));
}

TEST_F(Version, IsAskedOfTheToolsUntilKnown) {
    fake("version", "true");
    EXPECT_EQ(pex_get_product_version_string(), nullptr);
    fake("version", "echo Build: 7; echo 'Product Version: R-2: 1.4'");
    EXPECT_STREQ(pex_get_product_version_string(), "1.4");  // behind the last colon and blank
    fake("version", "echo 'Product Version: 2.0'");
    EXPECT_STREQ(pex_get_product_version_string(), "1.4");
    const auto packs = [] {
        std::string texts;
        for (const auto &get :
             {pex_get_lang_pack_id_malloc, pex_get_extra_lang_pack_id_malloc,
              pex_get_lang_pack_version_malloc, pex_get_extra_lang_pack_version_malloc})
            if (const MallocText text{get()})
                texts += std::string(text.get()) + "; ";
        return texts;
    };
    fake("get_lang.sh", "exit 1");
    EXPECT_EQ(packs(), "");
    fake("get_lang.sh",
         "echo LANGUAGE_PACK_ID=7; echo EXTRA_LANGUAGE_PACK_ID=9;"
         "echo LANGUAGE_PACK_VERSION=1.2; echo EXTRA_LANGUAGE_VERSION=3.4");
    EXPECT_EQ(packs(), "7\n9; 9; 1.2; 3.4; ");  // the extra one's line fits the first, too
    EXPECT_TRUE(logged("Parsed lang ID string 9 from popen command"));
    EXPECT_TRUE(logged("Parsed lang version string 3.4 from popen command"));
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
