// Two kinds of check.
//
// KAL_ASSERT(cond): a precondition the caller broke or an invariant of ours. On failure
// the process ends (abort) after printing the condition's text exactly as written, the
// source location and the enclosing function. Death tests match on that text, so the
// condition is spelled the way callers are told it is ("adj->refCount()").
//
// KAL_DASSERT(cond): the same, compiled only into builds without NDEBUG; for checks too
// costly for the hot path.
#pragma once

namespace Kal {

[[noreturn]] void assertFail(char const* condition, char const* file, int line,
                             char const* function) noexcept;

} // namespace Kal

#define KAL_ASSERT(cond)                                                       \
    ((cond) ? static_cast<void>(0)                                             \
            : ::Kal::assertFail(#cond, __FILE__, __LINE__, __PRETTY_FUNCTION__))

// KAL_ASSERT_AS(cond, "text"): KAL_ASSERT for code shared between several callers that
// checks on their behalf; `text` is reported as the condition, spelled as the callers' own
// contract states it ("status()").
#define KAL_ASSERT_AS(cond, text)                                                              \
    ((cond) ? static_cast<void>(0)                                                             \
            : ::Kal::assertFail(text, __FILE__, __LINE__, __PRETTY_FUNCTION__))

#ifdef NDEBUG
#define KAL_DASSERT(cond) static_cast<void>(0)
#else
#define KAL_DASSERT(cond) KAL_ASSERT(cond)
#endif
