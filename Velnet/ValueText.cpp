#include "Velnet/ValueText.h"

#include "Kal/KalType.h"
#include "Kal/SerDes.h"
#include "Velnet/IntfId.h"
#include "Velnet/Ip6Addr.h"
#include "Velnet/IpAddr.h"
#include "Velnet/Prefix.h"

#include <ostream>

namespace Velnet {

namespace {

template <class T>
Kal::KalType const& describe(char const* name) {
    static Kal::KalType const* type = [name] {
        Kal::KalValueOps ops;
        ops.print = [](void const* v, std::ostream& os) { kalPrint(os, *static_cast<T const*>(v)); };
        ops.parse = [](void* v, TextIt& pos, TextIt end) { kalParse(pos, end, *static_cast<T*>(v)); };
        ops.equals = [](void const* a, void const* b) {
            return *static_cast<T const*>(a) == *static_cast<T const*>(b);
        };
        auto* t = new Kal::KalType(name, nullptr, ops);
        t->isValueIs(true);
        if (auto* r = Kal::IntrospectionReactor::global()) r->handleType(*t, nullptr);
        return t;
    }();
    return *type;
}

template <class T>
void print(std::ostream& os, T const& v) {
    Kal::text::writeQuoted(os, v.toString().stringValue());
}

template <class T>
void parse(TextIt& pos, TextIt end, T& v) {
    v = T::fromString(Kal::text::readQuoted(pos, end));
}

} // namespace

Kal::KalType const& kalTypeOf(IpAddr const*) { return describe<IpAddr>("Velnet::IpAddr"); }
Kal::KalType const& kalTypeOf(Ip6Addr const*) { return describe<Ip6Addr>("Velnet::Ip6Addr"); }
Kal::KalType const& kalTypeOf(IntfId const*) { return describe<IntfId>("Velnet::IntfId"); }
Kal::KalType const& kalTypeOf(Prefix const*) { return describe<Prefix>("Velnet::Prefix"); }
Kal::KalType const& kalTypeOf(Ip6Prefix const*) { return describe<Ip6Prefix>("Velnet::Ip6Prefix"); }

void kalPrint(std::ostream& os, IpAddr const& v) { print(os, v); }
void kalPrint(std::ostream& os, Ip6Addr const& v) { print(os, v); }
void kalPrint(std::ostream& os, IntfId const& v) { print(os, v); }
void kalPrint(std::ostream& os, Prefix const& v) { print(os, v); }
void kalPrint(std::ostream& os, Ip6Prefix const& v) { print(os, v); }

void kalParse(TextIt& pos, TextIt end, IpAddr& v) { parse(pos, end, v); }
void kalParse(TextIt& pos, TextIt end, Ip6Addr& v) { parse(pos, end, v); }
void kalParse(TextIt& pos, TextIt end, IntfId& v) { parse(pos, end, v); }
void kalParse(TextIt& pos, TextIt end, Prefix& v) { parse(pos, end, v); }
void kalParse(TextIt& pos, TextIt end, Ip6Prefix& v) { parse(pos, end, v); }

} // namespace Velnet
