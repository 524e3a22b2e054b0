#include "kxCapturingLog.h"
#include "kxLog.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <sstream>
#include <string>

namespace
{
// Civil date from days since 1970-01-01 (proleptic Gregorian), the era-based way.
void civilFromDays(long long z, int& y, unsigned& m, unsigned& d)
{
    z += 719468;
    const long long era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = unsigned(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    d = doy - (153 * mp + 2) / 5 + 1;
    m = mp < 10 ? mp + 3 : mp - 9;
    y = int(yoe + era * 400 + (m <= 2));
}

std::string stamp(uint64_t ms)
{
    int y;
    unsigned mo, d;
    const uint64_t seconds = ms / 1000;
    civilFromDays(static_cast<long long>(seconds / 86400), y, mo, d);
    const uint64_t s = seconds % 86400;
    char text[40];
    std::snprintf(text, sizeof text, "%04d-%02u-%02u %02u:%02u:%02u.%03u ", y, mo, d, unsigned(s / 3600),
                  unsigned(s / 60 % 60), unsigned(s % 60), unsigned(ms % 1000));
    return text;
}

kx::kxLog::LogEntry entry(const std::string& message, int level, const std::string& category = "")
{
    kx::kxLog::LogEntry e;
    e.message = message;
    e.level = level;
    e.category = category;
    return e;
}
} // namespace

TEST(Log, NewLogEnablesLevelsZeroToFiveAndNeverSix)
{
    kx::kxLog log;
    for (int level = 0; level <= 5; ++level)
        EXPECT_TRUE(log.isLevelEnabled(level)) << level;
    EXPECT_FALSE(log.isLevelEnabled(6));
    EXPECT_FALSE(log.isLevelEnabled(-1));
    log.setLevelEnabled(6, true);
    EXPECT_FALSE(log.isLevelEnabled(6));
    log.setLevelEnabled(3, false);
    for (int level = 0; level <= 5; ++level)
        EXPECT_EQ(log.isLevelEnabled(level), level != 3) << level;
}

TEST(Log, PrefixNamesTheLevelAndCategoryAfterAnOptionalUtcTime)
{
    const char* names[6] = {"debug", "info", "error", "warning", "critical", "fatal"};
    for (int level = 0; level < 6; ++level)
    {
        kx::kxLog::LogEntry plain = entry("m", level);
        plain.computeLogPrefix(false);
        EXPECT_EQ(plain.prefix, std::string("[") + names[level] + "] ");
        kx::kxLog::LogEntry categorised = entry("m", level, "bvh");
        categorised.computeLogPrefix(false);
        EXPECT_EQ(categorised.prefix, std::string("[") + names[level] + "] bvh: ");
    }

    kx::kxLog::LogEntry known = entry("m", 1, "bvh");
    known.time = 1700000000123ull; // 2023-11-14 22:13:20.123 UTC
    known.computeLogPrefix(true);
    EXPECT_EQ(known.prefix, "2023-11-14 22:13:20.123 [info] bvh: ");
    known.time = 7;
    known.computeLogPrefix(true);
    EXPECT_EQ(known.prefix, "1970-01-01 00:00:00.007 [info] bvh: ");

    std::mt19937_64 rng(9);
    for (int i = 0; i < 2000; ++i)
    {
        kx::kxLog::LogEntry e = entry("m", 4);
        e.time = rng() % 4102444800000ull; // before 2100
        e.computeLogPrefix(true);
        ASSERT_EQ(e.prefix, stamp(e.time) + "[critical] ") << e.time;
    }
}

TEST(Log, WriteSendsPrefixMessageAndNewlineToTheChosenStream)
{
    kx::kxLog log;
    std::ostringstream out;
    log.setStream(&out);
    kx::kxLog::LogEntry first = entry("first", 2);
    first.computeLogPrefix(false);
    log.Write(first, false);
    kx::kxLog::LogEntry second = entry("second", 0, "bvh");
    second.computeLogPrefix(false);
    log.Write(second, true);
    EXPECT_EQ(out.str(), "[error] first\n[debug] bvh: second\n");
}

TEST(Log, CapturingLogRecordsEntriesAndRestoresThePreviousInstance)
{
    ASSERT_EQ(kx::kxLog::msInstance, nullptr);
    {
        kx::kxCapturingLog outer;
        outer.install();
        EXPECT_EQ(kx::kxLog::msInstance, &outer);
        {
            kx::kxCapturingLog inner;
            inner.install();
            EXPECT_EQ(kx::kxLog::msInstance, &inner);
            kx::kxLog::LogEntry e = entry("to inner", 1, "bvh");
            kx::kxLog::msInstance->Write(e, false);
            ASSERT_EQ(inner.entries().size(), 1u);
            EXPECT_EQ(inner.entries()[0].category, "bvh");
        }
        EXPECT_EQ(kx::kxLog::msInstance, &outer);
        kx::kxLog::LogEntry a = entry("a", 1), b = entry("b", 3);
        kx::kxLog::msInstance->Write(a, false);
        kx::kxLog::msInstance->Write(b, true);
        EXPECT_EQ(outer.messages(), (std::vector<std::string>{"a", "b"}));
        EXPECT_EQ(outer.entries()[1].level, 3);
        outer.clear();
        EXPECT_TRUE(outer.entries().empty());
    }
    EXPECT_EQ(kx::kxLog::msInstance, nullptr);
}

namespace
{
std::vector<std::pair<std::string, bool>> gSunk;
}

TEST(Log, SystemLogSinkReceivesTheEntryAndTheStandardOutputFlag)
{
    gSunk.clear();
    kx::kxLog::setSystemLogSink(
        [](const kx::kxLog::LogEntry& e, bool alsoOut) { gSunk.emplace_back(e.systemLog + "|" + e.message, alsoOut); });
    kx::kxLog::LogEntry e = entry("hello", 2);
    e.systemLog = "app";
    kx::kxLog::WriteToSystemLog(e, true);
    kx::kxLog::WriteToSystemLog(e, false);
    kx::kxLog::setSystemLogSink(nullptr);
    ASSERT_EQ(gSunk.size(), 2u);
    EXPECT_EQ(gSunk[0], std::make_pair(std::string("app|hello"), true));
    EXPECT_EQ(gSunk[1], std::make_pair(std::string("app|hello"), false));
}
