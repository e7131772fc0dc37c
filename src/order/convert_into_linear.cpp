// convert_into_linear: keeps the corner rows of a quadratic connectivity, in place, and
// pads the corners of the smaller kinds of a mixed matrix with the absent marker.
#include <cstdint>

#include "common/element_tables.h"
#include "common/parallel.h"
#include "zel/tessel3d.h"

namespace zel {
namespace tessel3d {
namespace {

// Row counts of the quadratic layouts that shrink to 8 rows: bits 13, 14, 15, 18, 20, 27.
constexpr std::uint32_t quadratic_rows_mask = 0x814E000u;

// The linear kind of a column is read from where its padding begins; only rows that exist
// beyond the pure element's own size are looked at.
void pad_corners(const unsigned* from, unsigned* to, std::size_t R) {
  if (from[10] == tessel::ABSENT) {
    to[4] = to[5] = to[6] = to[7] = tessel::ABSENT;  // TH10
  } else if ((R > 13 && from[13] == tessel::ABSENT) || (R > 14 && from[14] == tessel::ABSENT)) {
    to[5] = to[6] = to[7] = tessel::ABSENT;  // PY13, PY14
  } else if ((R > 15 && from[15] == tessel::ABSENT) || (R > 18 && from[18] == tessel::ABSENT)) {
    to[6] = to[7] = tessel::ABSENT;  // W15, W18
  }
}

// Columns are independent (in place, each reads only its own): chunks on the threads.
void pad_every_column(const dense2D<unsigned>& from, dense2D<unsigned>& to, std::size_t R) {
  elfes::parallel_for(to.cols(), 1u << 16, [&](std::size_t first, std::size_t last) {
    const unsigned* source = from.data() + first * from.ld();
    unsigned* target = to.data() + first * to.ld();
    for (std::size_t j = first; j < last; ++j, source += from.ld(), target += to.ld()) pad_corners(source, target, R);
  });
}

}  // namespace

int convert_into_linear(dense2D<unsigned>& connect) {
  const std::size_t R = connect.rows(), C = connect.cols();
  if (R * C == 0) return 0;
  if (R == 10) return connect.resize(4, C) ? 0 : tessel::OUT_OF_MEMORY;
  if (R > 27 || ((quadratic_rows_mask >> R) & 1u) == 0) return -1;
  if (connect.storage().unique()) {
    // Own buffer: rewrite in place, then drop the rows (no allocation, cannot fail).
    pad_every_column(connect, connect, R);
    return connect.resize(8, C) ? 0 : tessel::OUT_OF_MEMORY;
  }
  // Shared buffer: the resize detaches onto a buffer of its own, so the other views keep
  // their entries; the padding rows are read from the shared one.
  const dense2D<unsigned> shared = connect;
  if (!connect.resize(8, C)) return tessel::OUT_OF_MEMORY;
  pad_every_column(shared, connect, R);
  return 0;
}

}  // namespace tessel3d
}  // namespace zel
