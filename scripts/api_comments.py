#!/usr/bin/env python3
"""Writes a header as Doxygen understands it; scripts/api-docs names this as Doxygen's filter.

The plain comment at the top of a header becomes the description of the file and, if the header has a class of its name,
of that class too. No line moves. Comments are plain sentences: whatever would be a command or a tag is escaped, except
in lines of code, which are indented by four blanks.
"""

import re
import sys
from pathlib import Path


def escaped(text):
    if text.startswith("     "):
        return text
    parts = text.split('"')  # between quotation marks Doxygen takes everything literally
    parts[::2] = [re.sub(r"([\\@<>&#%*])", r"\\\1", part) for part in parts[::2]]
    return '"'.join(parts)


def with_comments_escaped(line):
    start = re.match(r"(.*?)(///<?)(.*)", line)
    return start[1] + start[2] + escaped(start[3]) if start else line


def class_named(name, lines):
    """The kind and the full name of the class that a header is named after, if there is one."""
    namespace = ""
    for line in lines:
        if found := re.match(r"namespace (\w+)$", line):
            namespace = found[1] + "::"
        elif line.startswith("} // namespace"):
            namespace = ""
        elif found := re.match(rf"(?:template <.*> )?(class|struct) (?:\w+\(.*?\) )?{name}\b(?!;)", line):
            return f"{found[1]} {namespace}{name}"
    return None


def main():
    path = Path(sys.argv[1])
    lines = path.read_text().splitlines()
    top = lines.index("") if "" in lines else 0
    end = top + 1
    while end < len(lines) and lines[end].startswith("//"):
        lines[end] = "///" + lines[end][2:]
        end += 1
    lines = [with_comments_escaped(line) for line in lines]
    if end > top + 1:
        lines[top] = "/// @file"
        if subject := class_named(path.stem, lines):
            lines += ["", f"/// @{subject}", *lines[top + 1:end]]
    print("\n".join(lines))


if __name__ == "__main__":
    main()
