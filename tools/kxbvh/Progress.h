// Progress of long work on standard error: a spinner when the amount of work is unknown,
// a bar when it is known. Drawn only where someone watches (a terminal) unless asked.
#ifndef KXBVH_PROGRESS_H
#define KXBVH_PROGRESS_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace kxbvh
{
enum class ProgressMode
{
    eAuto,   // when standard error is a terminal
    eAlways,
    eNever
};

void setProgressMode(ProgressMode mode);

/// One line of progress, redrawn by a thread of its own a few times a second and erased
/// when the object goes away, so that whatever is printed next starts on a clean line.
class Progress
{
public:
    /// total 0 shows a spinner, otherwise a bar of advance() steps out of total.
    explicit Progress(std::string label, uint64_t total = 0);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Thread-safe.
    void advance(uint64_t steps = 1) { mDone.fetch_add(steps, std::memory_order_relaxed); }
    /// Reports activity without a known amount (moves the spinner). Thread-safe. Builders
    /// call it at every cancellation poll, millions of times a second: a plain load and
    /// store, not a locked add, as a tick lost to a race only slows the spinner.
    void tick() const { mTicks.store(mTicks.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed); }

private:
    void run();
    void draw();

    std::string mLabel;
    uint64_t mTotal;
    std::atomic<uint64_t> mDone{0};
    mutable std::atomic<uint64_t> mTicks{0};
    uint64_t mLastTicks = 0;  // drawing thread only
    uint64_t mFrame = 0;
    std::chrono::steady_clock::time_point mStart;
    bool mVisible;
    bool mStop = false;
    std::mutex mMutex;
    std::condition_variable mWake;
    std::thread mThread;
};
} // namespace kxbvh

#endif
