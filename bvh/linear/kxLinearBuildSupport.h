#ifndef KXLINEARBUILDSUPPORT_H
#define KXLINEARBUILDSUPPORT_H

#include "kxBVHContainers.h"
#include "kxCancelInterface.h"
#include "kxLogObject.h"
#include "kxStringUtils.h"

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <string>
#include <typeinfo>

namespace kxLinearBVH
{
/// The work memory of one build: a single block handed out in stack order, so that a phase
/// reuses the pages that the phases before it have given back, and large enough blocks are
/// backed by huge pages. Arrays come uninitialised and 64-byte aligned. The block is
/// released with the arena, on every path.
class kxBuildArena
{
public:
    /// Rounds an array size up to the alignment; add these up to size an arena.
    static size_t footprint(size_t bytes) { return (bytes + kAlignment - 1u) & ~(kAlignment - 1u); }

    explicit kxBuildArena(size_t capacity);
    ~kxBuildArena();
    kxBuildArena(const kxBuildArena&) = delete;
    kxBuildArena& operator=(const kxBuildArena&) = delete;

    /// n elements of a trivial type; the arena must have been sized for them.
    template <typename T>
    T* allocate(size_t n)
    {
        const size_t bytes = footprint(n * sizeof(T));
        assert(mTop + bytes <= mCapacity && "work arena sized too small");
        T* array = reinterpret_cast<T*>(mBlock + mTop);
        mTop += bytes;
        return array;
    }

    /// Everything allocated after top() returned it is given back by release(it).
    size_t top() const { return mTop; }
    void release(size_t top) { mTop = top; }

private:
    static constexpr size_t kAlignment = 64;

    unsigned char* mBlock;
    size_t mCapacity;
    size_t mTop = 0;
};

template <typename T>
inline void prefetchForWrite(const T* address)
{
    __builtin_prefetch(address, 1);
}

template <typename T>
inline void prefetchForRead(const T* address)
{
    __builtin_prefetch(address, 0);
}

/// The box of primitive i, through the container's getBBox. A container known to be exactly
/// a kxBVHTriangleContainer has the call bound statically, so that the sweeps over all
/// boxes inline it; any other container, derived ones included, is called virtually.
inline const kxBBox& boxOf(const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface& container, uint32_t i)
{
    return container.getBBox(i);
}
inline const kxBBox& boxOf(const kxBVHTriangleContainer& container, uint32_t i)
{
    return container.kxBVHTriangleContainer::getBBox(i);
}

/// Calls work(container) with the container as its exact type when that is the triangle
/// container, as the interface otherwise.
template <typename Work>
inline auto withContainer(const kxLinearGenericBVHBuilder::tPrimitiveContainerInterface& container, Work&& work)
{
    if (typeid(container) == typeid(kxBVHTriangleContainer))
        return work(static_cast<const kxBVHTriangleContainer&>(container));
    return work(container);
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
