#!/usr/bin/env python3
"""Runs the benchmarks and writes results.json: one object per benchmark with its floor.

Usage: run-bench.py BENCH_BUILD_DIR RESULTS_JSON
Each benchmark NAME is paired with NAME/floor from the same run; ratio = value / floor.
"""
import json
import re
import subprocess
import sys
from pathlib import Path


def main():
    bench_dir, results = Path(sys.argv[1]), Path(sys.argv[2])
    raw = results.with_name("raw.json")
    results.parent.mkdir(parents=True, exist_ok=True)
    subprocess.run([str(bench_dir / "vemo-bench"), f"--benchmark_out={raw}",
                    "--benchmark_out_format=json"], check=True)
    runs = json.loads(raw.read_text())["benchmarks"]
    # Google Benchmark appends run settings ("/iterations:5") to the names; the figures go by
    # the names we gave them.
    by_name = {re.sub(r"/(iterations|min_time|repeats):[^/]*", "", r["name"]): r
               for r in runs if r.get("run_type", "iteration") == "iteration"}
    out = []
    for name, r in sorted(by_name.items()):
        if name.endswith("/floor"):
            continue
        floor = by_name.get(name + "/floor")
        entry = {"name": name, "value": r["real_time"], "unit": r["time_unit"]}
        if floor:
            f = floor["real_time"]
            if floor["time_unit"] != r["time_unit"]:
                sys.exit(f"{name}: floor measured in another unit")
            entry.update(floor=f, ratio=round(r["real_time"] / f, 3))
        else:
            entry.update(floor=None, ratio=None)
        for k, v in r.items():
            if k not in ("name", "real_time", "time_unit") and isinstance(v, (int, float)) and \
                    k not in ("iterations", "repetitions", "repetition_index", "threads",
                              "cpu_time", "family_index", "per_family_instance_index"):
                entry.setdefault("counters", {})[k] = v
        out.append(entry)
    results.write_text(json.dumps(out, indent=2) + "\n")
    for e in out:
        ratio = f"ratio {e['ratio']}" if e["ratio"] is not None else "no floor"
        print(f"{e['name']:45} {e['value']:12.3f} {e['unit']}  {ratio}")


if __name__ == "__main__":
    main()
