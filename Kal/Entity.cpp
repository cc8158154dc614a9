#include "Kal/Entity.h"

#include "Kal/Exception.h"

#include <string>
#include <vector>

namespace Kal {

namespace {
// Attribute ids of the framework attributes every entity delivers.
constexpr AttributeId parentAttr = 0;
constexpr AttributeId versionAttr = 1;
constexpr AttributeId isNondestructingAttr = 2;

bool isUnreserved(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           c == '-' || c == '.' || c == '_' || c == '~';
}
} // namespace

Entity::~Entity() = default;

void Entity::parentIs(Ptr<Entity> const& parent) {
    if (parent.ptr() == parent_) return;
    parent_ = parent.ptr();
    kalNotify(notifieeList_, parentAttr, [](NotifieeConst& n) { n.onParent(); });
}

void Entity::versionIs(U32 v) {
    if (v == version_) return;
    version_ = v;
    kalNotify(notifieeList_, versionAttr, [](NotifieeConst& n) { n.onVersion(); });
}

String8 Entity::fullName() const {
    std::vector<Entity const*> path;
    for (Entity const* e = this; e; e = e->parent_) path.push_back(e);
    std::string out;
    for (auto it = path.rbegin(); it != path.rend(); ++it) {
        if (!out.empty()) out += '/';
        out += (*it)->name_.stringValue();
    }
    return out;
}

String8 Entity::uriPath() const {
    std::vector<Entity const*> path;
    for (Entity const* e = this; e; e = e->parent_) path.push_back(e);
    static char const hex[] = "0123456789ABCDEF";
    std::string out;
    for (auto it = path.rbegin(); it != path.rend(); ++it) {
        out += '/';
        for (unsigned char c : (*it)->name_.stringValue()) {
            if (isUnreserved(c)) {
                out += char(c);
            } else {
                out += '%';
                out += hex[c >> 4];
                out += hex[c & 0xF];
            }
        }
    }
    return out;
}

String8 Entity::attributeString(AttributeId id) const {
    throwRangeException("Kal::Entity has no text form for attribute " + std::to_string(id));
}

void Entity::kalNotifyZeroReferences() const {
    kalNotify(notifieeList_, 0, [](NotifieeConst& n) { n.onZeroReferences(); });
}

void Entity::kalNotifyIsNondestructing() {
    kalNotify(notifieeList_, isNondestructingAttr,
              [](NotifieeConst& n) { n.onIsNondestructing(); });
}

void Entity::NotifieeConst::notifierIs(Ptr<PtrInterface const> const& notifier) {
    PtrInterface::NotifieeConst::notifierIs(
        Ptr<PtrInterface const>(dynamic_cast<Entity const*>(notifier.ptr())));
}

void Entity::NotifieeConst::isRegisteredNotifieeIs(bool registered) {
    Entity* e = kalNotifierAs<Entity>();
    kalRegisteredIn(e ? &e->notifieeList_ : nullptr, registered);
}

String8 Entity::NotifieeConst::name() const {
    auto const* e = static_cast<Entity const*>(kalRawNotifier());
    return e ? String8(e->name()) : String8();
}

} // namespace Kal
