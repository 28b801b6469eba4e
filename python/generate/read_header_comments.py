# SPDX-License-Identifier: Apache-2.0
"""Reads the comments of public headers, for the docstrings of the Python package.

    read_header_comments.py OUTPUT HEADER...

Writes JSON: {"methods": {NAME: {"text", "params": {NAME: text}, "returns"}},
"types": {NAME: text}, "members": {STRUCTURE: {NAME: text}}}.
"""

import json
import re
import sys

METHOD = re.compile(r"((?:[ \t]*///[^\n]*\n)+)[ \t]*[\w:<>]+ (\w+)\(")
TYPE = re.compile(r"((?:[ \t]*///[^\n]*\n)+)[ \t]*(?:struct|enum|enum class) (\w+)? ?[:{]")
GROUP = re.compile(r"(?:///[^\n]*\n[ \t]*)*/// @\{|/// @\}")
MEMBER = re.compile(r"(\w+)(?:\[\d+\])?(?: = 0)?[;,]\s*///<\s([^\n]*(?:\n\s*///<\s[^\n]*)*)")


def plain(comment: str) -> str:
    """The text of a comment without its marks and Doxygen's commands."""
    text = re.sub(r"^\s*///<?[ ]?", "", comment, flags=re.MULTILINE)
    text = re.sub(r"@p |`", "", text)
    text = re.sub(r"Jovu\w+::(\w+)\(", r"\1(", text)
    # Pointers are not what Python passes.
    text = re.sub(r"(, )?a non-null NUL-terminated string|non-null; ", "", text)
    text = re.sub(r"its first element is sent(, whatever \w+ says)?", "", text)
    text = re.sub(r"^\s*\.\s*", "", text)
    return " ".join(text.split())


def method_comment(comment: str) -> dict[str, object]:
    text, *commands = re.split(r"@(?=param|return|throws)", comment)
    found: dict[str, object] = {"text": plain(text), "params": {}, "returns": ""}
    for command in commands:
        kind, _, rest = command.partition(" ")
        if kind == "param":
            name, _, words = plain(rest).partition(" ")
            found["params"][name] = words  # type: ignore[index]
        elif kind == "return":
            found["returns"] = plain(rest)
    return found


def read(header: str, found: dict[str, dict[str, object]]) -> None:
    # The comment of a group is not that of the declaration that follows it.
    text = GROUP.sub("", header)
    for comment, name in METHOD.findall(text):
        found["methods"].setdefault(name, method_comment(comment))
    declarations = list(TYPE.finditer(text))
    for index, match in enumerate(declarations):
        name = match[2] or "Printer"  # The one structure without a name.
        found["types"][name] = plain(match[1])
        end = declarations[index + 1].start() if index + 1 < len(declarations) else len(text)
        members = {member: plain(words) for member, words in MEMBER.findall(text[match.end():end])}
        if name == "Printer":
            # Stands among the members of the report.
            found["members"]["StatusMsg"] = members
        if members:
            found["members"][name] = members


def main() -> None:
    output, *headers = sys.argv[1:]
    found: dict[str, dict[str, object]] = {"methods": {}, "types": {}, "members": {}}
    for header in headers:
        with open(header, encoding="utf-8") as file:
            read(file.read(), found)
    with open(output, "w", encoding="utf-8") as file:
        json.dump(found, file, indent=1, sort_keys=True)


if __name__ == "__main__":
    main()
