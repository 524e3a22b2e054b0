#ifndef KXLINEARBUILDSUPPORT_H
#define KXLINEARBUILDSUPPORT_H

#include "kxCancelInterface.h"
#include "kxLogObject.h"
#include "kxStringUtils.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace kxLinearBVH
{
/// Asks the kernel to back the 2 MiB-aligned part of [data, data + bytes) with huge pages.
/// A build touches every page of its big arrays exactly once; with small pages, faulting
/// them in costs about as much as the work done in them.
void adviseHugePages(const void* data, size_t bytes);

void* allocateWorkMemory(size_t bytes);
void releaseWorkMemory(void* memory, size_t bytes) noexcept;

/// A work array of trivial elements that are written before they are read: no zero fill,
/// huge pages when large. Allocation failures throw std::bad_alloc.
template <typename T>
class kxWorkArray
{
public:
    kxWorkArray() = default;
    explicit kxWorkArray(size_t n)
        : mData(static_cast<T*>(allocateWorkMemory(n * sizeof(T)))), mBytes(n * sizeof(T))
    {
    }
    ~kxWorkArray() { reset(); }
    kxWorkArray(kxWorkArray&& other) noexcept { swap(other); }
    kxWorkArray& operator=(kxWorkArray&& other) noexcept
    {
        kxWorkArray(std::move(other)).swap(*this);
        return *this;
    }
    kxWorkArray(const kxWorkArray&) = delete;
    kxWorkArray& operator=(const kxWorkArray&) = delete;

    T* get() const { return mData; }
    T& operator[](size_t i) const { return mData[i]; }
    void reset()
    {
        releaseWorkMemory(mData, mBytes);
        mData = nullptr;
        mBytes = 0;
    }
    void swap(kxWorkArray& other) noexcept
    {
        std::swap(mData, other.mData);
        std::swap(mBytes, other.mBytes);
    }

private:
    T* mData = nullptr;
    size_t mBytes = 0;
};

/// Gives v n elements like resize, with its new storage advised for huge pages.
template <typename T>
void resizeWithHugePages(std::vector<T>& v, size_t n)
{
    if (v.capacity() < n)
    {
        v.reserve(n);
        adviseHugePages(v.data(), v.capacity() * sizeof(T));
    }
    v.resize(n);
}

/// Records and boxes of a level-ordered tree are visited far from each other: fetch them
/// this many steps ahead.
constexpr unsigned kPrefetchDistance = 16;

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
