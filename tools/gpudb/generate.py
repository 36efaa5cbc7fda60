#!/usr/bin/env python3
"""Generate the GPU database and board-name tables (gpudb/generated/*.cpp).

    python3 tools/gpudb/generate.py [--sources DIR] [--out DIR] [--curated DIR] [--quiet]

Inputs: the public data files in --sources (default tools/gpudb/data/, where
tools/gpudb/data/README.md says where each came from) and the hand-curated CSV
files in gpudb/curated/.
Output is deterministic: the same inputs give byte-identical files.
"""

import argparse
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.dont_write_bytecode = True  # keep the source tree free of __pycache__

import gpudb_amd  # noqa: E402
import gpudb_boards  # noqa: E402
import gpudb_emit  # noqa: E402
import gpudb_intel  # noqa: E402
import gpudb_misc  # noqa: E402
import gpudb_nvidia  # noqa: E402
from gpudb_match import UnitIndex  # noqa: E402
from gpudb_rows import Curated  # noqa: E402
from gpudb_sources import Sources  # noqa: E402

REPO = os.path.dirname(os.path.dirname(HERE))

GPU_TABLES = [
    # (array, builder, description)
    ("gpu_db_nvidia", gpudb_nvidia.build,
     "NVIDIA (0x10DE): ids and names from the NVIDIA driver lists and pci.ids, newest generation first."),
    ("gpu_db_amd", gpudb_amd.build,
     "AMD (0x1002): one row per (device, revision) of amdgpu.ids; unit counts by product name, "
     "else GPUOpen CUs; then the pre-GCN (TeraScale) ids of the radeon driver, no revision."),
    ("gpu_db_intel", gpudb_intel.build,
     "Intel (0x8086): ids from the Linux i915/xe list; discrete parts first, then integrated."),
    ("gpu_db_moore_threads", gpudb_misc.build_moore_threads,
     "Moore Threads (0x1ED5): ids and names from pci.ids."),
    ("gpu_db_s3", gpudb_misc.build_s3, "S3 Graphics (0x5333): ids and names from pci.ids."),
    ("gpu_db_vmware", gpudb_misc.build_vmware, "VMware (0x15AD) virtual adapter."),
    ("gpu_db_sis", gpudb_misc.build_sis,
     "SiS: fallback table of the accessors; one row per chipset model of each pci.ids id."),
    ("gpu_db_lisuan", gpudb_misc.build_lisuan, "Lisuan (0x4C54): kept as data, not used by any lookup."),
]

BOARD_TABLES = [
    ("board_names_nvidia", "gpu_db_nvidia", gpudb_boards.build_nvidia,
     "NVIDIA boards: NVIDIA's own first, then the board makers' cards by maker."),
    ("board_names_amd", "gpu_db_amd", gpudb_boards.build_amd,
     "AMD boards: AMD's own first, then the board makers' cards by maker; revision told apart."),
    ("board_names_intel", "gpu_db_intel", gpudb_boards.build_intel,
     "Intel boards: Intel's own first, then the board makers' cards by maker."),
    ("board_names_moore_threads", "gpu_db_moore_threads", gpudb_boards.build_moore_threads,
     "Moore Threads boards."),
]


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--sources", default=os.path.join(HERE, "data"))
    ap.add_argument("--out", default=os.path.join(REPO, "gpudb", "generated"))
    ap.add_argument("--curated", default=os.path.join(REPO, "gpudb", "curated"))
    ap.add_argument("--quiet", action="store_true")
    args = ap.parse_args(argv)

    def log(msg):
        if not args.quiet:
            print(msg)

    src = Sources(args.sources)
    index = UnitIndex(src)
    curated = Curated(args.curated)
    os.makedirs(args.out, exist_ok=True)

    built = {}
    for array, builder, intro in GPU_TABLES:
        rows = builder(src, index, curated, log)
        built[array] = rows
        _write(args.out, array, gpudb_emit.gpu_table(array, rows, intro))
        log("%-28s %4d rows with terminator" % (array, len(rows) + 1))
    for array, db_array, builder, intro in BOARD_TABLES:
        boards = builder(src, built[db_array], curated, log)
        _write(args.out, array, gpudb_emit.board_table(array, boards, intro))
        log("%-28s %4d rows with terminator" % (array, len(boards) + 1))
    return 0


def _write(out_dir, array, text):
    path = os.path.join(out_dir, array + ".cpp")
    with open(path, "w", encoding="ascii", newline="\n") as f:
        f.write(text)


if __name__ == "__main__":
    sys.exit(main())
