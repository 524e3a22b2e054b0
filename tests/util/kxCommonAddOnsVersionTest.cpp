#include "kxCommonAddOnsVersion.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

using kxCommonAddOns::Version;

TEST(Version, NumbersOfThisRelease)
{
    EXPECT_EQ(Version::GetMajor(), 3);
    EXPECT_EQ(Version::GetMinor(), 0);
    EXPECT_EQ(Version::GetRelease(), 0);
    EXPECT_EQ(Version::GetRevision(), 1297);
    EXPECT_EQ(Version::GetYear(), 2026);
    EXPECT_EQ(Version::GetMonth(), 2);
    EXPECT_FALSE(Version::IsBeta());
    EXPECT_FALSE(Version::IsDebug());
    EXPECT_FALSE(Version::IsDev());
}

TEST(Version, CommitIdIsSixteenLowerCaseHexDigits)
{
    const std::string id = Version::GetCommitId();
    EXPECT_TRUE(std::regex_match(id, std::regex("[0-9a-f]{16}"))) << id;
}

TEST(Version, DescriptionsAreComposedFromTheGettersAndIgnoreTheirFlags)
{
    const std::string majorMinor = std::to_string(Version::GetMajor()) + "." + std::to_string(Version::GetMinor());
    const std::string release = majorMinor + "." + std::to_string(Version::GetRelease());
    const std::string revision = release + "." + std::to_string(Version::GetRevision());
    const std::string commit = std::string(" #") + Version::GetCommitId();
    const std::string date = " " + std::to_string(Version::GetYear()) + "-" + std::to_string(Version::GetMonth());

    for (bool ignored : {false, true})
    {
        EXPECT_EQ(std::string(Version::GetDescStringMajorMinor(ignored)), majorMinor);
        EXPECT_EQ(std::string(Version::GetDescStringMajorMinorRelease(ignored)), release);
        EXPECT_EQ(std::string(Version::GetDescStringMajorMinorReleaseRevision(ignored, false)), revision);
        EXPECT_EQ(std::string(Version::GetDescStringMajorMinorReleaseRevision(ignored, true)), revision + commit);
    }
    EXPECT_EQ(std::string(Version::GetDescStringMajorMinorReleaseRevisionDate()), revision + commit + date);
}
