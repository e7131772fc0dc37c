#!/usr/bin/python3
"""Apply each deliberate fault of faults.tsv in turn, rebuild the named test programs, run
them and record which tests fail; the source is restored after each fault.

    tools/mutations/run.py [build dir] [fault id ...]    (default build/release, every fault)

Prints one line per fault: its id and the failing tests, or NOT CAUGHT."""
import pathlib, re, subprocess, sys

root = pathlib.Path(__file__).resolve().parents[2]
build = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else root / "build" / "release")
wanted = set(sys.argv[2:])


def faults():
    for line in (root / "tools/mutations/faults.tsv").read_text().splitlines():
        if line.startswith("#") or not line.strip():
            continue
        fid, path, old, new, targets = line.split("\t")
        yield fid, path, old.replace("\\n", "\n"), new.replace("\\n", "\n"), targets.split()


for fid, path, old, new, targets in faults():
    if wanted and fid not in wanted:
        continue
    source = root / path
    text = source.read_text()
    if text.count(old) != 1:
        print(f"{fid}: original text found {text.count(old)} times, skipped", flush=True)
        continue
    try:
        source.write_text(text.replace(old, new))
        built = subprocess.run(["cmake", "--build", str(build), "-j2", "--target", *targets],
                               capture_output=True, text=True)
        if built.returncode:
            print(f"{fid}: build failed\n{built.stdout[-2000:]}", flush=True)
            continue
        failed = []
        for t in targets:
            run = subprocess.run([str(build / "tests" / t), "--gtest_brief=1"], capture_output=True, text=True, timeout=600)
            failed += re.findall(r"^\[  FAILED  \] ([^\s,]+)", run.stdout, re.M)
            if run.returncode and not failed:
                failed.append(f"{t} (exit {run.returncode})")
        print(f"{fid}: " + (" ".join(sorted(set(failed))) if failed else "NOT CAUGHT"), flush=True)
    finally:
        source.write_text(text)
