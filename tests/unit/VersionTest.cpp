#include <gtest/gtest.h>

#include "base/Version.h"

namespace {

TEST(VersionTest, IsTheProjectsVersionAndStaysTheSameString) {
    EXPECT_STREQ(kstf_get_sdk_version(), VEXALIVE_VERSION);
    EXPECT_EQ(kstf_get_sdk_version(), kstf_get_sdk_version());
}

}  // namespace
