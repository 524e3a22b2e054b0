// Lane-parallel Sutherland-Hodgman clipping shared by the convex-hull query's SIMD and
// scalar paths: four polygons, one per lane, stored vertex by vertex ([vertex][lane]).
#ifndef KXQBVHCLIP_H
#define KXQBVHCLIP_H

#include <cstdint>

namespace kxQBVHClip
{
/// One 16-byte-aligned heap block per query: vertex distances, the current polygons and
/// the clipped polygons, each (planes + 3) vertices of four lanes.
class WorkArea
{
public:
    explicit WorkArea(unsigned int planeCount);
    ~WorkArea();
    WorkArea(const WorkArea&) = delete;
    WorkArea& operator=(const WorkArea&) = delete;

    uint32_t capacity;
    float (*distance)[4];
    float (*x)[4];
    float (*y)[4];
    float (*z)[4];
    float (*clipX)[4];
    float (*clipY)[4];
    float (*clipZ)[4];

private:
    void* mBlock;
};

/// Clips every lane whose polygon has more than one vertex against the plane whose
/// vertex distances are given (inside where > 0), writing the new polygons to out and
/// their sizes to counts; other lanes are left alone. Returns the largest new size over
/// the clipped lanes (0 when none was clipped). At most capacity vertices are written.
uint32_t clipLanes(const float (*distance)[4], float (*const cur[3])[4], float (*const out[3])[4],
                   uint32_t counts[4], uint32_t capacity);
} // namespace kxQBVHClip

#endif
