// set_threads, threads: how many threads one call may use.
#include "common/parallel.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {

void set_threads(unsigned n) { elfes::set_parallel_threads(n); }
unsigned threads() { return elfes::parallel_threads(); }

}  // namespace tessel3d
}  // namespace zel
