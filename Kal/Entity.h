// Kal::Entity: a named, counted object with a place in the containment tree.
//
// An entity is created by its owner only (a newFoo operation of the owning collection) and
// lives as long as a counted pointer holds it; the owner's collection slot makes it
// nondestructing where it must outlive outside references.
//
// The parent link is not counted. The parent owns the child through a collection, so a
// counted back pointer would make every parent/child pair a cycle that never frees; the
// owner clears the child's parent when it lets the child go. parent() hands out a counted
// pointer, so a caller that keeps it keeps the parent alive.
//
// Names: name() is unique among the siblings in one parent collection. fullName() is the
// path of names from the root joined by '/' ("root/a/b"); uriPath() is the same path with a
// leading '/' and every byte outside RFC 3986's unreserved set percent-encoded.
#pragma once

#include "Kal/ListRaw.h"
#include "Kal/Notifiee.h"
#include "Kal/Ptr.h"
#include "Kal/PtrInterface.h"
#include "Kal/String.h"
#include "Kal/Types.h"

namespace Kal {

class Entity : public PtrInterface {
  public:
    class NotifieeConst;
    class Notifiee;

    explicit Entity(Name name) : name_(std::move(name)) {}
    ~Entity() override;

    Name const& name() const noexcept { return name_; }

    Ptr<Entity> parent() const noexcept { return parent_; }
    Entity* kalRawParent() const noexcept { return parent_; }
    void parentIs(Ptr<Entity> const& parent);

    AttributeId parentAttrId() const noexcept { return parentAttrId_; }
    void parentAttrIdIs(AttributeId id) noexcept { parentAttrId_ = id; }

    String8 fullName() const;
    String8 uriPath() const;

    // A counter of the entity's changes, for observers that want to know that something
    // changed rather than what; bumped by whoever changes the entity.
    U32 version() const noexcept { return version_; }
    void versionIs(U32 v);

    // The text form of one attribute. An entity without reflection has none to offer and
    // raises Kal::RangeException naming the attribute id.
    virtual String8 attributeString(AttributeId id) const;

  protected:
    void kalNotifyZeroReferences() const override;
    void kalNotifyIsNondestructing() override;

  private:
    Name name_;
    Entity* parent_ = nullptr;
    AttributeId parentAttrId_ = 0;
    U32 version_ = 0;
    ListRaw<NotifieeConst> notifieeList_;
};

class Entity::NotifieeConst : public PtrInterface::NotifieeConst {
  public:
    Ptr<Entity const> notifier() const {
        return static_cast<Entity const*>(kalRawNotifier());
    }
    // Only entities can be observed through this class: another object counts as none.
    void notifierIs(Ptr<PtrInterface const> const& notifier) override;
    void isRegisteredNotifieeIs(bool registered) override;
    String8 name() const override;

    virtual void onParent() {}
    virtual void onVersion() {}
    virtual void onIsNondestructing() {}

  private:
    friend class Entity;
};

class Entity::Notifiee : public Entity::NotifieeConst {
  public:
    Ptr<Entity> notifier() const {
        return const_cast<Entity*>(static_cast<Entity const*>(kalRawNotifier()));
    }
};

} // namespace Kal
