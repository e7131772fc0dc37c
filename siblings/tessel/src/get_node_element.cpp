// get_node_element: one element holding each node.
#include "zel/tessel.h"

namespace zel {
namespace tessel {

int get_node_element(const dense2D<unsigned>& connect, unsigned nbNodes, dense1D<unsigned, 8>& node_element) {
  if (!check_IDs(connect, nbNodes)) return -1;
  dense1D<unsigned, 8> result;
  if (!result.resize(nbNodes, NO_ELEMENT)) return OUT_OF_MEMORY;
  // Walk the columns backwards so that the first element holding a node wins.
  for (std::size_t j = connect.cols(); j-- > 0;) {
    const unsigned* column = connect.data() + j * connect.ld();
    for (std::size_t i = 0; i < connect.rows(); ++i)
      if (column[i] != NO_ELEMENT) result[column[i]] = static_cast<unsigned>(j);
  }
  node_element.swap(result);
  return 0;
}

}  // namespace tessel
}  // namespace zel
