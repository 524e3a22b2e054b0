#include "kxFuzz.h"

#include "kxLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cmath>
#include <cstdarg>
#include <cstring>
#include <limits>

namespace kxfuzz
{
namespace
{
const int gReportFd = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);

// Mode bytes of real(): below kSpecialModes a palette entry, then small integers, then
// scaled integers, then raw patterns.
constexpr int kSpecialModes = 16;
constexpr int kSmallIntModes = 112;
constexpr int kSmallIntZero = kSpecialModes + 56;
constexpr int kScaledModes = 64;
constexpr uint8_t kRawMode = 255;

template <typename Real>
Real special(int mode)
{
    using limits = std::numeric_limits<Real>;
    const Real palette[kSpecialModes] = {Real(0),
                                         -Real(0),
                                         Real(1),
                                         Real(-1),
                                         Real(0.5),
                                         Real(2),
                                         limits::quiet_NaN(),
                                         limits::infinity(),
                                         -limits::infinity(),
                                         limits::max(),
                                         limits::lowest(),
                                         limits::min(),
                                         limits::denorm_min(),
                                         -limits::denorm_min(),
                                         Real(1e-30),
                                         Real(1e30)};
    return palette[mode];
}

template <typename Real, typename Raw>
Real decode(Input& in, Raw (Input::*raw)())
{
    const int mode = in.byte();
    if (mode < kSpecialModes)
        return special<Real>(mode);
    if (mode < kSpecialModes + kSmallIntModes)
        return Real(mode - kSmallIntZero);
    if (mode < kSpecialModes + kSmallIntModes + kScaledModes)
    {
        const int mantissa = static_cast<int8_t>(in.byte());
        const int exponent = static_cast<int>(in.byte()) - 140;
        return std::ldexp(Real(mantissa), exponent);
    }
    if (mode != kRawMode)
        return Real(mode - (kSpecialModes + kSmallIntModes + kScaledModes)) / Real(8);
    const Raw bits = (in.*raw)();
    Real value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}
} // namespace

uint16_t Input::u16()
{
    const uint16_t low = byte();
    return static_cast<uint16_t>(low | (byte() << 8));
}

uint32_t Input::u32()
{
    const uint32_t low = u16();
    return low | (uint32_t(u16()) << 16);
}

uint64_t Input::u64()
{
    const uint64_t low = u32();
    return low | (uint64_t(u32()) << 32);
}

float Input::real()
{
    return decode<float>(*this, &Input::u32);
}

double Input::realDouble()
{
    return decode<double>(*this, &Input::u64);
}

void Output::u16(uint16_t value)
{
    byte(static_cast<uint8_t>(value));
    byte(static_cast<uint8_t>(value >> 8));
}

void Output::u32(uint32_t value)
{
    u16(static_cast<uint16_t>(value));
    u16(static_cast<uint16_t>(value >> 16));
}

void Output::real(float value)
{
    uint32_t bits;
    std::memcpy(&bits, &value, 4);
    byte(kRawMode);
    u32(bits);
}

void Output::realDouble(double value)
{
    uint64_t bits;
    std::memcpy(&bits, &value, 8);
    byte(kRawMode);
    u32(static_cast<uint32_t>(bits));
    u32(static_cast<uint32_t>(bits >> 32));
}

void Output::smallInt(int value)
{
    byte(static_cast<uint8_t>(kSmallIntZero + value));
}

void checkFailed(const char* file, int line, const char* condition, const char* format, ...)
{
    char message[2048];
    va_list values;
    va_start(values, format);
    std::vsnprintf(message, sizeof message, format, values);
    va_end(values);
    dprintf(gReportFd >= 0 ? gReportFd : STDERR_FILENO, "%s:%d: check failed: %s\n  %s\n", file, line, condition,
            message);
    std::abort();
}

void silenceLog()
{
    static kx::kxLog quiet;
    for (int level = 0; level < 6; ++level)
        quiet.setLevelEnabled(level, false);
    kx::kxLog::msInstance = &quiet;
}
} // namespace kxfuzz
