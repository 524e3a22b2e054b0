#include "kxCommonAddOnsVersion.h"

#include "kxVersionConfig.h"

namespace kxCommonAddOns
{
int Version::GetMajor() { return KX_VERSION_MAJOR; }
int Version::GetMinor() { return KX_VERSION_MINOR; }
int Version::GetRelease() { return KX_VERSION_RELEASE; }
int Version::GetRevision() { return KX_VERSION_REVISION; }
const char* Version::GetCommitId() { return KX_VERSION_COMMIT_ID; }
int Version::GetYear() { return KX_VERSION_YEAR; }
int Version::GetMonth() { return KX_VERSION_MONTH; }

const char* Version::GetDescStringMajorMinor(bool) { return KX_VERSION_STR_MAJOR_MINOR; }
const char* Version::GetDescStringMajorMinorRelease(bool) { return KX_VERSION_STR_MAJOR_MINOR_RELEASE; }

const char* Version::GetDescStringMajorMinorReleaseRevision(bool, bool withCommitId)
{
    return withCommitId ? KX_VERSION_STR_FULL " #" KX_VERSION_COMMIT_ID : KX_VERSION_STR_FULL;
}

const char* Version::GetDescStringMajorMinorReleaseRevisionDate()
{
    return KX_VERSION_STR_FULL " #" KX_VERSION_COMMIT_ID " " KX_VERSION_STR_DATE;
}

bool Version::IsBeta() { return false; }
bool Version::IsDebug() { return false; }
bool Version::IsDev() { return false; }
} // namespace kxCommonAddOns
