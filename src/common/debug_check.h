// Debug-only invariant checks for the kernels. The exported functions validate their
// arguments and return status codes; past that point the kernels assume valid input, and
// TESSEL3D_DEBUG_ASSERT states what they assume. It is active where TESSEL3D_DEBUG_CHECKS
// is defined (the debug and asan presets) and compiles to nothing in release builds, so a
// check may cost what it needs. A failed check is a bug of the library, never of the
// caller: it reports the condition and aborts.
#pragma once

#ifdef TESSEL3D_DEBUG_CHECKS
#include <cstdio>
#include <cstdlib>

namespace elfes {
[[noreturn]] inline void debug_check_failed(const char* condition, const char* file, int line) {
  std::fprintf(stderr, "%s:%d: internal check failed: %s\n", file, line, condition);
  std::abort();
}
}  // namespace elfes

#define TESSEL3D_DEBUG_ASSERT(condition) \
  ((condition) ? static_cast<void>(0) : ::elfes::debug_check_failed(#condition, __FILE__, __LINE__))
#else
// sizeof keeps the condition compiled (names stay checked) without evaluating it.
#define TESSEL3D_DEBUG_ASSERT(condition) static_cast<void>(sizeof(!(condition)))
#endif
