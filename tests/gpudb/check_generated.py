#!/usr/bin/env python3
"""Runs the table generator on the source data (tools/gpudb/data/) into a
scratch folder and compares its output with the committed tables, byte for
byte."""
import filecmp
import os
import subprocess
import sys
import tempfile

repo, sources = sys.argv[1], sys.argv[2]
if not os.path.isdir(sources):
    print(f"no source data at {sources}")
    sys.exit(1)

committed = os.path.join(repo, "gpudb", "generated")
with tempfile.TemporaryDirectory() as out:
    subprocess.run([sys.executable, os.path.join(repo, "tools", "gpudb", "generate.py"),
                    "--sources", sources, "--out", out], check=True, cwd=repo,
                   stdout=subprocess.DEVNULL)
    made = sorted(os.listdir(out))
    have = sorted(f for f in os.listdir(committed) if f.endswith(".cpp"))
    if made != have:
        print(f"generated files differ: made {made}, committed {have}")
        sys.exit(1)
    _, mismatch, errors = filecmp.cmpfiles(out, committed, made, shallow=False)
    if mismatch or errors:
        print(f"not reproduced byte for byte: {mismatch + errors}")
        sys.exit(1)
print(f"{len(made)} tables reproduced byte for byte")
