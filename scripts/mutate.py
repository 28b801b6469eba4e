#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Breaks the code on purpose, one small change at a time, and looks whether the tests notice.

    scripts/mutate.py [--count N] [--seed S] [--preset P] [--only ID] [--list] [PATH...]

PATH is a folder, a file or the beginning of a file's path below the top folder; src, tools and sim
if there is none. Each PATH gets an equal share of the mutants.

Everything happens in a copy of the committed tree, build/mutation/tree. Each mutant changes one
line. What it affects is built and the tests that are likely to notice run first; a mutant that
survives them meets slower ones. It is caught when a test fails or does not end. A failure of a test
on the simulated bus counts only if that test fails again alone, so that a busy machine catches
nothing. A mutant that does not compile does not count.

Dropped locks are among the mutants with --preset tsan only: without ThreadSanitizer few of them
show.

Prints a line for each mutant, a table by folder and the survivors. Exit status 0 when at least 90 %
were caught, 1 when fewer were, 2 when a signal ended it.
"""
import argparse
import collections
import ctypes
import os
import pathlib
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
WORK = ROOT / "build" / "mutation"
TREE = WORK / "tree"
LEAST_CAUGHT = 0.9
BUILD_LIMIT = 900  # seconds
PROGRAM_LIMIT = 60  # for all tests of a program that needs no bus: a few seconds
CTEST_LIMIT = 300
TEST_LIMIT = 60  # for one of these; those of the suite are for a busy machine

# What is built and how its tests run: as one program, or by ctest with these arguments.
Stage = collections.namedtuple("Stage", "targets program ctest on_bus")
FAKE_USB = Stage(["fake_usb_tests"], None, ["--label-regex", "^fake_usb$"], False)
INTEGRATION = Stage(["integration_tests", "leaving", "jovu-sim"], None,
                    ["--label-regex", "^integration$"], True)
CLI = Stage(["cli_parts_tests", "cli_tests", "jovu-cli", "jovu-sim", "announce"], None,
            ["--label-regex", "^cli$"], True)
STAGES = {
    "src": [Stage(["unit_tests"], "unit_tests", None, False), FAKE_USB, INTEGRATION, CLI],
    "tools": [Stage(["cli_parts_tests"], "cli_parts_tests", None, False), CLI],
    "sim": [Stage(["sim_tests"], "sim_tests", None, False),
            Stage(["jovu-sim"], None, ["--tests-regex", "^SimTool$"], True), INTEGRATION, CLI],
}

# Kind, what is looked for, what takes its place. A group named "at" is replaced, else all of it.
OPERATORS = [
    ("flip", re.compile(r" (?P<at>==) "), "!="),
    ("flip", re.compile(r" (?P<at>!=) "), "=="),
    ("edge", re.compile(r"\w\)? (?P<at><) [\w(-]"), "<="),
    ("edge", re.compile(r"\w\)? (?P<at>>) [\w(-]"), ">="),
    ("edge", re.compile(r" (?P<at><=) "), "<"),
    ("edge", re.compile(r" (?P<at>>=) "), ">"),
    ("logic", re.compile(r" (?P<at>&&) "), "||"),
    ("logic", re.compile(r" (?P<at>\|\|) "), "&&"),
    ("negate", re.compile(r"(?:if|while) \((?P<at>!)\w"), ""),
    ("answer", re.compile(r"return (?P<at>true);"), "false"),
    ("answer", re.compile(r"return (?P<at>false);"), "true"),
    ("off by one", re.compile(r"(?P<at> \+ 1)\b"), ""),
    ("off by one", re.compile(r"(?P<at> - 1)\b"), ""),
    ("off by one", re.compile(r"^inline constexpr (?:int|unsigned|std::size_t) \w+ = (?P<at>\d+);"),
     lambda text: str(int(text) + 1)),
    ("bytes", re.compile(r"(?P<at>>> 8U)"), "& 0xFFU"),
    ("bytes", re.compile(r"(?P<at>& 0xFFU)"), ">> 8U"),
    ("bytes", re.compile(r"(?P<at>(?<!un)signed char>)\("), "unsigned char>"),
    ("statement", re.compile(r"^ +(?P<at>[\w.>\-]+\([\w&*., \->]*\);)$"), ";"),
    ("lock", re.compile(r"^ +(?P<at>const MutexLock (?:lock|guard)\([\w.>\-]+\);)$"), ""),
]

Mutant = collections.namedtuple("Mutant", "id kind file line old new")


def mutants_of(path):
    """Every mutant of a file, in the order of its lines."""
    found = []
    for number, line in enumerate(path.read_text().split("\n"), 1):
        # The same line with nothing in its strings.
        code = re.sub(r'"(?:\\.|[^"\\])*"', lambda text: '"' + "_" * (len(text[0]) - 2) + '"', line)
        code = code.split("//")[0]
        if re.match(r"\s*(#|\*|static_assert|template|class|struct)", code) or 'R"' in code:
            continue
        for kind, pattern, new in OPERATORS:
            for match in pattern.finditer(code):
                at = match.span("at")
                text = new(match.group("at")) if callable(new) else new
                changed = line[: at[0]] + text + line[at[1]:]
                name = f"{path.relative_to(ROOT)}:{number}:{at[0]}"
                found.append(Mutant(name, kind, path, number, line, changed))
    return found


def mutants_below(prefix, locks):
    """The mutants of the sources whose paths begin like that, by kind."""
    folder = prefix.split("/")[0]
    if folder not in STAGES:
        sys.exit(f"no tests are known for {prefix}: it is not in {', '.join(STAGES)}")
    by_kind = collections.defaultdict(list)
    for path in sorted((ROOT / folder).rglob("*")):
        name = str(path.relative_to(ROOT))
        if path.suffix in (".cpp", ".h") and name.startswith(prefix):
            for mutant in mutants_of(path):
                if locks or mutant.kind != "lock":
                    by_kind[mutant.kind].append(mutant)
    if not by_kind:
        sys.exit(f"there is nothing to mutate in {prefix}")
    return by_kind


def choose(prefixes, count, seed, locks):
    """Mutants of every path and of every kind by turns, so that rare kinds are not left out."""
    shuffle = random.Random(seed)
    queues = []
    for prefix in prefixes:
        by_kind = mutants_below(prefix, locks)
        queue = []
        for kind in sorted(by_kind):
            shuffle.shuffle(by_kind[kind])
        while any(by_kind.values()):
            queue += [by_kind[kind].pop() for kind in sorted(by_kind) if by_kind[kind]]
        queues.append(queue[::-1])
    chosen = {}
    while len(chosen) < count and any(queues):
        for queue in queues:
            if queue and len(chosen) < count:
                mutant = queue.pop()
                chosen[mutant.id] = mutant
    # By file: restoring one mutant and making the next one is then one compilation.
    return sorted(chosen.values(), key=lambda mutant: (mutant.file, mutant.line, mutant.id))


def end_descendants():
    """Kills what a command has left running, also in sessions of its own."""
    while True:
        parents = {}
        for stat in pathlib.Path("/proc").glob("[0-9]*/stat"):
            try:
                fields = stat.read_text().rpartition(")")[2].split()
            except OSError:
                continue  # it has ended
            parents[int(stat.parent.name)] = int(fields[1])
        mine = [os.getpid()]
        for pid in mine:
            mine += [child for child, parent in parents.items() if parent == pid]
        if len(mine) == 1:
            return
        for pid in mine[1:]:
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        try:
            while os.waitpid(-1, os.WNOHANG)[0] != 0:
                pass
        except ChildProcessError:
            pass
        time.sleep(0.01)


def run(command, limit, log, until=None):
    """The command's status, or None when it did not end in time. Ends it once its output matches
    until, and then returns the match."""
    with open(WORK / log, "w+b") as out:
        process = subprocess.Popen(command, cwd=TREE, stdin=subprocess.DEVNULL, stdout=out,
                                   stderr=out, start_new_session=True)
        try:
            deadline = time.monotonic() + limit
            status = None
            while status is None and time.monotonic() < deadline:
                try:
                    status = process.wait(0.1 if until else limit)
                except subprocess.TimeoutExpired:
                    pass
                match = until and until.search(os.pread(out.fileno(), 1 << 24, 0))
                if match:
                    return match
            return status
        finally:
            process.kill()
            process.wait()
            end_descendants()


def build(preset, stage):
    command = ["cmake", "--build", f"build/{preset}", "--target"] + stage.targets
    return run(command, BUILD_LIMIT, "build.log") == 0


def run_tests(preset, stage, arguments):
    """Returns 0, None when they hang, a status, or a match with the name of a failed test."""
    bare = ["setarch", "-R"] if preset == "tsan" else []
    if stage.program:
        command = bare + [f"build/{preset}/bin/{stage.program}", "--gtest_fail_fast"]
        failed = re.compile(rb"\[  FAILED  \] ([\w./]+)")
    else:
        command = bare + ["ctest", "--preset", preset, "--parallel", "8"] + arguments
        failed = re.compile(rb"Test +#\d+: (\S+) .*\*\*\*")
    limit = PROGRAM_LIMIT if stage.program else CTEST_LIMIT
    status = run(command, limit, "test.log", failed)
    if stage.program and isinstance(status, int) and status != 0:  # a crash
        begun = re.findall(rb"\[ RUN      \] .*", (WORK / "test.log").read_bytes())
        return re.search(rb"([\w./]+)$", begun[-1]) if begun else status
    return status


def failure(preset, stage):
    """What the tests of a stage have against the tree, or None."""
    for _ in range(2):
        found = run_tests(preset, stage, stage.ctest)
        if found == 0:
            return None
        if found is None:
            return "hangs"
        if isinstance(found, int):
            return f"status {found}"
        name = found[1].decode()
        if not stage.on_bus:
            return name
        if run_tests(preset, stage, ["--tests-regex", f"^{re.escape(name)}$"]) != 0:
            return name
    return None


def outcome_of(mutant, preset):
    path = TREE / mutant.file.relative_to(ROOT)
    text = path.read_text()
    lines = text.split("\n")
    assert lines[mutant.line - 1] == mutant.old, "the tree differs from what is committed"
    lines[mutant.line - 1] = mutant.new
    path.write_text("\n".join(lines))
    try:
        for stage in STAGES[mutant.id.split("/")[0]]:
            if not build(preset, stage):
                return "does not compile"
            found = failure(preset, stage)
            if found:
                return f"caught ({found})"
        return "SURVIVED"
    finally:
        path.write_text(text)


def prepare(preset, folders):
    """Makes the copy, builds it and sees that its tests pass."""
    if not TREE.exists():
        WORK.mkdir(parents=True, exist_ok=True)
        subprocess.run(["git", "clone", "--quiet", str(ROOT), str(TREE)], check=True)
    subprocess.run(["git", "fetch", "--quiet", "origin", "HEAD"], cwd=TREE, check=True)
    subprocess.run(["git", "reset", "--quiet", "--hard", "FETCH_HEAD"], cwd=TREE, check=True)
    if subprocess.run(["git", "diff", "--quiet", "HEAD", "--"] + folders, cwd=ROOT).returncode != 0:
        sys.exit(f"commit the changes in {', '.join(folders)} first: the copy has what is committed")
    for path in (TREE / "tests").rglob("CMakeLists.txt"):
        path.write_text(re.sub(r"\bTIMEOUT \d+", f"TIMEOUT {TEST_LIMIT}", path.read_text()))
    # A standard library that checks indices stands in for the sanitizers that the suite has.
    options = ["-DJOVU_WERROR=OFF", "-DCMAKE_UNITY_BUILD=OFF", "-DJOVU_PRECOMPILE=OFF",
               "-DCMAKE_CXX_FLAGS=-D_GLIBCXX_ASSERTIONS"]
    if preset == "dev":
        options.append("-DCMAKE_CXX_FLAGS_DEBUG=-O0")
    if shutil.which("ccache"):
        options.append("-DCMAKE_CXX_COMPILER_LAUNCHER=ccache")
    if run(["cmake", "--preset", preset] + options, BUILD_LIMIT, "build.log") != 0:
        sys.exit(f"the tree cannot be configured: see {WORK / 'build.log'}")
    stages = []
    for folder in folders:
        stages += [stage for stage in STAGES[folder] if stage not in stages]
    for stage in stages:
        if not build(preset, stage):
            sys.exit(f"the tree as it is does not build: see {WORK / 'build.log'}")
    for stage in stages:
        found = failure(preset, stage)
        if found:
            sys.exit(f"the tree as it is fails already ({found}): see {WORK / 'test.log'}")


def report(outcomes, seconds):
    """Prints the table and the survivors. Returns the share that was caught."""
    rows = collections.defaultdict(collections.Counter)
    for mutant, outcome in outcomes:
        for row in (str(mutant.file.parent.relative_to(ROOT)), "total"):
            rows[row][outcome.split(" ")[0]] += 1
    width = max(map(len, rows), default=0)
    print(f"\n{'folder':{width}}   ran  caught  survived  did not compile")
    for row in sorted(rows, key=lambda name: (name == "total", name)):
        counts = rows[row]
        ran = counts["caught"] + counts["SURVIVED"]
        print(f"{row:{width}}  {ran:4}  {counts['caught']:6}  {counts['SURVIVED']:8}"
              f"  {counts['does']:15}")
    for mutant, outcome in outcomes:
        if outcome == "SURVIVED":
            print(f"\nsurvived: {mutant.id} ({mutant.kind})\n"
                  f"    - {mutant.old.strip()}\n    + {mutant.new.strip()}")
    ran = rows["total"]["caught"] + rows["total"]["SURVIVED"]
    share = rows["total"]["caught"] / ran if ran else 0.0
    print(f"\n{rows['total']['caught']} of {ran} caught: {share:.0%}, in {seconds / 60:.0f} minutes")
    return share


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--count", type=int, default=120)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--preset", default="dev", help="the build; dev if left out")
    parser.add_argument("--only", metavar="ID", help="the one mutant with this id")
    parser.add_argument("--list", action="store_true", help="print the mutants and stop")
    parser.add_argument("paths", metavar="PATH", nargs="*")
    options = parser.parse_args()

    paths = options.paths or ([options.only.split(":")[0]] if options.only else list(STAGES))
    chosen = choose(paths, 10**9 if options.only else options.count, options.seed,
                    options.preset == "tsan")
    if options.only:
        chosen = [mutant for mutant in chosen if mutant.id == options.only]
    if options.list:
        for mutant in chosen:
            print(f"{mutant.id} {mutant.kind}: {mutant.new.strip()}")
        return 0

    def stop(number, _):
        raise KeyboardInterrupt(signal.strsignal(number))

    signal.signal(signal.SIGTERM, stop)
    # What a command's children leave behind becomes this process's child and can be found.
    PR_SET_CHILD_SUBREAPER = 36
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    start = time.monotonic()
    outcomes = []
    with tempfile.TemporaryDirectory(prefix="jm", dir="/tmp") as temporary:
        os.environ["TMPDIR"] = temporary
        os.environ["TSAN_OPTIONS"] = f"suppressions={TREE}/tests/tsan.supp"
        try:
            prepare(options.preset, sorted({mutant.id.split("/")[0] for mutant in chosen}))
            print(f"the copy was built and passed in {time.monotonic() - start:.0f} s", flush=True)
            start = time.monotonic()
            for mutant in chosen:
                begin = time.monotonic()
                outcome = outcome_of(mutant, options.preset)
                outcomes.append((mutant, outcome))
                print(f"{mutant.id:44} {mutant.kind:11} {time.monotonic() - begin:4.0f} s  {outcome}",
                      flush=True)
        except KeyboardInterrupt as error:
            report(outcomes, time.monotonic() - start)
            print(f"ended by {error}")
            return 2
    return 0 if report(outcomes, time.monotonic() - start) >= LEAST_CAUGHT else 1


if __name__ == "__main__":
    sys.exit(main())
