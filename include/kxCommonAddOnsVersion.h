#ifndef KXCOMMONADDONSVERSION_H
#define KXCOMMONADDONSVERSION_H

namespace kxCommonAddOns
{
/// The library's version, fixed at build time. Text results point to static strings that
/// live as long as the library; bool arguments noted as ignored change nothing.
class Version
{
public:
    static int GetMajor();
    static int GetMinor();
    static int GetRelease();
    static int GetRevision();
    /// 16 lower-case hexadecimal digits of the source commit (zeros outside a checkout).
    static const char* GetCommitId();
    static int GetYear();
    static int GetMonth();

    /// "major.minor"; the argument is ignored.
    static const char* GetDescStringMajorMinor(bool);
    /// "major.minor.release"; the argument is ignored.
    static const char* GetDescStringMajorMinorRelease(bool);
    /// "major.minor.release.revision", with " #<commit>" when withCommitId; the first
    /// argument is ignored.
    static const char* GetDescStringMajorMinorReleaseRevision(bool, bool withCommitId);
    /// "major.minor.release.revision #<commit> <year>-<month>".
    static const char* GetDescStringMajorMinorReleaseRevisionDate();

    static bool IsBeta();
    static bool IsDebug();
    static bool IsDev();
};
} // namespace kxCommonAddOns

#endif
