"""Shared meshes, rays and the C++ reference for the kxbvh module's tests.

KXBVH_REFERENCE names the kxbvhReference program and KXBVH_TOOL the kxbvh program of the
same build (scripts/test.sh sets both); tests that need one are skipped without it.
"""

import os
import subprocess

import numpy as np
import pytest


def soup(rng, triangles=150, extent=10.0, size=1.0, offset=0.0):
    """Random triangles of about `size` scattered in a cube, each with its own corners."""
    centres = rng.uniform(0.0, extent, (triangles, 1, 3))
    corners = centres + rng.normal(0.0, size, (triangles, 3, 3)) + offset
    return corners.reshape(-1, 3).astype(np.float32), np.arange(3 * triangles, dtype=np.uint32).reshape(-1, 3)


def terrain(rng, cells=12, extent=10.0):
    """A height field whose triangles share vertices and edges."""
    xs = np.linspace(0.0, extent, cells + 1)
    x, z = np.meshgrid(xs, xs, indexing="ij")
    y = rng.uniform(0.0, 1.5, x.shape)
    vertices = np.stack([x, y, z], axis=-1).reshape(-1, 3).astype(np.float32)
    i, j = np.meshgrid(np.arange(cells), np.arange(cells), indexing="ij")
    a = (i * (cells + 1) + j).ravel()
    b, c, d = a + 1, a + cells + 1, a + cells + 2
    triangles = np.concatenate([np.stack([a, b, c], 1), np.stack([b, d, c], 1)]).astype(np.uint32)
    return vertices, triangles


def meshes(seed):
    rng = np.random.default_rng(seed)
    return {"soup": soup(rng), "terrain": terrain(rng)}


def rays(rng, vertices, triangles, count):
    """Half aimed at triangle centroids from random points around the mesh, half random."""
    low, high = vertices.min(0) - 3.0, vertices.max(0) + 3.0
    origins = rng.uniform(low, high, (count, 3))
    targets = vertices[triangles[rng.integers(0, len(triangles), count)]].mean(1)
    directions = targets - origins
    directions[count // 2 :] = rng.normal(size=(count - count // 2, 3))
    directions *= rng.uniform(0.3, 3.0, (count, 1))
    return origins.astype(np.float32), directions.astype(np.float32)


def convex_sets(rng, count, low, high):
    """Random boxes, axis-aligned or turned, as sets of six planes (inside: a.p + d > 0)."""
    sets = []
    for k in range(count):
        frame = np.linalg.qr(rng.normal(size=(3, 3)))[0] if k % 2 else np.eye(3)
        centre = rng.uniform(low, high, 3)
        half = rng.uniform(0.3, 3.0, 3)
        planes = []
        for axis in range(3):
            for sign in (1.0, -1.0):
                normal = -sign * frame[axis]
                planes.append([*normal, half[axis] - normal @ centre])
        sets.append(planes)
    return np.asarray(sets, dtype=np.float32)


def _program(variable):
    path = os.environ.get(variable)
    if not path or not os.access(path, os.X_OK):
        pytest.skip(f"{variable} does not name a program of this build")
    return path


@pytest.fixture(scope="session")
def tool():
    return _program("KXBVH_TOOL")


@pytest.fixture(scope="session")
def reference(tmp_path_factory):
    program = _program("KXBVH_REFERENCE")
    folder = tmp_path_factory.mktemp("reference")

    def run(query, builder, leaf, vertices, triangles, data, **options):
        files = {name: folder / f"{name}.bin" for name in ("vertices", "triangles", "input", "output")}
        np.ascontiguousarray(vertices, np.float32).tofile(files["vertices"])
        np.ascontiguousarray(triangles, np.uint32).tofile(files["triangles"])
        np.ascontiguousarray(data, np.float32).tofile(files["input"])
        arguments = [program, query, builder, str(leaf)] + [str(files[n]) for n in files]
        arguments += [f"{key}={value}" for key, value in options.items()]
        subprocess.run(arguments, check=True, capture_output=True)
        if query in ("convex", "occluded"):
            return np.fromfile(files["output"], np.uint8).astype(bool)
        if query == "closest":
            record = np.dtype([("distance", "<f4"), ("point", "<f4", 3), ("triangle", "<u4"),
                               ("barycentric", "<f4", 2)])
            return np.fromfile(files["output"], record)
        record = np.dtype([("t", "<f4"), ("triangle", "<u4"), ("barycentric", "<f4", 2)])
        return np.fromfile(files["output"], record)

    return run
