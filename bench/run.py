#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Measures the library against its floors and keeps the results.

  bench/run.py measure [--build DIR] [--out FILE] [--effort FACTOR] [--only NAME...] [--add FILE...]
      Runs the benchmarks (about 8 minutes) and writes their rows as JSON. --add adds rows that were
      measured elsewhere, such as in a virtual machine.
  bench/run.py page [--results FILE] [--before FILE] [--check]
      Writes the tables of docs/performance.md from the results; --check only compares.

The programs come from a build folder, usually build/release:
  cmake --preset release && cmake --build build/release --target bench
"""

import argparse
import json
import os
import pathlib
import re
import statistics
import subprocess
import sys
import tempfile

TOP = pathlib.Path(__file__).resolve().parent.parent
PAGE = TOP / "docs/performance.md"
RESULTS = TOP / "bench/results"
PARTS = ["json", "usb", "kernel", "events", "session"]
FILE_SIZE = 16 << 20
JSON_LIMITS = {"job_parse": 0.5, "job_object": 1.0}  # Other rows of jovu_bench: 0.75.


def fail(message):
    sys.exit(f"run.py: {message}")


def load(path):
    """The results of a file."""
    try:
        results = json.loads(path.read_text())
        results["rows"]
    except OSError as error:
        fail(f"{path} cannot be read: {error.strerror}")
    except ValueError as error:
        fail(f"{path} is not JSON: {error}")
    except (KeyError, TypeError):
        fail(f"{path} has no rows: it is not a file of results")
    return results


def run(command, **options):
    print("+", " ".join(map(str, command)), file=sys.stderr)
    try:
        status = subprocess.run(command, check=False, **options).returncode
    except OSError as error:
        fail(f"{command[0]} cannot be run: {error.strerror}; build the target \"bench\" first")
    if status != 0:
        fail(f"{pathlib.Path(command[0]).name} failed")


def measure_json(programs, effort, folder):
    """Exchanges, events and objects without USB, from Google Benchmark's own format."""
    out = folder / "json.json"
    # By turns, so that a disturbance, or a slower processor, does not meet one size of object only.
    run([programs / "jovu_bench", f"--benchmark_out={out}", "--benchmark_out_format=json",
         f"--benchmark_min_time={0.1 * effort}", "--benchmark_repetitions=7",
         "--benchmark_enable_random_interleaving=true"],
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    repetitions = {}
    for entry in sorted(json.loads(out.read_text())["benchmarks"], key=lambda each: (
            each["family_index"], each["per_family_instance_index"])):
        if entry["run_type"] == "iteration" and "ratio" in entry:
            repetitions.setdefault(entry["run_name"], []).append(entry)
    rows, costs = [], {}
    for name, entries in repetitions.items():
        entry = {key: statistics.median(each[key] for each in entries)
                 for key, value in entries[0].items() if isinstance(value, (int, float))}
        row = {"table": "json", "subject": name.removesuffix("/manual_time"),
               "rounds": sum(each["iterations"] for each in entries)}
        limit = next((value for name, value in JSON_LIMITS.items()
                      if row["subject"].startswith(name)), 0.75)
        rows.append({**row, "measure": "CPU", "unit": "us", "libjovu": entry["us"],
                     "floor": entry["yajl_us"], "ratio": entry["ratio"],
                     "wanted": {"of": "ratio", "at_most": limit}})
        rows.append({**row, "measure": "allocations", "unit": "", "libjovu": entry["allocs"],
                     "floor": entry["yajl_allocs"], "ratio": None})
        if not row["subject"].startswith("job_"):
            rows[-1]["wanted"] = {"of": "libjovu", "at_most": 20}
        if "ns_per_byte" in entry:
            costs.setdefault(row["subject"].split("/")[0], []).append(entry["ns_per_byte"])
    for name, cost in costs.items():
        rows.append({"table": "json", "subject": name, "measure": "most to least per byte",
                     "unit": "", "libjovu": max(cost) / min(cost), "floor": None, "ratio": None})
        if name == "job_object":
            rows[-1]["wanted"] = {"of": "libjovu", "at_most": 1.25}
    return {"rows": rows}


def measure_usb(programs, effort, folder):
    out = folder / "usb.json"
    simulator = [programs / "jovu-sim", "run", "--time-scale", "1000", "--"]
    run([*simulator, programs / "usb_bench", "--effort", str(effort), "--json", out])
    results = json.loads(out.read_text())
    # What the library costs, wherever the kernel lets the threads of either program wake.
    processor = str(min(os.sched_getaffinity(0)))
    run(["taskset", "--cpu-list", processor, *simulator, programs / "usb_bench", "round-trip",
         "--effort", str(effort), "--bus", "simulated bus, one processor", "--json", out])
    end = max(i for i, row in enumerate(results["rows"]) if row["table"] == "round trip") + 1
    results["rows"][end:end] = json.loads(out.read_text())["rows"]
    return results


def measure_kernel(programs, effort, _):
    """The round trip on a real kernel, in a virtual machine, whose processor is emulated."""
    command = [TOP / "scripts/run-in-vm.sh", "--timeout", "240", "--", programs / "jovu-sim",
               "attach", "--empty", "--time-scale", "1000", "--", programs / "usb_bench",
               "round-trip", "--effort", str(max(0.1, 0.15 * effort)), "--bus", "real kernel",
               "--round-trip-limit", "1.15", "--json", "-"]
    print("+", " ".join(map(str, command)), file=sys.stderr)
    output = subprocess.run(command, check=False, stdout=subprocess.PIPE, text=True)
    table, brace, rows = output.stdout.partition("\n{\n")
    print(table)
    if output.returncode == 77:
        print("run.py: no rows of a real kernel: this system cannot run a virtual machine",
              file=sys.stderr)
        return {}
    if output.returncode != 0:
        fail(f"run-in-vm.sh failed with status {output.returncode}")
    return {"rows": json.loads(brace + rows)["rows"]}


def measure_events(programs, effort, folder):
    out = folder / "events.json"
    run([programs / "event_bench", "--rounds", str(max(3, int(15 * effort))), "--json", out])
    return json.loads(out.read_text())


def code_lines(path):
    """Lines with code: no blank ones, no comments."""
    text = re.sub(r'^"""\w.*?"""$', "", path.read_text(), flags=re.S | re.M)
    return sum(1 for line in text.splitlines() if line.strip() and
               not line.strip().startswith(("//", "#!", "# ")))


def measure_session(programs, effort, folder):
    """The same session with libjovu and with PyUSB, by turns; the device is unplugged in the
    middle of the second push."""
    # Debian's package is for Debian's Python, which may not be the one that runs this.
    python = next((each for each in (sys.executable, "/usr/bin/python3") if subprocess.run(
        [each, "-c", "import usb.core"], check=False, capture_output=True).returncode == 0), None)
    if python is None:
        fail("session.py needs PyUSB: apt-get install python3-usb, or leave it out with --only")
    job = folder / "job"
    job.write_bytes(b"G1 X10.25 Y20.5 E1\n" * (FILE_SIZE // 19 + 1))
    os.truncate(job, FILE_SIZE)
    sources = TOP / "bench/session"
    commands = {"libjovu": ([programs / "session"], sources / "session.cpp"),
                "PyUSB": ([python, sources / "session.py"], sources / "session.py")}
    results = {name: [] for name in commands}
    # The announcements are not counted, so the device is not gone exactly in the middle.
    script = f'jovu-sim ctl fault 1:2 unplug-at 04 {FILE_SIZE * 3 // 2} >/dev/null && exec "$@"'
    environment = {**os.environ, "PATH": f"{programs}:{os.environ['PATH']}"}
    for _ in range(max(3, int(5 * effort))):
        for name, (command, _) in commands.items():
            output = subprocess.run(
                [programs / "jovu-sim", "run", "--time-scale", "1000", "--", "sh", "-c", script,
                 "sh", *command, job], env=environment, stdout=subprocess.PIPE, check=False)
            if output.returncode != 0:
                fail(f"the session with {name} failed")
            results[name].append(json.loads(output.stdout))
    session = {}
    for name, (_, source) in commands.items():
        runs = results[name]

        def median(key, runs=runs):
            return statistics.median(each[key] for each in runs)

        session[name] = {
            "lines of code": code_lines(source),
            "round trips a second": median("round_trips_per_s"),
            "CPU of a round trip, us": median("round_trip_cpu_us"),
            "push of 16 MiB, MiB/s": round(16 / median("push_s"), 1),
            "CPU of the push, s": round(median("push_cpu_s"), 2),
            "at the unplug": runs[-1]["at_unplug"],
        }
        print(name, json.dumps(session[name]))
    return {"session": session}


def measure(options):
    programs = (options.build / "bin").resolve()
    if not programs.is_dir():
        fail(f"{programs} does not exist; build first, or name the build folder with --build")
    commit = subprocess.run(["git", "-C", TOP, "rev-parse", "--short", "HEAD"], check=False,
                            capture_output=True, text=True).stdout.strip()
    total = {"commit": commit, "machine": {}, "rows": []}
    # Before the minutes of measuring, which a wrong name would waste.
    added = [row for path in options.add for row in load(path)["rows"]]
    try:
        options.out.parent.mkdir(parents=True, exist_ok=True)
        tempfile.TemporaryFile(dir=options.out.parent).close()
        if options.out.exists():
            options.out.open("a", encoding="utf-8").close()
    except OSError as error:
        fail(f"{options.out} cannot be written: {error.strerror}")
    with tempfile.TemporaryDirectory() as folder:
        for part in options.only or PARTS:
            result = globals()[f"measure_{part}"](programs, options.effort, pathlib.Path(folder))
            total["machine"] = total["machine"] or result.get("machine", {})
            total["rows"] += result.get("rows", [])
            if "session" in result:
                total["session"] = result["session"]
    total["rows"] += added
    options.out.write_text(json.dumps(total, indent=1) + "\n")
    print_missed(total["rows"])


def number(value):
    if value is None:
        return "-"
    decimals = next((digits for limit, digits in ((0.1, 3), (10, 2), (100, 1)) if abs(value) < limit), 0)
    return f"{value:.{decimals if value else 0}f}"


def met(row):
    wanted = row["wanted"]
    value = row[wanted["of"]]
    return value is not None and (value <= wanted["at_most"] if "at_most" in wanted
                                  else value >= wanted["at_least"])


def wanted_text(row):
    if "wanted" not in row:
        return ""
    sign, limit = (("≤", row["wanted"]["at_most"]) if "at_most" in row["wanted"]
                   else ("≥", row["wanted"]["at_least"]))
    return f"{sign} {limit:g}" + ("" if met(row) else " (missed)")


def print_missed(rows):
    missed = [row for row in rows if "wanted" in row and not met(row)]
    for row in missed:
        print("missed:", row["table"], row["subject"], row["measure"], number(row["libjovu"]),
              "ratio", number(row["ratio"]), "wanted", wanted_text(row))
    print(f"{len(rows)} rows, {len(missed)} missed")


def key(row):
    return row["table"], row["subject"], row["measure"]


def shown(row):
    """The ratio, or the library's own figure where there is none or the limit is for that."""
    of = row.get("wanted", {}).get("of", "ratio" if row["ratio"] is not None else "libjovu")
    return number(row[of])


def results_table(results, before):
    earlier = {key(row): row for row in before.get("rows", [])}
    lines = ["| row | measure | libjovu | floor | ratio | before | wanted |",
             "|---|---|---|---|---|---|---|"]
    for row in results["rows"]:
        old = earlier.get(key(row))
        unit = f", {row['unit']}" if row["unit"] else ""
        lines.append(f"| {row['table']}: {row['subject']} | {row['measure']}{unit} | "
                     f"{number(row['libjovu'])} | {number(row['floor'])} | {number(row['ratio'])} | "
                     f"{shown(old) if old else ''} | {wanted_text(row)} |")
    machine = results["machine"]
    repeated = {(row["table"], row["subject"]): (row["repeated"], row["rounds"])
                for row in results["rows"] if "repeated" in row}
    note = (f"Measured on {machine['cores']} cores ({machine['processor']}), Linux {machine['kernel']}, "
            f"with libjovu {machine['library']} at {results['commit']}; load average "
            f"{machine['load']:.1f} at the end of it.")
    if repeated:
        rounds, disturbed = (sum(each[i] for each in repeated.values()) for i in (1, 0))
        note += f" {disturbed} rounds beside these {rounds} were disturbed, and repeated."
    lines += ["", note]
    return lines


def session_table(results, _):
    session = results.get("session", {})
    lines = ["| | " + " | ".join(session) + " |", "|---" * (len(session) + 1) + "|"]
    for measure_name in next(iter(session.values()), {}):
        lines.append(f"| {measure_name} | " +
                     " | ".join(str(column[measure_name]) for column in session.values()) + " |")
    return lines


def page(options):
    results = load(options.results)
    if not results.get("machine"):
        fail(f"{options.results} names no machine: only a run with \"usb\" or \"events\" does")
    before = load(options.before)
    text = PAGE.read_text()
    for name, table in ("rows", results_table), ("session", session_table):
        block = "\n".join([f"<!-- results: {name} -->", "", *table(results, before), "",
                           "<!-- end -->"])
        text, count = re.subn(rf"<!-- results: {name} -->.*?<!-- end -->", lambda _: block, text,
                              flags=re.S)
        if count != 1:
            fail(f"{PAGE.name} has {count} blocks \"results: {name}\"")
    if not options.check:
        PAGE.write_text(text)
    elif text != PAGE.read_text():
        fail(f"{PAGE.name} is not what bench/run.py page writes from {options.results}")


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    commands = parser.add_subparsers(dest="command", required=True)
    command = commands.add_parser("measure")
    command.add_argument("--build", type=pathlib.Path, default=TOP / "build/release")
    command.add_argument("--out", type=pathlib.Path, default=RESULTS / "now.json")
    command.add_argument("--effort", type=float, default=1)
    command.add_argument("--only", nargs="+", choices=PARTS)
    command.add_argument("--add", nargs="+", type=pathlib.Path, default=[])
    command.set_defaults(work=measure)
    command = commands.add_parser("page")
    command.add_argument("--results", type=pathlib.Path, default=RESULTS / "now.json")
    command.add_argument("--before", type=pathlib.Path, default=RESULTS / "before.json")
    command.add_argument("--check", action="store_true")
    command.set_defaults(work=page)
    options = parser.parse_args()
    options.work(options)


main()
