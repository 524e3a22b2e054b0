// Walks of many queries taken in turn, one visit each, so that the cache misses of one
// walk overlap the arithmetic of the others. A single walk waits on every node it loads:
// the next node is known only once the current one is tested.
#ifndef KXQBVHINTERLEAVE_H
#define KXQBVHINTERLEAVE_H

#include <cstdint>

namespace kxQBVHRay
{
/// Walks in flight at once: eight hide the latency of memory on hierarchies beyond the
/// caches (two or four hide less of it).
constexpr int kWalksInFlight = 8;

/// Runs queries 0 .. count - 1 through `walker`, which provides the type Walk and
///   void start(Walk&, unsigned int query);  // set up the walk of one query
///   bool step(Walk&) const;                 // one visit; false when the walk is over
///   void finish(Walk&) const;               // write its answer
/// A walk's visits run in the same order as in a walk on its own, so answers do not
/// depend on the interleaving.
template <class Walker>
void interleave(unsigned int count, Walker& walker)
{
    typename Walker::Walk walks[kWalksInFlight];
    bool live[kWalksInFlight];
    unsigned int next = 0;
    int running = 0;
    for (int k = 0; k < kWalksInFlight; ++k)
    {
        live[k] = next < count;
        if (live[k])
        {
            walker.start(walks[k], next++);
            ++running;
        }
    }
    while (running > 0)
    {
        for (int k = 0; k < kWalksInFlight; ++k)
        {
            if (!live[k] || walker.step(walks[k]))
                continue;
            walker.finish(walks[k]);
            if (next < count)
                walker.start(walks[k], next++);
            else
            {
                live[k] = false;
                --running;
            }
        }
    }
}
} // namespace kxQBVHRay

#endif
