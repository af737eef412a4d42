"""Writes the table and the chart of docs/performance.md."""

import html
import math
import re

from rows import MORE, PENDING, ROWS, USERS

US = "vexalive"
DOCUMENT = "docs/performance.md"
CHART = "docs/pictures/performance.svg"
BEGIN, END = "<!-- table: written by scripts/bench -->\n", "<!-- end of the table -->\n"


def shown(value):
    """Formats with three significant digits."""
    if value == 0:
        return "0"
    digits = max(0, 2 - math.floor(math.log10(abs(value))))
    return f"{value:,.{digits}f}"


def targets(figure):
    phrases = [f"{ratio:g} × {contender}" for contender, ratio in figure.ratios.items()]
    phrases += [f"{contender} + {shown(value)} {figure.unit}" for contender, value in figure.beyond.items()]
    if figure.ceiling is not None:
        phrases.append(f"{shown(figure.ceiling * figure.scale)} {figure.unit}".strip())
    if not phrases:
        return ""
    return ("at least " if figure.better == MORE else "at most ") + ", ".join(phrases)


def verdict(figure, result):
    if not targets(figure):
        return ""
    if not result["missed"]:
        return "met"
    references = [each for each in result["missed"] if each != US]
    return "**missed**" + (f" for {', '.join(references)}" if references else "")


def cell(figure, result, contender):
    """The median of a reference, and in parentheses its comparison with vexalive."""
    if contender in figure.constants:
        compared = f"{result['differences'][contender] * figure.scale:+.1f} {figure.unit}"
    else:
        compared = f"{result['ratios'][contender]:.2f} ×"
    return f"{shown(result['medians'][contender] * figure.scale)} ({compared})"


def table(results):
    """One Markdown table per row."""
    by_key = {(each["row"], each["figure"]): each for each in results}
    lines = []
    for row in ROWS:
        if not any(each["row"] == row.name for each in results):
            continue
        others = [each for each in row.contenders if each != US]
        lines += [f"### {row.title}", "",
                  f"| figure | {US} | " + "".join(f"{each} | " for each in others) + "target | result |",
                  "|---|" + "---:|" * (1 + len(others)) + "---|---|"]
        for figure in row.figures:
            result = by_key[row.name, figure.key]
            cells = [f"{figure.label}, {figure.unit}" if figure.unit else figure.label,
                     shown(result["medians"][US] * figure.scale)]
            cells += [cell(figure, result, each) if each in result["ratios"] else "" for each in others]
            lines.append("| " + " | ".join([*cells, targets(figure), verdict(figure, result)]) + " |")
        lines.append("")
    return "\n".join(lines)


# ---- The chart ------------------------------------------------------------------------------------------------------

WIDTH, LEFT, RIGHT, LINE = 860, 330, 30, 19
COLOURS = ["#1f5fa8", "#c2571a", "#2e7d4f", "#7b4fa3"]
STYLE = (
    "<style>.name{font-size:12px;fill:#222}.head{font-size:14px;font-weight:bold;fill:#222}"
    ".scale{font-size:11px;fill:#666}.grid{stroke:#ddd}.even{stroke:#888}.line{fill:none;stroke-width:1.6}</style>"
)


def text(x, y, words, kind="name", anchor="start", colour=None):
    fill = f' style="fill:{colour}"' if colour else ""
    return f'<text x="{x:.1f}" y="{y:.1f}" class="{kind}" text-anchor="{anchor}"{fill}>{html.escape(words)}</text>'


def line(x1, y1, x2, y2, kind="grid"):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" class="{kind}"/>'


def advantages(results, top):
    """Draws how many times better vexalive is than each reference, for the figures with a target ratio. The scale is
    logarithmic."""
    by_key = {(each["row"], each["figure"]): each for each in results}
    low, high = 0.25, 128

    def x(times):
        share = math.log(min(max(times, low), high) / low) / math.log(high / low)
        return LEFT + share * (WIDTH - RIGHT - LEFT)

    body, y = [], top + 24
    for row in ROWS:
        compared = [figure for figure in row.figures if figure.ratios and (row.name, figure.key) in by_key]
        if not compared:
            continue
        y += LINE
        body.append(text(20, y, row.title, "head"))
        for figure in compared:
            y += LINE
            body.append(text(LEFT - 12, y, figure.label, "name", "end"))
            body.append(line(LEFT, y - 4, WIDTH - RIGHT, y - 4))
            others = [each for each in row.contenders if each != US]
            for index, other in enumerate(others):
                ratio = by_key[row.name, figure.key]["ratios"].get(other)
                if ratio is None:
                    continue
                times = ratio if figure.better == MORE else 1 / ratio
                body.append(f'<circle cx="{x(times):.1f}" cy="{y - 4:.1f}" r="4.5" fill="{COLOURS[index]}">'
                            f"<title>{html.escape(other)}: {times:.2f}</title></circle>")
        legend = 20
        y += 4
        for index, other in enumerate(each for each in row.contenders if each != US):
            y += 0 if index else LINE - 4
            body.append(f'<circle cx="{LEFT + legend:.1f}" cy="{y - 4:.1f}" r="4.5" fill="{COLOURS[index]}"/>')
            body.append(text(LEFT + legend + 9, y, other, "scale"))
            legend += 24 + 7 * len(other)
        y += 6
    head = [text(20, top, f"How many times better {US} is than each reference", "head")]
    for times in (0.5, 1, 2, 4, 8, 16, 32, 64):
        head.append(text(x(times), top + 20, f"{times:g} ×", "scale", "middle"))
        head.append(line(x(times), top + 26, x(times), y, "even" if times == 1 else "grid"))
    return head + body, y


def growth(results, row_name, title, unit, points, logarithmic, left, width, top, height=170):
    """Draws one line per contender. `points` are pairs of x coordinate and figure."""
    row = next(each for each in ROWS if each.name == row_name)
    by_key = {each["figure"]: each for each in results if each["row"] == row_name}
    if not by_key:
        return []
    scale = math.log10 if logarithmic else float
    first, last = scale(points[0][0]), scale(points[-1][0])
    highest = max(by_key[key]["medians"][each] for _, key in points for each in row.contenders)
    step = 10 ** math.floor(math.log10(highest))
    highest = math.ceil(highest / step) * step

    def place(where, value):
        return (left + (scale(where) - first) / (last - first) * width, top + height - value / highest * height)

    parts = [text(left - 30, top - 14, title, "head")]
    for share in (0, 0.5, 1):
        y = top + height - share * height
        parts += [line(left, y, left + width, y),
                  text(left - 6, y + 4, f"{highest * share:g}", "scale", "end")]
    for where, _ in points:
        parts.append(text(place(where, 0)[0], top + height + 16, f"{where:,}", "scale", "middle"))
    parts.append(text(left + width, top - 14, unit, "scale", "end"))
    for index, contender in enumerate(row.contenders):
        colour = "#111" if contender == US else COLOURS[index - 1]
        corners = [place(where, by_key[key]["medians"][contender]) for where, key in points]
        parts.append(f'<polyline points="{" ".join(f"{x:.1f},{y:.1f}" for x, y in corners)}" class="line" '
                     f'stroke="{colour}"/>')
        lines_below = len(row.contenders) - 1 - index
        parts.append(text(left + width - 8, top + height - 10 - 15 * lines_below, contender, "scale", "end", colour))
    return parts


def chart(results):
    parts, bottom = advantages(results, 30)
    top, half = bottom + 60, WIDTH / 2
    parts += growth(results, "timers", "Insert, by number of pending tasks", "ns",
                    [(pending, f"insert_ns_{pending}_pending") for pending in PENDING], True, 60, half - 110, top)
    parts += growth(results, "bodies", "Body of a mix, by number of users", "µs",
                    [(users, f"mix_us_{users}_user{'s' if users > 1 else ''}") for users in USERS], False, half + 40,
                    half - 90, top)
    height = top + 210
    return "\n".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height:.0f}" font-family="sans-serif">',
        STYLE, f'<rect width="{WIDTH}" height="{height:.0f}" fill="#fff"/>', *parts, "</svg>\n"])


def write(results):
    with open(DOCUMENT, encoding="utf-8") as file:
        document = file.read()
    between = re.compile(re.escape(BEGIN) + ".*?" + re.escape(END), re.DOTALL)
    if not between.search(document):
        raise SystemExit(f"{DOCUMENT} has no markers for the table")
    with open(DOCUMENT, "w", encoding="utf-8") as file:
        file.write(between.sub(lambda _: BEGIN + "\n" + table(results) + "\n" + END, document))
    with open(CHART, "w", encoding="utf-8") as file:
        file.write(chart(results))
