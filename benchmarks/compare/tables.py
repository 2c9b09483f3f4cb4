"""The tables, in Markdown."""

import statistics

import bars
import plan
from figures import (BYTES, RATES, TIMES, median, quantity, ratio, refusal, rounds_of, stream,
                     values, with_spread)

OURS = "qev-adaptive"
NOISE = 0.005  # of what is counted by the difference of two runs
FIRST_IN_BYTES = 16384  # from this size on, bytes per second tell more than messages


def table(title, head, rows):
    lines = [f"**{title}**", "", "| " + " | ".join(head) + " |"]
    lines.append("|---|" + "--:|" * (len(head) - 1))
    lines += ["| " + " | ".join(row) + " |" for row in rows]
    return "\n".join(lines) + "\n"


def _names(data, group):
    return list(data["results"].get(group, {}))


def _all_names(data, groups):
    names = []
    for group in groups:
        names += [name for name in _names(data, group) if name not in names]
    order = [*plan.TRANSPORTS, "memcpy", "memcpy-nt", "cache-line", "semaphore"]
    return sorted(names, key=lambda name: order.index(name) if name in order else len(order))


def _field(size):
    if size >= FIRST_IN_BYTES:
        return "bytes_per_second", BYTES
    return "messages_per_second", RATES


def _lost(data, group, name):
    lost = sum(result.get("lost", 0) for result in rounds_of(data, group, name).values())
    return f", {lost} lost" if lost else ""


def streams(data, ring, read_all):
    groups = {size: stream(size, ring, read_all) for size in plan.SIZES}
    groups = {size: group for size, group in groups.items() if _names(data, group)}
    if not groups:
        return ""
    names = [name for name in _all_names(data, groups.values())
             if read_all or name not in plan.IN_PLACE]
    title = f"Stream, ring of {ring // plan.MIB} MiB"
    title += ", every line read" if read_all else ", first and last byte read"
    head = ["", *(plan.SIZE_NAMES[size] for size in groups)]
    figures = [
        [name, *(with_spread(data, group, name, *_field(size)) + _lost(data, group, name)
                 for size, group in groups.items())]
        for name in names
    ]
    ratios = [
        [name, *(_times(ratio(data, group, OURS, name, "messages_per_second"))
                 for group in groups.values())]
        for name in names if name != OURS
    ]
    return "\n".join([table(title, head, figures),
                      table(f"{title}: {OURS} as a multiple, in the same round", head, ratios)])


def _times(value):
    return "–" if value is None else f"{value:.3g} ×"


def in_place(data):
    names = [name for name in plan.IN_PLACE
             if any(values(data, stream(size), name, "messages_per_second") for size in plan.SIZES)]
    if not names:
        return ""
    rows = [[name, *(with_spread(data, stream(size), name, "messages_per_second", RATES)
                     for size in plan.SIZES)] for name in names]
    return table("Messages made where they lie, stamp and last byte written",
                 ["", *plan.SIZE_NAMES.values()], rows)


def round_trips(data, size):
    group = f"roundtrip/{size}"
    if not _names(data, group):
        return ""
    rows = []
    for name in _all_names(data, [group]):
        if size != 64 and name in plan.IN_PLACE:
            continue  # they would leave out most of the work
        to_line = bars.median_to_reference(data, group, name)
        rows.append([
            name,
            _waiting(name),
            with_spread(data, group, name, "p50_ns", TIMES) + _lost(data, group, name),
            quantity(median(data, group, name, "p99_ns"), TIMES),
            quantity(median(data, group, name, "p999_ns"), TIMES),
            _times(to_line),
            _times(ratio(data, group, name, OURS, "p50_ns")),
        ])
    head = ["", "waits", "p50", "p99", "p99.9", "p50 to a cache line's", f"p50 to {OURS}"]
    return table(f"Round trip, {plan.SIZE_NAMES[size]}", head, rows)


def _waiting(name):
    if name in plan.SPINNING or name == "cache-line":
        return "polling"
    return "woken"


def cpu(data):
    rows = []
    for name in _all_names(data, [stream(64)]):
        if name.startswith("memcpy") or name in plan.IN_PLACE:
            continue
        row = [name]
        for size in (64, 65536, plan.FRAME_1080P):
            for side in ("writer_cpu_ns", "reader_cpu_ns"):
                row.append(quantity(median(data, stream(size), name, side), TIMES))
        rows.append(row)
    if not rows:
        return ""
    head = [""] + [f"{plan.SIZE_NAMES[size]}, {side}"
                   for size in (64, 65536, plan.FRAME_1080P) for side in ("writer", "reader")]
    return table("CPU time of a message, flat out, threads of the libraries included", head, rows)


def idle(data):
    groups = [group for group in ("idle/nothing", "idle/30/s") if _names(data, group)]
    if not groups:
        return ""
    rows = []
    for name in _all_names(data, groups):
        row = [name]
        for group in groups:
            for side in ("writer_busy", "reader_busy"):
                share = median(data, group, name, side)
                row.append("–" if share is None else f"{100 * share:.2f} %")
        rows.append(row)
    head = [""] + [f"{group.split('/', 1)[1]}, {side}" for group in groups
                   for side in ("writer", "reader")]
    return table("CPU while waiting, of one core", head, rows)


def chains(data):
    rows = []
    for group in ("chain/64", "chain/65536"):
        for name in _names(data, group):
            rows.append([
                f"{name} nodes, {plan.SIZE_NAMES[int(group.split('/')[1])]}",
                with_spread(data, group, name, "messages_per_second", RATES),
                with_spread(data, group, name, "cpu_ns", TIMES),
                quantity((median(data, group, name, "cpu_ns") or 0) / int(name), TIMES),
            ])
    for name in _names(data, "chain/one-thread"):
        cost = median(data, "chain/one-thread", name, "ns")
        rows.append([f"{name} nodes, 64 B, one thread", quantity(cost and 1e9 / cost, RATES),
                     with_spread(data, "chain/one-thread", name, "ns", TIMES),
                     quantity(cost and cost / int(name), TIMES)])
    return table("Chains", ["", "packets", "CPU of a packet, all nodes", "for each node"],
                 rows) if rows else ""


def growth(data):
    rows = []
    for ring in plan.GROWING_RINGS:
        name = str(ring // plan.MIB)
        cells = [("growth/stream", "messages_per_second", RATES),
                 ("growth/one-thread", "ns", TIMES), ("growth/bare", "ns", TIMES)]
        row = [with_spread(data, group, name, field, units) for group, field, units in cells]
        if any(text != "–" for text in row):
            rows.append([f"{name} MiB", *row])
    head = ["ring", "stream", "one thread: write, read, release", "the same, bare operations"]
    parts = [table("Packets of 64 B by the ring's size", head, rows)] if rows else []
    ages = bars.costs_by_age(data)
    if ages:
        parts.append(table("Stream of 64 B: time of a packet, in the tenth that ends at",
                           ["packet", "time"],
                           [[f"10^{len(str(age)) - 1}", quantity(cost, TIMES)]
                            for age, cost in ages.items()]))
    laps = [(name, bars.first_lap(data, name)) for name in ("populated", "not populated")]
    if any(share is not None for _, share in laps):
        parts.append(table("First lap of a 256 MiB ring, 64 KiB packets: speed to the laps behind",
                           ["", "share"], [[name, _times(share)] for name, share in laps]))
    return "\n".join(parts)


def blocks(data):
    rows = []
    for size in plan.BLOCKS:
        group = f"block/{size}"
        if not _names(data, group):
            continue
        name = f"{size // plan.MIB} MiB" if size >= plan.MIB else f"{size // 1024} KiB"
        row = [name]
        for field, raw_fields in (("write_ns", ("write_ns", "write_steps_ns")),
                                  ("read_ns", ("read_ns",))):
            row.append(with_spread(data, group, "library", field, TIMES))
            for raw_field in raw_fields:
                row += [with_spread(data, group, "raw", raw_field, TIMES),
                        _times(bars.block_ratio(data, size, field, raw_field))]
        rows.append(row)
    head = ["block", "writing", "fewest calls", "ratio", "the same calls", "ratio", "reading",
            "raw calls", "ratio"]
    return table("Lock and unlock of a block", head, rows) if rows else ""


def once(data):
    found = data["once"]
    if not found:
        return ""
    rows = [[f"allocations of a packet, {name}", _plain(count)]
            for name, count in found["allocations"].items()]
    rows += [[f"system calls of a packet, {name}", _plain(count)]
             for name, count in found["system_calls"].items()]
    for name, told in found["instructions"].items():
        by = f", by {told['by']}" if told["by"] else ""
        rows.append([f"instructions of write, read, release of 64 B, {name}{by}",
                     _plain(told["count"])])
    return table("Counted", ["", "figure"], rows)


def _plain(value):
    if not isinstance(value, (int, float)):
        return str(value)
    return f"{value:.4g}" if abs(value) >= NOISE else "0"


def missing(data):
    """Every cell without a figure, and why."""
    reasons = {}
    for group in data["results"]:
        for name in _names(data, group):
            reason = refusal(data, group, name)
            if reason and not values(data, group, name, next(iter(_any_field(data, group)), "ns")):
                reasons.setdefault((name, reason), []).append(group)
    if not reasons:
        return ""
    rows = [[name, reason, ", ".join(groups)] for (name, reason), groups in reasons.items()]
    return table("Without a figure, and why", ["", "reason", "where"], rows)


def _any_field(data, group):
    if group.startswith("roundtrip/"):
        return ["p50_ns"]
    return ["messages_per_second"] if "stream" in group else []


def machine(data):
    facts = data["machine"]
    lines = [result["reference_ns"] for members in data["results"].values()
             for rounds in members.values() for result in rounds.values()
             if "reference_ns" in result]
    line = ""
    if lines:
        line = (f" A cache line took {quantity(statistics.median(lines), TIMES)} there and back "
                f"({quantity(min(lines), TIMES)} to {quantity(max(lines), TIMES)}).")
    return (f"{facts['processor']}, {facts['cores']} cores, {facts['caches']}; Linux "
            f"{facts['kernel']}; {data['rounds']} rounds; load {facts['load_before']} before, "
            f"{facts['load_after']} after; {facts['date']}. Medians over the rounds, in brackets "
            f"the least and the most.{line}\n")


def markdown(data):
    parts = [machine(data)]
    parts += [streams(data, ring, False) for ring in (plan.RING, *plan.SMALL_RINGS)]
    parts += [streams(data, plan.RING, True), in_place(data)]
    parts += [round_trips(data, size) for size in (64, 65536)]
    parts += [cpu(data), idle(data), chains(data), growth(data), blocks(data), once(data),
              missing(data)]
    return "\n".join(part for part in parts if part)
