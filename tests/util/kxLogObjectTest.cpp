#include "kxCapturingLog.h"
#include "kxLogObject.h"
#include "kxStandardOutputCapture.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <utility>
#include <vector>

namespace
{
std::vector<std::pair<kx::kxLog::LogEntry, bool>> gSystemLog;
int gFormatted = 0;

// Stands in for syslog(3) while alive.
struct SystemLogCapture
{
    SystemLogCapture()
    {
        gSystemLog.clear();
        kx::kxLog::setSystemLogSink([](const kx::kxLog::LogEntry& e, bool out) { gSystemLog.emplace_back(e, out); });
    }
    ~SystemLogCapture() { kx::kxLog::setSystemLogSink(nullptr); }
};

struct Expensive
{
};
std::ostream& operator<<(std::ostream& os, Expensive)
{
    return os << ++gFormatted;
}

// One line at the level, tagged for the system log.
template <typename T>
void systemLine(int level, const T& value)
{
    kx::kxLogObject line(level);
    line.setSystemLogText("kxapp");
    line << value;
}
} // namespace

TEST(LogObject, LineReachesTheInstanceAndTheSystemLogWithEveryFieldFilled)
{
    SystemLogCapture systemLog;
    kxStandardOutputCapture out;
    kx::kxCapturingLog log;
    log.install();
    const uint64_t before = kx::kxSystemUtils::GetMSecElapsedSinceEpoch();
    {
        kx::kxLogObject line(1);
        line.setCategory("bvh");
        line.setSystemLogText("kxapp");
        line << "built " << 42 << " nodes in " << 1.5 << ' ' << std::hex << 255u;
    }
    ASSERT_EQ(log.entries().size(), 1u);
    kx::kxLog::LogEntry entry = log.entries()[0];
    EXPECT_EQ(entry.message, "built 42 nodes in 1.5 ff");
    EXPECT_TRUE(entry.category == "bvh" && entry.systemLog == "kxapp" && entry.level == 1);
    EXPECT_TRUE(entry.time >= before && entry.time <= kx::kxSystemUtils::GetMSecElapsedSinceEpoch());
    EXPECT_EQ(entry.threadId, kx::kxThread::CurrentThreadId());
    const std::string prefix = entry.prefix;
    entry.computeLogPrefix(true);
    EXPECT_EQ(prefix, entry.prefix);
    ASSERT_EQ(gSystemLog.size(), 1u);
    EXPECT_TRUE(gSystemLog[0].first.message == entry.message && !gSystemLog[0].second)
        << "an instance exists: the system log prints no copy";
    EXPECT_EQ(out.text(), "");
}

TEST(LogObject, WithoutAnInstanceLinesGoToStandardOutputOrOnlyToTheSystemLogAndEmptyOnesNowhere)
{
    SystemLogCapture systemLog;
    kxStandardOutputCapture out;
    kx::kxLogObject(3) << "x=" << 5;
    kx::kxLogObject(1) << "" << std::string();
    systemLine(1, std::string());
    systemLine(6, Expensive());
    systemLine(5, "system only");
    EXPECT_TRUE(std::regex_match(out.text(), std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[warning\] x=5\n)")))
        << out.text();
    ASSERT_EQ(gSystemLog.size(), 1u);
    EXPECT_TRUE(gSystemLog[0].first.message == "system only" && gSystemLog[0].first.level == 5);
    EXPECT_TRUE(gSystemLog[0].second) << "the system log prints the line itself";
    EXPECT_EQ(gFormatted, 0);
}

TEST(LogObject, DisabledLevelsFormatNothingAndTheThreadIdFollowsTheErrorLevelFlag)
{
    EXPECT_TRUE(kx::kxLogObject::errorLevelEnabled()) << "without an instance lines go to standard output";
    SystemLogCapture systemLog;
    kxStandardOutputCapture out;
    kx::kxCapturingLog log;
    log.install();
    log.setLevelEnabled(2, false);
    EXPECT_FALSE(kx::kxLogObject::errorLevelEnabled());
    kx::kxLogObject(1) << "info without error level";
    log.setLevelEnabled(2, true);
    log.setLevelEnabled(1, false);
    EXPECT_TRUE(kx::kxLogObject::errorLevelEnabled());
    systemLine(1, Expensive());
    kx::kxLogObject(3) << "warning with error level";
    const std::vector<kx::kxLog::LogEntry> entries = log.entries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].threadId + "|" + entries[1].message + "|" + entries[1].threadId,
              "|warning with error level|" + kx::kxThread::CurrentThreadId());
    EXPECT_TRUE(gSystemLog.empty() && out.text().empty());
    EXPECT_EQ(gFormatted, 0);
}
