#ifndef KXCAPTURINGLOG_H
#define KXCAPTURINGLOG_H

#include "kxLog.h"

#include <mutex>
#include <vector>

namespace kx
{
/// A log that keeps every entry it receives, for tests and tools that want to look at
/// what was logged. install() makes it the process-wide instance until it is destroyed.
class kxCapturingLog : public kxLog
{
public:
    kxCapturingLog() = default;
    ~kxCapturingLog() override;

    void Write(LogEntry& entry, bool flush) override;

    /// Makes this log kxLog::msInstance; the destructor restores the previous instance.
    void install();

    std::vector<LogEntry> entries() const;
    /// The messages only, in arrival order.
    std::vector<std::string> messages() const;
    void clear();

private:
    mutable std::mutex mEntriesMutex;
    std::vector<LogEntry> mEntries;
    kxLog* mPrevious = nullptr;
    bool mInstalled = false;
};
} // namespace kx

#endif
