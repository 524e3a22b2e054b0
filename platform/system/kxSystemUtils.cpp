#include "kxSystemUtils.h"

#include <chrono>

namespace kx
{
uint64_t kxSystemUtils::GetMSecElapsedSinceEpoch()
{
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count());
}
} // namespace kx
