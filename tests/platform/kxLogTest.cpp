#include "kxLog.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

TEST(Log, LinesArePrefixedByAnOptionalUtcTimeTheLevelAndTheCategory)
{
    kx::kxLog log;
    std::ostringstream out;
    log.setStream(&out);
    const char* names[6] = {"debug", "info", "error", "warning", "critical", "fatal"};
    std::string expected;
    kx::kxLog::LogEntry entry;
    entry.message = "m";
    for (entry.level = 0; entry.level < 6; ++entry.level)
    {
        entry.category = entry.level % 2 ? "bvh" : "";
        entry.computeLogPrefix(false);
        log.Write(entry, entry.level == 0);
        expected += std::string("[") + names[entry.level] + "] " + (entry.level % 2 ? "bvh: " : "") + "m\n";
    }
    EXPECT_EQ(out.str(), expected);

    entry.level = 1;
    entry.time = 1700000000123ull;
    entry.computeLogPrefix(true);
    EXPECT_EQ(entry.prefix, "2023-11-14 22:13:20.123 [info] bvh: ");
    entry.time = 7;
    entry.computeLogPrefix(true);
    EXPECT_EQ(entry.prefix, "1970-01-01 00:00:00.007 [info] bvh: ");
}
