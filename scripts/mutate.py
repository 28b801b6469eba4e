#!/usr/bin/env python3
"""Breaks the library on purpose, one small change at a time, and looks whether the tests notice.

    scripts/mutate.py [--count N] [--seed S] [--jobs J] [--only ID] [--list]

Works on a copy of the committed tree in build/mutation. A mutant counts as caught when a test or a
sanitizer fails, or when a test does not end; one that does not compile does not count at all.
Dropped locks and changes to what locks are made of are built and run under ThreadSanitizer,
everything else under AddressSanitizer with UBSan. Prints a line for each mutant and the share that was caught; exit status 0 when at least 90 %
were.
"""
import argparse
import collections
import pathlib
import random
import re
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
WORK = ROOT / "build" / "mutation"
TREE = WORK / "tree"
LEAST_CAUGHT = 0.9
BUILD_LIMIT = 900  # seconds
TEST_LIMIT = 400

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
        code = line.split("//")[0]
        if re.match(r"\s*(#|\*|static_assert|template|class|struct)", code) or '"' in code:
            continue
        for kind, pattern, new in OPERATORS:
            for match in pattern.finditer(code):
                at = match.span("at")
                text = new(match.group("at")) if callable(new) else new
                changed = line[: at[0]] + text + line[at[1]:]
                name = f"{path.relative_to(ROOT / 'src')}:{number}:{at[0]}"
                found.append(Mutant(name, kind, path, number, line, changed))
    return found


def choose(count, seed):
    """As many of every kind as there are, by turns, so that rare kinds are not left out."""
    by_kind = collections.defaultdict(list)
    for path in sorted((ROOT / "src").rglob("*")):
        if path.suffix in (".cpp", ".h"):
            for mutant in mutants_of(path):
                by_kind[mutant.kind].append(mutant)
    shuffle = random.Random(seed)
    for kind in sorted(by_kind):
        shuffle.shuffle(by_kind[kind])
    chosen = []
    while len(chosen) < count and any(by_kind.values()):
        for kind in sorted(by_kind):
            if by_kind[kind]:
                chosen.append(by_kind[kind].pop())
    return chosen[:count]


def run(command, limit, log):
    """The command's status, or None when it did not end in time."""
    with open(log, "wb") as out:
        process = subprocess.Popen(command, cwd=TREE, stdout=out, stderr=out,
                                   start_new_session=True)
        try:
            return process.wait(limit)
        except subprocess.TimeoutExpired:
            # The tests too: what goes on running would hold up the mutants that follow.
            subprocess.run(["pkill", "-KILL", "--session", str(process.pid)], check=False)
            process.wait()
            return None


def build(preset, jobs):
    targets = ["unit_tests", "fake_usb_tests", "integration_tests", "jovu-sim", "leaving"]
    return run(["cmake", "--build", f"build/{preset}", "--parallel", str(jobs), "--target"] + targets,
               BUILD_LIMIT, WORK / "build.log")


def test(preset, labels):
    command = ["ctest", "--preset", preset, "--label-regex", labels, "--parallel", "8",
               "--timeout", "120", "--stop-on-failure"]
    if preset == "tsan":
        command = ["setarch", "-R"] + command
    return run(command, TEST_LIMIT, WORK / "test.log")


def failure(preset):
    """What the tests have against the tree, or nothing. The quick ones run first."""
    for labels in ("^(unit|fake_usb)$", "^integration$"):
        status = test(preset, labels)
        if status is None:
            return "hangs"
        if status != 0:
            failed = re.search(r"\d+ - (\S+)", (WORK / "test.log").read_text(errors="replace"))
            return failed.group(1) if failed else f"status {status}"
    return None


def verdict(mutant, jobs):
    locks = mutant.kind == "lock" or mutant.file.parent.name == "base"
    preset = "tsan" if locks else "asan"
    path = TREE / mutant.file.relative_to(ROOT)
    text = path.read_text()
    lines = text.split("\n")
    assert lines[mutant.line - 1] == mutant.old, "the tree differs from what is committed"
    lines[mutant.line - 1] = mutant.new
    path.write_text("\n".join(lines))
    try:
        if build(preset, jobs) != 0:
            return "does not compile"
        found = failure(preset)
        return f"caught ({found})" if found else "SURVIVED"
    finally:
        path.write_text(text)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--count", type=int, default=80)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--jobs", type=int, default=2, help="compilers at once")
    parser.add_argument("--only", help="the one mutant with this id")
    parser.add_argument("--list", action="store_true", help="print the mutants and stop")
    options = parser.parse_args()

    chosen = choose(10**9 if options.only else options.count, options.seed)
    if options.only:
        chosen = [mutant for mutant in chosen if mutant.id == options.only]
    if options.list:
        for mutant in chosen:
            print(f"{mutant.id} {mutant.kind}: {mutant.new.strip()}")
        return 0

    if not TREE.exists():
        WORK.mkdir(parents=True, exist_ok=True)
        subprocess.run(["git", "clone", "--quiet", str(ROOT), str(TREE)], check=True)
    subprocess.run(["git", "fetch", "--quiet"], cwd=TREE, check=True)
    subprocess.run(["git", "reset", "--quiet", "--hard", "origin/HEAD"], cwd=TREE, check=True)
    for preset in ("asan", "tsan"):
        if run(["cmake", "--preset", preset], BUILD_LIMIT, WORK / "build.log") != 0 or \
                build(preset, options.jobs) != 0:
            sys.exit(f"the tree as it is does not build: see {WORK / 'build.log'}")
        found = failure(preset)
        if found:
            sys.exit(f"the tree as it is fails already ({preset}: {found}): see"
                     f" {WORK / 'test.log'}")

    counts = collections.Counter()
    for mutant in chosen:
        start = time.monotonic()
        outcome = verdict(mutant, options.jobs)
        counts[outcome.split(" ")[0]] += 1
        print(f"{mutant.id:44} {mutant.kind:11} {time.monotonic() - start:4.0f} s  {outcome}")
        if outcome == "SURVIVED":
            print(f"    - {mutant.old.strip()}\n    + {mutant.new.strip()}")
        sys.stdout.flush()
    ran = counts["caught"] + counts["SURVIVED"]
    share = counts["caught"] / ran if ran else 0.0
    print(f"{ran} mutants ran, {counts['caught']} caught: {share:.0%}"
          f" ({counts['does']} more did not compile)")
    return 0 if share >= LEAST_CAUGHT else 1


if __name__ == "__main__":
    sys.exit(main())
