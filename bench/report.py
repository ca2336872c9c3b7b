# SPDX-License-Identifier: Apache-2.0
"""What the figures say: the table of goals, docs/performance.md, its chart, the instruction budget."""
import dataclasses
import json
import math
import pathlib
import re
import statistics

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUDGET = ROOT / "bench/budget.json"
PAGE = ROOT / "docs/performance.md"
CHART = ROOT / "docs/performance.svg"
TOLERANCE = 1.1  # past a goal: how far a figure may be before it counts as missed
BUDGET_TOLERANCE = 1.01


@dataclasses.dataclass
class Row:
    text: str
    goal: float          # None: to be read beside the others
    value: float
    group: str           # what is measured again when it is missed
    at_least: bool = False
    low: float = None    # quartiles of the rounds; None when counted
    high: float = None
    minima: float = None
    note: str = ""
    over_budget: bool = False

    def excess(self):
        if self.goal is None:
            return 0
        return self.goal / self.value if self.at_least else self.value / self.goal

    def missed(self):
        return self.excess() > TOLERANCE

    def verdict(self):
        if self.goal is None:
            return "-"
        if self.over_budget:
            return "OVER BUDGET"
        return "met" if self.excess() <= 1 else "MISSED" if self.missed() else "nearly met"


def ratio_row(text, goal, figure, base, group, **more):
    """figure against base, round by round: what slows both in a round moves no ratio. With at_least
    it is how many times faster figure is."""
    if more.get("at_least"):
        figure, base = base, figure
    ratios = [a / b for a, b in zip(figure.medians(), base.medians())]
    low, middle, high = statistics.quantiles(ratios, n=4)
    return Row(text, goal, middle, group, low=low, high=high,
               minima=figure.summary()["min"] / base.summary()["min"], **more)


def routing_row(clients, goal, figures, counted, budget):
    name = f"Delivery/{clients}"
    notes = []
    if clients == 1:
        pairs = (statistics.median(figures["lock pairs"].medians()) /
                 statistics.median(figures["raw"].medians()))
        notes.append(f"goal: {goal} and {pairs:.2f} for 192 pairs of lock and unlock")
        goal += pairs
    notes.append(f"{counted[name]:,.0f} instructions")
    if budget:
        notes.append(f"budget {budget['instructions'][name]:,.0f}")
    return ratio_row(f"routing per client served, N = {clients}", goal, figures["routing"],
                     figures["raw"], f"deliveries {clients}", note=", ".join(notes),
                     over_budget=bool(budget) and bool(excess_over(counted, budget, name)))


def timed_rows(groups, counted, budget):
    """groups: figures by what was measured together."""
    sizes = [size for size in (1, 10, 100, 1000) if f"deliveries {size}" in groups]
    by_size = {size: groups[f"deliveries {size}"] for size in sizes}
    rows = [routing_row(size, goal, by_size[size], counted, budget)
            for size, goal in zip(sizes, (0.3, 0.12, 0.1, 0.1))]
    for text, goals, way, base, at_least in (
            ("whole delivery against raw, N = {}", (2.1, 1.5, 1.4), "whole delivery", "raw", False),
            ("transport alone against raw, N = {}", (1.2,) * 3, "transport alone", "raw", False),
            ("times faster than dbus-broker, N = {}", (2.2, 2.8, 2.8), "whole delivery",
             "dbus-broker", True)):
        rows += [ratio_row(text.format(size), goal, by_size[size][way], by_size[size][base],
                           f"deliveries {size}", at_least=at_least)
                 for size, goal in zip(sizes, goals)]
    rows.append(ratio_row("physical floor against raw: two wakes, two copies", None,
                          by_size[1]["floor"], by_size[1]["raw"], "deliveries 1"))
    rows.append(ratio_row("kill to cleanup against a raw hang-up", 1.2, groups["deaths"]["cleanup"],
                          groups["deaths"]["raw hang-up"], "deaths"))
    rows.append(ratio_row("two-way call from a client against raw", 1.2,
                          groups["calls"]["two-way call"], groups["calls"]["raw ping-pong"],
                          "calls"))
    return rows


def counted_rows(counted, system_calls):
    def ratio(text, goal, name, size, base, share=1):
        return Row(text, goal, counted[f"{name}/{size}"] / counted[f"{name}/{base}"] / share,
                   "counted")

    death = ratio("registration and death, 10,000 deaths before against none", 2,
                  "RegistrationAndDeath", 10000, 0)
    if death.value > death.goal:
        # A KeyedVector of the library's may cost what it costs.
        death.note = f"{death.value:.2f} with a KeyedVector's insertion, which counts apart"
        last, first = (counted[f"RegistrationAndDeath/{size}"] -
                       counted[f"KeyedVectorInsertion/{size}"] for size in (10000, 0))
        death.value = last / first
    return [
        ratio("one interested of 1,000 against one of one", 1.1, "DeliveryToOneOf", 1000, 1),
        ratio("per delivered record, N = 1,000 against 10", 1.1, "Delivery", 1000, 10, 1000 / 10),
        ratio("enable and disable of a pair that 10,000 want against 10", 1.2,
              "EnableDisableShared", 10000, 10),
        ratio("enable and disable of an own pair, 10,000 requests against 10", 1.2,
              "EnableDisableAlone", 10000, 10),
        ratio("delivery behind enable or disable, 10,000 requests against 10", 1.2,
              "DeliveryBehindChange", 10000, 10),
        death,
        Row("system calls per delivery", 4, system_calls, "counted"),
    ]


def table(rows):
    """Lines of cells, the head first."""
    lines = [("figure", "goal", "measured", "quartiles", "of minima", "verdict")]
    for row in rows:
        goal = "" if row.goal is None else f"{'≥' if row.at_least else '≤'} {round(row.goal, 2)}"
        spread = "counted" if row.low is None else f"{row.low:.2f} to {row.high:.2f}"
        minima = "" if row.minima is None else f"{row.minima:.2f}"
        lines.append((row.text, goal, f"{row.value:.2f}", spread, minima,
                      row.verdict() + (f" ({row.note})" if row.note else "")))
    return lines


def times(figures):
    """Microseconds, a client's where several share a delivery."""
    lines = [("microseconds", "median", "lowest", "p99", "longest", "medians of rounds")]
    for name, summary in figures.items():
        # A benchmark in the process tells one mean a round.
        tail = [f"{summary[key]:.2f}" if summary["samples"] >= 100 else "" for key in
                ("p99", "max")]
        lines.append((name, f"{summary['median']:.2f}", f"{summary['min']:.2f}", *tail,
                      f"{summary['low']:.2f} to {summary['high']:.2f}"))
    return lines


def times_by_size(groups, sizes):
    """The same of deliveries, a column for each number of clients."""
    columns = [groups[f"deliveries {size}"] for size in sizes]
    lines = [("microseconds per client", *(f"N = {size:,}" for size in sizes))]
    for way in columns[0]:
        cells = [""] * len(sizes)
        for at, column in enumerate(columns):
            if way in column:
                one = column[way]
                p99 = f", p99 {one['p99']:.1f}" if one["samples"] >= 100 else ""
                cells[at] = f"{one['median']:.2f} ({one['low']:.2f} to {one['high']:.2f}{p99})"
        lines.append((way, *cells))
    return lines


def plain(lines):
    widths = [max(len(cell) for cell in column) for column in zip(*lines)]
    return "\n".join("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip()
                     for line in lines)


def markdown(lines):
    rows = ["| " + " | ".join(line) + " |" for line in lines]
    return "\n".join([rows[0], "|" + "---|" * len(lines[0])] + rows[1:])


def excess_over(counted, budget, name):
    """How much more it takes than the budget says, in words, or an empty text."""
    allowed = budget["instructions"][name]
    if counted[name] <= allowed * BUDGET_TOLERANCE:
        return ""
    return (f"{name}: {counted[name]:,.0f} instructions, {counted[name] / allowed - 1:.1%} more "
            f"than {allowed:,.0f}")


def read_budget(path, surroundings, names):
    """ValueError when what is counted here can't be held against it."""
    budget = json.loads(path.read_text())
    for key, value in surroundings.items():
        if budget.get(key) != value:
            raise ValueError(f"{path}: counted with {budget.get(key)}, not {value}")
    if sorted(budget["instructions"]) != sorted(names):
        raise ValueError(f"{path}: has other figures than are counted here")
    return budget


def chart(result):
    """Cost per client over the number of clients, both axes logarithmic."""
    series = []
    for way, label, colour in (("whole delivery", "this service", "#0b5cad"),
                               ("raw", "raw SOCK_SEQPACKET", "#555555"),
                               ("D-Bus, peer to peer", "D-Bus, peer to peer", "#b8860b"),
                               ("dbus-broker", "dbus-broker", "#a3312a"),
                               ("routing", "this service's routing", "#3a7d44")):
        points = [(int(group.split()[1]), figures[way]["median"])
                  for group, figures in result["times"].items()
                  if group.startswith("deliveries ") and way in figures]
        series.append((label, colour, sorted(points)))
    every = [point for _, _, points in series for point in points]
    width, height, left, right, top, bottom = 760, 440, 60, 170, 44, 50
    most = max(x for x, _ in every)
    floor = 10 ** math.floor(math.log10(min(y for _, y in every)))
    ceiling = 10 ** math.ceil(math.log10(max(y for _, y in every)))

    def x_of(x):
        return left + (width - left - right) * math.log10(x) / math.log10(most)

    def y_of(y):
        return top + (height - top - bottom) * math.log10(ceiling / y) / math.log10(ceiling / floor)

    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" '
             'font-family="sans-serif" font-size="13">',
             f'<rect width="{width}" height="{height}" fill="#ffffff"/>',
             f'<text x="{left}" y="22" font-size="15">Microseconds per client and delivery of 192 '
             'records</text>']
    decade = floor
    while decade <= ceiling:
        y = y_of(decade)
        parts.append(f'<path d="M{left} {y:.1f}H{width - right}" stroke="#dddddd"/>')
        parts.append(f'<text x="{left - 8}" y="{y + 4:.1f}" text-anchor="end">{decade:g}</text>')
        decade *= 10
    for x in sorted({x for x, _ in every}):
        parts.append(f'<path d="M{x_of(x):.1f} {height - bottom}v5" stroke="#555555"/>')
        parts.append(f'<text x="{x_of(x):.1f}" y="{height - bottom + 20}" '
                     f'text-anchor="middle">{x:,}</text>')
    parts.append(f'<text x="{(left + width - right) / 2}" y="{height - 10}" '
                 'text-anchor="middle">clients</text>')
    # Names beside the lines' ends, moved apart where those meet.
    y_before = 0
    for label, colour, points in sorted(series, key=lambda entry: y_of(entry[2][-1][1])):
        path = "L".join(f"{x_of(x):.1f} {y_of(y):.1f}" for x, y in points)
        parts.append(f'<path d="M{path}" fill="none" stroke="{colour}" stroke-width="2"/>')
        parts += [f'<circle cx="{x_of(x):.1f}" cy="{y_of(y):.1f}" r="3" fill="{colour}"/>'
                  for x, y in points]
        y_before = max(y_before + 17, y_of(points[-1][1]) + 4)
        parts.append(f'<text x="{x_of(points[-1][0]) + 10:.1f}" y="{y_before:.1f}" '
                     f'fill="{colour}">{label}</text>')
    return "\n".join(parts + ["</svg>"]) + "\n"


def growth(counted):
    """What another client or request adds, from the counts."""
    lines = [("instructions", "each", "slope")]
    for name, sizes in (("Delivery", (1, 10, 100, 1000)), ("DeliveryToOneOf", (1, 1000)),
                        ("DeliveryBehindChange", (10, 10000)),
                        ("EnableDisableShared", (10, 10000)), ("EnableDisableAlone", (10, 10000)),
                        ("RegistrationAndDeath", (0, 10000))):
        before = None
        for size in sizes:
            value = counted[f"{name}/{size}"]
            slope = "" if before is None else f"{(value - before[1]) / (size - before[0]):,.1f}"
            lines.append((f"{name}/{size}", f"{value:,.0f}", slope))
            before = size, value
    return lines


def record(result, rows):
    """Writes the page's figures, the chart and the budget from a whole run."""
    machine = result["machine"]
    kind = "virtual machine" if machine["virtual"] else "machine"
    others = {name: summary for group, figures in result["times"].items()
              if not group.startswith("deliveries ") for name, summary in figures.items()}
    text = "\n\n".join([
        f"A {kind} with {machine['processors']} {result['architecture']} processors, Linux "
        f"{machine['kernel']}, {result['compiler']}, {result['libc']}.",
        markdown(table(rows)),
        "### Times", "Medians, the lowest and the highest median of a round, and 99th percentiles.",
        markdown(times_by_size(result["times"], (1, 10, 100, 1000))), markdown(times(others)),
        "### Instructions", markdown(growth(result["instructions"]))])
    page = PAGE.read_text()
    page, places = re.subn(r"(<!-- figures -->\n).*(<!-- end of figures -->)",
                           lambda place: f"{place[1]}\n{text}\n\n{place[2]}", page, flags=re.S)
    if places != 1:
        raise ValueError(f"{PAGE} has no place for figures")
    PAGE.write_text(page)
    CHART.write_text(chart(result))
    budget = {key: result[key] for key in ("compiler", "libc", "architecture", "instructions")}
    BUDGET.write_text(json.dumps(budget, indent=1) + "\n")
