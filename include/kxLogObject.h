#ifndef KXLOGOBJECT_H
#define KXLOGOBJECT_H

#include "kxLog.h"
#include "kxSystemUtils.h"
#include "kxThread.h"

#include <cstdint>
#include <ostream>
#include <sstream>
#include <string>

namespace kx
{
/// Builds one log line with stream insertion and emits it when it goes out of scope: to
/// the process-wide kxLog (when its flag for the level is set), to the system log (when a
/// system log text was given), or to standard output when no kxLog exists. A level that
/// is disabled, or 6, costs a clock read and the flag tests (plus the thread id while the
/// error level is enabled): nothing is formatted. Nothing is emitted for an empty
/// message. Belongs to one thread.
class kxLogObject
{
public:
    explicit kxLogObject(int level) : mLevel(level), mTime(kxSystemUtils::GetMSecElapsedSinceEpoch())
    {
        kxLog* instance = kxLog::msInstance;
        // The thread id is guarded by the error level's flag whatever this line's level.
        if (instance && instance->isLevelEnabled(2))
            mThreadId = kxThread::CurrentThreadId();
        if (instance)
        {
            if (instance->isLevelEnabled(level))
                mLog = instance;
            else
                mLevel = 6;
        }
    }
    ~kxLogObject();
    kxLogObject(const kxLogObject&) = delete;
    kxLogObject& operator=(const kxLogObject&) = delete;

    void setCategory(const std::string& category)
    {
        delete mCategory;
        mCategory = new std::string(category);
    }
    /// The entry also goes to the system log, tagged with this text.
    void setSystemLogText(const std::string& text)
    {
        delete mSystemLogText;
        mSystemLogText = new std::string(text);
    }

    template <typename T>
    kxLogObject& operator<<(const T& value)
    {
        if (mLevel != 6)
            stream() << value;
        return *this;
    }
    kxLogObject& operator<<(std::ostream& (*manipulator)(std::ostream&))
    {
        if (mLevel != 6)
            stream() << manipulator;
        return *this;
    }

    /// True when an error-level line would be emitted; lines at level 2 are only built when
    /// this holds.
    static bool errorLevelEnabled()
    {
        const kxLog* instance = kxLog::msInstance;
        return !instance || instance->isLevelEnabled(2);
    }

private:
    std::stringstream& stream()
    {
        if (!mStream)
            mStream = new std::stringstream;
        return *mStream;
    }

    std::string mThreadId;
    std::string* mCategory = nullptr;
    std::string* mSystemLogText = nullptr;
    kxLog* mLog = nullptr;
    std::stringstream* mStream = nullptr;
    int mLevel;
    uint64_t mTime;
    bool mWriteFlag = false;
};
} // namespace kx

#endif
