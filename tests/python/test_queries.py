"""Query answers against the C++ library's own loop and against a numpy brute force."""

import numpy as np
import pytest

import kxbvh
from conftest import convex_sets, meshes, rays, soup

NO_TRIANGLE = 0xFFFFFFFF
BUILDS = [("linear", 4), ("linear", 1), ("sah", 4), ("hq", 4), ("hq", 1)]


def crossings(vertices, triangles, origins, directions):
    """Every ray against every triangle in float64: the line parameter t, the barycentric
    pair (u, v) along the edges from corner 0, and n.d with the library's normal."""
    v = vertices.astype(np.float64)[triangles]
    o, d = origins.astype(np.float64), directions.astype(np.float64)
    e1, e2 = v[:, 1] - v[:, 0], v[:, 2] - v[:, 0]
    normal = np.cross(e1, e2)
    facing = d @ normal.T
    with np.errstate(divide="ignore", invalid="ignore"):
        t = ((v[:, 0] * normal).sum(1)[None, :] - o @ normal.T) / facing
        w = o[:, None, :] + t[..., None] * d[:, None, :] - v[None, :, 0]
        d00, d01, d11 = (e1 * e1).sum(1), (e1 * e2).sum(1), (e2 * e2).sum(1)
        d20, d21 = (w * e1).sum(-1), (w * e2).sum(-1)
        den = d00 * d11 - d01 * d01
        u = (d11 * d20 - d01 * d21) / den
        vv = (d00 * d21 - d01 * d20) / den
    unit = facing / (np.linalg.norm(d, axis=1)[:, None] * np.linalg.norm(normal, axis=1)[None, :])
    return t, u, vv, unit


def expected_hits(crossing, tmin, tmax, side, symmetric=False, margin=1e-3):
    """The nearest hit per ray where no triangle is close to an edge, a distance limit or
    grazing, and no two hits tie; None for rays the margins leave undecided."""
    t, u, v, facing = crossing
    inside = np.minimum(np.minimum(u, v), 1.0 - u - v)
    distance = np.abs(t) if symmetric else t
    low, high = (-tmax, tmax) if symmetric else (tmin, tmax)
    if symmetric or side == "front":
        sided = -facing
    elif side == "back":
        sided = facing
    else:
        sided = np.ones_like(facing)
    hit = (inside > margin) & (sided > margin) & (t > low + margin) & (t < high - margin)
    miss = (inside < -margin) | (sided < -margin) | (t < low - margin) | (t > high + margin) | np.isnan(t)
    decided = np.all(hit | miss, axis=1)
    distance = np.where(hit, distance, np.inf)
    order = np.argsort(distance, axis=1)
    nearest, second = order[:, 0], order[:, 1]
    rows = np.arange(len(t))
    best = distance[rows, nearest]
    decided &= ~np.isfinite(best) | (distance[rows, second] > best + margin)
    return decided, best, np.where(np.isfinite(best), nearest, NO_TRIANGLE), u[rows, nearest], v[rows, nearest]


def check_against_brute_force(hits, expected):
    decided, best, triangle, u, v = expected
    assert decided.mean() > 0.9, "too few rays the brute force can decide"
    assert np.isfinite(best[decided]).mean() > 0.15, "too few hits to learn anything"
    np.testing.assert_array_equal(hits["triangle"][decided], triangle[decided])
    hit = decided & np.isfinite(best)
    np.testing.assert_allclose(hits["t"][hit], best[hit], rtol=1e-4, atol=1e-4)
    assert np.all(np.isinf(hits["t"][decided & ~hit]))
    np.testing.assert_allclose(hits["barycentric"][hit], np.stack([1 - u - v, u], 1)[hit], atol=1e-3)


@pytest.mark.parametrize("name", ["soup", "terrain"])
@pytest.mark.parametrize("builder,leaf", BUILDS)
def test_nearest_hits_agree_with_brute_force_on_every_side(name, builder, leaf):
    rng = np.random.default_rng(7)
    vertices, triangles = meshes(11)[name]
    bvh = kxbvh.QBVH(vertices, triangles, builder, leaf)
    origins, directions = rays(rng, vertices, triangles, 1500)
    crossing = crossings(vertices, triangles, origins, directions)
    for side, tmin, tmax in [("all", 0.0, np.inf), ("front", 0.0, np.inf), ("back", 0.0, np.inf), ("all", 0.4, 0.9)]:
        hits = bvh.intersect(origins, directions, tmin, tmax, side)
        check_against_brute_force(hits, expected_hits(crossing, tmin, tmax, side))


@pytest.mark.parametrize("builder,leaf", BUILDS)
def test_symmetric_hits_agree_with_brute_force(builder, leaf):
    rng = np.random.default_rng(8)
    vertices, triangles = meshes(12)["soup"]
    bvh = kxbvh.QBVH(vertices, triangles, builder, leaf)
    origins, directions = rays(rng, vertices, triangles, 1500)
    crossing = crossings(vertices, triangles, origins, directions)
    for tmax in (np.inf, 0.7):
        hits = bvh.intersect_symmetric(origins, directions, tmax)
        assert np.all(hits["t"] >= 0)
        check_against_brute_force(hits, expected_hits(crossing, 0.0, tmax, "front", symmetric=True))


@pytest.mark.parametrize("builder,leaf", BUILDS)
def test_ray_answers_equal_the_library_loop_bit_for_bit(reference, builder, leaf):
    rng = np.random.default_rng(9)
    for vertices, triangles in meshes(13).values():
        origins, directions = rays(rng, vertices, triangles, 3000)
        origins[::97] = np.nan
        directions[5::89] = 0.0
        data = np.concatenate([origins, directions], 1)
        bvh = kxbvh.QBVH(vertices, triangles, builder=builder, leaf=leaf)
        for side, tmin, tmax in [("all", 0.0, np.inf), ("front", -2.0, 5.0), ("back", 0.0, 3.0)]:
            ours = bvh.intersect(origins, directions, tmin=tmin, tmax=tmax, side=side)
            theirs = reference("intersect", builder, leaf, vertices, triangles, data, tmin=tmin, tmax=tmax, side=side)
            for field in ("t", "triangle", "barycentric"):
                np.testing.assert_array_equal(ours[field], theirs[field], err_msg=field)
        ours = bvh.intersect_symmetric(origins, directions, tmax=4.0)
        theirs = reference("symmetric", builder, leaf, vertices, triangles, data, tmax=4.0)
        for field in ("t", "triangle", "barycentric"):
            np.testing.assert_array_equal(ours[field], theirs[field], err_msg=field)


def clip(polygon, plane):
    distance = polygon @ plane[:3] + plane[3]
    kept = []
    for i in range(len(polygon)):
        previous, current = i - 1, i
        if (distance[current] > 0) != (distance[previous] > 0):
            s = distance[previous] / (distance[previous] - distance[current])
            kept.append(polygon[previous] + s * (polygon[current] - polygon[previous]))
        if distance[current] > 0:
            kept.append(polygon[current])
    return np.asarray(kept).reshape(-1, 3)


def reaches_inside(corners, planes, slack):
    """Whether any triangle keeps an area inside all planes moved outward by slack."""
    moved = planes.astype(np.float64).copy()
    moved[:, 3] += slack * np.linalg.norm(moved[:, :3], axis=1)
    for triangle in corners:
        polygon = triangle
        for plane in moved:
            polygon = clip(polygon, plane)
            if len(polygon) < 3:
                break
        else:
            return True
    return False


@pytest.mark.parametrize("builder,leaf", BUILDS)
def test_convex_regions_agree_with_clipping_and_with_the_library(reference, builder, leaf):
    rng = np.random.default_rng(10)
    # Away from the origin: the library counts padding lanes as triangles there.
    vertices, triangles = soup(rng, triangles=80, offset=10.0)
    corners = vertices.astype(np.float64)[triangles]
    bvh = kxbvh.QBVH(vertices, triangles, builder, leaf)
    sets = convex_sets(rng, 60, 8.0, 22.0)
    answers = bvh.convex_hull(sets)
    decided = 0
    for planes, answer in zip(sets, answers):
        assert bvh.convex_hull(planes) == answer
        wide, narrow = reaches_inside(corners, planes, 1e-3), reaches_inside(corners, planes, -1e-3)
        if wide == narrow:
            decided += 1
            assert answer == wide
    assert decided > 50 and 5 < answers.sum() < 55
    theirs = reference("convex", builder, leaf, vertices, triangles, sets, planes=6)
    np.testing.assert_array_equal(answers, theirs)


def test_a_region_holding_the_origin_also_counts_padding_as_the_library_does():
    vertices = np.array([[5, 5, 5], [6, 5, 5], [5, 6, 5]], np.float32)  # one triangle, three padding lanes
    bvh = kxbvh.QBVH(vertices, [[0, 1, 2]])
    around_origin = convex_sets(np.random.default_rng(1), 1, 0.0, 0.0)[0]
    assert bvh.convex_hull(around_origin)
    assert bvh.convex_hull(np.zeros((0, 4)))
    far_box = around_origin.copy()
    far_box[:, 3] -= far_box[:, :3] @ np.array([-20.0, 0.0, 0.0])
    assert not bvh.convex_hull(far_box)


def closest_brute_force(vertices, triangles, points):
    """Distance from every point to every triangle in float64, degenerate triangles included."""
    c = vertices.astype(np.float64)[triangles]
    p = points.astype(np.float64)[:, None, :]

    def segment(a, b):
        ab = b - a
        length = (ab * ab).sum(-1)
        with np.errstate(divide="ignore", invalid="ignore"):
            s = np.clip(((p - a) * ab).sum(-1) / length, 0.0, 1.0)
        s = np.where(length > 0, s, 0.0)
        return np.linalg.norm(p - (a + s[..., None] * ab), axis=-1)

    edges = np.minimum(np.minimum(segment(c[:, 0], c[:, 1]), segment(c[:, 1], c[:, 2])), segment(c[:, 2], c[:, 0]))
    e1, e2 = c[:, 1] - c[:, 0], c[:, 2] - c[:, 0]
    normal = np.cross(e1, e2)
    area = np.linalg.norm(normal, axis=-1)
    with np.errstate(divide="ignore", invalid="ignore"):
        unit = normal / area[:, None]
        height = ((p - c[:, 0]) * unit).sum(-1)
        w = p - height[..., None] * unit - c[:, 0]
        d00, d01, d11 = (e1 * e1).sum(-1), (e1 * e2).sum(-1), (e2 * e2).sum(-1)
        d20, d21 = (w * e1).sum(-1), (w * e2).sum(-1)
        den = d00 * d11 - d01 * d01
        u = (d11 * d20 - d01 * d21) / den
        v = (d00 * d21 - d01 * d20) / den
    inside = (area > 0) & (u >= 0) & (v >= 0) & (u + v <= 1)
    return np.where(inside, np.abs(height), edges)


@pytest.mark.parametrize("builder,leaf", BUILDS)
def test_occlusion_answers_whether_the_nearest_hit_query_hits(reference, builder, leaf):
    rng = np.random.default_rng(14)
    for vertices, triangles in meshes(15).values():
        bvh = kxbvh.QBVH(vertices, triangles, builder, leaf)
        origins, directions = rays(rng, vertices, triangles, 3000)
        origins[::101] = np.nan
        directions[7::93] = np.inf
        data = np.concatenate([origins, directions], 1)
        for side, tmin, tmax in [("all", 0.0, np.inf), ("front", -2.0, 5.0), ("back", 0.3, 3.0)]:
            blocked = bvh.occluded(origins, directions, tmin, tmax, side)
            assert blocked.dtype == bool and 0.1 < blocked.mean() < 0.9
            hit = np.isfinite(bvh.intersect(origins, directions, tmin, tmax, side)["t"])
            np.testing.assert_array_equal(blocked, hit)
            theirs = reference("occluded", builder, leaf, vertices, triangles, data, tmin=tmin, tmax=tmax, side=side)
            np.testing.assert_array_equal(blocked, theirs)


def with_degenerate_triangles(rng):
    vertices, triangles = soup(rng, triangles=120)
    corners = vertices.reshape(-1, 3, 3)
    corners[::10, 2] = corners[::10, 0] + 0.5 * (corners[::10, 1] - corners[::10, 0])  # segments
    corners[5::10, 1:] = corners[5::10, :1]  # points
    corners[3::10, 1] = corners[3::10, 0] + [1e-4, 0, 0]  # slivers
    return corners.reshape(-1, 3), triangles


@pytest.mark.parametrize("builder,leaf", BUILDS)
def test_closest_points_agree_with_brute_force_and_the_library(reference, builder, leaf):
    rng = np.random.default_rng(16)
    vertices, triangles = with_degenerate_triangles(rng)
    bvh = kxbvh.QBVH(vertices, triangles, builder, leaf)
    corners = vertices.astype(np.float64)[triangles]
    near = corners[rng.integers(0, len(triangles), 600)].mean(1) + rng.normal(0, 0.05, (600, 3))
    far = rng.uniform(-5.0, 15.0, (600, 3))
    points = np.concatenate([near, far]).astype(np.float32)
    distances = closest_brute_force(vertices, triangles, points)
    best = distances.min(1)
    for limit in (np.inf, 0.5):
        found = bvh.closest_points(points, max_distance=limit)
        within = best < limit - 1e-4
        assert 0.2 < within.mean() <= 1.0
        hit = found["triangle"] != 0xFFFFFFFF
        np.testing.assert_array_equal(hit[within], True)
        np.testing.assert_array_equal(hit[best > limit + 1e-4], False)
        assert np.all(np.isinf(found["distance"][~hit])) and np.all(np.isnan(found["point"][~hit]))
        np.testing.assert_allclose(found["distance"][hit], best[hit], rtol=1e-5, atol=1e-5)
        chosen = found["triangle"][hit]
        np.testing.assert_allclose(distances[hit, chosen], best[hit], rtol=1e-5, atol=1e-5)
        weights = found["barycentric"][hit]
        rebuilt = (weights[:, :1] * corners[chosen, 0] + weights[:, 1:] * corners[chosen, 1]
                   + (1 - weights.sum(1, keepdims=True)) * corners[chosen, 2])
        np.testing.assert_allclose(found["point"][hit], rebuilt, atol=1e-4)
        np.testing.assert_allclose(np.linalg.norm(found["point"][hit] - points[hit], axis=1), best[hit], atol=1e-4)
        theirs = reference("closest", builder, leaf, vertices, triangles, points, tmax=limit)
        for field in ("distance", "point", "triangle", "barycentric"):
            np.testing.assert_array_equal(found[field], theirs[field], err_msg=field)


def test_answers_do_not_depend_on_the_order_or_size_of_the_batch():
    """Large incoherent batches are answered in a spatial order, sorted on as many threads as
    the query runs on when they are large enough, coherent and small ones in their own: every
    row must get the same answer either way, on any number of threads."""
    rng = np.random.default_rng(17)
    vertices, triangles = meshes(18)["terrain"]
    bvh = kxbvh.QBVH(vertices, triangles, "hq")
    origins, directions = rays(rng, vertices, triangles, 200_000)
    origins[::89], directions[3::97] = np.nan, np.inf
    points = np.concatenate([origins[:100_000], rng.uniform(-20, 20, (100_000, 3)).astype(np.float32)])
    along = np.lexsort(origins.T[::-1])  # neighbours in space follow each other
    queries = {
        "intersect": lambda o, d, p, threads: bvh.intersect(o, d, side="front", threads=threads),
        "occluded": lambda o, d, p, threads: {"blocked": bvh.occluded(o, d, tmax=4.0, threads=threads)},
        "closest_points": lambda o, d, p, threads: bvh.closest_points(p, max_distance=6.0, threads=threads),
    }
    for name, query in queries.items():
        whole = query(origins, directions, points, 1)
        for order in (rng.permutation(len(origins)), along):
            for threads in (1, 3):
                again = query(origins[order], directions[order], points[order], threads)
                for field, values in whole.items():
                    np.testing.assert_array_equal(again[field], values[order], err_msg=f"{name} {field}")
        pieces = [query(origins[i:i + 500], directions[i:i + 500], points[i:i + 500], 1)
                  for i in range(0, len(origins), 500)]
        for field, values in whole.items():
            np.testing.assert_array_equal(np.concatenate([p[field] for p in pieces]), values, err_msg=f"{name} {field}")
    eye = np.array([0.5, 40.0, 0.5], np.float32)
    shared = bvh.intersect(eye, directions)["t"]
    np.testing.assert_array_equal(shared, bvh.intersect(np.broadcast_to(eye, directions.shape), directions)["t"])


def test_rays_on_a_hierarchy_beyond_the_caches_equal_the_library_loop(reference):
    """Hierarchies larger than the caches are answered by the library's interleaved batches;
    every answer must still be the single-ray loop's, bit for bit."""
    vertices, triangles = kxbvh.demo_scene(triangles=350_000)
    bvh = kxbvh.QBVH(vertices, triangles, "linear")
    figures = bvh.info()["qbvh"]
    assert figures["nodes"] * 128 + figures["groups"] * 192 >= 24 * 2**20  # the batched path
    rng = np.random.default_rng(21)
    low, high = vertices.min(0), vertices.max(0)
    origins = rng.uniform(low - 2, high + 2, (5000, 3)).astype(np.float32)
    directions = rng.normal(size=(5000, 3)).astype(np.float32)
    origins[::211], directions[5::97], directions[9::113, 1] = np.nan, np.inf, 0.0
    data = np.concatenate([origins, directions], 1)
    for side, tmin, tmax in [("all", 0.0, np.inf), ("front", -1.0, 6.0)]:
        hits = bvh.intersect(origins, directions, tmin=tmin, tmax=tmax, side=side, threads=2)
        theirs = reference("intersect", "linear", 4, vertices, triangles, data, tmin=tmin, tmax=tmax, side=side)
        for field in ("t", "triangle", "barycentric"):
            np.testing.assert_array_equal(hits[field], theirs[field], err_msg=field)
        blocked = bvh.occluded(origins, directions, tmin, tmax, side, threads=2)
        assert 0.1 < blocked.mean() < 0.9
        np.testing.assert_array_equal(blocked, np.isfinite(hits["t"]))
        theirs = reference("occluded", "linear", 4, vertices, triangles, data, tmin=tmin, tmax=tmax, side=side)
        np.testing.assert_array_equal(blocked, theirs)
