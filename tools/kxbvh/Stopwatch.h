// Wall-clock time of consecutive phases.
#ifndef KXBVH_STOPWATCH_H
#define KXBVH_STOPWATCH_H

#include <chrono>

namespace kxbvh
{
class Stopwatch
{
public:
    /// Seconds since the previous lap, or since construction for the first.
    double lap()
    {
        const auto now = std::chrono::steady_clock::now();
        const double seconds = std::chrono::duration<double>(now - mLast).count();
        mLast = now;
        return seconds;
    }

private:
    std::chrono::steady_clock::time_point mLast = std::chrono::steady_clock::now();
};
} // namespace kxbvh

#endif
