#include "Progress.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace kxbvh
{
namespace
{
ProgressMode gMode = ProgressMode::eAuto;

bool progressVisible()
{
    switch (gMode)
    {
    case ProgressMode::eAlways: return true;
    case ProgressMode::eNever: return false;
    default: return isatty(STDERR_FILENO) == 1;
    }
}

const char* const kSpinner[] = {"\u280b", "\u2819", "\u2839", "\u2838", "\u283c",
                                "\u2834", "\u2826", "\u2827", "\u2807", "\u280f"};
constexpr int kSpinnerFrames = sizeof(kSpinner) / sizeof(kSpinner[0]);
constexpr int kBarWidth = 28;

/// A stream of its own on standard error, which stays on the terminal while assimp's
/// output is sent away during a read.
std::FILE* terminal()
{
    static std::FILE* const stream = [] {
        const int fd = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
        std::FILE* file = fd >= 0 ? fdopen(fd, "w") : nullptr;
        return file ? file : stderr;
    }();
    return stream;
}
} // namespace

void setProgressMode(ProgressMode mode)
{
    gMode = mode;
}

Progress::Progress(std::string label, uint64_t total)
    : mLabel(std::move(label)), mTotal(total), mStart(std::chrono::steady_clock::now()),
      mVisible(progressVisible())
{
    if (!mVisible)
        return;
    draw();
    mThread = std::thread([this] { run(); });
}

Progress::~Progress()
{
    if (!mVisible)
        return;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mStop = true;
    }
    mWake.notify_all();
    mThread.join();
    std::fputs("\r\033[K", terminal());
    std::fflush(terminal());
}

void Progress::run()
{
    std::unique_lock<std::mutex> lock(mMutex);
    while (!mWake.wait_for(lock, std::chrono::milliseconds(100), [this] { return mStop; }))
        draw();
}

void Progress::draw()
{
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - mStart).count();
    if (mTotal == 0)
    {
        // Work that reports activity turns the spinner only while it does, so a stall shows;
        // work that never reports turns it with time.
        const uint64_t ticks = mTicks.load(std::memory_order_relaxed);
        if (ticks == 0 || ticks != mLastTicks)
            ++mFrame;
        mLastTicks = ticks;
        std::fprintf(terminal(), "\r\033[K%s %s  %.1f s", kSpinner[mFrame % kSpinnerFrames], mLabel.c_str(), seconds);
    }
    else
    {
        const uint64_t done = std::min(mDone.load(std::memory_order_relaxed), mTotal);
        const int filled = static_cast<int>(done * kBarWidth / mTotal);
        std::string bar;
        for (int i = 0; i < kBarWidth; ++i)
            bar += i < filled ? "\u2588" : "\u2591";
        std::fprintf(terminal(), "\r\033[K%s %3d%%  %s  %.1f s", bar.c_str(), static_cast<int>(done * 100 / mTotal),
                     mLabel.c_str(), seconds);
    }
    std::fflush(terminal());
}
} // namespace kxbvh
