// Batches of independent queries over threads: the library's queries are const and may run
// side by side on one hierarchy; the library itself starts no threads.
#ifndef KXPY_PARALLEL_H
#define KXPY_PARALLEL_H

#include <cstddef>
#include <functional>

namespace kxpy
{
/// Calls body(begin, end) over [0, count) in blocks of `grain`, on up to `threads` threads
/// (the caller's included). Call it holding the GIL: it releases the GIL while the blocks
/// run. The caller's thread watches Python's signals between its blocks; Ctrl-C stops
/// handing out blocks and raises KeyboardInterrupt here once every thread has stopped.
void forEachBlock(size_t count, unsigned threads, size_t grain, const std::function<void(size_t, size_t)>& body);
} // namespace kxpy

#endif
