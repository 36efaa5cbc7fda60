"""AMD table: one row per (device, revision) of amdgpu.ids, codenames from
pci.ids, unit counts by product name from the GPU-database scrapes or, failing
that, from the GPUOpen compute-unit count (shaders = CUs x 64, TMUs = CUs x 4).
After the GCN and later rows come the pre-GCN (TeraScale) chips of the radeon
driver's id list, one row per device id with an empty variant
(gpudb_amd_terascale)."""

import re

import gpudb_amd_terascale
from gpudb_match import lookup_units
from gpudb_rows import Row, apply_budget, apply_curated, clean_name, order_rows, plausible_units
from gpudb_sources import split_pci_name

TABLE = "amd"

# Graphics IP generations, newest first.  Compute (CDNA) parts sit beside the
# graphics generation of their time; the pre-GCN generations follow GCN.
GENERATIONS = (["gfx12", "gfx11.5", "cdna4", "gfx11", "cdna3", "gfx10.3", "cdna2", "gfx10.1",
                "cdna1", "gfx9", "gfx8", "gfx7", "gfx6"]
               + gpudb_amd_terascale.GENERATION_LABELS + ["unknown"])
GEN_RANK = {g: i for i, g in enumerate(GENERATIONS)}

_GPUOPEN_GEN = {
    "GFX12": "gfx12", "GFX11": "gfx11", "CDNA4": "cdna4", "CDNA3": "cdna3", "GFX103": "gfx10.3",
    "CDNA2": "cdna2", "GFX10": "gfx10.1", "GFX9": "gfx9", "VOLCANICISLAND": "gfx8",
    "SEAISLAND": "gfx7", "SOUTHERNISLAND": "gfx6",
}

# Chips GPUOpen does not list, by pci.ids codename.
_CODENAME_GEN = {
    "Arcturus": "cdna1", "Aldebaran/MI200": "cdna2", "Aqua Vanjaram": "cdna3",
    # The 6 nm refresh of the Van Gogh APU (RDNA 2) of the Steam Deck.
    "Sephiroth": "gfx10.3",
}

_QUALIFIERS = {"XT", "XTX", "XL", "PRO", "LE", "GL", "GL-XL", "GL-XT", "WKS-XL", "WKS-XM", "LP", "ULT",
               "PRX", "XTR", "XTA", "XTL", "XT2", "PRO2", "M", "XTM", "SRIOV", "MxGPU", "XTV", "MGL",
               "XGA", "LEA", "XTXA", "GLXTA", "GLXLA"}

# Multi-die Instinct accelerators: GPUOpen counts the compute units of one die.
MULTI_DIE = {"cdna2", "cdna3", "cdna4"}

GENERIC_NAMES = re.compile(r"^AMD Radeon\(TM\)( [A-Za-z]+)? Graphics$|^AMD Radeon Graphics$|Processor$")


def amd_codename(prefix):
    """'Tahiti XT GL' -> 'Tahiti'; 'Hawaii XT / Grenada XT' -> 'Hawaii';
    'Polaris 20 XL/XTR' -> 'Polaris 20'."""
    first = prefix.split(" / ")[0].strip()
    toks = first.split()
    while len(toks) > 1 and all(p in _QUALIFIERS for p in toks[-1].split("/")):
        toks.pop()
    if toks:
        toks[-1] = re.sub(r"-(XL|XT|XTX|PRO)$", "", toks[-1])
    return " ".join(toks)


def _generation(src, dev, rev, codename):
    rec = src.gpuopen.get((dev, rev))
    if rec is None:
        for (d, r), v in sorted(src.gpuopen.items()):
            if d == dev:
                rec = v
                break
    if rec is not None:
        gen = _GPUOPEN_GEN.get(rec["generation"], "unknown")
        if gen == "gfx11" and rec["asic"].startswith("GDT_GFX11_5"):
            gen = "gfx11.5"
        return gen
    if codename in _CODENAME_GEN:
        return _CODENAME_GEN[codename]
    # Another device with the same codename that GPUOpen knows.
    for (d, r), v in sorted(src.gpuopen.items()):
        p = src.pci.device("1002", d)
        if p and amd_codename(split_pci_name(p)[0]) == codename:
            gen = _GPUOPEN_GEN.get(v["generation"], "unknown")
            if gen == "gfx11" and v["asic"].startswith("GDT_GFX11_5"):
                gen = "gfx11.5"
            return gen
    return "unknown"


def _make_row(src, index, dev, rev, name, tag):
    pci_name = src.pci.device("1002", dev)
    codename = amd_codename(split_pci_name(pci_name)[0]) if pci_name else ""
    go = src.gpuopen.get((dev, rev))
    if not codename and go is not None:
        codename = go["cal"]
    row = Row(dev, clean_name(name), codename=codename, variant=rev, api=110,
              shaders=-1, vs=0, ps=0, tmus=-1, rops=-1, tdp=0)
    row.add_source(tag)
    if pci_name:
        row.add_source("pci.ids")
    res = None
    if not GENERIC_NAMES.search(name):
        # amdgpu.ids adds ' Graphics' / ' Series' to many names the GPU-database
        # scrapes list without it ('AMD Radeon RX 470 Graphics' / 'Radeon RX 470').
        for n in _lookup_names(name):
            res = lookup_units(index, "AMD", n)
            if any(res[f] is not None for f in ("shaders", "tmus", "rops", "tdp")):
                break
        sh, tm, ro = res["shaders"], res["tmus"], res["rops"]
        if not plausible_units(sh, tm, ro, True):
            sh = tm = ro = None
        if sh is not None:
            row.shaders = sh
        if tm is not None:
            row.tmus = tm
        if ro is not None:
            row.rops = ro
        if res["tdp"]:
            row.tdp = res["tdp"]
        if any(v is not None for v in (sh, tm, ro)) or res["tdp"]:
            for s in res["sources"]:
                row.add_source(s)
    gen = _generation(src, dev, rev, codename)
    if go is not None and row.shaders < 0 and row.tmus < 0 and gen not in MULTI_DIE:
        # GCN and later: 64 shaders and 4 texture units per compute unit.
        row.shaders = go["cus"] * 64
        row.tmus = go["cus"] * 4
        row.add_source("gpuopen")
    row.gen = GEN_RANK[gen]
    return row


def _lookup_names(name):
    tries = [name]
    t = re.sub(r"\s+(Graphics|Series)$", "", name)
    if t != name:
        tries.append(t)
    return tries


def build(src, index, curated, log):
    rows = []
    listed = set()
    for i, (dev, rev, name) in enumerate(src.amdgpu_ids):
        row = _make_row(src, index, dev, rev, name, "amdgpu.ids")
        row.order = (dev, i)
        row.priority = 1
        rows.append(row)
        listed.add((dev, rev))
    # (device, revision) pairs only GPUOpen lists, where it gives a product name.
    for (dev, rev), v in sorted(src.gpuopen.items()):
        if (dev, rev) in listed or GENERIC_NAMES.search(v["name"]):
            continue
        # Only real product names: no placeholder ids ('AMD 15BF:E0') or CPU names.
        if not re.search(r"Radeon|Instinct|FirePro", v["name"]) or re.search(r"[0-9A-F]{4}(:|\b)", v["name"]):
            continue
        name = v["name"].replace("(TM)", "").replace("  ", " ")
        if not name.startswith("AMD"):
            name = "AMD " + name
        row = _make_row(src, index, dev, rev, name, "gpuopen")
        row.order = (dev, 10000 + v["order"])
        row.priority = 3
        rows.append(row)

    def gen_of(label):
        return GEN_RANK.get(label, GEN_RANK["unknown"])

    _fill_codenames(src, rows)
    # Pre-GCN chips: device ids the rows above do not have.
    rows += gpudb_amd_terascale.build_rows(src, index, set(r.device_id for r in rows), GEN_RANK, log)
    rows = apply_curated(TABLE, rows, curated, gen_of, lambda label: 0)
    rows = apply_budget(TABLE, rows, curated, log)
    return order_rows(rows)


def _fill_codenames(src, rows):
    """Rows of devices pci.ids does not list: the codename of another row with
    the same product name ('MI300X VF' -> 'MI300X'), else the pci.ids codename
    that GPUOpen's chip name stands for on other devices ('Capeverde' -> 'Cape Verde')."""
    from_pci = {}
    cal_map = {}
    for (dev, rev), v in sorted(src.gpuopen.items()):
        p = src.pci.device("1002", dev)
        if p:
            cal_map.setdefault(v["cal"], amd_codename(split_pci_name(p)[0]))
    for r in rows:
        if src.pci.device("1002", r.device_id):
            from_pci.setdefault(re.sub(r"\s+(VF|HF)$", "", r.name), (r.codename, r.gen))
    for r in rows:
        if src.pci.device("1002", r.device_id):
            continue
        peer = from_pci.get(re.sub(r"\s+(VF|HF)$", "", r.name))
        if peer:
            r.codename = peer[0]
            if r.gen == GEN_RANK["unknown"]:
                r.gen = peer[1]
        elif r.codename in cal_map:
            r.codename = cal_map[r.codename]
