// get_node_element: one element holding each node.
#include "common/parallel.h"
#include "zel/tessel.h"

namespace zel {
namespace tessel {

using elfes::parallel_for;

int get_node_element(const dense2D<unsigned>& connect, unsigned nbNodes, dense1D<unsigned, 8>& node_element) {
  if (!check_IDs(connect, nbNodes)) return -1;
  dense1D<unsigned, 8> result;
  if (!result.resize(nbNodes, NO_ELEMENT)) return OUT_OF_MEMORY;
  // Each node keeps the smallest index of the elements holding it: an atomic minimum,
  // the same whatever order the chunks of columns run in.
  unsigned* first_element = result.data();
  parallel_for(connect.cols(), 1u << 15, [&](std::size_t first, std::size_t last) {
    for (std::size_t j = first; j < last; ++j) {
      const unsigned* column = connect.data() + j * connect.ld();
      const unsigned element = static_cast<unsigned>(j);
      for (std::size_t i = 0; i < connect.rows(); ++i) {
        if (column[i] == NO_ELEMENT) continue;
        unsigned* slot = first_element + column[i];
        unsigned held = __atomic_load_n(slot, __ATOMIC_RELAXED);
        while (element < held &&
               !__atomic_compare_exchange_n(slot, &held, element, true, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
        }
      }
    }
  });
  node_element.swap(result);
  return 0;
}

}  // namespace tessel
}  // namespace zel
