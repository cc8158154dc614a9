#include "Kal/Model.h"

#include <string>

namespace Kal {

void throwConstraint(char const* type, char const* attr, char const* condition) {
    throwRangeException(std::string(type) + "::" + attr + " " + condition + " not allowed");
}

void throwReinstantiation(String8 const& name, char const* paramAttr, String8 const& offered,
                          String8 const& current) {
    throw Exception("Reinstantiating the entity with name " + name.stringValue() +
                        " where constructor parameter attribute " + paramAttr +
                        " has a different value of " + offered.stringValue() +
                        " than the current value of " + current.stringValue() + " not allowed",
                    {ExceptionId::nameInUse_});
}

} // namespace Kal
