#!/usr/bin/env python3
"""Unit sizes of the sources: lists every file in core/, agent/ and host/ over 600 non-blank lines
and every function there over 80 non-blank lines (spans as universal-ctags reports them), and
prints the tests' size against the code's (non-blank lines that are not only a comment; fuzz/ and
bench/ count in neither). Exits 1 when a file or function is too long; the ratio is only printed.

Usage: scripts/unit-sizes.py [repository root]"""
import json
import os
import subprocess
import sys

CODE = ("core/", "agent/", "host/")
SOURCES = (".cpp", ".h")
MAX_FILE, MAX_FUNCTION = 600, 80


def counted(lines):
    """Lines that are neither blank nor only a comment (// lines and /* */ blocks)."""
    kept, in_block = 0, False
    for line in lines:
        text = line.strip()
        if in_block:
            in_block = "*/" not in text
            continue
        if not text or text.startswith("//"):
            continue
        if text.startswith("/*"):
            in_block = "*/" not in text
            continue
        kept += 1
    return kept


def sources(root, top):
    for folder, subfolders, names in os.walk(os.path.join(root, top)):
        subfolders[:] = sorted(d for d in subfolders if not d.startswith((".", "build")))
        for name in sorted(names):
            if name.endswith(SOURCES):
                path = os.path.join(folder, name)
                yield os.path.relpath(path, root), path


def long_functions(root, files):
    """(path, scope, name, lines) of every function over MAX_FUNCTION non-blank lines."""
    out = subprocess.run(["ctags", "--output-format=json", "--fields=+ne", "--kinds-C++=f", "-f", "-",
                          *sorted(files)], cwd=root, capture_output=True, text=True, check=True).stdout
    found = []
    for line in out.splitlines():
        tag = json.loads(line)
        if tag.get("scopeKind") == "function" or "end" not in tag:
            continue  # a lambda counts inside the function that holds it
        body = files[tag["path"]][tag["line"] - 1:tag["end"]]
        size = sum(1 for l in body if l.strip())
        if size > MAX_FUNCTION:
            found.append((tag["path"], tag.get("scope", ""), tag["name"], size))
    return sorted(found, key=lambda f: -f[3])


def main():
    root = sys.argv[1] if len(sys.argv) > 1 else os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    files, code = {}, 0
    for top in CODE:
        for rel, path in sources(root, top):
            with open(path, errors="replace") as f:
                files[rel] = f.read().splitlines()
            code += counted(files[rel])
    tests = 0
    for rel, path in sources(root, "tests/"):
        with open(path, errors="replace") as f:
            tests += counted(f.read().splitlines())
    offenders = 0
    for rel in sorted(files):
        size = sum(1 for l in files[rel] if l.strip())
        if size > MAX_FILE:
            print(f"file over {MAX_FILE} lines: {rel} ({size})")
            offenders += 1
    for path, scope, name, size in long_functions(root, files):
        print(f"function over {MAX_FUNCTION} lines: {path} {scope}::{name} ({size})")
        offenders += 1
    print(f"tests {tests / max(1, code):.2f}x code ({tests} test lines, {code} code lines)")
    return 1 if offenders else 0


if __name__ == "__main__":
    sys.exit(main())
