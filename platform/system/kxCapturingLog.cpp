#include "kxCapturingLog.h"

namespace kx
{
kxCapturingLog::~kxCapturingLog()
{
    if (mInstalled && msInstance == this)
        msInstance = mPrevious;
}

void kxCapturingLog::install()
{
    if (!mInstalled)
        mPrevious = msInstance;
    msInstance = this;
    mInstalled = true;
}

void kxCapturingLog::Write(LogEntry& entry, bool)
{
    std::lock_guard<std::mutex> lock(mEntriesMutex);
    mEntries.push_back(entry);
}

std::vector<kxLog::LogEntry> kxCapturingLog::entries() const
{
    std::lock_guard<std::mutex> lock(mEntriesMutex);
    return mEntries;
}

std::vector<std::string> kxCapturingLog::messages() const
{
    std::lock_guard<std::mutex> lock(mEntriesMutex);
    std::vector<std::string> result;
    result.reserve(mEntries.size());
    for (const LogEntry& entry : mEntries)
        result.push_back(entry.message);
    return result;
}

void kxCapturingLog::clear()
{
    std::lock_guard<std::mutex> lock(mEntriesMutex);
    mEntries.clear();
}
} // namespace kx
