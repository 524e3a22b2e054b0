#include "kxCommonAddOnsVersion.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

using kxCommonAddOns::Version;

TEST(Version, DescriptionsAgreeWithTheGettersOfThisRelease)
{
    const std::string revision = std::to_string(Version::GetMajor()) + "." + std::to_string(Version::GetMinor()) +
                                 "." + std::to_string(Version::GetRelease()) + "." +
                                 std::to_string(Version::GetRevision());
    const std::string date = std::to_string(Version::GetYear()) + "-" + std::to_string(Version::GetMonth());
    EXPECT_EQ(revision + " " + date, "3.0.0.1297 2026-2");
    EXPECT_FALSE(Version::IsBeta() || Version::IsDebug() || Version::IsDev());
    const std::string id = Version::GetCommitId();
    EXPECT_TRUE(std::regex_match(id, std::regex("[0-9a-f]{16}"))) << id;

    // The flags are accepted and ignored.
    for (bool ignored : {false, true})
    {
        EXPECT_EQ(Version::GetDescStringMajorMinor(ignored), revision.substr(0, 3));
        EXPECT_EQ(Version::GetDescStringMajorMinorRelease(ignored), revision.substr(0, 5));
        EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevision(ignored, false), revision);
        EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevision(ignored, true), revision + " #" + id);
    }
    EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevisionDate(), revision + " #" + id + " " + date);
}
