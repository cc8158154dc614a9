// Ip::VrfName: the name of a VRF, at most 100 bytes; "default" names the default VRF.
//
// A value type of the model framework ("Ip::VrfName"): compared, hashed and ordered by its
// bytes, printed in the value text form as a quoted string. Constructing one from more than
// 100 bytes raises Kal::RangeException "VrfName::bytes > 100 not allowed"; exactly 100 bytes
// are accepted.
#pragma once

#include "Kal/String.h"
#include "Kal/Types.h"

#include <compare>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Kal {
class KalType;
}

namespace Ip {

class VrfName {
  public:
    static constexpr U32 maxBytes = 100;

    // The default VRF.
    VrfName() : name_("default") {}
    explicit VrfName(std::string_view name);
    VrfName(char const* name) : VrfName(std::string_view(name)) {}

    Kal::String8 const& name() const noexcept { return name_; }
    U32 bytes() const noexcept { return name_.charCount(); }
    bool isDefault() const noexcept { return name_.stringValue() == "default"; }

    U32 hash() const noexcept { return name_.hash(); }
    friend bool operator==(VrfName const& a, VrfName const& b) { return a.name_ == b.name_; }
    friend auto operator<=>(VrfName const& a, VrfName const& b) { return a.name_ <=> b.name_; }

  private:
    Kal::String8 name_;
};

std::ostream& operator<<(std::ostream& os, VrfName const& v);

Kal::KalType const& kalTypeOf(VrfName const*);
void kalPrint(std::ostream& os, VrfName const& v);
void kalParse(std::string::const_iterator& pos, std::string::const_iterator end, VrfName& v);

} // namespace Ip
