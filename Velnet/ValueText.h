// The network value types inside the model framework: each has a type description
// ("Velnet::IpAddr", ...) and a place in the value text form, where it prints as its usual
// text in single quotes ('10.0.0.0/24', 'Ethernet5') and reads back from the same.
//
// Declared beside the types (and found by argument-dependent lookup) so that a model
// attribute of one of these types prints, reads and reflects with no further glue.
#pragma once

#include <iosfwd>
#include <string>

namespace Kal {
class KalType;
}

namespace Velnet {

class IpAddr;
class Ip6Addr;
class IntfId;
class Prefix;
class Ip6Prefix;

using TextIt = std::string::const_iterator;

Kal::KalType const& kalTypeOf(IpAddr const*);
Kal::KalType const& kalTypeOf(Ip6Addr const*);
Kal::KalType const& kalTypeOf(IntfId const*);
Kal::KalType const& kalTypeOf(Prefix const*);
Kal::KalType const& kalTypeOf(Ip6Prefix const*);

void kalPrint(std::ostream& os, IpAddr const& v);
void kalPrint(std::ostream& os, Ip6Addr const& v);
void kalPrint(std::ostream& os, IntfId const& v);
void kalPrint(std::ostream& os, Prefix const& v);
void kalPrint(std::ostream& os, Ip6Prefix const& v);

void kalParse(TextIt& pos, TextIt end, IpAddr& v);
void kalParse(TextIt& pos, TextIt end, Ip6Addr& v);
void kalParse(TextIt& pos, TextIt end, IntfId& v);
void kalParse(TextIt& pos, TextIt end, Prefix& v);
void kalParse(TextIt& pos, TextIt end, Ip6Prefix& v);

} // namespace Velnet
