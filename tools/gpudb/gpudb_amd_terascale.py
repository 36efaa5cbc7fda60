"""AMD pre-GCN rows: the TeraScale chips (R600 ... Cayman/Aruba) the Linux radeon
driver lists.  Device ids and chip families from the radeon id list, product
names and codenames from pci.ids, unit counts and TDP by product name from the
GPU-database scrapes.  These chips have no revision split: the variant is empty.

One row per device id.  Where pci.ids lists several products for an id
('Radeon HD 5550/5570/5630/6510/6610/7570') the row names the first of them and
carries that product's figures.  Ids pci.ids names no product for (no entry,
a bare codename, a generic 'Graphics Adapter' name) are left out."""

import re

from gpudb_match import lookup_units
from gpudb_rows import Row, clean_name, plausible_units
from gpudb_sources import split_pci_name

# Generations, newest first, and their Linux chip families (biggest chip first
# within a generation, integrated graphics last).  api: 110 = Direct3D 11
# (Evergreen and later), 100 = Direct3D 10/10.1 (R600, R700).
GENERATIONS = [
    ("terascale3", 110, ["CAYMAN", "ARUBA"]),
    ("northern_islands", 110, ["BARTS", "TURKS", "CAICOS"]),
    ("evergreen", 110, ["HEMLOCK", "CYPRESS", "JUNIPER", "REDWOOD", "CEDAR", "SUMO", "SUMO2", "PALM"]),
    ("r700", 100, ["RV770", "RV740", "RV730", "RV710", "RS880"]),
    ("r600", 100, ["RV670", "R600", "RV635", "RV630", "RV620", "RV610", "RS780"]),
]
GENERATION_LABELS = [g for g, _, _ in GENERATIONS]

# Chip names the GPU-database scrapes use for the integrated graphics of a
# family where pci.ids uses another (the Wrestler APU's GPU is 'Loveland',
# Trinity's and Richland's are 'Devastator'/'Scrapper').
_SCRAPE_CHIPS = {
    "PALM": ["Loveland"],
    "ARUBA": ["Devastator", "Devastator Lite", "Scrapper", "Scrapper Lite"],
}

_QUALIFIERS = {"XT", "XTX", "PRO", "LE", "GL", "CE", "LP"}


def _codename(prefix):
    """'RV730/M96-XT' -> 'RV730'; 'Redwood XT GL' -> 'Redwood'; 'Trinity 2' kept."""
    text = re.sub(r"/\S+", "", prefix).strip()
    toks = text.split()
    while len(toks) > 1 and toks[-1] in _QUALIFIERS:
        toks.pop()
    return " ".join(toks)


def first_product(bracket):
    """First product of a pci.ids product list.

    'Radeon HD 2900 PRO/XT' -> 'Radeon HD 2900 PRO';
    'Radeon HD 6400M/7400M Series' -> 'Radeon HD 6400M Series';
    'Radeon HD 7470/8470 / R5 235/310 OEM' -> 'Radeon HD 7470'."""
    group = bracket.split(" / ")[0].strip()
    parts = [p.strip() for p in group.split("/")]
    name = parts[0]
    if len(parts) > 1:
        last = parts[-1].split()
        # 'Series' written once after the last alternative belongs to all of them
        # (other trailing words do not: 'Radeon HD 6730M/6770M/7690M XT').
        if len(last) == 2 and last[1] == "Series" and re.search(r"\d", last[0]) and not name.endswith(" Series"):
            name = name + " Series"
    return clean_name(name)


def _lookup_names(name, igp):
    tries = [name]
    if igp:
        tries.append(name + " IGP")
        m = re.match(r"^Mobility (Radeon .*)$", name)
        if m:
            tries.append(m.group(1) + " Mobile IGP")
    return tries


def _family_chips(src, family, devices):
    """Chip names that stand for a family in the scrapes: every codename pci.ids
    gives the family's devices ('RV770', 'RV790', 'R700', 'M98'), plus the
    scrape names of integrated parts."""
    chips = set()
    for dev in devices:
        p = src.pci.device("1002", dev)
        if not p:
            continue
        prefix = split_pci_name(p)[0]
        for tok in re.split(r"[/\s]+", prefix):
            tok = re.sub(r"-\w+$", "", tok)
            if tok and tok not in _QUALIFIERS:
                chips.add(tok.lower())
        chips.add(_codename(prefix).lower())
    for c in _SCRAPE_CHIPS.get(family, []):
        chips.add(c.lower())
    return chips


def build_rows(src, index, known_devices, gen_rank, log):
    """Rows for the pre-GCN devices; gen_rank maps the generation labels above
    to the table's generation ranks.  Devices in known_devices are skipped."""
    by_family = {}
    for dev, (family, flags) in sorted(src.radeon_ids.items()):
        by_family.setdefault(family, []).append((dev, flags))
    rows = []
    skipped = 0
    for label, api, families in GENERATIONS:
        for group, family in enumerate(families):
            members = by_family.get(family, [])
            chips = _family_chips(src, family, [d for d, _ in members])
            for dev, flags in members:
                if dev in known_devices:
                    continue
                pci_name = src.pci.device("1002", dev)
                prefix, bracket = split_pci_name(pci_name) if pci_name else ("", "")
                product = first_product(bracket) if bracket else ""
                if not product or not re.search(r"\d", product):
                    skipped += 1
                    continue
                name = "AMD " + product
                row = Row(dev, name, codename=_codename(prefix), variant="", api=api,
                          shaders=-1, vs=0, ps=0, tmus=-1, rops=-1, tdp=0)
                row.add_source("linux-radeon-pciids")
                row.add_source("pci.ids")
                _add_units(row, index, product, "RADEON_IS_IGP" in flags, chips)
                row.gen = gen_rank[label]
                row.group = group
                row.order = (dev, 0)
                row.priority = 4
                rows.append(row)
    log("amd: %d pre-GCN rows, %d radeon ids without a product name left out" % (len(rows), skipped))
    return rows


def _add_units(row, index, product, igp, chips):
    res = None
    for n in _lookup_names(product, igp):
        # Only records of this family's chips: figures of a same-named product
        # on another chip are not this device's.
        res = lookup_units(index, "AMD", n, chips=chips)
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
