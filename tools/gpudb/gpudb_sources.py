"""Readers for the public GPU data files the tables are built from.

Every reader returns plain lists/dicts in file order so that the generator can
stay deterministic: nothing here depends on set or dict iteration order of
anything but the input files themselves.
"""

import csv
import glob
import json
import os
import re


def _open_text(path):
    return open(path, encoding="utf-8", errors="replace", newline="")


def _one(sources_dir, pattern):
    """Path of the single source file matching pattern (sorted, first wins)."""
    hits = sorted(glob.glob(os.path.join(sources_dir, pattern)))
    if not hits:
        raise SystemExit("missing source file: %s in %s" % (pattern, sources_dir))
    return hits[0]


class PciIds:
    """pci.ids: vendor names, device names and subsystem names."""

    def __init__(self, path):
        self.vendors = {}          # "10de" -> name
        self.devices = {}          # ("10de", "2b85") -> "GB202 [GeForce RTX 5090]"
        self.device_order = {}     # vendor -> [device, ...] in file order
        self.subsystems = {}       # vendor -> [(device, subvendor, subdevice, name)]
        vendor = None
        device = None
        with _open_text(path) as f:
            for raw in f:
                line = raw.rstrip("\n")
                if not line.strip() or line.startswith("#"):
                    continue
                if line.startswith("C "):
                    break  # device classes follow; not needed
                if not line.startswith("\t"):
                    m = re.match(r"([0-9a-fA-F]{4})\s+(.*)", line)
                    if not m:
                        continue
                    vendor = m.group(1).lower()
                    self.vendors[vendor] = m.group(2).strip()
                    self.device_order.setdefault(vendor, [])
                    device = None
                    continue
                if line.startswith("\t\t"):
                    parts = line.strip().split(None, 2)
                    if vendor is None or device is None or len(parts) < 3:
                        continue
                    self.subsystems.setdefault(vendor, []).append(
                        (device, parts[0].lower(), parts[1].lower(), parts[2].strip()))
                    continue
                m = re.match(r"\t([0-9a-fA-F]{4})\s+(.*)", line)
                if m and vendor is not None:
                    device = m.group(1).lower()
                    self.devices[(vendor, device)] = m.group(2).strip()
                    self.device_order[vendor].append(device)

    def device(self, vendor, device_id):
        return self.devices.get((vendor, "%04x" % device_id))


def split_pci_name(text):
    """'GB202 [GeForce RTX 5090]' -> ('GB202', 'GeForce RTX 5090').

    Names without a bracket give (text, '')."""
    m = re.match(r"^(.*?)\s*\[(.*)\]\s*(.*)$", text)
    if not m:
        return text.strip(), ""
    return m.group(1).strip(), (m.group(2) + (" " + m.group(3) if m.group(3) else "")).strip()


def read_amdgpu_ids(path):
    """amdgpu.ids -> [(device, 'C0', name)] in file order, duplicates dropped."""
    rows = []
    seen = set()
    with _open_text(path) as f:
        for raw in f:
            line = raw.strip()
            if not line or line.startswith("#"):
                continue
            parts = [p.strip() for p in line.split(",", 2)]
            if len(parts) != 3:
                continue
            try:
                dev = int(parts[0], 16)
            except ValueError:
                continue
            rev = parts[1].upper()
            key = (dev, rev)
            if key in seen:
                continue
            seen.add(key)
            rows.append((dev, rev, parts[2]))
    return rows


def read_gpuopen(path):
    """GPUOpen device info -> {(device, 'C0'): record}; record keeps file order index."""
    out = {}
    with _open_text(path) as f:
        for i, r in enumerate(csv.DictReader(f)):
            try:
                dev = int(r["device_id"], 16)
                cus = int(r["num_CUs"])
            except (ValueError, KeyError):
                continue
            key = (dev, r["revision_id"].strip().upper())
            if key in out:
                continue
            out[key] = {
                "order": i,
                "asic": r["asic_type"].strip(),
                "generation": r["generation"].strip(),
                "apu": r["is_apu"].strip().lower() == "true",
                "cal": r["cal_name"].strip(),
                "name": r["marketing_name"].strip(),
                "cus": cus,
            }
    return out


def read_radeon_pciids(path):
    out = {}
    with _open_text(path) as f:
        for r in csv.DictReader(f):
            try:
                out[int(r["device_id"], 16)] = (r["chip_family"].strip(), r["flags"].strip())
            except (ValueError, KeyError):
                continue
    return out


def read_intel_pciids(path):
    """Linux i915/xe id list -> [(device, platform macro)] in file order."""
    out = []
    seen = set()
    with _open_text(path) as f:
        for r in csv.DictReader(f):
            try:
                dev = int(r["device_id"], 16)
            except (ValueError, KeyError):
                continue
            if dev in seen:
                continue
            seen.add(dev)
            out.append((dev, r["kernel_id_macro"].strip()))
    return out


# vGPU profiles: 'NVIDIA L40-8', 'RTX6000-Ada-24Q', 'B300X-1-34CME', 'DC-1-8Q', 'GRID ...'.
# Board names that merely end in a number ('A100-SXM4-40GB', 'PG506-232') are kept.
VGPU_PROFILE = re.compile(r"(?<!PG\d\d\d)-\d+(-\d+)?(Q|A|B|C|CME|ME)?$|\bDC-\d|^GRID |-\d+B\d$")


def read_nvidia_released(path):
    """open-gpu-kernel-modules name list -> [(device, subvendor, subdevice, name)].

    vGPU profile rows ('...-8Q', 'DC-1-24C', 'GRID T4-2B4') and the
    GeForce profile names they carry on data-centre ids are left out."""
    out = []
    with _open_text(path) as f:
        rows = list(csv.DictReader(f))
    # A data-centre board id that also lists vGPU profiles has its GeForce
    # profile names ('NVIDIA GeForce RTX 3050' on an L40) dropped as well.
    profiled = set()
    for r in rows:
        if r["subsys_vendor_id"] != "0000" and VGPU_PROFILE.search(r["name"]):
            profiled.add(r["device_id"].upper())
    for r in rows:
        name = r["name"].strip()
        if VGPU_PROFILE.search(name):
            continue
        sv = int(r["subsys_vendor_id"], 16)
        sd = int(r["subsys_device_id"], 16)
        dev = int(r["device_id"], 16)
        if sv and r["device_id"].upper() in profiled and "GeForce" in name:
            continue
        out.append((dev, sv, sd, name))
    return out


def read_nvidia_supported(path):
    """supported-gpus.json -> [(device, subvendor or 0, subdevice or 0, name, legacy branch)]."""
    with _open_text(path) as f:
        data = json.load(f)
    out = []
    for c in data.get("chips", []):
        try:
            dev = int(c["devid"], 16)
        except (KeyError, ValueError):
            continue
        sv = int(c.get("subvendorid", "0x0"), 16)
        sd = int(c.get("subdevid", "0x0"), 16)
        out.append((dev, sv, sd, c.get("name", "").strip(), c.get("legacybranch", "")))
    return out


def _int_or_none(text):
    m = re.match(r"^\s*(\d+)\s*$", text or "")
    return int(m.group(1)) if m else None


def _watts(text):
    m = re.match(r"^\s*(\d+)\s*W\s*$", text or "")
    return int(m.group(1)) if m else None


def read_tpu_detail(path):
    """Detail-page scrape: one record per board, file order kept."""
    out = []
    with _open_text(path) as f:
        for i, r in enumerate(csv.DictReader(f)):
            year = None
            m = re.search(r"(19|20)\d\d", r.get("graphics_card.release_date", ""))
            if m:
                year = int(m.group(0))
            out.append({
                "order": i,
                "name": r["gpu_name"].strip(),
                "chip": r["graphics_processor.gpu_name"].strip(),
                "variant": r["graphics_processor.gpu_variant"].split("\n")[0].strip(),
                "arch": r["graphics_processor.architecture"].strip(),
                "shaders": _int_or_none(r["render_config.shading_units"]),
                "tmus": _int_or_none(r["render_config.tmus"]),
                "rops": _int_or_none(r["render_config.rops"]),
                "tdp": _watts(r["board_design.tdp"]),
                "year": year,
                "igp": "IGP" in r.get("graphics_card.generation", "") or r.get("board_design.slot_width", "") == "IGP",
                # Pages of cards not yet released when scraped carry placeholder figures.
                "released": r.get("graphics_card.production", "").strip() != "Unreleased"
                and r.get("graphics_card.release_date", "").strip() != "Never Released",
            })
    return out


def read_tpu_kaggle(path):
    """Kaggle export of the same database: gives vertex/pixel shader counts."""
    out = []
    with open(path, encoding="utf-8-sig", errors="replace", newline="") as f:
        for i, r in enumerate(csv.DictReader(f)):
            out.append({
                "order": i,
                "vendor": r["manufacturer"].strip(),
                "name": r["productName"].strip(),
                "chip": r["gpuChip"].strip(),
                "shaders": _int_or_none(r["unifiedShader"]),
                "tmus": _int_or_none(r["tmu"]),
                "rops": _int_or_none(r["rop"]),
                "ps": _int_or_none(r["pixelShader"]),
                "vs": _int_or_none(r["vertexShader"]),
                "year": _int_or_none(r["releaseYear"]),
            })
    return out


def _listing_units(text):
    nums = [int(x) for x in re.findall(r"\d+", text or "")]
    # "Shaders / TMUs / ROPs": three numbers for unified chips; four for
    # pre-unified ones (pixel / vertex / TMUs / ROPs).
    if len(nums) == 3:
        return {"shaders": nums[0], "tmus": nums[1], "rops": nums[2]}
    return None


def read_tpu_listings(sources_dir):
    """Listing-page scrapes: (scrape year, records).  Used only for products
    released at least a year before the scrape (pre-release figures in these
    pages are known to be wrong)."""
    out = []
    csv_path = _one(sources_dir, "tpu_listing_*.csv")
    m = re.search(r"_(20\d\d)-\d\d", csv_path)
    csv_year = int(m.group(1)) if m else 0
    recs = []
    with _open_text(csv_path) as f:
        for i, r in enumerate(csv.DictReader(f)):
            y = re.search(r"(19|20)\d\d", r.get("Released", ""))
            u = _listing_units(r.get("Shaders / TMUs / ROPs", ""))
            if u is None:
                continue
            recs.append(dict(u, order=i, name=r["Product Name"].strip(),
                             chip=r["GPU Chip"].strip(), year=int(y.group(0)) if y else None))
    out.append(("tpu_listing_2023", csv_year, recs))
    json_path = _one(sources_dir, "tpu_listing_*.json")
    m = re.search(r"_(20\d\d)-\d\d", json_path)
    json_year = int(m.group(1)) if m else 0
    with _open_text(json_path) as f:
        data = json.load(f)
    recs = []
    for i, r in enumerate(data):
        y = re.search(r"(19|20)\d\d", str(r.get("Released", "")))
        u = _listing_units(r.get("Shaders / TMUs / ROPs", ""))
        if u is None:
            continue
        recs.append(dict(u, order=i, name=str(r.get("Product Name", "")).strip(),
                         chip=str(r.get("GPU Chip", "")).strip(), year=int(y.group(0)) if y else None))
    out.append(("tpu_listing_2024", json_year, recs))
    return out


def _first_int(text):
    m = re.search(r"\d+", str(text))
    return int(m.group(0)) if m else None


def read_wikipedia(path):
    """Wikipedia-derived tables: keep records whose model name and unified core
    configuration (shaders:TMUs:ROPs:...) parse cleanly."""
    with _open_text(path) as f:
        data = json.load(f)
    out = []
    for i, (key, v) in enumerate(data.items()):
        vendor = v.get("Vendor", "")
        name = None
        code = None
        for k in ("Model name", "Model"):
            val = v.get(k)
            if isinstance(val, str) and val not in ("nan", ""):
                name = val
                break
        for k, val in v.items():
            if k.startswith("Model (Code name)") and isinstance(val, str) and val != "nan":
                m = re.match(r"^(.*?)\s*\((.*)\)\s*$", val)
                if m:
                    name, code = m.group(1), m.group(2)
                else:
                    name = val
        if code is None:
            cn = v.get("Code name")
            if isinstance(cn, str) and cn not in ("nan", ""):
                code = cn
        if not name:
            continue
        config = None
        for k in ("Core config", "Core Config"):
            val = v.get(k)
            if isinstance(val, str) and val != "nan":
                config = val
        units = None
        if config:
            m = re.match(r"^\s*(\d+)\s*:\s*(\d+)\s*:\s*(\d+)\s*:\s*(\d+)", config)
            if m:
                units = tuple(int(m.group(j)) for j in (1, 2, 3))
        tdp = None
        for k in ("TDP (Watts)", "TDP", "TBP", "TDP (W)"):
            val = v.get(k)
            if val is None or val == "nan":
                continue
            s = str(val).strip()
            if re.match(r"^\d+(\.0)?(\s*W)?$", s):
                tdp = int(float(s.replace("W", "").strip()))
            break
        out.append({"order": i, "key": key, "vendor": vendor, "name": name.strip(),
                    "code": (code or "").strip(), "units": units, "tdp": tdp})
    return out


class Sources:
    """All inputs, read once."""

    def __init__(self, sources_dir):
        d = sources_dir
        self.dir = d
        self.pci = PciIds(_one(d, "pci.ids"))
        self.amdgpu_ids = read_amdgpu_ids(_one(d, "amdgpu.ids"))
        self.gpuopen = read_gpuopen(_one(d, "amd_gpuopen_device_info_*.csv"))
        self.radeon_ids = read_radeon_pciids(_one(d, "linux-*_radeon_pciids.csv"))
        self.intel_ids = read_intel_pciids(_one(d, "linux-*_intel_pciids.csv"))
        self.nv_released = read_nvidia_released(_one(d, "nvidia_ogkm*_nv_name_released.csv"))
        self.nv_supported = read_nvidia_supported(_one(d, "nvidia-supported-gpus-*.json"))
        self.tpu_detail = read_tpu_detail(_one(d, "tpu_detail_*.csv"))
        self.tpu_kaggle = read_tpu_kaggle(_one(d, "tpu_kaggle_*.csv"))
        self.tpu_listings = read_tpu_listings(d)
        self.wikipedia = read_wikipedia(_one(d, "wikipedia_*.json"))
