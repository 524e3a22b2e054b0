#!/usr/bin/python3
"""Rays, occlusion and closest points per second: the kxbvh module against Open3D's
RaycastingScene (Embree inside), same meshes, same rays, one thread and every core.

    /usr/bin/python3 bench/kxbvh_vs_open3d.py [--rays N] [--points N] [--repeat R]
        [--reference build-python/python/kxbvhReference]
        [--open3d-ray-mask build-python/python/libkxOpen3DRayMask.so] [MESH ...]

Without MESH: the built-in scene and the meshes of Debian's assimp-testmodels that have at
least 10,000 triangles. Needs the installed module (scripts/python.sh) and python3-open3d.
Both sides get their thread count per call: nthreads=1 / threads=1, and 0 for every core.
Timings alternate between the two sides and keep the fastest of --repeat runs, so that the
load of a shared machine hits both alike; compare the ratios, not the absolute figures.

With --reference (the kxbvhReference program of a build) it also measures what the binding
costs: intersect on one thread against the plain C++ loop over the same rays and tree.

Debian's Open3D hands Embree rays whose mask is 0, and Debian's Embree is built with ray
masks, so its cast_rays and test_occlusions never hit anything. When a probe ray shows that,
the script runs itself again with kxOpen3DRayMask preloaded (built by scripts/python.sh),
which sets each ray's mask to all ones on its way into Embree: Open3D is then timed doing
what it means to do, for the cost of one store per ray.
"""

import argparse
import ctypes
import os
import subprocess
import sys
import tempfile
import threading
import time

import numpy as np

import kxbvh

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
MODELS = "/usr/share/assimp/models"
REAL_MESHES = [
    "Q3D/E-AT-AT.q3o",
    "Collada/human.zae",
    "IFC/AC14-FZK-Haus.ifc",
    "BLEND/yxa_1.blend",
    "glTF2/2CylinderEngine-glTF-Binary/2CylinderEngine.glb",
    "BLEND/SuzanneSubdiv_252.blend",
]


class Embree:
    """Embree 3, the engine inside Open3D's RaycastingScene, called straight from Python
    through ctypes on numpy arrays (a second reference beside Open3D): rtcIntersect1M and rtcOccluded1M over the rays, split
    across Python threads (ctypes releases the GIL during the call). Default build quality,
    native ISA, as Open3D uses it. Packing the rays into Embree's records is timed too, as
    Open3D does it inside its call."""

    RAY = np.dtype({"names": ["org", "tnear", "dir", "time", "tfar", "mask", "id", "flags",
                              "Ng", "u", "v", "primID", "geomID", "instID"],
                    "formats": [("<f4", 3), "<f4", ("<f4", 3), "<f4", "<f4", "<u4", "<u4", "<u4",
                                ("<f4", 3), "<f4", "<f4", "<u4", "<u4", "<u4"],
                    "offsets": [0, 12, 16, 28, 32, 36, 40, 44, 48, 60, 64, 68, 72, 76], "itemsize": 80})

    class Context(ctypes.Structure):
        _fields_ = [("flags", ctypes.c_int), ("filter", ctypes.c_void_p), ("instID", ctypes.c_uint)]

    def __init__(self, vertices, triangles):
        lib = self.lib = ctypes.CDLL("libembree3.so.3")
        for name, result, arguments in [
                ("rtcNewDevice", ctypes.c_void_p, [ctypes.c_char_p]),
                ("rtcNewScene", ctypes.c_void_p, [ctypes.c_void_p]),
                ("rtcNewGeometry", ctypes.c_void_p, [ctypes.c_void_p, ctypes.c_int]),
                ("rtcSetSharedGeometryBuffer", None, [ctypes.c_void_p, ctypes.c_int, ctypes.c_uint, ctypes.c_int,
                                                      ctypes.c_void_p, ctypes.c_size_t, ctypes.c_size_t,
                                                      ctypes.c_size_t]),
                ("rtcCommitGeometry", None, [ctypes.c_void_p]),
                ("rtcAttachGeometry", ctypes.c_uint, [ctypes.c_void_p, ctypes.c_void_p]),
                ("rtcReleaseGeometry", None, [ctypes.c_void_p]),
                ("rtcCommitScene", None, [ctypes.c_void_p]),
                ("rtcIntersect1M", None, [ctypes.c_void_p, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_uint,
                                          ctypes.c_size_t]),
                ("rtcOccluded1M", None, [ctypes.c_void_p, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_uint,
                                         ctypes.c_size_t])]:
            getattr(lib, name).restype = result
            getattr(lib, name).argtypes = arguments
        # Embree reads vertices 16 bytes at a time: one float of padding after the last.
        self.vertices = np.zeros(vertices.size + 1, np.float32)
        self.vertices[:-1] = vertices.ravel()
        self.triangles = np.ascontiguousarray(triangles, np.uint32)
        self.device = lib.rtcNewDevice(None)
        self.scene = lib.rtcNewScene(self.device)
        geometry = lib.rtcNewGeometry(self.device, 0)
        lib.rtcSetSharedGeometryBuffer(geometry, 1, 0, 0x9003, self.vertices.ctypes.data, 0, 12, len(vertices))
        lib.rtcSetSharedGeometryBuffer(geometry, 0, 0, 0x5003, self.triangles.ctypes.data, 0, 12, len(triangles))
        lib.rtcCommitGeometry(geometry)
        lib.rtcAttachGeometry(self.scene, geometry)
        lib.rtcReleaseGeometry(geometry)
        lib.rtcCommitScene(self.scene)

    def _run(self, call, origins, directions, threads, tmin=0.0, tmax=np.inf):
        records = np.empty(len(origins), self.RAY)
        records["org"], records["dir"] = origins, directions
        records["tnear"], records["tfar"], records["time"] = tmin, tmax, 0.0
        records["mask"], records["flags"], records["geomID"] = 0xFFFFFFFF, 0, 0xFFFFFFFF
        chunks = np.array_split(np.arange(len(records)), max(1, threads))

        def work(chunk):
            if len(chunk):
                context = self.Context(0, None, 0xFFFFFFFF)
                call(self.scene, ctypes.byref(context), records[chunk[0]:].ctypes.data, len(chunk), 80)

        if len(chunks) == 1:
            work(chunks[0])
        else:
            workers = [threading.Thread(target=work, args=(c,)) for c in chunks]
            for w in workers:
                w.start()
            for w in workers:
                w.join()
        return records

    def intersect(self, origins, directions, threads):
        records = self._run(self.lib.rtcIntersect1M, origins, directions, threads)
        return np.where(records["geomID"] == 0xFFFFFFFF, np.inf, records["tfar"])

    def occluded(self, origins, directions, threads):
        return self._run(self.lib.rtcOccluded1M, origins, directions, threads)["tfar"] == -np.inf


def open3d_hits(o3d):
    """Whether Open3D's cast_rays finds a triangle straight ahead of a ray."""
    scene = o3d.t.geometry.RaycastingScene()
    scene.add_triangles(o3d.core.Tensor(np.array([[0, 0, 0], [1, 0, 0], [0, 1, 0]], np.float32)),
                        o3d.core.Tensor(np.array([[0, 1, 2]], np.uint32)))
    ray = o3d.core.Tensor(np.array([[0.2, 0.2, 1, 0, 0, -1]], np.float32))
    return bool(np.isfinite(scene.cast_rays(ray)["t_hit"].numpy()[0]))


def unmask_open3d(o3d, fix):
    """Runs the script again with the ray-mask fix preloaded when Open3D misses everything."""
    if open3d_hits(o3d):
        return
    preloaded = os.environ.get("LD_PRELOAD", "")
    if os.path.basename(fix) in preloaded:
        sys.exit(f"Open3D's cast_rays misses a ray through a lone triangle even with {fix} preloaded")
    if not os.path.isfile(fix):
        sys.exit(f"Open3D's cast_rays misses every triangle (its rays carry mask 0 into Debian's Embree) and "
                 f"the fix {fix} is not there: build it with scripts/python.sh or name it with --open3d-ray-mask")
    print(f"Open3D's rays carry mask 0 into Debian's Embree and miss everything: running again with {fix} "
          "preloaded, which sets their masks to all ones", file=sys.stderr)
    sys.stderr.flush()
    environment = dict(os.environ, LD_PRELOAD=" ".join(filter(None, [os.path.abspath(fix), preloaded])))
    os.execve(sys.executable, [sys.executable] + sys.argv, environment)


def builders():
    names = ["linear", "sah"]
    try:
        kxbvh.QBVH(np.eye(3, dtype=np.float32), [[0, 1, 2]], builder="hq")
        names.append("hq")
    except ValueError:
        pass
    return names


def primary_rays(vertices, count, rng):
    """A pinhole camera outside the box, looking at its centre, one ray per pixel."""
    low, high = vertices.min(0), vertices.max(0)
    centre, radius = (low + high) / 2, np.linalg.norm(high - low) / 2
    back = np.array([0.55, 0.45, 0.7])
    back /= np.linalg.norm(back)
    eye = centre + 2.2 * radius * back
    right = np.cross([0.0, 1.0, 0.0], back)
    right /= np.linalg.norm(right)
    up = np.cross(back, right)
    side = int(np.sqrt(count))
    s = np.linspace(-0.5, 0.5, side)
    x, y = np.meshgrid(s, -s)
    directions = (x[..., None] * right + y[..., None] * up - back).reshape(-1, 3)
    origins = np.broadcast_to(eye, directions.shape)
    return np.concatenate([origins, directions], 1).astype(np.float32)


def incoherent_rays(vertices, count, rng):
    """From points in the box in random directions."""
    low, high = vertices.min(0), vertices.max(0)
    origins = rng.uniform(low, high, (count, 3))
    directions = rng.normal(size=(count, 3))
    return np.concatenate([origins, directions], 1).astype(np.float32)


def query_points(vertices, triangles, count, rng):
    """Half near the surface, half anywhere in the box grown by a tenth."""
    low, high = vertices.min(0), vertices.max(0)
    size = np.linalg.norm(high - low)
    corners = vertices[triangles[rng.integers(0, len(triangles), count // 2)]]
    weights = rng.dirichlet([1, 1, 1], count // 2)[..., None]
    near = (corners * weights).sum(1) + rng.normal(0, 0.01 * size, (count // 2, 3))
    far = rng.uniform(low - 0.1 * (high - low), high + 0.1 * (high - low), (count - count // 2, 3))
    return np.concatenate([near, far]).astype(np.float32)


def fastest(run, repeat):
    best = np.inf
    for _ in range(repeat):
        start = time.perf_counter()
        run()
        best = min(best, time.perf_counter() - start)
    return best


def race(sides, repeat):
    """Alternates the sides and keeps each one's fastest run."""
    best = {name: np.inf for name in sides}
    for _ in range(repeat):
        for name, run in sides.items():
            best[name] = min(best[name], fastest(run, 1))
    return best


def open3d_scene(o3d, vertices, triangles):
    scene = o3d.t.geometry.RaycastingScene()
    scene.add_triangles(o3d.core.Tensor.from_numpy(vertices), o3d.core.Tensor.from_numpy(triangles))
    scene.cast_rays(o3d.core.Tensor(np.zeros((1, 6), np.float32)))  # Embree builds lazily
    return scene


def open3d_closest_points_survive(vertices, triangles, points):
    """Debian's Open3D aborts on an Eigen assertion in compute_closest_points for some
    meshes: try it in a child process first."""
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "mesh.npz")
        np.savez(path, vertices=vertices, triangles=triangles, points=points[:1000])
        probe = ("import numpy as np, open3d as o3d, sys\n"
                 "m = np.load(sys.argv[1])\n"
                 "s = o3d.t.geometry.RaycastingScene()\n"
                 "s.add_triangles(o3d.core.Tensor(m['vertices']), o3d.core.Tensor(m['triangles']))\n"
                 "s.compute_closest_points(o3d.core.Tensor(m['points']))\n")
        return subprocess.run([sys.executable, "-c", probe, path], capture_output=True).returncode == 0


def same_t(a, b):
    """Share of rays where both miss or both hit at nearly the same distance."""
    return float(np.mean((np.isinf(a) & np.isinf(b)) | np.isclose(a, b, rtol=1e-3, atol=1e-5)))


def all_cores():
    return len(os.sched_getaffinity(0))


def bench_mesh(o3d, name, vertices, triangles, args, rows):
    rng = np.random.default_rng(1)
    trees = {}
    for builder in builders():
        start = time.perf_counter()
        trees[builder] = kxbvh.QBVH(vertices, triangles, builder=builder)
        print(f"  {builder} build {time.perf_counter() - start:.2f} s", file=sys.stderr)
    scene = open3d_scene(o3d, vertices, triangles)
    embree = Embree(vertices, triangles)
    ray_sets = {"primary": primary_rays(vertices, args.rays, rng),
                "incoherent": incoherent_rays(vertices, args.rays, rng)}
    points = query_points(vertices, triangles, args.points, rng)
    point_tensor = o3d.core.Tensor.from_numpy(points)
    tree = next(iter(trees.values()))
    open3d_closest = hasattr(tree, "closest_points") and open3d_closest_points_survive(vertices, triangles, points)

    for threads in (1, 0):
        embree_threads = threads or all_cores()
        for kind, rays in ray_sets.items():
            origins, directions = rays[:, :3], rays[:, 3:]
            tensor = o3d.core.Tensor.from_numpy(rays)
            truth = embree.intersect(origins, directions, embree_threads)
            sides = {f"kxbvh {b}": (lambda t=t: t.intersect(origins, directions, threads=threads))
                     for b, t in trees.items()}
            sides["Embree"] = lambda: embree.intersect(origins, directions, embree_threads)
            sides["Open3D"] = lambda: scene.cast_rays(tensor, nthreads=threads)
            same = {"kxbvh": same_t(tree.intersect(origins, directions, threads=threads)["t"], truth),
                    "Open3D": same_t(scene.cast_rays(tensor, nthreads=threads)["t_hit"].numpy(), truth)}
            add_row(rows, name, len(triangles), f"intersect, {kind}", threads, len(rays), race(sides, args.repeat),
                    same)
            if hasattr(tree, "occluded"):
                truth = embree.occluded(origins, directions, embree_threads)
                sides = {f"kxbvh {b}": (lambda t=t: t.occluded(origins, directions, threads=threads))
                         for b, t in trees.items()}
                sides["Embree"] = lambda: embree.occluded(origins, directions, embree_threads)
                sides["Open3D"] = lambda: scene.test_occlusions(tensor, nthreads=threads)
                same = {"kxbvh": float(np.mean(tree.occluded(origins, directions, threads=threads) == truth)),
                        "Open3D": float(np.mean(scene.test_occlusions(tensor, nthreads=threads).numpy() == truth))}
                add_row(rows, name, len(triangles), f"occluded, {kind}", threads, len(rays),
                        race(sides, args.repeat), same)
        if hasattr(tree, "closest_points"):
            sides = {f"kxbvh {b}": (lambda t=t: t.closest_points(points, threads=threads)) for b, t in trees.items()}
            same = {}
            if open3d_closest:
                truth = np.linalg.norm(scene.compute_closest_points(point_tensor, nthreads=threads)["points"].numpy()
                                       - points, axis=1)
                sides["Open3D"] = lambda: scene.compute_closest_points(point_tensor, nthreads=threads)
                ours = tree.closest_points(points, threads=threads)["distance"]
                same = {"kxbvh vs Open3D": float(np.mean(np.isclose(ours, truth, rtol=1e-3, atol=1e-5)))}
            add_row(rows, name, len(triangles), "closest_points", threads, len(points), race(sides, args.repeat),
                    same)


def add_row(rows, name, triangles, query, threads, count, seconds, same):
    ours = {side[6:]: s for side, s in seconds.items() if side.startswith("kxbvh ")}
    best = min(ours, key=ours.get)
    rate = {side: count / s / 1e6 for side, s in seconds.items()}
    rows.append(dict(mesh=name, triangles=triangles, query=query, threads="1" if threads == 1 else "all",
                     ours=count / ours[best] / 1e6, tree=best, embree=rate.get("Embree"), open3d=rate.get("Open3D"),
                     same=same))
    print(f"  {query:24} threads {rows[-1]['threads']:3}: " + ", ".join(f"{k} {v:.2f}" for k, v in rate.items()) +
          " M/s; same answer as Embree: " + ", ".join(f"{k} {v:.2%}" for k, v in same.items()), file=sys.stderr)


def ratio(ours, theirs):
    return f"{ours / theirs:.2f}×" if theirs else "–"


def print_table(rows, o3d):
    unmasked = " (ray masks set by kxOpen3DRayMask)" if "kxOpen3DRayMask" in os.environ.get("LD_PRELOAD", "") else ""
    print(f"\nkxbvh {kxbvh.__version__}, Open3D {o3d.__version__}{unmasked}, Embree 3 "
          f"through ctypes, {all_cores()} cores; millions of queries per second, the fastest of our trees\n")
    print("| mesh | triangles | query | threads | kxbvh | tree | Embree | Open3D | kxbvh / Embree | kxbvh / Open3D |")
    print("|---|---:|---|---|---:|---|---:|---:|---:|---:|")
    for r in rows:
        embree = f"{r['embree']:.2f}" if r["embree"] else "–"
        open3d = f"{r['open3d']:.2f}" if r["open3d"] else "aborts"
        print(f"| {r['mesh']} | {r['triangles']:,} | {r['query']} | {r['threads']} | {r['ours']:.2f} | {r['tree']} | "
              f"{embree} | {open3d} | {ratio(r['ours'], r['embree'])} | {ratio(r['ours'], r['open3d'])} |")
    print("\nsame answer as Embree, share of queries, one thread: " + "; ".join(
        f"{r['mesh']} {r['query']} {r['threads']}: " + ", ".join(f"{k} {v:.1%}" for k, v in r["same"].items())
        for r in rows if r["threads"] == "1"))


def binding_overhead(reference, args):
    """intersect on one thread against the C++ loop of kxbvhReference, same tree, same rays."""
    vertices, triangles = kxbvh.demo_scene()
    rays = primary_rays(vertices, args.rays, np.random.default_rng(2))
    tree = kxbvh.QBVH(vertices, triangles)
    origins, directions = rays[:, :3].copy(), rays[:, 3:].copy()
    with tempfile.TemporaryDirectory() as folder:
        files = [os.path.join(folder, n) for n in ("v.bin", "t.bin", "rays.bin", "out.bin")]
        vertices.tofile(files[0])
        triangles.tofile(files[1])
        rays.tofile(files[2])
        python_best = cpp_best = np.inf
        for _ in range(args.repeat):
            out = subprocess.run([reference, "intersect", "linear", "4", *files, "repeat=2"],
                                 check=True, capture_output=True, text=True).stdout
            cpp_best = min(cpp_best, float(out.split()[-1]))
            python_best = min(python_best, fastest(lambda: tree.intersect(origins, directions, threads=1), 2))
    return len(rays), python_best, cpp_best


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("meshes", nargs="*", help="mesh files (default: built-in scene and assimp-testmodels)")
    parser.add_argument("--rays", type=int, default=1_000_000)
    parser.add_argument("--points", type=int, default=200_000)
    parser.add_argument("--repeat", type=int, default=3)
    parser.add_argument("--reference", help="kxbvhReference program, to measure the binding's overhead")
    parser.add_argument("--open3d-ray-mask", default=os.path.join(REPO, "build-python/python/libkxOpen3DRayMask.so"),
                        help="library preloaded to give Open3D's rays a mask that hits (default: %(default)s)")
    args = parser.parse_args()
    import open3d as o3d
    unmask_open3d(o3d, args.open3d_ray_mask)

    sources = args.meshes or ["built-in"] + [os.path.join(MODELS, m) for m in REAL_MESHES]
    rows = []
    for source in sources:
        if source == "built-in":
            name, (vertices, triangles) = "built-in scene", kxbvh.demo_scene()
        elif os.path.exists(source):
            name, (vertices, triangles) = os.path.basename(source), kxbvh.load(source)
        else:
            print(f"skipping {source}: not found", file=sys.stderr)
            continue
        print(f"{name}: {len(triangles):,} triangles", file=sys.stderr)
        bench_mesh(o3d, name, vertices, triangles, args, rows)

    print_table(rows, o3d)
    if args.reference:
        count, python_seconds, cpp_seconds = binding_overhead(args.reference, args)
        print(f"\nbinding overhead, built-in scene, {count:,} primary rays, one thread, linear tree: "
              f"intersect {python_seconds * 1e3:.1f} ms, C++ loop {cpp_seconds * 1e3:.1f} ms, "
              f"{(python_seconds / cpp_seconds - 1) * 100:+.1f} %")


if __name__ == "__main__":
    main()
