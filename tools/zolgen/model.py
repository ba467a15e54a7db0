"""The schema model: reads the TOML families, resolves type references and validates them."""

import keyword
import re
import tomllib
from dataclasses import dataclass, field
from pathlib import Path

CPP_KEYWORDS = set("""
alignas alignof and and_eq asm auto bitand bitor bool break case catch char char8_t char16_t
char32_t class compl concept const consteval constexpr constinit const_cast continue co_await
co_return co_yield decltype default delete do double dynamic_cast else enum explicit export extern
false float for friend goto if inline int long mutable namespace new noexcept not not_eq nullptr
operator or or_eq private protected public register reinterpret_cast requires return short signed
sizeof static static_assert static_cast struct switch template this thread_local throw true try
typedef typeid typename union unsigned using virtual void volatile wchar_t while xor xor_eq
""".split())

# Builtin type names: (C++ spelling, kind). 'prim' types are passed by value.
BUILTINS = {
    "bool": ("bool", "prim"),
    "U8": ("Zol::U8", "prim"),
    "U16": ("Zol::U16", "prim"),
    "U32": ("Zol::U32", "prim"),
    "U64": ("Zol::U64", "prim"),
    "S8": ("Zol::S8", "prim"),
    "S16": ("Zol::S16", "prim"),
    "S32": ("Zol::S32", "prim"),
    "S64": ("Zol::S64", "prim"),
    "double": ("double", "prim"),
    "Seconds": ("Zol::Seconds", "prim"),
    "String": ("Zol::String", "string"),
    "Name": ("Zol::Name", "string"),
}
INTEGER_BUILTINS = {"U8", "U16", "U32", "U64", "S8", "S16", "S32", "S64"}
INTEGER_LIMITS = {f"U{b}": (0, 2**b - 1) for b in (8, 16, 32, 64)}
INTEGER_LIMITS.update({f"S{b}": (-2**(b - 1), 2**(b - 1) - 1) for b in (8, 16, 32, 64)})

IDENT = re.compile(r"^[A-Za-z_][A-Za-z0-9_]*$")


class SchemaError(Exception):
    pass


@dataclass
class TypeRef:
    """A resolved type: its C++ spelling and what kind of thing it is."""
    cpp: str
    kind: str  # prim, string, enum, range, value, extern, entity, ref
    decl: object = None  # the declaration for schema types
    builtin: str = ""

    @property
    def by_value(self):
        return self.kind in ("prim", "enum", "range")

    def param(self):
        return self.cpp if self.by_value else f"{self.cpp} const&"


@dataclass
class Field:
    name: str
    type: TypeRef = None
    type_name: str = ""
    default: object = None
    default_expr: str = ""
    min: object = None
    max: object = None
    error: str = ""
    array: int = 0
    index: TypeRef = None
    index_name: str = ""
    count_field: str = ""
    key: TypeRef = None
    key_name: str = ""
    setter: bool = True
    internal: bool = False
    # Other JSON forms of an integer: names for some numbers ({tcp = 6}), a list of bit names
    # (bit i is bits[i]), "0x" text. And, for messages about input values, what the field takes.
    names: dict = field(default_factory=dict)
    bits: list = field(default_factory=list)
    hex: bool = False
    what: str = ""

    def forms(self):
        return bool(self.names or self.bits or self.hex)


@dataclass
class Attr:
    name: str
    kind: str  # scalar, collection, child, childCollection, reference
    type: TypeRef = None
    type_name: str = ""
    key: TypeRef = None
    key_name: str = ""
    ordered: bool = False
    default: object = None
    default_expr: str = ""
    min: object = None
    max: object = None
    error: str = ""
    is_key: bool = False
    index: int = 0
    writable: bool = True
    on_create: str = ""
    on_delete: str = ""
    # Collections: a static function of the entity that builds the value read for a missing key.
    default_fn: str = ""
    # Single children: made, named after the attribute, when the owner is constructed.
    construct: bool = False


@dataclass
class Enum:
    family: str
    ns: str
    name: str
    values: list
    doc: str = ""

    @property
    def qname(self):
        return f"{self.ns}::{self.name}"


@dataclass
class Range:
    family: str
    ns: str
    name: str
    base: str
    min: int
    max: int
    error: str
    default: int = 0
    doc: str = ""
    # Inline members beside the value: constants naming reserved values, predicates on them.
    methods: list = field(default_factory=list)

    @property
    def qname(self):
        return f"{self.ns}::{self.name}"


@dataclass
class Value:
    family: str
    ns: str
    name: str
    fields: list
    methods: list = field(default_factory=list)
    members: list = field(default_factory=list)
    parse: bool = True
    doc: str = ""
    ctor: bool = True
    aliases: dict = field(default_factory=dict)
    # A const member returning what a parsed value should have been, or nullptr when it
    # keeps the type's invariant; text and JSON parsing reject a value it complains about.
    check: str = ""
    # Written by people (scenario files): JSON that a field refuses is reported as "'field' must
    # be <what it takes>, found <json>".
    input: bool = False

    @property
    def qname(self):
        return f"{self.ns}::{self.name}"


@dataclass
class Entity:
    family: str
    ns: str
    name: str
    attrs: list
    base: str = ""
    base_decl: object = None
    methods: list = field(default_factory=list)
    members: list = field(default_factory=list)
    hooks: list = field(default_factory=list)
    doc: str = ""
    abstract: bool = False
    conformance: bool = True
    extra_ctor_params: list = field(default_factory=list)

    @property
    def qname(self):
        return f"{self.ns}::{self.name}"

    def key_attr(self):
        for a in self.all_attrs():
            if a.is_key:
                return a
        return None

    def base_count(self):
        return len(self.base_decl.all_attrs()) if self.base_decl else 0

    def all_attrs(self):
        return (self.base_decl.all_attrs() if self.base_decl else []) + self.attrs


@dataclass
class Extern:
    name: str
    header: str
    kind: str = "extern"


@dataclass
class Family:
    name: str
    path: Path
    ns: str
    includes: list
    source_includes: list
    enums: list
    ranges: list
    values: list
    entities: list
    externs: list
    # declarations in file order, for emitting
    order: list = field(default_factory=list)


def _check_ident(name, where):
    if not isinstance(name, str) or not IDENT.match(name):
        raise SchemaError(f"{where}: '{name}' is not a valid name")
    if name in CPP_KEYWORDS or keyword.iskeyword(name) and name in CPP_KEYWORDS:
        raise SchemaError(f"{where}: '{name}' is a C++ keyword")


def _required(table, where, names):
    for n in names:
        if n not in table:
            raise SchemaError(f"{where}: '{n}' is required")


def _check_bounds(where, lo, hi, default, type_name):
    """Ranged fields and attributes: sane bounds, and a default inside them."""
    if lo is None and hi is None:
        return
    if type_name in INTEGER_LIMITS:
        tlo, thi = INTEGER_LIMITS[type_name]
        if (lo is not None and lo < tlo) or (hi is not None and hi > thi):
            raise SchemaError(f"{where}: min and max must fit in {type_name}")
    if lo is not None and hi is not None and lo > hi:
        raise SchemaError(f"{where}: min is above max")
    if isinstance(default, int) and not isinstance(default, bool):
        if (lo is not None and default < lo) or (hi is not None and default > hi):
            raise SchemaError(f"{where}: default {default} is outside {lo}..{hi}")


def _lines(table, key, where):
    """A list of C++ lines (methods, members): a bare string would emit one line per character."""
    lines = table.get(key, [])
    if not isinstance(lines, list) or not all(isinstance(x, str) for x in lines):
        raise SchemaError(f"{where}: '{key}' must be a list of strings")
    return lines


def _known(table, where, allowed):
    for k in table:
        if k not in allowed:
            raise SchemaError(f"{where}: unknown setting '{k}'")


def _read_toml(path):
    with open(path, "rb") as f:
        try:
            return tomllib.load(f)
        except tomllib.TOMLDecodeError as e:
            raise SchemaError(f"{path.name}: {e}") from None


def _load_extern(e, fname):
    _known(e, f"{fname} extern", {"name", "header", "kind"})
    _required(e, f"{fname} extern {e.get('name')}", ("name", "header"))
    return Extern(e["name"], e["header"], e.get("kind", "extern"))


def _open_decl(d, kind, fname, settings):
    """Where a declaration is, for messages, once its settings and name hold."""
    where = f"{fname} {kind} {d.get('name')}"
    _known(d, where, settings)
    _check_ident(d.get("name"), where)
    return where


def _unique(names, where, what):
    if len(set(names)) != len(names):
        raise SchemaError(f"{where}: duplicate {what} name")


def _load_enum(e, fam, fname):
    where = _open_decl(e, "enum", fname, {"name", "values", "doc", "namespace"})
    values = e.get("values", [])
    if not values:
        raise SchemaError(f"{where}: needs at least one value")
    for v in values:
        _check_ident(v, where)
    _unique(values, where, "enumerator")
    return Enum(fam.name, e.get("namespace", fam.ns), e["name"], values, e.get("doc", ""))


def _load_range(r, fam, fname):
    where = f"{fname} range {r.get('name')}"
    _known(r, where, {"name", "base", "min", "max", "error", "default", "doc", "namespace",
                      "methods"})
    _required(r, where, ("name", "base", "min", "max"))
    _check_ident(r.get("name"), where)
    if r.get("base") not in INTEGER_BUILTINS:
        raise SchemaError(f"{where}: base must be an integer type")
    if r["min"] > r["max"]:
        raise SchemaError(f"{where}: min is above max")
    lo, hi = INTEGER_LIMITS[r["base"]]
    if r["min"] < lo or r["max"] > hi:
        raise SchemaError(f"{where}: min and max must fit in {r['base']}")
    if not r["min"] <= r.get("default", r["min"]) <= r["max"]:
        raise SchemaError(f"{where}: default {r['default']} is outside {r['min']}..{r['max']}")
    return Range(fam.name, r.get("namespace", fam.ns), r["name"], r["base"], r["min"], r["max"],
                 r.get("error") or f"{r['name']}::value < {r['min']} or > {r['max']} not allowed",
                 r.get("default", r["min"]), r.get("doc", ""), _lines(r, "methods", where))


def _load_field(f, where):
    fw = f"{where} field {f.get('name')}"
    _known(f, fw, {"name", "type", "default", "default_expr", "min", "max", "error", "array",
                   "index", "count_field", "key", "setter", "internal", "names", "bits", "hex",
                   "what"})
    _check_ident(f.get("name"), fw)
    if "type" not in f:
        raise SchemaError(f"{fw}: 'type' is required")
    return Field(f["name"], type_name=f["type"], default=f.get("default"),
                 default_expr=f.get("default_expr", ""), min=f.get("min"), max=f.get("max"),
                 error=f.get("error", ""), array=f.get("array", 0), index_name=f.get("index", ""),
                 count_field=f.get("count_field", ""), key_name=f.get("key", ""),
                 setter=f.get("setter", True), internal=f.get("internal", False),
                 names=f.get("names", {}), bits=f.get("bits", []), hex=f.get("hex", False),
                 what=f.get("what", ""))


def _load_value(v, fam, fname):
    where = _open_decl(v, "value", fname, {"name", "fields", "methods", "members", "parse", "doc",
                                           "namespace", "ctor", "aliases", "check", "input"})
    fields = [_load_field(f, where) for f in v.get("fields", [])]
    _unique([f.name for f in fields], where, "field")
    return Value(fam.name, v.get("namespace", fam.ns), v["name"], fields, v.get("methods", []),
                 v.get("members", []), v.get("parse", True), v.get("doc", ""), v.get("ctor", True),
                 v.get("aliases", {}), v.get("check", ""), v.get("input", False))


def _attr_kind(a, aw):
    """What an attribute holds follows from which of 'child', 'ref' and 'type' names its type."""
    if "child" in a:
        return ("childCollection" if "key" in a else "child"), a["child"]
    if "ref" in a:
        return "reference", a["ref"]
    if "type" in a:
        return ("collection" if "key" in a else "scalar"), a["type"]
    raise SchemaError(f"{aw}: needs 'type', 'child' or 'ref'")


def _load_attr(a, where):
    aw = f"{where} attr {a.get('name')}"
    _known(a, aw, {"name", "type", "key", "ordered", "child", "ref", "default", "default_expr",
                   "min", "max", "error", "is_key", "writable", "on_create", "on_delete",
                   "default_fn", "construct"})
    _check_ident(a.get("name"), aw)
    kind, tname = _attr_kind(a, aw)
    attr = Attr(a["name"], kind, type_name=tname, key_name=a.get("key", ""),
                ordered=a.get("ordered", False), default=a.get("default"),
                default_expr=a.get("default_expr", ""), min=a.get("min"), max=a.get("max"),
                error=a.get("error", ""), is_key=a.get("is_key", False),
                writable=a.get("writable", True), on_create=a.get("on_create", ""),
                on_delete=a.get("on_delete", ""), default_fn=a.get("default_fn", ""),
                construct=a.get("construct", False))
    if (attr.on_create or attr.on_delete) and kind != "childCollection":
        raise SchemaError(f"{aw}: on_create and on_delete need a child collection")
    if attr.default_fn:
        if kind != "collection":
            raise SchemaError(f"{aw}: default_fn needs a collection of values")
        _check_ident(attr.default_fn, f"{aw} default_fn")
    if not isinstance(attr.construct, bool):
        raise SchemaError(f"{aw}: construct must be true or false")
    if attr.construct and kind != "child":
        raise SchemaError(f"{aw}: construct needs a single child")
    return attr


def _load_entity(e, fam, fname):
    where = _open_decl(e, "entity", fname, {"name", "attrs", "base", "methods", "members", "hooks",
                                            "doc", "namespace", "abstract", "conformance",
                                            "ctor_params"})
    attrs = [_load_attr(a, where) for a in e.get("attrs", [])]
    names = [a.name for a in attrs]
    _unique(names, where, "attribute")
    if "name" in names:
        # Every entity is constructed from, and answers name() with, its own name.
        raise SchemaError(f"{where}: attribute 'name' clashes with the entity's own name")
    d = Entity(fam.name, e.get("namespace", fam.ns), e["name"], attrs, e.get("base", ""), None,
               e.get("methods", []), e.get("members", []), e.get("hooks", []), e.get("doc", ""),
               e.get("abstract", False), e.get("conformance", True), e.get("ctor_params", []))
    for h in d.hooks:
        if h not in ("constructed", "destroyed"):
            raise SchemaError(f"{where}: unknown hook '{h}'")
    return d


def load_family(path):
    path = Path(path)
    data = _read_toml(path)
    _known(data, path.name, {"namespace", "includes", "source_includes", "enum", "range",
                             "value", "entity", "extern", "doc"})
    if "namespace" not in data:
        raise SchemaError(f"{path.name}: 'namespace' is required")
    ns = data["namespace"]
    for part in ns.split("::"):
        _check_ident(part, f"{path.name} namespace")
    fam = Family(path.stem, path, ns, data.get("includes", []), data.get("source_includes", []),
                 [], [], [], [], [])
    fam.externs = [_load_extern(e, path.name) for e in data.get("extern", [])]
    # Each kind is read in its turn, and declarations are emitted in the order read.
    for key, load, decls in (("enum", _load_enum, fam.enums), ("range", _load_range, fam.ranges),
                             ("value", _load_value, fam.values),
                             ("entity", _load_entity, fam.entities)):
        for table in data.get(key, []):
            d = load(table, fam, path.name)
            decls.append(d)
            fam.order.append(d)
    return fam


class Schema:
    """All families together, so that references across files resolve and names stay unique."""

    def __init__(self, families):
        self.families = families
        self.types = {}
        for fam in families:
            for x in fam.externs:
                self._add(x.name, TypeRef(x.name, x.kind if x.kind == "string" else "extern", x),
                          fam)
            for d in fam.order:
                kind = {Enum: "enum", Range: "range", Value: "value", Entity: "entity"}[type(d)]
                self._add(d.qname, TypeRef(d.qname, kind, d), fam)
        # Bases first, so that attribute counts and indices see whole chains.
        for fam in families:
            for d in fam.entities:
                self._resolve_base(fam, d)
        self._check_cycles()
        for fam in families:
            for d in fam.order:
                self._resolve(fam, d)
        self._index_attrs()
        self._check_construct_cycles()

    def _add(self, qname, ref, fam):
        if qname in self.types:
            other = self.types[qname]
            if isinstance(other.decl, Extern) and isinstance(ref.decl, Extern):
                return
            raise SchemaError(f"{fam.path.name}: '{qname}' is declared twice")
        self.types[qname] = ref

    def lookup(self, name, ns, where):
        if name in BUILTINS:
            cpp, kind = BUILTINS[name]
            return TypeRef(cpp, kind, None, name)
        parts = ns.split("::")
        for i in range(len(parts), -1, -1):
            q = "::".join(parts[:i] + [name]) if i else name
            if q in self.types:
                return self.types[q]
        raise SchemaError(f"{where}: unknown type '{name}'")

    def _resolve(self, fam, d):
        where = f"{fam.path.name} {d.name}"
        if isinstance(d, Value):
            self._resolve_value(where, d)
        elif isinstance(d, Entity):
            self._resolve_entity(where, d)

    def _resolve_value(self, where, d):
        names = {f.name for f in d.fields}
        for f in d.fields:
            self._resolve_field(f"{where}.{f.name}", d, f, names)
        # Checks that read another field's type wait until every field is resolved.
        by_name = {f.name: f for f in d.fields}
        for f in d.fields:
            if f.count_field:
                c = by_name[f.count_field].type
                if c.builtin not in INTEGER_BUILTINS and c.kind != "range":
                    raise SchemaError(f"{where}.{f.name}: count_field '{f.count_field}' "
                                      "must be an integer")
            if (f.min is not None or f.max is not None) and f.type.builtin not in \
                    INTEGER_BUILTINS:
                raise SchemaError(f"{where}.{f.name}: min/max need an integer type")
            self._check_forms(f"{where}.{f.name}", f)

    def _resolve_field(self, fw, d, f, names):
        f.type = self.lookup(f.type_name, d.ns, fw)
        if f.type.kind == "entity":
            raise SchemaError(f"{fw}: a value cannot hold an entity")
        if f.key_name:
            f.key = self.lookup(f.key_name, d.ns, fw)
            if f.key.kind == "entity":
                raise SchemaError(f"{fw}: an entity cannot be a key")
        if (f.index_name or f.count_field) and not f.array:
            raise SchemaError(f"{fw}: index and count_field need an array")
        if f.index_name:
            f.index = self.lookup(f.index_name, d.ns, fw)
            if f.index.kind != "range":
                raise SchemaError(f"{fw}: index must be a range type")
        if f.count_field and f.count_field not in names:
            raise SchemaError(f"{fw}: unknown count_field '{f.count_field}'")
        _check_bounds(fw, f.min, f.max, f.default, f.type.builtin)
        self._check_default(fw, f.type, f.default)

    def _resolve_entity(self, where, d):
        keys = [a.name for a in d.attrs if a.is_key]
        if len(keys) > 1:
            raise SchemaError(f"{where}: only one key attribute, found {', '.join(keys)}")
        for a in d.attrs:
            self._resolve_attr(f"{where}.{a.name}", d, a)
        if len(d.all_attrs()) > 64:
            raise SchemaError(f"{where}: more than 64 attributes")

    def _resolve_attr(self, aw, d, a):
        a.type = self.lookup(a.type_name, d.ns, aw)
        if a.kind in ("child", "childCollection") and a.type.kind != "entity":
            raise SchemaError(f"{aw}: child '{a.type_name}' is not an entity")
        if a.construct and (a.type.decl.key_attr() or a.type.decl.extra_ctor_params or
                            a.type.decl.abstract):
            raise SchemaError(f"{aw}: a child made at construction takes only its name")
        if a.kind in ("scalar", "collection") and a.type.kind == "entity":
            raise SchemaError(f"{aw}: use 'child' or 'ref' for entity attributes")
        if a.key_name:
            a.key = self.lookup(a.key_name, d.ns, aw)
            if a.key.kind == "entity":
                raise SchemaError(f"{aw}: an entity cannot be a key")
        if (a.min is not None or a.max is not None) and a.type.builtin not in INTEGER_BUILTINS:
            raise SchemaError(f"{aw}: min/max need an integer type")
        _check_bounds(aw, a.min, a.max, a.default, a.type.builtin)
        self._check_default(aw, a.type, a.default)

    def _check_forms(self, where, f):
        if not f.forms():
            return
        if f.type.builtin not in INTEGER_BUILTINS or f.array or f.key:
            raise SchemaError(f"{where}: names, bits and hex need a single integer field")
        lo, hi = INTEGER_LIMITS[f.type.builtin]
        lo = lo if f.min is None else f.min
        hi = hi if f.max is None else f.max
        if not isinstance(f.names, dict) or not isinstance(f.bits, list):
            raise SchemaError(f"{where}: names is a table of numbers, bits a list of names")
        for n, v in f.names.items():
            if not isinstance(v, int) or not lo <= v <= hi:
                raise SchemaError(f"{where}: name '{n}' stands for {v!r}, outside {lo}..{hi}")
        if any(not isinstance(b, str) or not b for b in f.bits) or \
                len(set(f.bits)) != len(f.bits):
            raise SchemaError(f"{where}: bits must be distinct names")
        if f.bits and (1 << len(f.bits)) - 1 > hi:
            raise SchemaError(f"{where}: {len(f.bits)} bits do not fit below {hi}")
        if not isinstance(f.hex, bool):
            raise SchemaError(f"{where}: hex must be true or false")

    def _check_default(self, where, t, default):
        if isinstance(default, str) and t.kind == "enum" and default not in t.decl.values:
            raise SchemaError(f"{where}: default '{default}' is not a value of {t.cpp}")

    def _resolve_base(self, fam, d):
        if d.base:
            b = self.lookup(d.base, d.ns, f"{fam.path.name} {d.name}")
            if b.kind != "entity":
                raise SchemaError(f"{fam.path.name} {d.name}: base '{d.base}' is not an entity")
            d.base_decl = b.decl

    def _check_cycles(self):
        for fam in self.families:
            for d in fam.entities:
                seen = set()
                b = d
                while b is not None:
                    if b.qname in seen:
                        raise SchemaError(f"{fam.path.name} {d.name}: base cycle through "
                                          f"{b.qname}")
                    seen.add(b.qname)
                    b = b.base_decl

    def _check_construct_cycles(self):
        # Children made at construction make their own: a loop would construct without end.
        def walk(d, path):
            for a in d.all_attrs():
                if not a.construct:
                    continue
                child = a.type.decl
                if child.qname in path:
                    raise SchemaError(f"{d.family}.toml {d.name}.{a.name}: children made at "
                                      f"construction loop through {child.qname}")
                walk(child, path + [child.qname])
        for fam in self.families:
            for d in fam.entities:
                walk(d, [d.qname])

    def _index_attrs(self):
        for fam in self.families:
            for d in fam.entities:
                idx = d.base_count()
                for a in d.attrs:
                    a.index = idx
                    idx += 1

    def family_of(self, ref):
        decl = ref.decl
        if decl is None or isinstance(decl, Extern):
            return None
        return decl.family


def load(paths):
    fams = [load_family(p) for p in paths]
    names = [f.name for f in fams]
    if len(set(names)) != len(names):
        raise SchemaError("two schema files have the same name")
    return Schema(fams)
