#include "kxStringUtils.h"

namespace kx
{
const std::locale kxStringUtils::msCplusLocale = std::locale::classic();
} // namespace kx
