"""Rows and format of the result table."""
import re
import statistics
import subprocess
from dataclasses import dataclass



@dataclass(frozen=True)
class Row:
    """`limit` is "" or a condition like "<= 1.5"; a number alone is a maximum. `value` is the median of `samples`, which
    are empty for a single measurement."""
    bench: str
    name: str
    value: float
    unit: str = ""
    limit: str = ""
    samples: tuple = ()

    @staticmethod
    def of(bench, name, samples, unit="", limit=""):
        """A row with the median. A sample is None if the event did not occur in that run; then the value is None, too."""
        present = tuple(sample for sample in samples if sample is not None)
        value = statistics.median(present) if present and len(present) == len(samples) else None
        return Row(bench, name, value, unit, limit, present if len(samples) > 1 else ())

    @property
    def holds(self):
        """Whether the value meets the limit; None without a limit."""
        if not self.limit:
            return None
        if self.value is None:
            return False
        relation, bound = re.fullmatch(r"(<=|>=|=)?\s*([\d.]+)", self.limit.strip()).groups()
        bound = float(bound)
        return {"<=": self.value <= bound, ">=": self.value >= bound, "=": self.value == bound}[relation or "<="]

    @property
    def verdict(self):
        return {None: "", True: "holds", False: "**MISSED**"}[self.holds]

    @property
    def spread(self):
        if not self.samples:
            return ""
        return f"{number(min(self.samples))} .. {number(max(self.samples))} ({len(self.samples)})"


def number(value):
    """Three significant digits, without an exponent."""
    if value is None:
        return "never"
    if value == int(value) or abs(value) >= 1000:
        return f"{value:,.0f}"
    return f"{value:.3g}"


def markdown(rows):
    """The table in the format of bench/results/."""
    head = ("Bench", "Figure", "Value", "Unit", "Demand", "", "Spread (runs)")
    body = [(row.bench, row.name, number(row.value), row.unit, row.limit, row.verdict, row.spread) for row in rows]
    widths = [max(len(line[column]) for line in [head, *body]) for column in range(len(head))]
    lines = ["| " + " | ".join(cell.ljust(width) for cell, width in zip(line, widths)) + " |" for line in [head, *body]]
    rule = "|" + "|".join("-" * (width + 2) for width in widths) + "|"
    return "\n".join([lines[0], rule, *lines[1:]])


def of_program(bench, command, say):
    """Runs a benchmark program and returns the rows that it prints: name, value, unit and limit, separated by tabs.
    Passes other lines to `say`."""
    result = subprocess.run(command, capture_output=True, text=True, check=False)
    rows = []
    for line in result.stdout.splitlines():
        fields = line.split("\t")
        if len(fields) in (3, 4):
            rows.append(Row(bench, fields[0].removeprefix(bench + " "), float(fields[1]), *fields[2:]))
        elif line.strip():
            say(f"{bench}: {line}")
    if result.returncode != 0 or not rows:
        said = (result.stderr.strip() or result.stdout.strip()).splitlines()
        raise RuntimeError(f"{command[0]} ended with status {result.returncode}" + (f": {said[-1]}" if said else ""))
    return rows
