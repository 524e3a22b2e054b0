#include "kxLogObject.h"

#include <iostream>
#include <utility>

namespace kx
{
kxLogObject::~kxLogObject()
{
    if (mStream)
    {
        kxLog::LogEntry entry;
        entry.message = mStream->str();
        entry.time = mTime;
        entry.level = 6;
        if (!entry.message.empty())
        {
            if (mCategory)
                entry.category = std::move(*mCategory);
            if (mSystemLogText)
                entry.systemLog = std::move(*mSystemLogText);
            entry.threadId = mThreadId;
            entry.level = mLevel;
            entry.computeLogPrefix(true);

            if (mSystemLogText)
                kxLog::WriteToSystemLog(entry, mLog == nullptr);
            if (mLog)
                mLog->Write(entry, mWriteFlag);
            if (!mSystemLogText && !mLog)
                std::cout << entry.prefix << entry.message << '\n' << std::flush;
        }
    }
    delete mStream;
    delete mCategory;
    delete mSystemLogText;
    mStream = nullptr;
    mCategory = nullptr;
    mSystemLogText = nullptr;
}
} // namespace kx
