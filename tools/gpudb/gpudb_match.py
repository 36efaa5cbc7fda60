"""Name normalisation and unit-count look-up by product name.

Driver lists, amdgpu.ids and the GPU-database scrapes spell the same product
differently ('NVIDIA GeForce RTX 4090 Laptop GPU' / 'GeForce RTX 4090 Mobile',
'GeForce3 Ti 200' / 'GeForce3 Ti200').  Every name is reduced to a key made of
lower-case letters and digits with the vendor prefix and laptop wording
unified; records are then joined on equal keys only (no fuzzy matching).
"""

import re

_VENDOR_PREFIX = re.compile(r"^(nvidia|amd|ati|intel|s3 graphics|moore threads)\s+")


def name_key(name):
    s = name.lower()
    s = s.replace("(tm)", " ").replace("\u00ae", " ").replace("\u2122", " ")
    s = s.strip()
    while True:
        t = _VENDOR_PREFIX.sub("", s)
        if t == s:
            break
        s = t
    s = re.sub(r"\blaptop gpu\b", "mobile", s)
    s = re.sub(r"\bwith max-q design\b", "max-q", s)
    s = re.sub(r"\bmax-q design\b", "max-q", s)
    s = re.sub(r"\bgeneration\b", "", s)
    s = re.sub(r"[^a-z0-9]+", "", s)
    return s


class UnitIndex:
    """Unit counts by name key, one index per source, first record in file order wins."""

    def __init__(self, sources):
        self.detail = {}
        for r in sources.tpu_detail:
            if r["released"]:
                self.detail.setdefault(name_key(r["name"]), []).append(r)
        self.kaggle = {}
        for r in sources.tpu_kaggle:
            key = name_key(r["vendor"] + " " + r["name"])
            self.kaggle.setdefault(key, []).append(r)
        self.listings = []
        for tag, year, recs in sources.tpu_listings:
            idx = {}
            for r in recs:
                # Only figures of products released before the scrape year.
                if r["year"] is None or r["year"] >= year:
                    continue
                idx.setdefault(name_key(r["name"]), []).append(r)
            self.listings.append((tag, idx))
        self.wiki = {}
        for r in sources.wikipedia:
            self.wiki.setdefault((r["vendor"].lower(), name_key(r["name"])), []).append(r)

    @staticmethod
    def _unique(recs, fields):
        """The records' common value of fields, or None when they disagree."""
        vals = set()
        for r in recs:
            vals.add(tuple(r.get(f) for f in fields))
        if len(vals) == 1:
            return vals.pop()
        return None

    def detail_for(self, key):
        recs = self.detail.get(key)
        if not recs:
            return None
        return recs

    def kaggle_for(self, key):
        return self.kaggle.get(key)

    def listing_for(self, key, chips=None):
        for tag, idx in self.listings:
            recs = idx.get(key)
            if recs and chips is not None:
                recs = [r for r in recs if r["chip"].lower() in chips]
            if recs:
                vals = self._unique(recs, ("shaders", "tmus", "rops"))
                if vals is not None:
                    return tag, vals
        return None

    def wiki_for(self, vendor, key, chip=None):
        """Wikipedia records of a product; with chip given, those of that die
        when any ('GeForce RTX 4080' is listed for AD103 and for the cancelled AD104 board)."""
        recs = self.wiki.get((vendor.lower(), key))
        if not recs:
            return None
        if chip:
            same = [r for r in recs if r["code"] == chip or r["code"].startswith(chip + "-")
                    or r["code"].startswith(chip + " ")]
            if same:
                return same
        return recs


def lookup_units(index, vendor, name, unified=True, want_vs_ps=False, chip=None, chips=None):
    """Unit counts for a product name.

    Returns dict with shaders, tmus, rops, tdp, vs, ps (None when unknown),
    codes (chip names seen) and sources (tags).  Sources in order of trust:
    detail pages of released cards, Wikipedia tables, the Kaggle export,
    listing pages.  Each figure comes from the first source that has it; the
    shader/TMU/ROP triple is taken from one source only.  With chips (a set of
    lower-case chip names) given, only scrape records of those chips count
    ('Radeon HD 5570' is listed on Redwood and on Turks boards)."""
    key = name_key(name)

    def of_chips(recs):
        if not recs or chips is None:
            return recs
        return [r for r in recs if r["chip"].lower() in chips]
    res = {"shaders": None, "tmus": None, "rops": None, "tdp": None,
           "vs": None, "ps": None, "codes": [], "sources": []}
    if not key:
        return res

    def take(field, value, tag):
        if value is None or res[field] is not None:
            return False
        res[field] = value
        if tag not in res["sources"]:
            res["sources"].append(tag)
        return True

    def have_units():
        return res["tmus"] is not None or res["rops"] is not None or (unified and res["shaders"] is not None)

    recs = of_chips(index.detail_for(key))
    if recs:
        r = recs[0]
        if len(recs) > 1:
            # Same name, several boards (memory variants): keep only the figures they agree on.
            agreed = {}
            for f in ("shaders", "tmus", "rops", "tdp"):
                vals = set(x[f] for x in recs)
                agreed[f] = vals.pop() if len(vals) == 1 else None
            r = dict(r, **agreed)
        if unified:
            take("shaders", r["shaders"], "tpu_detail")
        take("tmus", r["tmus"], "tpu_detail")
        take("rops", r["rops"], "tpu_detail")
        take("tdp", r["tdp"], "tpu_detail")
        for x in recs:
            if x["chip"] and x["chip"] not in res["codes"]:
                res["codes"].append(x["chip"])
    wrecs = index.wiki_for(vendor, key, chip)
    if wrecs and chips is not None:
        # Wikipedia codes: 'RV770 XT', 'Juniper (RV 840)'; some rows have none.
        wrecs = [r for r in wrecs if not r["code"] or r["code"].split()[0].lower() in chips]
    if wrecs:
        units = set(r["units"] for r in wrecs if r["units"])
        tdps = set(r["tdp"] for r in wrecs if r["tdp"])
        if unified and len(units) == 1 and not have_units():
            u = units.pop()
            take("shaders", u[0], "wikipedia")
            take("tmus", u[1], "wikipedia")
            take("rops", u[2], "wikipedia")
        if len(tdps) == 1:
            take("tdp", tdps.pop(), "wikipedia")
    krecs = of_chips(index.kaggle_for(key))
    if krecs:
        agreed = {}
        for f in ("shaders", "tmus", "rops", "vs", "ps"):
            vals = set(x[f] for x in krecs)
            agreed[f] = vals.pop() if len(vals) == 1 else None
        if not have_units():
            if unified:
                take("shaders", agreed["shaders"], "tpu_kaggle")
            take("tmus", agreed["tmus"], "tpu_kaggle")
            take("rops", agreed["rops"], "tpu_kaggle")
        if want_vs_ps:
            take("vs", agreed["vs"], "tpu_kaggle")
            take("ps", agreed["ps"], "tpu_kaggle")
    if unified and not have_units():
        hit = index.listing_for(key, chips)
        if hit:
            tag, (sh, tm, ro) = hit
            take("shaders", sh, tag)
            take("tmus", tm, tag)
            take("rops", ro, tag)
    return res


def wiki_codes(index, vendor, name):
    recs = index.wiki_for(vendor, name_key(name)) or []
    codes = []
    for r in recs:
        if r["code"] and r["code"] not in codes:
            codes.append(r["code"])
    return codes
