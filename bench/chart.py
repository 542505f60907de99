"""The figures of a comparison as one SVG picture, readable on white and on black."""

ROWS = ["rux, first scan", "rux, scan again", "hardlink", "jdupes", "md5sum", "rdfind", "fdupes", "rmlint"]
PANEL, BAR, LEFT, WIDE = 34, 17, 120, 560


def draw(results):
    """Seconds to find the duplicates, a panel for each corpus."""
    parts, y = [], 10
    for corpus, result in results.items():
        figures = result["figures"]
        rows = [name for name in ROWS if name in figures]
        longest = max(figures[name]["wall"] for name in rows)
        parts.append(f'<text x="4" y="{y + 14}" font-weight="bold">{corpus}: seconds to find the '
                     "duplicates, files cached</text>")
        y += PANEL - 10
        for name in rows:
            seconds = figures[name]["wall"]
            width = max(1, seconds / longest * (WIDE - LEFT - 60))
            colour = "#2a9d5c" if name.startswith("rux") else "#8a8f98"
            parts.append(f'<text x="{LEFT - 6}" y="{y + 13}" text-anchor="end">{name}</text>'
                         f'<rect x="{LEFT}" y="{y + 2}" width="{width:.1f}" height="{BAR - 4}" rx="2" '
                         f'fill="{colour}"/>'
                         f'<text x="{LEFT + width + 5:.1f}" y="{y + 13}">{seconds:.2f}</text>')
            y += BAR
        y += 12
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDE} {y}" width="{WIDE}" height="{y}" '
            'font-family="sans-serif" font-size="12">\n'
            "<style>text{fill:#333}@media(prefers-color-scheme:dark){text{fill:#ddd}}</style>\n"
            + "\n".join(parts) + "\n</svg>\n")
