#include "Kal/KalType.h"

#include "Kal/SerDes.h"

#include <map>
#include <mutex>
#include <string>

namespace Kal {

KalAttrIntrospectionFlags::KalAttrIntrospectionFlags(unsigned value) {
    if (value > 0x3f) throwRangeException("KalAttrIntrospectionFlags::value > 0x3f not allowed");
    value_ = U8(value);
}

KalAttr::KalAttr(KalType& owner, char const* name, TypeFn type, TypeFn keyType,
                 AttrFlags flags, KalAttrIntrospectionFlags introspection, AttributeId id,
                 KalAttrOps ops)
    : LinkQueueLink(StaticTag{}), name_(name), owner_(&owner), typeFn_(type),
      keyTypeFn_(keyType), flags_(flags), introspection_(introspection), id_(id), ops_(ops) {
    owner.attrIs(*this);
}

KalType::KalType(char const* name, KalType const* base, KalValueOps valueOps)
    : PtrInterface(StaticTag{}), name_(name), base_(base), valueOps_(valueOps) {}

String8 KalType::shortName() const {
    std::string const& n = name_.stringValue();
    auto const colon = n.rfind("::");
    return colon == std::string::npos ? String8(n) : String8(n.substr(colon + 2));
}

KalAttr const* KalType::attr(std::string_view name) const {
    for (auto it = attrs_.iterator(); it; ++it) {
        if (it->name().stringValue() == name) return it.ptr();
    }
    return nullptr;
}

void KalType::attrIs(KalAttr& attr) { attrs_.insert(&attr, attr.id()); }

String8 KalType::constraint(Name const& name) const {
    KalConstraint const* c = constraints_[name];
    return c ? c->value() : String8();
}

void KalType::constraintIs(Name const& name, String8 const& value) {
    if (KalConstraint const* old = constraints_[name]) {
        constraints_.deleteMember(const_cast<KalConstraint*>(old));
    }
    constraints_.newMember(new KalConstraint(name, value));
}

namespace {

struct Registry {
    std::mutex mutex;
    std::map<std::string, KalType const*, std::less<>> types;
    Ptr<IntrospectionReactor> reactor = new IntrospectionReactor;
    std::string nameSpace;
};

Registry& registry() {
    static Registry* r = new Registry; // never destroyed: static destructors may still ask
    return *r;
}

template <class T>
KalValueOps builtinOps() {
    KalValueOps ops;
    ops.print = [](void const* v, std::ostream& os) { kalPrint(os, *static_cast<T const*>(v)); };
    ops.parse = [](void* v, TextIt& pos, TextIt end) { kalParse(pos, end, *static_cast<T*>(v)); };
    ops.equals = [](void const* a, void const* b) {
        return *static_cast<T const*>(a) == *static_cast<T const*>(b);
    };
    return ops;
}

template <class T>
KalType const& builtin(char const* name) {
    static KalType* type = [name] {
        auto* t = new KalType(name, nullptr, builtinOps<T>());
        t->isValueIs(true);
        std::lock_guard lock(registry().mutex);
        registry().types.emplace(name, t);
        return t;
    }();
    return *type;
}

} // namespace

KalType const& u8Type() { return builtin<U8>("U8"); }
KalType const& u16Type() { return builtin<U16>("U16"); }
KalType const& u32Type() { return builtin<U32>("U32"); }
KalType const& u64Type() { return builtin<U64>("U64"); }
KalType const& s32Type() { return builtin<S32>("S32"); }
KalType const& s64Type() { return builtin<S64>("S64"); }
KalType const& boolType() { return builtin<bool>("bool"); }
KalType const& nameType() { return builtin<Name>("Kal::Name"); }
KalType const& string8Type() { return builtin<String8>("Kal::String8"); }
KalType const& genericArgsType() {
    static KalType* type = new KalType("Kal::GenericArgs");
    return *type;
}

namespace {
KalType const& described(char const* name, bool entity) {
    auto* t = new KalType(name);
    t->isEntityIs(entity);
    std::lock_guard lock(registry().mutex);
    registry().types.emplace(name, t);
    return *t;
}
} // namespace

KalType const& entityType() {
    static KalType const& type = described("Kal::Entity", true);
    return type;
}
KalType const& voidType() {
    static KalType const& type = described("void", false);
    return type;
}
KalType const& activityType() {
    static KalType const& type = described("Kal::Activity", false);
    return type;
}

KalType const* typeByName(std::string_view qualifiedName) {
    // The built-ins register on first use; make sure they can be found by name.
    static bool const builtinsMade = [] {
        u8Type(), u16Type(), u32Type(), u64Type(), s32Type(), s64Type(), boolType(),
            nameType(), string8Type();
        return true;
    }();
    (void)builtinsMade;
    std::lock_guard lock(registry().mutex);
    auto it = registry().types.find(qualifiedName);
    return it == registry().types.end() ? nullptr : it->second;
}

std::vector<KalType const*> registeredTypes() {
    std::lock_guard lock(registry().mutex);
    std::vector<KalType const*> out;
    for (auto const& [name, type] : registry().types) out.push_back(type);
    return out;
}

IntrospectionReactor* IntrospectionReactor::global() {
    std::lock_guard lock(registry().mutex);
    return registry().reactor.ptr();
}

Ptr<IntrospectionReactor> IntrospectionReactor::globalIs(Ptr<IntrospectionReactor> reactor) {
    std::lock_guard lock(registry().mutex);
    std::swap(reactor, registry().reactor);
    return reactor;
}

void IntrospectionReactor::handleNameSpace(char const* name) {
    std::lock_guard lock(registry().mutex);
    registry().nameSpace = name;
}

void IntrospectionReactor::handleType(KalType const& type, KalType const*) {
    std::lock_guard lock(registry().mutex);
    registry().types[type.name().stringValue()] = &type;
}

void IntrospectionReactor::handleAttr(KalAttr const&) {}
void IntrospectionReactor::handleAttrContextExit() {}

void IntrospectionReactor::handleScopeExit() {
    std::lock_guard lock(registry().mutex);
    registry().nameSpace.clear();
}

} // namespace Kal
