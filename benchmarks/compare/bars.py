"""What is asked of the ring, what was reached, and whether that is enough."""

import statistics

import plan
from figures import median, ratio, stream

LARGE = tuple(size for size in plan.SIZES if size >= 65536)
OURS = "qev-adaptive"
FIXED_SLOTS = "boost-spsc"


class Bars:
    """Rows of the table. A figure of None is one that this run did not bring."""

    def __init__(self, data):
        self._data = data
        self.rows = []

    def at_least(self, what, bar, figure, note=""):
        self._add(what, f"≥ {bar:g}", figure, figure is not None and figure >= bar, note)

    def at_most(self, what, bar, figure, note=""):
        self._add(what, f"≤ {bar:g}", figure, figure is not None and figure <= bar, note)

    def _add(self, what, bar, figure, met, note):
        if figure is None:
            self.rows.append((what, bar, "–", "not measured", note))
            return
        text = f"{figure:.3g}" if isinstance(figure, (int, float)) else str(figure)
        self.rows.append((what, bar, text, "met" if met else "**not met**", note))

    def worst(self, sizes, figure_of, most=False):
        """The worst figure over the sizes and where it is."""
        found = [(figure_of(size), size) for size in sizes]
        found = [(figure, size) for figure, size in found if figure is not None]
        if not found:
            return None, ""
        figure, size = (max if most else min)(found)
        return figure, f"at {plan.SIZE_NAMES[size]}"


def _copying(bars, data):
    def to(limit, ring):
        return lambda size: ratio(data, stream(size, ring), OURS, limit, "bytes_per_second")

    bars.at_least("64 KiB and more, 64 MiB ring, to non-temporal copying", 0.9,
                  *bars.worst(LARGE, to("memcpy-nt", plan.RING)))
    bars.at_least("64 KiB and more, 64 MiB ring, to memcpy", 1.5,
                  *bars.worst(LARGE, to("memcpy", plan.RING)))
    for ring in plan.SMALL_RINGS:
        bars.at_least(f"64 KiB and more, {ring // plan.MIB} MiB ring, to memcpy", 0.85,
                      *bars.worst(LARGE, to("memcpy", ring)))


def _small(bars, data):
    bars.at_most("64 B, one thread, to the bare operations", 1.15,
                 ratio(data, "one-thread", "library", "bare", "ns"))
    group = stream(64)
    bars.at_least("64 B stream, to polling without a pause", 1.8,
                  ratio(data, group, OURS, "qev-tight", "messages_per_second"))
    for peer, bar in (("boost-mq", 4), ("zeromq", 4), ("iceoryx-copy", 20)):
        bars.at_least(f"64 B stream, to {peer}", bar,
                      ratio(data, group, OURS, peer, "messages_per_second"))


def _round_trips(bars, data):
    group = "roundtrip/64"
    to_line = {
        name: median_to_reference(data, group, name)
        for name in ("qev-spin", "qev-adaptive")
    }
    known = {name: figure for name, figure in to_line.items() if figure is not None}
    best = min(known, key=known.get) if known else None
    bars.at_most("64 B round trip, spinning, to a cache line's", 4.5, known.get(best), best or "")
    peers = [name for name in plan.TRANSPORTS
             if not name.startswith("qev") and name != FIXED_SLOTS]
    against = {name: ratio(data, group, best, name, "p50_ns") for name in peers} if best else {}
    against = {name: figure for name, figure in against.items() if figure is not None}
    nearest = max(against, key=against.get) if against else None
    bars.at_most("64 B round trip, spinning, to the fastest peer without fixed slots", 1,
                 against.get(nearest), nearest or "")
    bars.at_most("round trip woken by semaphore, to bare semaphores", 1.3,
                 ratio(data, group, "qev-semaphore", "semaphore", "p50_ns"))


def median_to_reference(data, group, name):
    """To a cache line's round trip at the same time."""
    rounds = data["results"].get(group, {}).get(name, {}).values()
    found = [result["p50_ns"] / result["reference_ns"] for result in rounds
             if "failed" not in result and result.get("reference_ns")]
    return statistics.median(found) if found else None


def _in_place(bars, data):
    bars.at_least(
        "in place, any size, to iceoryx's loan", 10,
        *bars.worst(plan.SIZES, lambda size: ratio(
            data, stream(size), "qev-in-place", "iceoryx-loan", "messages_per_second")))


def laps_of(result):
    """ns of each lap."""
    marks = [0, *result["marks_ns"]]
    return [end - start for start, end in zip(marks, marks[1:])]


def first_lap(data, name):
    """Speed of the first lap as a share of the median lap behind it."""
    shares = []
    for result in data["results"].get("first-lap", {}).get(name, {}).values():
        if "failed" in result:
            continue
        laps = laps_of(result)
        shares.append(statistics.median(laps[1:]) / laps[0])
    return statistics.median(shares) if shares else None


def block_ratio(data, size, field, raw_field):
    """A lock through the library as a multiple of bare calls."""
    return ratio(data, f"block/{size}", "library", "raw", field, other_field=raw_field)


def _blocks(bars, data):
    for size in plan.BLOCKS:
        name = f"{size // plan.MIB} MiB" if size >= plan.MIB else f"{size // 1024} KiB"
        writing = block_ratio(data, size, "write_ns", "write_ns")
        reading = block_ratio(data, size, "read_ns", "read_ns")
        if size > plan.MIB:
            figure = max((one for one in (writing, reading) if one is not None), default=None)
            bars.at_most(f"block of {name}, lock and unlock, to the raw calls", 0.05, figure,
                         "the dearer of reading and writing")
            continue
        bars.at_most(f"block of {name}, reading, to the raw calls", 1.3, reading)
        bars.at_most(f"block of {name}, writing, to the raw calls that it takes", 1.3,
                     block_ratio(data, size, "write_ns", "write_steps_ns"))
        bars.at_most(f"block of {name}, writing, to the fewest calls", 1.3, writing)


def spread_of(costs):
    """How far the outermost of them are from their middle, as a share."""
    costs = [cost for cost in costs if cost is not None]
    if len(costs) < 2:
        return None
    return (max(costs) - min(costs)) / (max(costs) + min(costs))


def costs_by_name(data, group, field):
    """By what the cells' names count: MiB of a ring, or nodes."""
    return {int(name): median(data, group, name, field) for name in data["results"].get(group, {})}


def costs_by_age(data):
    """ns of a packet in the window that ends at each power of ten."""
    costs = {}
    for result in data["results"].get("age", {}).get(OURS, {}).values():
        if "failed" in result:
            continue
        marks = result["marks_ns"]
        for number, (start, end) in enumerate(zip(marks[::2], marks[1::2])):
            age = 10 ** (number + plan.YOUNGEST)
            costs.setdefault(age, []).append((end - start) / (age // 10))
    return {age: statistics.median(found) for age, found in costs.items()}


def _growth(bars, data):
    bars.at_most("cost of a packet, rings of 1 MiB to 1 GiB, away from the middle", 0.15,
                 spread_of(costs_by_name(data, "growth/one-thread", "ns").values()),
                 "64 B, one thread")
    bars.at_most("cost of a packet, from the first to the last", 0.15,
                 spread_of(costs_by_age(data).values()), "64 B stream")
    nodes = costs_by_name(data, "chain/one-thread", "ns")
    bars.at_most("cost of a packet and node, 2 to 5 nodes, away from the middle", 0.15,
                 spread_of([cost / number for number, cost in nodes.items() if cost]),
                 "64 B, one thread")


def _once(bars, data):
    once = data["once"]
    if not once:
        return
    for name, count in once["allocations"].items():
        bars.at_most(f"allocations of a packet, {name}", 0, count)
    for name, count in once["system_calls"].items():
        if name == "write, read, release" or "spinning" in name:
            count = abs(round(count, 2)) if isinstance(count, float) else count
            bars.at_most(f"system calls of a packet, {name}", 0, _number(count), _reason(count))
    resident = once["resident"]
    mib = resident / plan.MIB if _number(resident) is not None else None
    bars.at_most("MiB that a node holds beside the ring", 8, mib, _reason(resident))
    size = once["library_bytes"]
    kib = size / 1024 if _number(size) is not None else None
    bars.at_most("KiB of the library's file", 400, kib, _reason(size))


def _number(value):
    return value if isinstance(value, (int, float)) else None


def _reason(value):
    return "" if _number(value) is not None else value


def markdown(data):
    bars = Bars(data)
    _copying(bars, data)
    _small(bars, data)
    _round_trips(bars, data)
    _in_place(bars, data)
    bars.at_least("first lap, populated, to those behind it", 0.8, first_lap(data, "populated"))
    _blocks(bars, data)
    _growth(bars, data)
    _once(bars, data)
    lines = ["| what | bar | reached | | |", "|---|--:|--:|---|---|"]
    lines += [f"| {' | '.join(row)} |" for row in bars.rows]
    return "### What is asked, and what was reached\n\n" + "\n".join(lines) + "\n"
