#include "kxLinearTestSupport.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <random>
#include <set>
#include <sstream>

namespace kxLinearTest
{
namespace
{
kxBBox boxAround(float x, float y, float z, float half)
{
    kxBBox box;
    box.min[0] = x - half;
    box.min[1] = y - half;
    box.min[2] = z - half;
    box.max[0] = x + half;
    box.max[1] = y + half;
    box.max[2] = z + half;
    return box;
}

std::vector<kxBBox> randomBoxes(uint32_t quantity, std::mt19937& random, float lowest, float highest, float maxHalf)
{
    std::uniform_real_distribution<float> coordinate(lowest, highest);
    std::uniform_real_distribution<float> half(0.0f, maxHalf);
    std::vector<kxBBox> boxes;
    for (uint32_t i = 0; i < quantity; ++i)
    {
        const float x = coordinate(random), y = coordinate(random), z = coordinate(random);
        boxes.push_back(boxAround(x, y, z, half(random)));
    }
    return boxes;
}

// What converting a float to a 64-bit integer gives on x86: truncation, or the integer
// indefinite (only the sign bit set) for NaN and values out of range.
int64_t truncateLikeX86(float q)
{
    if (q >= -9223372036854775808.0f && q < 9223372036854775808.0f)
        return static_cast<int64_t>(q);
    return std::numeric_limits<int64_t>::min();
}

uint64_t interleave(uint32_t x, uint32_t y, uint32_t z, unsigned axisBits)
{
    uint64_t code = 0;
    for (unsigned k = 0; k < axisBits; ++k)
    {
        code |= static_cast<uint64_t>((x >> k) & 1u) << (3 * k);
        code |= static_cast<uint64_t>((y >> k) & 1u) << (3 * k + 1);
        code |= static_cast<uint64_t>((z >> k) & 1u) << (3 * k + 2);
    }
    return code;
}

std::vector<uint64_t> referenceCodes(const std::vector<kxBBox>& boxes, unsigned axisBits)
{
    kxBBox scene;
    for (const kxBBox& box : boxes)
        scene.extend(box);
    const float side =
        std::max({scene.max[0] - scene.min[0], scene.max[1] - scene.min[1], scene.max[2] - scene.min[2]});
    const float cells = static_cast<float>(1u << axisBits);
    const uint32_t lastCell = (1u << axisBits) - 1u;
    const float scale = cells / side;
    std::vector<uint64_t> codes;
    for (const kxBBox& box : boxes)
    {
        uint32_t cell[3];
        for (int a = 0; a < 3; ++a)
        {
            const float centre = (box.min[a] + box.max[a]) * 0.5f;
            const float origin = (scene.min[a] + scene.max[a]) * 0.5f - 0.5f * side;
            cell[a] = std::min(static_cast<uint32_t>(truncateLikeX86((centre - origin) * scale)), lastCell);
        }
        codes.push_back(interleave(cell[0], cell[1], cell[2], axisBits));
    }
    return codes;
}

struct Run
{
    uint32_t first;
    uint32_t last;
    unsigned level = 0; // of its split; 0 for a leaf
    int left = -1;
    int right = -1;
    uint32_t number = 0;
};

void splitRun(std::vector<Run>& runs, size_t index, const std::vector<uint64_t>& sortedCodes, unsigned levels)
{
    const uint32_t first = runs[index].first;
    const uint32_t last = runs[index].last;
    const uint64_t difference = sortedCodes[first] ^ sortedCodes[last];
    if (difference == 0)
        return;
    unsigned bit = 63;
    while (!((difference >> bit) & 1u))
        --bit;
    uint32_t split = first;
    while (!((sortedCodes[split + 1] >> bit) & 1u))
        ++split;
    runs[index].level = levels - bit;
    runs[index].left = static_cast<int>(runs.size());
    runs.push_back(Run{first, split});
    runs[index].right = static_cast<int>(runs.size());
    runs.push_back(Run{split + 1, last});
    splitRun(runs, static_cast<size_t>(runs[index].left), sortedCodes, levels);
    splitRun(runs, static_cast<size_t>(runs[index].right), sortedCodes, levels);
}

kxBBox refitRecord(std::vector<kxGNode>& nodes, uint32_t k, const std::vector<kxBBox>& boxes,
                   const std::vector<uint32_t>& order)
{
    kxGNode& node = nodes[k];
    kxBBox box;
    if (node.offset >= 0xC0000000u)
    {
        for (uint32_t i = 0; i < node.count; ++i)
            box.extend(boxes[order[(node.offset & 0x3FFFFFFFu) + i]]);
    }
    else
    {
        box = refitRecord(nodes, node.offset & 0x3FFFFFFFu, boxes, order);
        box.extend(refitRecord(nodes, node.count & 0x0FFFFFFFu, boxes, order));
    }
    node.bbox = box;
    return box;
}

uint32_t countAndFuse(std::vector<kxGNode>& nodes, uint32_t k, uint32_t limit, std::vector<uint32_t>& live)
{
    live[k + 1] = 1;
    kxGNode& node = nodes[k];
    if (node.offset >= 0xC0000000u)
        return node.count;
    const uint32_t left = node.offset & 0x3FFFFFFFu;
    const uint32_t right = node.count & 0x0FFFFFFFu;
    const uint32_t sum = countAndFuse(nodes, left, limit, live) + countAndFuse(nodes, right, limit, live);
    if (sum > limit)
        return sum;
    live[left + 1] = 0;
    live[right + 1] = 0;
    node.offset = std::min(nodes[left].offset & 0x3FFFFFFFu, nodes[right].offset & 0x3FFFFFFFu) | 0xC0000000u;
    node.count = sum;
    return sum;
}

std::vector<kxGNode> fuse(std::vector<kxGNode> nodes, uint32_t limit)
{
    std::vector<uint32_t> live(nodes.size() + 1, 0);
    countAndFuse(nodes, 0, limit, live);
    for (size_t i = 1; i < live.size(); ++i)
        live[i] += live[i - 1];
    std::vector<kxGNode> kept;
    for (size_t k = 0; k < nodes.size(); ++k)
    {
        if (live[k] == live[k + 1])
            continue;
        kxGNode node = nodes[k];
        if (node.offset < 0xC0000000u)
        {
            node.offset = live[node.offset & 0x3FFFFFFFu] | (node.offset & 0xC0000000u);
            node.count = live[node.count & 0x0FFFFFFFu];
        }
        kept.push_back(node);
    }
    return std::vector<kxGNode>(kept.begin(), kept.end());
}

bool sameBits(const kxBBox& a, const kxBBox& b)
{
    return std::memcmp(&a, &b, sizeof(kxBBox)) == 0;
}
} // namespace

std::vector<Scene> makeScenes(uint32_t quantity, uint32_t seed)
{
    std::mt19937 random(seed);
    std::vector<Scene> scenes;
    scenes.push_back({"uniform", randomBoxes(quantity, random, -10.0f, 10.0f, 0.5f)});

    std::vector<kxBBox> clustered;
    std::normal_distribution<float> spread(0.0f, 1e-3f);
    const std::vector<kxBBox> centres = randomBoxes(5, random, -100.0f, 100.0f, 0.0f);
    for (uint32_t i = 0; i < quantity; ++i)
    {
        const kxBBox& c = centres[i % centres.size()];
        clustered.push_back(
            boxAround(c.min[0] + spread(random), c.min[1] + spread(random), c.min[2] + spread(random), 1e-4f));
    }
    scenes.push_back({"clustered", clustered});

    const std::vector<kxBBox> pool = randomBoxes(7, random, -1.0f, 1.0f, 0.0f);
    std::vector<kxBBox> duplicated;
    for (uint32_t i = 0; i < quantity; ++i)
        duplicated.push_back(pool[random() % pool.size()]);
    scenes.push_back({"duplicated points", duplicated});

    scenes.push_back({"all-equal points", std::vector<kxBBox>(quantity, boxAround(0.25f, -0.5f, 0.75f, 0.0f))});

    std::vector<kxBBox> flat = randomBoxes(quantity, random, -5.0f, 5.0f, 0.0f);
    for (kxBBox& box : flat)
        box.min[2] = box.max[2] = 3.0f;
    scenes.push_back({"flat", flat});

    // An extent of 6e38 overflows to infinity.
    scenes.push_back({"huge, overflowing", randomBoxes(quantity, random, -3e38f, 3e38f, 1e37f)});
    scenes.push_back({"huge", randomBoxes(quantity, random, -1e30f, 1e30f, 1e28f)});
    scenes.push_back({"tiny", randomBoxes(quantity, random, -1e-38f, 1e-38f, 1e-40f)});
    scenes.push_back({"far from the origin", randomBoxes(quantity, random, 1e6f, 1e6f + 1.0f, 1e-3f)});

    std::vector<kxBBox> withEmpty = randomBoxes(quantity, random, -1.0f, 1.0f, 0.1f);
    for (size_t i = 0; i < withEmpty.size(); i += 5)
        withEmpty[i] = kxBBox();
    scenes.push_back({"some empty boxes", withEmpty});

    // Signed zeros and NaNs tell apart the order of the comparisons that grow boxes.
    const float special[] = {0.0f, -0.0f, 0.5f, -0.5f, std::numeric_limits<float>::quiet_NaN()};
    std::vector<kxBBox> odd = randomBoxes(quantity, random, -1.0f, 1.0f, 0.1f);
    for (size_t i = 0; i < odd.size(); i += 3)
        for (int a = 0; a < 3; ++a)
        {
            odd[i].min[a] = special[random() % 5];
            odd[i].max[a] = special[random() % 5];
        }
    scenes.push_back({"signed zeros and NaNs", odd});
    return scenes;
}

Reference buildReference(const std::vector<kxBBox>& boxes, unsigned bits)
{
    Reference reference;
    const unsigned axisBits = std::min(bits, 21u);
    const unsigned levels = 3 * axisBits;
    const uint32_t quantity = static_cast<uint32_t>(boxes.size());
    reference.codes = referenceCodes(boxes, axisBits);
    for (uint32_t i = 0; i < quantity; ++i)
        reference.order.push_back(i);
    std::stable_sort(reference.order.begin(), reference.order.end(),
                     [&](uint32_t a, uint32_t b) { return reference.codes[a] < reference.codes[b]; });
    std::vector<uint64_t> sortedCodes;
    for (uint32_t p : reference.order)
        sortedCodes.push_back(reference.codes[p]);

    for (unsigned level = 0; level <= levels; ++level)
    {
        std::set<uint64_t> prefixes;
        for (uint64_t code : sortedCodes)
            prefixes.insert(level == 0 ? 0 : code >> (levels - level));
        reference.runListEntries += std::max<uint64_t>(prefixes.size(), 1);
    }
    reference.distinctCodes = std::max<uint64_t>(std::set<uint64_t>(sortedCodes.begin(), sortedCodes.end()).size(), 1);

    std::vector<Run> runs{Run{0, quantity == 0 ? 0 : quantity - 1}};
    if (quantity > 0)
        splitRun(runs, 0, sortedCodes, levels);

    std::vector<size_t> inner;
    for (size_t i = 0; i < runs.size(); ++i)
        if (runs[i].left >= 0)
            inner.push_back(i);
    std::stable_sort(inner.begin(), inner.end(),
                     [&](size_t a, size_t b) {
                         return runs[a].level != runs[b].level ? runs[a].level < runs[b].level
                                                               : runs[a].first < runs[b].first;
                     });
    uint32_t nextFree = 1;
    for (size_t i : inner)
    {
        runs[static_cast<size_t>(runs[i].left)].number = nextFree;
        runs[static_cast<size_t>(runs[i].right)].number = nextFree + 1;
        nextFree += 2;
    }
    reference.nodeCount = nextFree;

    const uint32_t axisOfLevel[3] = {0x00000000u, 0x80000000u, 0x40000000u};
    reference.emitted.resize(2 * reference.distinctCodes);
    for (const Run& run : runs)
    {
        kxGNode& node = reference.emitted[run.number];
        if (run.left >= 0)
        {
            const uint32_t left = runs[static_cast<size_t>(run.left)].number;
            node.offset = left | axisOfLevel[run.level % 3];
            node.count = left + 1;
        }
        else
        {
            node.offset = run.first | 0xC0000000u;
            node.count = quantity == 0 ? 0 : run.last - run.first + 1;
        }
    }
    refitRecord(reference.emitted, 0, boxes, reference.order);
    return reference;
}

kxGenericBVH fusedReference(const Reference& reference, uint32_t maxPrimitivesPerLeaf)
{
    kxGenericBVH fused;
    fused.mNodes = fuse(reference.emitted, std::max(maxPrimitivesPerLeaf, 1u));
    fused.mPrimitiveIndices = reference.order;
    fused.mPrimitiveCount = static_cast<uint32_t>(reference.order.size());
    fused.mNodeCount = reference.nodeCount;
    return fused;
}

namespace
{
// Walks the subtree at k whose run starts at first and returns its primitive count, or
// records the first violation in problem.
uint32_t checkSubtree(const kxGenericBVH& bvh, uint32_t k, uint32_t first, const std::vector<kxBBox>& boxes,
                      const std::vector<uint64_t>& codes, uint32_t limit, std::vector<bool>& visited,
                      std::vector<int>& leafOfPosition, std::string& problem)
{
    if (!problem.empty())
        return 0;
    if (k >= bvh.mNodes.size() || visited[k])
    {
        problem = "record " + std::to_string(k) + " missing or reached twice";
        return 0;
    }
    visited[k] = true;
    const kxGNode& node = bvh.mNodes[k];
    uint32_t count = 0;
    if (node.offset >= 0xC0000000u)
    {
        count = node.count;
        if ((node.offset & 0x3FFFFFFFu) != first || first + count > bvh.mPrimitiveIndices.size())
            problem = "leaf " + std::to_string(k) + " does not continue its parent's run";
        for (uint32_t i = 0; problem.empty() && i < count; ++i)
        {
            leafOfPosition[first + i] = static_cast<int>(k);
            if (count > limit && codes[bvh.mPrimitiveIndices[first + i]] != codes[bvh.mPrimitiveIndices[first]])
                problem = "leaf " + std::to_string(k) + " exceeds the limit but is not one emitted leaf";
        }
    }
    else
    {
        const uint32_t left = node.offset & 0x3FFFFFFFu;
        const uint32_t right = node.count & 0x0FFFFFFFu;
        if (right != left + 1)
            problem = "right child of " + std::to_string(k) + " is not left + 1";
        const uint32_t leftCount =
            checkSubtree(bvh, left, first, boxes, codes, limit, visited, leafOfPosition, problem);
        count = leftCount +
                checkSubtree(bvh, right, first + leftCount, boxes, codes, limit, visited, leafOfPosition, problem);
        if (problem.empty() && count <= limit)
            problem = "inner record " + std::to_string(k) + " is small enough to have been fused";
    }
    if (!problem.empty())
        return 0;
    kxBBox expected;
    for (uint32_t i = 0; i < count; ++i)
        expected.extend(boxes[bvh.mPrimitiveIndices[first + i]]);
    if (!sameBits(node.bbox, expected))
        problem = "box of record " + std::to_string(k) + " is not the union of its primitives";
    return count;
}
} // namespace

std::string checkInvariants(const kxGenericBVH& bvh, const std::vector<kxBBox>& boxes,
                            const std::vector<uint64_t>& codes, uint32_t maxPrimitivesPerLeaf,
                            uint32_t emittedNodeCount)
{
    const uint32_t quantity = static_cast<uint32_t>(boxes.size());
    if (bvh.mPrimitiveCount != quantity || bvh.mPrimitiveIndices.size() != quantity)
        return "primitive count or index array size differs from the quantity";
    std::vector<uint32_t> sorted = bvh.mPrimitiveIndices;
    std::sort(sorted.begin(), sorted.end());
    for (uint32_t i = 0; i < quantity; ++i)
        if (sorted[i] != i)
            return "primitive index array is not a permutation";
    if (bvh.mNodeCount != emittedNodeCount)
        return "node count is not the emitted record count";
    if (bvh.mNodes.size() != bvh.mNodes.capacity())
        return "node array is not trimmed";

    std::string problem;
    std::vector<bool> visited(bvh.mNodes.size(), false);
    std::vector<int> leafOfPosition(quantity, -1);
    const uint32_t covered =
        checkSubtree(bvh, 0, 0, boxes, codes, maxPrimitivesPerLeaf, visited, leafOfPosition, problem);
    if (!problem.empty())
        return problem;
    if (covered != quantity)
        return "the tree covers " + std::to_string(covered) + " positions";
    if (std::find(visited.begin(), visited.end(), false) != visited.end())
        return "node array holds records outside the tree";

    for (uint32_t p = 0; p + 1 < quantity; ++p)
    {
        const uint32_t a = bvh.mPrimitiveIndices[p], b = bvh.mPrimitiveIndices[p + 1];
        if (codes[a] > codes[b])
            return "primitives are not in code order at position " + std::to_string(p);
        if (codes[a] == codes[b] && (leafOfPosition[p] != leafOfPosition[p + 1] || a > b))
            return "primitives with equal codes are split or out of order at position " + std::to_string(p);
    }
    return "";
}

std::string compareHierarchies(const kxGenericBVH& actual, const kxGenericBVH& expected)
{
    if (actual.mPrimitiveIndices != expected.mPrimitiveIndices)
        return "primitive index arrays differ";
    if (actual.mPrimitiveCount != expected.mPrimitiveCount || actual.mNodeCount != expected.mNodeCount)
        return "counters differ: " + std::to_string(actual.mPrimitiveCount) + "/" + std::to_string(actual.mNodeCount) +
               " instead of " + std::to_string(expected.mPrimitiveCount) + "/" + std::to_string(expected.mNodeCount);
    if (actual.mNodes.size() != expected.mNodes.size() || actual.mNodes.capacity() != expected.mNodes.size())
        return "node array has " + std::to_string(actual.mNodes.size()) + " records (capacity " +
               std::to_string(actual.mNodes.capacity()) + ") instead of " + std::to_string(expected.mNodes.size());
    for (size_t k = 0; k < expected.mNodes.size(); ++k)
    {
        const kxGNode& a = actual.mNodes[k];
        const kxGNode& e = expected.mNodes[k];
        if (a.offset != e.offset || a.count != e.count || !sameBits(a.bbox, e.bbox))
        {
            std::ostringstream text;
            text << "record " << k << ": " << std::hex << a.offset << " " << a.count << " " << a.bbox << " instead of "
                 << e.offset << " " << e.count << " " << e.bbox;
            return text.str();
        }
    }
    return "";
}
} // namespace kxLinearTest
