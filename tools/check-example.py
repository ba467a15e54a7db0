#!/usr/bin/env python3
"""Runs the agent on an example scenario and compares its whole output with the checked-in one.

check-example.py AGENT SCENARIO.json [--json] [--update]

The expected output is SCENARIO.out beside the scenario (SCENARIO.json.out with --json). The
agent runs twice: both runs must agree, so that the checked-in text cannot depend on chance.
With --update the expected output is written instead of compared.
"""
import difflib
import subprocess
import sys
from pathlib import Path


def run(agent, scenario, json):
    args = [agent, str(scenario)] + (["--json"] if json else [])
    p = subprocess.run(args, capture_output=True, text=True)
    # What the agent says on stderr belongs to the output too; the exit status closes it.
    text = p.stdout
    if p.stderr:
        text += "--- stderr\n" + p.stderr
    if p.returncode != 0:
        text += f"--- exit status {p.returncode}\n"
    return text


def main(argv):
    flags = {a for a in argv[1:] if a.startswith("--")}
    paths = [a for a in argv[1:] if not a.startswith("--")]
    if len(paths) != 2 or flags - {"--json", "--update"}:
        print(__doc__.strip().splitlines()[2], file=sys.stderr)
        return 2
    agent, scenario = paths[0], Path(paths[1])
    json = "--json" in flags
    expected_file = scenario.with_name(scenario.stem + (".json.out" if json else ".out"))
    first = run(agent, scenario, json)
    second = run(agent, scenario, json)
    if first != second:
        print(f"{scenario}: two runs differ", file=sys.stderr)
        sys.stderr.writelines(difflib.unified_diff(first.splitlines(True),
                                                   second.splitlines(True), "run 1", "run 2"))
        return 1
    if "--update" in flags:
        if not expected_file.exists() or expected_file.read_text() != first:
            expected_file.write_text(first)
            print(f"updated {expected_file}")
        return 0
    if not expected_file.exists():
        print(f"{expected_file} is missing; `make examples-update` writes it", file=sys.stderr)
        return 1
    expected = expected_file.read_text()
    if expected != first:
        sys.stderr.writelines(difflib.unified_diff(expected.splitlines(True),
                                                   first.splitlines(True), str(expected_file),
                                                   "agent output"))
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
