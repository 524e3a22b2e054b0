#include "Cull.h"

#include "Format.h"
#include "Image.h"
#include "Interrupt.h"
#include "Parallel.h"
#include "Render.h"
#include "Stopwatch.h"

#include <algorithm>
#include <cstdio>
#include <memory>

namespace kxbvh
{
namespace
{
struct PlaneSetDeleter
{
    void operator()(kxQBVH::tSOASinglePlaneEqn* set) const { kxQBVH::DeleteSOAPlaneEquationSet(set); }
};
using PlaneSet = std::unique_ptr<kxQBVH::tSOASinglePlaneEqn, PlaneSetDeleter>;

constexpr double kMinTimedSeconds = 0.2;
constexpr int kMaxPasses = 1000;

const Rgba kBackground{34, 34, 40, 255};
const Rgba kCoveredTint{70, 220, 110, 255};

uint8_t mix(uint8_t a, uint8_t b, float t)
{
    return static_cast<uint8_t>(a + (b - a) * t + 0.5f);
}

Rgba blend(const Rgba& base, const Rgba& tint, float t)
{
    return Rgba{mix(base.r, tint.r, t), mix(base.g, tint.g, t), mix(base.b, tint.b, t), 255};
}

/// Tiles that see geometry keep the rendering under a green veil; the others are dimmed.
Image drawMask(const Image& rendering, const TileGrid& grid)
{
    Image mask(rendering.width(), rendering.height());
    const Rgba black{0, 0, 0, 255};
    for (int y = 0; y < rendering.height(); ++y)
        for (int x = 0; x < rendering.width(); ++x)
        {
            const Rgba& pixel = rendering.at(x, y);
            const Rgba base = pixel.a ? pixel : kBackground;
            const bool covered = grid.covered[size_t(y / grid.tile) * grid.columns + x / grid.tile];
            Rgba out = covered ? blend(base, kCoveredTint, 0.35f) : blend(base, black, 0.65f);
            if (x % grid.tile == 0 || y % grid.tile == 0)
                out = blend(out, black, 0.3f);
            mask.at(x, y) = out;
        }
    return mask;
}
} // namespace

TileGrid cullTiles(const kxQBVH& qbvh, const Camera& camera, int tile, unsigned threads, double& seconds)
{
    TileGrid grid;
    grid.tile = tile;
    grid.columns = (camera.width() + tile - 1) / tile;
    grid.rows = (camera.height() + tile - 1) / tile;
    const size_t count = size_t(grid.columns) * grid.rows;
    grid.covered.assign(count, 0);

    std::vector<PlaneSet> sets;
    sets.reserve(count);
    for (int row = 0; row < grid.rows; ++row)
        for (int column = 0; column < grid.columns; ++column)
        {
            const int x0 = column * tile, y0 = row * tile;
            const auto planes = camera.frustum(x0, y0, std::min(x0 + tile, camera.width()),
                                               std::min(y0 + tile, camera.height()));
            sets.emplace_back(kxQBVH::CreateSOAPlaneEquationSet(planes.data(), static_cast<unsigned>(planes.size())));
        }

    int passes = 0;
    Stopwatch clock;
    double elapsed = 0.0;
    do
    {
        parallelFor(threads, count, [&](size_t i) { grid.covered[i] = qbvh.intersectConvexHull(sets[i].get(), 4); });
        throwIfInterrupted("culling");
        ++passes;
        elapsed += clock.lap();
    } while (elapsed < kMinTimedSeconds && passes < kMaxPasses);
    seconds = elapsed / passes;
    return grid;
}

void runCull(const CullOptions& options)
{
    Shot shot;
    prepareShot(shot, options.output, options.source, options.build, options.camera, options.threads);
    double seconds = 0.0;
    const TileGrid grid = cullTiles(shot.hierarchy.qbvh, *shot.camera, options.tile, shot.threads, seconds);
    const Rendering rendering =
        renderImage(shot.hierarchy.qbvh, shot.mesh, *shot.camera, Shade::eNormal, kxQBVH::eAllSides, shot.threads);
    writePng(drawMask(rendering.image, grid), options.output);

    const size_t tiles = grid.covered.size();
    const size_t covered = size_t(std::count(grid.covered.begin(), grid.covered.end(), 1));
    char figures[256];
    std::snprintf(figures, sizeof figures,
                  "culled %dx%d tiles of %d px: %s of %s see geometry\n"
                  "%s convex-hull queries in %s on %u thread%s = %s queries/s",
                  grid.columns, grid.rows, grid.tile, groupDigits(covered).c_str(), groupDigits(tiles).c_str(),
                  groupDigits(tiles).c_str(), formatSeconds(seconds).c_str(), shot.threads,
                  shot.threads == 1 ? "" : "s", formatRate(double(tiles) / seconds).c_str());
    reportShot(shot, figures, options.output);
}
} // namespace kxbvh
