#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks the documentation against the sources. Needs no build.

  scripts/check-docs.py             all checks
  scripts/check-docs.py NAME...     some: messages, links, figures, code, reference

messages   Each message of the library and the program is in docs/troubleshooting.md, and each
           message there is in the sources.
links      Each relative link of a Markdown file leads to a file and a heading; backticks are paired.
figures    The tables of docs/performance.md are those of the results in bench/results.
code       The C++ blocks of README.md and docs/guide.md compile without a warning. A block is a
           file of its own; one that begins with ```cpp statements is the body of a function with a
           `JovuClient& client` and a `JovuDeviceAddress device`.
reference  Doxygen describes every public symbol without a warning.
"""

import pathlib
import re
import subprocess
import sys
import tempfile
from xml.etree import ElementTree

TOP = pathlib.Path(__file__).resolve().parent.parent
PAGE = TOP / "docs/troubleshooting.md"
MANUAL = TOP / "docs/jovu.md"

# String literals that are no messages: file, and what identifies the literals in it.
NO_MESSAGES = [
    ("src/commands/catalogue.h", r""),  # Summaries, as `jovu commands` lists them.
    ("tools/jovu/trace/trace_recorder.cpp", r"^(un)?set |^plot |^using |^ (at|center) |^' at |^\]\n"),
    ("tools/jovu/trace/trace_recorder.cpp", r"^Position \(|^Following error$"),  # Names of axes.
    ("tools/jovu/update/dfu_tool.cpp", r"^#!/bin/sh|^ \| tee|^Cannot open DFU device"),
    ("tools/jovu/update/dfu_listing.cpp", r"^Found (DFU|Runtime): \["),  # Read, not written.
    ("tools/jovu/firmware/value_conversion.h", r"^unsigned char$"),  # A type, which is not shown.
    ("tools/jovu/shell/line_editor.cpp", r"^Complete the word$"),  # Shown by an editor's key list.
    ("tools/jovu/commands/shell.cpp", r"^A line that does not|^\.help COMMAND|^(events|device|help) "
                                      r"|^Show |^Choose a device|^A line is gcode"),  # .help
    ("tools/bridge/config.cpp", r""),  # What is possible for a key, which each message names.
    ("tools/bridge/request.cpp", r""),  # To requesters: what is wrong with a value.
    ("tools/bridge/device_requests.cpp", r""),  # To requesters: how a request has ended.
    ("tools/bridge/metrics.cpp", r"\.$"),  # Descriptions of metrics.
    ("tools/bridge/journal.cpp", r"^(PRAGMA|BEGIN|INSERT|UPDATE|DELETE|SELECT|COMMIT)"),
    ("tools/bridge/main.cpp", r"^(Connects|The conf|Check the|SIGTERM and|RELOADING)"),  # Its help.
    ("tools/jovu/fleet/fleet.cpp", r"^all stored messages"),  # To itself, over the broker.
    ("tools/jovu/monitor/view.cpp", r"^(up|[praq] |Each request|A request to|Any key)"),  # Its help.
]


def unescape(literal):
    simple = {"n": "\n", "t": "\t", '"': '"', "'": "'", "\\": "\\"}
    return re.sub(r"\\(.)", lambda m: simple.get(m.group(1), m.group(0)), literal)


TOKEN = re.compile(
    r"""(?P<skip>//[^\n]*|/\*.*?\*/|\s+|\#\s*include[^\n]*)
      | R"(?P<mark>[^(\s]*)\((?P<raw>.*?)\)(?P=mark)"
      | "(?P<text>(?:[^"\\\n]|\\.)*)"
      | '(?:[^'\\\n]|\\.)+'
      | \d[\w'.]* | \w+ | .""", re.S | re.X)


def literals(path):
    """Yields (line, string) for each string literal; adjacent ones are one."""
    source = re.sub(r"static_assert\(.*?\);", lambda m: "\n" * m[0].count("\n"), path.read_text(),
                    flags=re.S)
    line, found = 0, None
    for token in TOKEN.finditer(source):
        if token["skip"] is not None:
            continue
        text = token["raw"] if token["raw"] is not None else token["text"]
        if text is None:
            if found is not None:
                yield line, found
            found = None
            continue
        if found is None:
            line, found = source.count("\n", 0, token.start()) + 1, ""
        found += text if token["raw"] is not None else unescape(text)


def pieces(text):
    """The parts of a message between its values, those of at least two words."""
    for piece in re.split(r"%[-0-9.]*[a-z]|\.\.\.", text):
        piece = " ".join(piece.split())
        if len([word for word in piece.split() if re.search("[A-Za-z]{2}", word)]) >= 2:
            yield piece


SPAN = re.compile(r"(?<!`)(`+)(?!`)(.+?)(?<!`)\1(?!`)", re.S)  # closed by as many as open it


def code_spans(markdown):
    return [" ".join(span[1].split()) for span in SPAN.findall(markdown)]


def broken_spans(markdown):
    """The rows of tables and the paragraphs in which code is not closed as it was opened."""
    for part in re.split(r"\n\n|\n(?=\|)", without_blocks(markdown)):
        if "`" in SPAN.sub("", part) or any("`" in span for span in code_spans(part)):
            yield " ".join(part.split())[:70]


def check_messages():
    spans = code_spans(without_blocks(PAGE.read_text()))
    shown = "\n".join(spans)
    help_texts = " ".join("\n".join(re.findall(r"```text\n(.*?)```", MANUAL.read_text(), re.S))
                          .split())
    used = set()
    count = 0
    known = []
    folders = ("include", "src", "tools/bridge", "tools/jovu",
               "tools/mqtt")
    files = sorted(p for folder in folders for p in (TOP / folder).rglob("*")
                   if p.suffix in (".h", ".cpp"))
    for path in files:
        name = str(path.relative_to(TOP))
        rules = [rule for rule in NO_MESSAGES if rule[0] == name]
        for line, text in literals(path):
            known.append(" ".join(text.split()))
            excluded = [rule for rule in rules if re.search(rule[1], text)]
            used.update(excluded)
            if excluded:
                continue
            for piece in pieces(text):
                count += 1
                if piece not in shown and piece not in help_texts:
                    yield f"{name}:{line}: not in docs/troubleshooting.md: {piece}"
    for rule in set(NO_MESSAGES) - used:
        yield f"scripts/check-docs.py: no literal of {rule[0]} matches {rule[1]}"

    known = "\n".join(re.sub(r"%[-0-9.]*[a-z]", "...", text) for text in known)
    rows = 0
    for row in re.findall(r"^\| (`.*?) \|", PAGE.read_text(), re.M):
        for span in code_spans(row):
            rows += 1
            for piece in pieces(span):
                if not is_known(piece.strip(" :;,.()").split(), known):
                    yield f"docs/troubleshooting.md: no message of the sources: {piece}"
    print(f"messages: {count} in {len(files)} sources, {rows} on the page")


def is_known(words, known):
    """Whether a message has these words, in one literal or in two."""
    return any(" ".join(words[:cut]).rstrip(",") in known and " ".join(words[cut:]) in known
               for cut in range(1, len(words) + 1))


def without_blocks(markdown):
    return re.sub(r"^(```+).*?^\1", "", markdown, flags=re.S | re.M)


def anchors(path):
    """The anchors that the headings of a page have where pages are usually read."""
    found = set()
    for heading in re.findall(r"^#+ +(.*?)\s*$", without_blocks(path.read_text()), re.M):
        heading = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", heading).lower()
        anchor = re.sub(r"[^\w\- ]", "", heading).replace(" ", "-")
        while anchor in found:
            anchor += "-1"
        found.add(anchor)
    return found


def check_links():
    pages = [page for page in sorted(TOP.rglob("*.md"))
             if not re.match(r"build|obj-|debian/|\.git/", str(page.relative_to(TOP)))]
    count = 0
    for page in pages:
        for part in broken_spans(page.read_text()):
            yield f"{page.relative_to(TOP)}: an unpaired backtick: {part}"
        text = SPAN.sub("", without_blocks(page.read_text()))
        for target in re.findall(r"\]\(\s*<?([^)\s>]+)", text) + re.findall(r'src="([^"]+)"', text):
            if re.match(r"[a-z]+:", target):
                continue
            count += 1
            file, _, anchor = target.partition("#")
            path = (page.parent / file).resolve() if file else page
            if not path.exists():
                yield f"{page.relative_to(TOP)}: no such file: {target}"
            elif anchor and path.suffix == ".md" and anchor not in anchors(path):
                yield f"{page.relative_to(TOP)}: no such heading: {target}"
    index = (TOP / "docs/README.md").read_text()
    for page in sorted((TOP / "docs").glob("*.md")):
        if page.name != "README.md" and f"({page.name})" not in index:
            yield f"docs/README.md: does not list {page.name}"
    print(f"links: {count} in {len(pages)} pages")


def check_figures():
    result = subprocess.run([TOP / "bench/run.py", "page", "--check"], check=False, text=True,
                            stderr=subprocess.PIPE)
    return [] if result.returncode == 0 else [result.stderr.strip()]


def check_code():
    includes, bodies = [], []
    for page in ("README.md", "docs/guide.md"):
        text = (TOP / page).read_text()
        for block in re.finditer(r"^```cpp( statements)?\n(.*?)^```", text, re.S | re.M):
            first = text.count("\n", 0, block.start()) + 2
            lines = block[2].split("\n")
            includes += [line for line in lines if line.startswith("#include")]
            body = "\n".join("" if line.startswith("#include") else line for line in lines)
            if block[1]:
                body = ("[[maybe_unused]] void run([[maybe_unused]] JovuClient& client,\n"
                        "    [[maybe_unused]] JovuDeviceAddress device) {\n"
                        f'#line {first} "{page}"\n{body}}}\n')
            bodies.append(f'namespace block_{len(bodies)} {{\n#line {first} "{page}"\n{body}\n}}\n')
    print(f"code: {len(bodies)} blocks")
    includes.append("#include <jovu/client.h>")
    source = "\n".join(dict.fromkeys(includes)) + "\n" + "".join(bodies)
    # A main() in a namespace is a function like others, which would have to return a value.
    run = subprocess.run(["g++", "-std=c++17", "-fsyntax-only", "-Wall", "-Wextra", "-Wpedantic",
                          "-Wconversion", "-Wshadow", "-Wno-return-type", "-Werror", "-Iinclude",
                          "-x", "c++", "-"],
                         cwd=TOP, input=source, capture_output=True, text=True, check=False)
    if len(bodies) == 0 or run.returncode != 0:
        yield f"code: the blocks do not compile\n{run.stderr}"


def check_reference():
    with tempfile.TemporaryDirectory() as folder:
        config = (TOP / "docs/Doxyfile").read_text() + (
            f"\nOUTPUT_DIRECTORY = {folder}\nGENERATE_XML = YES\n")
        run = subprocess.run(["doxygen", "-"], cwd=TOP, input=config, capture_output=True,
                             text=True, check=False)
        if run.returncode != 0 or run.stderr.strip():
            yield f"reference: doxygen's warnings\n{run.stderr}"
        # Doxygen does not report values of enumerations, some constructors and whole files.
        symbols = 0
        for page in sorted(pathlib.Path(folder).rglob("xml/*.xml")):
            compound = ElementTree.parse(page).getroot().find("compounddef")
            if compound is None or compound.get("prot") == "private":
                continue
            for node in compound.iter():
                name = node.findtext("qualifiedname") or node.findtext("name") or compound[0].text
                is_header = node is compound and name.endswith(".h")
                if not is_header and (node.tag not in ("memberdef", "enumvalue") or
                                      node.get("prot") == "private" or
                                      node.get("kind") == "friend" or
                                      (node.findtext("argsstring") or "").endswith("=delete")):
                    continue
                symbols += 1
                texts = [node.find("briefdescription"), node.find("detaileddescription")]
                if not "".join("".join(text.itertext()) for text in texts).strip():
                    yield f"reference: not documented: {name}"
        print(f"reference: {symbols} symbols")
        if symbols == 0:
            yield "reference: doxygen has found no symbol"


def main():
    checks = {"messages": check_messages, "links": check_links, "figures": check_figures,
              "code": check_code, "reference": check_reference}
    chosen = sys.argv[1:] or list(checks)
    if any(name not in checks for name in chosen):
        print(__doc__)
        return 0 if chosen[0] in ("-h", "--help") else 2
    faults = [fault for name in chosen for fault in checks[name]()]
    for fault in faults:
        print(f"check-docs: {fault}", file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
