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
    EXPECT_EQ(getVersion(&record), 0);
    EXPECT_THAT(record.text, testing::MatchesRegex("[0-9.]+-.+@.+/"));
}

TEST_F(Version, ProductVersionIsAskedForUntilKnown) {
    fake("version", "true");
    EXPECT_EQ(pex_get_product_version_string(), nullptr);
    fake("version", "echo Build: 7; echo 'Product Version: R-2: 1.4'");
    EXPECT_STREQ(pex_get_product_version_string(), "1.4");  // behind the last colon and blank
    fake("version", "echo 'Product Version: 2.0'");
    EXPECT_STREQ(pex_get_product_version_string(), "1.4");
}

}  // namespace
