#ifndef KXLOG_H
#define KXLOG_H

#include <cstdint>
#include <iosfwd>
#include <mutex>
#include <string>

namespace kx
{
/// The toolkit's log. One instance may be installed process-wide in msInstance; the
/// library's log objects send their entries to it, to the system log, or, when no
/// instance exists, to standard output.
class kxLog
{
public:
    static constexpr int eLevelCount = 6; // levels 0..5; 6 means disabled

    struct LogEntry
    {
        std::string message;
        std::string category;
        std::string systemLog;
        std::string prefix;
        std::string threadId;
        uint64_t time = 0;
        int level = 0;

        /// prefix = ["YYYY-MM-DD hh:mm:ss.mmm " (UTC, withTime only)] "[<level name>] "
        /// ["<category>: " when the category is not empty].
        void computeLogPrefix(bool withTime);
    };

    /// A new log enables every level 0..5 and writes to std::clog.
    kxLog();
    virtual ~kxLog();
    kxLog(const kxLog&) = delete;
    kxLog& operator=(const kxLog&) = delete;

    static kxLog* msInstance;

    /// False for every level outside 0..5.
    bool isLevelEnabled(int level) const;
    /// Ignored for levels outside 0..5.
    void setLevelEnabled(int level, bool enabled);

    /// Writes prefix + message + newline to the chosen stream; thread-safe.
    virtual void Write(LogEntry& entry, bool flush);
    /// Null restores std::clog.
    void setStream(std::ostream* stream);

    /// Sends "<systemLog>: <prefix><message>" to syslog(3), or the entry to the sink
    /// installed by setSystemLogSink; with alsoToStandardOutput the line is also printed.
    static void WriteToSystemLog(const LogEntry& entry, bool alsoToStandardOutput);
    /// Installs a replacement for syslog(3) (tests use one); null restores syslog.
    static void setSystemLogSink(void (*sink)(const LogEntry&, bool));

    /// "debug", "info", "error", "warning", "critical", "fatal"; "disabled" otherwise.
    static const char* levelName(int level);

private:
    bool mEnabled[eLevelCount];
    std::ostream* mStream;
    std::mutex mWriteMutex;
};
} // namespace kx

#endif
