#ifndef KXLINEARBUILDSUPPORT_H
#define KXLINEARBUILDSUPPORT_H

#include "kxCancelInterface.h"
#include "kxLogObject.h"
#include "kxStringUtils.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace kxLinearBVH
{
/// A work array whose elements are written before they are read: no zero fill.
template <typename T>
std::unique_ptr<T[]> uninitialisedArray(size_t n)
{
    return std::unique_ptr<T[]>(new T[n]);
}

inline bool cancelled(const kx::kxCancelInterfaceReadOnly* cancel)
{
    return cancel && cancel->shouldCancel();
}

/// One level-1 line of the "bvh" category; it is emitted when the temporary dies at the end
/// of the full expression that fills it.
class kxBuildLogLine : public kx::kxLogObject
{
public:
    kxBuildLogLine() : kx::kxLogObject(1) { setCategory("bvh"); }
};

inline std::string humanizedBytes(uint64_t bytes)
{
    return kx::kxStringUtils::humanizeNumberGeneric<unsigned long>(bytes, 3, 1, true, true, false);
}
} // namespace kxLinearBVH

#endif
