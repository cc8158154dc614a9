// Reflection: by-name access to the attributes of any model instance.
//
// Kal::GenericValue carries one value of any described type (or a counted pointer to an
// entity) together with its type description. Kal::GenericIf wraps one instance (const or
// not) and performs operations on its attributes through the operation table each
// attribute description carries (generated per attribute, see KalType.h).
//
// attributeOp(op, argument, result) takes one operation word: the attribute id in the upper
// 24 bits and the operation id in the low 8 (opOf(attributeId, operationId)). It works in
// this order:
//   1. a modifying operation (id 128-255) on a const instance raises
//      "attempting to modify a const instance" (throwConstException) and changes nothing;
//   2. the attribute is selected by its id (unknown id: throwBadIndexAttrException);
//   3. the operation is selected by its id (unsupported: throwOpNotSupportedException);
//   4. the argument's type is checked (throwTypeException naming the argument: "kalOpArg"
//      for the operation's own argument, "kal_index" for a collection key, the attribute's
//      name for a value, the parameter's name for an argument of a function attribute);
//   5. the operation runs and the result is delivered in `result`.
// Operation ids: 0 read, 1 size, 2 lookup (argument: the key), 3 keys (result: the keys,
// as a GenericArgs list), 4 call of a const function attribute; 128 write, 129 insert
// (argument: GenericArgs {kal_index: key, <attr>: value}), 130 erase (argument: the key),
// 131 erase all, 132 call of a function attribute that modifies its object. Function
// arguments: none, the single argument itself, or a GenericArgs list by parameter name
// (an unknown name: throwUnknownArgException).
#pragma once

#include "Kal/Entity.h"
#include "Kal/Exception.h"
#include "Kal/KalType.h"
#include "Kal/Ptr.h"
#include "Kal/String.h"

#include <any>
#include <utility>
#include <vector>

namespace Kal {

class GenericValue;
// Named arguments of a reflective call, or the key and value of an insertion.
using GenericArgs = std::vector<std::pair<Name, GenericValue>>;

[[noreturn]] void throwTypeException(std::string_view name);
[[noreturn]] void throwOpNotSupportedException(std::string_view attrName, U32 op);
[[noreturn]] void throwUnknownArgException(std::string_view name);
[[noreturn]] void throwBadIndexAttrException(std::string_view name);

class GenericValue {
  public:
    GenericValue() = default;

    // A value of a built-in or model value type.
    template <class T>
    static GenericValue of(T v) {
        GenericValue g;
        g.type_ = &kalTypeOf<T>();
        g.value_ = std::move(v);
        g.addr_ = [](std::any const& a) -> void const* { return std::any_cast<T>(&a); };
        return g;
    }
    // A counted pointer to an entity (or other described counted object).
    template <class T>
    static GenericValue ofPtr(Ptr<T> p) {
        GenericValue g;
        g.type_ = &kalTypeOf<std::remove_const_t<T>>();
        g.isPtr_ = true;
        g.value_ = Ptr<T const>(std::move(p));
        return g;
    }
    static GenericValue ofArgs(GenericArgs args);

    bool empty() const noexcept { return type_ == nullptr; }
    KalType const* type() const noexcept { return type_; }
    bool isPtr() const noexcept { return isPtr_; }

    // The value as a T; any other type raises throwTypeException(name).
    template <class T>
    T const& as(std::string_view name) const {
        T const* v = std::any_cast<T>(&value_);
        if (!v || isPtr_) throwTypeException(name);
        return *v;
    }
    template <class T>
    Ptr<T> asPtr(std::string_view name) const {
        auto const* p = std::any_cast<Ptr<std::remove_const_t<T> const>>(&value_);
        if (!p || !isPtr_) throwTypeException(name);
        return constPtrCast<T>(*p);
    }
    GenericArgs const& args(std::string_view name) const;

    // The text form of the value (value types), "None" / "Ptr(...)" (pointers).
    String8 strRep() const;

  private:
    KalType const* type_ = nullptr;
    bool isPtr_ = false;
    std::any value_;
    void const* (*addr_)(std::any const&) = nullptr;
};

// The argument named `name` of a GenericArgs list; throwUnknownArgException for names not
// in `known`, throwTypeException when absent.
GenericValue const& genericArg(GenericArgs const& args, std::string_view name);
void checkGenericArgNames(GenericArgs const& args, std::initializer_list<std::string_view> known);

class GenericIf : public PtrInterface {
  public:
    enum Op : U32 {
        read_ = 0,
        size_ = 1,
        lookup_ = 2,
        keys_ = 3,
        callConst_ = 4,
        write_ = 128,
        insert_ = 129,
        erase_ = 130,
        eraseAll_ = 131,
        call_ = 132,
    };

    static constexpr U32 opOf(AttributeId attr, U32 operation) noexcept {
        return (attr << 8) | (operation & 0xFF);
    }

    GenericIf(KalType const& type, void* obj, bool isConst) noexcept
        : type_(&type), obj_(obj), isConst_(isConst) {}

    KalType const& type() const noexcept { return *type_; }
    void* obj() const noexcept { return obj_; }
    bool isConst() const noexcept { return isConst_; }
    void objIs(void* obj, bool isConst) noexcept {
        obj_ = obj;
        isConst_ = isConst;
    }

    // The id of the attribute with this name; an unknown name raises
    // "<Type> has no such attribute: <name>".
    AttributeId attributeId(std::string_view name) const;
    // The text form of one attribute's value.
    String8 attributeString(AttributeId id) const;
    void attributeOp(U32 op, GenericValue const& argument, GenericValue& result);
    // The text form of the whole instance (value types).
    String8 strRep() const;

    // Walks the members of a collection attribute by key, in the collection's order, over
    // a snapshot of its keys taken at the start: deleting through the iterator (iterDel)
    // or elsewhere does not disturb the walk; keys gone by the time they are reached are
    // passed over.
    class AttributeIterator {
      public:
        AttributeIterator(GenericIf& gi, AttributeId id);
        bool nonNull() const noexcept { return pos_ < keys_.size(); }
        GenericValue const& iterKey() const { return keys_[pos_]; }
        GenericValue iterObj() const;
        void iterInc();
        void iterDel();
        AttributeIterator iterClone() const { return *this; }

      private:
        void skipGone();
        GenericIf* gi_;
        AttributeId id_;
        std::vector<GenericValue> keys_;
        std::size_t pos_ = 0;
    };
    AttributeIterator attributeIterator(AttributeId id) { return AttributeIterator(*this, id); }

  protected:
    KalAttr const& attrOf(AttributeId id) const;

  private:
    KalType const* type_;
    void* obj_;
    bool isConst_;
};

// The reflection adapter of entities: the entity's name and path besides its attributes.
class GenericIfEntity : public GenericIf {
  public:
    GenericIfEntity(KalType const& type, Entity* obj, bool isConst) noexcept
        : GenericIf(type, obj, isConst) {}
    Entity* entity() const noexcept { return static_cast<Entity*>(obj()); }
    Name const& name() const noexcept { return entity()->name(); }
    String8 fullName() const { return entity()->fullName(); }
};

} // namespace Kal
