#ifndef KXTHREAD_H
#define KXTHREAD_H

#include <string>

namespace kx
{
class kxThread
{
public:
    /// The calling thread's kernel id, in decimal.
    static std::string CurrentThreadId();
};
} // namespace kx

#endif
