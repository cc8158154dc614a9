#include "Strata/RecordText.h"

#include "Kal/GenericIf.h"
#include "Kal/KalType.h"
#include "Kal/SerDes.h"
#include "Strata/Fec.h"
#include "Strata/FecId.h"
#include "Strata/Route.h"
#include "Strata/Via.h"
#include "Velnet/Prefix.h"

#include <ostream>
#include <string>

namespace Strata {

namespace {

template <class T>
Kal::KalValueOps valueOps() {
    Kal::KalValueOps ops;
    ops.print = [](void const* v, std::ostream& os) { kalPrint(os, *static_cast<T const*>(v)); };
    ops.parse = [](void* v, TextIt& pos, TextIt end) { kalParse(pos, end, *static_cast<T*>(v)); };
    ops.equals = [](void const* a, void const* b) {
        return *static_cast<T const*>(a) == *static_cast<T const*>(b);
    };
    return ops;
}

// A new value type description, filed in the registry once its attributes are added.
template <class T>
Kal::KalType* newValueType(char const* name) {
    auto* t = new Kal::KalType(name, nullptr, valueOps<T>());
    t->isValueIs(true);
    return t;
}

void announce(Kal::KalType const& t) {
    if (auto* r = Kal::IntrospectionReactor::global()) r->handleType(t, nullptr);
}

// One plain attribute of a record: read through Get, written back through Set, printed and
// read by the framework's text of its value type V.
template <class T, class V, V (*Get)(T const&), void (*Set)(T&, V const&)>
Kal::KalAttrOps plainOps() {
    Kal::KalAttrOps ops;
    ops.read = [](void const* obj, Kal::GenericValue& result) {
        result = Kal::GenericValue::of<V>(Get(*static_cast<T const*>(obj)));
    };
    ops.print = [](void const* obj, std::ostream& os) {
        using Kal::kalPrint;
        kalPrint(os, Get(*static_cast<T const*>(obj)));
    };
    ops.parse = [](void* obj, TextIt& pos, TextIt end) {
        using Kal::kalParse;
        V v{};
        kalParse(pos, end, v);
        Set(*static_cast<T*>(obj), v);
    };
    return ops;
}

template <class T>
Kal::KalType const& describeRecord(char const* name,
                                   void (*addAttributes)(Kal::KalType& type)) {
    auto* t = newValueType<T>(name);
    addAttributes(*t);
    announce(*t);
    return *t;
}

void addAttr(Kal::KalType& owner, char const* name, Kal::KalAttr::TypeFn type,
             Kal::AttributeId id, Kal::KalAttrOps ops, Kal::KalAttr::TypeFn keyType = nullptr,
             U32 flags = Kal::AttrFlags::plain_) {
    new Kal::KalAttr(owner, name, type, keyType, Kal::AttrFlags{flags},
                     Kal::KalAttrIntrospectionFlags(), id, ops);
}

// ---- FecId ------------------------------------------------------------------------------

U64 fecIdValue(Fib::FecId const& f) { return f.value(); }
void fecIdValueIs(Fib::FecId& f, U64 const& v) { f.valueIs(v); }

// ---- Route ------------------------------------------------------------------------------

template <class R>
typename R::Key routePrefix(R const& r) {
    return r.prefix();
}
template <class R>
void routePrefixIs(R& r, typename R::Key const& p) {
    r.prefixIs(p);
}
template <class R>
Fib::FecId routeFecId(R const& r) {
    return r.fecId();
}
template <class R>
void routeFecIdIs(R& r, Fib::FecId const& f) {
    r.fecIdIs(f);
}
template <class R>
U8 routeType(R const& r) {
    return U8(r.routeType());
}
template <class R>
void routeTypeIs(R& r, U8 const& t) {
    r.routeTypeIs(t);
}

template <class R>
void addRouteAttributes(Kal::KalType& t) {
    using Key = typename R::Key;
    addAttr(t, "prefix", &Kal::kalTypeOf<Key>, 0,
            plainOps<R, Key, &routePrefix<R>, &routePrefixIs<R>>());
    addAttr(t, "fecId", &Kal::kalTypeOf<Fib::FecId>, 1,
            plainOps<R, Fib::FecId, &routeFecId<R>, &routeFecIdIs<R>>());
    addAttr(t, "routeType", &Kal::u8Type, 2, plainOps<R, U8, &routeType<R>, &routeTypeIs<R>>());
}

// ---- Fec --------------------------------------------------------------------------------

template <class F>
Fib::FecId fecFecId(F const& f) {
    return f.fecId();
}
template <class F>
void fecFecIdIs(F& f, Fib::FecId const& v) {
    f.fecIdIs(v);
}
template <class F>
U8 fecType(F const& f) {
    return U8(f.fecType());
}
template <class F>
void fecTypeIs(F& f, U8 const& v) {
    f.fecTypeIs(v);
}
template <class F>
U16 fecNhg(F const& f) {
    return f.nexthopGroupId();
}
template <class F>
void fecNhgIs(F& f, U16 const& v) {
    f.nexthopGroupIdIs(v);
}

// The via map: {<position>: '<via>', ...}, positions ascending.
template <class F>
void printVias(F const& f, std::ostream& os) {
    os << '{';
    bool first = true;
    for (auto it = f.viaIteratorConst(); it; ++it) {
        if (!first) os << ", ";
        first = false;
        os << it.position().value() << ": ";
        kalPrint(os, it.via());
    }
    os << '}';
}

template <class F>
void parseVias(F& f, TextIt& pos, TextIt end) {
    f.viaDelAll();
    Kal::text::expect(pos, end, "{");
    if (Kal::text::accept(pos, end, "}")) return;
    for (;;) {
        U64 const raw = Kal::text::readUnsigned(pos, end, 0xFFFFFFFFull, "via position");
        Fib::ViaIndex const i(raw);
        if (f.hasVia(i)) {
            Kal::throwRangeException("duplicate via position " + std::to_string(raw));
        }
        Kal::text::expect(pos, end, ": ");
        typename F::Via v;
        kalParse(pos, end, v);
        f.viaIs(i, v);
        if (Kal::text::accept(pos, end, "}")) return;
        Kal::text::expect(pos, end, ", ");
    }
}

template <class F>
void addFecAttributes(Kal::KalType& t) {
    addAttr(t, "fecId", &Kal::kalTypeOf<Fib::FecId>, 0,
            plainOps<F, Fib::FecId, &fecFecId<F>, &fecFecIdIs<F>>());
    addAttr(t, "fecType", &Kal::u8Type, 1, plainOps<F, U8, &fecType<F>, &fecTypeIs<F>>());
    addAttr(t, "nexthopGroupId", &Kal::u16Type, 2, plainOps<F, U16, &fecNhg<F>, &fecNhgIs<F>>());
    Kal::KalAttrOps vias;
    vias.print = [](void const* obj, std::ostream& os) {
        printVias(*static_cast<F const*>(obj), os);
    };
    vias.parse = [](void* obj, TextIt& pos, TextIt end) {
        parseVias(*static_cast<F*>(obj), pos, end);
    };
    vias.size = [](void const* obj) { return static_cast<F const*>(obj)->vias(); };
    vias.keys = [](void const* obj, std::vector<Kal::GenericValue>& out) {
        out.clear();
        for (auto it = static_cast<F const*>(obj)->viaIteratorConst(); it; ++it) {
            out.push_back(Kal::GenericValue::of<Fib::ViaIndex>(it.position()));
        }
    };
    vias.lookup = [](void const* obj, Kal::GenericValue const& key, Kal::GenericValue& result) {
        auto const i = key.as<Fib::ViaIndex>("kal_index");
        auto const* f = static_cast<F const*>(obj);
        result = f->hasVia(i) ? Kal::GenericValue::of<typename F::Via>(f->via(i))
                              : Kal::GenericValue();
    };
    addAttr(t, "via", &Kal::kalTypeOf<typename F::Via>, 3, vias, &Kal::kalTypeOf<Fib::ViaIndex>,
            Kal::AttrFlags::collection_);
}

// ---- Via --------------------------------------------------------------------------------

template <class V>
void printVia(std::ostream& os, V const& v) {
    Kal::text::writeQuoted(os, v.toString().stringValue());
}

template <class V>
void parseVia(TextIt& pos, TextIt end, V& v) {
    v = V::fromString(Kal::text::readQuoted(pos, end));
}

template <class T>
Kal::KalType const& describeScalar(char const* name) {
    auto* t = newValueType<T>(name);
    announce(*t);
    return *t;
}

} // namespace

namespace Fib {

Kal::KalType const& kalTypeOf(ViaIndex const*) {
    static Kal::KalType const* type = [] {
        auto* t = newValueType<ViaIndex>("Strata::Fib::ViaIndex");
        t->constraintIs("min", "0");
        t->constraintIs("max", "127");
        announce(*t);
        return t;
    }();
    return *type;
}
Kal::KalType const& kalTypeOf(Via const*) {
    static Kal::KalType const& type = describeScalar<Via>("Strata::Fib::Via");
    return type;
}
Kal::KalType const& kalTypeOf(FecId const*) {
    static Kal::KalType const& type =
        describeRecord<FecId>("Strata::Fib::FecId", [](Kal::KalType& t) {
            addAttr(t, "value", &Kal::u64Type, 0, plainOps<FecId, U64, &fecIdValue, &fecIdValueIs>());
        });
    return type;
}
Kal::KalType const& kalTypeOf(Fec const*) {
    static Kal::KalType const& type =
        describeRecord<Fec>("Strata::Fib::Fec", &addFecAttributes<Fec>);
    return type;
}
Kal::KalType const& kalTypeOf(Route const*) {
    static Kal::KalType const& type =
        describeRecord<Route>("Strata::Fib::Route", &addRouteAttributes<Route>);
    return type;
}

void kalPrint(std::ostream& os, ViaIndex const& v) { os << v.value(); }
void kalPrint(std::ostream& os, Via const& v) { printVia(os, v); }
void kalPrint(std::ostream& os, FecId const& v) { Kal::kalPrintValue(os, kalTypeOf(&v), &v); }
void kalPrint(std::ostream& os, Fec const& v) { Kal::kalPrintValue(os, kalTypeOf(&v), &v); }
void kalPrint(std::ostream& os, Route const& v) { Kal::kalPrintValue(os, kalTypeOf(&v), &v); }

void kalParse(TextIt& pos, TextIt end, ViaIndex& v) {
    v = ViaIndex(Kal::text::readUnsigned(pos, end, 0xFFFFFFFFull, "via position"));
}
void kalParse(TextIt& pos, TextIt end, Via& v) { parseVia(pos, end, v); }
void kalParse(TextIt& pos, TextIt end, FecId& v) { Kal::kalParseValue(pos, end, kalTypeOf(&v), &v); }
void kalParse(TextIt& pos, TextIt end, Fec& v) { Kal::kalParseValue(pos, end, kalTypeOf(&v), &v); }
void kalParse(TextIt& pos, TextIt end, Route& v) { Kal::kalParseValue(pos, end, kalTypeOf(&v), &v); }

} // namespace Fib

namespace Fib6 {

Kal::KalType const& kalTypeOf(Via const*) {
    static Kal::KalType const& type = describeScalar<Via>("Strata::Fib6::Via");
    return type;
}
Kal::KalType const& kalTypeOf(Fec const*) {
    static Kal::KalType const& type =
        describeRecord<Fec>("Strata::Fib6::Fec", &addFecAttributes<Fec>);
    return type;
}
Kal::KalType const& kalTypeOf(Route const*) {
    static Kal::KalType const& type =
        describeRecord<Route>("Strata::Fib6::Route", &addRouteAttributes<Route>);
    return type;
}

void kalPrint(std::ostream& os, Via const& v) { printVia(os, v); }
void kalPrint(std::ostream& os, Fec const& v) { Kal::kalPrintValue(os, kalTypeOf(&v), &v); }
void kalPrint(std::ostream& os, Route const& v) { Kal::kalPrintValue(os, kalTypeOf(&v), &v); }

void kalParse(TextIt& pos, TextIt end, Via& v) { parseVia(pos, end, v); }
void kalParse(TextIt& pos, TextIt end, Fec& v) { Kal::kalParseValue(pos, end, kalTypeOf(&v), &v); }
void kalParse(TextIt& pos, TextIt end, Route& v) { Kal::kalParseValue(pos, end, kalTypeOf(&v), &v); }

} // namespace Fib6

void kalInitStrataRecords() {
    Kal::kalTypeOf<Fib::ViaIndex>();
    Kal::kalTypeOf<Fib::Via>();
    Kal::kalTypeOf<Fib6::Via>();
    Kal::kalTypeOf<Fib::FecId>();
    Kal::kalTypeOf<Fib::Fec>();
    Kal::kalTypeOf<Fib6::Fec>();
    Kal::kalTypeOf<Fib::Route>();
    Kal::kalTypeOf<Fib6::Route>();
}

} // namespace Strata
