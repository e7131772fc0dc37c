"""Time per element of every family of the library, from 10^3 elements up, on structured
boxes built with NumPy (the same meshes the C++ benchmarks use: every cube of a k^3 grid
split into six tetrahedra around its diagonal, or one hexahedron)."""

import math

import numpy as np

import common as C

DECADES = [10 ** e for e in range(3, 8)]
FINE = sorted(DECADES + [3 * 10 ** e for e in range(3, 7)])


def grid(k, jitter=0.0, seed=5):
    """The (k + 1)^3 nodes of the unit cube's grid and the node index array [i, j, l]."""
    t = np.linspace(0.0, 1.0, k + 1)
    x = np.stack(np.meshgrid(t, t, t, indexing="ij"), axis=-1).reshape(-1, 3)
    if jitter:
        inner = np.all((x > 0) & (x < 1), axis=1)
        x[inner] += np.random.default_rng(seed).uniform(-jitter, jitter, (int(inner.sum()), 3)) / k
    return x, np.arange((k + 1) ** 3, dtype=np.uint32).reshape(k + 1, k + 1, k + 1)


def cube_corners(index, k):
    """(k^3, 8) corners of every cube, in VTK's hexahedron order (bottom 0-1-2-3
    counter-clockwise seen from above, then the top)."""
    c = lambda a, b, d: index[a:a + k, b:b + k, d:d + k].reshape(-1)  # noqa: E731
    return np.stack([c(0, 0, 0), c(1, 0, 0), c(1, 1, 0), c(0, 1, 0), c(0, 0, 1), c(1, 0, 1), c(1, 1, 1), c(0, 1, 1)],
                    axis=1)


def th4_box(elements, jitter=0.2):
    k = max(1, round((elements / 6) ** (1 / 3)))
    x, index = grid(k, jitter)
    h = cube_corners(index, k)
    paths = ((0, 1, 2, 6), (0, 2, 3, 6), (0, 3, 7, 6), (0, 7, 4, 6), (0, 4, 5, 6), (0, 5, 1, 6))
    tets = np.concatenate([h[:, list(p)] for p in paths])
    return x, np.ascontiguousarray(C.orient_th4(x, tets)), k


def h8_box(elements):
    k = max(1, round(elements ** (1 / 3)))
    x, index = grid(k)
    return x, np.ascontiguousarray(cube_corners(index, k)), k


def t3_square(faces):
    k = max(1, round(math.sqrt(faces / 2)))
    t = np.linspace(0.0, 1.0, k + 1)
    x = np.stack(np.meshgrid(t, t, indexing="ij"), axis=-1).reshape(-1, 2)
    x = np.hstack([x, np.zeros((len(x), 1))])
    i = np.arange((k + 1) ** 2, dtype=np.uint32).reshape(k + 1, k + 1)
    a, b, c, d = i[:-1, :-1].ravel(), i[1:, :-1].ravel(), i[1:, 1:].ravel(), i[:-1, 1:].ravel()
    return x, np.concatenate([np.stack([a, b, c], 1), np.stack([a, c, d], 1)])


def mid_plane(tets, x, k):
    """The triangles of the tetrahedra's faces that lie in the plane z = 1/2 (k even)."""
    faces = np.concatenate([tets[:, list(f)] for f in ((1, 2, 3), (2, 0, 3), (0, 1, 3), (2, 1, 0))])
    on = np.all(np.abs(x[faces, 2] - 0.5) < 1e-12, axis=1)
    faces = faces[on]
    key = np.sort(faces, axis=1)
    _, first = np.unique(key, axis=0, return_index=True)
    return np.ascontiguousarray(faces[np.sort(first)])


def families(t3):
    """name -> (elements -> (setup state, run(state) -> elements timed))."""

    def th4(n):
        x, tets, k = th4_box(n)
        return dict(x=x, c=tets, k=k, m=len(tets))

    def h8(n):
        x, hexa, k = h8_box(n)
        return dict(x=x, c=hexa, k=k, m=len(hexa))

    def quadratic_th4(n):
        s = th4(n)
        s["q"] = t3.convert_into_quadratic(s["x"], s["c"]).connect
        return s

    def surface(n):
        x, tri = t3_square(n / 10)
        return dict(x=x, c=tri, m=10 * len(tri))

    def located(n):
        s = th4(n)
        k = len(s["x"])  # as many points as mesh nodes
        points = np.random.default_rng(3).random((k, 3))
        s["every"] = np.vstack([s["x"], points])
        s["nodes"] = np.arange(k, 2 * k, dtype=np.uint32)
        s["values"] = s["x"][:, 0] + 2 * s["x"][:, 1]
        s["per"] = k
        return s

    def with_locator(n):
        """As many random points as mesh nodes, searched with a Locator built beforehand:
        the cost of the searches."""
        s = located(n)
        s["points"] = s["every"][len(s["x"]):]
        s["locator"] = t3.Locator(s["x"], s["c"])
        return s

    def cracked(n):
        x, tets, k = th4_box(n, jitter=0.0)
        if k % 2:
            x, tets, k = th4_box(6 * (k + 1) ** 3, jitter=0.0)
        return dict(x=x, c=tets, m=len(tets), surface=mid_plane(tets, x, k))

    def interpolate_run(s):
        field = np.zeros(len(s["every"]))
        field[:len(s["x"])] = s["values"]
        t3.interpolate(s["every"], s["c"], field, s["nodes"])

    def metrics_run(s):
        sizes = np.zeros(len(s["every"]))
        sizes[:len(s["x"])] = 0.1 + s["values"]
        t3.interpolate_metrics(s["every"], s["c"], sizes, s["nodes"])

    return {
        "volume TH4": (th4, lambda s: t3.volume(s["x"], s["c"])),
        "volume H8": (h8, lambda s: t3.volume(s["x"], s["c"])),
        "flip TH4": (th4, lambda s: t3.flip_th4(s["c"])),
        "circumcenters TH4": (th4, lambda s: t3.circumcenters(s["x"], s["c"])),
        "dihedral angles TH4": (th4, lambda s: t3.dihedral_angles(s["x"], s["c"])),
        "dihedral angles H8": (h8, lambda s: t3.dihedral_angles(s["x"], s["c"])),
        "solid angles TH4": (th4, lambda s: t3.solid_angles(s["x"], s["c"])),
        "quadratic TH4 -> TH10": (th4, lambda s: t3.convert_into_quadratic(s["x"], s["c"])),
        "quadratic H8 -> H27": (h8, lambda s: t3.convert_into_quadratic(s["x"], s["c"])),
        "linear TH10 -> TH4": (quadratic_th4, lambda s: t3.convert_into_linear(s["q"])),
        "split TH4 -> H8": (th4, lambda s: t3.split_into_h8(s["x"], s["c"])),
        "split H8 -> H8": (h8, lambda s: t3.split_into_h8(s["x"], s["c"])),
        "extrusion T3 -> W6 (10 layers)": (surface, lambda s: t3.extrude_translate(s["x"], s["c"], (0, 0, 1), 10)),
        "interpolation (per point)": (located, interpolate_run),
        "metric interpolation (per point)": (located, metrics_run),
        "location (per point)": (with_locator, lambda s: s["locator"].find_all(s["points"])),
        "surface duplication TH4": (cracked, lambda s: t3.duplicate_surface_nodes(s["x"], s["c"], s["surface"])),
    }


def run(t3, largest, log=print, sizes=None):
    """{family: {nominal elements of the mesh: seconds per element (per point for the
    point families)}} for the sizes up to `largest`. The boxes have whole numbers of
    cells, so a mesh holds up to about 30% more or fewer elements than its nominal size."""
    sizes = sorted(s for s in (sizes or DECADES) if s <= largest)
    out = {}
    log(f"\n== scaling, {sizes[0]:.0e} to {sizes[-1]:.0e} elements: time per element (ns)")
    for name, (make, run_one) in families(t3).items():
        curve = {}
        for n in sizes:
            state = make(n)
            budget = 2.0 if n < 10 ** 6 else 0.5
            seconds, _ = C.best_time(lambda s=state: run_one(s), repeat=5, budget=budget)
            curve[n] = seconds / state.get("per", state["m"])
            state.clear()
        out[name] = curve
        log(f"  {name:<36}" + "".join(f" {curve[m] * 1e9:9.3g}" for m in sorted(curve)))
    return out


def plot(scaling, path):
    """Two panels: the element families (time per element) and the point families (time
    per point), log-log."""
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    fig, axes = plt.subplots(1, 2, figsize=(13, 8), gridspec_kw={"width_ratios": [1.6, 1]})
    colours = plt.get_cmap("tab20").colors
    markers = "os^vD<>ph*"
    panels = ([n for n in scaling if "per point" not in n], [n for n in scaling if "per point" in n])
    for ax, names, unit in zip(axes, panels, ("element", "point")):
        for i, name in enumerate(names):
            curve = scaling[name]
            sizes = sorted(curve, key=float)
            ax.plot([float(v) for v in sizes], [curve[v] * 1e9 for v in sizes], color=colours[i % 20],
                    marker=markers[i % len(markers)], markersize=4, label=name.replace(" (per point)", ""))
        ax.set_xscale("log")
        ax.set_yscale("log")
        ax.set_xlabel("elements of the mesh (nominal)")
        ax.set_ylabel(f"time per {unit} (ns)")
        ax.grid(True, which="both", alpha=0.3)
        ax.legend(fontsize=8, loc="upper center", bbox_to_anchor=(0.5, -0.11), ncol=3 if unit == "element" else 1)
    axes[0].set_title("per element: a flat line is a cost linear in the mesh")
    axes[1].set_title("per point (as many random points as mesh nodes)")
    fig.suptitle("tessel3d through its Python package")
    fig.tight_layout()
    fig.savefig(path, dpi=100)
    plt.close(fig)
