#include "Parallel.h"

#include "Signals.h"

#include <pybind11/pybind11.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace kxpy
{
namespace py = pybind11;

namespace
{
// Often enough for Ctrl-C to feel immediate, rarely enough to cost nothing.
constexpr std::chrono::milliseconds kSignalInterval(50);
} // namespace

void forEachBlock(size_t count, unsigned threads, size_t grain, const std::function<void(size_t, size_t)>& body)
{
    if (count == 0)
        return;
    const size_t blocks = (count + grain - 1) / grain;
    const size_t workers = std::max<size_t>(1, std::min<size_t>(threads, blocks));
    std::atomic<size_t> next{0};
    std::exception_ptr failure;
    std::mutex failureMutex;
    auto work = [&](const PythonSignals* signals) {
        auto lastCheck = std::chrono::steady_clock::now();
        try
        {
            for (size_t block = next++; block < blocks; block = next++)
            {
                const size_t begin = block * grain;
                body(begin, std::min(count, begin + grain));
                if (signals && std::chrono::steady_clock::now() - lastCheck >= kSignalInterval)
                {
                    lastCheck = std::chrono::steady_clock::now();
                    if (signals->shouldCancel())
                        next = blocks;
                }
            }
        }
        catch (...)
        {
            std::lock_guard<std::mutex> lock(failureMutex);
            if (!failure)
                failure = std::current_exception();
            next = blocks;
        }
    };

    const PythonSignals signals;
    {
        py::gil_scoped_release release;
        std::vector<std::thread> helpers;
        helpers.reserve(workers - 1);
        try
        {
            for (size_t t = 1; t < workers; ++t)
                helpers.emplace_back(work, nullptr);
        }
        catch (...)
        {
            next = blocks;
            for (std::thread& helper : helpers)
                helper.join();
            throw;
        }
        work(&signals);
        for (std::thread& helper : helpers)
            helper.join();
    }
    signals.raiseIfInterrupted();
    if (failure)
        std::rethrow_exception(failure);
}
} // namespace kxpy
