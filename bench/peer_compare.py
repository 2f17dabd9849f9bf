#!/usr/bin/env python3
"""Compares what `KestrelAgent scan` offers on a Linux-shaped home with what Debian's bleachbit
would delete there (`bleachbit --preview` with the cache, log and Trash cleaners), both run with
HOME pointing at the same home.

Every file bleachbit would delete that is older than one day is checked against the items of our
scan: inside one of them ("both"), or not ("only bleachbit", grouped by the reason we leave it).
Bytes our items hold outside bleachbit's list are "only ours". Prints a Markdown table.

Usage: bench/peer_compare.py HOME [AGENT]   (AGENT defaults to build/KestrelAgent)
Needs: apt-get install bleachbit.
"""
import json
import os
import re
import subprocess
import sys
import time

CLEANERS = ["system.cache", "thumbnails.cache", "chromium.cache", "google_chrome.cache", "brave.cache",
            "firefox.cache", "discord.cache", "slack.cache", "zoom.cache", "thunderbird.cache", "java.cache",
            "x11.debug_logs", "system.trash"]

PACKAGE_CACHES = {"yarn", "pnpm", "pip", "pypoetry", "uv", "Homebrew", "org.swift.swiftpm", "go-build",
                  "ms-playwright", "huggingface", "JetBrains", "composer", "bazel", "node-gyp"}
CACHE_NAMES = {"Cache", "Code Cache", "GPUCache", "CacheStorage", "ShaderCache", "GrShaderCache", "DawnCache"}
SESSION_LOG = re.compile(r"^\.xsession-errors$|^\.local/share/xorg/Xorg\.\d+\.log$")


def tree_bytes(path):
    total = 0
    for root, dirs, files in os.walk(path):
        for name in dirs + files:
            try:
                total += os.lstat(os.path.join(root, name)).st_blocks * 512
            except OSError:
                pass
    return total


def why_left(home, rel):
    """Why a file bleachbit deletes is in none of our items."""
    if SESSION_LOG.search(rel):
        return "the running session's own log (its .old rotation is offered)"
    parts = rel.split("/")
    for n in range(1, len(parts)):
        link = os.path.join(home, *parts[:n])
        if os.path.islink(link):
            return (f"reached through a link (`{os.path.relpath(link, home)}` → `{os.readlink(link)}`): "
                    "we remove a link, never what it leads to")
    if rel.startswith(".local/share/Trash/info/"):
        return "the Trash's record of an item (removed together with the item we offer)"
    if parts[0] == ".config" or (parts[0] == "snap" and len(parts) > 3 and parts[2] == "common"):
        cut = next((n for n, part in enumerate(parts) if part in CACHE_NAMES), None)
        if cut is None:
            return "an app's settings or data (~/.config, a snap's own folder), never offered"
        candidate, floor, what = os.path.join(home, *parts[:cut + 1]), 65536, "64 KiB"
    elif parts[0] == ".cache" and len(parts) > 2:
        candidate = os.path.join(home, ".cache", parts[1])
        floor, what = (1048576, "1 MiB") if parts[1] in PACKAGE_CACHES else (65536, "64 KiB")
    else:
        return "a location we do not scan"
    if time.time() - os.lstat(candidate).st_mtime < 3600:
        return "its cache folder changed within the hour (in use)"
    if tree_bytes(candidate) < floor:
        return f"its cache folder is below the {what} floor"
    return "not offered (a gap)"


def bleachbit_files(home):
    env = dict(os.environ, HOME=home)
    out = subprocess.run(["bleachbit", "--preview", *CLEANERS], env=env, capture_output=True, text=True,
                         check=True).stdout
    files = []
    for line in out.splitlines():
        m = re.match(r"^Delete [0-9.]+[kMGT]?B (/.*)$", line)
        if m:
            files.append(m.group(1))
    return files


def our_items(home, agent):
    env = dict(os.environ, HOME=home, KESTREL_LAYOUT="linux")
    items = json.loads(subprocess.run([agent, "scan", "--json"], env=env, capture_output=True, text=True,
                                      check=True).stdout)
    out = []
    for item in items:
        path = item.get("target", {}).get("path", {}).get("_0")
        if path:
            out.append((path.rstrip("/"), int(item["size"]), item["category"]))
    return out


def allocated(path):
    try:
        st = os.lstat(path)
    except OSError:
        return 0
    return st.st_blocks * 512


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    home = os.path.realpath(sys.argv[1])
    agent = sys.argv[2] if len(sys.argv) > 2 else os.path.join(os.path.dirname(__file__), "..", "build",
                                                                "KestrelAgent")
    day_ago = time.time() - 86400
    theirs = bleachbit_files(home)
    ours = our_items(home, agent)
    prefixes = [p + "/" for p, _, _ in ours]
    exact = {p for p, _, _ in ours}

    both = only_theirs = young = 0
    reasons = {}
    covered_by_item = set()
    for f in theirs:
        try:
            st = os.lstat(f)
        except OSError:
            continue
        size = st.st_blocks * 512
        if st.st_mtime > day_ago:
            young += size
            continue
        hit = next((p for p in prefixes if f.startswith(p)), None)
        if hit or f in exact:
            both += size
            covered_by_item.add(hit[:-1] if hit else f)
            continue
        only_theirs += size
        rel = os.path.relpath(f, home)
        why = why_left(home, rel)
        reasons.setdefault(why, [0, 0, rel])
        reasons[why][0] += size
        reasons[why][1] += 1

    ours_total = sum(size for _, size, _ in ours)
    theirs_total = both + only_theirs
    print(f"home: {home}")
    print()
    print("| | bytes |")
    print("|---|---|")
    print(f"| bleachbit would delete (older than one day) | {theirs_total:,} |")
    print(f"| our scan offers | {ours_total:,} |")
    print(f"| in both | {both:,} |")
    print(f"| only bleachbit | {only_theirs:,} |")
    print(f"| only ours (our items less what bleachbit also deletes) | {max(ours_total - both, 0):,} |")
    print(f"| bleachbit files younger than one day (not compared) | {young:,} |")
    print()
    if reasons:
        print("| only bleachbit: why we leave it | files | bytes | example |")
        print("|---|---|---|---|")
        for reason, (size, count, example) in sorted(reasons.items(), key=lambda kv: -kv[1][0]):
            print(f"| {reason} | {count} | {size:,} | `{example}` |")
        print()
    by_category = {}
    for path, size, category in ours:
        if path not in covered_by_item:
            by_category[category] = by_category.get(category, 0) + size
    if by_category:
        print("| only ours, by category | bytes |")
        print("|---|---|")
        for category, size in sorted(by_category.items(), key=lambda kv: -kv[1]):
            print(f"| {category} | {size:,} |")


if __name__ == "__main__":
    main()
