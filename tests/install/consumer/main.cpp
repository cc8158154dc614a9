// A program built against an installed ridge, as a daemon would be: headers of every layer
// from include/ridge, the library from lib.
#include "Strata/ForwardingStatus.h"
#include "fwk/AdjacencyHelper.h"
#include "fwk/RidgeVersion.h"

#include <cstdio>

int main() {
    auto status = Ridge::statusFactory("consumer");
    Ridge::ViaSet set;
    set.viaIs(Strata::Fib::Via(Velnet::IpAddr(0x0A000001u),
                               Velnet::IntfId(Velnet::IntfKind::ethernet_, 1), 0),
              1);
    Ridge::Adjacency::Ptr adj = new Ridge::Adjacency;
    adj->indexIs(7);
    status->viaSetToAdjacencyIs(set, adj);
    bool const found = status->viaSetToAdjacency(set) == adj;
    std::printf("ridge %s %s\n", Ridge::libraryVersion(), found ? "ok" : "lookup failed");
    return found ? 0 : 1;
}
