"""Medians, spreads and ratios of what the rounds brought."""

import statistics

import plan


def rounds_of(data, group, name):
    return data["results"].get(group, {}).get(name, {})


def values(data, group, name, field):
    """By round. Rounds that failed are left out."""
    return {
        number: result[field]
        for number, result in rounds_of(data, group, name).items()
        if "failed" not in result and field in result
    }


def median(data, group, name, field):
    found = values(data, group, name, field)
    return statistics.median(found.values()) if found else None


def ratio(data, group, name, other, field, other_group=None, other_field=None):
    """The median of the ratios that were measured in the same round, or None."""
    ours = values(data, group, name, field)
    theirs = values(data, other_group or group, other, other_field or field)
    ratios = [ours[number] / theirs[number] for number in ours if theirs.get(number)]
    return statistics.median(ratios) if ratios else None


def refusal(data, group, name):
    """Why a cell has no figure, or None."""
    for result in rounds_of(data, group, name).values():
        if "failed" in result:
            return result["failed"]
    return None


def stream(size, ring=plan.RING, read_all=False):
    return f"stream{'-all' if read_all else ''}/{ring // plan.MIB}/{size}"


def quantity(value, units):
    """As in "13.7 GB/s"; `units` are (factor, name) from the largest on."""
    if value is None:
        return "–"
    for factor, name in units:
        if value >= factor or (factor, name) == units[-1]:
            return f"{value / factor:.3g} {name}"
    return "–"


RATES = ((1e6, "M/s"), (1e3, "k/s"), (1, "/s"))
BYTES = ((1e9, "GB/s"), (1e6, "MB/s"), (1, "B/s"))
TIMES = ((1e6, "ms"), (1e3, "µs"), (1, "ns"))


def with_spread(data, group, name, field, units):
    """Median and, in brackets, the least and the most."""
    found = sorted(values(data, group, name, field).values())
    if not found:
        return "–"
    text = quantity(statistics.median(found), units)
    if len(found) == 1:
        return text
    return f"{text} ({quantity(found[0], units)} to {quantity(found[-1], units)})"
