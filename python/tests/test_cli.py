"""The command line end to end on meshes made by Gmsh (holes, curved faces, mixed kinds,
groups) carrying point and cell data: every command keeps what its input held."""

import io
import os
import re
import shutil
import subprocess
import sys
import time

import numpy as np
import pytest

import tessel3d as t3
from tessel3d import io as mio
from tessel3d.cli import corner_solids, main
from tessel3d.elements import outer_faces
from tessel3d.progress import progress

gmsh = pytest.importorskip("gmsh", reason="python3-gmsh makes the meshes of these tests")

COMMANDS = ["info", "extrude", "quadratic", "linear", "hexsplit", "flip", "quality", "crack", "interpolate", "demo"]


def temperature(x):
    return 1 + x @ [1.0, 2.0, -3.0]


def run(capsys, *args):
    """(exit status, stdout, stderr) of the command line run in this process."""
    try:
        status = main([str(a) for a in args])
    except SystemExit as stop:
        status = stop.code
    out, err = capsys.readouterr()
    return status, out, err


def ok(capsys, *args):
    status, out, err = run(capsys, *args)
    assert status == 0, err
    return out


# ---- meshes made by Gmsh --------------------------------------------------------------------

def _gmsh_mesh(path, build, size):
    gmsh.initialize()
    gmsh.option.setNumber("General.Terminal", 0)
    try:
        groups = build(gmsh.model)
        for dim, tags, name in groups:
            gmsh.model.setPhysicalName(dim, gmsh.model.addPhysicalGroup(dim, tags), name)
        gmsh.option.setNumber("Mesh.MeshSizeMax", size)
        gmsh.model.mesh.generate(3)
        gmsh.write(str(path))
    finally:
        gmsh.finalize()


def _holed_block(model):
    """A 2 x 1 x 1 block with a cylindrical hole: TH4, outer faces in 'skin', the hole's in 'hole'."""
    occ = model.occ
    occ.cut([(3, occ.addBox(0, 0, 0, 2, 1, 1))], [(3, occ.addCylinder(1, 0.5, 0, 0, 0, 1, 0.25))])
    occ.synchronize()
    surfaces = [s for _, s in model.getEntities(2)]
    curved = [s for s in surfaces if model.getType(2, s) == "Cylinder"]
    return [(3, [model.getEntities(3)[0][1]], "solid"), (2, curved, "hole"),
            (2, [s for s in surfaces if s not in curved], "skin")]


def _layers(model):
    """Triangles and quadrangles swept up in two layers: W6 in 'wedges', H8 in 'bricks'."""
    geo = model.geo
    p = [geo.addPoint(x, y, 0, 0.25) for x, y in ((0, 0), (1, 0), (1, 1), (0, 1), (2, 0), (2, 1))]
    lines = [geo.addLine(p[a], p[b]) for a, b in ((0, 1), (1, 2), (2, 3), (3, 0), (1, 4), (4, 5), (5, 2))]
    s1 = geo.addPlaneSurface([geo.addCurveLoop([lines[0], lines[1], lines[2], lines[3]])])
    s2 = geo.addPlaneSurface([geo.addCurveLoop([lines[4], lines[5], lines[6], -lines[1]])])
    geo.mesh.setRecombine(2, s2)
    swept = geo.extrude([(2, s1), (2, s2)], 0, 0, 0.5, [2], recombine=True)
    geo.synchronize()
    volumes = [t for d, t in swept if d == 3]
    return [(3, volumes[:1], "wedges"), (3, volumes[1:], "bricks"), (2, [s1, s2], "base")]


def _cracked_block(model):
    """A 2 x 1 x 1 block holding the rectangle y = 0.5, x < 0.7 (area 0.7) as 'crack': it
    reaches the faces x = 0, z = 0 and z = 1; its front x = 0.7 ends on the outer boundary."""
    occ = model.occ
    rectangle = occ.addRectangle(0, 0, 0, 0.7, 1)
    occ.rotate([(2, rectangle)], 0, 0, 0, 1, 0, 0, np.pi / 2)
    occ.translate([(2, rectangle)], 0, 0.5, 0)
    occ.fragment([(3, occ.addBox(0, 0, 0, 2, 1, 1))], [(2, rectangle)])
    occ.synchronize()
    crack = [s for _, s in model.getEntities(2) if abs(model.getBoundingBox(2, s)[1] - 0.5) < 1e-6
             and abs(model.getBoundingBox(2, s)[4] - 0.5) < 1e-6]
    return [(3, [t for _, t in model.getEntities(3)], "solid"), (2, crack, "crack"),
            (2, [s for _, s in model.getEntities(2) if s not in crack], "skin")]


@pytest.fixture(scope="module")
def meshes(tmp_path_factory):
    """{name: (path of a .msh with groups, path of a .vtu with cell data)}, both with point
    data temperature (linear), velocity (vector) and node_id (integer)."""
    folder = tmp_path_factory.mktemp("gmsh")
    out = {}
    for name, build, size in (("block", _holed_block, 0.3), ("layers", _layers, 0.25), ("crack", _cracked_block, 0.2)):
        raw = folder / f"{name}-raw.msh"
        _gmsh_mesh(raw, build, size)
        m = mio.read(str(raw))
        x = m.coords
        m.point_data = {"temperature": temperature(x), "velocity": np.stack([x[:, 1], -x[:, 0], x[:, 2]], 1),
                        "node_id": np.arange(len(x), dtype=np.int64)}
        m.cell_data = {"weight": {t: np.arange(len(c)) + 0.5 for t, c in m.cells.items()}}
        paths = (folder / f"{name}.msh", folder / f"{name}.vtu")
        with pytest.warns(UserWarning):  # the Gmsh writer keeps no cell data over several types
            mio.write(str(paths[0]), m)
        mio.write(str(paths[1]), m)
        out[name] = paths
    return out


def _key_set(faces):
    return {tuple(sorted(int(n) for n in f if n != mio.ABSENT)) for f in faces}


def _named_positions_hold(mesh):
    """Every high-order node of every cell sits at the mean of the corners it is named by."""
    for name, cells in mesh.cells.items():
        for p, corners in enumerate(mio.LIBRARY_ORDERS[name]):
            expected = mesh.coords[cells[:, sorted(corners)]].mean(axis=1)
            np.testing.assert_allclose(mesh.coords[cells[:, p]], expected, atol=1e-12, err_msg=f"{name} node {p}")


# ---- one round trip per command -------------------------------------------------------------

LIFTED = {"T3": "T6", "Q4": "Q9", "TH4": "TH10", "W6": "W18", "H8": "H27"}
PIECES = {"T3": 3, "Q4": 4, "TH4": 4, "W6": 6, "H8": 8}  # hexsplit: hexahedra or quadrangles per element


def _expected_counts(command, counts):
    if command == "quadratic":
        return {LIFTED[k]: n for k, n in counts.items()}
    return {"H8": sum(PIECES[k] * n for k, n in counts.items() if k in ("TH4", "W6", "H8")),
            "Q4": sum(PIECES[k] * n for k, n in counts.items() if k in ("T3", "Q4"))}


@pytest.mark.parametrize("command", ["quadratic", "hexsplit"])
@pytest.mark.parametrize("name", ["block", "layers"])
def test_conversions_keep_volume_point_data_and_groups(capsys, tmp_path, meshes, command, name):
    source_msh, _ = meshes[name]
    source = mio.read(str(source_msh))
    out = tmp_path / "out.msh"
    ok(capsys, command, source_msh, out)
    m = mio.read(str(out))
    assert m.counts() == _expected_counts(command, source.counts())
    assert t3.volume(m.coords, corner_solids(m)[1]) == pytest.approx(t3.volume(source.coords, corner_solids(source)[1]))
    np.testing.assert_allclose(m.point_data["temperature"], temperature(m.coords), atol=1e-12)
    per = PIECES if command == "hexsplit" else dict.fromkeys(PIECES, 1)
    for group, members in source.groups.items():
        assert sum(len(i) for i in m.groups[group].values()) == sum(len(i) * per[t] for t, i in members.items())
    if command == "quadratic":
        _named_positions_hold(m)
        solid_nodes = np.unique(np.concatenate([c.ravel() for t, c in m.cells.items() if t in ("TH10", "W18", "H27")]))
        assert np.isin(np.concatenate([c.ravel() for t, c in m.cells.items() if t in ("T6", "Q9")]), solid_nodes).all()
    elif name == "block":  # its faces are its whole boundary: the split faces are the hexahedra's
        assert _key_set(m.cells["Q4"]) == _key_set(outer_faces(m.cells["H8"], "H8"))


def test_linear_undoes_quadratic_and_integer_data_is_not_made_up(capsys, tmp_path, meshes):
    source_msh, source_vtu = meshes["block"]
    source = mio.read(str(source_msh))
    quadratic, linear, with_data = tmp_path / "quadratic.msh", tmp_path / "linear.msh", tmp_path / "quadratic.vtu"
    ok(capsys, "quadratic", source_msh, quadratic)
    added = len(mio.read(str(quadratic)).coords) - len(source.coords)
    assert f"{added} node(s) no element uses" in ok(capsys, "linear", quadratic, linear)
    back = mio.read(str(linear))
    np.testing.assert_array_equal(back.coords, source.coords)
    for t, cells in source.cells.items():
        np.testing.assert_array_equal(back.cells[t], cells)
    for k, values in source.point_data.items():
        np.testing.assert_array_equal(back.point_data[k], values)
    assert {g: {t: list(i) for t, i in m.items()} for g, m in back.groups.items()} == \
        {g: {t: list(i) for t, i in m.items()} for g, m in source.groups.items()}
    ok(capsys, "quadratic", source_vtu, with_data)
    v = mio.read(str(with_data))
    n = len(source.coords)  # integer point data: kept at the old nodes, not made up at the new ones
    assert (v.point_data["node_id"][:n] == np.arange(n)).all() and (v.point_data["node_id"][n:] == -1).all()
    for t, values in mio.read(str(source_vtu)).cell_data["weight"].items():
        np.testing.assert_array_equal(v.cell_data["weight"][LIFTED[t]], values)


def test_quality_output_is_the_input_with_angles(capsys, tmp_path, meshes):
    source_msh, source_vtu = meshes["layers"]
    out = tmp_path / "quality.vtu"
    text = ok(capsys, "quality", source_vtu, "-o", out, "--bins", 3)
    assert "histogram" in text and text.count(" deg ") >= 3
    q, source = mio.read(str(out)), mio.read(str(source_vtu))
    assert q.counts() == source.counts()
    np.testing.assert_array_equal(q.point_data["node_id"], source.point_data["node_id"])
    assert (q.cell_data["min_dihedral"]["H8"] > 0).all() and np.isnan(q.cell_data["min_dihedral"]["T3"]).all()
    np.testing.assert_array_equal(q.cell_data["weight"]["W6"], source.cell_data["weight"]["W6"])


def test_quality_counts_flat_elements_apart(capsys, tmp_path):
    # a right tetrahedron and a flat one (node 3 in the plane of the others)
    coords = np.array([[0, 0, 0], [0, 1, 0], [1, 0, 0], [0, 0, 1], [0.25, 0.25, 0]], float)
    path = tmp_path / "flat.vtu"
    mio.write(str(path), mio.Mesh(coords, {"TH4": np.array([[0, 1, 2, 3], [0, 1, 2, 4]], np.uint32)}))
    text = ok(capsys, "quality", path)
    assert "degenerate (flat or collapsed) elements: 1, left out below: 1" in text
    assert "minimum dihedral angle per element: 54.74 - 54.74 deg" in text  # the right one's 90 - 35.26 ... its min
    strict = ok(capsys, "quality", path, "--strict")
    assert "degenerate" not in strict and "0.00 - 54.74 deg" in strict


def _unit_quadratic(kind):
    """One positive element of a quadratic type, nodes where the library places them."""
    from conftest import UNIT
    linear = {"TH10": "TH4", "PY13": "PY5", "PY14": "PY5", "W15": "W6", "W18": "W6", "H20": "H8", "H27": "H8"}[kind]
    x, c, _ = UNIT[linear]
    q = t3.convert_into_quadratic(x, t3.mixed([c]) if linear == "PY5" else np.array(c, dtype=np.uint32))
    keep = q.connect[:, :len(mio.LIBRARY_ORDERS[kind])]
    return q.coords, keep


def test_flip_turns_every_solid_type_and_inverted_only_turns_them_back(capsys, tmp_path):
    coords, cells, offset = [], {}, 0
    for i, kind in enumerate(("TH10", "PY13", "PY14", "W15", "W18", "H20", "H27")):
        x, c = _unit_quadratic(kind)
        coords.append(x + [3.0 * i, 0, 0])
        cells[kind] = c + offset
        offset += len(x)
    path = tmp_path / "mixed.msh"
    mio.write(str(path), mio.Mesh(np.concatenate(coords), cells))
    flipped, fixed = tmp_path / "flipped.msh", tmp_path / "fixed.vtu"
    assert "flipped 7 element(s)" in ok(capsys, "flip", path, flipped)
    f = mio.read(str(flipped))
    _named_positions_hold(f)
    assert (t3.mesh.signed_volumes(f.coords, corner_solids(f)[1], corner_solids(f)[0]) < 0).all()
    assert "flipped 7 inverted element(s)" in ok(capsys, "flip", flipped, fixed, "--inverted-only")
    g = mio.read(str(fixed))
    _named_positions_hold(g)
    assert (t3.mesh.signed_volumes(g.coords, corner_solids(g)[1], corner_solids(g)[0]) > 0).all()


def _boundary_area(mesh):
    kind, connect, _ = corner_solids(mesh)
    faces = outer_faces(connect, kind)
    x = mesh.coords[faces[:, :3]]
    return 0.5 * np.linalg.norm(np.cross(x[:, 1] - x[:, 0], x[:, 2] - x[:, 0]), axis=1).sum(), faces


@pytest.mark.parametrize("side", ["positive", "negative", "both"])
def test_crack_opens_every_face_and_keeps_its_front(capsys, tmp_path, meshes, side):
    source_msh, _ = meshes["crack"]
    source = mio.read(str(source_msh))
    outer, _ = _boundary_area(source)
    assert outer == pytest.approx(10.0)
    out = tmp_path / "cracked.msh"
    crack_faces = len(source.groups["crack"]["T3"])
    text = ok(capsys, "crack", source_msh, out, "--group", "crack", "--side", side, "--keep-front")
    assert f"opened {crack_faces} of {crack_faces} face(s)" in text and "other face" not in text
    c = mio.read(str(out))
    area, faces = _boundary_area(c)
    assert area == pytest.approx(10.0 + 2 * 0.7, abs=1e-12)
    assert _key_set(c.cells["T3"]) == _key_set(faces)  # every face of the file on its own side
    assert len(c.groups["crack_positive"]["T3"]) == crack_faces
    used = np.unique(c.cells["TH4"])
    assert len(used) == len(c.coords)

    torn = tmp_path / "torn.msh"
    assert "other face(s) opened around the surface" in ok(capsys, "crack", source_msh, torn, "--group", "crack")


def test_extrude_against_the_normals_flips_and_keeps_the_data(capsys, tmp_path):
    coords = np.array([[0, 0, 0], [1, 0, 0], [2, 0, 0], [0, 1, 0], [1, 1, 0], [2, 1, 0]], float)
    path = tmp_path / "square.msh"
    triangles = [[0, 1, 4], [0, 4, 3], [1, 2, 5], [1, 5, 4]]
    mio.write(str(path), mio.Mesh(coords, {"T3": triangles, "E2": [[2, 5]]},
                                  point_data={"temperature": temperature(coords)},
                                  groups={"left": {"T3": [0, 1]}, "right": {"T3": [2, 3]}, "end": {"E2": [0]}}))
    out = tmp_path / "solid.inp"  # its element sets may overlap
    text = ok(capsys, "extrude", path, out, "--translate", 0, 0, -1, "--layers", 3, "--faces")
    assert "flipped 12 of 12 element(s)" in text
    m = mio.read(str(out))
    assert t3.volume(m.coords, corner_solids(m)[1]) == pytest.approx(2.0)
    assert {g: sum(len(i) for i in v.values()) for g, v in m.groups.items()} == \
        {"left": 6, "right": 6, "bottom": 4, "lateral": 18, "top": 4, "end": 3}
    data = tmp_path / "solid.vtu"  # its point data
    ok(capsys, "extrude", path, data, "--translate", 0, 0, -1, "--layers", 3)
    d = mio.read(str(data))
    np.testing.assert_allclose(d.point_data["temperature"], temperature(d.coords * [1, 1, 0]))


def test_interpolate_a_linear_field_onto_another_mesh(capsys, tmp_path, meshes):
    source_msh, _ = meshes["block"]
    target = tmp_path / "target.vtu"
    from conftest import box
    tc, tconnect = box("H8", (4, 2, 2), size=(2.0, 1.0, 1.0))
    mio.write(str(target), mio.Mesh(tc, {"H8": tconnect}, cell_data={"w": {"H8": np.ones(len(tconnect))}}))
    out = tmp_path / "out.vtu"
    ok(capsys, "interpolate", source_msh, target, out, "--field", "temperature")
    m = mio.read(str(out))
    inside = np.linalg.norm(m.coords[:, :2] - [1, 0.5], axis=1) > 0.26
    np.testing.assert_allclose(m.point_data["temperature"][inside], temperature(m.coords[inside]), atol=1e-9)
    assert "w" in m.cell_data


def test_demo_writes_its_files(capsys, tmp_path):
    out = tmp_path / "demo"
    text = ok(capsys, "demo", "--out", out, "--size", 2)
    for name in ("surface.vtu", "solid.vtu", "quadratic.vtu", "hexahedra.vtu", "solid.png"):
        assert (out / name).exists() and str(out / name) in text
    assert (out / "solid.png").read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"


# ---- every failure: one line, exit status 2 ---------------------------------------------------

@pytest.fixture
def files(tmp_path, meshes):
    coords = np.array([[0, 0, 0], [1, 0, 0], [0, 1, 0], [1, 1, 0]], float)
    mio.write(str(tmp_path / "triangles.vtu"), mio.Mesh(coords, {"T3": [[0, 1, 2], [1, 3, 2]]}))
    bad = coords.copy()
    bad[3, 2] = np.nan
    mio.write(str(tmp_path / "nan.vtu"), mio.Mesh(bad, {"T3": [[0, 1, 2], [1, 3, 2]]}))
    cube = np.array([[0, 0, 0], [1, 0, 0], [1, 1, 0], [0, 1, 0], [0, 0, 1], [1, 0, 1], [1, 1, 1], [0, 1, 1]], float)
    mio.write(str(tmp_path / "pyramids.vtu"), mio.Mesh(np.vstack([cube, [[0.5, 0.5, 0.5]]]),
                                                       {"PY5": [[0, 1, 2, 3, 8], [4, 7, 6, 5, 8]]}))
    (tmp_path / "garbage.vtu").write_text("<VTKFile>not really")
    (tmp_path / "notes.unknown").write_text("x")
    gmsh.initialize()
    gmsh.option.setNumber("General.Terminal", 0)
    try:  # a Gmsh file without physical groups: meshio makes its own sets
        gmsh.model.occ.addBox(0, 0, 0, 1, 1, 1)
        gmsh.model.occ.synchronize()
        gmsh.option.setNumber("Mesh.MeshSizeMax", 0.6)
        gmsh.model.mesh.generate(3)
        gmsh.write(str(tmp_path / "sets.msh"))
    finally:
        gmsh.finalize()
    os.symlink(meshes["block"][0], tmp_path / "block.msh")
    return tmp_path


FAILURES = [
    (["info", "missing.vtu"], "missing.vtu: no such file"),
    (["info", "notes.unknown"], "unknown file extension"),
    (["info", "garbage.vtu"], "garbage.vtu: cannot read it"),
    (["info", "nan.vtu"], "node 3 has a non-finite coordinate"),
    (["quadratic", "triangles.vtu", "out.vtu"], "holds no linear solid elements"),
    (["hexsplit", "triangles.vtu", "out.vtu"], "holds no linear solid elements"),
    (["hexsplit", "pyramids.vtu", "out.vtu"], "a pyramid cannot be split"),
    (["linear", "block.msh", "out.vtu"], "holds no quadratic solid elements"),
    (["quality", "triangles.vtu"], "holds no solid elements"),
    (["quality", "block.msh", "--bins", "0"], "argument --bins: 0 is not in"),
    (["extrude", "block.msh", "out.vtu", "--translate", "0", "0", "1"], "give the number of layers"),
    (["extrude", "pyramids.vtu", "out.vtu", "--translate", "0", "0", "1", "--layers", "1"], "no triangles or quad"),
    (["extrude", "triangles.vtu", "out.vtu", "--translate", "0", "0", "1", "--layers", "0"], "--layers: 0 is not in"),
    (["extrude", "triangles.vtu", "out.vtu", "--translate", "0", "0", "1", "--layers", "4294967296"], "not in"),
    (["extrude", "triangles.vtu", "out.vtu", "--translate", "0", "0", "1", "--layers", "4000000000"], "GiB available"),
    (["extrude", "triangles.vtu", "out.vtu", "--translate", "0", "0", "1", "--sizes", "1e-12", "1e-12"], "GiB"),
    (["extrude", "triangles.vtu", "out.vtu", "--translate", "0", "0", "0", "--layers", "2"],
     "vector (argument 3) must not be zero"),
    (["extrude", "triangles.vtu", "out.vtu", "--translate", "0", "0", "1", "--sizes", "0", "1"],
     "h0 (argument 4) must be > 0"),
    (["extrude", "triangles.vtu", "out.vtu", "--translate", "nan", "0", "1", "--layers", "2"], "not a finite number"),
    (["extrude", "triangles.vtu", "out.vtu", "--translate", "x", "0", "0"], "invalid float value"),
    (["extrude", "triangles.vtu", "out.vtu", "--line", "0", "9", "--direction", "0", "0", "1"], "extrude_line"),
    (["extrude", "triangles.vtu", "out.msh", "--translate", "0", "0", "1", "--layers", "1", "--compression", "lzma"],
     "--compression"),
    (["flip", "nan.vtu", "out.vtu"], "non-finite coordinate"),
    (["crack", "block.msh", "out.msh", "--group", "nothing"], "no group named 'nothing'"),
    (["crack", "block.msh", "out.msh", "--group", "solid"], "group 'solid' holds no triangles or quadrangles"),
    (["crack", "sets.msh", "out.msh", "--group", "gmsh:bounding_entities"], "no group named"),
    (["crack", "triangles.vtu", "out.msh", "--group", "x"], "holds no linear solid elements"),
    (["crack", "block.msh", "out.msh", "--faces", "pyramids.vtu"], "holds no triangles or quadrangles"),
    (["interpolate", "triangles.vtu", "block.msh", "out.vtu"], "tetrahedral source mesh"),
    (["interpolate", "block.msh", "triangles.vtu", "out.vtu", "--field", "pressure"], "no nodal field named"),
    (["demo", "--input", "block.msh", "--out", "d", "--size", "-1"], "--size: -1 is not in"),
    (["demo", "--input", "pyramids.vtu", "--out", "d"], "no triangles or quadrangles"),
]


@pytest.mark.parametrize("args, fragment", FAILURES, ids=[" ".join(a[:2]) + f" {i}" for i, (a, _) in
                                                          enumerate(FAILURES)])
def test_failures_are_one_line_with_status_2(capsys, files, monkeypatch, args, fragment):
    monkeypatch.chdir(files)
    status, _, err = run(capsys, *args)
    assert status == 2 and fragment in err
    assert len(err.strip().splitlines()) == 1, err


def test_every_command_has_help(capsys):
    for command in COMMANDS:
        status, out, _ = run(capsys, command, "--help")
        assert status == 0 and out.startswith(f"usage: tessel3d {command}")


def test_compression_is_the_users_choice(capsys, tmp_path, meshes):
    sizes = {}
    for choice in ("none", "lzma"):
        out = tmp_path / f"{choice}.vtu"
        ok(capsys, "quadratic", meshes["layers"][1], out, "--compression", choice)
        sizes[choice] = out.stat().st_size
        assert mio.read(str(out)).counts()["H27"] > 0
    assert sizes["lzma"] < sizes["none"] / 2


# ---- progress ---------------------------------------------------------------------------------

def test_progress_lines_show_percentage_and_estimate():
    stream = io.StringIO()
    with progress("working", stream=stream, delay=0.05, style="lines") as update:
        time.sleep(0.2)
        for step in range(1, 5):
            update(step / 4)
            time.sleep(0.02)
    lines = stream.getvalue().splitlines()
    assert lines[0] == "tessel3d: working ..." and lines[-1].startswith("tessel3d: working: ")
    assert any("50 %" in line and "s left" in line for line in lines)
    quiet = io.StringIO()
    with progress("quick", stream=quiet, delay=5.0, style="lines"):
        pass
    assert quiet.getvalue() == ""


def test_progress_bar_with_tqdm():
    pytest.importorskip("tqdm")
    stream = io.StringIO()
    with progress("working", stream=stream, delay=0.01, style="bar") as update:
        time.sleep(0.1)
        update(0.5)
        time.sleep(0.6)
    assert "50%" in stream.getvalue()
    assert re.search(r"tessel3d: working: \d+\.\d s$", stream.getvalue().rstrip())  # the bar gives way to it


def test_installed_launcher(tmp_path):
    build = os.environ.get("TESSEL3D_BUILD_DIR")
    if not build or not shutil.which("cmake"):
        pytest.skip("run by CTest, which gives the build directory")
    subprocess.run(["cmake", "--install", build, "--prefix", str(tmp_path), "--component", "python"], check=True,
                   capture_output=True)
    launcher = tmp_path / "bin" / "tessel3d"
    result = subprocess.run([str(launcher), "--version"], capture_output=True, text=True, env={"PATH": "/usr/bin:/bin"})
    assert result.returncode == 0 and result.stdout.strip() == f"tessel3d {t3.version()}"


def test_module_runs_as_a_program():
    result = subprocess.run([sys.executable, "-m", "tessel3d", "info", "missing.vtu"], capture_output=True, text=True)
    assert result.returncode == 2 and result.stderr.strip() == "tessel3d info: error: missing.vtu: no such file"
