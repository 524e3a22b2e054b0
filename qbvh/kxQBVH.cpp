#include "kxQBVH.h"

#include "../bvh/kxHugePages.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace
{
// Cache-line aligned, so that a node spans two lines and a group of equations three; the
// allocator's own 16-byte alignment would let every large array start 16 bytes into a
// line and add a line to each of them. Rays jump all over large arrays, so those sit on
// huge pages, which spares a page walk on most visits.
template <typename T>
T* allocateAligned(size_t count)
{
    const size_t bytes = count * sizeof(T);
    if (bytes < 2 * kxMemory::kHugePage)
        return static_cast<T*>(memalign(64, bytes));
    void* array = memalign(kxMemory::kHugePage, bytes);
    kxMemory::adviseHugePages(array, bytes);
    return static_cast<T*>(array);
}

template <typename T>
void releaseAligned(T*& p)
{
    free(p);
    p = nullptr;
}

// A rebuild writes into a block it already holds when that fits and wastes little (an
// eighth, or the slack of a huge-page alignment): its pages are faulted in already, and
// faulting fresh ones costs about as much as filling them. Others are freed.
template <typename T>
void keepIfFitting(T*& p, size_t count)
{
    if (!p)
        return;
    const size_t bytes = count * sizeof(T);
    const size_t held = malloc_usable_size(p);
    if (bytes > held || held - bytes > std::max(held / 8, kxMemory::kHugePage))
        releaseAligned(p);
}

template <typename T>
void allocateIfMissing(T*& p, size_t count)
{
    if (!p)
        p = allocateAligned<T>(count);
}

template <typename T>
T* duplicateAligned(const T* source, size_t count)
{
    if (!source)
        return nullptr;
    T* copy = allocateAligned<T>(count);
    if (count)
        std::memcpy(copy, source, count * sizeof(T));
    return copy;
}
} // namespace

kxQBVH::kxQBVH()
    : mNodes(nullptr), mTriangleVertices(nullptr), mTriangleEquations(nullptr), mTriangleIndices(nullptr),
      mDataFlags(0), mNodeCount(0), mGroupCount(0)
{
}

kxQBVH::~kxQBVH()
{
    release();
}

kxQBVH::kxQBVH(const kxQBVH& other)
    : mNodes(duplicateAligned(other.mNodes, other.mNodeCount)),
      mTriangleVertices(duplicateAligned(other.mTriangleVertices, other.mGroupCount)),
      mTriangleEquations(duplicateAligned(other.mTriangleEquations, other.mGroupCount)),
      mTriangleIndices(duplicateAligned(other.mTriangleIndices, other.mGroupCount)), mBBox(other.mBBox),
      mDataFlags(other.mDataFlags), mNodeCount(other.mNodeCount), mGroupCount(other.mGroupCount)
{
}

kxQBVH& kxQBVH::operator=(const kxQBVH& other)
{
    if (this != &other)
    {
        kxQBVH copy(other);
        std::swap(mNodes, copy.mNodes);
        std::swap(mTriangleVertices, copy.mTriangleVertices);
        std::swap(mTriangleEquations, copy.mTriangleEquations);
        std::swap(mTriangleIndices, copy.mTriangleIndices);
        mBBox = copy.mBBox;
        mDataFlags = copy.mDataFlags;
        mNodeCount = copy.mNodeCount;
        mGroupCount = copy.mGroupCount;
    }
    return *this;
}

void kxQBVH::release()
{
    releaseAligned(mNodes);
    releaseAligned(mTriangleVertices);
    releaseAligned(mTriangleEquations);
    releaseAligned(mTriangleIndices);
}

void kxQBVH::allocate(tQBVHDataFlags flags, unsigned int nodeCount, unsigned int groupCount)
{
    // Everything that goes is freed before anything is made.
    keepIfFitting(mNodes, nodeCount);
    if (flags & eTrianglesVertices)
        keepIfFitting(mTriangleVertices, groupCount);
    else
        releaseAligned(mTriangleVertices);
    if (flags & eTrianglesEquations)
        keepIfFitting(mTriangleEquations, groupCount);
    else
        releaseAligned(mTriangleEquations);
    if (flags & (eTrianglesVertices | eTrianglesEquations))
        keepIfFitting(mTriangleIndices, groupCount);
    else
        releaseAligned(mTriangleIndices);
    mDataFlags = flags;
    allocateIfMissing(mNodes, nodeCount);
    if (flags & eTrianglesVertices)
        allocateIfMissing(mTriangleVertices, groupCount);
    if (flags & eTrianglesEquations)
        allocateIfMissing(mTriangleEquations, groupCount);
    if (flags & (eTrianglesVertices | eTrianglesEquations))
        allocateIfMissing(mTriangleIndices, groupCount);
    mNodeCount = nodeCount;
    mGroupCount = groupCount;
}

bool kxQBVH::computeRootNodeBBox()
{
    if (mNodeCount == 0)
        return false;
    const tQBVHNode& root = mNodes[0];
    for (int a = 0; a < 3; ++a)
    {
        float lo = root.bboxMin[a][0];
        float hi = root.bboxMax[a][0];
        for (int k = 1; k < 4; ++k)
        {
            lo = root.bboxMin[a][k] < lo ? root.bboxMin[a][k] : lo;
            hi = root.bboxMax[a][k] > hi ? root.bboxMax[a][k] : hi;
        }
        // Ordered so that the stored box is never inverted.
        mBBox.min[a] = lo < hi ? lo : hi;
        mBBox.max[a] = lo < hi ? hi : lo;
    }
    return true;
}

void kxQBVH::InitSOAPlaneEquationSet(const Wm4::Vector4<float>* planes, tSOASinglePlaneEqn* set, unsigned int count)
{
    for (unsigned int i = 0; i < count; ++i)
        for (int k = 0; k < 4; ++k)
        {
            set[i].a[k] = planes[i][0];
            set[i].b[k] = planes[i][1];
            set[i].c[k] = planes[i][2];
            set[i].d[k] = planes[i][3];
        }
}

kxQBVH::tSOASinglePlaneEqn* kxQBVH::CreateSOAPlaneEquationSet(const Wm4::Vector4<float>* planes, unsigned int count)
{
    tSOASinglePlaneEqn* set = allocateAligned<tSOASinglePlaneEqn>(count);
    InitSOAPlaneEquationSet(planes, set, count);
    return set;
}

void kxQBVH::DeleteSOAPlaneEquationSet(tSOASinglePlaneEqn* set)
{
    free(set);
}
