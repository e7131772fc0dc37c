// simplify: drops the trailing nodes that no element uses any more and closes the gaps.
#include <algorithm>

#include "zel/tessel.h"

namespace zel {
namespace tessel {
namespace {

bool same_view(const dense2D<unsigned>& a, const dense2D<unsigned>& b) {
  return a.storage().get() == b.storage().get() && a.offset() == b.offset() && a.rows() == b.rows() &&
         a.cols() == b.cols() && a.ld() == b.ld();
}

// Visits every matrix of [first, last) once: a matrix listed twice (the same view) is
// skipped the second time, so that its entries are not renumbered twice.
template <class F>
void for_each_matrix(dense2D<unsigned>* first, dense2D<unsigned>* last, F f) {
  if (!first || !last) return;
  for (dense2D<unsigned>* m = first; m < last; ++m) {
    bool seen = false;
    for (dense2D<unsigned>* earlier = first; earlier < m && !seen; ++earlier) seen = same_view(*earlier, *m);
    if (!seen) f(*m);
  }
}

// Applies f to every entry of m that names a node from nb_kept on (below nb_nodes).
template <class F>
void for_each_trailing_entry(dense2D<unsigned>& m, std::size_t nb_kept, std::size_t nb_nodes, F f) {
  unsigned* column = m.data();
  for (std::size_t j = 0; j < m.cols(); ++j, column += m.ld())
    for (std::size_t i = 0; i < m.rows(); ++i)
      if (column[i] >= nb_kept && column[i] < nb_nodes) f(column[i]);
}

}  // namespace

int simplify(dense2D<double>& coords, dense2D<unsigned>* first, dense2D<unsigned>* last, dense1D<unsigned, 8>& work,
             unsigned nbNodes) {
  if (coords.rows() != 3) return -1;
  const std::size_t nb_nodes = coords.cols();
  if (nbNodes >= nb_nodes) return 0;
  const std::size_t nb_trailing = nb_nodes - nbNodes;
  if (!work.resize(nb_trailing)) return OUT_OF_MEMORY;
  std::fill(work.begin(), work.end(), 0U);

  // work[k]: whether node nbNodes + k is used, then its new ID (absent when dropped).
  unsigned* map = work.data();
  for_each_matrix(first, last, [&](dense2D<unsigned>& m) {
    for_each_trailing_entry(m, nbNodes, nb_nodes, [&](unsigned& id) { map[id - nbNodes] = 1; });
  });
  unsigned next = nbNodes;
  for (std::size_t k = 0; k < nb_trailing; ++k) map[k] = map[k] ? next++ : ABSENT;
  if (next == nb_nodes) return 0;  // every node is used: nothing moves

  for_each_matrix(first, last, [&](dense2D<unsigned>& m) {
    for_each_trailing_entry(m, nbNodes, nb_nodes, [&](unsigned& id) { id = map[id - nbNodes]; });
  });
  // New IDs never exceed old ones, so moving the columns in increasing order is safe.
  double* xyz = coords.data();
  const std::size_t ld = coords.ld();
  for (std::size_t k = 0; k < nb_trailing; ++k)
    if (map[k] != ABSENT && map[k] != nbNodes + k)
      std::copy(xyz + (nbNodes + k) * ld, xyz + (nbNodes + k) * ld + 3, xyz + std::size_t(map[k]) * ld);
  // A narrower view of the same buffer: shrinking cannot fail, even when the buffer is shared.
  coords = coords.sub_matrix(0, 0, 3, next);
  return 0;
}

}  // namespace tessel
}  // namespace zel
