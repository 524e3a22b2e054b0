#include "Interrupt.h"

#include "Errors.h"

#include <csignal>
#include <string>

namespace kxbvh
{
namespace
{
char gInterruptFlag = 0;

// The signal may land on any thread while others poll the flag, so it is read and written
// as the library's proxies do: as a relaxed atomic byte, which is also signal-safe.
extern "C" void onInterrupt(int)
{
    if (__atomic_load_n(&gInterruptFlag, __ATOMIC_RELAXED))
    {
        std::signal(SIGINT, SIG_DFL);
        std::raise(SIGINT);
        return;
    }
    __atomic_store_n(&gInterruptFlag, char(1), __ATOMIC_RELAXED);
}
} // namespace

void installInterruptHandler()
{
    struct sigaction action = {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    // Restart interrupted system calls: the flag is polled, reads and writes need not fail.
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
}

char* interruptFlag()
{
    return &gInterruptFlag;
}

bool interrupted()
{
    return __atomic_load_n(&gInterruptFlag, __ATOMIC_RELAXED) != 0;
}

void throwIfInterrupted(const char* step)
{
    if (interrupted())
        throw Cancelled(std::string("cancelled while ") + step);
}
} // namespace kxbvh
