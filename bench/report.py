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
GATED = (1, 10, 100)


@dataclasses.dataclass
class Row:
    text: str
    goal: float
    value: float
    group: str           # what to measure again
    at_least: bool = False
    low: float = None    # quartiles of the rounds
    high: float = None
    minima: float = None
    note: str = ""

    def excess(self):
        return self.goal / self.value if self.at_least else self.value / self.goal

    def missed(self):
        return self.excess() > TOLERANCE

    def verdict(self):
        return "met" if self.excess() <= 1 else "MISSED" if self.missed() else "nearly met"


def ratio_row(text, goal, figure, base, group, at_least=False, note=""):
    """figure against base, round by round: what moves both in a round moves no ratio."""
    if at_least:
        figure, base = base, figure
    ratios = sorted(a / b for a, b in zip(figure.medians(), base.medians()))
    quartiles = statistics.quantiles(ratios, n=4) if len(ratios) > 1 else ratios * 3
    return Row(text, goal, statistics.median(ratios), group, at_least, quartiles[0], quartiles[2],
               figure.summary()["min"] / base.summary()["min"], note)


def timed_rows(groups):
    """groups: figures by what was measured together, ("deliveries", N), ("calls",), ("deaths",)."""
    rows = []

    def deliveries(clients):
        return groups.get(f"deliveries {clients}")

    for clients, goal in ((1, 0.3), (10, 0.12), (100, 0.1), (1000, 0.1)):
        figures = deliveries(clients)
        if not figures:
            continue
        note = ""
        if clients == 1:
            pairs = (statistics.median(figures["lock pairs"].medians()) /
                     statistics.median(figures["raw"].medians()))
            note = f"0.3 and 192 pairs of lock and unlock, {pairs:.2f}"
            goal += pairs
        rows.append(ratio_row(f"routing, each of {clients} clients, against a raw delivery", goal,
                              figures["routing"], figures["raw"], f"deliveries {clients}",
                              note=note))
    for text, way, base, goals, at_least in (
            ("whole delivery, each of {} clients, against raw", "service", "raw",
             (2.1, 1.5, 1.4), False),
            ("transport alone, each of {} clients, against raw", "callbacks", "raw",
             (1.2, 1.2, 1.2), False),
            ("whole delivery, each of {} clients, faster than dbus-broker", "service",
             "bus broker", (2.2, 2.8, 2.8), True)):
        for clients, goal in zip(GATED, goals):
            figures = deliveries(clients)
            if figures:
                rows.append(ratio_row(text.format(clients), goal, figures[way], figures[base],
                                      f"deliveries {clients}", at_least))
    if "deaths" in groups:
        rows.append(ratio_row("kill to cleanup, against a raw hang-up", 1.2,
                              groups["deaths"]["cleanup"], groups["deaths"]["hang-up"], "deaths"))
    if "calls" in groups:
        rows.append(ratio_row("two-way call from a client, against a raw one", 1.2,
                              groups["calls"]["call"], groups["calls"]["ping"], "calls"))
    return rows


def counted_rows(counted, system_calls):
    def ratio(text, goal, name, size, base, per_client=False):
        share = size / base if per_client else 1
        return Row(text, goal, counted[f"{name}/{size}"] / counted[f"{name}/{base}"] / share,
                   "counted")

    rows = [
        ratio("one client interested of 1,000, against one of one", 1.1,
              "DeliveryToOneOf", 1000, 1),
        ratio("per delivered record, 1,000 clients against 10", 1.1, "Delivery", 1000, 10, True),
        ratio("enable and disable of a pair that 10,000 want, against 10", 1.2,
              "EnableDisableShared", 10000, 10),
        ratio("enable and disable of an own pair among 10,000 requests, against 10", 1.2,
              "EnableDisableAlone", 10000, 10),
        ratio("delivery behind an enable or disable, 10,000 requests against 10", 1.2,
              "DeliveryBehindChange", 10000, 10),
    ]
    first, last = (counted[f"RegistrationAndDeath/{size}"] for size in (0, 10000))
    inserted = [counted[f"KeyedVectorInsertion/{size}"] for size in (0, 10000)]
    rows.append(Row("registration and death after 10,000 deaths, against none", 2,
                    (last - inserted[1]) / (first - inserted[0]), "counted",
                    note=f"without a KeyedVector's insertion; with it {last / first:.2f}"))
    rows.append(Row("system calls a delivery", 4, system_calls, "counted"))
    return rows


def table(rows):
    """Lines of cells, the head first."""
    lines = [("figure", "goal", "measured", "quartiles", "of minima", "verdict")]
    for row in rows:
        sign = "≥" if row.at_least else "≤"
        spread = "counted" if row.low is None else f"{row.low:.2f} to {row.high:.2f}"
        minima = "" if row.minima is None else f"{row.minima:.2f}"
        lines.append((row.text, f"{sign} {row.goal:.4g}" if row.goal == round(row.goal, 2)
                      else f"{sign} {row.goal:.2f}", f"{row.value:.2f}", spread, minima,
                      row.verdict() + (f" ({row.note})" if row.note else "")))
    return lines


def times(figures):
    """Times by name and size, from all that was measured together."""
    lines = [("microseconds", "median", "lowest", "p99", "medians of rounds")]
    for name, summary in figures.items():
        one_a_round = summary["samples"] < 100
        lines.append((name, f"{summary['median']:.2f}", f"{summary['min']:.2f}",
                      "" if one_a_round else f"{summary['p99']:.2f}",
                      f"{summary['low']:.2f} to {summary['high']:.2f}"))
    return lines


def plain(lines):
    widths = [max(len(cell) for cell in column) for column in zip(*lines)]
    return "\n".join("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip()
                     for line in lines)


def markdown(lines):
    rows = ["| " + " | ".join(line) + " |" for line in lines]
    return "\n".join([rows[0], "|" + "---|" * len(lines[0])] + rows[1:])


def compare(counted, surroundings, budget):
    """What costs more than the budget says; ValueError when that can't be told."""
    for key, value in surroundings.items():
        if budget.get(key) != value:
            raise ValueError(f"the budget was counted with {budget.get(key)}, this is {value}")
    findings = []
    for name, allowed in budget["instructions"].items():
        if name not in counted:
            raise ValueError(f"the budget has {name}, which is not counted")
        if counted[name] > allowed * BUDGET_TOLERANCE:
            findings.append(f"{name}: {counted[name]:,.0f} instructions, "
                            f"{counted[name] / allowed - 1:.1%} more than {allowed:,.0f}")
    return findings


def write_budget(path, counted, surroundings):
    path.write_text(json.dumps({**surroundings, "instructions": counted}, indent=1) + "\n")


def chart(result):
    """Cost per client over the number of clients, both axes logarithmic."""
    ways = (("service", "this service", "#0b5cad"), ("raw", "raw SOCK_SEQPACKET", "#555555"),
            ("bus peers", "D-Bus, peer to peer", "#b8860b"),
            ("bus broker", "D-Bus, dbus-broker", "#a3312a"), ("routing", "routing alone", "#3a7d44"))
    series = []
    for way, label, colour in ways:
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
    groups = {group: {name: summary for name, summary in figures.items()}
              for group, figures in result["times"].items()}
    per_client = {f"{name}, {group.split()[1]} clients" if group.startswith("deliveries ")
                  else name: summary for group, figures in groups.items()
                  for name, summary in figures.items()}
    text = "\n\n".join([
        f"A {kind} with {machine['processors']} {result['architecture']} processors, Linux "
        f"{machine['kernel']}, {result['compiler']}, {result['libc']}.",
        markdown(table(rows)), "### Times", markdown(times(per_client)),
        "### Instructions", markdown(growth(result["instructions"]))])
    page = PAGE.read_text()
    page, places = re.subn(r"(<!-- figures -->\n).*(\n<!-- end of figures -->)",
                           lambda place: f"{place[1]}\n{text}\n{place[2]}", page, flags=re.S)
    if places != 1:
        raise ValueError(f"{PAGE} has no place for figures")
    PAGE.write_text(page)
    CHART.write_text(chart(result))
    write_budget(BUDGET, result["instructions"],
                 {key: result[key] for key in ("compiler", "libc", "architecture")})
