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
    entry.time = 1700000000007ull;
    for (entry.level = 0; entry.level < 6; ++entry.level)
    {
        entry.category = entry.level % 2 ? "bvh" : "";
        entry.computeLogPrefix(entry.level < 2);
        log.Write(entry, entry.level == 0);
        expected += std::string(entry.level < 2 ? "2023-11-14 22:13:20.007 [" : "[") + names[entry.level] + "] " +
                    (entry.level % 2 ? "bvh: " : "") + "m\n";
    }
    EXPECT_EQ(out.str(), expected);
}
