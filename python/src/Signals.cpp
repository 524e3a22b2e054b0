#include "Signals.h"

#include <Interrupt.h>

#include <pybind11/pybind11.h>

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>

namespace kxpy
{
namespace py = pybind11;

bool PythonSignals::shouldCancel() const
{
    if (!mRaised)
    {
        py::gil_scoped_acquire gil;
        if (PyErr_CheckSignals() != 0)
            mRaised = std::make_unique<py::error_already_set>();
    }
    return mRaised != nullptr;
}

void PythonSignals::raiseIfInterrupted() const
{
    if (mRaised)
        throw *mRaised;
}

void runWatchingSignals(const std::function<void()>& work)
{
    const PythonSignals signals;
    std::exception_ptr failure;
    {
        py::gil_scoped_release release;
        std::mutex mutex;
        std::condition_variable finished;
        bool done = false;
        std::thread worker([&]() {
            try
            {
                work();
            }
            catch (...)
            {
                failure = std::current_exception();
            }
            std::lock_guard<std::mutex> lock(mutex);
            done = true;
            finished.notify_one();
        });
        std::unique_lock<std::mutex> lock(mutex);
        while (!finished.wait_for(lock, std::chrono::milliseconds(50), [&]() { return done; }))
        {
            lock.unlock();
            if (signals.shouldCancel())
                __atomic_store_n(kxbvh::interruptFlag(), char(1), __ATOMIC_RELAXED);
            lock.lock();
        }
        lock.unlock();
        worker.join();
        __atomic_store_n(kxbvh::interruptFlag(), char(0), __ATOMIC_RELAXED);
    }
    // KeyboardInterrupt rather than the tool's Cancelled that it caused.
    signals.raiseIfInterrupted();
    if (failure)
        std::rethrow_exception(failure);
}
} // namespace kxpy
