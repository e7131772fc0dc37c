// Allocator hook for tests: counts the allocations of the zel containers, tracks the
// live and peak bytes, and can make the n-th allocation from now fail.
//
//   failing_allocator guard(3);  // the third allocation returns nullptr
//   ... call ...
//   guard.live_blocks()          // blocks still allocated since the guard was made
#pragma once

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "zel/matrix.h"

namespace tessel3d_test {

class failing_allocator {
 public:
  /// fail_at = 0 never fails; n > 0 fails the n-th allocation (and only that one).
  explicit failing_allocator(long fail_at = 0) {
    state().fail_at = fail_at;
    state().count = 0;
    state().live_blocks = 0;
    state().live_bytes = 0;
    state().peak_bytes = 0;
    previous_ = zel::set_vector_num_allocator(&allocate, &release);
  }
  ~failing_allocator() { zel::set_vector_num_allocator(previous_.first, previous_.second); }
  failing_allocator(const failing_allocator&) = delete;
  failing_allocator& operator=(const failing_allocator&) = delete;

  long allocations() const { return state().count; }
  long live_blocks() const { return state().live_blocks; }
  long long peak_bytes() const { return state().peak_bytes; }
  /// True when the failure was armed and its allocation was reached.
  bool failed() const { return state().fail_at > 0 && state().count >= state().fail_at; }

 private:
  struct counters {
    std::atomic<long> fail_at{0}, count{0}, live_blocks{0};
    std::atomic<long long> live_bytes{0}, peak_bytes{0};
  };
  static counters& state() {
    static counters c;
    return c;
  }
  // Each block carries its size in a 16-byte header so that frees can be counted.
  static void* allocate(std::size_t bytes) {
    const long n = ++state().count;
    if (n == state().fail_at) return nullptr;
    auto* block = static_cast<unsigned char*>(std::malloc(bytes + 16));
    if (!block) return nullptr;
    std::memcpy(block, &bytes, sizeof bytes);
    ++state().live_blocks;
    const long long live = state().live_bytes += static_cast<long long>(bytes);
    long long peak = state().peak_bytes.load();
    while (live > peak && !state().peak_bytes.compare_exchange_weak(peak, live)) {
    }
    return block + 16;
  }
  static void release(void* memory) {
    auto* block = static_cast<unsigned char*>(memory) - 16;
    std::size_t bytes;
    std::memcpy(&bytes, block, sizeof bytes);
    --state().live_blocks;
    state().live_bytes -= static_cast<long long>(bytes);
    std::free(block);
  }

  std::pair<zel::vector_num_alloc_fn, zel::vector_num_free_fn> previous_;
};

}  // namespace tessel3d_test
