// Type descriptions and the type registry.
//
// Every model type describes itself once per process: a Kal::KalType (one static instance
// per type, reached through the type's static _fwkType() and its virtual fwkType()) with
// its qualified name, kind flags, base type, its attributes in declaration order (a
// LinkQueue of Kal::KalAttr by attribute index) and a table of named constraints. Built-in
// value types (U8 ... U64, S32, S64, bool, Kal::Name, Kal::String8) have descriptions too,
// so that every attribute names the type of its value.
//
// Type and attribute descriptions are static objects (count word 0x1F000000): counting
// them costs nothing and they are never destroyed.
//
// Registration. Each model file's kalInit<File>() walks its types in declaration order and
// announces them to the process-wide introspection reactor (IntrospectionReactor::global()):
// handleNameSpace, then per type handleType and per attribute handleAttr and
// handleAttrContextExit, then handleScopeExit. The reactor files each type in the registry
// under its qualified name; typeByName() finds it there.
//
// Reflection operations on attributes go through the function table each attribute
// carries (KalAttrOps, generated data); see GenericIf.h.
#pragma once

#include "Kal/Exception.h"
#include "Kal/HashMap.h"
#include "Kal/LinkQueue.h"
#include "Kal/Ptr.h"
#include "Kal/PtrInterface.h"
#include "Kal/String.h"
#include "Kal/Types.h"

#include <any>
#include <iosfwd>
#include <vector>

namespace Kal {

class KalType;
class KalAttr;
class GenericValue;
class GenericIf;

// Six bits describing an attribute to introspection. Values above 0x3f are refused.
class KalAttrIntrospectionFlags {
  public:
    static constexpr U8 isIndependentDomainAttr_ = 2;
    static constexpr U8 isFunction_ = 8;
    static constexpr U8 hasInternalIndex_ = 32;

    constexpr KalAttrIntrospectionFlags() noexcept = default;
    explicit KalAttrIntrospectionFlags(unsigned value);

    U8 value() const noexcept { return value_; }
    bool has(U8 bit) const noexcept { return (value_ & bit) != 0; }
    friend bool operator==(KalAttrIntrospectionFlags, KalAttrIntrospectionFlags) = default;

  private:
    U8 value_ = 0;
};

// The kind of an attribute.
struct AttrFlags {
    enum : U32 {
        plain_ = 0,
        collection_ = 1u << 0,     // keyed hash collection
        ordered_ = 1u << 1,        // ordered collection (tree)
        ptr_ = 1u << 2,            // counted pointer (alone, or as a collection's value)
        ctorParam_ = 1u << 3,      // constructor parameter: fixed for the object's life
        function_ = 1u << 4,       // function attribute (an operation)
        constant_ = 1u << 5,       // read-only constant
        counter_ = 1u << 6,        // has fooInc / fooDec
        reactorInput_ = 1u << 7,   // followed through a reactor
        notifying_ = 1u << 8,      // a change notifies the notifiees
        framework_ = 1u << 9,      // framework attribute (kal..., hasNotificationActiveIs, ...)
        readOnly_ = 1u << 10,      // no setter
        constFunction_ = 1u << 11, // function attribute that modifies nothing
    };
    U32 value = plain_;
    constexpr bool has(U32 bit) const noexcept { return (value & bit) != 0; }
};

// What a type knows how to do with a value of itself, type-erased. Null entries: the type
// cannot do that (entities have no value text, for example).
struct KalValueOps {
    // Text form of the value at v.
    void (*print)(void const* v, std::ostream& os) = nullptr;
    // Reads a value from [pos, end) into *v; advances pos past it.
    void (*parse)(void* v, String8::IteratorConst& pos, String8::IteratorConst end) = nullptr;
    bool (*equals)(void const* a, void const* b) = nullptr;
};

// Operations of one attribute on an instance (void* to the owning object), type-erased and
// generated per attribute. Null entries are operations the attribute does not support.
struct KalAttrOps {
    void (*read)(void const* obj, GenericValue& result) = nullptr;
    void (*write)(void* obj, GenericValue const& value) = nullptr;
    void (*print)(void const* obj, std::ostream& os) = nullptr;
    // Reads the attribute's value from text into obj (value types' text form).
    void (*parse)(void* obj, String8::IteratorConst& pos, String8::IteratorConst end) = nullptr;
    // Collections.
    U32 (*size)(void const* obj) = nullptr;
    void (*lookup)(void const* obj, GenericValue const& key, GenericValue& result) = nullptr;
    void (*insert)(void* obj, GenericValue const& key, GenericValue const& value) = nullptr;
    void (*erase)(void* obj, GenericValue const& key) = nullptr;
    void (*eraseAll)(void* obj) = nullptr;
    // Keys of the collection in its order.
    void (*keys)(void const* obj, std::vector<GenericValue>& out) = nullptr;
    // Function attributes: args is the argument (or a GenericArgs list), result the return.
    void (*call)(void* obj, GenericValue const& args, GenericValue& result) = nullptr;
};

// One named constraint of a type ("min" = "0", "max" = "127"), a member of the type's
// constraint table.
class KalConstraint : public PtrInterface {
  public:
    KalConstraint(Name name, String8 value) : kal_index_(std::move(name)), value_(std::move(value)) {}
    KalConstraint(KalConstraint const& o)
        : PtrInterface(o), kal_index_(o.kal_index_), value_(o.value_) {}
    Name const& fwkKey() const noexcept { return kal_index_; }
    Name const& name() const noexcept { return kal_index_; }
    String8 const& value() const noexcept { return value_; }
    KalConstraint* fwkHmNext() const noexcept { return fwkHmNext_.ptr(); }
    void fwkHmNextIs(KalConstraint* n) { fwkHmNext_ = n; }
    bool fwkValueEquals(KalConstraint const& o) const { return value_ == o.value_; }

  private:
    template <class, class>
    friend struct HashMapVTable;
    Name kal_index_;
    String8 value_;
    Ptr<KalConstraint> fwkHmNext_;
};

class KalAttr : public LinkQueueLink {
  public:
    using TypeFn = KalType const& (*)();

    KalAttr(KalType& owner, char const* name, TypeFn type, TypeFn keyType, AttrFlags flags,
            KalAttrIntrospectionFlags introspection, AttributeId id, KalAttrOps ops = {});
    KalAttr(KalAttr const&) = delete;

    Name const& name() const noexcept { return name_; }
    KalType const& owner() const noexcept { return *owner_; }
    KalType const& type() const { return typeFn_(); }
    // The key type of a collection; null for other attributes.
    KalType const* keyType() const { return keyTypeFn_ ? &keyTypeFn_() : nullptr; }
    AttrFlags flags() const noexcept { return flags_; }
    KalAttrIntrospectionFlags introspectionFlags() const noexcept { return introspection_; }
    AttributeId id() const noexcept { return id_; }
    KalAttrOps const& ops() const noexcept { return ops_; }

  private:
    Name name_;
    KalType const* owner_;
    TypeFn typeFn_;
    TypeFn keyTypeFn_;
    AttrFlags flags_;
    KalAttrIntrospectionFlags introspection_;
    AttributeId id_;
    KalAttrOps ops_;
};

class KalType : public PtrInterface {
  public:
    using AttributeQ = LinkQueue<KalAttr, unsigned>;
    using AttributeQIteratorConst = AttributeQ::IteratorConst;
    using ConstraintMap = HashMap<KalConstraint, Name>;

    // name: qualified, exactly as the text form prints it ("Ridge::ViaSet").
    KalType(char const* name, KalType const* base = nullptr, KalValueOps valueOps = {});
    KalType(KalType const&) = delete;

    Name const& name() const noexcept { return name_; }
    // The name without its namespaces ("ViaSet"), as parse errors print it.
    String8 shortName() const;
    KalType const* base() const noexcept { return base_; }

    bool isValue() const noexcept { return isValue_; }
    void isValueIs(bool v) noexcept { isValue_ = v; }
    bool isEntity() const noexcept { return isEntity_; }
    void isEntityIs(bool v) noexcept { isEntity_ = v; }
    bool hasGenericIfSupport() const noexcept { return hasGenericIfSupport_; }
    void hasGenericIfSupportIs(bool v) noexcept { hasGenericIfSupport_ = v; }

    // Attributes in declaration order.
    AttributeQIteratorConst attributeIteratorConst() const { return attrs_.iterator(); }
    U32 attributes() const noexcept { return attrs_.size(); }
    KalAttr const* attr(AttributeId id) const { return attrs_.find(id); }
    KalAttr const* attr(std::string_view name) const;
    // Files an attribute description (done by KalAttr's constructor, in declaration order).
    void attrIs(KalAttr& attr);

    ConstraintMap const& constraints() const noexcept { return constraints_; }
    String8 constraint(Name const& name) const;
    void constraintIs(Name const& name, String8 const& value);

    KalValueOps const& valueOps() const noexcept { return valueOps_; }

  private:
    Name name_;
    KalType const* base_;
    KalValueOps valueOps_;
    bool isValue_ = false;
    bool isEntity_ = false;
    bool hasGenericIfSupport_ = false;
    AttributeQ attrs_;
    ConstraintMap constraints_{1};
};

// The registry: every announced type by qualified name.
KalType const* typeByName(std::string_view qualifiedName);
std::vector<KalType const*> registeredTypes();

// Receives the registration steps of the model files. The global reactor files types in
// the registry; a test may install its own to watch the steps.
class IntrospectionReactor : public PtrInterface {
  public:
    // The process-wide reactor, created on first use; null if one was removed.
    static IntrospectionReactor* global();
    // Installs another reactor (null removes it) and returns the previous one.
    static Ptr<IntrospectionReactor> globalIs(Ptr<IntrospectionReactor> reactor);

    bool active() const noexcept { return active_; }
    void activeIs(bool a) noexcept { active_ = a; }

    virtual void handleNameSpace(char const* name);
    virtual void handleType(KalType const& type, KalType const* base);
    virtual void handleAttr(KalAttr const& attr);
    virtual void handleAttrContextExit();
    virtual void handleScopeExit();

  private:
    bool active_ = true;
};

// Descriptions of the built-in value types.
KalType const& u8Type();
KalType const& u16Type();
KalType const& u32Type();
KalType const& u64Type();
KalType const& s32Type();
KalType const& s64Type();
KalType const& boolType();
KalType const& nameType();
KalType const& string8Type();
// The type of a GenericArgs argument list (reflection calls with several arguments).
KalType const& genericArgsType();
// The base of every entity type: "Kal::Entity".
KalType const& entityType();
// The result type of function attributes that return nothing: "void".
KalType const& voidType();
// The type of kalFwkActivity: "Kal::Activity".
KalType const& activityType();

// kalTypeOf<T>(): the description of T. Model types answer through their static
// _fwkType(); built-ins here; other value types by a kalTypeOf(T const*) overload found in
// their own namespace.
inline KalType const& kalTypeOf(U8 const*) { return u8Type(); }
inline KalType const& kalTypeOf(U16 const*) { return u16Type(); }
inline KalType const& kalTypeOf(U32 const*) { return u32Type(); }
inline KalType const& kalTypeOf(U64 const*) { return u64Type(); }
inline KalType const& kalTypeOf(S32 const*) { return s32Type(); }
inline KalType const& kalTypeOf(S64 const*) { return s64Type(); }
inline KalType const& kalTypeOf(bool const*) { return boolType(); }
inline KalType const& kalTypeOf(Name const*) { return nameType(); }
inline KalType const& kalTypeOf(String8 const*) { return string8Type(); }

template <class T>
KalType const& kalTypeOf() {
    if constexpr (requires { T::_fwkType(); }) {
        return T::_fwkType();
    } else {
        return kalTypeOf(static_cast<T const*>(nullptr));
    }
}

} // namespace Kal
