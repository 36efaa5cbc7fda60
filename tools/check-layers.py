#!/usr/bin/env python3
"""Checks the direction of every #include between the monitor's layers.

    tools/check-layers.py ROOT [STAMP]

The layers, lowest first: the zev/ interfaces (host library, GPU record,
monitor class), io, record, gpudb, sysinfo, the back-ends, the core
(plugin/), the overlay, then the programs (apps/, bench/). A file may include
its own layer and those below. Each back-end is a layer of its own: it
includes no other back-end, and outside its folder only its public header
backends/<name>/<name>_backend.h is included. Tests stand above everything
and may reach a back-end's parsers, so they are not checked.

Every include against that is printed as FILE:LINE: why, and the exit
status is 1; the build runs this and fails on it. With no fault, STAMP (if
given) is written, for the build to know the check ran.
"""
import pathlib
import re
import sys

LAYERS = [
    ("interfaces", r"(zev|host|plugin/include)/"),
    ("io", r"io/"),
    ("record", r"record/"),
    ("gpudb", r"gpudb/"),
    ("sysinfo", r"sysinfo/"),
    ("back-end", r"backends/([^/]+)/"),
    ("core", r"plugin/"),
    ("overlay", r"overlay/"),
    ("programs", r"(apps|bench)/"),
]
CHECKED = ["io", "record", "gpudb", "sysinfo", "backends", "plugin", "overlay", "apps", "bench"]
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"')
BACKEND = 5


def layer_of(path):
    """(rank, back-end name or None) of a path relative to the root."""
    for rank, (_, pattern) in enumerate(LAYERS):
        match = re.match(pattern, path)
        if match:
            return rank, match.group(1) if rank == BACKEND else None
    return None, None


def faults(root):
    for folder in CHECKED:
        for source in sorted((root / folder).rglob("*")):
            if source.suffix not in (".h", ".cpp"):
                continue
            name = source.relative_to(root).as_posix()
            own, own_backend = layer_of(name)
            lines = source.read_text(encoding="utf-8", errors="replace").splitlines()
            for number, line in enumerate(lines, 1):
                match = INCLUDE.match(line)
                if not match:
                    continue
                included = match.group(1)
                # A name without a folder is a file beside the includer.
                if "/" not in included:
                    included = f"{pathlib.PurePosixPath(name).parent}/{included}"
                rank, backend = layer_of(included)
                if rank is None:
                    continue
                where = f"{name}:{number}: includes {included}:"
                if rank > own:
                    yield (f"{where} the {LAYERS[own][0]} layer may not include "
                           f"the {LAYERS[rank][0]} layer above it")
                elif rank == BACKEND and backend != own_backend:
                    if own == BACKEND:
                        yield f"{where} the {own_backend} back-end may not include another back-end"
                    elif included != f"backends/{backend}/{backend}_backend.h":
                        yield (f"{where} outside its folder a back-end is reached only through "
                               f"backends/{backend}/{backend}_backend.h")


def main(argv):
    root = pathlib.Path(argv[1])
    found = list(faults(root))
    for fault in found:
        print(fault, file=sys.stderr)
    if found:
        print(f"{len(found)} include(s) against the direction of the layers", file=sys.stderr)
        return 1
    if len(argv) > 2:
        pathlib.Path(argv[2]).write_text("")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
