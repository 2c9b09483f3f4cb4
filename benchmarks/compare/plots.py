"""The plots, drawn by gnuplot as SVG."""

import itertools
import pathlib
import shutil
import statistics
import subprocess

import bars
import plan
from figures import median, stream

HEAD = """set terminal svg size 900,560 font 'sans-serif,13' background 'white'
set output '{file}'
set title '{title}'
set grid
"""
OURS = ("#b00020", "#e07000", "#7030a0")
PEERS = ("#1f77b4", "#2ca02c", "#8c564b", "#17becf", "#9467bd", "#bcbd22", "#e377c2", "#7f7f7f",
         "#003f5c", "#66a61e", "#a6761d", "#4daf4a", "#6a8caf", "#984ea3")
LIMITS = ("memcpy", "memcpy-nt", "the bare operations")
# What a plot of all transports leaves out, so that one can tell the others apart.
LEFT_OUT = ("qev-tight", "qev-spin", "boost-mq-spin", "iceoryx-woken", *plan.IN_PLACE)


def draw(data, folder):
    """Writes what there are figures for."""
    if shutil.which("gnuplot") is None:
        return
    folder = pathlib.Path(folder)
    for name, script in (("throughput", _throughput(data)), ("round-trip", _round_trip(data)),
                         ("growth", _growth(data)), ("first-lap", _first_lap(data))):
        if script:
            text = script.replace("{file}", str(folder / f"{name}.svg"))
            subprocess.run(["gnuplot"], input=text, text=True, check=True)


def _block(name, rows):
    lines = [" ".join(str(field) for field in row) for row in rows]
    return f"${name} << END\n" + "\n".join(lines) + "\nEND\n"


def _styles(labels):
    """Ours strong, limits black and broken, peers thin."""
    ours, peers = itertools.cycle(OURS), itertools.cycle(PEERS)
    points = itertools.cycle(range(1, 16))
    for label in labels:
        if label.startswith("qev"):
            yield f"with linespoints pointsize 0.8 linewidth 3.5 linecolor '{next(ours)}'"
        elif label in LIMITS:
            dash = 2 + LIMITS.index(label)
            yield f"with lines linewidth 2 dashtype {dash} linecolor 'black'"
        else:
            yield (f"with linespoints pointsize 0.6 pointtype {next(points)} linewidth 1.2 "
                   f"linecolor '{next(peers)}'")


def _curves(title, axes, curves):
    """`curves`: by label, rows of x and y."""
    curves = {label: rows for label, rows in curves.items() if rows}
    if not curves:
        return ""
    blocks, plots = [], []
    for number, (label, style) in enumerate(zip(curves, _styles(curves))):
        blocks.append(_block(f"data{number}", curves[label]))
        plots.append(f"$data{number} using 1:2 {style} title '{label}' noenhanced")
    head = HEAD.replace("{title}", title) + "set key outside right\n"
    return head + axes + "".join(blocks) + "plot " + ", \\\n".join(plots) + "\n"


def _throughput(data):
    names = (*plan.TRANSPORTS, "memcpy", "memcpy-nt")
    curves = {}
    for name in (name for name in names if name not in LEFT_OUT):
        rates = [(size, median(data, stream(size), name, "bytes_per_second"))
                 for size in sorted(plan.SIZES)]
        curves[name] = [(size, rate / 1e9) for size, rate in rates if rate]
    axes = ("set logscale xy\nset xlabel 'bytes of a message'\nset ylabel 'GB/s'\n"
            "set xrange [50:20e6]\nset format x '%.0s%c'\n")
    return _curves("Stream, ring of 64 MiB", axes, curves)


def _round_trip(data):
    names = [name for name in data["results"].get("roundtrip/64", {})
             if median(data, "roundtrip/64", name, "p50_ns")]
    if not names:
        return ""
    rows = sorted((median(data, "roundtrip/64", name, "p50_ns"),
                   median(data, "roundtrip/64", name, "p99_ns"), name) for name in names)
    rows = [(position, p50 / 1e3, p99 / 1e3, f'"{name}"')
            for position, (p50, p99, name) in enumerate(rows)]
    return (HEAD.replace("{title}", "Round trip of 64 B")
            + "set logscale y\nset ylabel 'µs'\nset xtics rotate by -45 noenhanced\n"
            "set key inside top left\nset rmargin 8\nset boxwidth 0.7\n"
            "set style fill solid 0.5\nset yrange [0.05:*]\n"
            + _block("data", rows)
            + "plot $data using 1:2:xtic(4) with boxes title 'p50', "
            "$data using 1:3 with points pointtype 7 title 'p99'\n")


def _growth(data):
    curves = {}
    for label, group in (("qev: write, read, release", "growth/one-thread"),
                         ("the bare operations", "growth/bare")):
        costs = bars.costs_by_name(data, group, "ns")
        curves[label] = [(ring, cost) for ring, cost in sorted(costs.items()) if cost]
    rates = bars.costs_by_name(data, "growth/stream", "messages_per_second")
    curves["qev: stream"] = [(ring, 1e9 / rate) for ring, rate in sorted(rates.items()) if rate]
    axes = ("set logscale x 2\nset xlabel 'MiB of the ring'\nset ylabel 'ns of a packet of 64 B'\n"
            "set yrange [0:*]\n")
    return _curves("Cost of a packet by the size of the ring", axes, curves)


def _first_lap(data):
    curves = {}
    lap = plan.LAP_RING // (plan.LAP_MESSAGE + 26) * plan.LAP_MESSAGE
    for name in ("populated", "not populated"):
        rounds = [bars.laps_of(result) for result
                  in data["results"].get("first-lap", {}).get(name, {}).values()
                  if "failed" not in result]
        curves[f"qev, {name}"] = [(number, lap / statistics.median(times))
                                  for number, times in enumerate(zip(*rounds), 1)]
    axes = "set xlabel 'lap'\nset ylabel 'GB/s'\nset yrange [0:*]\nset xtics 1\n"
    return _curves("First laps of a ring of 256 MiB, 64 KiB packets", axes, curves)
