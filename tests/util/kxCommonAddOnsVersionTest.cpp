#include "kxCommonAddOnsVersion.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

using kxCommonAddOns::Version;

TEST(Version, GettersAndDescriptionsNameThisRelease)
{
    const std::string id = Version::GetCommitId();
    EXPECT_TRUE(std::regex_match(id, std::regex("[0-9a-f]{16}"))) << id;
    EXPECT_TRUE(Version::GetMajor() == 3 && Version::GetMinor() == 0 && Version::GetRelease() == 0 &&
                Version::GetRevision() == 1297 && Version::GetYear() == 2026 && Version::GetMonth() == 2);
    EXPECT_FALSE(Version::IsBeta() || Version::IsDebug() || Version::IsDev());
    // The first flag is accepted and ignored.
    for (bool ignored : {false, true})
    {
        EXPECT_STREQ(Version::GetDescStringMajorMinor(ignored), "3.0");
        EXPECT_STREQ(Version::GetDescStringMajorMinorRelease(ignored), "3.0.0");
        EXPECT_STREQ(Version::GetDescStringMajorMinorReleaseRevision(ignored, false), "3.0.0.1297");
        EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevision(ignored, true), "3.0.0.1297 #" + id);
    }
    EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevisionDate(), "3.0.0.1297 #" + id + " 2026-2");
}
