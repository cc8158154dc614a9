#!/usr/bin/env python3
"""kalgen: turns one model description (a .kal file) into the C++ type code of its types.

    kalgen.py --out-dir DIR [--header-prefix PREFIX] MODEL.kal

writes DIR/<Model>.h and DIR/<Model>.gen.cpp. The generated code holds no logic of its own:
every accessor is a one-line call into the templates of Kal/Model.h, and the reflection
tables are data that the runtime's one printer and parser walk. The hand-written operations
of a model (fn lines) are declared here and defined in an ordinary .cpp beside the model.

The model language is described in tools/kalgen/README.md. Errors name the model file and
line: "FibHelper.kal:12: error: ...", and the exit status is 1.
"""

import argparse
import os
import re
import sys

GENERATOR_VERSION = 4  # must match KAL_MODEL_RUNTIME_VERSION in Kal/Model.h

BUILTINS = {
    "U8": "U8", "U16": "U16", "U32": "U32", "U64": "U64", "S32": "S32", "S64": "S64",
    "bool": "bool", "Kal::Name": "Kal::Name", "Kal::String8": "Kal::String8",
}
# Built-ins small enough to pass and return by value.
SCALARS = {"U8", "U16", "U32", "U64", "S32", "S64", "bool"}

IDENT = r"[A-Za-z_][A-Za-z0-9_]*"
QUAL = r"[A-Za-z_][A-Za-z0-9_]*(?:::[A-Za-z_][A-Za-z0-9_]*)*"


class ModelError(Exception):
    def __init__(self, path, line, message):
        super().__init__(f"{path}:{line}: error: {message}")


# ---- The model --------------------------------------------------------------------------


class Attr:
    """One attribute line of a type."""

    def __init__(self, kind, name, line):
        self.kind = kind          # attr | ptr | input | coll | ordered | fn | framework
        self.name = name
        self.line = line
        self.type = None          # value type (C++ text)
        self.key = None           # collection key type
        self.is_ptr_value = False  # collection value is Ptr<...>
        self.flags = set()        # param readonly counter counter=inc silent const ...
        self.const_expr = None    # const=<expr>
        self.range = None         # (lo, hi) texts, either may be None
        self.keyfield = None      # coll: the value's accessor that gives the key
        self.handler = None       # input: the owner's handler
        self.on = []              # input: the followed object's attributes
        self.params = []          # fn: [(name, type)]
        self.ret = None           # fn: return type or None
        self.plural = None        # coll: name of the count accessor
        self.id = None

    @property
    def cap(self):
        return self.name[0].upper() + self.name[1:]


class Type:
    def __init__(self, kind, name, ns, line):
        self.kind = kind          # value | entity | object
        self.name = name
        self.ns = ns
        self.line = line
        self.options = {}
        self.attrs = []
        self.constraints = []     # [(name, literal)]

    @property
    def qual(self):
        return f"{self.ns}::{self.name}" if self.ns else self.name

    @property
    def quiet(self):
        return "quiet" in self.options or self.kind == "value"

    @property
    def reactor(self):
        return "reactor" in self.options

    def own(self, kinds):
        return [a for a in self.attrs if a.kind in kinds]


class Model:
    def __init__(self, name, path):
        self.name = name
        self.path = path
        self.includes = []
        self.types = []


# ---- Parsing ----------------------------------------------------------------------------


def parse(path, text):
    model = None
    ns = ""
    current = None
    includes = []
    types = []
    seen_types = {}

    def fail(line, msg):
        raise ModelError(os.path.basename(path), line, msg)

    for lineno, raw in enumerate(text.splitlines(), start=1):
        line = raw.split("#", 1)[0].rstrip()
        if not line.strip():
            continue
        indented = line[0] in " \t"
        words = line.strip()
        if not indented:
            current = None
            m = re.fullmatch(r"model\s+(" + IDENT + r")", words)
            if m:
                if model is not None:
                    fail(lineno, "a model file names its model once")
                model = m.group(1)
                continue
            if model is None:
                fail(lineno, "the first statement must be 'model <Name>'")
            m = re.fullmatch(r'include\s+"([^"]+)"', words)
            if m:
                includes.append(m.group(1))
                continue
            m = re.fullmatch(r"namespace\s+(" + QUAL + r")", words)
            if m:
                ns = m.group(1)
                continue
            m = re.fullmatch(r"(value|entity|object)\s+(" + IDENT + r")((?:\s+\S+)*)", words)
            if m:
                if not ns:
                    fail(lineno, f"type {m.group(2)} declared outside a namespace")
                current = Type(m.group(1), m.group(2), ns, lineno)
                if current.qual in seen_types:
                    fail(lineno, f"type {current.qual} declared twice "
                                 f"(first at line {seen_types[current.qual]})")
                seen_types[current.qual] = lineno
                for opt in m.group(3).split():
                    k, _, v = opt.partition("=")
                    if k not in ("factory", "quiet", "reactor", "order", "key", "hashcache"):
                        fail(lineno, f"unknown type option '{opt}'")
                    current.options[k] = v or True
                if current.kind == "value" and ("factory" in current.options
                                                or "reactor" in current.options):
                    fail(lineno, "a value type has no factory and is no reactor")
                if "hashcache" in current.options and current.kind != "value":
                    fail(lineno, "hashcache: only a value type caches its hash")
                types.append(current)
                continue
            fail(lineno, f"cannot read '{words}'")
        if current is None:
            fail(lineno, "attribute line outside a type")
        parse_attr(current, words, lineno, fail)

    if model is None:
        raise ModelError(os.path.basename(path), 1, "empty model file: no 'model <Name>' line")
    m = Model(model, path)
    m.includes = includes
    m.types = types
    for t in types:
        finish_type(t, fail)
    return m


def parse_type_text(text, lineno, fail):
    text = text.strip()
    if re.fullmatch(r"Ptr<\s*" + QUAL + r"(\s+const)?\s*>", text):
        return text.replace(" ", "") if " const" not in text else text
    if not re.fullmatch(QUAL, text):
        fail(lineno, f"'{text}' is not a type name")
    return text


def parse_attr(t, words, lineno, fail):
    kind, _, rest = words.partition(" ")
    rest = rest.strip()
    names = {a.name for a in t.attrs}

    def new(kind, name):
        if name in names:
            fail(lineno, f"attribute '{name}' declared twice in {t.name}")
        a = Attr(kind, name, lineno)
        t.attrs.append(a)
        return a

    if kind == "constraint":
        m = re.fullmatch(r"(" + IDENT + r")\s*=\s*(\S+)", rest)
        if not m:
            fail(lineno, "expected 'constraint <name> = <literal>'")
        t.constraints.append((m.group(1), m.group(2)))
        return
    if kind in ("attr", "ptr"):
        m = re.fullmatch(r"(" + IDENT + r")\s*:\s*(" + QUAL + r")((?:\s+\S+)*)", rest)
        if not m:
            fail(lineno, f"expected '{kind} <name> : <Type> [flags]'")
        a = new(kind, m.group(1))
        a.type = m.group(2)
        for flag in m.group(3).split():
            k, _, v = flag.partition("=")
            if k == "const" and v:
                a.const_expr = v
            elif k == "range":
                lo, sep, hi = v.partition("..")
                if not sep or not (lo or hi):
                    fail(lineno, "expected range=<lo>..<hi> (either end may be empty)")
                a.range = (lo or None, hi or None)
            elif k == "counter" and v in ("", "inc"):
                a.flags.add("counter=inc" if v else "counter")
            elif k in ("param", "readonly", "silent", "virtual") and not v:
                a.flags.add(k)
            elif k == "const" and kind == "ptr" and not v:
                a.flags.add("const")
            else:
                fail(lineno, f"unknown flag '{flag}' for {kind} {a.name}")
        if a.type not in BUILTINS and kind == "attr" and "counter" in " ".join(a.flags):
            fail(lineno, "only built-in integer attributes can be counters")
        return
    if kind == "input":
        m = re.fullmatch(r"(" + IDENT + r")\s*:\s*(" + QUAL + r")\s*->\s*(" + IDENT +
                         r")\s+on\s+(" + IDENT + r"(?:\s*,\s*" + IDENT + r")*)", rest)
        if not m:
            fail(lineno, "expected 'input <name> : <Type> -> <handler> on <attr>[,<attr>]'")
        a = new("input", m.group(1))
        a.type = m.group(2)
        a.handler = m.group(3)
        a.on = [x.strip() for x in m.group(4).split(",")]
        return
    if kind == "coll":
        m = re.fullmatch(r"(" + IDENT + r")\s*:\s*(" + QUAL + r")\s*->\s*(Ptr<\s*" + QUAL +
                         r"\s*>|" + QUAL + r")((?:\s+\S+)*)", rest)
        if not m:
            fail(lineno, "expected 'coll <name> : <Key> -> <Value> [keyfield=<accessor>]'")
        a = new("coll", m.group(1))
        a.key = m.group(2)
        value = m.group(3).replace(" ", "")
        if value.startswith("Ptr<"):
            a.is_ptr_value = True
            a.type = value[4:-1]
        else:
            a.type = value
        for flag in m.group(4).split():
            k, _, v = flag.partition("=")
            if k == "keyfield" and re.fullmatch(IDENT, v):
                a.keyfield = v
            elif k == "count" and re.fullmatch(IDENT, v):
                a.plural = v
            else:
                fail(lineno, f"unknown flag '{flag}' for coll {a.name}")
        if a.keyfield and a.is_ptr_value:
            fail(lineno, "keyfield= needs a collection of values")
        return
    if kind == "ordered":
        m = re.fullmatch(r"(" + IDENT + r")\s*:\s*(" + QUAL + r")\s*->\s*(" + QUAL + r")", rest)
        if not m:
            fail(lineno, "expected 'ordered <name> : <Key> -> <EntityType>'")
        a = new("ordered", m.group(1))
        a.key = m.group(2)
        a.type = m.group(3)
        return
    if kind in ("fn", "method"):
        m = re.fullmatch(r"(" + IDENT + r")\s*\(([^)]*)\)((?:\s+(?:const|static))*)"
                         r"(?:\s*->\s*(.+))?", rest)
        if not m:
            fail(lineno, f"expected '{kind} <name>(<param> : <Type>, ...) [const] [-> <Type>]'")
        a = new(kind, m.group(1))
        for word in m.group(3).split():
            a.flags.add(word)
        if "static" in a.flags and (kind != "method" or "const" in a.flags):
            fail(lineno, "only a method can be static, and a static one is not const")
        if m.group(4):
            a.ret = parse_type_text(m.group(4), lineno, fail)
        params = m.group(2).strip()
        if params:
            for p in params.split(","):
                pm = re.fullmatch(r"\s*(" + IDENT + r")\s*:\s*(.+?)\s*", p)
                if not pm:
                    fail(lineno, f"cannot read parameter '{p.strip()}'")
                a.params.append((pm.group(1), parse_type_text(pm.group(2), lineno, fail)))
        return
    fail(lineno, f"unknown attribute kind '{kind}'")


def finish_type(t, fail):
    kinds = {"value": ("attr", "coll", "fn", "method"),
             "entity": ("attr", "ptr", "coll", "ordered", "fn", "method", "input"),
             "object": ("attr", "ptr", "coll", "ordered", "fn", "method", "input")}
    for a in t.attrs:
        if a.kind not in kinds[t.kind]:
            fail(a.line, f"a {t.kind} type has no '{a.kind}' attributes")
        if a.kind == "input" and not t.reactor:
            fail(a.line, f"input {a.name} needs the type to be a reactor (option 'reactor')")
    constraint_names = {c[0] for c in t.constraints}
    for a in t.attrs:
        if a.range:
            for end in a.range:
                if end and not re.fullmatch(r"[0-9]+|0x[0-9a-fA-F]+", end) and \
                        end not in constraint_names:
                    fail(a.line, f"range bound '{end}' is neither a number nor a constraint "
                                 f"of {t.name}")
    if "key" in t.options:
        key = t.options["key"]
        found = [a for a in t.attrs if a.name == key and a.kind == "attr"]
        if not found:
            fail(t.line, f"key={key}: {t.name} has no plain attribute '{key}'")
    # Framework attributes, then the declared ones, in declaration order.
    framework = []
    if t.kind == "entity":
        framework += ["isNondestructing", "zeroReferences"]
    # A counter's increment (and decrement) accessors are listed after the declared
    # attributes, in the order of their counters.
    declared = list(t.attrs)
    for a in t.attrs:
        if a.kind == "attr" and "counter" in a.flags:
            declared.append(framework_attr(a.name + "Inc", a.line, "counterFn", a))
            declared.append(framework_attr(a.name + "Dec", a.line, "counterFn", a))
        elif a.kind == "attr" and "counter=inc" in a.flags:
            declared.append(framework_attr(a.name + "Inc", a.line, "counterFn", a))
    tail = []
    if t.reactor:
        tail = ["kalFwkActivity", "hasNotificationActiveIs", "kalDoZombieReactors"]
    t.attrs = declared
    registered = [a for a in declared if a.kind != "method"]
    all_attrs = [framework_attr(n, t.line, "framework") for n in framework] + registered + \
        [framework_attr(n, t.line, "framework") for n in tail]
    for i, a in enumerate(all_attrs):
        a.id = i
    t.all_attrs = all_attrs


def framework_attr(name, line, kind, of=None):
    a = Attr(kind, name, line)
    a.of = of
    return a


# ---- C++ text helpers -------------------------------------------------------------------


def cxx_type(name):
    return BUILTINS.get(name, name)


def arg_type(name):
    """How a value of this type is passed in: by value for scalars, else by const ref."""
    if name in SCALARS:
        return f"{name} const&"
    if name.startswith("Ptr<"):
        inner = name[4:-1].strip()
        return f"Kal::Ptr<{inner}> const&"
    return f"{cxx_type(name)} const&"


def value_type(name):
    if name.startswith("Ptr<"):
        return f"Kal::Ptr<{name[4:-1].strip()}>"
    return cxx_type(name)


def ptr_type(a):
    return f"Kal::Ptr<{a.type} const>" if "const" in a.flags else f"Kal::Ptr<{a.type}>"


def default_init(name):
    if name in SCALARS:
        return "false" if name == "bool" else "0"
    return ""


def lower_first(s):
    return s[0].lower() + s[1:]


def plural(a):
    return a.plural or a.name + "s"


def range_check(t, a, var):
    lo, hi = a.range
    conds, texts = [], []

    def bound(x):
        return (f"{t.name}::{x}", f"{t.name}::{x}") if not re.match(r"[0-9]", x) else (x, x)

    if lo:
        c, txt = bound(lo)
        conds.append(f"{var} < {c}")
        texts.append(f"< {txt}")
    if hi:
        c, txt = bound(hi)
        conds.append(f"{var} > {c}")
        texts.append(f"> {txt}")
    return (" || ".join(conds),
            f'Kal::throwConstraint("{t.name}", "{a.name}", "{" or ".join(texts)}")')


# ---- Emitting ---------------------------------------------------------------------------


class Out:
    def __init__(self):
        self.lines = []

    def __call__(self, text=""):
        self.lines.append(text)

    def text(self):
        return "\n".join(self.lines) + "\n"


def ns_open(out, ns):
    out(f"namespace {ns} {{")
    out()


def ns_close(out, ns):
    out(f"}} // namespace {ns}")
    out()


def member_class(out, t, a):
    """The collection member record T::KalFoo."""
    m = f"Kal{a.cap}"
    key = cxx_type(a.key)
    val = f"Kal::Ptr<{a.type}>" if a.is_ptr_value else cxx_type(a.type)
    out(f"    // A member of {a.name}: its key, its value and the chain link.")
    out(f"    class {m} : public Kal::PtrInterface {{")
    out("      public:")
    out("        // Key and value are copied, or moved when given as rvalues.")
    out("        template <class K, class V>")
    out(f"        {m}(K&& key, V&& value) : kal_index_(std::forward<K>(key)), "
        f"{a.name}_(std::forward<V>(value)) {{}}")
    out(f"        {m}({m} const& o) : Kal::PtrInterface(o), kal_index_(o.kal_index_), "
        f"{a.name}_(o.{a.name}_) {{}}")
    out(f"        {key} const& fwkKey() const noexcept {{ return kal_index_; }}")
    out(f"        {val} const& fwkValue() const noexcept {{ return {a.name}_; }}")
    out(f"        {val}& fwkValue() noexcept {{ return {a.name}_; }}")
    out(f"        void fwkValueIs({val} const& v) {{ {a.name}_ = v; }}")
    out(f"        {m}* fwkHmNext() const noexcept {{ return fwkHmNext_.ptr(); }}")
    out(f"        void fwkHmNextIs({m}* n) {{ fwkHmNext_ = n; }}")
    out(f"        bool fwkValueEquals({m} const& o) const {{ return {a.name}_ == o.{a.name}_; }}")
    out()
    out("      private:")
    out("        template <class, class>")
    out("        friend struct Kal::HashMapVTable;")
    out(f"        {key} const kal_index_;")
    out(f"        {val} {a.name}_;")
    out(f"        Kal::Ptr<{m}> fwkHmNext_;")
    out("    };")
    out(f"    using {m}Map = Kal::HashMap<{m}, {key}>;")
    out(f"    using {a.cap}Iterator = Kal::CollIterator<{m}Map, false>;")
    out(f"    using {a.cap}IteratorConst = Kal::CollIterator<{m}Map, true>;")
    out()


def notifies(t, a):
    return not t.quiet and "silent" not in a.flags


def emit_header(model):
    out = Out()
    out(f"// Generated by kalgen from {os.path.basename(model.path)} (model {model.name}).")
    out("// Do not edit: change the model and rebuild.")
    out("#pragma once")
    out()
    out('#include "Kal/Model.h"')
    out()
    out("#include <functional>")
    for inc in model.includes:
        out(f'#include "{inc}"')
    out()
    out(f"static_assert(KAL_MODEL_RUNTIME_VERSION == {GENERATOR_VERSION},")
    out(f'              "{model.name}.h was generated by kalgen {GENERATOR_VERSION} for another '
        f'Kal model runtime: regenerate it");')
    out()
    # Forward declarations, so types of one file may refer to each other.
    for t in model.types:
        ns_open(out, t.ns)
        out(f"class {t.name};")
        out()
        ns_close(out, t.ns)
    for t in model.types:
        ns_open(out, t.ns)
        emit_class(out, t)
        ns_close(out, t.ns)
    out(f"// Registers the types of {model.name} with the introspection reactor, once.")
    out(f"void kalInit{model.name}();")
    return out.text()


def emit_class(out, t):
    base = {"value": None, "entity": "Kal::Entity", "object": "Kal::PtrInterface"}[t.kind]
    out(f"class {t.name}" + (f" : public {base}" if base else "") + " {")
    if shared(t):
        out("    struct KalRep; // the state, below")
        out()
    out("  public:")
    if t.kind != "value":
        out(f"    using Ptr = Kal::Ptr<{t.name}>;")
        out(f"    using PtrConst = Kal::Ptr<{t.name} const>;")
        if not t.quiet:
            out("    class NotifieeConst;")
            out("    class Notifiee;")
    out("    class _Type;")
    out("    class GenericIf_;")
    for a in t.own(("input",)):
        out(f"    class Kal{a.cap};")
    out("    static Kal::KalType const& _fwkType();")
    if t.kind != "value":
        out("    Kal::KalType const* fwkType() const override { return &_fwkType(); }")
    for c, v in t.constraints:
        ty = constraint_type(t, c)
        out(f"    static constexpr {ty} {c} = {v};")
    out()
    for a in t.own(("coll",)):
        member_class(out, t, a)
    for a in t.own(("ordered",)):
        out(f"    using Kal{a.cap}Map = Kal::RbTreeMap<{a.type}, {cxx_type(a.key)}>;")
        out(f"    using {a.cap}Iterator = Kal::OrderedIterator<Kal{a.cap}Map, false>;")
        out(f"    using {a.cap}IteratorConst = Kal::OrderedIterator<Kal{a.cap}Map, true>;")
        out()
    # Constructors.
    params = [a for a in t.own(("attr",)) if "param" in a.flags]
    pdecl = ", ".join(f"{arg_type(a.type)} {a.name}" for a in params)
    if t.kind == "value":
        out(f"    {t.name}() = default;")
        if shared(t):
            out("    // The state of a value apart from the value (Kal::KalStateRef): kalShare() gives a")
            out("    // counted reference to it, and a value made from one takes it over untouched.")
            out("    using KalState = Kal::KalStateRef<KalRep>;")
            out(f"    explicit {t.name}(KalState state) noexcept : kalRep_(std::move(state)) {{}}")
            out("    KalState kalShare() const { return kalRep_.kalShare(); }")
        plain = [a for a in t.own(("attr",)) if not a.const_expr]
        if plain and not t.own(("coll",)):
            out(f"    explicit {t.name}(" +
                ", ".join(f"{arg_type(a.type)} {a.name}" for a in plain) + ");")
        out("    // Reads the text form from pos (advanced past it) to end.")
        out(f"    {t.name}(Kal::TextIt& pos, Kal::TextIt end);")
        out(f"    explicit {t.name}(Kal::String8 const& text);")
    elif t.kind == "entity":
        if "key" in t.options:
            out(f"    explicit {t.name}({pdecl});")
        else:
            # By value: a name made for the call (the default one included) moves in.
            out(f"    explicit {t.name}(Kal::Name name" +
                (", " + pdecl if pdecl else " = Kal::Name()") + ");")
        out(f"    ~{t.name}() override;")
        if "factory" in t.options:
            out("    // A new entity of this type, named `name`, filed under `dir` (when given).")
            out(f"    static Ptr newEntity(Kal::Name const& name, "
                f"Kal::Ptr<Kal::Entity> const& dir = nullptr);")
    else:
        out(f"    explicit {t.name}({pdecl});")
        out(f"    ~{t.name}() override;")
    out()
    if "key" in t.options:
        key = next(a for a in t.attrs if a.name == t.options["key"])
        out(f"    // The key under which an ordered collection files this {t.name}.")
        out(f"    {cxx_type(key.type)} const& fwkKey() const noexcept {{ return {key.name}_; }}")
        out()
    # Accessors.
    for a in t.attrs:
        emit_accessors(out, t, a)
    if t.reactor:
        out("    // Reactor machinery: passed on to every input's reactor.")
        out("    void hasNotificationActiveIs(bool active) override;")
        out("    bool kalDoZombieReactors() const noexcept { return kalMarkedForDeletion(); }")
        out("    void kalDoZombieReactors(bool zombie);")
        out("    Kal::Ptr<Kal::Activity> kalFwkActivity() const;")
        out()
    if t.kind == "value":
        out(f"    bool operator==({t.name} const& o) const;")
        out(f"    bool operator!=({t.name} const& o) const {{ return !(*this == o); }}")
        if t.options.get("order") == "custom" or not t.own(("coll",)):
            if t.options.get("order") == "custom":
                out("    // Hand-written beside the model.")
            out(f"    bool operator<({t.name} const& o) const;")
            out(f"    bool operator>({t.name} const& o) const {{ return o < *this; }}")
            out(f"    bool operator<=({t.name} const& o) const {{ return !(o < *this); }}")
            out(f"    bool operator>=({t.name} const& o) const {{ return !(*this < o); }}")
        out(f"    bool operator!() const {{ return *this == {t.name}(); }}")
        out()
    if t.kind == "entity":
        out("    Kal::String8 attributeString(Kal::AttributeId id) const override;")
        out()
    if not t.quiet:
        out("    // Whether any notifiee listens now: a change nobody hears may be made in bulk.")
        out("    bool kalHasNotifiees() const noexcept { return !kalNotifieeList_.empty(); }")
        out()
        out("  protected:")
        out("    void kalNotifyZeroReferences() const override;")
        if t.kind == "entity":
            out("    void kalNotifyIsNondestructing() override;")
        out()
    out("  private:")
    if not t.quiet:
        out("    friend class NotifieeConst;")
    for a in t.own(("input",)):
        out(f"    friend class Kal{a.cap};")
    out(f"    friend class _Type;")
    if shared(t):
        emit_rep(out, t)
    else:
        for a in t.attrs:
            emit_field(out, t, a)
        if hash_cached(t):
            out("    // hash() as last computed; every generated change forgets it.")
            out("    Kal::HashCache kalHash_;")
    if t.reactor:
        out("    bool kalZombie_ = false;")
    if not t.quiet:
        out("    Kal::ListRaw<NotifieeConst> kalNotifieeList_;")
    out("};")
    out()
    if t.kind == "value":
        out(f"std::ostream& operator<<(std::ostream& os, {t.name} const& v);")
        out()
    if t.kind == "entity" and "factory" in t.options:
        out(f"{t.name}::Ptr {lower_first(t.name)}Factory(Kal::Name const& name);")
        out()
    if not t.quiet:
        emit_notifiee(out, t)
    for a in t.own(("input",)):
        emit_reactor_class(out, t, a)
    emit_type_class(out, t)
    emit_generic_if(out, t)


def hash_cached(t):
    return "hashcache" in t.options


def shared(t):
    """A value with collections keeps its fields in a state record (KalRep) that its copies
    share until one of them changes (Kal::KalShared)."""
    return t.kind == "value" and bool(t.own(("coll",)))


def rd(t, field):
    """A field of t, read."""
    return f"kalR().{field}" if shared(t) else field


def begin_change(t):
    """The statement a change of t begins with: a shared value takes its own state (`s`)."""
    return "KalRep& s = kalW(); " if shared(t) else ""


def wr(t, field):
    """A field of t, about to change (after begin_change)."""
    return f"s.{field}" if shared(t) else field


def forget_hash(t):
    """The statement a change of a hash-caching value begins with (empty otherwise)."""
    return f"{wr(t, 'kalHash_')}.forget(); " if hash_cached(t) else ""


def constraint_type(t, c):
    for a in t.own(("attr",)):
        if a.range and c in a.range:
            return cxx_type(a.type)
    return "U32"


def emit_accessors(out, t, a):
    n, cap = a.name, a.cap
    if a.kind == "attr":
        ty = cxx_type(a.type)
        ret = ty if a.type in SCALARS else f"{ty} const&"
        if a.const_expr:
            out(f"    {ty} {n}() const noexcept {{ return {a.const_expr}; }}")
            return
        out(f"    {ret} {n}() const noexcept {{ return {rd(t, n + '_')}; }}")
        if "param" not in a.flags and "readonly" not in a.flags:
            virt = "virtual " if "virtual" in a.flags else ""
            out(f"    {virt}void {n}Is({arg_type(a.type)} v);")
        if notifies(t, a) and "param" not in a.flags:
            out(f"    void {n}Notify() const;")
        if "counter" in a.flags or "counter=inc" in a.flags:
            out(f"    void {n}Inc({ty} n = 1);")
        if "counter" in a.flags:
            out(f"    void {n}Dec({ty} n = 1);")
    elif a.kind == "ptr":
        pt = ptr_type(a)
        out(f"    {pt} const& {n}() const noexcept {{ return {n}_; }}")
        if "readonly" not in a.flags:
            out(f"    void {n}Is({pt} const& v);")
        if notifies(t, a):
            out(f"    void {n}Notify() const;")
    elif a.kind == "input":
        pt = f"Kal::Ptr<{a.type} const>"
        out(f"    // {n}: followed through the reactor Kal{cap}.")
        out(f"    {pt} {n}() const;")
        out(f"    void {n}Is({pt} const& v);")
        out(f"    Kal::Ptr<Kal{cap}> new{cap}({pt} const& v);")
        out(f"    void {n}Del();")
        out(f"    Kal::Ptr<Kal{cap}> const& kal{cap}Reactor() const noexcept "
            f"{{ return {n}Reactor_; }}")
    elif a.kind == "coll":
        key = arg_type(a.key)
        m = f"Kal{cap}"
        vt = f"Kal::Ptr<{a.type}>" if a.is_ptr_value else cxx_type(a.type)
        out(f"    // {n}: {a.key} -> {'Ptr<' + a.type + '>' if a.is_ptr_value else a.type}")
        out(f"    {vt} {n}({key} key) const {{ return Kal::kalCollValue({rd(t, n + '_')}, key); }}")
        out(f"    U32 {plural(a)}() const noexcept {{ return {rd(t, n + '_')}.members(); }}")
        if a.keyfield:
            out(f"    void {n}Is({vt} const& value);")
            out(f"    {m}* new{cap}({vt} const& value);")
            out(f"    {vt} {n}Del({key} key);")
        elif t.kind == "value":
            out(f"    void {n}Is({key} key, {vt} const& value);")
            out(f"    void new{cap}({key} key, {vt} const& value);")
            out(f"    void {n}Del({key} key);")
        else:
            out(f"    void {n}Is({key} key, {vt} const& value);")
            out(f"    // The same for a value given up: a new member takes key and value over.")
            out(f"    void {n}Is({cxx_type(a.key)} key, {vt}&& value);")
            out(f"    // The same for a member made beforehand (Kal::kalNew<{m}>(key, value)), whose")
            out(f"    // key's hash ({m}Map::hashOf(key)) the caller has at hand: for loaders.")
            out(f"    void kal{cap}MemberIs(Kal::Ptr<{m}>&& member, U32 hash);")
            ret = vt if a.is_ptr_value else f"{m}*"
            out(f"    {ret} new{cap}({key} key, {vt} const& value);")
            out(f"    void {n}Del({key} key);")
        out(f"    void {n}DelAll();")
        if not t.quiet:
            out(f"    void {n}Notify({key} key) const;")
        if shared(t):
            # An iterator stands only in a state the value holds alone (Kal::KalShared).
            out(f"    // Room for `members` members, kept until {n}DelAll; changes nothing else.")
            out(f"    void {n}Reserve(U32 members) {{ kalW().{n}_.reserve(members); }}")
            out(f"    {cap}Iterator {n}Iterator() {{ return {cap}Iterator(kalW().{n}_.iterator()); }}")
            out(f"    {cap}IteratorConst {n}IteratorConst() const {{ return "
                f"{cap}IteratorConst(std::as_const(kalRep_.own().{n}_).iterator()); }}")
            out(f"    // For lookups and forEachMember; iterate through {n}IteratorConst().")
            out(f"    {m}Map const& kal{cap}() const noexcept {{ return kalR().{n}_; }}")
        else:
            out(f"    // Room for `members` members, kept until {n}DelAll; changes nothing else.")
            out(f"    void {n}Reserve(U32 members) noexcept {{ {n}_.reserve(members); }}")
            out(f"    {cap}Iterator {n}Iterator() {{ return {cap}Iterator({n}_.iterator()); }}")
            out(f"    {cap}IteratorConst {n}IteratorConst() const {{ return "
                f"{cap}IteratorConst({n}_.iterator()); }}")
            out(f"    {m}Map const& kal{cap}() const noexcept {{ return {n}_; }}")
    elif a.kind == "ordered":
        key = arg_type(a.key)
        et = a.type
        ptype = find_type_params(t, a)
        extra = ", ".join(f"{arg_type(pt)} {pn}" for pn, pt in ptype)
        out(f"    // {n}: ordered by {a.key}, members created here.")
        out(f"    Kal::Ptr<{et}> {n}({key} key) const {{ return Kal::kalOrderedValue({n}_, key); }}")
        out(f"    U32 {plural(a)}() const noexcept {{ return {n}_.members(); }}")
        out(f"    Kal::Ptr<{et}> {n}Is({extra});")
        out(f"    Kal::Ptr<{et}> new{cap}({extra});")
        out(f"    void {n}Del({key} key);")
        out(f"    void {n}DelAll();")
        if not t.quiet:
            out(f"    void {n}Notify({key} key) const;")
        out(f"    {cap}Iterator {n}Iterator() {{ return {cap}Iterator({n}_.iterator()); }}")
        out(f"    {cap}IteratorConst {n}IteratorConst() const {{ return "
            f"{cap}IteratorConst({n}_.iterator()); }}")
        out(f"    Kal{cap}Map const& kal{cap}() const noexcept {{ return {n}_; }}")
    elif a.kind in ("fn", "method"):
        ps = ", ".join(f"{arg_type(pt)} {pn}" for pn, pt in a.params)
        ret = value_type(a.ret) if a.ret else "void"
        const = " const" if "const" in a.flags else ""
        static = "static " if "static" in a.flags else ""
        out(f"    {static}{ret} {n}({ps}){const};")
    out()


# The entity types' parameter lists, filled before emitting (ordered collections need them).
TYPE_PARAMS = {}


def find_type_params(t, a):
    params = TYPE_PARAMS.get(a.type)
    if params is None:
        raise ModelError(os.path.basename(CURRENT_PATH[0]), a.line,
                         f"ordered {a.name}: {a.type} must be an entity with key= declared in "
                         f"the same model file")
    return params


CURRENT_PATH = [""]


def emit_rep(out, t):
    """The state record of a shared value, and the value's access to it."""
    T = t.name
    out("    // The fields, shared with the value's copies until one of them changes.")
    out("    struct KalRep : Kal::PtrInterface {")
    out("        KalRep() = default;")
    out("        explicit KalRep(Kal::PtrInterface::StaticTag tag) : Kal::PtrInterface(tag) {}")
    out("        KalRep(KalRep const&) = default;")
    out("        KalRep& operator=(KalRep const&) = default;")
    out("        KalRep& operator=(KalRep&&) = default;")
    out("        // The state of every new value: static, never changed (a change copies it).")
    out("        static Kal::Ptr<KalRep> kalEmpty() {")
    out("            static KalRep* const empty = new KalRep(Kal::PtrInterface::StaticTag{});")
    out("            return empty;")
    out("        }")
    colls = [a for a in t.attrs if a.kind == "coll"]
    out("        bool kalIterated() const noexcept { return " +
        " || ".join(f"{a.name}_.hasIterators()" for a in colls) + "; }")
    if hash_cached(t):
        out("        // hash() as last computed; every generated change forgets it. First, beside the")
        out("        // count: a table's lookup reads it before anything else of the state.")
        out("        Kal::HashCache kalHash_;")
    for a in t.attrs:
        text = emit_field_text(t, a)
        if text:
            out("    " + text)
    out("    };")
    out(f"    KalRep const& kalR() const noexcept {{ return kalRep_.read(); }}")
    out(f"    KalRep& kalW() {{ return kalRep_.own(); }}")
    if hash_cached(t):
        out("    // The hash cache that hash() fills (the state's: copies that share it share it).")
        out("    Kal::HashCache const& kalHashCache() const noexcept { return kalR().kalHash_; }")
    out("    Kal::KalShared<KalRep> kalRep_;")


def emit_field_text(t, a):
    if a.kind == "attr" and not a.const_expr:
        init = default_init(a.type)
        return f"    {cxx_type(a.type)} {a.name}_" + (f" = {init};" if init else "{};")
    if a.kind == "coll":
        return f"    Kal{a.cap}Map {a.name}_{{1}};"
    return None


def emit_field(out, t, a):
    if a.kind == "attr" and not a.const_expr:
        init = default_init(a.type)
        out(f"    {cxx_type(a.type)} {a.name}_" + (f" = {init};" if init else "{};"))
    elif a.kind == "ptr":
        out(f"    {ptr_type(a)} {a.name}_;")
    elif a.kind == "input":
        out(f"    Kal::Ptr<Kal{a.cap}> {a.name}Reactor_;")
    elif a.kind == "coll":
        out(f"    Kal{a.cap}Map {a.name}_{{1}};")
    elif a.kind == "ordered":
        out(f"    Kal{a.cap}Map {a.name}_;")


def notifiee_base(t):
    return "Kal::Entity::NotifieeConst" if t.kind == "entity" else \
        "Kal::PtrInterface::NotifieeConst"


def emit_notifiee(out, t):
    out(f"// Observer of a {t.name}: one callback per notifying attribute, in slot order.")
    out(f"class {t.name}::NotifieeConst : public {notifiee_base(t)} {{")
    out("  public:")
    out(f"    {t.name}::PtrConst notifier() const {{")
    out(f"        return static_cast<{t.name} const*>(kalRawNotifier());")
    out("    }")
    out(f"    // Only a {t.name} can be observed through this class: another object counts "
        f"as none.")
    out("    void notifierIs(Kal::Ptr<Kal::PtrInterface const> const& notifier) override;")
    out("    void isRegisteredNotifieeIs(bool registered) override;")
    for a in t.attrs:
        if a.kind in ("attr", "ptr") and not a.const_expr and notifies(t, a) \
                and "param" not in a.flags:
            out(f"    virtual void on{a.cap}() {{}}")
        elif a.kind in ("coll", "ordered"):
            out(f"    virtual void on{a.cap}({arg_type(a.key)}) {{}}")
            out(f"    virtual void on{a.cap}kalImmediate() {{}}")
            out(f"    virtual void on{a.cap}() {{}}")
    out("};")
    out()
    out(f"class {t.name}::Notifiee : public {t.name}::NotifieeConst {{")
    out("  public:")
    out(f"    {t.name}::Ptr notifier() const {{")
    out(f"        return const_cast<{t.name}*>(static_cast<{t.name} const*>(kalRawNotifier()));")
    out("    }")
    out("};")
    out()


def emit_reactor_class(out, t, a):
    owner = lower_first(t.name)
    out(f"// Follows {a.name} for its {t.name}: each callback runs the machine's {a.handler}().")
    out(f"class {t.name}::Kal{a.cap} : public {a.type}::NotifieeConst {{")
    out("  public:")
    out(f"    explicit Kal{a.cap}({t.name}* {owner}) : {owner}_({owner}) {{}}")
    out(f"    {t.name}* {owner}() const noexcept {{ return {owner}_; }}")
    out(f"    void {owner}Is({t.name}* {owner}) noexcept {{ {owner}_ = {owner}; }}")
    out(f"    Kal::Ptr<{a.type} const> {a.name}() const {{")
    out(f"        return static_cast<{a.type} const*>(kalRawNotifier());")
    out("    }")
    out(f"    void {a.name}Is(Kal::Ptr<{a.type} const> const& v) {{ notifierIs(v); }}")
    for cb in a.on:
        cap = cb[0].upper() + cb[1:]
        out(f"    void on{cap}() override;")
    out("    // Follows another object: a foreign or null one counts as none; a new non-null")
    out(f"    // one runs {a.handler}() unless the reactor is being torn down; then the reactor")
    out("    // is made active.")
    out("    void notifierIs(Kal::Ptr<Kal::PtrInterface const> const& notifier) override;")
    out("    void hasNotificationActiveIs(bool active) override;")
    out("    virtual bool kalDoZombieReactors() const noexcept { return kalMarkedForDeletion(); }")
    out("    virtual void kalDoZombieReactors(bool zombie) { kalMarkedForDeletionIs(zombie); }")
    out()
    out("  private:")
    out(f"    {t.name}* {owner}_;")
    out("};")
    out()


def emit_type_class(out, t):
    out(f"// The type description of {t.qual}.")
    out(f"class {t.name}::_Type : public Kal::KalType {{")
    out("  public:")
    out("    _Type();")
    for a in t.all_attrs:
        out(f"    Kal::KalAttr kal{a.name}__Attr__;")
    out("};")
    out()


def emit_generic_if(out, t):
    base = "Kal::GenericIfEntity" if t.kind == "entity" else "Kal::GenericIf"
    out(f"// Reflection over one {t.name}.")
    out(f"class {t.name}::GenericIf_ : public {base} {{")
    out("  public:")
    out(f"    explicit GenericIf_({t.name}* obj) : {base}(_fwkType(), obj, false) {{}}")
    out(f"    explicit GenericIf_({t.name} const* obj)")
    out(f"        : {base}(_fwkType(), const_cast<{t.name}*>(obj), true) {{}}")
    out(f"    {t.name}* obj() const noexcept {{ return static_cast<{t.name}*>"
        f"(Kal::GenericIf::obj()); }}")
    if not t.quiet:
        out("    // A notifiee of the wrapped object that hands every callback to one generic")
        out("    // listener as onAttribute(id).")
        out("    class GenericIf_Adapter_;")
        out("    // Makes `listener` hear every change of the wrapped object by attribute id.")
        out("    Kal::Ptr<Kal::PtrInterface::NotifieeConst> doAddNotifiee(")
        out("        std::function<void(Kal::AttributeId)> listener);")
        out("    Kal::Ptr<Kal::PtrInterface::NotifieeConst> kalNotifieeForReactor_;")
    out("};")
    out()
    if not t.quiet:
        out(f"class {t.name}::GenericIf_::GenericIf_Adapter_ : public {t.name}::NotifieeConst {{")
        out("  public:")
        out("    explicit GenericIf_Adapter_(std::function<void(Kal::AttributeId)> listener)")
        out("        : listener_(std::move(listener)) {}")
        out("    void onAttribute(Kal::AttributeId id) override { listener_(id); }")
        for a in t.attrs:
            if a.kind in ("attr", "ptr") and not a.const_expr and notifies(t, a) \
                    and "param" not in a.flags:
                out(f"    void on{a.cap}() override {{ onAttribute({a.id}); }}")
            elif a.kind in ("coll", "ordered"):
                out(f"    void on{a.cap}({arg_type(a.key)}) override {{ onAttribute({a.id}); }}")
                out(f"    void on{a.cap}() override {{ onAttribute({a.id}); }}")
        out()
        out("  private:")
        out("    std::function<void(Kal::AttributeId)> listener_;")
        out("};")
        out()


# ---- The implementation file ------------------------------------------------------------


def emit_cpp(model, header_path):
    out = Out()
    out(f"// Generated by kalgen from {os.path.basename(model.path)} (model {model.name}).")
    out("// Do not edit: change the model and rebuild.")
    out(f'#include "{header_path}"')
    out()
    out("#include <functional>")
    out()
    for t in model.types:
        ns_open(out, t.ns)
        emit_type_impl(out, t)
        ns_close(out, t.ns)
    emit_init(out, model)
    return out.text()


def attr_type_fn(a, t):
    if a.kind in ("framework", "counterFn"):
        return "&Kal::kalTypeOf<bool>" if a.name in ("isNondestructing", "zeroReferences",
                                                     "hasNotificationActiveIs",
                                                     "kalDoZombieReactors") else \
            ("&Kal::kalTypeOf<" + cxx_type(a.of.type) + ">" if a.kind == "counterFn"
             else "&Kal::activityType")
    if a.kind == "fn":
        return f"&Kal::kalTypeOf<{strip_ptr(a.ret)}>" if a.ret else "&Kal::voidType"
    return f"&Kal::kalTypeOf<{cxx_type(a.type)}>"


def strip_ptr(name):
    return name[4:-1].strip() if name.startswith("Ptr<") else cxx_type(name)


def attr_flags(t, a):
    f = []
    if a.kind == "coll":
        f.append("collection_")
        if a.is_ptr_value:
            f.append("ptr_")
    if a.kind == "ordered":
        f += ["ordered_", "ptr_"]
    if a.kind in ("ptr", "input"):
        f.append("ptr_")
    if a.kind == "input":
        f.append("reactorInput_")
    if a.kind in ("fn", "counterFn"):
        f.append("function_")
        if "const" in a.flags:
            f.append("constFunction_")
    if a.kind == "framework":
        f.append("framework_")
    if "param" in a.flags:
        f += ["ctorParam_", "readOnly_"]
    if a.const_expr:
        f += ["constant_", "readOnly_"]
    if "readonly" in a.flags:
        f.append("readOnly_")
    if "counter" in a.flags or "counter=inc" in a.flags:
        f.append("counter_")
    if a.kind in ("attr", "ptr", "coll", "ordered", "input") and notifies(t, a) \
            and not a.const_expr:
        f.append("notifying_")
    if not f:
        return "Kal::AttrFlags{}"
    return "Kal::AttrFlags{" + " | ".join(f"Kal::AttrFlags::{x}" for x in f) + "}"


def introspection(a):
    v = []
    if a.kind in ("fn", "counterFn"):
        v.append("Kal::KalAttrIntrospectionFlags::isFunction_")
    if a.kind in ("coll", "ordered"):
        v.append("Kal::KalAttrIntrospectionFlags::hasInternalIndex_")
    return "Kal::KalAttrIntrospectionFlags(" + (" | ".join(v) if v else "0") + ")"


def attr_ops(t, a):
    T = t.name
    if a.kind == "attr":
        getter = f"&{T}::{a.name}"
        if a.const_expr or "param" in a.flags or "readonly" in a.flags:
            return f"Kal::kalPlainOps<{T}, {getter}>()"
        return f"Kal::kalPlainOps<{T}, {getter}, &{T}::{a.name}Is>()"
    if a.kind == "ptr":
        getter = f"&{T}::{a.name}"
        if "readonly" in a.flags:
            return f"Kal::kalPlainOps<{T}, {getter}>()"
        return f"Kal::kalPlainOps<{T}, {getter}, &{T}::{a.name}Is>()"
    if a.kind == "input":
        return f"Kal::kalPlainOps<{T}, &{T}::{a.name}, &{T}::{a.name}Is>()"
    if a.kind == "coll":
        vt = f"Kal::Ptr<{a.type}>" if a.is_ptr_value else cxx_type(a.type)
        if a.keyfield:
            return (f"Kal::kalCollOps<{T}, {cxx_type(a.key)}, {vt}, &{T}::kal{a.cap}, nullptr, "
                    f"nullptr, nullptr>()")
        setter = f"&{T}::{a.name}Is"
        if t.kind != "value":  # the copying one of the two setters
            setter = (f"static_cast<void ({T}::*)({arg_type(a.key)}, {vt} const&)>("
                      f"{setter})")
        return (f"Kal::kalCollOps<{T}, {cxx_type(a.key)}, {vt}, &{T}::kal{a.cap}, "
                f"{setter}, &{T}::{a.name}Del, &{T}::{a.name}DelAll>()")
    if a.kind == "ordered":
        return (f"Kal::kalOrderedOps<{T}, {cxx_type(a.key)}, &{T}::kal{a.cap}, "
                f"&{T}::{a.name}Del, &{T}::{a.name}DelAll>()")
    if a.kind == "fn":
        return call_thunk(t, a.name, a.params, a.ret, "const" in a.flags)
    if a.kind == "counterFn":
        base = a.of
        return call_thunk(t, a.name, [("n", base.type)], None, False)
    return "Kal::KalAttrOps{}"


def call_thunk(t, name, params, ret, const):
    T = t.name
    obj = f"static_cast<{T}{' const' if const else ''}*>(o)"
    if not params:
        args = ""
    elif len(params) == 1:
        pn, pt = params[0]
        args = f'Kal::kalFromGeneric<{value_type(pt)}>(a, "kalOpArg")'
    else:
        names = ", ".join(f'"{pn}"' for pn, _ in params)
        args = ", ".join(
            f'Kal::kalFromGeneric<{value_type(pt)}>(Kal::genericArg(l, "{pn}"), "{pn}")'
            for pn, pt in params)
    lines = ["Kal::kalCallOps(+[](void* o, Kal::GenericValue const& a, Kal::GenericValue& r) {"]
    if len(params) > 1:
        lines.append('        auto const& l = a.args("kalOpArg");')
        lines.append(f"        Kal::checkGenericArgNames(l, {{{names}}});")
    if ret:
        lines.append(f"        r = Kal::kalGeneric<{value_type(ret)}>({obj}->{name}({args}));")
    else:
        lines.append(f"        {obj}->{name}({args});")
        lines.append("        (void)r;")
    if not params:
        lines.append("        (void)a;")
    lines.append("    })")
    return "\n    ".join(lines)


def emit_type_impl(out, t):
    T = t.name
    # Type description.
    ops = f"Kal::kalValueTypeOps<{T}>()" if t.kind == "value" else "Kal::KalValueOps{}"
    base = "&Kal::entityType()" if t.kind == "entity" else "nullptr"
    out(f"{T}::_Type::_Type()")
    out(f'    : Kal::KalType("{t.qual}", {base}, {ops})')
    for a in t.all_attrs:
        key = f"&Kal::kalTypeOf<{cxx_type(a.key)}>" if a.kind in ("coll", "ordered") else \
            "nullptr"
        out(f'    , kal{a.name}__Attr__(*this, "{a.name}", {attr_type_fn(a, t)}, {key},')
        out(f"        {attr_flags(t, a)}, {introspection(a)}, {a.id},")
        out(f"        {attr_ops(t, a) if a.kind not in ('framework',) else 'Kal::KalAttrOps{}'})")
    out("{")
    out(f"    isValueIs({'true' if t.kind == 'value' else 'false'});")
    out(f"    isEntityIs({'true' if t.kind == 'entity' else 'false'});")
    out("    hasGenericIfSupportIs(true);")
    for c, v in t.constraints:
        out(f'    constraintIs("{c}", "{v}");')
    out("}")
    out()
    out(f"Kal::KalType const& {T}::_fwkType() {{")
    out("    static _Type* type = new _Type; // a static object: never counted, never destroyed")
    out("    return *type;")
    out("}")
    out()
    # Constructors.
    params = [a for a in t.own(("attr",)) if "param" in a.flags]
    pdecl = ", ".join(f"{arg_type(a.type)} {a.name}" for a in params)
    inits = [f"{a.name}_({a.name})" for a in params]
    checks = [a for a in params if a.range]
    if t.kind == "value":
        plain = [a for a in t.own(("attr",)) if not a.const_expr]
        if plain and not t.own(("coll",)):
            out(f"{T}::{T}(" + ", ".join(f"{arg_type(a.type)} {a.name}" for a in plain) + ")")
            out("    : " + ", ".join(f"{a.name}_({a.name})" for a in plain) + " {")
            for a in plain:
                if a.range:
                    cond, thr = range_check(t, a, f"{a.name}_")
                    out(f"    if ({cond}) {thr};")
            out("}")
            out()
        out(f"{T}::{T}(Kal::TextIt& pos, Kal::TextIt end)")
        out(f"    : {T}(Kal::sequenceToValue<{T}>(pos, end)) {{}}")
        out()
        out(f"{T}::{T}(Kal::String8 const& text) : {T}(Kal::strepToValue<{T}>(text)) {{}}")
        out()
    else:
        if t.kind == "entity":
            if "key" in t.options:
                key = t.options["key"]
                out(f"{T}::{T}({pdecl})")
                out(f"    : Kal::Entity(Kal::Name(Kal::valueToStrep({key})))" +
                    "".join(f", {i}" for i in inits) + " {")
            else:
                out(f"{T}::{T}(Kal::Name name" + (", " + pdecl if pdecl else "") + ")")
                out("    : Kal::Entity(std::move(name))" + "".join(f", {i}" for i in inits) + " {")
        else:
            out(f"{T}::{T}({pdecl})")
            out("    " + (": " + ", ".join(inits) if inits else "") + " {")
        for a in checks:
            cond, thr = range_check(t, a, f"{a.name}_")
            out(f"    if ({cond}) {thr};")
        out("}")
        out()
        out(f"{T}::~{T}() {{")
        for a in t.own(("input",)):
            owner = lower_first(T)
            out(f"    if ({a.name}Reactor_) {a.name}Reactor_->{owner}Is(nullptr);")
        out("}")
        out()
        if t.kind == "entity" and "factory" in t.options:
            out(f"{T}::Ptr {T}::newEntity(Kal::Name const& name, Kal::Ptr<Kal::Entity> const& dir) {{")
            out(f"    Ptr e = new {T}(name);")
            out("    if (dir) e->parentIs(dir);")
            out("    return e;")
            out("}")
            out()
            out(f"{T}::Ptr {lower_first(T)}Factory(Kal::Name const& name) {{ return new {T}(name); }}")
            out()
    # Accessor bodies.
    for a in t.attrs:
        emit_accessor_impl(out, t, a)
    if t.reactor:
        inputs = t.own(("input",))
        out(f"void {T}::hasNotificationActiveIs(bool active) {{")
        out("    if (hasNotificationActive() == active) return;")
        out("    Kal::PtrInterface::hasNotificationActiveIs(active);")
        for a in inputs:
            out(f"    if ({a.name}Reactor_) {a.name}Reactor_->hasNotificationActiveIs(active);")
        out("}")
        out()
        out(f"void {T}::kalDoZombieReactors(bool zombie) {{")
        out("    if (kalZombie_ == zombie) return;")
        out("    kalZombie_ = zombie;")
        for a in inputs:
            out(f"    if ({a.name}Reactor_) {a.name}Reactor_->kalDoZombieReactors(zombie);")
        out("    kalMarkedForDeletionIs(zombie);")
        out("}")
        out()
        out(f"Kal::Ptr<Kal::Activity> {T}::kalFwkActivity() const {{ return Kal::Activity::current(); }}")
        out()
        for a in inputs:
            emit_reactor_impl(out, t, a)
    if t.kind == "value":
        conds = []
        for a in t.attrs:
            if a.kind in ("attr", "coll") and not a.const_expr:
                conds.append(f"{rd(t, a.name + '_')} == o.{rd(t, a.name + '_')}")
        out(f"bool {T}::operator==({T} const& o) const {{")
        if shared(t):
            out("    if (kalRep_.sameState(o.kalRep_)) return true;")
        if hash_cached(t):
            out("    // Equal values hash alike: two known hashes that differ decide at once.")
            out(f"    if ({rd(t, 'kalHash_')}.knownAndDiffers(o.{rd(t, 'kalHash_')})) return false;")
        out("    return " + (" && ".join(conds) if conds else "true") + ";")
        out("}")
        out()
        if t.options.get("order") != "custom" and not t.own(("coll",)):
            out(f"bool {T}::operator<({T} const& o) const {{")
            for a in t.own(("attr",)):
                if a.const_expr:
                    continue
                out(f"    if ({a.name}_ < o.{a.name}_) return true;")
                out(f"    if (o.{a.name}_ < {a.name}_) return false;")
            out("    return false;")
            out("}")
            out()
        out(f"std::ostream& operator<<(std::ostream& os, {T} const& v) {{")
        out("    Kal::kalPrint(os, v);")
        out("    return os;")
        out("}")
        out()
    if t.kind == "entity":
        out(f"Kal::String8 {T}::attributeString(Kal::AttributeId id) const {{")
        out("    return GenericIf_(this).attributeString(id);")
        out("}")
        out()
    if not t.quiet:
        out(f"void {T}::kalNotifyZeroReferences() const {{")
        out("    Kal::kalNotify(kalNotifieeList_, 0, [](NotifieeConst& n) { n.onZeroReferences(); });")
        if t.kind == "entity":
            out("    Kal::Entity::kalNotifyZeroReferences();")
        out("}")
        out()
        if t.kind == "entity":
            out(f"void {T}::kalNotifyIsNondestructing() {{")
            out("    Kal::kalNotifyCb(kalNotifieeList_, 0, &NotifieeConst::onIsNondestructing);")
            out("    Kal::Entity::kalNotifyIsNondestructing();")
            out("}")
            out()
        out(f"void {T}::NotifieeConst::notifierIs(Kal::Ptr<Kal::PtrInterface const> const& n) {{")
        out("    Kal::PtrInterface::NotifieeConst::notifierIs(")
        out(f"        Kal::Ptr<Kal::PtrInterface const>(dynamic_cast<{T} const*>(n.ptr())));")
        out("}")
        out()
        out(f"void {T}::NotifieeConst::isRegisteredNotifieeIs(bool registered) {{")
        out(f"    {T}* n = kalNotifierAs<{T}>();")
        out("    kalRegisteredIn(n ? &n->kalNotifieeList_ : nullptr, registered);")
        out("}")
        out()
        out(f"Kal::Ptr<Kal::PtrInterface::NotifieeConst> {T}::GenericIf_::doAddNotifiee(")
        out("    std::function<void(Kal::AttributeId)> listener) {")
        out("    Kal::Ptr<GenericIf_Adapter_> a = new GenericIf_Adapter_(std::move(listener));")
        out(f"    a->notifierIs(Kal::Ptr<Kal::PtrInterface const>(obj()));")
        out("    a->hasNotificationActiveIs(true);")
        out("    kalNotifieeForReactor_ = a;")
        out("    return a;")
        out("}")
        out()


def notify_call(t, a, key=None):
    if t.quiet or "silent" in a.flags:
        return None
    if key is None:
        return f"Kal::kalNotifyCb(kalNotifieeList_, {a.id}, &NotifieeConst::on{a.cap});"
    return f"Kal::kalNotifyKey(kalNotifieeList_, {a.id}, &NotifieeConst::on{a.cap}, {key});"


def emit_accessor_impl(out, t, a):
    T, n, cap = t.name, a.name, a.cap
    if a.kind == "attr" and not a.const_expr:
        ty = cxx_type(a.type)
        if "param" not in a.flags and "readonly" not in a.flags:
            out(f"void {T}::{n}Is({arg_type(a.type)} v) {{")
            if a.range:
                cond, thr = range_check(t, a, "v")
                out(f"    if ({cond}) {thr};")
            call = notify_call(t, a)
            if call:
                out(f"    if (Kal::kalAttrIs({n}_, v)) {call}")
            else:
                out(f"    {begin_change(t)}{forget_hash(t)}{wr(t, n + '_')} = v;")
            out("}")
            out()
        for op, sign in (("Inc", "+"), ("Dec", "-")):
            if op == "Inc" and not ("counter" in a.flags or "counter=inc" in a.flags):
                continue
            if op == "Dec" and "counter" not in a.flags:
                continue
            # Counting stores directly and tells nobody (wrapping in the counter's width);
            # only aIs notifies.
            out(f"void {T}::{n}{op}({ty} n) {{ {begin_change(t)}{forget_hash(t)}"
                f"{wr(t, n + '_')} = {ty}({wr(t, n + '_')} {sign} n); }}")
            out()
    if a.kind in ("attr", "ptr") and not a.const_expr and "param" not in a.flags:
        call = notify_call(t, a)
        if call:
            out(f"void {T}::{n}Notify() const {{ {call} }}")
            out()
    if a.kind == "ptr" and "readonly" not in a.flags:
        out(f"void {T}::{n}Is({ptr_type(a)} const& v) {{")
        call = notify_call(t, a)
        if call:
            out(f"    if (Kal::kalAttrIs({n}_, v)) {call}")
        else:
            out(f"    {n}_ = v;")
        out("}")
        out()
    elif a.kind == "input":
        pt = f"Kal::Ptr<{a.type} const>"
        owner = lower_first(T)
        out(f"{pt} {T}::{n}() const {{")
        out(f"    return {n}Reactor_ ? {n}Reactor_->{n}() : {pt}();")
        out("}")
        out()
        out(f"void {T}::{n}Is({pt} const& v) {{")
        out(f"    if (!{n}Reactor_) {{")
        out(f"        new{cap}(v);")
        out("        return;")
        out("    }")
        out(f"    {n}Reactor_->notifierIs(v);")
        out("}")
        out()
        out(f"Kal::Ptr<{T}::Kal{cap}> {T}::new{cap}({pt} const& v) {{")
        out(f"    {n}Reactor_ = new Kal{cap}(this);")
        out(f"    {n}Reactor_->notifierIs(v);")
        out(f"    return {n}Reactor_;")
        out("}")
        out()
        out(f"void {T}::{n}Del() {{")
        out(f"    if (!{n}Reactor_) return;")
        out(f"    {n}Reactor_->{owner}Is(nullptr);")
        out(f"    {n}Reactor_ = nullptr;")
        out("}")
        out()
    elif a.kind == "coll":
        key = arg_type(a.key)
        m = f"Kal{cap}"
        vt = f"Kal::Ptr<{a.type}>" if a.is_ptr_value else cxx_type(a.type)
        ncall = notify_call(t, a, "k")
        if a.keyfield:
            out(f"void {T}::{n}Is({vt} const& value) {{")
            out(f"    Kal::kalCollIs<{m}>({n}_, value.{a.keyfield}(), value,")
            out(f"                   [this]({key} k) {{ {n}Notify(k); }});") if ncall else \
                out(f"                   []({key}) {{}});")
            out("}")
            out()
            out(f"{T}::{m}* {T}::new{cap}({vt} const& value) {{")
            out(f"    auto* mem = Kal::kalCollNew<{m}>({n}_, value.{a.keyfield}(), value);")
            if ncall:
                out(f"    {n}Notify(mem->fwkKey());")
            out("    return mem;")
            out("}")
            out()
            out(f"{vt} {T}::{n}Del({key} k) {{")
            out(f"    auto* mem = {n}_[k];")
            out(f"    if (!mem) return {vt}();")
            out(f"    {vt} removed = mem->fwkValue();")
            out(f"    {n}_.deleteMember(mem);")
            if ncall:
                out(f"    {n}Notify(k);")
            out("    return removed;")
            out("}")
            out()
        elif t.kind == "value":
            out(f"void {T}::{n}Is({key} k, {vt} const& value) {{")
            out(f"    {begin_change(t)}{forget_hash(t)}Kal::kalCollSet<{m}>({wr(t, n + '_')}, k, value);")
            out("}")
            out()
            out(f"void {T}::new{cap}({key} k, {vt} const& value) {{")
            out(f"    {begin_change(t)}{forget_hash(t)}Kal::kalCollNew<{m}>({wr(t, n + '_')}, k, value);")
            out("}")
            out()
            out(f"void {T}::{n}Del({key} k) {{")
            out(f"    if (!{rd(t, n + '_')}[k]) return;")
            out(f"    {begin_change(t)}{forget_hash(t)}Kal::kalCollDel({wr(t, n + '_')}, k);")
            out("}")
            out()
        else:
            notify = f"[this]({key} key) {{ {n}Notify(key); }}" if ncall else f"[]({key}) {{}}"
            out(f"void {T}::{n}Is({key} k, {vt} const& value) {{")
            out(f"    Kal::kalCollIs<{m}>({n}_, k, value, {notify});")
            out("}")
            out()
            # The given-up key and value move into the new member.
            out(f"void {T}::{n}Is({cxx_type(a.key)} k, {vt}&& value) {{")
            out(f"    Kal::kalCollIs<{m}>({n}_, std::move(k), std::move(value), {notify});")
            out("}")
            out()
            out(f"void {T}::kal{cap}MemberIs(Kal::Ptr<{m}>&& member, U32 hash) {{")
            out(f"    Kal::kalCollMemberIs({n}_, std::move(member), hash, {notify});")
            out("}")
            out()
            ret = vt if a.is_ptr_value else f"{T}::{m}*"
            out(f"{ret} {T}::new{cap}({key} k, {vt} const& value) {{")
            out(f"    auto* mem = Kal::kalCollNew<{m}>({n}_, k, value);")
            if ncall:
                out(f"    {n}Notify(k);")
            out("    return " + ("mem->fwkValue();" if a.is_ptr_value else "mem;"))
            out("}")
            out()
            out(f"void {T}::{n}Del({key} k) {{")
            out(f"    if (Kal::kalCollDel({n}_, k)) " + (f"{n}Notify(k);" if ncall else "{}"))
            out("}")
            out()
        emit_del_all_and_notify(out, t, a, key)
    elif a.kind == "ordered":
        key = arg_type(a.key)
        et = a.type
        ptypes = find_type_params(t, a)
        extra = ", ".join(f"{arg_type(pt)} {pn}" for pn, pt in ptypes)
        keyname = ptypes[0][0]
        names = ", ".join(pn for pn, _ in ptypes)
        ncall = notify_call(t, a, keyname)
        out(f"Kal::Ptr<{et}> {T}::{n}Is({extra}) {{")
        out(f"    if (auto* existing = {n}_[{keyname}]) {{")
        for pn, pt in ptypes[1:]:
            out(f"        if (!(existing->{pn}() == {pn})) {{")
            out(f'            Kal::throwReinstantiation(existing->name(), "_{pn}", '
                f"Kal::valueToStrep({pn}), Kal::valueToStrep(existing->{pn}()));")
            out("        }")
        out(f"        return Kal::Ptr<{et}>(existing);")
        out("    }")
        out(f"    return new{cap}({names});")
        out("}")
        out()
        out(f"Kal::Ptr<{et}> {T}::new{cap}({extra}) {{")
        out(f"    Kal::Ptr<{et}> e = new {et}({names});")
        out(f"    {n}_.memberIs(e);")
        if ncall:
            out(f"    {ncall}")
        out("    return e;")
        out("}")
        out()
        out(f"void {T}::{n}Del({key} k) {{")
        out(f"    if ({n}_.memberDel(k)) " + (f"{n}Notify(k);" if ncall else "{}"))
        out("}")
        out()
        emit_del_all_and_notify(out, t, a, key)


def emit_del_all_and_notify(out, t, a, key):
    """fooDelAll (with the whole-collection callbacks) and fooNotify(key) of a collection."""
    T, n, cap = t.name, a.name, a.cap
    ncall = notify_call(t, a, "k")
    out(f"void {T}::{n}DelAll() {{")
    if ncall:
        out(f"    if ({n}_.members() == 0) return;")
        out(f"    Kal::kalNotifyCb(kalNotifieeList_, {a.id}, &NotifieeConst::on{cap}kalImmediate);")
        out(f"    {n}_.deleteAll();")
        out(f"    Kal::kalNotifyCb(kalNotifieeList_, {a.id}, &NotifieeConst::on{cap});")
    elif shared(t):
        out(f"    if ({rd(t, n + '_')}.members() == 0) return;")
        out(f"    {begin_change(t)}{forget_hash(t)}{wr(t, n + '_')}.deleteAll();")
    else:
        out(f"    {forget_hash(t)}{n}_.deleteAll();")
    out("}")
    out()
    if ncall:
        out(f"void {T}::{n}Notify({key} k) const {{")
        out(f"    {ncall}")
        out("}")
        out()


def emit_reactor_impl(out, t, a):
    T = t.name
    R = f"{T}::Kal{a.cap}"
    owner = lower_first(T)
    for cb in a.on:
        cap = cb[0].upper() + cb[1:]
        out(f"void {R}::on{cap}() {{")
        out(f"    if ({owner}_) {owner}_->{a.handler}();")
        out("}")
        out()
    out(f"void {R}::notifierIs(Kal::Ptr<Kal::PtrInterface const> const& notifier) {{")
    out(f"    Kal::Ptr<{a.type} const> n(dynamic_cast<{a.type} const*>(notifier.ptr()));")
    out("    if (n.ptr() == kalRawNotifier()) return;")
    out(f"    {a.type}::NotifieeConst::notifierIs(n);")
    out(f"    if (n && {owner}_ && !kalDoZombieReactors()) {owner}_->{a.handler}();")
    out("    hasNotificationActiveIs(true);")
    out("}")
    out()
    out(f"void {R}::hasNotificationActiveIs(bool active) {{")
    out(f"    {a.type}::NotifieeConst::hasNotificationActiveIs(active);")
    out("}")
    out()


def emit_init(out, model):
    out(f"void kalInit{model.name}() {{")
    out("    static bool registered = false;")
    out("    if (registered) return;")
    out("    Kal::IntrospectionReactor* r = Kal::IntrospectionReactor::global();")
    out("    if (!r || !r->active()) return;")
    out("    registered = true;")
    ns = None
    for t in model.types:
        if t.ns != ns:
            if ns is not None:
                out("    r->handleScopeExit();")
            out(f'    r->handleNameSpace("{t.ns}");')
            ns = t.ns
        out("    {")
        out(f"        auto& t = const_cast<Kal::KalType&>({t.qual}::_fwkType());")
        out(f"        t.isValueIs({'true' if t.kind == 'value' else 'false'});")
        out(f"        t.isEntityIs({'true' if t.kind == 'entity' else 'false'});")
        out("        t.hasGenericIfSupportIs(true);")
        out("        r->handleType(t, t.base());")
        out("        for (auto it = t.attributeIteratorConst(); it; ++it) {")
        out("            r->handleAttr(*it);")
        out("            r->handleAttrContextExit();")
        out("        }")
        out("    }")
    if ns is not None:
        out("    r->handleScopeExit();")
    out("}")
    out()
    out("namespace {")
    out(f"// Registration runs from static initialisation of this file.")
    out(f"[[maybe_unused]] bool const kalInit{model.name}Done = (kalInit{model.name}(), true);")
    out("} // namespace")


# ---- Driver -----------------------------------------------------------------------------


def generate(path, out_dir, header_prefix):
    with open(path, encoding="utf-8") as f:
        text = f.read()
    CURRENT_PATH[0] = path
    model = parse(path, text)
    stem = os.path.splitext(os.path.basename(path))[0]
    if model.name != stem:
        raise ModelError(os.path.basename(path), 1,
                         f"model {model.name} must live in a file named {model.name}.kal")
    TYPE_PARAMS.clear()
    for t in model.types:
        if t.kind == "entity" and "key" in t.options:
            params = [(a.name, a.type) for a in t.own(("attr",)) if "param" in a.flags]
            if not params or params[0][0] != t.options["key"]:
                raise ModelError(os.path.basename(path), t.line,
                                 f"{t.name}: key={t.options['key']} must be its first param")
            TYPE_PARAMS[t.qual] = params
            TYPE_PARAMS[t.name] = params
    header = emit_header(model)
    header_path = f"{header_prefix}{model.name}.h" if header_prefix else f"{model.name}.h"
    cpp = emit_cpp(model, header_path)
    os.makedirs(out_dir, exist_ok=True)
    write_if_changed(os.path.join(out_dir, f"{model.name}.h"), header)
    write_if_changed(os.path.join(out_dir, f"{model.name}.gen.cpp"), cpp)


def write_if_changed(path, text):
    try:
        with open(path, encoding="utf-8") as f:
            if f.read() == text:
                os.utime(path)
                return
    except FileNotFoundError:
        pass
    with open(path, "w", encoding="utf-8") as f:
        f.write(text)


def main(argv):
    p = argparse.ArgumentParser(description="Generate Kal model type code.")
    p.add_argument("--out-dir", required=True)
    p.add_argument("--header-prefix", default="",
                   help="how the generated .gen.cpp includes its header (e.g. 'fwk/')")
    p.add_argument("model")
    args = p.parse_args(argv)
    try:
        generate(args.model, args.out_dir, args.header_prefix)
    except ModelError as e:
        print(e, file=sys.stderr)
        return 1
    except OSError as e:
        print(f"kalgen: {e}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
