import os
from typing import Literal, TypedDict, Union

import numpy as np
import numpy.typing as npt

__version__: str

_Path = Union[str, bytes, os.PathLike[str], os.PathLike[bytes]]
_Real = npt.ArrayLike
_Side = Literal["all", "front", "back"]
_Builder = Literal["linear", "sah", "hq"]

class Nearest(TypedDict):
    distance: npt.NDArray[np.float32]
    point: npt.NDArray[np.float32]
    triangle: npt.NDArray[np.uint32]
    barycentric: npt.NDArray[np.float32]

class Hits(TypedDict):
    t: npt.NDArray[np.float32]
    triangle: npt.NDArray[np.uint32]
    barycentric: npt.NDArray[np.float32]

def load(path: _Path) -> tuple[npt.NDArray[np.float32], npt.NDArray[np.uint32]]:
    """Reads a mesh file (any format assimp knows), all meshes merged with their node
    transforms. Returns (vertices (V, 3) float32, triangles (T, 3) uint32). OSError naming
    the path when it cannot be read."""

def demo_scene(triangles: int = 1_000_000) -> tuple[npt.NDArray[np.float32], npt.NDArray[np.uint32]]:
    """The kxbvh tool's built-in scene of about `triangles` triangles (100 to 50,000,000)."""

class QBVH:
    """A four-wide BVH over a triangle mesh. Queries take (..., 3) batches, run on every core
    by default without the GIL and stop with KeyboardInterrupt on Ctrl-C."""

    def __init__(self, vertices: _Real, triangles: _Real, builder: _Builder = "linear", leaf: int = 4) -> None:
        """vertices (V, 3) real numbers, triangles (T, 3) integer indices into them. builder
        "linear", "sah" or "hq"; leaf is the largest leaf of the linear and hq builders (1 to 1024)."""

    def intersect(
        self,
        origins: _Real,
        directions: _Real,
        tmin: float = 0.0,
        tmax: float = float("inf"),
        side: _Side = "all",
        threads: int = 0,
    ) -> Hits:
        """Nearest hit per ray with tmin <= t <= tmax: t (inf on a miss), triangle (0xFFFFFFFF
        on a miss), barycentric (weights of corners 0 and 1)."""

    def intersect_symmetric(
        self, origins: _Real, directions: _Real, tmax: float = float("inf"), threads: int = 0
    ) -> Hits:
        """Each ray as a line: the nearest front-facing crossing ahead or behind, t >= 0."""

    def occluded(
        self,
        origins: _Real,
        directions: _Real,
        tmin: float = 0.0,
        tmax: float = float("inf"),
        side: _Side = "all",
        threads: int = 0,
    ) -> npt.NDArray[np.bool_]:
        """Per ray, whether intersect would hit; stops at the first accepted triangle."""

    def closest_points(self, points: _Real, max_distance: float = float("inf"), threads: int = 0) -> Nearest:
        """Nearest point of the mesh per point within max_distance: distance (inf when none),
        point (NaN then), triangle (0xFFFFFFFF then), barycentric (weights of corners 0 and 1)."""

    def convex_hull(self, planes: _Real, threads: int = 0) -> Union[bool, npt.NDArray[np.bool_]]:
        """(K, 4) planes (a, b, c, d), inside where a x + b y + c z + d > 0: whether any
        triangle reaches strictly inside all of them (a bool). A batch (..., K, 4) of plane
        sets gives a bool array of shape (...)."""

    def info(self) -> dict[str, dict[str, object]]:
        """The figures `kxbvh info --json` prints: mesh, build, bvh, qbvh, memory."""
