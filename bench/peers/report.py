"""The results as Markdown: the comparison table, the machine, the scaling figures; and
the refresh of docs/performance.md between its markers."""

import pathlib
import shutil

BEGIN, END = "<!-- measured: begin -->", "<!-- measured: end -->"
PLOT = "performance-scaling.png"


def _ms(seconds):
    ms = seconds * 1e3
    return f"{ms:.3g}" if ms < 100 else f"{ms:.0f}"


TOOLS = ("NumPy", "VTK", "SciPy", "Gmsh")


def _ratio(r):
    return f"{r:.3g}" if r < 10 else f"{r:.0f}"


def table(rows):
    """One line per family and mesh, one column per peer: its time and the ratio."""
    lines, order = {}, []
    for r in rows:
        key = (r["family"], r["mesh"])
        if key not in lines:
            lines[key] = {"elements": r["elements"], "ours": r["ours"], "sampled": False}
            order.append(key)
        tool = r["peer"].split()[0]
        lines[key][tool] = (r["peer_time"], r["ratio"])
        lines[key]["sampled"] |= "scaled" in r["note"]
    head = " | ".join(f"{t} (ms, ratio)" for t in TOOLS)
    out = [f"| family | mesh | elements (points) | tessel3d (ms) | {head} |",
           "|---|---|---:|---:|" + "---:|" * len(TOOLS)]
    for key in order:
        line = lines[key]
        cells = [f"{_ms(line[t][0])} (**{_ratio(line[t][1])}**)" if t in line else "" for t in TOOLS]
        ours = _ms(line["ours"]) + (" *" if line["sampled"] else "")
        out.append(f"| {key[0]} | {key[1]} | {line['elements']:,} | {ours} | " + " | ".join(cells) + " |")
    peers = {}
    for r in rows:
        peers.setdefault(r["family"], [])
        if r["peer"] not in peers[r["family"]]:
            peers[r["family"]].append(r["peer"])
    notes = {}
    for r in rows:
        text = r["note"].split(" Ours timed")[0]
        if text:
            notes.setdefault(r["family"], [])
            if text not in notes[r["family"]]:
                notes[r["family"]].append(text)
    out += ["", "Peers and notes:", ""]
    for family, names in peers.items():
        extra = "; ".join(notes.get(family, []))
        out.append(f"- {family}: {', '.join(names)}" + (f". {extra}" if extra else ""))
    if any(line["sampled"] for line in lines.values()):
        out.append("- \\*: tessel3d timed on a sample of the points and scaled to all of them (each search "
                   "costs the same, see below).")
    return "\n".join(out)


def scaling_table(scaling):
    if not scaling:
        return ""
    sizes = sorted({int(n) for curve in scaling.values() for n in curve})
    head = "| family | " + " | ".join(f"{n:.0e}".replace("e+0", "e") for n in sizes) + " |"
    out = ["Time per element (ns; per point for location and interpolation) by nominal mesh size:", "",
           head, "|---|" + "---:|" * len(sizes)]
    for family, curve in scaling.items():
        cells = []
        for n in sizes:
            t = curve.get(str(n), curve.get(n))
            cells.append("" if t is None else f"{t * 1e9:.3g}")
        out.append(f"| {family} | " + " | ".join(cells) + " |")
    return "\n".join(out)


def markdown(results):
    parts = []
    if results["rows"]:
        parts += ["Best of up to 5 runs, wall time. Ratio: the peer's time over tessel3d's (above 1, tessel3d is "
                  "faster).", "", table(results["rows"]), ""]
        if results["disagreements"]:
            parts += ["Disagreements:", ""] + [f"- {d}" for d in results["disagreements"]] + [""]
        else:
            parts += ["Every check of agreement passed (volumes, node counts and positions, element counts, "
                      "located elements, interpolated values).", ""]
    if results["scaling"]:
        parts += [scaling_table(results["scaling"]), ""]
    parts += ["Machine:", "", "```"] + results["machine"] + ["```", ""]
    return "\n".join(parts)


def update_docs(results, plot, docs):
    docs = pathlib.Path(docs)
    page = docs / "performance.md"
    text = page.read_text()
    start, end = text.index(BEGIN) + len(BEGIN), text.index(END)
    page.write_text(text[:start] + "\n" + markdown(results) + "\n" + text[end:])
    if pathlib.Path(plot).exists():
        shutil.copyfile(plot, docs / PLOT)
