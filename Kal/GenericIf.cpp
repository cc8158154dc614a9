#include "Kal/GenericIf.h"

#include "Kal/SerDes.h"

#include <sstream>
#include <string>

namespace Kal {

void throwTypeException(std::string_view name) {
    throw Exception("argument of the wrong type: " + std::string(name), {ExceptionId::type_});
}

void throwOpNotSupportedException(std::string_view attrName, U32 op) {
    throw Exception("operation " + std::to_string(op) + " not supported by attribute " +
                        std::string(attrName),
                    {ExceptionId::opNotSupported_});
}

void throwUnknownArgException(std::string_view name) {
    throw Exception("unknown argument: " + std::string(name), {ExceptionId::unknownArg_});
}

void throwBadIndexAttrException(std::string_view name) {
    throw Exception("bad attribute index: " + std::string(name), {ExceptionId::badIndex_});
}

GenericValue GenericValue::ofArgs(GenericArgs args) {
    GenericValue g;
    g.type_ = &genericArgsType();
    g.value_ = std::move(args);
    return g;
}

GenericArgs const& GenericValue::args(std::string_view name) const {
    auto const* a = std::any_cast<GenericArgs>(&value_);
    if (!a) throwTypeException(name);
    return *a;
}

String8 GenericValue::strRep() const {
    if (!type_) return "None";
    std::ostringstream os;
    if (isPtr_) {
        auto const* p = std::any_cast<Ptr<PtrInterface const>>(&value_);
        os << (p && *p ? "Ptr('" + type_->name().stringValue() + "')" : std::string("None"));
    } else if (addr_ && type_->valueOps().print) {
        type_->valueOps().print(addr_(value_), os);
    } else {
        os << "<" << type_->name() << ">";
    }
    return String8(os.str());
}

GenericValue const& genericArg(GenericArgs const& args, std::string_view name) {
    for (auto const& [n, v] : args) {
        if (n.stringValue() == name) return v;
    }
    throwTypeException(name);
}

void checkGenericArgNames(GenericArgs const& args, std::initializer_list<std::string_view> known) {
    for (auto const& [n, v] : args) {
        bool found = false;
        for (auto k : known) found = found || n.stringValue() == k;
        if (!found) throwUnknownArgException(n.stringValue());
    }
}

AttributeId GenericIf::attributeId(std::string_view name) const {
    KalAttr const* a = type_->attr(name);
    if (!a) throwNoSuchAttribute(*type_, name);
    return a->id();
}

KalAttr const& GenericIf::attrOf(AttributeId id) const {
    KalAttr const* a = type_->attr(id);
    if (!a) throwBadIndexAttrException(std::to_string(id));
    return *a;
}

String8 GenericIf::attributeString(AttributeId id) const {
    KalAttr const& a = attrOf(id);
    if (!a.ops().print) throwOpNotSupportedException(a.name().stringValue(), read_);
    std::ostringstream os;
    a.ops().print(obj_, os);
    return String8(os.str());
}

String8 GenericIf::strRep() const {
    std::ostringstream os;
    kalPrintValue(os, *type_, obj_);
    return String8(os.str());
}

void GenericIf::attributeOp(U32 opWord, GenericValue const& argument, GenericValue& result) {
    U32 const op = opWord & 0xFF;
    if (op >= 128 && isConst_) throwConstException();
    KalAttr const& a = attrOf(AttributeId(opWord >> 8));
    KalAttrOps const& ops = a.ops();
    std::string_view const name = a.name().stringValue();
    switch (op) {
    case read_:
        if (!ops.read) throwOpNotSupportedException(name, op);
        result = GenericValue();
        ops.read(obj_, result);
        return;
    case size_:
        if (!ops.size) throwOpNotSupportedException(name, op);
        result = GenericValue::of(ops.size(obj_));
        return;
    case lookup_:
        if (!ops.lookup) throwOpNotSupportedException(name, op);
        result = GenericValue();
        ops.lookup(obj_, argument, result);
        return;
    case keys_: {
        if (!ops.keys) throwOpNotSupportedException(name, op);
        std::vector<GenericValue> keys;
        ops.keys(obj_, keys);
        GenericArgs list;
        list.reserve(keys.size());
        for (auto& k : keys) list.emplace_back(Name("kal_index"), std::move(k));
        result = GenericValue::ofArgs(std::move(list));
        return;
    }
    case callConst_:
        if (!ops.call || !a.flags().has(AttrFlags::constFunction_)) {
            throwOpNotSupportedException(name, op);
        }
        result = GenericValue();
        ops.call(obj_, argument, result);
        return;
    case write_:
        if (!ops.write) throwOpNotSupportedException(name, op);
        ops.write(obj_, argument);
        return;
    case insert_: {
        if (!ops.insert) throwOpNotSupportedException(name, op);
        GenericArgs const& args = argument.args("kalOpArg");
        checkGenericArgNames(args, {"kal_index", name});
        ops.insert(obj_, genericArg(args, "kal_index"), genericArg(args, name));
        return;
    }
    case erase_:
        if (!ops.erase) throwOpNotSupportedException(name, op);
        ops.erase(obj_, argument);
        return;
    case eraseAll_:
        if (!ops.eraseAll) throwOpNotSupportedException(name, op);
        ops.eraseAll(obj_);
        return;
    case call_:
        if (!ops.call) throwOpNotSupportedException(name, op);
        result = GenericValue();
        ops.call(obj_, argument, result);
        return;
    default:
        throwOpNotSupportedException(name, op);
    }
}

GenericIf::AttributeIterator::AttributeIterator(GenericIf& gi, AttributeId id)
    : gi_(&gi), id_(id) {
    KalAttr const& a = gi.attrOf(id);
    if (!a.ops().keys) throwOpNotSupportedException(a.name().stringValue(), GenericIf::keys_);
    a.ops().keys(gi.obj(), keys_);
}

GenericValue GenericIf::AttributeIterator::iterObj() const {
    GenericValue result;
    gi_->attrOf(id_).ops().lookup(gi_->obj(), keys_[pos_], result);
    return result;
}

void GenericIf::AttributeIterator::iterInc() {
    ++pos_;
    skipGone();
}

void GenericIf::AttributeIterator::iterDel() {
    GenericValue ignored;
    gi_->attributeOp(opOf(id_, erase_), keys_[pos_], ignored);
}

void GenericIf::AttributeIterator::skipGone() {
    KalAttr const& a = gi_->attrOf(id_);
    while (pos_ < keys_.size()) {
        GenericValue v;
        a.ops().lookup(gi_->obj(), keys_[pos_], v);
        if (!v.empty()) return;
        ++pos_;
    }
}

} // namespace Kal
