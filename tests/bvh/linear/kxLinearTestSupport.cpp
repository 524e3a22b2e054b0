#include "kxLinearTestSupport.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>
#include <random>
#include <sstream>

namespace kxLinearTest
{
namespace
{
kxBBox boxAround(float x, float y, float z, float half)
{
    return kxBBox(Wm4::Vector3<float>(x - half, y - half, z - half), Wm4::Vector3<float>(x + half, y + half, z + half));
}

// x86's float to 64-bit integer conversion: truncation, or the integer indefinite (only
// the sign bit set) for NaN and out-of-range values.
int64_t truncateLikeX86(float q)
{
    return q >= -9223372036854775808.0f && q < 9223372036854775808.0f ? static_cast<int64_t>(q)
                                                                       : std::numeric_limits<int64_t>::min();
}

std::vector<uint64_t> referenceCodes(const std::vector<kxBBox>& boxes, unsigned axisBits)
{
    kxBBox scene;
    for (const kxBBox& box : boxes)
        scene.extend(box);
    const float side = std::max({scene.max[0] - scene.min[0], scene.max[1] - scene.min[1], scene.max[2] - scene.min[2]});
    const float scale = static_cast<float>(1u << axisBits) / side;
    std::vector<uint64_t> codes;
    for (const kxBBox& box : boxes)
    {
        uint64_t code = 0;
        for (unsigned a = 0; a < 3; ++a)
        {
            const float origin = (scene.min[a] + scene.max[a]) * 0.5f - 0.5f * side;
            const float q = ((box.min[a] + box.max[a]) * 0.5f - origin) * scale;
            const uint32_t cell = std::min(static_cast<uint32_t>(truncateLikeX86(q)), (1u << axisBits) - 1u);
            for (unsigned k = 0; k < axisBits; ++k)
                code |= uint64_t((cell >> k) & 1u) << (3 * k + a);
        }
        codes.push_back(code);
    }
    return codes;
}

} // namespace

std::vector<Scene> makeScenes(uint32_t quantity, uint32_t seed)
{
    std::mt19937 random(seed);
    const auto randomBoxes = [&](uint32_t count, float lowest, float highest, float maxHalf) {
        std::uniform_real_distribution<float> coordinate(lowest, highest), half(0.0f, maxHalf);
        std::vector<kxBBox> boxes;
        for (uint32_t i = 0; i < count; ++i)
        {
            const float x = coordinate(random), y = coordinate(random), z = coordinate(random);
            boxes.push_back(boxAround(x, y, z, half(random)));
        }
        return boxes;
    };
    std::vector<Scene> scenes{{"uniform", randomBoxes(quantity, -10.0f, 10.0f, 0.5f)}};
    // Clusters of sizes 1 down to 1e-4: at every grid resolution one of them is dense, so
    // that the low code bits decide too.
    std::normal_distribution<float> spread(0.0f, 1.0f);
    const std::vector<kxBBox> centres = randomBoxes(5, -100.0f, 100.0f, 0.0f);
    scenes.push_back({"clustered", {}});
    for (uint32_t i = 0; i < quantity; ++i)
    {
        const kxBBox& c = centres[i % 5];
        const float size = std::pow(10.0f, -float(i % 5));
        scenes.back().boxes.push_back(boxAround(c.min[0] + size * spread(random), c.min[1] + size * spread(random),
                                                c.min[2] + size * spread(random), 0.1f * size));
    }
    const std::vector<kxBBox> pool = randomBoxes(7, -1.0f, 1.0f, 0.0f);
    scenes.push_back({"duplicated points", {}});
    for (uint32_t i = 0; i < quantity; ++i)
        scenes.back().boxes.push_back(pool[random() % pool.size()]);
    scenes.push_back({"all-equal points", std::vector<kxBBox>(quantity, boxAround(0.25f, -0.5f, 0.75f, 0.0f))});
    // An extent of 6e38 overflows to infinity.
    scenes.push_back({"huge, overflowing", randomBoxes(quantity, -3e38f, 3e38f, 1e37f)});
    scenes.push_back({"huge", randomBoxes(quantity, -1e30f, 1e30f, 1e28f)});
    scenes.push_back({"tiny", randomBoxes(quantity, -1e-38f, 1e-38f, 1e-40f)});
    scenes.push_back({"far from the origin", randomBoxes(quantity, 1e6f, 1e6f + 1.0f, 1e-3f)});
    scenes.push_back({"some empty boxes", randomBoxes(quantity, -1.0f, 1.0f, 0.1f)});
    for (size_t i = 0; i < quantity; i += 5)
        scenes.back().boxes[i] = kxBBox();

    // Signed zeros and NaNs tell apart the order of the comparisons that grow boxes.
    const float special[] = {0.0f, -0.0f, 0.5f, -0.5f, std::numeric_limits<float>::quiet_NaN()};
    scenes.push_back({"signed zeros and NaNs", randomBoxes(quantity, -1.0f, 1.0f, 0.1f)});
    for (size_t i = 0; i < quantity; i += 3)
        for (int a = 0; a < 3; ++a)
        {
            scenes.back().boxes[i].min[a] = special[random() % 5];
            scenes.back().boxes[i].max[a] = special[random() % 5];
        }
    return scenes;
}

Reference buildReference(const std::vector<kxBBox>& boxes, unsigned bits)
{
    Reference reference;
    const auto quantity = static_cast<uint32_t>(boxes.size());
    const std::vector<uint64_t>& codes = reference.codes = referenceCodes(boxes, std::min(bits, 21u));
    std::vector<uint32_t>& order = reference.emitted.mPrimitiveIndices;
    order.resize(quantity);
    std::iota(order.begin(), order.end(), 0u);
    std::stable_sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) { return codes[a] < codes[b]; });
    std::vector<kxGNode>& nodes = reference.emitted.mNodes;
    const auto addLeaf = [&](uint32_t first, uint32_t count) {
        nodes.push_back({kxBBox(), first | 0xC0000000u, count});
        reference.runs.push_back({first, count});
        return static_cast<uint32_t>(nodes.size() - 1);
    };
    // Level by level from the top code bit, left to right: a run whose codes differ in the
    // bit splits where it turns on, and its halves take the next two records.
    std::vector<uint32_t> level{addLeaf(0, quantity)};
    reference.runListEntries = 1;
    for (int bit = 3 * int(std::min(bits, 21u)) - 1; bit >= 0; --bit)
    {
        std::vector<uint32_t> next;
        for (uint32_t k : level)
        {
            const Reference::Run run = reference.runs[k];
            uint32_t split = run.first;
            while (split < run.first + run.count && !((codes[order[split]] >> bit) & 1u))
                ++split;
            if (split == run.first || split == run.first + run.count)
            {
                next.push_back(k);
                continue;
            }
            const uint32_t left = addLeaf(run.first, split - run.first);
            next.insert(next.end(), {left, addLeaf(split, run.first + run.count - split)});
            nodes[k].offset = left | (uint32_t(bit % 3) << 30); // the axis owning the bit
            nodes[k].count = left + 1;
        }
        level = next;
        reference.runListEntries += level.size();
    }
    reference.distinctCodes = level.size();
    for (uint32_t k = 0; k < nodes.size(); ++k)
        for (uint32_t p = reference.runs[k].first; p < reference.runs[k].first + reference.runs[k].count; ++p)
            nodes[k].bbox.extend(boxes[order[p]]);
    reference.emitted.mNodeCount = static_cast<uint32_t>(nodes.size());
    reference.emitted.mPrimitiveCount = quantity;
    return reference;
}

kxGenericBVH fusedReference(const Reference& reference, uint32_t limit)
{
    const std::vector<kxGNode>& old = reference.emitted.mNodes;
    std::vector<bool> kept(old.size(), false);
    std::vector<uint32_t> number(old.size());
    kxGenericBVH fused = reference.emitted;
    fused.mNodes.clear();
    // Children are numbered after their parents, so one ascending pass decides.
    for (uint32_t k = 0; k < old.size(); ++k)
    {
        if (k > 0 && !kept[k])
            continue;
        number[k] = static_cast<uint32_t>(fused.mNodes.size());
        fused.mNodes.push_back(old[k]);
        const Reference::Run run = reference.runs[k];
        if (old[k].offset >= 0xC0000000u)
            continue;
        if (run.count > limit)
            kept[old[k].offset & 0x3FFFFFFFu] = kept[(old[k].offset & 0x3FFFFFFFu) + 1] = true;
        else
            fused.mNodes.back() = {old[k].bbox, run.first | 0xC0000000u, run.count};
    }
    for (kxGNode& node : fused.mNodes)
        if (node.offset < 0xC0000000u)
        {
            const uint32_t left = node.offset & 0x3FFFFFFFu;
            node.offset = number[left] | (node.offset & 0xC0000000u);
            node.count = number[left + 1];
        }
    return fused;
}

std::string compareHierarchies(const kxGenericBVH& actual, const kxGenericBVH& expected)
{
    std::ostringstream text;
    if (actual.mPrimitiveIndices != expected.mPrimitiveIndices)
        text << "primitive index arrays differ";
    else if (actual.mPrimitiveCount != expected.mPrimitiveCount || actual.mNodeCount != expected.mNodeCount)
        text << "counters " << actual.mPrimitiveCount << "/" << actual.mNodeCount << " instead of "
             << expected.mPrimitiveCount << "/" << expected.mNodeCount;
    else if (actual.mNodes.size() != expected.mNodes.size() || actual.mNodes.capacity() != actual.mNodes.size())
        text << actual.mNodes.size() << " records (capacity " << actual.mNodes.capacity() << ") instead of "
             << expected.mNodes.size();
    for (size_t k = 0; text.str().empty() && k < expected.mNodes.size(); ++k)
    {
        const kxGNode &a = actual.mNodes[k], &e = expected.mNodes[k];
        if (a.offset != e.offset || a.count != e.count || std::memcmp(&a.bbox, &e.bbox, sizeof(kxBBox)) != 0)
            text << "record " << k << ": " << std::hex << a.offset << " " << a.count << " " << a.bbox << " instead of "
                 << e.offset << " " << e.count << " " << e.bbox;
    }
    return text.str();
}
} // namespace kxLinearTest
