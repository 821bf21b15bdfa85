#include "version.h"

#include "pex_product_version_string.h"
#include "robot.h"

namespace {

using Version = Robot;

TEST_F(Version, NeedsRoomForTheWholeText) {
    version_record record{255, "untouched"};
    EXPECT_EQ(getVersion(&record), -1);
    EXPECT_TRUE(
        logged_as("ERROR", "Version length of Connectivity Module found to be less than expected"));
    EXPECT_EQ(getVersionDetails(&record), -1);
    EXPECT_TRUE(logged_as("ERROR",
                          "Version length of Connectivity Module found to be less than expected!"));
    EXPECT_STREQ(record.text, "untouched");
    record.capacity = 256;
    EXPECT_EQ(getVersion(&record), 0);
    EXPECT_THAT(record.text, testing::MatchesRegex("[0-9.]+-.+@.+/"));
    EXPECT_EQ(getVersionDetails(&record), 0);
    EXPECT_THAT(record.text,
                testing::MatchesRegex(" Jenkins Job Number: [0-9]+\n"
                                      " Branch: .+\tHash: .+[.]{3}\tModified: 0\n"
                                      " Build Machine: .+ Builder: .* Build Date: .+\n"));
}

TEST_F(Version, ProductVersionIsAskedForUntilKnown) {
    fake("version", "true");
    EXPECT_EQ(pex_get_product_version_string(), nullptr);
    fake("version", "echo Build: 7; echo 'Product Version: R-2: 1.4'");
    const char *version = pex_get_product_version_string();
    EXPECT_STREQ(version, "1.4");  // behind the last colon and blank
    EXPECT_TRUE(logged_as("INFO", "Parsed version string 1.4 from popen command"));
    fake("version", "echo 'Product Version: 2.0'");
    EXPECT_EQ(pex_get_product_version_string(), version);
    EXPECT_THAT(commands(), testing::Contains("sudo version | grep \"Product Version: \" | "
                                              "sed s/\"^.*: \"//")
                                .Times(2));
}

}  // namespace
