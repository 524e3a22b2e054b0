#include "kxCapturingLog.h"
#include "kxLogObject.h"
#include "kxStandardOutputCapture.h"

#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace
{
std::vector<std::pair<kx::kxLog::LogEntry, bool>> gSystemLog;

// Stands in for syslog(3) while alive.
class SystemLogCapture
{
public:
    SystemLogCapture()
    {
        gSystemLog.clear();
        kx::kxLog::setSystemLogSink([](const kx::kxLog::LogEntry& entry, bool alsoToStandardOutput) {
            gSystemLog.emplace_back(entry, alsoToStandardOutput);
        });
    }
    ~SystemLogCapture() { kx::kxLog::setSystemLogSink(nullptr); }
};

// Counts how often it is formatted.
struct Expensive
{
    mutable int* formatted;
};
std::ostream& operator<<(std::ostream& os, const Expensive& e)
{
    ++*e.formatted;
    return os << "expensive";
}

std::string prefixFor(uint64_t time, int level, const std::string& category)
{
    kx::kxLog::LogEntry entry;
    entry.time = time;
    entry.level = level;
    entry.category = category;
    entry.computeLogPrefix(true);
    return entry.prefix;
}

// True when the prefix is the time-stamped prefix of some millisecond in [from, to].
bool timedPrefixWithin(const std::string& prefix, uint64_t from, uint64_t to, int level, const std::string& category)
{
    for (uint64_t t = from; t <= to; ++t)
        if (prefix == prefixFor(t, level, category))
            return true;
    return false;
}
} // namespace

TEST(LogObject, LineReachesTheInstanceWithEveryFieldFilled)
{
    ASSERT_EQ(kx::kxLog::msInstance, nullptr);
    kx::kxCapturingLog log;
    log.install();
    kxStandardOutputCapture out;
    const uint64_t before = kx::kxSystemUtils::GetMSecElapsedSinceEpoch();
    {
        kx::kxLogObject line(1);
        line.setCategory("bvh");
        line << "built " << 42 << " nodes in " << 1.5 << ' ' << std::hex << 255u;
    }
    const uint64_t after = kx::kxSystemUtils::GetMSecElapsedSinceEpoch();

    const std::vector<kx::kxLog::LogEntry> entries = log.entries();
    ASSERT_EQ(entries.size(), 1u);
    const kx::kxLog::LogEntry& entry = entries[0];
    EXPECT_EQ(entry.message, "built 42 nodes in 1.5 ff");
    EXPECT_EQ(entry.category, "bvh");
    EXPECT_EQ(entry.systemLog, "");
    EXPECT_EQ(entry.level, 1);
    EXPECT_GE(entry.time, before);
    EXPECT_LE(entry.time, after);
    EXPECT_EQ(entry.prefix, prefixFor(entry.time, 1, "bvh"));
    EXPECT_TRUE(std::regex_match(entry.prefix, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[info\] bvh: )")))
        << entry.prefix;
    EXPECT_EQ(entry.threadId, kx::kxThread::CurrentThreadId());
    EXPECT_EQ(out.text(), "");
}

TEST(LogObject, ThreadIdFollowsTheErrorLevelFlagWhateverTheLineLevel)
{
    kx::kxCapturingLog log;
    log.install();

    log.setLevelEnabled(2, false);
    kx::kxLogObject(1) << "info without error level";
    kx::kxLogObject(3) << "warning without error level";
    kx::kxLogObject(2) << "error while disabled";
    log.setLevelEnabled(2, true);
    log.setLevelEnabled(1, false);
    kx::kxLogObject(1) << "info while disabled";
    kx::kxLogObject(3) << "warning with error level";
    kx::kxLogObject(2) << "error";

    const std::vector<kx::kxLog::LogEntry> entries = log.entries();
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_EQ(entries[0].message, "info without error level");
    EXPECT_EQ(entries[0].threadId, "");
    EXPECT_EQ(entries[1].message, "warning without error level");
    EXPECT_EQ(entries[1].threadId, "");
    EXPECT_EQ(entries[2].message, "warning with error level");
    EXPECT_EQ(entries[2].level, 3);
    EXPECT_EQ(entries[2].threadId, kx::kxThread::CurrentThreadId());
    EXPECT_EQ(entries[3].message, "error");
    EXPECT_EQ(entries[3].threadId, kx::kxThread::CurrentThreadId());
}

TEST(LogObject, DisabledLineFormatsNothingAndEmitsNothing)
{
    int formatted = 0;
    {
        kx::kxCapturingLog log;
        log.install();
        log.setLevelEnabled(4, false);
        SystemLogCapture systemLog;
        kxStandardOutputCapture out;
        {
            kx::kxLogObject line(4);
            line.setCategory("bvh");
            line.setSystemLogText("app");
            line << Expensive{&formatted} << 12;
        }
        kx::kxLogObject(6) << Expensive{&formatted};
        EXPECT_TRUE(log.entries().empty());
        EXPECT_TRUE(gSystemLog.empty());
        EXPECT_EQ(out.text(), "");
    }
    {
        // Level 6 is disabled without any log instance too.
        ASSERT_EQ(kx::kxLog::msInstance, nullptr);
        kxStandardOutputCapture out;
        kx::kxLogObject(6) << Expensive{&formatted};
        EXPECT_EQ(out.text(), "");
    }
    EXPECT_EQ(formatted, 0);
}

TEST(LogObject, WithoutAnInstanceTheLineGoesToStandardOutput)
{
    ASSERT_EQ(kx::kxLog::msInstance, nullptr);
    int formatted = 0;
    kxStandardOutputCapture out;
    const uint64_t before = kx::kxSystemUtils::GetMSecElapsedSinceEpoch();
    {
        kx::kxLogObject line(3);
        line.setCategory("bvh");
        line << "x=" << 5 << ' ' << Expensive{&formatted};
    }
    const uint64_t after = kx::kxSystemUtils::GetMSecElapsedSinceEpoch();
    kx::kxLogObject(0) << "second";

    const std::string text = out.text();
    const size_t firstEnd = text.find('\n');
    ASSERT_NE(firstEnd, std::string::npos);
    const std::string first = text.substr(0, firstEnd + 1);
    const std::string message = "x=5 expensive\n";
    ASSERT_GT(first.size(), message.size());
    EXPECT_EQ(first.substr(first.size() - message.size()), message);
    EXPECT_TRUE(timedPrefixWithin(first.substr(0, first.size() - message.size()), before, after, 3, "bvh")) << first;
    EXPECT_TRUE(std::regex_match(text.substr(firstEnd + 1),
                                 std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[debug\] second\n)")))
        << text;
    EXPECT_EQ(formatted, 1);
}

TEST(LogObject, SystemLogTextSendsTheLineToTheSystemLogAndTheInstance)
{
    SystemLogCapture systemLog;
    kxStandardOutputCapture out;
    {
        kx::kxCapturingLog log;
        log.install();
        {
            kx::kxLogObject line(2);
            line.setSystemLogText("kxapp");
            line.setCategory("bvh");
            line << "both";
        }
        ASSERT_EQ(gSystemLog.size(), 1u);
        EXPECT_EQ(gSystemLog[0].first.message, "both");
        EXPECT_EQ(gSystemLog[0].first.systemLog, "kxapp");
        EXPECT_EQ(gSystemLog[0].first.category, "bvh");
        EXPECT_EQ(gSystemLog[0].first.level, 2);
        EXPECT_EQ(gSystemLog[0].first.prefix, prefixFor(gSystemLog[0].first.time, 2, "bvh"));
        EXPECT_FALSE(gSystemLog[0].second) << "a log instance exists, so no copy to standard output";
        const std::vector<kx::kxLog::LogEntry> entries = log.entries();
        ASSERT_EQ(entries.size(), 1u);
        EXPECT_EQ(entries[0].message, "both");
        EXPECT_EQ(entries[0].systemLog, "kxapp");
    }
    ASSERT_EQ(kx::kxLog::msInstance, nullptr);
    kx::kxLogObject(5) << "alone";
    {
        kx::kxLogObject line(5);
        line.setSystemLogText("kxapp");
        line << "system only";
    }
    ASSERT_EQ(gSystemLog.size(), 2u);
    EXPECT_EQ(gSystemLog[1].first.message, "system only");
    EXPECT_EQ(gSystemLog[1].first.level, 5);
    EXPECT_EQ(gSystemLog[1].first.category, "");
    EXPECT_TRUE(gSystemLog[1].second) << "no log instance: the system log also prints the line";
    // Only the line without a system log text was printed here; the other went to the sink.
    const std::string text = out.text();
    EXPECT_NE(text.find("[fatal] alone\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("system only"), std::string::npos) << text;
}

TEST(LogObject, EmptyMessagesAreDropped)
{
    SystemLogCapture systemLog;
    kxStandardOutputCapture out;
    {
        kx::kxCapturingLog log;
        log.install();
        {
            kx::kxLogObject nothing(1);
            nothing.setCategory("bvh");
            nothing.setSystemLogText("kxapp");
        }
        {
            kx::kxLogObject empty(1);
            empty.setSystemLogText("kxapp");
            empty << "" << std::string();
        }
        EXPECT_TRUE(log.entries().empty());
    }
    kx::kxLogObject(1) << "";
    kx::kxLogObject(1);
    EXPECT_TRUE(gSystemLog.empty());
    EXPECT_EQ(out.text(), "");
}

TEST(LogObject, ErrorLevelGuardLooksAtTheInstanceFlag)
{
    ASSERT_EQ(kx::kxLog::msInstance, nullptr);
    EXPECT_TRUE(kx::kxLogObject::errorLevelEnabled());
    kx::kxCapturingLog log;
    log.install();
    EXPECT_TRUE(kx::kxLogObject::errorLevelEnabled());
    log.setLevelEnabled(2, false);
    EXPECT_FALSE(kx::kxLogObject::errorLevelEnabled());
    log.setLevelEnabled(1, false);
    log.setLevelEnabled(2, true);
    EXPECT_TRUE(kx::kxLogObject::errorLevelEnabled());
}
