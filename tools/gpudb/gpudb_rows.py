"""Row model, curated-file handling, ordering and size budgets shared by all tables."""

import csv
import os
import re

NUM_FIELDS = ("api", "shaders", "vs", "ps", "tmus", "rops", "tdp")
TEXT_FIELDS = ("codename", "variant", "name")

# Column names used in the curated CSV files -> Row attribute.
CURATED_FIELD = {
    "codename": "codename",
    "variant": "variant",
    "adapter_name": "name",
    "api_level": "api",
    "shaders": "shaders",
    "vertex_shaders": "vs",
    "pixel_shaders": "ps",
    "tmus": "tmus",
    "rops": "rops",
    "tdp": "tdp",
}


class Row:
    __slots__ = ("device_id", "codename", "variant", "name", "api", "shaders", "vs", "ps",
                 "tmus", "rops", "tdp", "sources", "gen", "group", "order", "priority", "notes")

    def __init__(self, device_id, name, codename="", variant="", api=-1, shaders=-1, vs=-1, ps=-1,
                 tmus=-1, rops=-1, tdp=0, sources=None, gen=0, group=0, order=(), priority=5):
        self.device_id = device_id
        self.name = name
        self.codename = codename
        self.variant = variant
        self.api = api
        self.shaders = shaders
        self.vs = vs
        self.ps = ps
        self.tmus = tmus
        self.rops = rops
        self.tdp = tdp
        self.sources = list(sources or [])
        self.gen = gen
        self.group = group
        self.order = order
        self.priority = priority
        self.notes = []

    def add_source(self, tag):
        if tag and tag not in self.sources:
            self.sources.append(tag)

    def key(self):
        return (self.device_id, self.variant)

    def sort_key(self):
        """Generation, group, then the builder's order (device id first), newest generation first."""
        return (self.gen, self.group) + tuple(self.order) + (self.variant, self.name)


def hex_or_int(text):
    t = text.strip()
    if t in ("-1", ""):
        return -1
    return int(t, 16) if t.lower().startswith("0x") else int(t)


def read_csv(path):
    """Rows of a curated CSV as dicts; '#' lines are comments."""
    if not os.path.exists(path):
        return []
    with open(path, encoding="utf-8", newline="") as f:
        lines = [ln for ln in f if not ln.lstrip().startswith("#")]
    return list(csv.DictReader(lines))


class Curated:
    def __init__(self, curated_dir):
        self.dir = curated_dir
        self.chips = read_csv(os.path.join(curated_dir, "chips.csv"))
        self.overrides = read_csv(os.path.join(curated_dir, "overrides.csv"))
        self.exclusions = read_csv(os.path.join(curated_dir, "exclusions.csv"))
        self.boards = read_csv(os.path.join(curated_dir, "boards.csv"))
        self.makers = read_csv(os.path.join(curated_dir, "board_makers.csv"))
        self.sizes = {r["table"].strip(): int(r["rows"]) for r in
                      read_csv(os.path.join(curated_dir, "table_sizes.csv"))}
        self.intel_platforms = read_csv(os.path.join(curated_dir, "intel_platforms.csv"))

    def chips_for(self, table):
        return [r for r in self.chips if r["table"].strip() == table]

    def overrides_for(self, table):
        return [r for r in self.overrides if r["table"].strip() == table]

    def excluded(self, table):
        out = set()
        for r in self.exclusions:
            if r["table"].strip() == table:
                out.add((hex_or_int(r["device_id"]), r.get("variant", "").strip()))
        return out


def curated_row(rec, gen_of, group_of, position=0):
    """Row from a chips.csv record; gen_of/group_of map labels to ranks."""
    # Text cells may carry meaningful trailing blanks; only a leading/trailing
    # quote-free strip of the CSV reader applies.
    row = Row(hex_or_int(rec["device_id"]), rec["adapter_name"])
    row.codename = rec["codename"]
    row.variant = rec["variant"]
    for col, attr in CURATED_FIELD.items():
        if attr in NUM_FIELDS:
            setattr(row, attr, int(rec[col]))
    row.gen = gen_of(rec.get("generation", "").strip())
    row.group = group_of(rec.get("group", "").strip())
    # Curated rows sort by device id among the generated ones; unknown ids last.
    row.order = (row.device_id if row.device_id >= 0 else 0x10000, (1 << 20) + position)
    row.priority = 0
    row.sources = ["curated: " + rec["source"].strip()]
    return row


def apply_curated(table, rows, curated, gen_of, group_of):
    """Apply overrides, exclusions and curated rows of a table.

    A curated row with the (device, variant) of a generated row replaces it in
    place (its generation/group, when empty, are taken from the replaced row);
    otherwise it is added."""
    excluded = curated.excluded(table)
    rows = [r for r in rows if r.key() not in excluded]
    by_key = {}
    for r in rows:
        by_key.setdefault(r.key(), r)
    for ov in curated.overrides_for(table):
        key = (hex_or_int(ov["device_id"]), ov["variant"])
        target = by_key.get(key)
        if target is None:
            raise SystemExit("override for missing row %s %r" % (table, key))
        attr = CURATED_FIELD[ov["field"].strip()]
        value = ov["value"]
        if attr in NUM_FIELDS:
            value = int(value)
        setattr(target, attr, value)
        target.add_source("curated: " + ov["source"].strip())
        target.priority = min(target.priority, 1)
        if attr == "variant":
            del by_key[key]
            by_key.setdefault(target.key(), target)
    out = list(rows)
    for position, rec in enumerate(curated.chips_for(table)):
        new = curated_row(rec, gen_of, group_of, position)
        old = by_key.get(new.key()) if new.device_id >= 0 else None
        if old is not None:
            if not rec.get("generation", "").strip():
                new.gen = old.gen
            if not rec.get("group", "").strip():
                new.group = old.group
            new.order = old.order
            new.sources = new.sources + [s for s in old.sources if s not in new.sources]
            out[out.index(old)] = new
        else:
            out.append(new)
        by_key[new.key()] = new
    return out


def apply_budget(table, rows, curated, log):
    """Keep at most the table's size budget (rows without the terminator).

    Rows are kept by (priority, generation, group, order); the rest are dropped
    and reported.  Size 0 or absent = no limit."""
    size = curated.sizes.get(table, 0)
    if size <= 0:
        return rows
    limit = size - 1
    if len(rows) <= limit:
        log("%s: %d rows (budget %d, %d short)" % (table, len(rows), limit, limit - len(rows)))
        return rows
    ranked = sorted(rows, key=lambda r: (r.priority,) + r.sort_key())
    keep = ranked[:limit]
    dropped = ranked[limit:]
    log("%s: %d candidate rows, %d kept, %d dropped (lowest priority %d)" % (
        table, len(rows), len(keep), len(dropped), min(r.priority for r in dropped)))
    keep_ids = set(id(r) for r in keep)
    return [r for r in rows if id(r) in keep_ids]


def order_rows(rows):
    return sorted(rows, key=lambda r: r.sort_key())


def plausible_units(shaders, tmus, rops, unified):
    """False for figure sets that cannot be right (TMUs above shaders on a unified
    chip, more than 256 ROPs)."""
    if rops is not None and rops > 256:
        return False
    if unified and shaders is not None and tmus is not None and shaders > 0 and tmus > shaders:
        return False
    return True


def clean_name(name):
    return re.sub(r"\s+", " ", name).strip()
