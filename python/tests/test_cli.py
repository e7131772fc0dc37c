"""The command line end to end, in subprocesses, on files written here."""

import io
import os
import shutil
import subprocess
import sys
import time

import numpy as np
import pytest
from conftest import box

import tessel3d as t3
from tessel3d import io as mio
from tessel3d.cli import progress

COMMANDS = ["info", "extrude", "quadratic", "linear", "hexsplit", "flip", "quality", "crack", "interpolate", "demo"]


def run(*args, ok=True):
    result = subprocess.run([sys.executable, "-m", "tessel3d", *map(str, args)], capture_output=True, text=True,
                            timeout=300)
    if ok:
        assert result.returncode == 0, result.stderr
    return result


def square(tmp_path):
    coords = np.array([[0, 0, 0], [1, 0, 0], [2, 0, 0], [0, 1, 0], [1, 1, 0], [2, 1, 0]], float)
    path = tmp_path / "square.vtu"
    mio.write(str(path), mio.Mesh(coords, {"Q4": [[0, 1, 4, 3], [1, 2, 5, 4]]}))
    return path


@pytest.mark.parametrize("command", COMMANDS)
def test_every_command_has_help(command):
    result = run(command, "--help")
    assert result.stdout.startswith(f"usage: tessel3d {command}")


def test_extrude_then_convert_split_and_measure(tmp_path):
    solid = tmp_path / "solid.msh"
    out = run("extrude", square(tmp_path), solid, "--translate", 0, 0, 1, "--layers", 3, "--faces").stdout
    assert "wrote" in out
    mesh = mio.read(str(solid))
    assert mesh.counts()["H8"] == 6 and mesh.counts()["Q4"] == 2 + 6 * 3 + 2
    assert set(mesh.groups) == {"bottom", "lateral", "top"}
    assert "volume 2" in run("info", solid).stdout

    quadratic = tmp_path / "quadratic.vtu"
    run("quadratic", solid, quadratic)
    q = mio.read(str(quadratic))
    assert q.counts() == {"H27": 6}
    linear = tmp_path / "linear.vtu"
    run("linear", quadratic, linear)
    back = mio.read(str(linear))
    np.testing.assert_array_equal(back.cells["H8"], mesh.cells["H8"])

    hexa = tmp_path / "hexa.vtu"
    run("hexsplit", solid, hexa)
    h = mio.read(str(hexa))
    assert h.counts() == {"H8": 48} and t3.volume(h.coords, h.cells["H8"]) == pytest.approx(2.0)

    flipped = tmp_path / "flipped.vtu"
    run("flip", solid, flipped)
    f = mio.read(str(flipped))
    assert t3.volume(f.coords, f.cells["H8"]) == pytest.approx(-2.0)
    fixed = tmp_path / "fixed.vtu"
    assert "flipped 6 element(s)" in run("flip", flipped, fixed, "--inverted-only").stdout
    g = mio.read(str(fixed))
    assert t3.volume(g.coords, g.cells["H8"]) == pytest.approx(2.0)

    report = tmp_path / "quality.vtu"
    text = run("quality", solid, "--output", report).stdout
    assert "minimum dihedral angle per element: 90.00 - 90.00 deg" in text
    assert "histogram" in text and "#" in text
    assert mio.read(str(report)).cell_data["min_dihedral"]["H8"] == pytest.approx(np.full(6, 90.0))


def test_extrude_by_rotation_and_sizes(tmp_path):
    out = tmp_path / "ring.vtu"
    run("extrude", square(tmp_path), out, "--rotate", 0, -1, 0, 1, 0, 0, "--sizes", 0.2, 0.4, "--even")
    m = mio.read(str(out))
    assert m.counts()["H8"] % 4 == 0 and t3.volume(m.coords, m.cells["H8"]) > 0


def test_crack_by_group_and_by_face_file(tmp_path):
    coords, connect = box("TH4", (2, 1, 1))
    faces = []
    for element in connect:
        for f in ((1, 2, 3), (2, 0, 3), (0, 1, 3), (2, 1, 0)):
            nodes = element[list(f)]
            if np.allclose(coords[nodes, 0], 0.5) and coords[element, 0].max() <= 0.5 + 1e-12:
                faces.append(nodes[::-1])
    faces = np.array(faces, dtype=np.uint32)
    path = tmp_path / "block.msh"
    mio.write(str(path), mio.Mesh(coords, {"TH4": connect, "T3": faces}, groups={"cut": {"T3": np.arange(len(faces))}}))
    out = tmp_path / "cracked.vtu"
    text = run("crack", path, out, "--group", "cut").stdout
    assert f"{len(np.unique(faces))} new node(s)" in text
    assert len(mio.read(str(out)).coords) == len(coords) + len(np.unique(faces))
    face_file = tmp_path / "faces.vtu"
    mio.write(str(face_file), mio.Mesh(coords, {"T3": faces}))
    text = run("crack", path, tmp_path / "both.vtu", "--faces", face_file, "--side", "both").stdout
    assert f"{2 * len(np.unique(faces))} new node(s)" in text
    bad = run("crack", path, out, "--group", "nothing", ok=False)
    assert bad.returncode == 2 and "no group named 'nothing'" in bad.stderr


def test_interpolate_a_linear_field_onto_another_mesh(tmp_path):
    coords, connect = box("TH4", (2, 2, 2), jitter=0.1)
    source = tmp_path / "source.vtu"
    mio.write(str(source), mio.Mesh(coords, {"TH4": connect}, point_data={"f": 1 + coords @ [1.0, 2.0, -1.0]}))
    tc, tconnect = box("H8", (3, 3, 3))
    target = tmp_path / "target.vtu"
    mio.write(str(target), mio.Mesh(tc * 0.9 + 0.05, {"H8": tconnect}))
    out = tmp_path / "out.vtu"
    run("interpolate", source, target, out)
    m = mio.read(str(out))
    np.testing.assert_allclose(m.point_data["f"], 1 + m.coords @ [1.0, 2.0, -1.0], atol=1e-9)
    bad = run("interpolate", target, source, out, ok=False)
    assert bad.returncode == 2 and "tetrahedral source mesh" in bad.stderr


def test_demo_writes_its_files(tmp_path):
    out = tmp_path / "demo"
    text = run("demo", "--out", out, "--size", 3).stdout
    for name in ("surface.vtu", "solid.vtu", "quadratic.vtu", "hexahedra.vtu", "solid.png"):
        assert (out / name).exists() and str(out / name) in text
    assert (out / "solid.png").read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"
    assert mio.read(str(out / "quadratic.vtu")).counts().keys() == {"W18", "H27"}


@pytest.mark.parametrize("args, fragment", [
    (["info", "missing.vtu"], "missing.vtu: no such file"),
    (["info", "notes.unknown"], "unknown file extension"),
    (["extrude", "{square}", "out.vtu", "--translate", "0", "0", "0", "--layers", "2"],
     "extrude_translate: vector (argument 3) must not be zero"),
    (["extrude", "{square}", "out.vtu", "--translate", "0", "0", "1", "--sizes", "0", "1"],
     "extrude_translate: h0 (argument 4) must be > 0"),
    (["quadratic", "{square}", "out.vtu"], "holds no linear solid elements"),
])
def test_user_errors_are_one_line_without_traceback(tmp_path, args, fragment):
    (tmp_path / "notes.unknown").write_text("x")
    sq = square(tmp_path)
    cwd = os.getcwd()
    os.chdir(tmp_path)
    try:
        result = run(*[a.format(square=sq) for a in args], ok=False)
    finally:
        os.chdir(cwd)
    assert result.returncode == 2
    assert fragment in result.stderr
    assert "Traceback" not in result.stderr and len(result.stderr.strip().splitlines()) == 1


def test_bad_option_values_are_refused_by_the_parser():
    result = run("extrude", "a.vtu", "b.vtu", "--translate", "x", "0", "0", ok=False)
    assert result.returncode == 2 and "invalid float value" in result.stderr


def test_progress_line_after_the_delay():
    stream = io.StringIO()
    with progress("working", stream=stream, delay=0.05):
        time.sleep(0.3)
    assert stream.getvalue().startswith("tessel3d: working ...\ntessel3d: working: ")
    quiet = io.StringIO()
    with progress("quick", stream=quiet, delay=5.0):
        pass
    assert quiet.getvalue() == ""


def test_installed_launcher(tmp_path):
    build = os.environ.get("TESSEL3D_BUILD_DIR")
    if not build or not shutil.which("cmake"):
        pytest.skip("run by CTest, which gives the build directory")
    subprocess.run(["cmake", "--install", build, "--prefix", str(tmp_path), "--component", "python"], check=True,
                   capture_output=True)
    launcher = tmp_path / "bin" / "tessel3d"
    result = subprocess.run([str(launcher), "--version"], capture_output=True, text=True, env={"PATH": "/usr/bin:/bin"})
    assert result.returncode == 0 and result.stdout.strip() == f"tessel3d {t3.version()}"


def test_flip_of_quadratic_elements_keeps_nodes_on_their_edges(tmp_path):
    coords, pyramids = box("PY5", (1, 1, 1))
    hexa = box("H8", (1, 1, 1))[1]
    q = t3.convert_into_quadratic(coords, t3.mixed([pyramids, hexa]))
    path = tmp_path / "quadratic.msh"
    mio.write(str(path), mio.Mesh(q.coords, {"SOLID_MIX27": q.connect}))
    flipped = tmp_path / "flipped.msh"
    run("flip", path, flipped)
    f = mio.read(str(flipped))
    corners = [f.cells["PY14"][:, :5], f.cells["H27"][:, :8]]
    linear = t3.mixed(corners)
    assert (t3.element_volumes(f.coords, linear) < 0).all()
    ours = t3.convert_into_quadratic(f.coords, linear)
    for rows, cells in ((slice(0, 6), f.cells["PY14"]), (slice(6, 7), f.cells["H27"])):
        np.testing.assert_allclose(ours.coords[ours.connect[rows, :cells.shape[1]]], f.coords[cells], atol=1e-12)
