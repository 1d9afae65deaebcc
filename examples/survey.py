"""Do the people of two regions wait differently long? Welch's test on a small survey, standard library only."""

import csv
import io
import math
import statistics

ANSWERS = """\
region,minutes
north,12
north,15
north,9
north,14
north,18
north,11
north,16
north,13
south,19
south,17
south,22
south,15
south,21
south,24
south,18
south,20
"""


def group_by_region(text):
    groups = {}
    for row in csv.DictReader(io.StringIO(text)):
        groups.setdefault(row["region"], []).append(float(row["minutes"]))
    return groups


def welch(a, b):
    """The t statistic and its degrees of freedom for two samples of unequal variance."""
    va, vb = statistics.variance(a) / len(a), statistics.variance(b) / len(b)
    t = (statistics.mean(a) - statistics.mean(b)) / math.sqrt(va + vb)
    df = (va + vb) ** 2 / (va**2 / (len(a) - 1) + vb**2 / (len(b) - 1))
    return t, df


def two_sided_p(t, df, steps=20_000, limit=60.0):
    """The share of Student's distribution beyond |t|, by Simpson's rule."""
    scale = math.exp(math.lgamma((df + 1) / 2) - math.lgamma(df / 2)) / math.sqrt(df * math.pi)
    width = (limit - abs(t)) / steps
    total = 0.0
    for i in range(steps + 1):
        x = abs(t) + i * width
        weight = 1 if i in (0, steps) else 4 if i % 2 else 2
        total += weight * scale * (1 + x * x / df) ** (-(df + 1) / 2)
    return 2 * total * width / 3


groups = group_by_region(ANSWERS)

print(f"{'region':<8}{'n':>4}{'mean':>8}{'sd':>8}{'median':>8}")
for region, minutes in groups.items():
    print(
        f"{region:<8}{len(minutes):>4}{statistics.mean(minutes):>8.2f}"
        f"{statistics.stdev(minutes):>8.2f}{statistics.median(minutes):>8.1f}"
    )

t, df = welch(groups["north"], groups["south"])
print(f"\nWelch's t = {t:.3f}, df = {df:.1f}, p = {two_sided_p(t, df):.5f}")
