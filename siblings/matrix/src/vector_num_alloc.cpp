// The replaceable allocator behind every zel buffer.
#include <atomic>
#include <cstdlib>

#if defined(__linux__)
#include <sys/mman.h>
#endif

#include "zel/matrix.h"

namespace zel {
namespace {

// Large buffers are aligned to 2 MiB and offered to the kernel for huge pages: a fresh
// output of tens of MiB otherwise costs one page fault per 4 KiB on its first write,
// which on some machines takes longer than the computation that fills it.
constexpr std::size_t huge_page = std::size_t(2) << 20;
constexpr std::size_t huge_buffer = 4 * huge_page;

void* default_alloc(std::size_t bytes) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  if (bytes >= huge_buffer) {
    void* memory = nullptr;
    if (posix_memalign(&memory, huge_page, bytes) != 0) return nullptr;
    madvise(memory, bytes & ~(huge_page - 1), MADV_HUGEPAGE);  // advice only: failure is harmless
    return memory;
  }
#endif
  return std::malloc(bytes == 0 ? 1 : bytes);
}
void default_free(void* memory) { std::free(memory); }

// Read on every allocation; atomics keep concurrent readers well defined.
std::atomic<vector_num_alloc_fn> current_alloc{&default_alloc};
std::atomic<vector_num_free_fn> current_free{&default_free};

}  // namespace

void* __vector_num_alloc(std::size_t bytes) { return current_alloc.load(std::memory_order_acquire)(bytes); }

void __vector_num_free(void* memory) {
  if (memory) current_free.load(std::memory_order_acquire)(memory);
}

std::pair<vector_num_alloc_fn, vector_num_free_fn> set_vector_num_allocator(vector_num_alloc_fn alloc_fn,
                                                                            vector_num_free_fn free_fn) {
  if (!alloc_fn || !free_fn) {
    alloc_fn = &default_alloc;
    free_fn = &default_free;
  }
  return {current_alloc.exchange(alloc_fn), current_free.exchange(free_fn)};
}

}  // namespace zel
