// Whether two arrays of the library (dense2D or dense1D, any value types) may see each
// other's writes: one object passed twice, one buffer behind both (shallow copies and
// views), or entries in overlapping memory (wrapped external memory). Exported functions
// use it to read an input that shares memory with an output from a private copy, or to
// refuse two outputs that share memory.
#pragma once

#include <cstddef>
#include <functional>
#include <tuple>

#include "common/element_tables.h"
#include "zel/matrix.h"

namespace elfes {

struct byte_span {
  const char* begin = nullptr;
  const char* end = nullptr;
};

template <class T>
byte_span span_of(const zel::dense2D<T>& m) {
  if (m.rows() == 0 || m.cols() == 0 || !m.data()) return {};
  const char* begin = reinterpret_cast<const char*>(m.data());
  return {begin, begin + (m.ld() * (m.cols() - 1) + m.rows()) * sizeof(T)};
}

template <class T, unsigned A>
byte_span span_of(const zel::dense1D<T, A>& v) {
  if (v.empty() || !v.data()) return {};
  const char* begin = reinterpret_cast<const char*>(v.data());
  return {begin, begin + v.size() * sizeof(T)};
}

template <class A, class B>
bool share_memory(const A& a, const B& b) {
  if (static_cast<const void*>(&a) == static_cast<const void*>(&b)) return true;
  const void* buffer_a = a.storage().get();
  if (buffer_a && buffer_a == static_cast<const void*>(b.storage().get())) return true;
  const byte_span x = span_of(a), y = span_of(b);
  // std::less gives a total order on pointers into different objects.
  return x.begin != x.end && y.begin != y.end && std::less<const char*>()(x.begin, y.end) &&
         std::less<const char*>()(y.begin, x.end);
}

/// True when `out` shares memory with any of the inputs.
template <class Out, class... In>
bool shares_with_any(const Out& out, const In&... in) {
  return (share_memory(out, in) || ...);
}

/// call(copies...) on private deep copies of the inputs; -199 when a copy fails.
template <class Call, class... In>
int with_private_copies(const Call& call, const In&... in) {
  std::tuple<In...> own;
  const bool copied = std::apply([&](In&... o) { return (o.copy(in) && ...); }, own);
  return copied ? std::apply(call, own) : OUT_OF_MEMORY;
}

}  // namespace elfes
