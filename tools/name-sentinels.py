#!/usr/bin/env python3
"""Spells the sentinels of the mesh matrices by name in C++ sources.

    tools/name-sentinels.py FILE[:MEANING] ...

In the code of each file (comments are left alone): `~0U` becomes MEANING (ABSENT,
NO_ELEMENT or NOT_FOUND; ABSENT when not given), a line listed in OVERRIDES below takes
the meaning written there, the identifier `absent` becomes ABSENT, -199 and the local
`no_memory` constants become OUT_OF_MEMORY, and the local definitions of `absent` and
`no_memory` are dropped. Names are qualified as the file's namespace needs: none in
zel::tessel and in elfes (which gets them from common/element_tables.h), `tessel::` in
zel::tessel3d and zel::tessel2d. Review the diff: a `~0U` used as a number (a bound, a
mask) must stay as it is; list such lines in OVERRIDES with the meaning None.
"""
import re
import sys

# (file suffix, text the code of the line contains) -> meaning, or None to keep the literal.
OVERRIDES = {
    ("surface/duplicate_surface_nodes.cpp", "nb_entries < ~0U"): None,
    ("locate/get_elements_containing_points.cpp", "std::size_t(~0U)"): None,
    ("locate/node_octree.h", "return ~0U"): "NOT_FOUND",
    ("extrude/extrude_core.h", "? ~0U :"): "NOT_FOUND",
    ("extrude/extrude_line.cpp", "first_local != ~0U"): "NOT_FOUND",
    ("locate/node_placement.h", "where = ~0U"): "NOT_FOUND",
    ("tessel/src/get_neighbors.cpp", "second = absent"): "NO_ELEMENT",
    ("tessel/src/get_neighbors.cpp", "second == absent"): "NO_ELEMENT",
    ("tessel/src/get_neighbors.cpp", "nb_elements, absent"): "NO_ELEMENT",
    ("tessel/src/get_neighbors.cpp", "nb_elements >= absent"): "NO_ELEMENT",
}

NAMES = ("ABSENT", "NO_ELEMENT", "NOT_FOUND", "OUT_OF_MEMORY")
DROPPED = re.compile(r"^\s*(constexpr (unsigned|int) (absent|no_memory) = (~0U|-199);.*|using elfes::absent;)\s*$")


def split_comment(line):
    at = line.find("//")
    return (line, "") if at < 0 else (line[:at], line[at:])


def prefix_for(text):
    if re.search(r"^namespace tessel\b", text, re.M) or "namespace zel::tessel {" in text:
        return ""
    if re.search(r"^namespace elfes\b", text, re.M) and not re.search(r"^namespace tessel(3d|2d)\b", text, re.M):
        return ""
    if re.search(r"^namespace tessel(3d|2d)\b", text, re.M) and not re.search(r"^namespace elfes\b", text, re.M):
        return "tessel::"
    return "zel::tessel::"


def convert(path, meaning):
    text = open(path).read()
    prefix = prefix_for(text)
    out = []
    for line in text.split("\n"):
        if DROPPED.match(line):
            continue
        code, comment = split_comment(line)
        here = meaning
        for (suffix, needle), chosen in OVERRIDES.items():
            if path.endswith(suffix) and needle in code:
                here = chosen
        if here:
            code = code.replace("~0U", prefix + here)
        code = re.sub(r"(?<![\w:.])absent\b", prefix + (here or "ABSENT"), code)
        code = re.sub(r"(?<![\w:.])no_memory\b", prefix + "OUT_OF_MEMORY", code)
        code = re.sub(r"(?<![\w.])-199\b", prefix + "OUT_OF_MEMORY", code)
        code = re.sub(r"\belfes::(ABSENT|absent)\b", "elfes::ABSENT", code)
        out.append(code + comment)
    new = "\n".join(out)
    uses_names = any(name in new for name in NAMES)
    if prefix == "" and re.search(r"^namespace elfes\b", text, re.M) and uses_names and "common/element_tables.h" not in new:
        at = new.find('#include "')  # the first of the project's includes
        new = new[:at] + '#include "common/element_tables.h"\n' + new[at:]
    if prefix and uses_names and "zel/tessel.h" not in new and "zel/tessel3d.h" not in new:
        at = new.find('#include "')
        new = new[:at] + '#include "zel/tessel.h"\n' + new[at:]
    if new != text:
        open(path, "w").write(new)
        print("named the sentinels of", path)


for arg in sys.argv[1:]:
    path, _, meaning = arg.partition(":")
    if meaning and meaning not in NAMES:
        sys.exit(f"unknown meaning {meaning}: one of {', '.join(NAMES)}")
    convert(path, meaning or "ABSENT")
