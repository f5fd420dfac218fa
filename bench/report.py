"""Makes the page, the plot and the tables from the figures of measure.py. Run by scripts/bench."""

import argparse
import collections
import csv
import pathlib
import platform
import re
import statistics
import subprocess
import time

TOP = pathlib.Path(__file__).resolve().parent.parent

DOM_AND_RECORDS = "Qt's DOM takes longer than libxml2; records are made of its nodes, and maps of the records"

# Goal, what is measured, what it is compared with (nothing: the number itself counts), at most, and why it is
# missed if it is. A series is case/series/variant; medians may be added and subtracted.
GOALS = (
    ("round trip of the cheapest call, over bare QtDBus",
     "round-trip/kxcore", "round-trip/bare QtDBus", 1.05,
     "the generated adaptor looks the slot up by name a second time"),
    ("launch, over fork and exec from bare QtDBus",
     "launch/kxcore", "launch/bare QtDBus", 1.15,
     "the daemon also checks program and account and prepares directories and environment"),
    ("launch, half of dbus-daemon's activation",
     "launch/kxcore", "launch/dbus-daemon", 0.5,
     "fork and exec from bare QtDBus come close to that half by themselves"),
    ("launch, ahead of runit",
     "launch/kxcore", "launch/runit", 1, "a process with Qt and libcurl takes longer to fork"),
    ("launch, ahead of s6", "launch/kxcore", "launch/s6", 1, ""),
    ("launch, ahead of supervisord", "launch/kxcore", "launch/supervisord", 1, ""),
    ("name owned with 10 applications, over bare QtDBus",
     "start-up/kxcore, name owned/10", "start-up/bare QtDBus, name owned/10", 1.15,
     "the daemon has more libraries to load"),
    ("memory written to when idle, over bare QtDBus",
     "memory/kxcore, idle, written/0", "memory/bare QtDBus, idle, written/0", 1.3,
     "the daemon has more libraries to relocate"),
    ("`Enumerate` of 10 applications, over floor and answer",
     "enumerate/kxcore/10", "enumerate/floor/10 + enumerate/answer/10", 1.5,
     DOM_AND_RECORDS),
    ("`Enumerate` of 100 applications, over floor and answer",
     "enumerate/kxcore/100", "enumerate/floor/100 + enumerate/answer/100", 1.5,
     DOM_AND_RECORDS),
    ("`Enumerate` is as linear as the floor: what 1,000 applications take beyond it, over what 100 take",
     "enumerate/kxcore/1000 - enumerate/floor/1000", "enumerate/kxcore/100 - enumerate/floor/100", 11.5, ""),
    ("end of 100 programs beyond the pause, over the kernel's own time",
     "termination/kxcore beyond the pause/100", "termination/kernel/100", 1.2,
     "the daemon also looks at the owners of all processes, twice"),
    ("wake-ups when idle", "idle/kxcore, wake-ups/10", None, 0, ""),
    ("system calls when idle", "idle/kxcore, system calls/10", None, 0, ""),
    ("memory written to after 20,000 calls, over after 10,000",
     "memory/kxcore, after 20000 calls, written/100", "memory/kxcore, after 10000 calls, written/100", 1.05,
     ""),
)

GAINS = """\
- A program is running **{launch/kxcore}** after the call of `Start`. Activation by dbus-daemon takes
  {launch/dbus-daemon}.
- The name is owned **{start-up/kxcore, name owned/10}** after the daemon is executed. The first call is
  answered after {start-up/kxcore, call answered/10}; 10 applications are read and published by then.
- `Enumerate` lists 10 applications in **{enumerate/kxcore/10}**, 100 in {enumerate/kxcore/100}. The cheapest
  call takes {round-trip/kxcore}.
- 100 programs have ended **{termination/kxcore/100}** after the call of `Terminate`; 250 ms of that are
  theirs, to finish what they do.
- The daemon has written to **{memory/kxcore, idle, written/0}** of memory, and nothing wakes it while nobody
  calls."""


def number(value):
    """Three digits that mean something."""
    digits = 0 if abs(value) >= 100 or value == int(value) else 1 if abs(value) >= 10 else 2
    return f"{value:.{digits}f}"


class Figures:
    """The lines of CSV files, by series and round."""

    def __init__(self, paths):
        self.series = collections.defaultdict(dict)
        for path in paths:
            for row in csv.DictReader(path.read_text().splitlines()):
                key = "/".join(filter(None, (row["case"], row["series"], row["variant"])))
                self.series[key][path, row["round"]] = row
        self.rounds = list(dict.fromkeys(one for rows in self.series.values() for one in rows))

    def has(self, expression):
        keys = re.split(r" [+-] ", expression)
        return all(len(self.series.get(key, ())) == len(self.rounds) for key in keys)

    def value(self, expression, of_round):
        """The sum of the medians, with their signs."""
        terms = re.findall(r"(?:^| ([+-]) )(.+?)(?= [+-] |$)", expression)
        return sum(float(f"{sign}1") * float(self.series[key][of_round]["median"]) for sign, key in terms)

    def mean(self, key, column="median"):
        return statistics.mean(float(row[column]) for row in self.series[key].values())

    def text(self, key):
        unit = next(iter(self.series[key].values()))["unit"]
        return number(self.mean(key)) + f" {unit}".rstrip()

    def spread(self, key):
        """The range of the middle eighty per cent, if it is of several figures."""
        return " to ".join(number(self.mean(key, end)) for end in ("p10", "p90")) if self.many(key) else ""

    def many(self, key):
        return self.mean(key, "n") > 1

    def described(self, expression):
        """Median and spread, of a sum the median alone."""
        if expression in self.series:
            return self.text(expression) + (f" ({self.spread(expression)})" if self.many(expression) else "")
        return number(statistics.mean(self.value(expression, one) for one in self.rounds)) + " ms"

    def difference(self):
        """How far the medians of several figures differ between the rounds."""
        medians = {key: [float(row["median"]) for row in rows.values()] for key, rows in self.series.items()
                   if self.many(key)}
        differences = {key: max(values) / min(values) - 1 for key, values in medians.items()}
        most = max(differences, key=differences.get)
        middle = statistics.median(differences.values())
        return (f"Between the rounds half of all medians differ by less than {middle:.1%}; {most} differs "
                f"most, by {differences[most]:.1%}")


def goals(figures):
    yield "| goal | measured (10 % to 90 %) | reference | ratio, and of each round | at most | |"
    yield "|---|---|---|---|---|---|"
    for text, measured, reference, limit, reason in GOALS:
        if not figures.has(measured) or not figures.has(reference or measured):
            continue
        ratios = [figures.value(measured, one) / (figures.value(reference, one) if reference else 1)
                  for one in figures.rounds]
        ratio = statistics.mean(ratios)
        of_each = f"**{ratio:.2f}** ({', '.join(f'{one:.2f}' for one in ratios)})" if reference else ""
        beside = figures.described(reference) if reference else ""
        verdict = "met" if ratio <= limit else "**missed**" + (f": {reason}" if reason else "")
        yield f"| {text} | {figures.described(measured)} | {beside} | {of_each} | {limit} | {verdict} |"


def peers(figures):
    yield "| launched by | ms | 10 % to 90 % | kxcore takes |\n|---|---:|---:|---:|"
    daemon = figures.mean("launch/kxcore")
    for key in sorted((key for key in figures.series if key.startswith("launch/")), key=figures.mean):
        median = figures.mean(key)
        yield f"| {key.split('/')[1]} | {number(median)} | {figures.spread(key)} | {daemon / median:.2f} x |"


def everything(figures):
    yield "| | median | 10 % to 90 % |\n|---|---:|---:|"
    for key in figures.series:
        yield f"| {key} | {figures.text(key)} | {figures.spread(key)} |"


def plot(figures):
    """Two bars for each number of applications: the daemon, and what it is compared with in layers."""
    counts, base, height = (10, 100, 1000), 270, 210
    bars = []  # x, layers of (class, µs per application)
    for at, count in enumerate(counts):
        def per_application(series):
            return figures.mean(f"enumerate/{series}/{count}") * 1000 / count
        look_ups = per_application("account look-ups")
        bars.append((90 + 190 * at, [("kxcore", per_application("kxcore"))]))
        bars.append((160 + 190 * at, [("look-ups", look_ups),
                                      ("floor", per_application("floor") - look_ups),
                                      ("answer", per_application("answer"))]))
    scale = height / max(sum(value for _, value in layers) for _, layers in bars)
    yield """<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 640 330"
  font-family="sans-serif" font-size="13">
<style>
text { fill: #333 } .axis { stroke: #888 } .kxcore { fill: #2f81f7 } .look-ups { fill: #d29922 }
.floor { fill: #8b949e } .answer { fill: #3fa650 }
@media (prefers-color-scheme: dark) { text { fill: #ddd } }
</style>
<text x="20" y="24">Enumerate: µs for each application</text>"""
    for x, layers in bars:
        y = base
        for name, value in layers:
            y -= value * scale
            yield f'<rect class="{name}" x="{x}" y="{y:.1f}" width="60" height="{value * scale:.1f}"/>'
        total = sum(value for _, value in layers)
        yield f'<text x="{x + 30}" y="{y - 6:.1f}" text-anchor="middle">{total:.0f}</text>'
    yield f'<line class="axis" x1="60" y1="{base}" x2="620" y2="{base}"/>'
    for at, count in enumerate(counts):
        yield f'<text x="{155 + 190 * at}" y="{base + 20}" text-anchor="middle">{count:,} applications</text>'
    for x, name, text in ((60, "kxcore", "kxcore"), (160, "look-ups", "account look-ups"),
                          (310, "floor", "rest of the floor"), (460, "answer", "answer of bare QtDBus")):
        yield f'<rect class="{name}" x="{x}" y="{base + 38}" width="12" height="12"/>'
        yield f'<text x="{x + 18}" y="{base + 49}">{text}</text>'
    yield "</svg>"


def machine(figures):
    def output(*command):
        return subprocess.run(command, capture_output=True, text=True, cwd=TOP).stdout.strip()
    model = re.search(r"^model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text(), re.M)
    loads = (number(float(row["median"])) for row in figures.series["machine/load"].values())
    packages = ("dbus", "libqt5dbus5", "libsystemd0", "libxml2", "runit", "s6", "supervisor")
    yield (f"- Machine: {model[1] if model else platform.machine()}, {output('nproc')} processors; Linux "
           f"{platform.release()}; load when the rounds began: {', '.join(loads)}")
    build = output("git", "describe", "--always", "--dirty")
    yield f"- Measured on {time.strftime('%Y-%m-%d')}; build {build}, preset `bench`, stripped"
    yield f"- {output('dpkg-query', '-W', '-f', '${Package} ${Version}, ', *packages).rstrip(',')}"
    yield f"- {figures.difference()}"


def gains(figures):
    yield re.sub(r"\{(.+?)\}", lambda match: figures.text(match[1]), GAINS)


def footprint(figures):
    keys = [key.split("/") for key in figures.series if key.startswith("footprint/")]
    architectures = list(dict.fromkeys(key[2] for key in keys))
    yield "| | " + " | ".join(architectures) + " |\n|---|" + "---:|" * len(architectures)
    for name in dict.fromkeys(key[1] for key in keys):
        values = (figures.text(f"footprint/{name}/{architecture}") for architecture in architectures)
        yield f"| {name} | " + " | ".join(values) + " |"


def update(path, **parts):
    """Puts each part between the document's two marks of its name."""
    text = path.read_text()
    for name, lines in parts.items():
        mark = f"<!-- scripts/bench: {name} -->\n"
        before, _, after = text.split(mark)
        text = mark.join((before, "\n".join(lines) + "\n", after))
    path.write_text(text)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--write", action="store_true")
    parser.add_argument("figures", type=pathlib.Path, nargs="+")
    options = parser.parse_args()
    figures, docs = Figures(options.figures), TOP / "docs"
    if any(key.startswith("footprint/") for key in figures.series):
        print("\n".join(footprint(figures)))
        if options.write:
            update(docs / "arm.md", footprint=footprint(figures))
        return
    print("\n".join((*goals(figures), "", *everything(figures))))
    if len(figures.rounds) > 1:
        print("\n" + figures.difference())
    if options.write:
        update(docs / "performance.md", gains=gains(figures), goals=goals(figures), peers=peers(figures),
               machine=machine(figures))
        (docs / "performance.csv").write_text(options.figures[0].read_text())
        (docs / "images/enumerate.svg").write_text("\n".join(plot(figures)) + "\n")


if __name__ == "__main__":
    main()
