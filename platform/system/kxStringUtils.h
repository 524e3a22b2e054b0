#ifndef KXSTRINGUTILS_H
#define KXSTRINGUTILS_H

#include <locale>
#include <string>

namespace kx
{
class kxStringUtils
{
public:
    /// The classic "C" locale: no digit grouping, '.' as decimal point.
    static const std::locale msCplusLocale;

    /// Formats value with a magnitude prefix ("1.5k" for 1536 in binary mode). The
    /// caller appends its unit. Defined and instantiated (unsigned long only) by the
    /// kxCommonAddOns library.
    template <typename T>
    static std::string humanizeNumberGeneric(T value, int significantDigits, int maxDecimals, bool binaryPrefixes,
                                             bool largePrefixes, bool smallPrefixes);
};
} // namespace kx

#endif
