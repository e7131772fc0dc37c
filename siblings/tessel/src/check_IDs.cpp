// check_IDs: node-ID validation of connectivities and ID lists.
#include "zel/tessel.h"

namespace zel {
namespace tessel {
namespace {

// Row counts whose columns each mixed type can be read with safely.
bool face_mix4_rows(std::size_t rows) { return rows == 3 || rows == 4; }
bool solid_mix8_rows(std::size_t rows) { return rows >= 4 && rows <= 8 && rows != 7; }
bool face_mix9_rows(std::size_t rows) { return rows <= 9; }
bool solid_mix27_rows(std::size_t rows) { return rows <= 27; }

bool all_below(const dense2D<unsigned>& connect, unsigned nbNodes, bool accept_absent) {
  const unsigned* column = connect.data();
  for (std::size_t j = 0; j < connect.cols(); ++j, column += connect.ld())
    for (std::size_t i = 0; i < connect.rows(); ++i)
      if (column[i] >= nbNodes && !(accept_absent && column[i] == ABSENT)) return false;
  return true;
}

}  // namespace

bool check_IDs(const dense2D<unsigned>& connect, element_type type, unsigned nbNodes) {
  if (connect.empty()) return true;
  bool (*rows_ok)(std::size_t) = nullptr;
  switch (type) {
    case FACE_MIX4: rows_ok = face_mix4_rows; break;
    case FACE_MIX9: rows_ok = face_mix9_rows; break;
    case SOLID_MIX8: rows_ok = solid_mix8_rows; break;
    case SOLID_MIX27: rows_ok = solid_mix27_rows; break;
    default: return all_below(connect, nbNodes, false);
  }
  return rows_ok(connect.rows()) && all_below(connect, nbNodes, true);
}

bool check_IDs(const dense2D<unsigned>& connect, unsigned nbNodes) {
  return connect.empty() || all_below(connect, nbNodes, true);
}

bool check_IDs(const dense1D<unsigned, 8>& ids, unsigned nbNodes) {
  for (std::size_t i = 0; i < ids.size(); ++i)
    if (ids[i] >= nbNodes) return false;
  return true;
}

}  // namespace tessel
}  // namespace zel
