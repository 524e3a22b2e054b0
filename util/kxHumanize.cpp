#include "kxStringUtils.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iomanip>
#include <sstream>

namespace kx
{
namespace
{
struct Prefix
{
    double binary;
    double decimal;
    const char* text;
};

// Largest first: the first threshold the value reaches picks the prefix.
const Prefix kLargePrefixes[] = {
    {0x1p80, 1e24, "Y"}, {0x1p70, 1e21, "Z"}, {0x1p60, 1e18, "E"}, {0x1p50, 1e15, "P"},
    {0x1p40, 1e12, "T"}, {0x1p30, 1e9, "G"},  {0x1p20, 1e6, "M"},  {0x1p10, 1e3, "k"},
};

const Prefix kSmallPrefixes[] = {
    {0x1p-10, 1e-3, "m"},  {0x1p-20, 1e-6, "\xC2\xB5"}, {0x1p-30, 1e-9, "n"},  {0x1p-40, 1e-12, "p"},
    {0x1p-50, 1e-15, "f"}, {0x1p-60, 1e-18, "a"},       {0x1p-70, 1e-21, "z"}, {0x1p-80, 1e-24, "y"},
};
} // namespace

template <typename T>
std::string kxStringUtils::humanizeNumberGeneric(T value, int significantDigits, int maxDecimals, bool binaryPrefixes,
                                                 bool largePrefixes, bool smallPrefixes)
{
    double x = static_cast<double>(value);
    const char* prefix = "";
    bool matchedLarge = false;

    for (const Prefix& p : kLargePrefixes)
    {
        const double threshold = binaryPrefixes ? p.binary : p.decimal;
        if (x >= threshold)
        {
            matchedLarge = true;
            if (largePrefixes)
            {
                x /= threshold;
                prefix = p.text;
            }
            break;
        }
    }

    int digits = 0;
    if (!matchedLarge && x < 1.0 && smallPrefixes)
    {
        bool matchedSmall = false;
        for (const Prefix& p : kSmallPrefixes)
        {
            const double threshold = binaryPrefixes ? p.binary : p.decimal;
            if (x >= threshold)
            {
                x /= threshold;
                prefix = p.text;
                matchedSmall = true;
                break;
            }
        }
        if (!matchedSmall)
        {
            x = 0.0;
            digits = 1;
        }
    }
    if (digits == 0)
        digits = x <= 1.0 ? 1 : static_cast<int>(std::floor(std::log10(x))) + 1;

    const int decimals = std::min(maxDecimals, significantDigits - digits);
    std::ostringstream out;
    out.imbue(msCplusLocale);
    std::string text;
    if (decimals <= 0)
    {
        // ceil(x - 0.5): halves round down, 2.5 gives 2.
        const double rounded = std::fabs(std::ceil(x - 0.5));
        // Only unscaled values of 2^63 and more leave the 64-bit range.
        if (rounded < 0x1p63)
            out << static_cast<int64_t>(rounded);
        else
            out << std::fixed << std::setprecision(0) << rounded;
        text = out.str();
    }
    else
    {
        const double scale = std::pow(10.0, decimals);
        x = std::fabs(std::ceil(x * scale - 0.5)) / scale;
        out << std::fixed << std::setprecision(decimals) << x;
        text = out.str();
        while (!text.empty() && text.back() == '0')
            text.pop_back();
        if (!text.empty() && (text.back() == '.' || text.back() == ','))
            text.pop_back();
    }
    return text + prefix;
}

template std::string kxStringUtils::humanizeNumberGeneric<unsigned long>(unsigned long, int, int, bool, bool, bool);
} // namespace kx
