"""Intel table: device ids from the Linux i915/xe id list, names from pci.ids,
platform codenames/ranks from the curated platform list, unit counts by name."""

import re

from gpudb_match import lookup_units
from gpudb_rows import Row, apply_budget, apply_curated, clean_name, order_rows, plausible_units
from gpudb_sources import split_pci_name

TABLE = "intel"

_BRAND = re.compile(r"((?:U?HD|Iris(?: Pro| Plus| Xe)?|Arc(?: Pro)?|Xe) Graphics(?: [A-Z]?\d+[A-Z]*)?|GMA [\w]+)")


def _spaced_codename(code):
    """pci.ids spells some platforms run together ('IvyBridge GT2', 'CoffeeLake-H',
    'GeminiLake'); the table uses Intel's spelling with a blank ('Ivy Bridge GT2')."""
    return re.sub(r"\b([A-Z][a-z]+)(Lake|Bridge|Trail)\b", r"\1 \2", code)


def _model_from_pci(pci_name):
    """(codename or '', model or '') from a pci.ids Intel graphics name."""
    if not pci_name:
        return "", ""
    prefix, bracket = split_pci_name(pci_name)
    if bracket:
        return prefix, bracket
    m = _BRAND.search(pci_name)
    if m:
        return "", m.group(1)
    return "", ""


def build(src, index, curated, log):
    platforms = {}
    for i, p in enumerate(curated.intel_platforms):
        platforms[p["macro"].strip()] = dict(p, index=i)
    rows = []
    for dev, macro in src.intel_ids:
        plat = platforms.get(macro)
        if plat is None:
            raise SystemExit("intel: platform %s missing from intel_platforms.csv" % macro)
        if plat["released"].strip() != "1":
            continue
        discrete = plat["segment"].strip() == "discrete"
        pci_name = src.pci.device("8086", dev)
        code, model = _model_from_pci(pci_name)
        named = bool(model) and model not in ("Intel Graphics",)
        if discrete:
            code = plat["codename"]
            if pci_name and not re.search(r"Arc|Xe|Flex|Data Center|Max|DG1|SG1|Intel Graphics",
                                          pci_name):
                named = False  # pci.ids entry names some other device
                model = ""
        if not code:
            code = plat["codename"]
        code = _spaced_codename(code)
        if not model or not named:
            model = plat["model"].strip() or (plat["codename"] + " Graphics")
        model = clean_name(re.sub(r"^Intel\s+", "", model))
        name = "Intel " + model
        api = int(plat["api_level"])
        row = Row(dev, name, codename=code, variant="" if discrete else model, api=api)
        row.add_source("linux-pciids")
        if pci_name and named:
            row.add_source("pci.ids")
        row.add_source("curated: intel_platforms")
        unified = api >= 100
        if api >= 90:
            res = lookup_units(index, "Intel", name, unified=unified, want_vs_ps=not unified)
            sh, tm, ro = res["shaders"], res["tmus"], res["rops"]
            if not plausible_units(sh, tm, ro, unified):
                sh = tm = ro = None
            row.shaders = (sh if sh is not None else -1) if unified else 0
            row.vs = 0 if unified else (res["vs"] if res["vs"] is not None else -1)
            row.ps = 0 if unified else (res["ps"] if res["ps"] is not None else -1)
            row.tmus = tm if tm is not None else -1
            row.rops = ro if ro is not None else -1
            row.tdp = res["tdp"] or 0
            for s in res["sources"]:
                row.add_source(s)
        row.gen = int(plat["rank"])
        row.group = 0
        row.order = (dev, 0)
        row.priority = 1 if named else 2
        rows.append(row)

    def gen_of(label):
        # Curated rows name a platform macro as their generation.
        p = platforms.get(label)
        return int(p["rank"]) if p else 99

    rows = apply_curated(TABLE, rows, curated, gen_of, lambda label: 0)
    rows = apply_budget(TABLE, rows, curated, log)
    return order_rows(rows)
