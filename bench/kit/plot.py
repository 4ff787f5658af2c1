"""A picture of ratios against N, both logarithmic, as SVG; standard library only."""
import html
import math

COLOURS = ("#1b6ca8", "#c0392b", "#2e8b57", "#8e44ad", "#d68910", "#555555")
WIDTH, HEIGHT, LEFT, TOP, RIGHT, BOTTOM = 720, 380, 60, 40, 230, 50


def _ticks(low, high):
    """1, 2, 5, 10 ... between two bounds."""
    ticks = []
    for power in range(math.floor(math.log10(low)), math.ceil(math.log10(high)) + 1):
        ticks += [step * 10.0 ** power for step in (1, 2, 5)]
    return [tick for tick in ticks if low * 0.999 <= tick <= high * 1.001]


def svg(title, lines, vertical, horizontal="nodes"):
    """`lines`: name -> [(N, value)], values positive."""
    points = [point for line in lines.values() for point in line]
    xs, ys = [n for n, _ in points], [value for _, value in points]
    x0, x1 = min(xs), max(max(xs), min(xs) * 10)
    y0, y1 = 10 ** math.floor(math.log10(min(ys))), 2 * 10 ** math.floor(math.log10(max(ys)))

    def at(n, value):
        return (LEFT + (WIDTH - LEFT - RIGHT) * math.log(n / x0) / math.log(x1 / x0),
                TOP + (HEIGHT - TOP - BOTTOM) * (1 - math.log(value / y0) / math.log(y1 / y0)))

    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" font-family="sans-serif" font-size="12">',
           f'<rect width="{WIDTH}" height="{HEIGHT}" fill="white"/>',
           f'<text x="{LEFT}" y="22" font-size="15">{html.escape(title)}</text>']
    for tick in _ticks(y0, y1):
        _, y = at(x0, tick)
        out.append(f'<line x1="{LEFT}" y1="{y:.1f}" x2="{WIDTH - RIGHT}" y2="{y:.1f}" stroke="#ddd"/>'
                   f'<text x="{LEFT - 6}" y="{y + 4:.1f}" text-anchor="end">{tick:g}</text>')
    for n in sorted(set(xs)):
        x, _ = at(n, y0)
        out.append(f'<line x1="{x:.1f}" y1="{TOP}" x2="{x:.1f}" y2="{HEIGHT - BOTTOM}" stroke="#eee"/>'
                   f'<text x="{x:.1f}" y="{HEIGHT - BOTTOM + 16}" text-anchor="middle">{n:,}</text>')
    out.append(f'<text x="{(LEFT + WIDTH - RIGHT) / 2}" y="{HEIGHT - 12}" text-anchor="middle">{html.escape(horizontal)}</text>'
               f'<text x="14" y="{(TOP + HEIGHT - BOTTOM) / 2}" text-anchor="middle" '
               f'transform="rotate(-90 14 {(TOP + HEIGHT - BOTTOM) / 2})">{html.escape(vertical)}</text>')
    for number, (name, line) in enumerate(lines.items()):
        colour = COLOURS[number % len(COLOURS)]
        dashes = ' stroke-dasharray="5 3"' if number >= len(COLOURS) else ""
        places = [at(n, value) for n, value in sorted(line)]
        if len(places) > 1:
            out.append(f'<polyline fill="none" stroke="{colour}" stroke-width="2"{dashes} points="' +
                       " ".join(f"{x:.1f},{y:.1f}" for x, y in places) + '"/>')
        out += [f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>' for x, y in places]
        y = TOP + 8 + 18 * number
        out.append(f'<line x1="{WIDTH - RIGHT + 14}" y1="{y}" x2="{WIDTH - RIGHT + 38}" y2="{y}" stroke="{colour}" '
                   f'stroke-width="2"{dashes}/><text x="{WIDTH - RIGHT + 44}" y="{y + 4}">{html.escape(name)}</text>')
    return "\n".join(out) + "\n</svg>\n"
