#include "kxThread.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace kx
{
std::string kxThread::CurrentThreadId()
{
    return std::to_string(static_cast<long>(syscall(SYS_gettid)));
}
} // namespace kx
