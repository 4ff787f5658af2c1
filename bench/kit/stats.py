"""What is made of many measurements. No figure of a benchmark is a single one."""
import math
import statistics


def median(values):
    return statistics.median(values)


def percentile(values, share):
    """The least value that `share` (0 to 1) of the values do not exceed."""
    ordered = sorted(values)
    if not ordered:
        raise ValueError("no values")
    return ordered[max(0, math.ceil(share * len(ordered)) - 1)]


def neighbour_ratios(series):
    """`series` alternates between the yardstick and what is measured and begins and ends with the yardstick: P M P M P.
    Result: each measurement divided by the mean of the yardstick before and behind it, so that a machine that
    becomes slower meanwhile does not count."""
    if len(series) < 3 or len(series) % 2 == 0:
        raise ValueError("a yardstick before and behind each measurement is wanted")
    return [series[i] / ((series[i - 1] + series[i + 1]) / 2) for i in range(1, len(series), 2)]


def growth(points):
    """The exponent e of the best fit time = c * N^e through (N, time), by least squares in logarithms: 0 is flat, 1
    linear. None with fewer than two different N, or a time that is not positive."""
    if any(n <= 0 or time <= 0 for n, time in points) or len({n for n, _ in points}) < 2:
        return None
    xs, ys = [math.log(n) for n, _ in points], [math.log(time) for _, time in points]
    mx, my = statistics.fmean(xs), statistics.fmean(ys)
    return sum((x - mx) * (y - my) for x, y in zip(xs, ys)) / sum((x - mx) ** 2 for x in xs)


def flatness(ratios):
    """How far the ratios of a row are apart: (largest - smallest) / largest."""
    return (max(ratios) - min(ratios)) / max(ratios)


def duration(seconds):
    """Three digits with a unit."""
    for unit, factor in (("s", 1), ("ms", 1e3), ("us", 1e6)):
        if seconds * factor >= 1 or unit == "us":
            return f"{three(seconds * factor)} {unit}"
    raise AssertionError("unreachable")


def three(value):
    """Three digits that count, without an exponent."""
    if value == 0:
        return "0"
    digits = max(0, 2 - math.floor(math.log10(abs(value))))
    return f"{value:,.{digits}f}"


def table(head, rows):
    """Lines of a Markdown table."""
    return ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)] + \
           ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows]
