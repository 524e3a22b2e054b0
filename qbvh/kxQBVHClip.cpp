#include "kxQBVHClip.h"

#include <malloc.h>

#include <cstdlib>
#include <cstring>

namespace kxQBVHClip
{
WorkArea::WorkArea(unsigned int planeCount) : capacity(planeCount + 3u)
{
    const size_t arrayBytes = static_cast<size_t>(capacity) * 4 * sizeof(float);
    mBlock = memalign(16, 7 * arrayBytes);
    // Zeroed so that slots beyond a lane's own polygon hold plain numbers.
    std::memset(mBlock, 0, 7 * arrayBytes);
    float(*arrays)[4] = static_cast<float(*)[4]>(mBlock);
    distance = arrays;
    x = arrays + capacity;
    y = arrays + 2 * static_cast<size_t>(capacity);
    z = arrays + 3 * static_cast<size_t>(capacity);
    clipX = arrays + 4 * static_cast<size_t>(capacity);
    clipY = arrays + 5 * static_cast<size_t>(capacity);
    clipZ = arrays + 6 * static_cast<size_t>(capacity);
}

WorkArea::~WorkArea()
{
    free(mBlock);
}

uint32_t clipLanes(const float (*distance)[4], float (*const cur[3])[4], float (*const out[3])[4],
                   uint32_t counts[4], uint32_t capacity)
{
    uint32_t largest = 0;
    for (int k = 0; k < 4; ++k)
    {
        const uint32_t n = counts[k];
        if (n <= 1)
            continue;
        uint32_t emitted = 0;
        // A convex polygon gains at most one vertex per plane, which the capacity allows
        // for; the bound only bites on polygons that rounding has made non-convex.
        auto emit = [&](float px, float py, float pz) {
            if (emitted == capacity)
                return;
            out[0][emitted][k] = px;
            out[1][emitted][k] = py;
            out[2][emitted][k] = pz;
            ++emitted;
        };
        uint32_t prev = n - 1;
        for (uint32_t i = 0; i < n; ++i)
        {
            const float dPrev = distance[prev][k];
            const float dCur = distance[i][k];
            if ((dCur > 0.0f) != (dPrev > 0.0f))
            {
                const float r = dPrev / (dCur - dPrev);
                emit(cur[0][prev][k] - (cur[0][i][k] - cur[0][prev][k]) * r,
                     cur[1][prev][k] - (cur[1][i][k] - cur[1][prev][k]) * r,
                     cur[2][prev][k] - (cur[2][i][k] - cur[2][prev][k]) * r);
            }
            if (dCur > 0.0f)
                emit(cur[0][i][k], cur[1][i][k], cur[2][i][k]);
            prev = i;
        }
        counts[k] = emitted;
        if (emitted > largest)
            largest = emitted;
    }
    return largest;
}
} // namespace kxQBVHClip
