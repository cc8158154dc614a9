// The mixing step behind every Velnet hash.
//
// fmix32 is the 32-bit finaliser of MurmurHash3 (Austin Appleby, public domain):
//
//   h ^= h >> 16;  h *= 0x85EBCA6B;  h ^= h >> 13;  h *= 0xC2B2AE35;  h ^= h >> 16;
//
// all in unsigned 32-bit arithmetic that wraps modulo 2^32. It is a bijection on 32-bit
// words (so distinct inputs never collide), every input bit reaches every output bit, and
// fmix32(0) == 0. It depends on nothing but its argument: no seed, no word size, no byte
// order, so the 64-bit and the i386 build and every run agree on it.
//
// The value types' hashes (IpAddr, Ip6Addr, IntfId, Prefix, Ip6Prefix) are built from it;
// each header states its exact formula. Via-set hashes and the iteration order of every
// hash map keyed by these types are derived from them, so none of them may change without
// everything that stores or compares such an order changing with it.
#pragma once

#include "Kal/Types.h"

namespace Velnet {

constexpr U32 fmix32(U32 h) noexcept {
    h ^= h >> 16;
    h *= 0x85EBCA6Bu;
    h ^= h >> 13;
    h *= 0xC2B2AE35u;
    h ^= h >> 16;
    return h;
}

} // namespace Velnet
