#ifndef KXHUGEPAGES_H
#define KXHUGEPAGES_H

#include <cstddef>
#include <vector>

namespace kxMemory
{
constexpr size_t kHugePage = size_t{1} << 21;

/// Asks the kernel to back the 2 MiB-aligned part of [data, data + bytes) with huge pages;
/// only a hint, to be given before the memory is first touched. Building a hierarchy
/// touches every page of its big arrays about once, and faulting them in page by page
/// costs about as much as the work done in them.
void adviseHugePages(const void* data, size_t bytes);

/// Makes room for n elements in an empty or smaller vector and advises the new storage.
template <typename T>
void reserveWithHugePages(std::vector<T>& v, size_t n)
{
    if (v.capacity() >= n)
        return;
    v.reserve(n);
    adviseHugePages(v.data(), v.capacity() * sizeof(T));
}
} // namespace kxMemory

#endif
