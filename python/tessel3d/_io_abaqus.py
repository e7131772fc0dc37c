"""Abaqus input files (.inp): *NODE, *ELEMENT and *ELSET, with the standard element
keywords. Cells are in Abaqus's node orders here; the caller converts them.

Written: TH4 C3D4, TH10 C3D10, PY5 C3D8 with the apex repeated (the usual collapsed
brick: Abaqus has no pyramid), W6 C3D6, W15 C3D15, H8 C3D8, H20 C3D20, H27 C3D27,
T3 S3, T6 STRI65, Q4 S4, Q8 S8R, Q9 S9R5, E2 T3D2, E3 T3D3; groups as element sets.
PY13, PY14 and W18 have no Abaqus element and are refused. Read: those keywords with
their variants (C3D8R, C3D10M, CPS3, S4R, ...), C3D5 as PY5, a collapsed C3D8 (nodes
5 to 8 equal) as PY5; a file with elements of any other type is refused with their
count. Point and cell data are not carried by this format.
"""

import re

import numpy as np

WRITTEN = {"TH4": "C3D4", "TH10": "C3D10", "PY5": "C3D8", "W6": "C3D6", "W15": "C3D15", "H8": "C3D8",
           "H20": "C3D20", "H27": "C3D27", "T3": "S3", "T6": "STRI65", "Q4": "S4", "Q8": "S8R", "Q9": "S9R5",
           "E2": "T3D2", "E3": "T3D3"}

# Keyword families read, by the leading part of the keyword, with their node count.
_READ = [
    (r"C3D4", "TH4"), (r"C3D10", "TH10"), (r"C3D5", "PY5"), (r"C3D6", "W6"), (r"C3D15", "W15"),
    (r"C3D8", "H8"), (r"C3D20", "H20"), (r"C3D27", "H27"),
    (r"(S3|CPS3|CPE3|CAX3|M3D3|R3D3|SFM3D3)", "T3"), (r"(S4|CPS4|CPE4|CAX4|M3D4|R3D4|SFM3D4)", "Q4"),
    (r"(STRI65|S6|CPS6|CPE6|CAX6|M3D6)", "T6"), (r"(S8|CPS8|CPE8|CAX8|M3D8)", "Q8"), (r"(S9|M3D9)", "Q9"),
    (r"(T3D2|T2D2|B31|B21)", "E2"), (r"(T3D3|T2D3|B32|B22)", "E3"),
]
NODES = {"TH4": 4, "TH10": 10, "PY5": 5, "W6": 6, "W15": 15, "H8": 8, "H20": 20, "H27": 27, "T3": 3, "T6": 6,
         "Q4": 4, "Q8": 8, "Q9": 9, "E2": 2, "E3": 3}


def library_type(keyword):
    """The library type of an Abaqus element keyword, None when there is none."""
    for pattern, name in _READ:
        if re.fullmatch(pattern + r"[A-Z]*[0-9]?", keyword):
            return name
    return None


def _parameters(line):
    out = {}
    for part in line.split(",")[1:]:
        key, _, value = part.partition("=")
        out[key.strip().upper()] = value.strip()
    return out


def _records(lines):
    """The data lines of one keyword block, continuation lines (a line ending in a comma)
    joined to the line they continue."""
    text = "\n".join(lines)
    text = re.sub(r",[ \t]*\n", ",", text)
    return [r for r in text.split("\n") if r.strip()]


def _integers(records, width, what):
    try:
        rows = [[int(v) for v in r.split(",") if v.strip()] for r in records]
    except ValueError:
        raise ValueError(f"{what}: a value that is not an integer") from None
    wrong = [i for i, r in enumerate(rows) if len(r) != width]
    if wrong:
        raise ValueError(f"{what}: record {wrong[0] + 1} has {len(rows[wrong[0]])} values instead of {width}")
    return np.array(rows, dtype=np.int64).reshape(-1, width)


def read(path):
    """(points (n, 3), [(library type, element IDs, (m, k) cells as node row indices)],
    {set name: element IDs}); raises ValueError naming what cannot be mapped."""
    with open(path, encoding="latin-1") as f:
        text = f.read().replace("\r\n", "\n")
    blocks = []  # (keyword line, data lines)
    for line in text.split("\n"):
        stripped = line.strip()
        if stripped.startswith("**") or not stripped:
            continue
        if stripped.startswith("*"):
            blocks.append((stripped, []))
        elif blocks:
            blocks[-1][1].append(stripped)
    node_ids, points, elements, sets, refused = [], [], [], {}, {}
    for header, lines in blocks:
        keyword = header[1:].split(",")[0].strip().upper()
        parameters = _parameters(header)
        if keyword == "INCLUDE":
            raise ValueError("*INCLUDE is not followed (write the included file's content in place)")
        if keyword == "NODE":
            records = _records(lines)
            try:
                rows = [[float(v) for v in r.split(",") if v.strip()] for r in records]
            except ValueError:
                raise ValueError("*NODE: a value that is not a number") from None
            for i, r in enumerate(rows):
                if not 2 <= len(r) <= 4 or r[0] != int(r[0]):
                    raise ValueError(f"*NODE: record {i + 1} is not an ID and 1 to 3 coordinates")
                node_ids.append(int(r[0]))
                points.append((r[1:] + [0.0, 0.0])[:3])
        elif keyword == "ELEMENT":
            name = parameters.get("TYPE", "").upper()
            kind = library_type(name)
            records = _records(lines)
            if kind is None:
                refused[name or "(no type)"] = refused.get(name or "(no type)", 0) + len(records)
                continue
            data = None
            try:
                data = _integers(records, NODES[kind] + 1, f"*ELEMENT, TYPE={name}")
            except ValueError:
                sizes = {len([v for v in r.split(",") if v.strip()]) - 1 for r in records}
                label = f"{name} with {'/'.join(map(str, sorted(sizes)))} nodes"
                refused[label] = refused.get(label, 0) + len(records)
                continue
            if name.startswith("C3D8") and len(data):
                collapsed = (data[:, 5:9] == data[:, [5]]).all(axis=1)
                if collapsed.any():
                    pyramids = data[collapsed][:, :6]
                    elements.append(("PY5", pyramids[:, 0], pyramids[:, 1:], parameters.get("ELSET")))
                    data = data[~collapsed]
            elements.append((kind, data[:, 0], data[:, 1:], parameters.get("ELSET")))
        elif keyword == "ELSET" and "ELSET" in parameters:
            records = _records(lines)
            members = []
            for r in records:
                values = [v.strip() for v in r.split(",") if v.strip()]
                if all(re.fullmatch(r"-?\d+", v) for v in values):
                    members.append(np.array(values, dtype=np.int64))
                else:  # names of other sets
                    for v in values:
                        members.append(sets.get(v.upper(), np.zeros(0, np.int64)))
            ids = np.concatenate(members) if members else np.zeros(0, np.int64)
            if "GENERATE" in parameters and len(ids) >= 2:
                start, stop, step = (list(ids[:3]) + [1])[:3]
                if step <= 0 or (stop - start) // step > 10 * len(text):
                    raise ValueError(f"*ELSET, ELSET={parameters['ELSET']}: a range it cannot generate")
                ids = np.arange(start, stop + 1, step, dtype=np.int64)
            key = parameters["ELSET"]
            sets[key] = np.concatenate([sets.get(key, np.zeros(0, np.int64)), ids])
    if refused:
        listed = ", ".join(f"{n}: {c}" for n, c in sorted(refused.items()))
        raise ValueError(f"{sum(refused.values())} elements of types this library cannot map ({listed})")
    node_ids = np.array(node_ids, dtype=np.int64)
    order = np.argsort(node_ids, kind="stable")
    sorted_ids = node_ids[order]
    if len(sorted_ids) > 1 and (np.diff(sorted_ids) == 0).any():
        raise ValueError(f"node {sorted_ids[np.nonzero(np.diff(sorted_ids) == 0)[0][0]]} is defined twice")
    blocks_out, named = [], {}
    for kind, ids, cells, elset in elements:
        position = np.searchsorted(sorted_ids, cells)
        position = np.minimum(position, max(len(sorted_ids) - 1, 0))
        known = sorted_ids[position] == cells if len(sorted_ids) else np.zeros(cells.shape, bool)
        if not known.all():
            row = np.nonzero(~known.all(axis=1))[0][0]
            raise ValueError(f"element {ids[row]} ({kind}) names node {cells[row][~known[row]][0]}, which the file "
                             f"does not define")
        blocks_out.append((kind, ids, order[position]))
        if elset:
            named[elset] = np.concatenate([named.get(elset, np.zeros(0, np.int64)), ids])
    for key, ids in sets.items():
        named[key] = np.concatenate([named.get(key, np.zeros(0, np.int64)), ids])
    points = np.array(points, dtype=np.float64).reshape(-1, 3)
    return points, blocks_out, named


def write(path, points, blocks, groups):
    """blocks: [(library type, (m, k) cells in Abaqus's order, 0-based)]; groups: {name:
    [per block: element indices into that block]}."""
    for kind, _ in blocks:
        if kind not in WRITTEN:
            raise ValueError(f"elements of type {kind} have no Abaqus keyword (write .vtu or .msh)")
    with open(path, "w") as f:
        f.write("*HEADING\nwritten by tessel3d\n*NODE\n")
        ids = np.arange(1, len(points) + 1)
        np.savetxt(f, np.column_stack([ids, points]), fmt=["%d"] + ["%.17g"] * 3, delimiter=", ")
        first, starts = 1, []
        for kind, cells in blocks:
            cells = np.asarray(cells, dtype=np.int64) + 1
            if kind == "PY5":
                cells = cells[:, [0, 1, 2, 3, 4, 4, 4, 4]]
            starts.append(first)
            f.write(f"*ELEMENT, TYPE={WRITTEN[kind]}\n")
            rows = np.column_stack([np.arange(first, first + len(cells)), cells])
            # at most 16 values on a line; the rest on continuation lines
            head = ", ".join(["%d"] * min(16, rows.shape[1]))
            rest = rows.shape[1] - 16
            fmt = head + (",\n" + ", ".join(["%d"] * rest) if rest > 0 else "")
            np.savetxt(f, rows, fmt=fmt)
            first += len(cells)
        for name, per_block in groups.items():
            ids = np.concatenate([np.asarray(index, dtype=np.int64) + start
                                  for index, start in zip(per_block, starts)] or [np.zeros(0, np.int64)])
            if not len(ids):
                continue
            f.write(f"*ELSET, ELSET={name}\n")
            lines = [", ".join(map(str, ids[i:i + 16])) for i in range(0, len(ids), 16)]
            f.write("\n".join(lines) + "\n")
