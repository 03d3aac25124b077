#!/usr/bin/env python3
"""Structure checks run by the test suite: the daemon's folders include only folders below them
(and lib/ and platform/ nothing of the daemon), and no function of the code is longer than 80
lines. Prints what breaks a rule and exits 1; 0 when all hold."""

import os
import re
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
# The daemon's folders, lowest first; a folder may include its own files and those of lower ones.
LAYERS = [["base"], ["net"], ["data"], ["session"], ["login", "files"], ["transfer"], ["control"], ["admin"]]
RANK = {folder: rank for rank, names in enumerate(LAYERS) for folder in names}
MAX_LINES = int(os.environ.get("FTPS_MAX_FUNCTION_LINES", "80"))
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"')


def sources(top):
    for base, _, files in os.walk(os.path.join(ROOT, top)):
        for name in files:
            if name.endswith((".cpp", ".h")):
                yield os.path.join(base, name)


def layer_errors():
    errors = []
    for path in sources("ftp_server"):
        rel = os.path.relpath(path, os.path.join(ROOT, "ftp_server"))
        folder = rel.split(os.sep)[0] if os.sep in rel else None
        rank = RANK.get(folder, len(LAYERS)) if folder else len(LAYERS)
        for n, line in enumerate(open(path, encoding="utf-8"), 1):
            m = INCLUDE.match(line)
            if not m or "/" not in m.group(1):
                continue
            target = m.group(1).split("/")[0]
            if target in RANK and RANK[target] > rank and not rel.endswith("_test.cpp"):
                errors.append("%s:%d includes %s, a folder above %s" % (rel, n, m.group(1), folder or "the top"))
    for top in ("lib", "platform"):
        for path in sources(top):
            if path.endswith("_test.cpp"):
                continue
            for n, line in enumerate(open(path, encoding="utf-8"), 1):
                m = INCLUDE.match(line)
                if m and m.group(1).split("/")[0] in RANK:
                    errors.append("%s:%d includes the daemon's %s" % (os.path.relpath(path, ROOT), n, m.group(1)))
    return errors


def function_lengths(path):
    """(name, first line, length) of every function body at namespace or class level."""
    text = open(path, encoding="utf-8").read()
    # Comments and literals never hold braces that count.
    text = re.sub(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\'',
                  lambda m: re.sub(r"[^\n]", " ", m.group(0)), text, flags=re.S)
    depth, start, head = 0, None, ""
    kinds = []  # per open brace: whether it opens a function body
    for i, ch in enumerate(text):
        if ch == "{":
            before = text[max(0, i - 300):i]
            stmt = re.split(r"[;{}]", before)[-1]
            is_function = start is None and ")" in stmt and not re.search(
                r"\b(namespace|class|struct|enum|union)\b|=\s*$|^\s*$", stmt.strip() + " ") and not re.search(
                r"\b(if|for|while|switch|catch)\s*\(", stmt)
            if is_function:
                start, head = i, stmt.strip().split("(")[0].split()[-1] if "(" in stmt else "?"
            kinds.append(is_function)
            depth += 1
        elif ch == "}" and kinds:
            depth -= 1
            if kinds.pop() and start is not None:
                first = text.count("\n", 0, start) + 1
                last = text.count("\n", 0, i) + 1
                yield head, first, last - first - 1
                start = None


def length_errors():
    errors = []
    for top in ("ftp_server", "lib", "platform", "tools"):
        for path in sources(top):
            for name, line, length in function_lengths(path):
                if length > MAX_LINES:
                    errors.append("%s:%d %s is %d lines long (at most %d)" %
                                  (os.path.relpath(path, ROOT), line, name, length, MAX_LINES))
    return errors


def main():
    errors = layer_errors() + length_errors()
    for e in errors:
        print(e)
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
