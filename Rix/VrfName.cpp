#include "Rix/VrfName.h"

#include "Kal/Exception.h"
#include "Kal/KalType.h"
#include "Kal/SerDes.h"

#include <ostream>

namespace Ip {

VrfName::VrfName(std::string_view name) : name_(name) {
    if (name.size() > maxBytes) Kal::throwRangeException("VrfName::bytes > 100 not allowed");
}

std::ostream& operator<<(std::ostream& os, VrfName const& v) { return os << v.name(); }

Kal::KalType const& kalTypeOf(VrfName const*) {
    static Kal::KalType const* type = [] {
        Kal::KalValueOps ops;
        ops.print = [](void const* v, std::ostream& os) {
            kalPrint(os, *static_cast<VrfName const*>(v));
        };
        ops.parse = [](void* v, Kal::TextIt& pos, Kal::TextIt end) {
            kalParse(pos, end, *static_cast<VrfName*>(v));
        };
        ops.equals = [](void const* a, void const* b) {
            return *static_cast<VrfName const*>(a) == *static_cast<VrfName const*>(b);
        };
        auto* t = new Kal::KalType("Ip::VrfName", nullptr, ops);
        t->isValueIs(true);
        t->constraintIs("bytes", "100");
        if (auto* r = Kal::IntrospectionReactor::global()) r->handleType(*t, nullptr);
        return t;
    }();
    return *type;
}

void kalPrint(std::ostream& os, VrfName const& v) {
    Kal::text::writeQuoted(os, v.name().stringValue());
}

void kalParse(std::string::const_iterator& pos, std::string::const_iterator end, VrfName& v) {
    v = VrfName(Kal::text::readQuoted(pos, end));
}

} // namespace Ip
