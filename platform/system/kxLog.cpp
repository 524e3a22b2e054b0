#include "kxLog.h"

#include <syslog.h>

#include <atomic>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <sstream>

namespace kx
{
kxLog* kxLog::msInstance = nullptr;

namespace
{
std::atomic<void (*)(const kxLog::LogEntry&, bool)> gSystemLogSink{nullptr};

int syslogPriority(int level)
{
    switch (level)
    {
    case 0: return LOG_DEBUG;
    case 1: return LOG_INFO;
    case 2: return LOG_ERR;
    case 3: return LOG_WARNING;
    case 4: return LOG_CRIT;
    default: return LOG_ALERT;
    }
}
} // namespace

const char* kxLog::levelName(int level)
{
    static const char* const names[eLevelCount] = {"debug", "info", "error", "warning", "critical", "fatal"};
    return level >= 0 && level < eLevelCount ? names[level] : "disabled";
}

void kxLog::LogEntry::computeLogPrefix(bool withTime)
{
    std::ostringstream out;
    out.imbue(std::locale::classic());
    if (withTime)
    {
        const std::time_t seconds = static_cast<std::time_t>(time / 1000);
        std::tm utc{};
        gmtime_r(&seconds, &utc);
        out << std::put_time(&utc, "%Y-%m-%d %H:%M:%S") << '.' << std::setw(3) << std::setfill('0')
            << time % 1000 << ' ';
    }
    out << '[' << levelName(level) << "] ";
    if (!category.empty())
        out << category << ": ";
    prefix = out.str();
}

kxLog::kxLog() : mStream(nullptr)
{
    for (bool& enabled : mEnabled)
        enabled = true;
}

kxLog::~kxLog() = default;

bool kxLog::isLevelEnabled(int level) const
{
    return level >= 0 && level < eLevelCount && mEnabled[level];
}

void kxLog::setLevelEnabled(int level, bool enabled)
{
    if (level >= 0 && level < eLevelCount)
        mEnabled[level] = enabled;
}

void kxLog::setStream(std::ostream* stream)
{
    std::lock_guard<std::mutex> lock(mWriteMutex);
    mStream = stream;
}

void kxLog::Write(LogEntry& entry, bool flush)
{
    std::lock_guard<std::mutex> lock(mWriteMutex);
    std::ostream& out = mStream ? *mStream : std::clog;
    out << entry.prefix << entry.message << '\n';
    if (flush)
        out.flush();
}

void kxLog::setSystemLogSink(void (*sink)(const LogEntry&, bool))
{
    gSystemLogSink.store(sink);
}

void kxLog::WriteToSystemLog(const LogEntry& entry, bool alsoToStandardOutput)
{
    if (auto sink = gSystemLogSink.load())
    {
        sink(entry, alsoToStandardOutput);
        return;
    }
    // The system log text tags the line, the way a program name tags syslog lines.
    syslog(syslogPriority(entry.level), "%s: %s%s", entry.systemLog.c_str(), entry.prefix.c_str(),
           entry.message.c_str());
    if (alsoToStandardOutput)
        std::cout << entry.prefix << entry.message << std::endl;
}
} // namespace kx
