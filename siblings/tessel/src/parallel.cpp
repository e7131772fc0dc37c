// The library's threads: oneTBB's shared arena by default, an arena of the size the user
// set otherwise. Nothing here throws to the caller.
#include "common/parallel.h"

#include <tbb/blocked_range.h>
#include <tbb/global_control.h>
#include <tbb/info.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

// ThreadSanitizer cannot see the synchronisation inside the (uninstrumented) oneTBB
// library and reports its hand-offs as races. Under it, the chunks run on plain threads
// that it sees whole, so that what it checks is the families' own loops.
#if defined(__SANITIZE_THREAD__)
#define TESSEL3D_PLAIN_THREADS 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TESSEL3D_PLAIN_THREADS 1
#endif
#endif

namespace elfes {
namespace {

// The arena of the set count (null: the process's shared arena) and, above the default,
// the permission for TBB to start that many workers.
struct thread_setting {
  std::mutex mutex;
  std::shared_ptr<tbb::task_arena> arena;
  std::unique_ptr<tbb::global_control> allowance;
  std::atomic<unsigned> count{0};  // 0: not read yet
};

thread_setting& setting() {
  static thread_setting s;
  return s;
}

unsigned default_threads() {
  const int n = tbb::info::default_concurrency();  // follows the affinity mask
  return n > 0 ? unsigned(n) : 1u;
}

}  // namespace

unsigned parallel_threads() {
  thread_setting& s = setting();
  unsigned n = s.count.load(std::memory_order_acquire);
  if (n == 0) {
    n = default_threads();
    unsigned expected = 0;
    if (!s.count.compare_exchange_strong(expected, n)) n = expected;
  }
  return n;
}

void set_parallel_threads(unsigned n) {
  thread_setting& s = setting();
  const std::lock_guard<std::mutex> lock(s.mutex);
  const unsigned cores = default_threads();
  if (n == 0 || n > 1024) n = n == 0 ? cores : 1024u;
  try {
    std::shared_ptr<tbb::task_arena> arena;
    std::unique_ptr<tbb::global_control> allowance;
    if (n > cores) allowance.reset(new tbb::global_control(tbb::global_control::max_allowed_parallelism, n));
    if (n != cores && n > 1) arena = std::make_shared<tbb::task_arena>(int(n));
    s.arena = std::move(arena);  // calls in flight keep the arena they started with
    s.allowance = std::move(allowance);
  } catch (...) {
    // No room for the arena: the shared one, at its own size.
    s.arena.reset();
    s.allowance.reset();
    n = n == 1 ? 1u : cores;
  }
  s.count.store(n, std::memory_order_release);
}

#ifdef TESSEL3D_PLAIN_THREADS
void run_chunks(std::size_t nb_chunks, void (*run)(void*, std::size_t), void* context) {
  std::atomic<std::size_t> next{0};
  auto work = [&] {
    for (std::size_t c; (c = next.fetch_add(1)) < nb_chunks;) run(context, c);
  };
  std::vector<std::thread> helpers;
  try {
    for (unsigned t = 1; t < parallel_threads() && t < nb_chunks; ++t) helpers.emplace_back(work);
  } catch (...) {
    // fewer helpers: the chunks still all run
  }
  work();
  for (std::thread& helper : helpers) helper.join();
}
#else
void run_chunks(std::size_t nb_chunks, void (*run)(void*, std::size_t), void* context) {
  auto loop = [&] {
    tbb::parallel_for(tbb::blocked_range<std::size_t>(0, nb_chunks, 1), [&](const tbb::blocked_range<std::size_t>& r) {
      for (std::size_t c = r.begin(); c != r.end(); ++c) run(context, c);
    });
  };
  try {
    std::shared_ptr<tbb::task_arena> arena;
    {
      thread_setting& s = setting();
      const std::lock_guard<std::mutex> lock(s.mutex);
      arena = s.arena;
    }
    if (arena)
      arena->execute(loop);
    else
      loop();
  } catch (...) {
    for (std::size_t c = 0; c < nb_chunks; ++c) run(context, c);
  }
}
#endif

}  // namespace elfes
