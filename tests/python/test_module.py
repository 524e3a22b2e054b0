"""The module's surface: batch shapes, threads, meshes in and out, figures, Ctrl-C and the
exception every bad input gets."""

import _thread
import json
import logging
import signal
import subprocess
import threading
import time

import numpy as np
import pytest

import kxbvh
from conftest import convex_sets, meshes, rays, soup


@pytest.fixture(scope="module")
def scene():
    vertices, triangles = kxbvh.demo_scene(20_000)
    return vertices, triangles, kxbvh.QBVH(vertices, triangles)


def camera_rays(height, width):
    y, x = np.meshgrid(np.linspace(-1, 1, height), np.linspace(-1, 1, width), indexing="ij")
    directions = np.stack([x, y * 0.6 - 0.3, -np.ones_like(x)], -1)
    return np.array([0.0, 4.0, 16.0], np.float32), directions.astype(np.float32)


def strided(array):
    wide = np.zeros(array.shape[:-1] + (2 * array.shape[-1],), array.dtype)
    wide[..., ::2] = array
    return wide[..., ::2]


def test_batches_of_any_shape_and_layout_give_the_flat_answers(scene):
    _, _, bvh = scene
    origin, directions = camera_rays(24, 32)
    flat = bvh.intersect(np.tile(origin, (24 * 32, 1)), directions.reshape(-1, 3))
    assert 0.2 < np.isfinite(flat["t"]).mean() < 0.95
    rays6 = np.concatenate([np.broadcast_to(origin, directions.shape), directions], -1)
    variants = [
        (origin, directions),  # one origin for every ray
        (np.broadcast_to(origin, directions.shape), directions),
        (origin.astype(np.float64), directions.astype(np.float64)),
        (origin, np.asfortranarray(directions.reshape(-1, 3)).reshape(24, 32, 3)),
        (origin, strided(directions)),
        (rays6[..., :3], rays6[..., 3:]),  # rays as Open3D takes them, read where they are
        (origin, directions.astype(">f4")),
        (origin, np.stack([directions, directions], 1)[:, 0]),  # rows in no one step
    ]
    for origins, dirs in variants:
        hits = bvh.intersect(origins, dirs)
        assert hits["t"].shape == (24, 32) and hits["barycentric"].shape == (24, 32, 2)
        assert hits["t"].dtype == np.float32 and hits["triangle"].dtype == np.uint32
        for field in ("t", "triangle", "barycentric"):
            np.testing.assert_array_equal(hits[field].reshape(flat[field].shape), flat[field])
    backwards = bvh.intersect(rays6[::-1, ::-2, :3], rays6[::-1, ::-2, 3:])["t"]
    np.testing.assert_array_equal(backwards, flat["t"].reshape(24, 32)[::-1, ::-2])
    single = bvh.intersect(origin, directions[3, 5])
    assert single["t"].shape == () and single["barycentric"].shape == (2,)
    assert single["t"] == flat["t"][3 * 32 + 5]
    assert bvh.occluded(origin, directions).shape == (24, 32)
    assert bvh.occluded(origin, directions).tolist() == np.isfinite(flat["t"]).reshape(24, 32).tolist()
    assert bvh.closest_points(directions)["point"].shape == (24, 32, 3)
    assert bvh.closest_points(np.zeros((0, 3)))["distance"].shape == (0,)
    assert bvh.occluded(np.zeros((0, 3)), np.zeros((0, 3))).shape == (0,)
    for query in (bvh.intersect, bvh.intersect_symmetric):
        empty = query(np.zeros((0, 3)), np.zeros((0, 3)))
        assert empty["t"].shape == (0,) and empty["barycentric"].shape == (0, 2)
        assert query(np.zeros((2, 0, 3)), np.zeros((2, 0, 3)))["triangle"].shape == (2, 0)
        assert query(origin, np.zeros((0, 3)))["t"].shape == (0,)
        assert query(np.zeros((0, 3)), directions[0, 0])["t"].shape == (0,)
    assert bvh.convex_hull(np.zeros((0, 6, 4))).shape == (0,)
    assert bvh.convex_hull(np.zeros((2, 3, 0, 4))).shape == (2, 3)


def test_misses_carry_infinity_and_no_triangle(scene):
    _, _, bvh = scene
    hits = bvh.intersect([[0, 100, 0], [0, 0, 0], [np.nan, 0, 0]], [[0, 1, 0], [0, 0, 0], [0, -1, 0]])
    assert np.all(np.isinf(hits["t"])) and np.all(hits["triangle"] == 0xFFFFFFFF)
    assert np.all(hits["barycentric"] == 0)


def test_a_batch_split_over_threads_equals_the_single_thread_answer(scene):
    vertices, triangles, bvh = scene
    rng = np.random.default_rng(3)
    origins, directions = rays(rng, vertices, triangles, 30_000)
    sets = convex_sets(rng, 600, vertices.min(0), vertices.max(0))
    one = bvh.intersect(origins, directions, threads=1)
    symmetric = bvh.intersect_symmetric(origins, directions, threads=1)
    blocked = bvh.occluded(origins, directions, tmax=5.0, threads=1)
    nearest = bvh.closest_points(origins, threads=1)
    inside = bvh.convex_hull(sets, threads=1)
    assert 0.1 < np.isfinite(one["t"]).mean() < 1.0 and 0 < inside.sum() < len(sets)
    for threads in (0, 2, 5):
        many = bvh.intersect(origins, directions, threads=threads)
        for field in ("t", "triangle", "barycentric"):
            np.testing.assert_array_equal(many[field], one[field])
        np.testing.assert_array_equal(bvh.intersect_symmetric(origins, directions, threads=threads)["t"],
                                      symmetric["t"])
        np.testing.assert_array_equal(bvh.convex_hull(sets, threads=threads), inside)
        np.testing.assert_array_equal(bvh.occluded(origins, directions, tmax=5.0, threads=threads), blocked)
        many = bvh.closest_points(origins, threads=threads)
        for field in ("distance", "point", "triangle", "barycentric"):
            np.testing.assert_array_equal(many[field], nearest[field])


def test_vertex_and_index_dtypes_build_the_same_hierarchy():
    vertices, triangles = meshes(21)["terrain"]
    origin = np.array([5.0, 8.0, 5.0], np.float32)
    spread = np.linspace(-0.3, 0.3, 8)
    directions = np.stack(np.broadcast_arrays(spread[:, None], -1.0, spread[None, :]), -1)
    expected = kxbvh.QBVH(vertices, triangles).intersect(origin, directions)
    assert np.isfinite(expected["t"]).all()
    for v, t in [(vertices.astype(np.float64), triangles.astype(np.int64)),
                 (np.asfortranarray(vertices), triangles.astype(np.int16)),
                 (vertices.astype(np.float64)[::-1][::-1], np.asfortranarray(triangles.astype(np.uint64))),
                 (vertices.tolist(), triangles.tolist())]:
        hits = kxbvh.QBVH(v, t).intersect(origin, directions)
        np.testing.assert_array_equal(hits["triangle"], expected["triangle"])
        np.testing.assert_array_equal(hits["t"], expected["t"])


def write_obj(path, vertices, triangles):
    with open(path, "w") as f:
        f.writelines(f"v {x!r} {y!r} {z!r}\n" for x, y, z in vertices.astype(np.float64))
        f.writelines(f"f {a + 1} {b + 1} {c + 1}\n" for a, b, c in triangles)


def test_load_reads_the_triangles_that_were_written(tmp_path):
    vertices, triangles = meshes(5)["terrain"]
    path = tmp_path / "terrain.obj"
    write_obj(path, vertices, triangles)
    loaded_vertices, loaded_triangles = kxbvh.load(path)
    assert loaded_vertices.dtype == np.float32 and loaded_triangles.dtype == np.uint32
    assert loaded_vertices.shape[1] == 3 and loaded_triangles.shape == triangles.shape
    np.testing.assert_array_equal(loaded_vertices[loaded_triangles], vertices[triangles])
    assert kxbvh.load(str(path).encode())[1].shape == triangles.shape


def test_demo_scene_has_the_size_asked_for_and_is_the_same_each_time():
    for size in (2_000, 5_000, 40_000):
        vertices, triangles = kxbvh.demo_scene(size)
        assert abs(len(triangles) - size) <= 0.1 * size
        assert triangles.max() < len(vertices) and np.isfinite(vertices).all()
    again = kxbvh.demo_scene(5_000)
    np.testing.assert_array_equal(again[0], kxbvh.demo_scene(5_000)[0])


@pytest.mark.parametrize("builder", ["linear", "sah", "hq"])
def test_info_reports_what_the_tool_reports_for_the_same_file(tool, tmp_path, builder):
    vertices, triangles = soup(np.random.default_rng(4), triangles=3000)
    path = tmp_path / "soup.obj"
    write_obj(path, vertices, triangles)
    theirs = json.loads(subprocess.run([tool, "info", str(path), "--json", "--builder", builder],
                                       check=True, capture_output=True, text=True).stdout)
    ours = kxbvh.QBVH(*kxbvh.load(path), builder=builder).info()
    for figures in (ours, theirs):
        del figures["mesh"]["source"], figures["mesh"]["seconds"], figures["build"]["seconds"]
        del figures["build"]["peak_bytes"]
    for section in theirs:
        for key, value in theirs[section].items():
            mine = ours[section][key]
            if isinstance(value, dict):
                for end in value:
                    assert list(mine[end]) == pytest.approx(value[end], rel=1e-6), (section, key, end)
            else:
                assert mine == pytest.approx(value, rel=1e-6), (section, key)
    assert ours["build"]["builder"] == builder and ours["mesh"]["triangles"] == 3000


def test_the_library_log_goes_to_python_logging(caplog):
    vertices, triangles = soup(np.random.default_rng(2), triangles=100)
    with caplog.at_level(logging.INFO, logger="kxbvh"):
        kxbvh.QBVH(vertices, triangles)
    assert any(r.name == "kxbvh.bvh" and "primitives" in r.getMessage() for r in caplog.records)


@pytest.fixture
def ctrl_c():
    """Python's own Ctrl-C handler, whatever the test runner inherited: a runner started in
    the background ignores SIGINT, and simulated presses then do nothing."""
    previous = signal.signal(signal.SIGINT, signal.default_int_handler)
    yield
    signal.signal(signal.SIGINT, previous)


class InterruptOnFirstLine(logging.Handler):
    """Presses Ctrl-C from inside the build, as soon as the builder writes its first line."""

    def emit(self, record):
        if not getattr(self, "pressed", False):
            self.pressed = True
            _thread.interrupt_main()


def test_ctrl_c_stops_a_build_with_keyboard_interrupt(ctrl_c):
    vertices, triangles = kxbvh.demo_scene(200_000)
    logger = logging.getLogger("kxbvh")
    handler = InterruptOnFirstLine()
    logger.addHandler(handler)
    previous = logger.level
    logger.setLevel(logging.INFO)
    try:
        with pytest.raises(KeyboardInterrupt):
            kxbvh.QBVH(vertices, triangles)
        assert handler.pressed
    finally:
        logger.removeHandler(handler)
        logger.setLevel(previous)
    assert kxbvh.QBVH(vertices, triangles).info()["mesh"]["triangles"] == len(triangles)


def test_ctrl_c_stops_a_query_batch_with_keyboard_interrupt(scene, ctrl_c):
    _, _, bvh = scene
    directions = np.random.default_rng(5).normal(size=(3_000_000, 3)).astype(np.float32)
    timer = threading.Timer(0.05, _thread.interrupt_main)
    timer.start()
    with pytest.raises(KeyboardInterrupt) as raised:
        bvh.intersect([0, 1, 0], directions, threads=1)
        time.sleep(10)  # only reached if the batch ended before the interrupt
    timer.join()
    assert raised.traceback[-1].statement.lines[-1].strip().startswith("bvh.intersect(")


def test_ctrl_c_stops_the_scene_generator_with_keyboard_interrupt(ctrl_c):
    timer = threading.Timer(0.05, _thread.interrupt_main)
    timer.start()
    with pytest.raises(KeyboardInterrupt) as raised:
        kxbvh.demo_scene(20_000_000)
        time.sleep(10)  # only reached if the scene was done before the interrupt
    timer.join()
    assert raised.traceback[-1].statement.lines[-1].strip().startswith("kxbvh.demo_scene(")
    assert len(kxbvh.demo_scene(1_000)[1]) > 0


GOOD_VERTICES = np.array([[0, 0, 0], [1, 0, 0], [0, 1, 0]], np.float32)
GOOD_TRIANGLES = np.array([[0, 1, 2]], np.uint32)


def nan_vertices():
    v = GOOD_VERTICES.copy()
    v[2, 1] = np.nan
    return v


@pytest.mark.parametrize("arguments,error,words", [
    ((GOOD_VERTICES[:, :2], GOOD_TRIANGLES), ValueError, ["vertices", "(V, 3)", "(3, 2)"]),
    ((GOOD_VERTICES.ravel(), GOOD_TRIANGLES), ValueError, ["vertices", "(9,)"]),
    ((GOOD_VERTICES, GOOD_TRIANGLES.ravel()), ValueError, ["triangles", "(T, 3)", "(3,)"]),
    ((GOOD_VERTICES.astype(complex), GOOD_TRIANGLES), TypeError, ["vertices", "complex128"]),
    ((np.array([["a", "b", "c"]] * 3), GOOD_TRIANGLES), TypeError, ["vertices", "<U1"]),
    ((GOOD_VERTICES, GOOD_TRIANGLES.astype(np.float32)), TypeError, ["triangles", "integers", "float32"]),
    ((GOOD_VERTICES, GOOD_TRIANGLES.astype(bool)), TypeError, ["triangles", "bool"]),
    ((GOOD_VERTICES, [[0, 1, 2], [0, 3, 1]]), ValueError, ["triangles[1]", "vertex 3", "0 to 2"]),
    ((GOOD_VERTICES, [[0, 1, 2], [0, -1, 1]]), ValueError, ["triangles[1]", "vertex -1"]),
    ((GOOD_VERTICES, np.array([[0, 1, 2**40]])), ValueError, ["triangles[0]", str(2**40)]),
    ((nan_vertices(), GOOD_TRIANGLES), ValueError, ["vertices[2]", "nan"]),
    ((GOOD_VERTICES.astype(np.float64) * 1e300, GOOD_TRIANGLES), ValueError, ["vertices[1]", "float32"]),
    ((GOOD_VERTICES, np.zeros((0, 3), np.uint32)), ValueError, ["triangles", "empty", "(0, 3)"]),
    ((np.zeros((0, 3)), GOOD_TRIANGLES), ValueError, ["vertices is empty"]),
    ((GOOD_VERTICES, GOOD_TRIANGLES, "bvh"), ValueError, ["builder", "'bvh'"]),
    ((GOOD_VERTICES, GOOD_TRIANGLES, "linear", 0), ValueError, ["leaf", "1 and 1024", "0"]),
    ((GOOD_VERTICES, GOOD_TRIANGLES, "linear", 1025), ValueError, ["leaf", "1025"]),
    ((GOOD_VERTICES, GOOD_TRIANGLES, "sah", 8), ValueError, ["leaf", "SAH builder"]),
])
def test_bad_meshes_raise_the_named_exception(arguments, error, words):
    with pytest.raises(error) as raised:
        kxbvh.QBVH(*arguments)
    for word in words:
        assert word in str(raised.value)


@pytest.mark.parametrize("call,error,words", [
    (lambda b: b.intersect(np.zeros((5, 2)), np.ones((5, 3))), ValueError, ["origins", "(..., 3)", "(5, 2)"]),
    (lambda b: b.intersect(np.zeros((5, 3)), np.ones(2)), ValueError, ["directions", "(2,)"]),
    (lambda b: b.intersect(np.zeros((4, 3)), np.ones((5, 3))), ValueError, ["same shape", "(4, 3)", "(5, 3)"]),
    (lambda b: b.intersect(np.zeros((5, 3)), np.ones((5, 3), complex)), TypeError, ["directions", "complex"]),
    (lambda b: b.intersect([["x", "y", "z"]], np.ones(3)), TypeError, ["origins"]),
    (lambda b: b.intersect(np.zeros(3), np.ones(3), side="left"), ValueError, ["side", "'left'"]),
    (lambda b: b.intersect(np.zeros(3), np.ones(3), tmin=2.0, tmax=1.0), ValueError, ["tmin", "tmax"]),
    (lambda b: b.intersect(np.zeros(3), np.ones(3), tmax=np.nan), ValueError, ["tmax", "nan"]),
    (lambda b: b.intersect(np.zeros(3), np.ones(3), threads=-1), ValueError, ["threads", "-1"]),
    (lambda b: b.intersect(np.zeros(3), np.ones(3), threads=1.5), TypeError, []),
    (lambda b: b.intersect_symmetric(np.zeros(3), np.ones(3), tmax=-1.0), ValueError, ["tmax", "negative"]),
    (lambda b: b.intersect_symmetric(np.zeros((2, 4)), np.ones(3)), ValueError, ["origins", "(2, 4)"]),
    (lambda b: b.occluded(np.zeros((5, 2)), np.ones((5, 3))), ValueError, ["origins", "(5, 2)"]),
    (lambda b: b.occluded(np.zeros(3), np.ones(3), tmin=1.0, tmax=0.5), ValueError, ["tmin", "tmax"]),
    (lambda b: b.occluded(np.zeros(3), np.ones(3), side="top"), ValueError, ["side", "'top'"]),
    (lambda b: b.closest_points(np.zeros((5, 2))), ValueError, ["points", "(..., 3)", "(5, 2)"]),
    (lambda b: b.closest_points(np.zeros(3, complex)), TypeError, ["points", "complex"]),
    (lambda b: b.closest_points(np.zeros(3), max_distance=-1.0), ValueError, ["max_distance", "negative"]),
    (lambda b: b.closest_points(np.zeros(3), max_distance=np.nan), ValueError, ["max_distance", "nan"]),
    (lambda b: b.closest_points(np.zeros(3), threads=-2), ValueError, ["threads", "-2"]),
    (lambda b: b.convex_hull(np.zeros(4)), ValueError, ["planes", "(K, 4)", "(4,)"]),
    (lambda b: b.convex_hull(np.zeros((6, 3))), ValueError, ["planes", "(6, 3)"]),
    (lambda b: b.convex_hull(np.full((2, 6, 4), np.nan)), ValueError, ["planes", "NaN"]),
    (lambda b: b.convex_hull(np.zeros((6, 4), object)), TypeError, ["planes", "object"]),
    (lambda b: kxbvh.demo_scene(10), ValueError, ["triangles", "100", "10"]),
    (lambda b: kxbvh.demo_scene(10**9), ValueError, ["50000000"]),
    (lambda b: kxbvh.load(12), TypeError, []),
])
def test_bad_query_arguments_raise_the_named_exception(call, error, words):
    bvh = kxbvh.QBVH(GOOD_VERTICES, GOOD_TRIANGLES)
    with pytest.raises(error) as raised:
        call(bvh)
    for word in words:
        assert word in str(raised.value)


def test_unreadable_files_raise_os_errors_naming_the_path(tmp_path):
    cases = {tmp_path / "missing.obj": FileNotFoundError, tmp_path: OSError}
    for name, content in {"empty.obj": "", "garbage.ply": "ply\nformat ascii 1.0\nnonsense\n",
                          "points.obj": "v 0 0 0\nv 1 0 0\n", "nan.obj": "v nan 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n",
                          "noise.stl": "\x00\x01 not a mesh at all"}.items():
        (tmp_path / name).write_text(content)
        cases[tmp_path / name] = OSError
    for path, error in cases.items():
        with pytest.raises(error) as raised:
            kxbvh.load(path)
        assert raised.value.filename == str(path)
        assert str(path) in str(raised.value)
