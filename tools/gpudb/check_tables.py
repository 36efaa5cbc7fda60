#!/usr/bin/env python3
"""Check the generated GPU tables (gpudb/generated/*.cpp).

    python3 tools/gpudb/check_tables.py [--dir gpudb/generated] [--compile] [--regen]

Parses the generated sources and checks: terminators and row counts, the
reference rows, ordering rules, unique (device, variant) pairs per vendor,
plausible unit counts, board-table keys and names, and the lookup cases the
plug-in relies on (replayed here in Python).  --compile also compiles every
generated file with g++ -std=c++17 -Wall -Wextra -Werror and links a small
program that reads every table.  --regen runs the generator twice into
temporary directories and compares the output byte for byte.
Exit status 0 when every check passes.
"""

import argparse
import filecmp
import os
import re
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))

GPU_TABLES = ["nvidia", "amd", "intel", "moore_threads", "s3", "vmware", "sis", "lisuan"]
BOARD_TABLES = ["nvidia", "amd", "intel", "moore_threads"]
VENDOR_TABLE = {0x10DE: "nvidia", 0x1002: "amd", 0x8086: "intel", 0x1ED5: "moore_threads",
                0x5333: "s3", 0x15AD: "vmware"}

# Reference rows: device, codename, variant, adapter name, level, shaders, vs, ps, tmus, rops, tdp.
REFERENCE_ROWS = [
    ("nvidia", (0x2BB1, "GB202", "", "NVIDIA RTX PRO 6000 Blackwell Workstation", 110, 24064, 0, 0, 752, 192, 600)),
    ("nvidia", (0x2B85, "GB202-300", "", "NVIDIA GeForce RTX 5090", 110, 21760, 0, 0, 680, 176, 575)),
    ("nvidia", (0x2C58, "GB203", "A1", "NVIDIA GeForce RTX 5090 Laptop GPU", 110, 10496, 0, 0, 328, 112, 150)),
    ("nvidia", (-1, "GB203", "", "NVIDIA RTX PRO 4500 Blackwell Server Edition", 110, 10496, 0, 0, 328, 112, 160)),
    ("nvidia", (0x06C0, "GF100", "", "NVIDIA GeForce GTX 480", 110, 480, 0, 0, 60, 48, 250)),
    ("nvidia", (0x0090, "G70", "", "NVIDIA GeForce 7800 GTX", 90, 0, 8, 24, 24, 16, 81)),
    ("nvidia", (0x0201, "NV20", "", "NVIDIA GeForce3 Ti 200", -1, -1, -1, -1, -1, -1, 0)),
    ("amd", (0x7551, "Navi 48", "C0", "AMD Radeon AI PRO R9700", 110, 4096, 0, 0, 256, 128, 300)),
    ("amd", (0x7422, "Navi 24", "", "AMD Radeon Pro W6400", 110, 768, 0, 0, 48, 32, 50)),
    ("intel", (0xE20B, "Battlemage BMG-G21", "", "Intel Arc B580", 110, 2560, 0, 0, 160, 80, 190)),
    ("intel", (0x27A6, "GMA 950", "GMA 950", "Intel GMA 950", 90, 0, 0, 4, -1, -1, 0)),
    ("moore_threads", (0x0201, "Chunxiao", "", "Moore Threads MTT S80", 110, 4096, -1, -1, 256, 256, 255)),
    ("s3", (0x9042, "Chrome 440/430", "Chrome 440/430", "S3 Graphics Chrome 430/440 Series", 100, 64, 0, 0, 16, 4, 0)),
    ("vmware", (0x0405, "", "", "SVGA II Adapter", 100, 0, 0, 0, 0, 0, 0)),
    ("sis", (-1, "X328", "Xabre80", "SiS Xabre 80", -1, 0, 1, 2, -1, -1, 0)),
    ("lisuan", (0x5000, "TrueGPU", None, "LISUAN LX 7G100", None, None, None, None, None, None, None)),
]

REFERENCE_BOARDS = [
    ("nvidia", (0x10DE, 0x2BB1, 0x10DE, 0x204B, "A1", "NVIDIA RTX PRO 6000 Blackwell Workstation Edition")),
    ("nvidia", (0x10DE, 0x2B85, 0x10DE, 0x2057, "A1", "NVIDIA GeForce RTX 5090 Founders Edition")),
    ("nvidia", (0x10DE, 0x2704, 0x1462, 0x5110, "00", "MSI RTX 4080 Suprim X")),
    ("amd", (0x1002, 0x744C, 0x1002, 0x0E3B, "C8", "AMD RX 7900 XTX (MBA)")),
    ("amd", (0x1002, 0x744C, 0x1002, 0x0E3B, "CE", "AMD RX 7900 GRE (MBA)")),
    ("amd", (0x1002, 0x7550, 0x1043, 0x0613, "C0", "ASUS RX 9070 XT TUF OC")),
    ("intel", (0x8086, 0xE20B, 0x8086, 0x1100, "00", "Intel Arc B580 Limited Edition")),
    ("intel", (0x8086, 0x56A5, 0x172F, 0x4017, "00", "Sparkle Arc A380 Genie 6G")),
    ("moore_threads", (0x1ED5, 0x0201, 0x1ED5, 0x0201, "00", "Moore Threads MTT S80 16G")),
]

# Values outside the plausibility rules that the data keeps on purpose.
IRREGULAR = {("nvidia", 0x0CA0, "")}


class Failures:
    def __init__(self):
        self.items = []

    def __call__(self, msg):
        self.items.append(msg)


# --- parsing -----------------------------------------------------------------

_TOKEN = re.compile(r'\s*(?:(kGpuDbNoText)|"((?:[^"\\]|\\.)*)"|(-?0x[0-9A-Fa-f]+|-?\d+))\s*(,|$)')
_LITERAL = re.compile(r'"((?:[^"\\]|\\.)*)"')
_STRING_COLUMNS = {"GpuDbRow": (1, 2, 3), "BoardNameRow": (4, 5)}


def _unescape_bytes(body):
    out = bytearray()
    i = 0
    while i < len(body):
        c = body[i]
        if c == "\\":
            n = body[i + 1]
            if n in "01234567":
                m = re.match(r"[0-7]{1,3}", body[i + 1:])
                out.append(int(m.group(0), 8))
                i += 1 + len(m.group(0))
                continue
            out.extend({"n": b"\n", "t": b"\t", '"': b'"', "\\": b"\\", "?": b"?"}.get(n, n.encode()))
            i += 2
            continue
        out.extend(c.encode("utf-8"))
        i += 1
    return bytes(out)


def _unescape(body):
    return _unescape_bytes(body).decode("utf-8")


def _cells(inner):
    cells = []
    pos = 0
    while pos < len(inner):
        m = _TOKEN.match(inner, pos)
        if not m or m.end() == pos:
            raise ValueError("cannot parse row: %r" % inner)
        if m.group(1):
            cells.append(None)
        elif m.group(2) is not None:
            cells.append(_unescape(m.group(2)))
        else:
            cells.append(int(m.group(3), 0))
        pos = m.end()
    return cells


def parse_table(path, array):
    """Rows of `array` in a generated file, and whether its _num_rows constant
    is the sizeof expression (counting the terminator)."""
    with open(path, encoding="ascii") as f:
        text = f.read()
    tm = re.search(r"const char %s_text\[\] =\n(.*?);\n" % re.escape(array), text, re.S)
    if not tm:
        raise ValueError("%s: text block %s_text not found" % (path, array))
    block = b"".join(_unescape_bytes(lm.group(1)) for lm in _LITERAL.finditer(tm.group(1)))
    m = re.search(r"const (GpuDbRow|BoardNameRow) %s\[\] = \{\n(.*?)\n\};" % re.escape(array), text, re.S)
    if not m:
        raise ValueError("%s: array %s not found" % (path, array))
    rows = []
    for line in m.group(2).split("\n"):
        line = line.strip()
        if not line:
            continue
        rm = re.match(r"^\{(.*)\},(\s*//.*)?$", line)
        if not rm:
            raise ValueError("%s: bad row line %r" % (path, line))
        cells = _cells(rm.group(1))
        for k in _STRING_COLUMNS[m.group(1)]:
            if cells[k] is not None:
                if not 0 <= cells[k] < len(block):
                    raise ValueError("%s: offset %d outside %s_text" % (path, cells[k], array))
                cells[k] = block[cells[k]:block.index(b"\0", cells[k])].decode("utf-8")
        rows.append(cells)
    sizeof = re.search(r"const unsigned long %s_num_rows = sizeof\(%s\) / sizeof\(%s\[0\]\);"
                       % ((re.escape(array),) * 3), text) is not None
    return rows, sizeof


# --- lookups as the plug-in performs them -------------------------------------

def to_hex(c):
    c = c.upper()
    if "0" <= c <= "9":
        return ord(c) - ord("0")
    return (ord(c) - 55) & 0xFFFF


def str_to_hex2(a, b):
    return to_hex(a) * 16 + to_hex(b)


def get_index(tables, vendor, device):
    t = VENDOR_TABLE.get(vendor)
    if t is None:
        return -1
    for i, r in enumerate(tables[t]):
        if r[0] == device:
            return i
    return -1


def get_index_v2(tables, vendor, device, revision):
    t = VENDOR_TABLE.get(vendor)
    if t is None:
        return -1
    for i, r in enumerate(tables[t]):
        if r[0] != device:
            continue
        if vendor != 0x1002 or r[2] is None or revision is None:
            return i
        v = r[2]
        if len(v) == 2 and v[0].lower() == revision[0].lower() and v[1].lower() == revision[1].lower():
            return i
    return -1


def name_from_device_id(tables, vendor, device, revision):
    t = {0x10DE: "nvidia", 0x1002: "amd", 0x8086: "intel", 0x1ED5: "moore_threads",
         0x15AD: "vmware"}.get(vendor)
    if t is None:
        return None
    for r in tables[t]:
        if r[0] != device:
            continue
        if revision == 0 or r[2] is None:
            return r[3]
        v = r[2].lower()
        if len(v) >= 2 and str_to_hex2(v[0], v[1]) == revision:
            return r[3]
    return None


def board_name(boards, table, device, subvendor, subdevice, revision):
    for r in boards[table]:
        if r[0] == 0:
            break
        if r[2] == subvendor and r[1] == device and r[3] == subdevice:
            if table == "amd" and str_to_hex2(r[4][0], r[4][1]) != revision:
                continue
            return r[5]
    return None


# --- checks --------------------------------------------------------------------

def check(dirpath, fail):
    tables = {}
    boards = {}
    for t in GPU_TABLES:
        array = "gpu_db_" + t
        rows, sizeof = parse_table(os.path.join(dirpath, array + ".cpp"), array)
        tables[t] = rows
        if not sizeof:
            fail("%s: _num_rows is not the sizeof expression" % array)
        if rows[-1] != [0, None, None, None, 0, 0, 0, 0, 0, 0, 0]:
            fail("%s: last row is not the terminator" % array)
        for i, r in enumerate(rows[:-1]):
            if len(r) != 11:
                fail("%s[%d]: %d cells" % (array, i, len(r)))
                continue
            if r[0] == 0 or any(x is None for x in r[1:4]):
                fail("%s[%d]: terminator-like row inside the table" % (array, i))
            if not r[3] or not r[3].strip():
                fail("%s[%d]: empty adapter name" % (array, i))
            if "%" in r[3]:
                fail("%s[%d]: '%%' in name %r" % (array, i, r[3]))
            if (t, r[0], r[2]) in IRREGULAR:
                continue
            api, sh, vs, ps, tmu, rop, tdp = r[4:11]
            if api not in (-1, 80, 90, 100, 110):
                fail("%s[%d]: api level %d" % (array, i, api))
            if min(sh, vs, ps, tmu, rop) < -1 or tdp < 0:
                fail("%s[%d]: negative count %r" % (array, i, r))
            if rop > 256:
                fail("%s[%d]: %d ROPs" % (array, i, rop))
            if sh > 0 and tmu > sh:
                fail("%s[%d]: TMUs %d above shaders %d" % (array, i, tmu, sh))
            if tdp > 1500:
                fail("%s[%d]: TDP %d W" % (array, i, tdp))
            if api >= 100 and sh == 0 and t not in ("vmware",) and (vs > 0 or ps > 0):
                fail("%s[%d]: unified level with split shader counts" % (array, i))
        seen = {}
        for i, r in enumerate(rows[:-1]):
            if r[0] < 0:
                key = (r[0], r[2], r[3])
            else:
                key = (r[0], r[2])
            if key in seen:
                fail("%s: duplicate (device, variant) %r at %d and %d" % (array, key, seen[key], i))
            seen[key] = i
    for t in BOARD_TABLES:
        array = "board_names_" + t
        rows, sizeof = parse_table(os.path.join(dirpath, array + ".cpp"), array)
        boards[t] = rows
        if not sizeof:
            fail("%s: _num_rows is not the sizeof expression" % array)
        if rows[-1] != [0, 0, 0, 0, None, None]:
            fail("%s: last row is not the terminator" % array)
        keys = {}
        for i, r in enumerate(rows[:-1]):
            if r[0] == 0:
                fail("%s[%d]: vendor 0 inside the table" % (array, i))
            if r[4] is None or not re.match(r"^[0-9A-F]{2}$", r[4]):
                fail("%s[%d]: revision %r" % (array, i, r[4]))
            if not r[5] or "%" in r[5]:
                fail("%s[%d]: bad marketing name %r" % (array, i, r[5]))
            key = (r[1], r[2], r[3]) + ((r[4],) if t == "amd" else ())
            if key in keys:
                fail("%s: duplicate key %r at %d and %d" % (array, key, keys[key], i))
            keys[key] = i

    for t, ref in REFERENCE_ROWS:
        hits = [r for r in tables[t][:-1] if r[0] == ref[0] and r[1] == ref[1] and r[3] == ref[3]]
        if not hits:
            fail("reference row missing: %s %r" % (t, ref[:4]))
            continue
        got = hits[0]
        for j, want in enumerate(ref):
            if want is not None and got[j] != want:
                fail("reference row %s %r: field %d is %r, want %r" % (t, ref[3], j, got[j], want))
    for t, ref in REFERENCE_BOARDS:
        if list(ref) not in [list(r) for r in boards[t]]:
            fail("reference board row missing: %s %r" % (t, ref))

    # Ordering.
    nv, amd, intel, sis = tables["nvidia"], tables["amd"], tables["intel"], tables["sis"]
    if nv[0][0] != 0x2BB1:
        fail("nvidia table does not start with the Blackwell professional board 0x2BB1")
    if amd[0][1] != "Navi 48":
        fail("amd table does not start with Navi 48")
    if not intel[0][1].startswith("Battlemage"):
        fail("intel table does not start with Battlemage")
    if len(sis) < 2 or sis[1][3] != "SiS Xabre 80":
        fail("sis table: index 1 is not SiS Xabre 80")
    r7550 = [r[2] for r in amd if r[0] == 0x7550]
    if r7550[:3] != ["C0", "C2", "C3"]:
        fail("amd 0x7550 rows %r, want C0, C2, C3 first" % r7550)
    lis = tables["lisuan"]
    if len(lis) != 2:
        fail("lisuan table has %d rows, want 2" % len(lis))
    nv_names = {r[0]: r[3] for r in nv[:-1]}
    for dev in (0x2C09, 0x2F04):
        if nv_names.get(dev) != "NVIDIA GeForce RTX 5070":
            fail("nvidia 0x%04X is %r, want NVIDIA GeForce RTX 5070" % (dev, nv_names.get(dev)))
    gt330 = [r for r in nv if r[0] == 0x0CA0]
    if not gt330 or gt330[0][1] != "G92/GT215" or gt330[0][5] != -16 or gt330[0][3] != "NVIDIA GeForce GT 330":
        fail("nvidia 0x0CA0 GeForce GT 330 row not as recorded (G92/GT215, -16 shaders)")
    if "NVIDIA GeForce FX Go 5700 " not in [r[3] for r in nv]:
        fail("nvidia name 'NVIDIA GeForce FX Go 5700 ' (trailing blank) missing")

    # Lookups.
    def expect(what, got, want):
        if got != want:
            fail("%s: got %r, want %r" % (what, got, want))

    i = get_index(tables, 0x1002, 0x7550)
    expect("get_index(AMD, 0x7550)", amd[i][3] if i >= 0 else None, "AMD Radeon RX 9070 XT")
    i = get_index_v2(tables, 0x1002, 0x7550, "c2")
    expect("get_index_v2(AMD, 0x7550, c2)", amd[i][3] if i >= 0 else None, "AMD Radeon RX 9070 GRE")
    expect("get_index_v2(AMD, 0x7550, C5)", get_index_v2(tables, 0x1002, 0x7550, "C5"), -1)
    i = get_index_v2(tables, 0x1002, 0x7550, None)
    expect("get_index_v2(AMD, 0x7550, null)", amd[i][3] if i >= 0 else None, "AMD Radeon RX 9070 XT")
    expect("get_index_v2(AMD, 0x7422, C3)", get_index_v2(tables, 0x1002, 0x7422, "C3"), -1)
    i = get_index(tables, 0x1002, 0x7422)
    expect("get_index(AMD, 0x7422)", amd[i][3] if i >= 0 else None, "AMD Radeon Pro W6400")
    expect("get_index(0x1039, ...)", get_index(tables, 0x1039, 0x0330), -1)
    expect("name(AMD, 0x7551, 0xC1)", name_from_device_id(tables, 0x1002, 0x7551, 0xC1),
           "AMD Radeon AI PRO R9700S")
    expect("name(AMD, 0x7550, 0xC3)", name_from_device_id(tables, 0x1002, 0x7550, 0xC3), "AMD Radeon RX 9070")
    expect("name(NVIDIA, 0x2B85, 0)", name_from_device_id(tables, 0x10DE, 0x2B85, 0),
           "NVIDIA GeForce RTX 5090")
    expect("name(NVIDIA, 0x2C58, 0xA1)", name_from_device_id(tables, 0x10DE, 0x2C58, 0xA1),
           "NVIDIA GeForce RTX 5090 Laptop GPU")
    expect("name(Intel, 0xE20B, 0)", name_from_device_id(tables, 0x8086, 0xE20B, 0), "Intel Arc B580")
    expect("board(0x2B85 10DE:2057)", board_name(boards, "nvidia", 0x2B85, 0x10DE, 0x2057, 0xA1),
           "NVIDIA GeForce RTX 5090 Founders Edition")
    expect("board(0x2B85 10DE:2058)", board_name(boards, "nvidia", 0x2B85, 0x10DE, 0x2058, 0xA1), None)
    expect("board(0x744C rev CE)", board_name(boards, "amd", 0x744C, 0x1002, 0x0E3B, 0xCE), "AMD RX 7900 GRE (MBA)")
    expect("board(0x744C rev C8)", board_name(boards, "amd", 0x744C, 0x1002, 0x0E3B, 0xC8), "AMD RX 7900 XTX (MBA)")

    # Board tables: chip maker's own boards first.
    for t, vid in (("nvidia", 0x10DE), ("amd", 0x1002), ("intel", 0x8086), ("moore_threads", 0x1ED5)):
        rows = boards[t][:-1]
        own = [k for k, r in enumerate(rows) if r[2] == vid]
        if own and own != list(range(len(own))):
            fail("board_names_%s: the chip maker's own boards are not first" % t)
    return tables, boards


def compile_all(dirpath, fail):
    objdir = tempfile.mkdtemp(prefix="gpudb_check_")
    objs = []
    for t in ["gpu_db_" + x for x in GPU_TABLES] + ["board_names_" + x for x in BOARD_TABLES]:
        src = os.path.join(dirpath, t + ".cpp")
        obj = os.path.join(objdir, t + ".o")
        cmd = ["g++", "-std=c++17", "-Wall", "-Wextra", "-Werror", "-I", REPO, "-c", src, "-o", obj]
        p = subprocess.run(cmd, capture_output=True, text=True)
        if p.returncode != 0:
            fail("compile %s failed:\n%s" % (src, p.stderr))
        objs.append(obj)
    main_src = os.path.join(objdir, "main.cpp")
    lines = ['#include "gpudb/gpu_db_tables.h"', "#include <cstdio>", "#include <cstring>", "int main() {",
             "    int bad = 0;"]
    for x in GPU_TABLES:
        a = "gpu_db_" + x
        lines.append("    { const GpuDbTable tb = GPUDB_TABLE(%s); const GpuDbRow& t = tb.rows[tb.num_rows - 1];" % a)
        lines.append("      if (t.device_id != 0 || tb.codename(t) || tb.variant(t) || tb.adapter_name(t))"
                     " { std::printf(\"%s\\n\"); ++bad; }" % a)
        lines.append("      for (unsigned long i = 0; i + 1 < tb.num_rows; ++i)"
                     " if (!tb.adapter_name(tb.rows[i]) || !tb.codename(tb.rows[i]) || !tb.variant(tb.rows[i])"
                     " || std::strchr(tb.adapter_name(tb.rows[i]), '%')) ++bad; }")
    for x in BOARD_TABLES:
        a = "board_names_" + x
        lines.append("    { const BoardNameTable tb = GPUDB_TABLE(%s); const BoardNameRow& t = tb.rows[tb.num_rows - 1];" % a)
        lines.append("      if (t.vendor != 0 || tb.marketing_name(t) || tb.revision(t)) { std::printf(\"%s\\n\"); ++bad; }" % a)
        lines.append("      for (unsigned long i = 0; i + 1 < tb.num_rows; ++i)"
                     " if (tb.rows[i].vendor == 0 || std::strlen(tb.revision(tb.rows[i])) != 2) ++bad; }")
    lines += ["    std::printf(\"nvidia %lu amd %lu intel %lu\\n\", gpu_db_nvidia_num_rows, gpu_db_amd_num_rows,"
              " gpu_db_intel_num_rows);", "    return bad ? 1 : 0;", "}"]
    with open(main_src, "w") as f:
        f.write("\n".join(lines) + "\n")
    exe = os.path.join(objdir, "check")
    cmd = ["g++", "-std=c++17", "-Wall", "-Wextra", "-Werror", "-I", REPO, main_src] + objs + ["-o", exe]
    p = subprocess.run(cmd, capture_output=True, text=True)
    if p.returncode != 0:
        fail("link of the table check program failed:\n%s" % p.stderr)
        return
    p = subprocess.run([exe], capture_output=True, text=True)
    if p.returncode != 0:
        fail("table check program failed:\n%s" % p.stdout)


def regen(fail):
    a = tempfile.mkdtemp(prefix="gpudb_a_")
    b = tempfile.mkdtemp(prefix="gpudb_b_")
    for d in (a, b):
        p = subprocess.run([sys.executable, os.path.join(HERE, "generate.py"), "--out", d, "--quiet"],
                           capture_output=True, text=True)
        if p.returncode != 0:
            fail("generator failed:\n%s" % p.stderr)
            return
    names = sorted(os.listdir(a))
    if names != sorted(os.listdir(b)):
        fail("generator runs wrote different file sets")
    _, mismatch, errors = filecmp.cmpfiles(a, b, names, shallow=False)
    if mismatch or errors:
        fail("generator output differs between runs: %r" % (mismatch + errors))
    current = os.path.join(REPO, "gpudb", "generated")
    _, mismatch, errors = filecmp.cmpfiles(a, current, names, shallow=False)
    if mismatch or errors:
        fail("gpudb/generated is not what the generator writes now: %r" % (mismatch + errors))


def main(argv=None):
    ap = argparse.ArgumentParser(description="Check the generated GPU tables.")
    ap.add_argument("--dir", default=os.path.join(REPO, "gpudb", "generated"))
    ap.add_argument("--compile", action="store_true")
    ap.add_argument("--regen", action="store_true")
    args = ap.parse_args(argv)
    fail = Failures()
    tables, boards = check(args.dir, fail)
    if args.compile:
        compile_all(args.dir, fail)
    if args.regen:
        regen(fail)
    for t in GPU_TABLES:
        rows = tables[t][:-1]
        known = sum(1 for r in rows if r[5] > 0 and r[8] > 0 and r[9] > 0)
        print("gpu_db_%-14s %4d rows (with terminator); %d with shaders/TMUs/ROPs, %d with TDP"
              % (t, len(rows) + 1, known, sum(1 for r in rows if r[10] > 0)))
    for t in BOARD_TABLES:
        print("board_names_%-10s %4d rows (with terminator)" % (t, len(boards[t])))
    if fail.items:
        for m in fail.items:
            print("FAIL: " + m)
        print("%d check(s) failed" % len(fail.items))
        return 1
    print("all checks passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
