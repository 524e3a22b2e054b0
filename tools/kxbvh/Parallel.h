// Spreads independent queries over threads; the library's queries are const and may run
// side by side on one built hierarchy.
#ifndef KXBVH_PARALLEL_H
#define KXBVH_PARALLEL_H

#include <cstddef>
#include <functional>

namespace kxbvh
{
/// requested, or every core when it is 0.
unsigned resolveThreads(unsigned requested);

/// Calls body(i) for every i in [0, count) on `threads` threads (the caller's included),
/// handing out indices in increasing order. Stops handing out work after Ctrl-C. An
/// exception thrown by body is rethrown here once every thread has stopped.
void parallelFor(unsigned threads, size_t count, const std::function<void(size_t)>& body);
} // namespace kxbvh

#endif
