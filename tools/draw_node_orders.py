"""Draws each element type's local node numbering into docs/node-orders/<TYPE>.png.

    PYTHONPATH=build/release/python python3 tools/draw_node_orders.py [output folder]

The nodes come from tessel3d.io's table of this library's orders (each node named by the
corners it lies between), placed on the unit elements of this library's positive
orientation: corners black, edge nodes blue, face centres green, element centres red.
"""

import os
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402

from tessel3d._io_orders import LIBRARY_ORDERS  # noqa: E402

# Corners of the unit elements, each positively oriented in this library's sense.
CORNERS = {
    "T3": [[0, 0, 0], [1, 0, 0], [0, 1, 0]],
    "Q4": [[0, 0, 0], [1, 0, 0], [1, 1, 0], [0, 1, 0]],
    "TH4": [[0, 0, 0], [0, 1, 0], [1, 0, 0], [0, 0, 1]],
    "PY5": [[0, 0, 0], [1, 0, 0], [1, 1, 0], [0, 1, 0], [0.5, 0.5, 1]],
    "W6": [[0, 0, 0], [1, 0, 0], [0, 1, 0], [0, 0, 1], [1, 0, 1], [0, 1, 1]],
    "H8": [[0, 0, 0], [1, 0, 0], [1, 1, 0], [0, 1, 0], [0, 0, 1], [1, 0, 1], [1, 1, 1], [0, 1, 1]],
}
FAMILY = {"T3": "T3", "T6": "T3", "Q4": "Q4", "Q8": "Q4", "Q9": "Q4", "TH4": "TH4", "TH10": "TH4", "PY5": "PY5",
          "PY13": "PY5", "PY14": "PY5", "W6": "W6", "W15": "W6", "W18": "W6", "H8": "H8", "H20": "H8", "H27": "H8"}
EDGES = {
    "T3": [(0, 1), (1, 2), (2, 0)], "Q4": [(0, 1), (1, 2), (2, 3), (3, 0)],
    "TH4": [(1, 2), (2, 0), (0, 1), (3, 0), (3, 1), (3, 2)],
    "PY5": [(0, 4), (1, 4), (2, 4), (3, 4), (0, 1), (1, 2), (2, 3), (3, 0)],
    "W6": [(0, 3), (1, 4), (2, 5), (1, 2), (2, 0), (0, 1), (4, 5), (5, 3), (3, 4)],
    "H8": [(0, 1), (1, 2), (2, 3), (3, 0), (4, 5), (5, 6), (6, 7), (7, 4), (0, 4), (1, 5), (2, 6), (3, 7)],
}
COLOURS = {1: "black", 2: "tab:blue", 3: "tab:green", 4: "tab:green"}


def draw(type_name, folder):
    corners = np.array(CORNERS[FAMILY[type_name]], dtype=float)
    names = LIBRARY_ORDERS[type_name]
    points = np.array([corners[sorted(n)].mean(axis=0) for n in names])
    figure = plt.figure(figsize=(3.2, 3.2), dpi=90)
    axes = figure.add_subplot(projection="3d")
    axes.view_init(elev=22, azim=-62)
    for a, b in EDGES[FAMILY[type_name]]:
        axes.plot(*zip(corners[a], corners[b]), color="0.6", linewidth=1)
    for k, (name, p) in enumerate(zip(names, points)):
        colour = "tab:red" if len(name) == len(corners) and len(corners) > 4 else COLOURS[min(len(name), 4)]
        axes.scatter(*p, color=colour, s=14, depthshade=False)
        axes.text(*(p + [0.03, 0.03, 0.04]), str(k), color=colour, fontsize=8)
    axes.set_axis_off()
    axes.set_title(type_name, fontsize=10)
    axes.set_box_aspect((1, 1, 0.9 if len(corners) > 4 else 0.4))
    figure.tight_layout()
    figure.savefig(os.path.join(folder, f"{type_name}.png"))
    plt.close(figure)


def main():
    folder = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "..", "docs", "node-orders")
    os.makedirs(folder, exist_ok=True)
    for type_name in FAMILY:
        draw(type_name, folder)


if __name__ == "__main__":
    main()
