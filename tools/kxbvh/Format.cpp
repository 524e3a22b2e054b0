#include "Format.h"

#include <cmath>
#include <cstdio>

namespace kxbvh
{
std::string groupDigits(uint64_t value)
{
    std::string digits = std::to_string(value);
    for (int at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3)
        digits.insert(static_cast<size_t>(at), ",");
    return digits;
}

std::string formatBytes(uint64_t bytes)
{
    static const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    double value = static_cast<double>(bytes);
    int unit = 0;
    while (value >= 1024.0 && unit < 4)
    {
        value /= 1024.0;
        ++unit;
    }
    char text[32];
    if (unit == 0)
        std::snprintf(text, sizeof text, "%llu B", static_cast<unsigned long long>(bytes));
    else
        std::snprintf(text, sizeof text, "%.1f %s", value, units[unit]);
    return text;
}

std::string formatSeconds(double seconds)
{
    char text[32];
    if (seconds < 1e-3)
        std::snprintf(text, sizeof text, "%.0f us", seconds * 1e6);
    else if (seconds < 1.0)
        std::snprintf(text, sizeof text, "%.1f ms", seconds * 1e3);
    else
        std::snprintf(text, sizeof text, "%.2f s", seconds);
    return text;
}

std::string formatRate(double perSecond)
{
    static const char* const prefixes[] = {"", " k", " M", " G"};
    int prefix = 0;
    while (perSecond >= 1000.0 && prefix < 3)
    {
        perSecond /= 1000.0;
        ++prefix;
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.*f%s", perSecond < 10.0 ? 2 : 1, perSecond, prefixes[prefix]);
    return text;
}

std::string formatFloat(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}
} // namespace kxbvh
