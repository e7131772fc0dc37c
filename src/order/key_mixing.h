// Seeded hashing of edge and face keys for the lookups of the hash container.
//
// The container's own hash (hash_tables.h) is a sum over the key's nodes, so a numbering
// of the nodes can be chosen to give thousands of keys one value. Lookups therefore use
// this hash instead: the key's nodes sorted (so that every key equal to it under either
// match policy hashes alike), packed into 64-bit words and run through a multiply-xorshift
// mixer keyed by a seed that each table draws when it is reset. Without the seed, the
// bits a key lands on cannot be predicted from its node IDs, whatever the numbering.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace elfes {
namespace mixing {

// The finaliser of splitmix64: every input bit reaches every output bit.
inline std::uint64_t mix64(std::uint64_t z) {
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

inline std::uint64_t pack(unsigned high, unsigned low) { return (std::uint64_t(high) << 32) | low; }

inline void order(unsigned& a, unsigned& b) {
  if (b < a) {
    const unsigned t = a;
    a = b;
    b = t;
  }
}

inline std::uint64_t of_nodes(std::uint64_t seed, unsigned a) { return mix64(seed ^ a); }

inline std::uint64_t of_nodes(std::uint64_t seed, unsigned a, unsigned b) {
  order(a, b);
  return mix64(seed ^ pack(a, b));
}

inline std::uint64_t of_nodes(std::uint64_t seed, unsigned a, unsigned b, unsigned c) {
  order(a, b);
  order(b, c);
  order(a, b);
  return mix64(mix64(seed ^ pack(a, b)) ^ c);
}

inline std::uint64_t of_nodes(std::uint64_t seed, unsigned a, unsigned b, unsigned c, unsigned d) {
  order(a, b);
  order(c, d);
  order(a, c);
  order(b, d);
  order(b, c);
  return mix64(mix64(seed ^ pack(a, b)) ^ pack(c, d));
}

/// A fresh seed per call: a process-wide counter run through the mixer with the clock
/// and an address (which the loader places anew in each process). Results never depend
/// on it; only the positions of keys in the lookup index do.
inline std::uint64_t fresh_seed(const void* owner) {
  static std::atomic<std::uint64_t> counter{0};
  const std::uint64_t tick = static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
  const std::uint64_t n = counter.fetch_add(0x9E3779B97F4A7C15ull, std::memory_order_relaxed);
  return mix64(n ^ mix64(tick ^ reinterpret_cast<std::uintptr_t>(owner)));
}

}  // namespace mixing
}  // namespace elfes
