#include "kxCapturingLog.h"
#include "kxLogObject.h"
#include "kxStandardOutputCapture.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace
{
std::vector<std::pair<kx::kxLog::LogEntry, bool>> gSystemLog;
int gFormatted = 0;
const auto now = &kx::kxSystemUtils::GetMSecElapsedSinceEpoch;

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

// Counts its formatting.
struct Expensive {};
std::ostream& operator<<(std::ostream& os, Expensive)
{
    ++gFormatted;
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
} // namespace

TEST(LogObject, LineReachesTheInstanceAndTheSystemLogWithEveryFieldFilled)
{
    SystemLogCapture systemLog;
    kxStandardOutputCapture out;
    kx::kxCapturingLog log;
    log.install();
    const uint64_t before = now();
    {
        kx::kxLogObject line(1);
        line.setCategory("bvh");
        line.setSystemLogText("kxapp");
        line << "built " << 42 << " nodes in " << 1.5 << ' ' << std::hex << 255u;
    }
    const uint64_t after = now();

    ASSERT_EQ(log.entries().size(), 1u);
    const kx::kxLog::LogEntry entry = log.entries()[0];
    EXPECT_EQ(entry.message, "built 42 nodes in 1.5 ff");
    EXPECT_EQ(entry.category, "bvh");
    EXPECT_EQ(entry.systemLog, "kxapp");
    EXPECT_EQ(entry.level, 1);
    EXPECT_TRUE(entry.time >= before && entry.time <= after);
    EXPECT_EQ(entry.prefix, prefixFor(entry.time, 1, "bvh"));
    EXPECT_EQ(entry.threadId, kx::kxThread::CurrentThreadId());
    ASSERT_EQ(gSystemLog.size(), 1u);
    EXPECT_EQ(gSystemLog[0].first.message, entry.message);
    EXPECT_FALSE(gSystemLog[0].second) << "an instance exists: the system log prints no copy";
    EXPECT_EQ(out.text(), "");
}

TEST(LogObject, WithoutAnInstanceLinesGoToStandardOutputOrOnlyToTheSystemLog)
{
    SystemLogCapture systemLog;
    kxStandardOutputCapture out;
    const uint64_t before = now();
    {
        kx::kxLogObject line(3);
        line.setCategory("bvh");
        line << "x=" << 5;
    }
    const uint64_t after = now();
    const std::string printed = out.text();
    bool matched = false;
    for (uint64_t t = before; t <= after; ++t)
        matched |= printed == prefixFor(t, 3, "bvh") + "x=5\n";
    EXPECT_TRUE(matched) << printed;

    {
        kx::kxLogObject line(5);
        line.setSystemLogText("kxapp");
        line << "system only";
    }
    ASSERT_EQ(gSystemLog.size(), 1u);
    EXPECT_EQ(gSystemLog[0].first.message, "system only");
    EXPECT_EQ(gSystemLog[0].first.level, 5);
    EXPECT_TRUE(gSystemLog[0].second) << "the system log prints the line itself";
    EXPECT_EQ(out.text(), printed);
}

TEST(LogObject, ThreadIdAndTheCallSiteGuardFollowTheErrorLevelFlag)
{
    EXPECT_TRUE(kx::kxLogObject::errorLevelEnabled()) << "without an instance lines go to standard output";
    kx::kxCapturingLog log;
    log.install();
    log.setLevelEnabled(2, false);
    EXPECT_FALSE(kx::kxLogObject::errorLevelEnabled());
    kx::kxLogObject(1) << "info without error level";
    log.setLevelEnabled(2, true);
    log.setLevelEnabled(1, false);
    EXPECT_TRUE(kx::kxLogObject::errorLevelEnabled());
    kx::kxLogObject(1) << "info while disabled";
    kx::kxLogObject(3) << "warning with error level";

    const std::vector<kx::kxLog::LogEntry> entries = log.entries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].threadId, "");
    EXPECT_EQ(entries[1].message, "warning with error level");
    EXPECT_EQ(entries[1].threadId, kx::kxThread::CurrentThreadId());
}

TEST(LogObject, DisabledLevelsFormatNothingAndEmptyMessagesEmitNothing)
{
    SystemLogCapture systemLog;
    kxStandardOutputCapture out;
    for (bool withInstance : {true, false})
    {
        kx::kxCapturingLog log;
        if (withInstance)
            log.install();
        log.setLevelEnabled(4, false);
        {
            kx::kxLogObject line(withInstance ? 4 : 6);
            line.setSystemLogText("kxapp");
            line << Expensive() << 12;
        }
        {
            kx::kxLogObject empty(1);
            empty.setCategory("bvh");
            empty.setSystemLogText("kxapp");
            empty << "" << std::string();
        }
        kx::kxLogObject(1).setSystemLogText("kxapp");
        EXPECT_TRUE(log.entries().empty());
    }
    EXPECT_TRUE(gSystemLog.empty());
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(gFormatted, 0);
}
