// Numbers as people read them in a terminal.
#ifndef KXBVH_FORMAT_H
#define KXBVH_FORMAT_H

#include <cstdint>
#include <string>

namespace kxbvh
{
/// 1234567 -> "1,234,567".
std::string groupDigits(uint64_t value);
/// Bytes with a binary prefix: "812 B", "24.1 MiB".
std::string formatBytes(uint64_t bytes);
/// "850 us", "12.3 ms", "1.24 s".
std::string formatSeconds(double seconds);
/// A per-second figure with a decimal prefix: "4.41 M".
std::string formatRate(double perSecond);
/// Six significant digits, as the library prints coordinates.
std::string formatFloat(double value);
} // namespace kxbvh

#endif
