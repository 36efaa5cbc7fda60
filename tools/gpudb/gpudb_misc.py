"""Small tables: Moore Threads, S3 Graphics, VMware, SiS and Lisuan.

None of the sources gives unit counts for these chips; ids and names come
from pci.ids, figures only from curated rows."""

import re

from gpudb_rows import Row, apply_budget, apply_curated, clean_name, order_rows
from gpudb_sources import split_pci_name


def _finish(table, rows, curated, log, gen_of=None):
    rows = apply_curated(table, rows, curated, gen_of or (lambda label: int(label) if label else 0),
                         lambda label: 0)
    rows = apply_budget(table, rows, curated, log)
    return order_rows(rows)


def build_moore_threads(src, index, curated, log):
    rows = []
    for dev_hex in src.pci.device_order.get("1ed5", []):
        text = src.pci.devices[("1ed5", dev_hex)]
        if re.search(r"Audio|Engineering Sample", text):
            continue
        dev = int(dev_hex, 16)
        name = clean_name(text)
        if not name.startswith("MTT"):
            priority = 2  # board names pci.ids gives without a product line
        else:
            priority = 1
        row = Row(dev, "Moore Threads " + name, codename="", variant="", api=110,
                  shaders=-1, vs=-1, ps=-1, tmus=-1, rops=-1, tdp=0, sources=["pci.ids"])
        # Device id series 0x01xx, 0x02xx, 0x03xx follow the chip generations; newest first.
        row.gen = 0x10 - (dev >> 8)
        row.order = (dev, 0)
        row.priority = priority
        rows.append(row)
    return _finish("moore_threads", rows, curated, log)


def _s3_rank(model):
    if re.search(r"Chrome 5\d\d", model):
        return 0
    if re.search(r"Chrome 4\d\d", model):
        return 1
    if re.search(r"2300E", model):
        return 2
    if re.search(r"Chrome S2\d", model):
        return 3
    if re.search(r"DeltaChrome|GammaChrome", model):
        return 4
    if re.search(r"Savage", model):
        return 5
    if re.search(r"ViRGE|Trio|Aurora", model):
        return 6
    return 7


def _s3_level(rank):
    # Chrome 400/500 series are DirectX 10.1 unified designs; DeltaChrome and
    # GammaChrome are DirectX 9 shader-model-2 parts; the level of the others
    # (2300E, Chrome S20 series) is left unknown, earlier chips are fixed-function.
    return {0: 100, 1: 100, 4: 80}.get(rank, -1)


def build_s3(src, index, curated, log):
    rows = []
    for dev_hex in src.pci.device_order.get("5333", []):
        text = src.pci.devices[("5333", dev_hex)]
        if re.search(r"system|FireGL|SonicVibes|Plato", text):
            continue
        prefix, bracket = split_pci_name(text)
        model = bracket or prefix
        model = re.sub(r"\s+(vers|rev)\s+\d+$", "", model)
        model = re.sub(r"\s+Graphics Processor$", "", model)
        code = prefix if bracket else model
        rank = _s3_rank(model)
        api = _s3_level(rank)
        dev = int(dev_hex, 16)
        unified = api >= 100
        row = Row(dev, "S3 Graphics " + clean_name(model), codename=clean_name(code),
                  variant=clean_name(model), api=api, shaders=-1 if (unified or api < 0) else 0,
                  vs=0 if unified else -1, ps=0 if unified else -1, tmus=-1, rops=-1, tdp=0,
                  sources=["pci.ids"])
        row.gen = rank
        row.order = (dev, 0)
        row.priority = 1
        rows.append(row)
    return _finish("s3", rows, curated, log)


def build_vmware(src, index, curated, log):
    rows = []
    for dev_hex in src.pci.device_order.get("15ad", []):
        text = src.pci.devices[("15ad", dev_hex)]
        if "SVGA" not in text:
            continue
        dev = int(dev_hex, 16)
        # Virtual adapters: no units of their own.
        row = Row(dev, clean_name(text), api=100, shaders=0, vs=0, ps=0, tmus=0, rops=0, tdp=0,
                  sources=["pci.ids"])
        row.order = (dev, 0)
        row.priority = 1
        rows.append(row)
    return _finish("vmware", rows, curated, log)


# SiS graphics: pci.ids device names list several chipsets per id
# ('661/741/760 ... or 662/761Gx ...'); each model gets its own row, the model
# number in the variant.  Discrete chips come first (rank < 10), then the
# integrated ones, each part newest first.
_SIS_MODELS = {
    0x0330: (0, ["Xabre"]),
    0x0315: (1, ["315"]),
    0x0310: (1, ["315H"]),
    0x0325: (1, ["315PRO"]),
    0x0300: (2, ["300", "305"]),
    0x6326: (3, ["6326"]),
    0x6236: (3, ["6236"]),
    0x6205: (4, ["6205"]),
    0x0205: (4, ["86C205"]),
    0x6351: (10, ["771", "671"]),
    0x6350: (11, ["770", "670"]),
    0x6330: (12, ["662", "761GX", "661", "741", "760"]),
    0x6325: (13, ["650", "M650", "740"]),
    0x6300: (14, ["630", "730"]),
    0x5315: (15, ["550"]),
    0x5300: (15, ["540"]),
    0x6306: (16, ["530", "620"]),
    0x0200: (17, ["5597", "5598"]),
}


def build_sis(src, index, curated, log):
    rows = []
    for dev_hex in src.pci.device_order.get("1039", []):
        dev = int(dev_hex, 16)
        if dev not in _SIS_MODELS:
            continue
        text = src.pci.devices[("1039", dev_hex)]
        rank, models = _SIS_MODELS[dev]
        for i, model in enumerate(models):
            name = "SiS " + (model if model != "Xabre" else "330 (Xabre)")
            row = Row(dev, name, codename=model if model != "Xabre" else "330", variant=model,
                      api=-1, shaders=-1, vs=-1, ps=-1, tmus=-1, rops=-1, tdp=0,
                      sources=["pci.ids"])
            row.gen = rank
            row.order = (dev, i)
            row.priority = 1
            row.notes.append(text)
            rows.append(row)
    return _finish("sis", rows, curated, log)


def build_lisuan(src, index, curated, log):
    # Only the curated row; pci.ids lists the series' ids (0x5000-0x5006).
    return _finish("lisuan", [], curated, log)
