"""The file path end to end against the library call alone (not a test).

    PYTHONPATH=build/release/python python3 bench/files/bench_files.py [--elements 1e6]
        [--work build/bench-files] [--repeat 3] [--ratios-only]

Builds a tetrahedral Gmsh mesh (.msh 4.1, a box with a cylindrical hole; made once and
kept in --work), then times

- `python3 -m tessel3d quadratic big.msh out.vtu` and `... hexsplit big.msh out.vtu`,
  each a fresh process, end to end (interpreter start and imports included);
- the library calls alone on the same mesh (convert_into_quadratic, split_into_h8);
- reading the .msh, and writing each result as .vtu with every compression.

The package's modules are compiled to bytecode first, as an installed package's are
(Python compiles them on every start otherwise when it may not write its cache, e.g.
under PYTHONDONTWRITEBYTECODE). --ratios-only leaves out the writing table.

Wall-clock and CPU seconds are both given (the best of --repeat runs): on a shared
machine the CPU times are the steadier. The ratio end to end / library call is the
figure docs/performance.md reports.
"""

import argparse
import compileall
import os
import resource
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))


def children_cpu():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def timed_process(args):
    """(wall, cpu) seconds of a fresh process."""
    wall, cpu = time.perf_counter(), children_cpu()
    subprocess.run(args, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return time.perf_counter() - wall, children_cpu() - cpu


def timed_call(function):
    wall, cpu = time.perf_counter(), time.process_time()
    result = function()
    return (time.perf_counter() - wall, time.process_time() - cpu), result


def best(samples):
    return min(s[0] for s in samples), min(s[1] for s in samples)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--elements", type=float, default=1e6)
    parser.add_argument("--work", default=os.path.join("build", "bench-files"))
    parser.add_argument("--repeat", type=int, default=3)
    parser.add_argument("--ratios-only", action="store_true", help="no table of the writing with each compression")
    args = parser.parse_args()
    os.makedirs(args.work, exist_ok=True)
    mesh_path = os.path.join(args.work, f"big-{args.elements:.0e}.msh")
    if not os.path.exists(mesh_path):
        # Gmsh's mesher makes about 1.55 tetrahedra per requested "element" of make()
        subprocess.run([sys.executable, os.path.join(HERE, "make_big_mesh.py"), mesh_path,
                        str(int(args.elements * 1.55))], check=True)

    import tessel3d as t3
    from tessel3d import io as mio
    compileall.compile_dir(os.path.dirname(t3.__file__), quiet=1)

    rows = []
    reads = [timed_call(lambda: mio.read(mesh_path)) for _ in range(args.repeat)]
    mesh = reads[0][1]
    kind, solids = mesh.solids()
    rows.append((f"read .msh 4.1 ({len(solids):,} {kind})", best([r[0] for r in reads])))
    for command, call in (("quadratic", lambda: t3.convert_into_quadratic(mesh.coords, solids)),
                          ("hexsplit", lambda: t3.split_into_h8(mesh.coords, solids))):
        calls = [timed_call(call) for _ in range(args.repeat)]
        library = best([c[0] for c in calls])
        result = calls[0][1]
        out = os.path.join(args.work, f"{command}.vtu")
        end_to_end = best([timed_process([sys.executable, "-m", "tessel3d", command, mesh_path, out])
                           for _ in range(args.repeat)])
        rows.append((f"{command}: library call", library))
        rows.append((f"{command}: end to end", end_to_end))
        rows.append((f"{command}: ratio", (end_to_end[0] / library[0], end_to_end[1] / library[1])))
        if args.ratios_only:
            continue
        written = mio.Mesh(result.coords, {"TH10" if command == "quadratic" else "H8": result[1]})
        for compression in (None, "lz4", "zlib"):
            path = os.path.join(args.work, f"{command}-{compression}.vtu")
            times = best([timed_call(lambda: mio.write(path, written, compression=compression))[0]
                          for _ in range(args.repeat)])
            rows.append((f"{command}: write .vtu, {compression} ({os.path.getsize(path) / 1e6:.0f} MB)", times))
    print(f"{'step':60s} {'wall s':>8s} {'CPU s':>8s}")
    for name, (wall, cpu) in rows:
        print(f"{name:60s} {wall:8.2f} {cpu:8.2f}")


if __name__ == "__main__":
    main()
