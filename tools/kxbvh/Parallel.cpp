#include "Parallel.h"

#include "Interrupt.h"

#include <atomic>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace kxbvh
{
unsigned resolveThreads(unsigned requested)
{
    if (requested != 0)
        return requested;
    const unsigned cores = std::thread::hardware_concurrency();
    return cores ? cores : 1;
}

void parallelFor(unsigned threads, size_t count, const std::function<void(size_t)>& body)
{
    std::atomic<size_t> next{0};
    std::exception_ptr failure;
    std::mutex failureMutex;
    auto worker = [&]() {
        try
        {
            for (size_t i = next++; i < count && !interrupted(); i = next++)
                body(i);
        }
        catch (...)
        {
            std::lock_guard<std::mutex> lock(failureMutex);
            if (!failure)
                failure = std::current_exception();
            next = count;
        }
    };
    std::vector<std::thread> helpers;
    for (unsigned t = 1; t < threads; ++t)
        helpers.emplace_back(worker);
    worker();
    for (std::thread& helper : helpers)
        helper.join();
    if (failure)
        std::rethrow_exception(failure);
}
} // namespace kxbvh
