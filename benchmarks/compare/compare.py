#!/usr/bin/env python3
"""Compares the ring with what else brings messages from one process to another, and with what the
machine allows. scripts/bench builds the programs and calls this."""

import argparse
import itertools
import json
import pathlib
import platform
import re
import sys
import time

import bars
import once
import plan
import plots
import running
import tables


def parse():
    parser = argparse.ArgumentParser(description=__doc__)
    source = parser.add_mutually_exclusive_group(required=True)
    source.add_argument("--programs", help="folder of the programs")
    source.add_argument("--from-json", help="makes tables and plots of a results.json again")
    parser.add_argument("--output", required=True, help="folder for tables, plots and results.json")
    parser.add_argument("--library-file", help="the library's file, whose size is told")
    parser.add_argument("--rounds", type=int, default=6, help="how often each cell is measured")
    parser.add_argument("--only", default="", help="a pattern that GROUP/NAME of a cell must match")
    parser.add_argument("--json", help="write the figures to this file as well")
    parser.add_argument("--quick", action="store_true", help="only whether all messages arrive")
    parser.add_argument("--long", action="store_true", help="10^9 packets in place of 10^8")
    return parser.parse_args()


def rounds_of(cells, rounds):
    """Every cell once a round. Within a group the cells take turns in being the first."""
    for number in range(rounds):
        for _, members in itertools.groupby(cells, key=lambda cell: cell.group):
            members = list(members)
            turn = number * max(1, len(members) // rounds) % len(members)
            yield from ((number, cell) for cell in members[turn:] + members[:turn])


def needs_reference(cell):
    """Where the way from core to core decides."""
    return cell.group.startswith("roundtrip/") or (
        cell.group.startswith("stream") and cell.size <= 1024 and cell.program != "limits"
    )


def measure(programs, cells, rounds, quick):
    results = {}
    skipped = set()
    total = rounds * len(cells)
    for count, (number, cell) in enumerate(rounds_of(cells, rounds), 1):
        key = f"{cell.group}/{cell.name}"
        if sys.stderr.isatty():
            print(f"\r\033[K{count} of {total}, round {number + 1}: {key}", end="", file=sys.stderr)
        if key in skipped:
            continue
        if quick or not needs_reference(cell):
            result = programs.run(cell)
        else:
            result = programs.run_beside_reference(cell)
        results.setdefault(cell.group, {}).setdefault(cell.name, {})[str(number)] = result
        if result.get("missing") or result.get("refused"):
            skipped.add(key)
        elif quick and "failed" in result:
            skipped.update(f"{other.group}/{cell.name}" for other in cells)
    if sys.stderr.isatty():
        print("\r\033[K", end="", file=sys.stderr)
    return results


def machine():
    fields = [line.split(":", 1) for line
              in pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8").splitlines()]
    names = [field[1].strip() for field in fields if field[0].startswith("model name")]
    caches = []
    for index in sorted(pathlib.Path("/sys/devices/system/cpu/cpu0/cache").glob("index*")):
        kind, level, size = ((index / name).read_text(encoding="utf-8").strip()
                             for name in ("type", "level", "size"))
        if kind != "Instruction":
            caches.append(f"L{level} {size}")
    return {
        "processor": names[0] if names else "unknown",
        "cores": sum(field[0].startswith("processor") for field in fields),
        "caches": ", ".join(caches),
        "kernel": platform.release(),
        "date": time.strftime("%Y-%m-%d", time.gmtime()),
    }


def faults(results):
    """What went wrong, by "GROUP/NAME". Not what a transport cannot do, nor missing peers."""
    found = {}
    for group, members in results.items():
        for name, rounds in members.items():
            for result in rounds.values():
                if result.get("lost") or result.get("wrong"):
                    text = f"{result['lost']} lost, {result['wrong']} wrong"
                    found[f"{group}/{name}"] = text
                elif "failed" in result and not (result.get("missing") or result.get("refused")):
                    found[f"{group}/{name}"] = result["failed"]
    return found


def tell(found):
    for key, text in found.items():
        print(f"{key}: {text}", file=sys.stderr)


def write(data, options):
    folder = pathlib.Path(options.output)
    folder.mkdir(parents=True, exist_ok=True)
    text = json.dumps(data, indent=1)
    for path in filter(None, (folder / "results.json", options.json)):
        pathlib.Path(path).write_text(text, encoding="utf-8")
    summary = bars.markdown(data)
    report = summary + "\n" + tables.markdown(data)
    (folder / "tables.md").write_text(report, encoding="utf-8")
    plots.draw(data, folder)
    print(summary)
    print(f"tables, plots and figures are in {folder}")


def load():
    return pathlib.Path("/proc/loadavg").read_text(encoding="utf-8").split()[0]


def cells_for(options):
    cells = plan.quick() if options.quick else plan.full(9 if options.long else 8)
    cells = [cell for cell in cells if re.search(options.only, f"{cell.group}/{cell.name}")]
    if not cells and not re.search(options.only, "once"):
        sys.exit(f"no cell matches {options.only}")
    return cells


def check_quickly(programs, cells):
    """Ends with status 1 if a message was lost or wrong, or what is always there did not run."""
    results = measure(programs, cells, 1, True)
    found = faults(results)
    tell(found)
    every = [(f"{group}/{name}", result) for group, members in results.items()
             for name, rounds in members.items() for result in rounds.values()]
    ran = [key for key, result in every if "failed" not in result]
    own = {name for name, program in plan.PROGRAM_OF.items() if program == "own"}
    serious = [key for key in found if key in ran or key.split("/")[-1] in own or "chain" in key]
    print(f"{len(ran)} of {len(cells)} cells ran, {len(serious)} with faults")
    sys.exit(bool(serious) or not ran)


def main():
    options = parse()
    if options.from_json:
        write(json.loads(pathlib.Path(options.from_json).read_text(encoding="utf-8")), options)
        return
    programs = running.Programs(options.programs)
    cells = cells_for(options)
    if options.quick:
        check_quickly(programs, cells)
    facts = {**machine(), "load_before": load()}
    results = measure(programs, cells, options.rounds, False)
    data = {"machine": facts, "rounds": options.rounds, "results": results,
            "once": once.measure(programs, options.library_file, options.only)}
    facts["load_after"] = load()
    write(data, options)
    found = faults(results)
    tell(found)
    sys.exit(any("/qev" in key for key in found))


if __name__ == "__main__":
    main()
