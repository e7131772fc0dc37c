"""What the result of a mesh operation inherits from its input.

- Elements: every new element inherits the cell data and the groups of the element it was
  made from (its parent); elements without a parent (e.g. the lateral faces of an
  extrusion) get NaN (floating-point data), -1 (signed integers), 0 (others), and no group.
- Nodes: a copy of a node takes its point data as they are. A node built from several
  nodes (an edge midpoint, a face or element centre) takes the mean of their
  floating-point values, exact for a field that varies linearly along the edges of
  straight-sided elements. Integer and boolean point data (IDs, tags, flags) are not
  interpolated: such a node takes its parents' value when they all agree, and otherwise -1
  (signed), the largest value of the type (unsigned) or False.
- Faces and edges of the input follow the operation through node sets: a new node is named
  by the sorted IDs of the input nodes it is built from, so the midpoint of edge (a, b) is
  the node named (a, b) whichever element made it.
"""

import warnings

import numpy as np

ABSENT = 0xFFFFFFFF


# ---- node sets --------------------------------------------------------------------------

def _row_words(rows):
    """Two 64-bit words per row of at most 4 node IDs, equal for rows that list the same
    set: the IDs sorted and padded with ABSENT, two to a word."""
    rows = np.sort(np.asarray(rows, dtype=np.int64), axis=1).astype(np.uint64)
    padded = np.full((len(rows), 4), ABSENT, dtype=np.uint64)
    padded[:, :rows.shape[1]] = rows
    shift = np.uint64(32)
    return padded[:, 0] << shift | padded[:, 1], padded[:, 2] << shift | padded[:, 3]


def _row_keys(rows, width=8):
    """One comparable key per row of node IDs: the IDs sorted and padded with ABSENT."""
    rows = np.sort(np.asarray(rows, dtype=np.uint32), axis=1)
    padded = np.full((len(rows), width), ABSENT, dtype=np.uint32)
    padded[:, :rows.shape[1]] = rows
    return padded.view(np.dtype((np.void, 4 * width))).ravel()


class NewNodes:
    """The new nodes of a result, each with the input nodes it was built from.

    groups: [(ids (k,), parents (k, w))] by parent count w; nb_old: node count of the input.
    """

    def __init__(self, nb_old):
        self.nb_old = nb_old
        self.groups = []
        self.named = np.zeros(0, dtype=bool)
        self.focus = None
        self.record_focus_only = False
        self._keys = None

    def add(self, ids, parents):
        """Records nodes ids (those >= nb_old and not named yet) as built from parents.
        Linear in the count (a scatter, not a sort): it sees every new node of a result."""
        ids = np.asarray(ids).ravel()
        if not len(ids):
            return
        parents = np.asarray(parents).reshape(len(ids), -1)
        keep = ids >= self.nb_old
        if self.record_focus_only:
            keep &= self.focus[parents].all(axis=1)
        ids, parents = ids[keep].astype(np.int64), parents[keep].astype(np.int64)
        if not len(ids):
            return
        lowest, top = int(ids.min()), int(ids.max()) + 1
        if top > len(self.named):
            self.named = np.concatenate([self.named, np.zeros(top - len(self.named), dtype=bool)])
        fresh = ~self.named[ids]
        if not fresh.all():
            ids, parents = ids[fresh], parents[fresh]
        # one row per node (a node listed by several elements is built from the same set)
        row = np.full(top - lowest, -1, dtype=np.int64)
        row[ids - lowest] = np.arange(len(ids))
        rows = row[row >= 0]
        ids = ids[rows]
        self.named[ids] = True
        # parents in increasing order: the mean of their values is the same whichever
        # element listed the node
        self.groups.append((ids, np.sort(parents[rows], axis=1)))
        self._keys = None

    def merged(self):
        """The groups, one per parent count."""
        by_width = {}
        for ids, parents in self.groups:
            by_width.setdefault(parents.shape[1], []).append((ids, parents))
        self.groups = [(np.concatenate([i for i, _ in g]), np.concatenate([p for _, p in g]))
                       for g in by_width.values()]
        return self.groups

    def look_among(self, nodes, record_only_these=False):
        """Restricts later look-ups to nodes built from the listed input nodes only (those
        of the faces to carry), which keeps the look-up table small. record_only_these:
        later add() calls also skip the other nodes (enough when no point data is to be
        interpolated), which saves recording every new node of a large result."""
        self.focus = np.zeros(self.nb_old, dtype=bool)
        self.focus[np.asarray(nodes, dtype=np.int64)] = True
        self.record_focus_only = bool(record_only_these)
        self._keys = None

    def _table(self):
        """The recorded nodes of at most 4 parents (those of faces and edges) sorted by
        the two words of their parent sets: (high words, low words, node IDs)."""
        if self._keys is None:
            groups = []
            for ids, parents in self.merged():
                if parents.shape[1] > 4:
                    continue  # element centres: never a face's or an edge's node
                if self.focus is not None:
                    inside = self.focus[parents].all(axis=1)
                    ids, parents = ids[inside], parents[inside]
                groups.append((ids, _row_words(parents)))
            ids = np.concatenate([i for i, _ in groups]) if groups else np.zeros(0, np.int64)
            high = np.concatenate([w[0] for _, w in groups]) if groups else np.zeros(0, np.uint64)
            low = np.concatenate([w[1] for _, w in groups]) if groups else np.zeros(0, np.uint64)
            order = np.lexsort((low, high))
            self._keys = (high[order], low[order], ids[order])
        return self._keys

    def find(self, parents):
        """The node named by each row of parents, -1 where there is none."""
        high, low, ids = self._table()
        query_high, query_low = _row_words(parents)
        # Each query placed among the table's keys by one stable sort of both (integer
        # keys: sorting and comparing them is many times faster than byte strings); the
        # table entry at or before a query is its only candidate.
        count = len(high)
        order = np.lexsort((np.concatenate([low, query_low]), np.concatenate([high, query_high])))
        from_table = order < count
        last = np.maximum.accumulate(np.where(from_table, order, -1))
        candidate = np.empty(len(query_high), dtype=np.int64)
        candidate[order[~from_table] - count] = last[~from_table]
        found = candidate >= 0
        at = candidate[found]
        found[found] = (high[at] == query_high[found]) & (low[at] == query_low[found])
        return np.where(found, ids[np.maximum(candidate, 0)] if count else -1, -1)

    def find_or_make(self, parents, coords):
        """As find, making the missing nodes (at the mean of their parents); returns the
        IDs and the coordinates grown by the new nodes."""
        parents = np.asarray(parents, dtype=np.int64)
        ids = self.find(parents)
        missing = ids < 0
        if missing.any():
            _, first, inverse = np.unique(_row_keys(parents[missing]), return_index=True, return_inverse=True)
            made = np.arange(len(coords), len(coords) + len(first))
            coords = np.concatenate([coords, coords[parents[missing][first]].mean(axis=1)])
            self.add(made, parents[missing][first])
            ids[missing] = made[inverse.ravel()]
        return ids, coords


def _marker(dtype):
    if dtype.kind == "b":
        return False
    if dtype.kind == "u":
        return np.iinfo(dtype).max
    if dtype.kind == "i":
        return -1
    return np.nan


def point_data(data, nb_nodes, new_nodes, keep=None):
    """Point data for a result of nb_nodes nodes: the input's values at its nodes (or at
    the input nodes listed in `keep`, for a result whose nodes are a renumbered subset),
    then the values of the new nodes (see the module doc)."""
    out = {}
    groups = new_nodes.merged() if new_nodes is not None else []
    for name, values in data.items():
        values = np.asarray(values)
        expected = new_nodes.nb_old if new_nodes is not None else nb_nodes if keep is None else None
        if values.ndim == 0 or values.dtype.kind not in "biufc" or (expected is not None and len(values) != expected) \
                or (keep is not None and len(keep) and len(values) <= keep.max()):
            warnings.warn(f"point data {name!r} not carried: not one number (or array of numbers) per node")
            continue
        if keep is not None:
            out[name] = values[keep]
            continue
        result = np.empty((nb_nodes,) + values.shape[1:], dtype=values.dtype)
        nb_old = new_nodes.nb_old if new_nodes is not None else len(values)
        result[:nb_old] = values[:nb_old]
        if nb_nodes > nb_old:
            result[nb_old:] = _marker(values.dtype) if values.dtype.kind in "biu" else np.nan
        for ids, parents in groups:
            taken = values[parents]
            if values.dtype.kind in "fc":
                result[ids] = taken.mean(axis=1)
            else:
                agree = (taken == taken[:, :1]).reshape(len(ids), -1).all(axis=1)
                agree = agree.reshape((-1,) + (1,) * (values.ndim - 1))
                result[ids] = np.where(agree, taken[:, 0], _marker(values.dtype))
        out[name] = result
    return out


# ---- elements ---------------------------------------------------------------------------

class Cells:
    """The input's cells numbered across types (in the order of mesh.cells), with their
    cell data and group memberships, so that results can name parents by that number."""

    def __init__(self, mesh):
        self.mesh = mesh
        self.offset, start = {}, 0
        for name, cells in mesh.cells.items():
            self.offset[name] = start
            start += len(cells)
        self.count = start
        self.data = {}
        for key, per_type in mesh.cell_data.items():
            parts, has = [], np.zeros(start, dtype=bool)
            try:
                sample = next(np.asarray(v) for v in per_type.values())
                if sample.dtype.kind not in "biufc":
                    raise ValueError("not numbers")
                for name, cells in mesh.cells.items():
                    values = per_type.get(name)
                    if values is None or len(values) != len(cells):
                        fill = np.full((len(cells),) + sample.shape[1:], _marker(sample.dtype))
                        parts.append(fill.astype(np.result_type(sample.dtype, fill.dtype)))
                    else:
                        parts.append(np.asarray(values))
                        has[self.offset[name]:self.offset[name] + len(cells)] = True
                self.data[key] = (np.concatenate(parts), has)
            except (ValueError, TypeError, StopIteration):
                warnings.warn(f"cell data {key!r} not carried: not numbers of one shape for every element type")
        self.groups = {}
        for group, members in mesh.groups.items():
            mask = np.zeros(start, dtype=bool)
            for name, index in members.items():
                if name in self.offset:
                    mask[self.offset[name] + np.asarray(index, dtype=np.int64)] = True
            self.groups[group] = mask

    def index(self, name, local=None):
        """Global numbers of the cells of type `name` (all, or those listed)."""
        local = np.arange(len(self.mesh.cells[name])) if local is None else np.asarray(local, dtype=np.int64)
        return self.offset[name] + local

    def stack(self, names, width, mixed_name):
        """(type, connectivity, global numbers) of the cells of the listed types present:
        one type as it is, several padded to `width` columns under mixed_name;
        (None, None, None) when there are none."""
        present = [n for n in names if n in self.mesh.cells and len(self.mesh.cells[n])]
        if not present:
            return None, None, None
        if len(present) == 1:
            return present[0], self.mesh.cells[present[0]], self.index(present[0])
        parts = []
        for n in present:
            c = self.mesh.cells[n]
            padded = np.full((len(c), width), ABSENT, dtype=np.uint32)
            padded[:, :c.shape[1]] = c
            parts.append(padded)
        return mixed_name, np.concatenate(parts), np.concatenate([self.index(n) for n in present])


def assemble(cells, coords, blocks, point_values, groups=None):
    """A Mesh from result blocks (type name, connectivity, parents[, inherit groups]):
    parents are global numbers of `cells` (-1: none); a block whose 4th entry is False
    takes its parents' cell data but not their groups. Blocks of one type are
    concatenated in order. groups: extra {group: {type name: indices}}."""
    from .io import Mesh
    merged = {}
    for name, connect, parents, *inherit in blocks:
        if len(connect):
            parents = np.asarray(parents, dtype=np.int64)
            merged.setdefault(name, []).append((np.asarray(connect, dtype=np.uint32), parents,
                                                np.full(len(parents), inherit[0] if inherit else True)))
    out_cells, out_data, out_groups = {}, {}, {}
    for name, parts in merged.items():
        out_cells[name] = np.concatenate([c for c, _, _ in parts])
        parents = np.concatenate([p for _, p, _ in parts])
        inherits = np.concatenate([i for _, _, i in parts])
        has_parent = parents >= 0
        safe = np.where(has_parent, parents, 0)
        for key, (values, has) in cells.data.items():
            if not len(values):
                continue
            taken = values[safe]
            known = has[safe] & has_parent
            if not known.any():
                continue
            if not known.all():
                marker = _marker(values.dtype)
                taken = taken.astype(np.result_type(values.dtype, np.asarray(marker).dtype))
                taken[~known] = marker
            out_data.setdefault(key, {})[name] = taken
        for group, mask in cells.groups.items():
            chosen = np.nonzero(mask[safe] & has_parent & inherits)[0]
            if len(chosen):
                out_groups.setdefault(group, {})[name] = chosen.astype(np.uint32)
    for group, members in (groups or {}).items():
        for name, index in members.items():
            out_groups.setdefault(group, {})[name] = np.asarray(index, dtype=np.uint32)
    return Mesh(coords, out_cells, point_data=point_values, cell_data=out_data, groups=out_groups)
