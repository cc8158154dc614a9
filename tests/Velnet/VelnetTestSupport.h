// Helpers shared by the Velnet tests: a reference of the documented hash finaliser written
// independently of Velnet/Hash.h, a check that a parser refuses a text with a message that
// quotes it and gives the reason, and the pieces of the cross-checks against the C library.
#pragma once

#include "Kal/Exception.h"
#include "Kal/Types.h"

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <string>

namespace velnet_test {

// MurmurHash3's fmix32 as documented, in 64-bit arithmetic with explicit truncation so that
// it shares no code (and no reliance on unsigned wrap-around) with the library's version.
inline U32 refFmix32(U32 x) {
    U64 h = x;
    h ^= h >> 16;
    h = (h * 0x85EBCA6Bull) % 0x100000000ull;
    h ^= h >> 13;
    h = (h * 0xC2B2AE35ull) % 0x100000000ull;
    h ^= h >> 16;
    return U32(h);
}

// Each text must make `parse` throw a Kal::RangeException whose message quotes the text
// ("'<text>'") and contains the reason given beside it.
struct Refusal {
    std::string text;
    std::string reason;
};
template <class Parse>
void expectRefusals(Parse parse, std::initializer_list<Refusal> cases) {
    for (Refusal const& c : cases) {
        try {
            parse(c.text);
            ADD_FAILURE() << "'" << c.text << "' was accepted";
        } catch (Kal::RangeException const& e) {
            std::string const m = e.message().stringValue();
            bool const quoted = m.find("'" + c.text + "'") != std::string::npos;
            EXPECT_TRUE(quoted && m.find(c.reason) != std::string::npos)
                << "message \"" << m << "\" does not quote '" << c.text << "' or lacks \""
                << c.reason << "\"";
        }
    }
}

// The value T::fromString(text) gives, or nothing when it refuses the text.
template <class T>
std::optional<T> parsedOrNot(std::string const& text) {
    try {
        return T::fromString(text);
    } catch (Kal::RangeException const&) {
        return std::nullopt;
    }
}

// Up to two random edits of `text` (erase, insert or replace a character from `alphabet`):
// texts at the edges of a grammar.
inline std::string mutated(std::string t, std::mt19937& rng, std::string const& alphabet) {
    for (U32 edits = rng() % 3; edits > 0 && !t.empty(); --edits) {
        std::size_t const pos = rng() % t.size();
        switch (rng() % 3) {
        case 0: t.erase(pos, 1); break;
        case 1: t.insert(pos, 1, alphabet[rng() % alphabet.size()]); break;
        default: t[pos] = alphabet[rng() % alphabet.size()]; break;
        }
    }
    return t;
}

} // namespace velnet_test
