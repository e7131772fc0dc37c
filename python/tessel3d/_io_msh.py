"""A fast path for the commonest mesh file: Gmsh's text .msh 4.1 with nothing but
physical names, entities, nodes and elements (what Gmsh writes by default). Each section
is turned into numbers by one NumPy call and walked block by block, never line by line;
node tags are mapped by sorting, so sparse tags cost nothing more. Anything else (binary
files, version 2, node or element data, periodic or partitioned meshes) returns None and
goes through meshio. Cells are in Gmsh's node orders here; the caller converts them."""

import re

import numpy as np

# Gmsh element type -> (this library's type name, nodes)
GMSH_TYPES = {15: ("NODE", 1), 1: ("E2", 2), 8: ("E3", 3), 2: ("T3", 3), 9: ("T6", 6), 3: ("Q4", 4), 16: ("Q8", 8),
              10: ("Q9", 9), 4: ("TH4", 4), 11: ("TH10", 10), 7: ("PY5", 5), 19: ("PY13", 13), 14: ("PY14", 14),
              6: ("W6", 6), 18: ("W15", 15), 13: ("W18", 18), 5: ("H8", 8), 17: ("H20", 20), 12: ("H27", 27)}
_KNOWN_SECTIONS = {"MeshFormat", "PhysicalNames", "Entities", "Nodes", "Elements", "Comments"}


class _Numbers:
    """A flat array of a section's numbers, read from the front."""

    def __init__(self, values):
        self.values, self.at = values, 0

    def take(self, count):
        if count < 0 or self.at + count > len(self.values):
            raise ValueError("a section ends early")
        out = self.values[self.at:self.at + count]
        self.at += count
        return out


def _sections(data):
    """{name: (start, end)} of the sections' bodies in the file's bytes, or None when the
    file holds a section this path does not read. Jumps from section to section."""
    out, at = {}, 0
    while True:
        start = data.find(b"$", at)
        if start < 0:
            return out
        line_end = data.find(b"\n", start)
        line_end = len(data) if line_end < 0 else line_end
        name = data[start + 1:line_end].strip().decode("ascii", "replace")
        if name not in _KNOWN_SECTIONS or name in out:
            return None
        end = data.find(b"$End" + name.encode(), line_end)
        if end < 0:
            raise ValueError(f"${name} has no $End{name}")
        out[name] = (line_end, end)
        at = end + 4 + len(name)


def _integers(text):
    values = np.fromstring(text, dtype=np.int64, sep=" ")
    return _Numbers(values)


def read(path, progress=None):
    """(points (n, 3), [(type name, (m, k) cells as node rows, Gmsh order)], {group:
    [(type name, element indices within the type)]}) or None for the files this path
    leaves to meshio; raises ValueError on a malformed file. progress: None or a
    callable taking the fraction done, called after each step."""
    report = progress or (lambda fraction: None)
    with open(path, "rb") as f:
        data = f.read()
    head = re.match(rb"\s*\$MeshFormat\s+(\S+)\s+(\S+)\s+(\S+)", data)
    if head is None or head.group(1) != b"4.1" or head.group(2) != b"0":
        return None
    sections = _sections(data)
    if sections is None or "Nodes" not in sections or "Elements" not in sections:
        return None
    body = {name: data[start:end] for name, (start, end) in sections.items()}
    names = _physical_names(body.get("PhysicalNames", b""))
    entity_groups = _entity_groups(body.get("Entities", b""))
    report(0.1)
    tags, points = _nodes(body["Nodes"])
    report(0.25)
    row_of = _TagMap(tags)
    blocks, groups, counts = [], {}, {}
    numbers = _integers(body["Elements"])
    report(0.8)
    nb_blocks = int(numbers.take(4)[0])
    for _ in range(nb_blocks):
        dim, entity, gmsh_type, count = (int(v) for v in numbers.take(4))
        if gmsh_type not in GMSH_TYPES:
            raise ValueError(f"{count} elements of Gmsh type {gmsh_type}, which this library has no type for")
        name, k = GMSH_TYPES[gmsh_type]
        tags_of_cells = numbers.take(count * (k + 1)).reshape(count, k + 1)[:, 1:]
        rows = row_of(tags_of_cells)
        if len(rows) and rows.min() < 0:
            row = int(np.nonzero((rows < 0).any(axis=1))[0][0])
            raise ValueError(f"{name} element {counts.get(name, 0) + row} names node "
                             f"{tags_of_cells[row][rows[row] < 0][0]}, which the file does not define")
        start = counts.get(name, 0)
        blocks.append((name, rows))
        for physical in entity_groups.get((dim, entity), ()):
            group = names.get((dim, physical), f"physical {physical}")
            groups.setdefault(group, []).append((name, np.arange(start, start + count)))
        counts[name] = start + count
        report(0.8 + 0.2 * numbers.at / max(len(numbers.values), 1))
    return points, blocks, groups


class _TagMap:
    """Node tag -> row of the node, -1 for a tag the file does not define: a table when
    the tags are dense (Gmsh's are), a sorted search when they are sparse, so that the
    cost stays linear in the file whatever the tags."""

    def __init__(self, tags):
        self.dense = len(tags) == 0 or tags.max() <= 4 * len(tags) + 1024
        if self.dense:
            # 32-bit rows when they fit: half the bytes to gather and to write
            dtype = np.int32 if len(tags) < 2 ** 31 else np.int64
            self.table = np.full(int(tags.max(initial=0)) + 1, -1, dtype=dtype)
            self.table[tags] = np.arange(len(tags))
            if (self.table[tags] != np.arange(len(tags))).any():
                raise ValueError("a node tag is defined twice")
        else:
            self.order = np.argsort(tags, kind="stable")
            self.sorted = tags[self.order]
            if (self.sorted[1:] == self.sorted[:-1]).any():
                raise ValueError("a node tag is defined twice")

    def __call__(self, tags):
        if self.dense:
            if not len(tags) or (tags.min() >= 0 and tags.max() < len(self.table)):
                return self.table[tags]  # every tag within the table: one gather
            inside = (tags >= 0) & (tags < len(self.table))
            return np.where(inside, self.table[np.where(inside, tags, 0)], -1)
        position = np.minimum(np.searchsorted(self.sorted, tags), len(self.sorted) - 1)
        return np.where(self.sorted[position] == tags, self.order[position], -1)


def _physical_names(text):
    out = {}
    for line in text.decode("utf-8", "replace").splitlines()[1:]:
        match = re.match(r"\s*(\d+)\s+(-?\d+)\s+\"(.*)\"\s*$", line)
        if match:
            out[int(match.group(1)), int(match.group(2))] = match.group(3)
    return out


def _entity_groups(text):
    """{(dim, entity tag): physical tags} from the $Entities section."""
    lines = [line.split() for line in text.decode("ascii", "replace").splitlines() if line.strip()]
    if not lines:
        return {}
    counts = [int(v) for v in lines[0][:4]]
    out, at = {}, 1
    for dim, count in enumerate(counts):
        for line in lines[at:at + count]:
            values = [int(float(v)) for v in line]
            skip = 4 if dim == 0 else 7  # tag, then the point or the bounding box
            nb_physical = values[skip]
            out[dim, values[0]] = values[skip + 1:skip + 1 + nb_physical]
        at += count
    return out


def _nodes(text):
    """(tags, points (n, 3)) of the $Nodes section."""
    numbers = _Numbers(np.fromstring(text, dtype=np.float64, sep=" "))
    nb_blocks, nb_nodes = (int(v) for v in numbers.take(2))
    numbers.take(2)
    tags, points = [], []
    for _ in range(nb_blocks):
        dim, _, parametric, count = (int(v) for v in numbers.take(4))
        tags.append(numbers.take(count))
        width = 3 + (dim if parametric else 0)
        points.append(numbers.take(count * width).reshape(count, width)[:, :3])
    tags = np.concatenate(tags) if tags else np.zeros(0)
    if len(tags) != nb_nodes:
        raise ValueError(f"$Nodes announces {nb_nodes} nodes and lists {len(tags)}")
    if len(tags) and (tags.max() >= 2 ** 53 or tags.min() < 1 or (tags != np.round(tags)).any()):
        raise ValueError("a node tag that is not a positive integer below 2^53")
    return tags.astype(np.int64), (np.concatenate(points) if points else np.zeros((0, 3)))
