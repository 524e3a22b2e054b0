"""Ray casting and region queries on triangle meshes, with numpy arrays in and out.

    import numpy as np, kxbvh
    vertices, triangles = kxbvh.demo_scene()          # or kxbvh.load("mesh.glb")
    bvh = kxbvh.QBVH(vertices, triangles, builder="sah")
    hits = bvh.intersect(origins, directions)          # (..., 3) in, (...) out
    hits["t"], hits["triangle"], hits["barycentric"]

Every query runs on all cores by default (threads=0) and releases the GIL.
"""

from ._kxbvh import QBVH, __version__, demo_scene, load

__all__ = ["QBVH", "demo_scene", "load", "__version__"]
