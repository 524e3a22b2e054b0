#include "Interrupt.h"

#include "Errors.h"

#include <csignal>
#include <string>

namespace kxbvh
{
namespace
{
char gInterruptFlag = 0;

extern "C" void onInterrupt(int)
{
    volatile char* flag = &gInterruptFlag;
    if (*flag)
    {
        std::signal(SIGINT, SIG_DFL);
        std::raise(SIGINT);
        return;
    }
    *flag = 1;
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
    return *static_cast<volatile char*>(&gInterruptFlag) != 0;
}

void throwIfInterrupted(const char* step)
{
    if (interrupted())
        throw Cancelled(std::string("cancelled while ") + step);
}
} // namespace kxbvh
