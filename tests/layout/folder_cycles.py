#!/usr/bin/env python3
"""Fails when the library's folders include each other in a cycle.

A folder is the directory of a file; an edge is a quoted #include of a header of
another folder. `folder_cycles.py ROOT` checks ROOT/Kavelin; `--self-test` checks
that cycles are found in small generated trees.
"""
import os
import re
import sys
import tempfile

INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.M)
TOP = "Kavelin"


def folder_graph(root):
    graph = {}
    for dirpath, _, files in os.walk(os.path.join(root, TOP)):
        folder = os.path.relpath(dirpath, root)
        for name in files:
            if not name.endswith((".h", ".cpp")):
                continue
            graph.setdefault(folder, set())
            with open(os.path.join(dirpath, name), encoding="utf-8") as f:
                for header in INCLUDE.findall(f.read()):
                    target = os.path.dirname(header)
                    if target != folder and target.split("/")[0] == TOP:
                        graph[folder].add(target)
                        graph.setdefault(target, set())
    return graph


def find_cycle(graph):
    """A cycle as a list of folders, first one repeated at the end, or None."""
    done, path = set(), []

    def visit(folder):
        path.append(folder)
        for target in sorted(graph[folder]):
            if target in path:
                return path[path.index(target):] + [target]
            if target not in done:
                cycle = visit(target)
                if cycle:
                    return cycle
        done.add(path.pop())
        return None

    for folder in sorted(graph):
        if folder not in done:
            cycle = visit(folder)
            if cycle:
                return cycle
    return None


def check(root):
    cycle = find_cycle(folder_graph(root))
    if cycle:
        print("folder cycle: " + " -> ".join(cycle))
        return 1
    print("no folder cycle")
    return 0


# (what the tree shows, file -> headers it includes, the cycle expected or None)
CASES = [
    ("layers", {"Kavelin/a/x.h": ["Kavelin/b/y.h"], "Kavelin/b/y.h": ["Kavelin/c/z.h"],
                "Kavelin/c/z.h": ["<vector>", "Kavelin/c/w.h"], "Kavelin/c/w.h": []}, None),
    ("two folders through a .cpp", {"Kavelin/a/x.h": ["Kavelin/b/y.h"],
                                    "Kavelin/b/y.cpp": ["Kavelin/a/x.h"], "Kavelin/b/y.h": []},
     "Kavelin/a -> Kavelin/b -> Kavelin/a"),
    ("three folders", {"Kavelin/a/x.h": ["Kavelin/b/y.h"], "Kavelin/b/y.h": ["Kavelin/c/z.h"],
                       "Kavelin/c/z.cpp": ["Kavelin/a/x.h"], "Kavelin/c/z.h": []},
     "Kavelin/a -> Kavelin/b -> Kavelin/c -> Kavelin/a"),
    ("a subfolder below its seams", {"Kavelin/P/s.h": [], "Kavelin/P/L/i.cpp": ["Kavelin/P/s.h"],
                                     "Kavelin/v.cpp": ["Kavelin/P/s.h"]}, None),
    ("a seam that includes its implementation", {"Kavelin/P/s.cpp": ["Kavelin/P/L/i.h"],
                                                 "Kavelin/P/L/i.h": ["Kavelin/P/s.h"],
                                                 "Kavelin/P/s.h": []},
     "Kavelin/P -> Kavelin/P/L -> Kavelin/P"),
]


def self_test():
    failures = 0
    for name, files, expected in CASES:
        with tempfile.TemporaryDirectory() as root:
            for path, headers in files.items():
                os.makedirs(os.path.join(root, os.path.dirname(path)), exist_ok=True)
                with open(os.path.join(root, path), "w", encoding="utf-8") as f:
                    f.writelines(f'#include "{h}"\n' if not h.startswith("<") else
                                 f"#include {h}\n" for h in headers)
            cycle = find_cycle(folder_graph(root))
            found = " -> ".join(cycle) if cycle else None
            if found != expected:
                print(f"{name}: expected {expected}, found {found}")
                failures += 1
    print(f"{len(CASES) - failures} of {len(CASES)} trees judged right")
    return 1 if failures else 0


if __name__ == "__main__":
    if sys.argv[1:] == ["--self-test"]:
        sys.exit(self_test())
    if len(sys.argv) != 2:
        sys.exit("usage: folder_cycles.py ROOT | --self-test")
    sys.exit(check(sys.argv[1]))
