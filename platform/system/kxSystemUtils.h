#ifndef KXSYSTEMUTILS_H
#define KXSYSTEMUTILS_H

#include <cstdint>

namespace kx
{
class kxSystemUtils
{
public:
    /// Wall-clock milliseconds since 1970-01-01 00:00:00 UTC.
    static uint64_t GetMSecElapsedSinceEpoch();
};
} // namespace kx

#endif
