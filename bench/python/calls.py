"""Time of the Python calls of the tessel3d package on about 10^6 TH4 (a structured box
of 55^3 cells, 6 tetrahedra each), the best of several runs, in milliseconds.

    PYTHONPATH=build/release/python /usr/bin/python3 bench/python/calls.py [--cells 55]

What it shows is the cost the binding adds over the library's own time (bench/bench_*):
argument conversion, the private copies of the inputs, the results handed to NumPy.
"""

import argparse
import time

import numpy as np

import tessel3d as t3


def th4_box(n):
    """(coords, connect) of an n^3 box of cells split into 6 positive TH4 each."""
    g = np.arange(n + 1, dtype=np.float64)
    x, y, z = np.meshgrid(g, g, g, indexing="ij")
    coords = np.stack([x.ravel(order="F"), y.ravel(order="F"), z.ravel(order="F")], axis=1) / n
    i, j, k = (a.ravel() for a in np.meshgrid(*(np.arange(n),) * 3, indexing="ij"))

    def node(di, dj, dk):
        return ((k + dk) * (n + 1) + (j + dj)) * (n + 1) + (i + di)
    c = [node(0, 0, 0), node(1, 0, 0), node(1, 1, 0), node(0, 1, 0),
         node(0, 0, 1), node(1, 0, 1), node(1, 1, 1), node(0, 1, 1)]
    tets = [np.stack([c[0], c[a], c[b], c[6]], axis=1)
            for a, b in ((1, 2), (2, 3), (3, 7), (7, 4), (4, 5), (5, 1))]
    connect = np.concatenate(tets).astype(np.uint32)
    p = coords[connect]
    six_v = np.einsum("ij,ij->i", p[:, 0] - p[:, 3], np.cross(p[:, 1] - p[:, 3], p[:, 2] - p[:, 3]))
    connect[six_v < 0] = connect[six_v < 0][:, [1, 0, 2, 3]]
    return coords, connect


def best(call, repeat):
    times = []
    for _ in range(repeat):
        start = time.perf_counter()
        call()
        times.append(time.perf_counter() - start)
    return 1e3 * min(times)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--cells", type=int, default=55)
    parser.add_argument("--repeat", type=int, default=7)
    args = parser.parse_args()
    coords, connect = th4_box(args.cells)
    rng = np.random.default_rng(1)
    points = rng.uniform(0, 1, (100_000, 3))
    locator = t3.Locator(coords, connect)
    cases = {
        "volume": lambda: t3.volume(coords, connect),
        "element_volumes": lambda: t3.element_volumes(coords, connect),
        "dihedral_angles": lambda: t3.dihedral_angles(coords, connect),
        "circumcenters": lambda: t3.circumcenters(coords, connect),
        "get_neighbors": lambda: t3.get_neighbors(connect),
        "convert_into_quadratic": lambda: t3.convert_into_quadratic(coords, connect),
        "Locator.find_all (1e5 points)": lambda: locator.find_all(points),
    }
    print(f"{len(connect)} TH4, {len(coords)} nodes; best of {args.repeat} runs")
    for name, call in cases.items():
        print(f"  {name:32s} {best(call, args.repeat):9.1f} ms")


if __name__ == "__main__":
    main()
