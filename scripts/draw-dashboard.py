#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Draws the panels of a Grafana dashboard from the data of a Prometheus, as one picture, so that its
expressions can be seen at work without a Grafana.

Draws panels of the types timeseries, stat and state-timeline. Exits with 1 when an expression is
refused, and names the panels that have no data.
"""
import argparse
import json
import math
import re
import sys
import time
import urllib.error
import urllib.parse
import urllib.request

import matplotlib
matplotlib.use("Agg")
import matplotlib.dates  # noqa: E402
import matplotlib.pyplot as plot  # noqa: E402
from datetime import datetime  # noqa: E402

UNITS = {"s": "s", "ops": "1/s", "Bps": "B/s", "percent": "%", "bytes": "MiB", "percentunit": "%"}
FACTORS = {"bytes": 1 / 1048576, "percentunit": 100}
COLORS = {"green": "#3d9a50", "red": "#d04545", "blue": "#3a6ea5"}


def query(server, path, **arguments):
    url = f"{server.rstrip('/')}/api/v1/{path}?{urllib.parse.urlencode(arguments)}"
    try:
        with urllib.request.urlopen(url, timeout=30) as response:
            return json.load(response)["data"]["result"]
    except urllib.error.HTTPError as error:
        raise ValueError(json.load(error).get("error", str(error))) from None


def expression(text, options):
    for name, value in (("$__rate_interval", options.rate), ("$__range", options.range)):
        text = text.replace(name, f"{value:.0f}s")
    return re.sub(r"\$\w+", options.instance, text)


def legend(target, labels):
    text = re.sub(r"{{\s*(\w+)\s*}}", lambda m: labels.get(m[1], ""), target["legendFormat"])
    return text or ", ".join(f"{name}={value}" for name, value in sorted(labels.items()))


def draw_stat(axes, panel, options):
    defaults = panel["fieldConfig"]["defaults"]
    result = query(options.prometheus, "query", time=options.end,
                   query=expression(panel["targets"][0]["expr"], options))
    value = float(result[0]["value"][1]) if result else None
    color = "grey"
    for step in defaults["thresholds"]["steps"] if value is not None else []:
        if step["value"] is None or value >= step["value"]:
            color = COLORS[step["color"]]
    axes.set_facecolor(color)
    axes.set_xticks([])
    axes.set_yticks([])
    axes.text(0.5, 0.5, "no data" if value is None else f"{value:.4g}", fontsize=26, color="white",
              ha="center", va="center", transform=axes.transAxes)
    return bool(result)


def draw_series(axes, panel, options):
    defaults = panel["fieldConfig"]["defaults"]
    factor = FACTORS.get(defaults["unit"], 1)
    states = panel["type"] == "state-timeline"
    names, count, largest = [], 0, defaults.get("max", 0)
    for target in panel["targets"]:
        for series in query(options.prometheus, "query_range", start=options.end - options.range,
                            end=options.end, step=options.step,
                            query=expression(target["expr"], options)):
            times = [datetime.fromtimestamp(moment) for moment, _ in series["values"]]
            values = [float(value) * factor for _, value in series["values"]]
            label = legend(target, series["metric"])
            largest = max([largest] + [value for value in values if math.isfinite(value)])
            if states:
                axes.scatter(times, [count] * len(times), marker="s", s=14)
                names.append(label)
            else:
                axes.plot(times, values, linewidth=1.1,
                          label=label if count < options.legend else "_")
            count += 1
    axes.set_xlim(datetime.fromtimestamp(options.end - options.range),
                  datetime.fromtimestamp(options.end))
    axes.xaxis.set_major_formatter(matplotlib.dates.DateFormatter("%H:%M:%S"))
    axes.xaxis.set_major_locator(plot.MaxNLocator(5))
    axes.tick_params(labelsize=7)
    axes.grid(alpha=0.25)
    if states:
        axes.set_yticks([])
        axes.margins(y=0.2)
        for row, name in enumerate(names):
            axes.text(0.01, row + 0.15, name, fontsize=6, transform=axes.get_yaxis_transform())
    elif count:
        axes.set_ylim(0, 1.08 * largest or 1)
        axes.legend(fontsize=6, loc="upper left", framealpha=0.6)
        axes.set_ylabel(UNITS.get(defaults["unit"], ""), fontsize=7)
    return count > 0


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("dashboard", help="the dashboard's JSON")
    parser.add_argument("prometheus", help="as http://127.0.0.1:9090")
    parser.add_argument("picture", help="the PNG file to write")
    parser.add_argument("--range", type=float, default=900, help="seconds to show (900)")
    parser.add_argument("--end", type=float, default=time.time(), help="seconds since 1970 (now)")
    parser.add_argument("--step", type=float, default=5, help="seconds between two values (5)")
    parser.add_argument("--rate", type=float, default=40,
                        help="seconds of $__rate_interval: four times the scrape interval (40)")
    parser.add_argument("--instance", default=".+", help="pattern of the bridges (all)")
    parser.add_argument("--legend", type=int, default=8, help="entries of a legend (8)")
    options = parser.parse_args()

    with open(options.dashboard, encoding="utf-8") as file:
        dashboard = json.load(file)
    panels = dashboard["panels"]
    height = max(p["gridPos"]["y"] + p["gridPos"]["h"] for p in panels)
    figure = plot.figure(figsize=(17, 0.36 * height + 0.5), dpi=100)
    figure.suptitle(dashboard["title"], fontsize=13, y=0.995)
    empty, refused = [], []
    for panel in panels:
        at = panel["gridPos"]
        axes = figure.add_axes((at["x"] / 24 + 0.03, 0.985 - (at["y"] + at["h"] - 1.1) / height * 0.98,
                                at["w"] / 24 - 0.045, (at["h"] - 2.2) / height * 0.98))
        axes.set_title(panel["title"], fontsize=9, loc="left")
        draw = draw_stat if panel["type"] == "stat" else draw_series
        try:
            if not draw(axes, panel, options):
                empty.append(panel["title"])
        except ValueError as error:
            refused.append(f"{panel['title']}: {error}")
    figure.savefig(options.picture)
    print(f"{len(panels)} panels in {options.picture}; "
          f"without data: {', '.join(empty) or 'none'}")
    for line in refused:
        print(f"draw-dashboard: {line}", file=sys.stderr)
    return 1 if refused else 0


if __name__ == "__main__":
    sys.exit(main())
