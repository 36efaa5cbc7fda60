"""NVIDIA table: device ids and names from the driver lists and pci.ids, unit
counts joined by product name from the GPU-database scrapes and Wikipedia."""

import collections
import re

from gpudb_match import lookup_units, wiki_codes
from gpudb_rows import Row, apply_budget, apply_curated, clean_name, order_rows, plausible_units
from gpudb_sources import split_pci_name

TABLE = "nvidia"

# Architecture generations, newest first, with the api level of each.
GENERATIONS = [
    ("blackwell", 110), ("ada", 110), ("hopper", 110), ("ampere", 110), ("turing", 110),
    ("volta", 110), ("pascal", 110), ("maxwell", 110), ("kepler", 110), ("fermi", 110),
    ("tesla", 100), ("curie", 90), ("rankine", 80), ("kelvin", -1), ("celsius", -1),
    ("fahrenheit", -1), ("unknown", -1),
]
GEN_RANK = {g: i for i, (g, _) in enumerate(GENERATIONS)}
GEN_API = dict(GENERATIONS)

GROUPS = ["workstation", "datacenter", "desktop", "mobile"]
GROUP_RANK = {g: i for i, g in enumerate(GROUPS)}

_CHIP_GEN = [
    (r"^GB\d", "blackwell"), (r"^AD\d", "ada"), (r"^GH\d", "hopper"), (r"^GA\d", "ampere"),
    (r"^TU\d", "turing"), (r"^GV\d", "volta"), (r"^GP\d", "pascal"), (r"^GM\d", "maxwell"),
    (r"^GK\d", "kepler"), (r"^GF\d", "fermi"),
    (r"^(G8\d|G9\d|GT2\d\d|C7[7-9A]|MCP7[7-9A]|MCP8\d|ION)", "tesla"),
    (r"^(NV4\d|G7\d|C5\d|C6\d|C73|MCP6\d|MCP73)", "curie"),
    (r"^NV3\d", "rankine"), (r"^NV2\d", "kelvin"), (r"^(NV1[0-9A-F]|Crush)", "celsius"),
    (r"^(NV\d|NV0[A-Z])$", "fahrenheit"),
]


def chip_generation(code):
    for pat, gen in _CHIP_GEN:
        if re.match(pat, code or ""):
            return gen
    return "unknown"


_CHIP_TOKEN = re.compile(r"^(NV\d+[A-Z]?|NV0[A-Z]|G[A-Z]?\d{2,3}[A-Z]?|GT\d{3}[A-Z]?|C\d{2}[A-Z]?|MCP\d+[A-Z]?)$")


def chip_code(pci_prefix):
    """'GB203M / GN22-X11' -> 'GB203'; 'AD104GLM' -> 'AD104'; 'GK208BM' -> 'GK208B';
    'nForce 220/420 NV1A' -> 'NV1A'."""
    toks = [t for t in re.split(r"[\s/]+", pci_prefix.strip()) if t]
    cleaned = []
    for tok in toks:
        m = re.match(r"^([A-Z]+\d+)(B?)(GLM|GLS|GLE|GL|M)?$", tok)
        cleaned.append(m.group(1) + m.group(2) if m else tok)
    for tok in cleaned:
        if _CHIP_TOKEN.match(tok):
            return tok
    return cleaned[0] if cleaned else ""


# Laptop wording in driver names; laptop dies are also told by their pci.ids codename (is_mobile_chip).
_MOBILE = re.compile(r"Laptop|Mobile|Max-Q|\bGo\b|\bGo\d|\d+M\b|\bMX\s?\d|Embedded|Notebook|\d+MX\b|GoGL|"
                     r"\d+A\b")
_DATACENTER = re.compile(r"Tesla|GRID|\bA\d{1,3}[A-Z]?\b|\bA\d{3}[-\s]|\bH\d{2,3}|\bGH\d|\bL\d{1,2}S?\b|"
                         r"\bB\d{3}|\bGB\d{2,3}\b|\bCMP\b|DGX|PG\d{3}|DRIVE|Jetson|\bAX800|HGX|"
                         r"Server Edition|\bT4\b|\bV100|\bP100|\bP40\b|\bP4\b|\bP6\b|\bK\d{1,2}0?\b|\bM\d{2}\b|\bM60|"
                         r"\bM40|\bM10\b|\bM6\b|\bT10\b|Data Center|\bG100\b")
_WORKSTATION = re.compile(r"Quadro|\bRTX A\d|\bRTX \d{3,4} Ada|\bRTX PRO\b|\bNVS\b|\bT\d{3,4}\b|"
                          r"\bRTX \d{4}D?\b(?! Ti| SUPER)|\bT\d{3}E?\b|\bT1000|\bT600|\bT400|\bTITAN\b(?=.*Quadro)")


def product_group(name):
    n = name
    if _MOBILE.search(n) and not re.search(r"Server|Workstation", n):
        return "mobile"
    if re.search(r"GeForce|TITAN", n) and not re.search(r"Quadro|Tesla", n):
        return "desktop"
    if _WORKSTATION.search(n):
        return "workstation"
    if _DATACENTER.search(n):
        return "datacenter"
    return "desktop"


def full_name(name):
    name = clean_name(name)
    if not name.startswith("NVIDIA"):
        name = "NVIDIA " + name
    return name


_PCI_GPU = re.compile(r"GeForce|Quadro|Tesla|TITAN|RTX|GRID|NVS|\bCMP\b|\b[ABHL]\d{1,3}\b|Jetson|DGX|"
                      r"\bGB\d{2,3}\b|Riva|RIVA|Vanta|\bT\d{3,4}\b|Graphics Processing Unit|\bA\d{2,3}[XG]?\b")
_PCI_NOT_GPU = re.compile(r"Audio|USB|UCSI|Bridge|SMBus|Ethernet|SATA|IDE|Memory Controller|LPC|"
                          r"Host|Serial|Co-processor|Coprocessor|Engineering Sample|NVSwitch|Switch|"
                          r"Controller$|PCIe Switch|\bOHCI\b|\bEHCI\b|nForce|Modem|Firewire|Network")


def _most_common(names):
    c = collections.Counter(names)
    best = max(c.values())
    for n in names:  # file order breaks ties
        if c[n] == best:
            return n
    return names[0]


def candidates(src):
    """Device id -> (name, name source, has device-level name, legacy branch)."""
    out = {}
    sub_names = collections.defaultdict(list)
    for dev, sv, sd, name in src.nv_released:
        if sv == 0 and sd == 0:
            if dev not in out:
                out[dev] = {"name": name, "src": "ogkm595", "device_level": True, "branch": "", "listed": True}
        else:
            sub_names[dev].append(("ogkm595", name))
    branch_of = {}
    for dev, sv, sd, name, branch in src.nv_supported:
        branch_of.setdefault(dev, branch)
        if sv == 0 and sd == 0:
            if dev not in out:
                out[dev] = {"name": name, "src": "nv550", "device_level": True, "branch": branch,
                            "listed": True}
        else:
            sub_names[dev].append(("nv550", name))
    for dev, entries in sub_names.items():
        if dev in out:
            continue
        # Named only per sub-system: one common name, else the pci.ids device
        # name (which covers every variant), else the most frequent name.
        names = [n for _, n in entries]
        pci_name = src.pci.device("10de", dev)
        bracket = split_pci_name(pci_name)[1] if pci_name else ""
        if len(set(names)) == 1 or not bracket:
            name = _most_common(names)
            tag = [t for t, n in entries if n == name][0]
        else:
            name, tag = bracket, "pci.ids"
        out[dev] = {"name": name, "src": tag, "device_level": False, "branch": branch_of.get(dev, ""),
                    "listed": True}
    for dev, c in out.items():
        if not c["branch"]:
            c["branch"] = branch_of.get(dev, "")
    for dev_hex in src.pci.device_order.get("10de", []):
        dev = int(dev_hex, 16)
        if dev in out:
            continue
        prefix, bracket = split_pci_name(src.pci.devices[("10de", dev_hex)])
        if not bracket or _PCI_NOT_GPU.search(bracket) or _PCI_NOT_GPU.search(prefix):
            continue
        if not _PCI_GPU.search(bracket):
            continue
        if chip_generation(chip_code(prefix)) == "unknown":
            continue
        out[dev] = {"name": bracket, "src": "pci.ids", "device_level": False, "branch": "pci",
                    "listed": False}
    return out


def is_mobile_chip(pci_prefix):
    """pci.ids marks laptop dies with an M suffix: 'GP104GLM', 'GK104M', 'GB203M'."""
    return any(re.match(r"^[A-Z]+\d+B?(GLM|M|BM)$", t) for t in re.split(r"[\s/]+", pci_prefix))


def _lookup_names(name, mobile_chip=False):
    """Names to try for the unit join: the full name, then each part of an
    'A/B' name, then the name without '(OEM)'-style notes.  A laptop die
    whose driver name does not say so ('Quadro P5000' on GP104GLM) is looked
    up only as '<name> Mobile': the desktop board's figures do not apply."""
    if mobile_chip and not _MOBILE.search(name):
        return [name + " Mobile"]
    tries = [name]
    bare = re.sub(r"^NVIDIA\s+", "", name)
    if "/" in bare:
        parts = [p.strip() for p in bare.split("/") if p.strip()]
        tries.extend(parts)
    t = re.sub(r"\s*\((OEM|[^)]*)\)\s*", " ", bare).strip()
    if t != bare:
        tries.append(t)
    return tries


def build(src, index, curated, log):
    rows = []
    for dev, c in sorted(candidates(src).items()):
        name = full_name(c["name"])
        pci_name = src.pci.device("10de", dev)
        prefix = split_pci_name(pci_name)[0] if pci_name else ""
        code = chip_code(prefix)
        if not code:
            # No pci.ids entry: the chip named by the GPU-database scrape.
            probe = lookup_units(index, "NVIDIA", name)
            code = "/".join(probe["codes"])
        gen = chip_generation(code)
        api = GEN_API[gen]
        row = Row(dev, name, codename=code, api=api)
        row.add_source(c["src"])
        if pci_name:
            row.add_source("pci.ids")
        unified = api >= 100
        if api >= 80:
            _fill_units(row, index, name, unified, code, is_mobile_chip(prefix))
            # A desktop SKU code from the Wikipedia tables ('GB202-300') refines the die name.
            codes = [x for x in wiki_codes(index, "NVIDIA", re.sub(r"^NVIDIA\s+", "", name))
                     if re.match(r"^[A-Z]+\d+-\d{3}$", x)]
            if len(codes) == 1 and code and codes[0].startswith(code + "-"):
                row.codename = codes[0]
                row.add_source("wikipedia")
        # else: chips before the NV30 family have no programmable shader units;
        # the scrapes' pipeline counts are not carried for them (all unknown).
        group = "mobile" if is_mobile_chip(prefix) else product_group(name)
        row.gen = GEN_RANK[gen]
        row.group = GROUP_RANK[group]
        row.order = (dev, 0)
        row.priority = _priority(c, gen)
        rows.append(row)

    def gen_of(label):
        return GEN_RANK.get(label, GEN_RANK["unknown"])

    def group_of(label):
        return GROUP_RANK.get(label, GROUP_RANK["desktop"])

    rows = apply_curated(TABLE, rows, curated, gen_of, group_of)
    rows = apply_budget(TABLE, rows, curated, log)
    return order_rows(rows)


def _fill_units(row, index, name, unified, code, mobile_chip):
    res = None
    for n in _lookup_names(name, mobile_chip):
        r = lookup_units(index, "NVIDIA", n, unified=unified, want_vs_ps=not unified, chip=code)
        if any(r[f] is not None for f in ("shaders", "tmus", "rops", "tdp", "vs", "ps")):
            res = r
            break
    if unified:
        row.vs = row.ps = 0
        row.shaders = -1
    else:
        row.shaders = 0
        row.vs = row.ps = -1
    if res is None:
        return
    sh, tm, ro = res["shaders"], res["tmus"], res["rops"]
    if not plausible_units(sh, tm, ro, unified):
        sh = tm = ro = None
    if unified:
        row.shaders = sh if sh is not None else -1
    else:
        row.vs = res["vs"] if res["vs"] is not None else -1
        row.ps = res["ps"] if res["ps"] is not None else -1
    row.tmus = tm if tm is not None else -1
    row.rops = ro if ro is not None else -1
    row.tdp = res["tdp"] or 0
    for s in res["sources"]:
        row.add_source(s)


def _priority(c, gen):
    """Size-budget priority (lower is kept first; newer generations first within a class).

    1: ids the NVIDIA driver lists name, Fermi and newer;
    2: ids only pci.ids names, Fermi and newer;
    3: driver-listed ids of the Tesla generation (G8x to GT2xx);
    4: driver-listed ids of the NV30 to G7x families;
    5: everything older, and pci.ids-only ids before Fermi."""
    rank = GEN_RANK[gen]
    if rank <= GEN_RANK["fermi"]:
        return 1 if c["listed"] else 2
    if not c["listed"]:
        return 5
    if gen == "tesla":
        return 3
    if GEN_API[gen] >= 80:
        return 4
    return 5
