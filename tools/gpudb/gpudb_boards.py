"""Board (sub-system) marketing-name tables.

Rows come from the NVIDIA driver name lists (boards named per sub-system),
pci.ids sub-system entries of the board makers listed in
curated/board_makers.csv, and the curated board list.  Each table starts with
the chip maker's own boards, then the board makers' cards grouped by maker."""

import re

from gpudb_match import name_key
from gpudb_rows import clean_name, hex_or_int
from gpudb_sources import VGPU_PROFILE, split_pci_name

CHIP_MAKER = {"nvidia": 0x10DE, "amd": 0x1002, "intel": 0x8086, "moore_threads": 0x1ED5}


class Board:
    __slots__ = ("vendor", "device", "subvendor", "subdevice", "revision", "name", "sources",
                 "priority", "maker", "order")

    def __init__(self, vendor, device, subvendor, subdevice, revision, name, source, priority, maker):
        self.vendor = vendor
        self.device = device
        self.subvendor = subvendor
        self.subdevice = subdevice
        self.revision = revision
        self.name = name
        self.sources = [source]
        self.priority = priority
        self.maker = maker
        self.order = 0

    def key(self):
        return (self.device, self.subvendor, self.subdevice, self.revision)


def _makers(curated):
    out = {}
    for r in curated.makers:
        out[int(r["subvendor"], 16)] = (r["short_name"].strip(), r["kind"].strip())
    return out


def _model_text(text):
    """Board model from a pci.ids sub-system name: the bracketed product when
    the name leads with a chip or part number."""
    prefix, bracket = split_pci_name(text)
    return bracket if bracket else text


def _strip_brand(model, vendor_words):
    m = model
    for w in vendor_words:
        m = re.sub(r"\b" + w + r"\s+", "", m)
    return clean_name(m)


def _with_maker(maker, model):
    if model.lower().startswith(maker.lower() + " ") or model.lower() == maker.lower():
        return model
    return maker + " " + model


def _amd_model_key(name):
    k = name_key(re.sub(r"\((TM)\)|\bAMD\b|\bRadeon\b|\bGraphics\b|\bSeries\b|\bATI\b", " ", name))
    return k


def _amd_revision(src, device, text):
    """Revision of an AMD board from its product text, matched against the
    product names amdgpu.ids gives each revision of the device."""
    revs = [(r, n) for d, r, n in src.amdgpu_ids if d == device]
    if not revs:
        return None
    tkey = name_key(re.sub(r"\bRadeon\b|\bAMD\b", " ", text))
    best = None
    for rev, name in revs:
        k = _amd_model_key(name)
        if not k or k not in tkey:
            continue
        # The revision's model must not be a prefix of a longer model in the text
        # ('rx7900xt' inside 'rx7900xtx').
        pos = tkey.find(k)
        tail = tkey[pos + len(k):pos + len(k) + 1]
        if tail.isalnum() and not tail.isdigit() and tail in "xtse":
            continue
        if best is None or len(k) > len(best[1]):
            best = (rev, k)
    if best:
        return best[0]
    if len(set(r for r, _ in revs)) == 1:
        return revs[0][0]
    return None


def build_nvidia(src, db_rows, curated, log):
    makers = _makers(curated)
    db_devices = set(r.device_id for r in db_rows if r.device_id >= 0)
    db_name = {}
    for r in db_rows:
        db_name.setdefault(r.device_id, r.name)
    out = []
    # NVIDIA board numbers: (device, sub-device) pairs listed under NVIDIA's own sub-vendor id.
    own = set((dev, sd) for dev, sv, sd, name in src.nv_released if sv == 0x10DE)
    own |= set((dev, sd) for dev, sv, sd, name, b in src.nv_supported if sv == 0x10DE)
    # Boards the driver lists name per sub-system.
    for dev, sv, sd, name in src.nv_released:
        if sv == 0 or dev not in db_devices or VGPU_PROFILE.search(name):
            continue
        out.append(_nv_board(dev, sv, sd, name, "ogkm595", makers, db_name, own))
    for dev, sv, sd, name, branch in src.nv_supported:
        if sv == 0 or dev not in db_devices or VGPU_PROFILE.search(name):
            continue
        out.append(_nv_board(dev, sv, sd, name, "nv550", makers, db_name, own))
    from gpudb_nvidia import GROUP_RANK
    laptop = set(r.device_id for r in db_rows if r.group == GROUP_RANK["mobile"])
    maker_names = sorted(set(m for m, k in makers.values() if k == "board"))
    # Retail boards from pci.ids.
    for device, sv, sd, text in src.pci.subsystems.get("10de", []):
        dev = int(device, 16)
        svi = int(sv, 16)
        if dev not in db_devices or svi not in makers or VGPU_PROFILE.search(text):
            continue
        maker, kind = makers[svi]
        if kind not in ("board", "chip") or (kind == "chip" and svi != 0x10DE):
            continue
        if kind == "board" and dev in laptop:
            continue  # a laptop's sub-system, not an add-in board
        model = _strip_brand(_model_text(text), ["NVIDIA", "GeForce"]) if kind == "board" else \
            clean_name(_model_text(text))
        if kind == "chip":
            if not re.search(r"GeForce|Quadro|Tesla|TITAN|RTX|GTX|GT |NVS|GRID|\b[ABHLT]\d", model):
                continue  # not a product name
            if any(model.startswith(m + " ") for m in maker_names):
                # A board maker's card carrying NVIDIA's sub-vendor id.
                out.append(Board(0x10DE, dev, svi, int(sd, 16), "00", model, "pci.ids", 2,
                                 model.split()[0]))
                continue
            name = model if model.startswith("NVIDIA") else "NVIDIA " + model
            if "GeForce" not in name and re.match(r"NVIDIA (RTX|GTX|GT) \d", name):
                name = name.replace("NVIDIA ", "NVIDIA GeForce ", 1)
            rev, prio = "A1", 1
        else:
            name = _with_maker(maker, model)
            rev, prio = "00", 2
        b = Board(0x10DE, dev, svi, int(sd, 16), rev, name, "pci.ids", prio, maker)
        out.append(b)
    return _finish("nvidia", out, src, curated, makers, log)


def _nv_board(dev, sv, sd, name, tag, makers, db_name, own):
    name = clean_name(name)
    if not name.startswith("NVIDIA"):
        name = "NVIDIA " + name
    maker = makers.get(sv, ("", "oem"))[0] or ("%04X" % sv)
    if sv == 0x10DE:
        prio = 1
    elif (dev, sd) in own:
        prio = 3  # an NVIDIA board resold by a system maker
    elif db_name.get(dev) and name != db_name[dev]:
        prio = 4  # a system maker's name that differs from the chip's name
    else:
        prio = 5
    b = Board(0x10DE, dev, sv, sd, "A1" if sv == 0x10DE else "00", name, tag, prio, maker)
    return b


def build_amd(src, db_rows, curated, log):
    makers = _makers(curated)
    db_devices = set(r.device_id for r in db_rows if r.device_id >= 0)
    # APUs: their sub-systems name motherboards and laptops, not boards.
    apus = set(d for (d, r), v in src.gpuopen.items() if v["apu"])
    out = []
    for device, sv, sd, text in src.pci.subsystems.get("1002", []):
        dev = int(device, 16)
        svi = int(sv, 16)
        if dev not in db_devices or svi not in makers or dev in apus:
            continue
        maker, kind = makers[svi]
        if kind not in ("board", "chip") or (kind == "chip" and svi != 0x1002):
            continue
        model = _model_text(text)
        # 'RX 7900 XTX / RX 7900 GRE' names one board for two chips: one row each.
        parts = [p.strip() for p in model.split(" / ")] if " / " in model else [model]
        for part in parts:
            rev = _amd_revision(src, dev, part)
            if rev is None:
                continue
            m = _strip_brand(part, ["AMD", "Radeon", "ATI"])
            if not re.search(r"\d", m) or re.search(r"Motherboard|laptop", m, re.I):
                continue
            if kind == "board" and re.search(r"\d{3,4}M\b", m):
                continue  # a laptop's sub-system
            name = _with_maker(maker, m)
            b = Board(0x1002, dev, svi, int(sd, 16), rev, name, "pci.ids; amdgpu.ids",
                      1 if kind == "chip" else 2, maker)
            out.append(b)
    return _finish("amd", out, src, curated, makers, log)


def build_intel(src, db_rows, curated, log):
    makers = _makers(curated)
    db_devices = set(r.device_id for r in db_rows if r.device_id >= 0)
    out = []
    for device, sv, sd, text in src.pci.subsystems.get("8086", []):
        dev = int(device, 16)
        svi = int(sv, 16)
        if dev not in db_devices or svi not in makers:
            continue
        pci_dev = src.pci.device("8086", dev) or ""
        if not re.search(r"Arc|DG1|DG2|Battlemage", pci_dev):
            continue  # integrated graphics: sub-systems name laptops, not boards
        maker, kind = makers[svi]
        if kind not in ("board", "chip") or (kind == "chip" and svi != 0x8086):
            continue
        model = clean_name(_model_text(text))
        model = re.sub(r"^(?!Arc )([AB]\d{3}[A-Z]?\b)", r"Arc \1", model)
        name = _with_maker(maker, model)
        out.append(Board(0x8086, dev, svi, int(sd, 16), "00", name, "pci.ids",
                         1 if kind == "chip" else 2, maker))
    return _finish("intel", out, src, curated, makers, log)


def build_moore_threads(src, db_rows, curated, log):
    makers = _makers(curated)
    return _finish("moore_threads", [], src, curated, makers, log)


def _finish(table, boards, src, curated, makers, log):
    chip = CHIP_MAKER[table]
    for i, r in enumerate(curated.boards):
        if r["table"].strip() != table:
            continue
        sv = hex_or_int(r["subvendor"])
        b = Board(hex_or_int(r["vendor"]), hex_or_int(r["device"]), sv, hex_or_int(r["subdevice"]),
                  r["revision"].strip(), r["marketing_name"], "curated: " + r["source"].strip(), 0,
                  makers.get(sv, ("%04X" % sv, ""))[0])
        # Curated rows replace generated rows with the same key.
        boards = [x for x in boards if x.key() != b.key()]
        boards.append(b)
    # First row per key wins among generated rows (driver lists before pci.ids).
    seen = {}
    uniq = []
    for b in boards:
        k = b.key()
        if k in seen:
            if b.sources[0] not in seen[k].sources:
                seen[k].sources.append(b.sources[0])
            continue
        seen[k] = b
        uniq.append(b)
    for b in uniq:
        if "%" in b.name:
            raise SystemExit("board name with a percent sign: %r" % b.name)
    size = curated.sizes.get("board_names_" + table, 0)
    if size > 0 and len(uniq) > size - 1:
        ranked = sorted(uniq, key=lambda b: (b.priority, -b.device, b.subvendor, b.subdevice, b.revision))
        keep = set(id(b) for b in ranked[:size - 1])
        log("board_names_%s: %d candidate rows, %d kept" % (table, len(uniq), size - 1))
        uniq = [b for b in uniq if id(b) in keep]
    else:
        log("board_names_%s: %d rows (budget %d)" % (table, len(uniq), max(size - 1, 0)))

    def group(b):
        return (0, "") if b.subvendor == chip else (1, b.maker.lower())

    return sorted(uniq, key=lambda b: (group(b), -b.device, b.subdevice, b.revision, b.name))
