// Allocator hook for tests: counts the allocations of the zel containers, tracks the
// live and peak bytes, and can make the n-th allocation from now fail.
//
//   failing_allocator guard(3);  // the third allocation returns nullptr
//   ... call ...
//   guard.live_blocks()          // blocks still allocated since the guard was made
#pragma once

#include <malloc.h>

#include <atomic>
#include <cstdlib>

#include "zel/matrix.h"

namespace tessel3d_test {

class failing_allocator {
 public:
  /// fail_at = 0 never fails; n > 0 fails the n-th allocation, and every later one too
  /// when keep_failing is set.
  explicit failing_allocator(long fail_at = 0, bool keep_failing = false) {
    state().fail_at = fail_at;
    state().keep_failing = keep_failing;
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
    std::atomic<bool> keep_failing{false};
    std::atomic<long long> live_bytes{0}, peak_bytes{0};
  };
  static counters& state() {
    static counters c;
    return c;
  }
  // Blocks are plain malloc blocks (sizes read back with malloc_usable_size), so memory
  // allocated while the guard is active may be freed after it is gone, and vice versa.
  static void* allocate(std::size_t bytes) {
    const long n = ++state().count;
    const long fail_at = state().fail_at;
    if (fail_at > 0 && (n == fail_at || (state().keep_failing && n > fail_at))) return nullptr;
    void* block = std::malloc(bytes == 0 ? 1 : bytes);
    if (!block) return nullptr;
    ++state().live_blocks;
    const long long live = state().live_bytes += static_cast<long long>(malloc_usable_size(block));
    long long peak = state().peak_bytes.load();
    while (live > peak && !state().peak_bytes.compare_exchange_weak(peak, live)) {
    }
    return block;
  }
  static void release(void* memory) {
    --state().live_blocks;
    state().live_bytes -= static_cast<long long>(malloc_usable_size(memory));
    std::free(memory);
  }

  std::pair<zel::vector_num_alloc_fn, zel::vector_num_free_fn> previous_;
};

}  // namespace tessel3d_test
