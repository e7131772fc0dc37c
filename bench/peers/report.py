"""The results as Markdown: the comparison table, the machine, the scaling figures; and
the refresh of docs/performance.md between its markers."""

import pathlib
import shutil

BEGIN, END = "<!-- measured: begin -->", "<!-- measured: end -->"
PLOT = "performance-scaling.png"


def _ms(seconds):
    ms = seconds * 1e3
    return f"{ms:.3g}" if ms < 100 else f"{ms:.0f}"


def table(rows):
    out = ["| family | mesh | elements / points | tessel3d (ms) | peer | peer (ms) | peer / tessel3d |",
           "|---|---|---:|---:|---|---:|---:|"]
    for r in rows:
        out.append(f"| {r['family']} | {r['mesh']} | {r['elements']:,} | {_ms(r['ours'])} | {r['peer']} | "
                   f"{_ms(r['peer_time'])} | {r['ratio']:.2f} |")
    notes = sorted({f"{r['family']}: {r['note']}" for r in rows if r["note"]})
    if notes:
        out += ["", "Notes:", ""] + [f"- {n}" for n in notes]
    return "\n".join(out)


def scaling_table(scaling):
    if not scaling:
        return ""
    sizes = sorted({int(n) for curve in scaling.values() for n in curve})
    head = "| family | " + " | ".join(f"{n:.0e}".replace("e+0", "e") for n in sizes) + " |"
    out = ["Time per element (ns) by mesh size (elements, or points for location and interpolation):", "",
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
        parts += ["Best of up to 5 runs, wall time; the ratio is the peer's time over tessel3d's (above 1: "
                  "tessel3d is faster).", "", table(results["rows"]), ""]
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
